#include "hubquery.h"

#include "core/context.h"
#include "core/tracelayout.h"
#include "core/xmllist.h"
#include "core/xmllistiterator.h"
#include "messaging/msg.h"
#include "messaging/msgaddress.h"
#include "messaging/msgcatalogue.h"

#include <functional>

namespace Brevi {

namespace {
using namespace Catalogue;

// The Hub lists each process of its monitor reply as a nested list under
// this key, as it does in its named process list.
const QString EntryKey = QStringLiteral("Entry");
// The Hub adds to each entry the address of the process that had it start
// this one, under the key of the attach reply.
const QString& ParentAddressKey = HubMgrAttachReply::ParentAddress;
// The state word of a process that has ended and whose trace is kept.
const QString ExitedState = QStringLiteral("Exited");

// The Hub's process manager, at the Hub's end of this process's link.
MsgAddress hubManager() { return MsgAddress(eMsgAddressHub, eWellKnownHubManager); }

bool isNumber(const QString& text, unsigned& value)
{
    bool ok = false;
    value = text.toUInt(&ok);
    return ok;
}
} // namespace

bool MonitorEntry::live() const { return state != ExitedState; }

QString MonitorEntry::nameAndGroup() const
{
    if (name.isEmpty())
        return QString();
    return group.isEmpty() ? name : name + '/' + group;
}

QString MonitorEntry::label() const
{
    const QString named = nameAndGroup();
    return named.isEmpty() ? QStringLiteral("%1 (process %2)").arg(title).arg(processId) : named;
}

MsgAddress MonitorEntry::address() const
{
    return name.isEmpty() ? MsgAddress(Context::machineName(), processId)
                          : MsgAddress(Context::machineName(), name, group);
}

bool MonitorEntry::startedBy(const MonitorEntry& candidate) const
{
    if (parentAddress.isEmpty())
        return false;
    // The Hub keeps the address its starter sent from: by name or by number.
    const MsgAddress parent(parentAddress);
    return parent.id()
               ? parent.id() == candidate.processId
               : !candidate.name.isEmpty() && parent.name() == candidate.name && parent.group() == candidate.group;
}

SharedMemoryUser MonitorEntry::traceBuffer(QString& error) const
{
    const QString who = QStringLiteral("process %1 (%2)").arg(processId).arg(title);
    if (!traceId) {
        error = who + QStringLiteral(" has no trace buffer at the Hub");
        return SharedMemoryUser();
    }
    const SharedMemoryUser user(traceId);
    if (!user) {
        error = QStringLiteral("cannot map the trace buffer of ") + who + QStringLiteral(": the Hub has let it go");
        return SharedMemoryUser();
    }
    if (user.size() <= TraceLayout::RecordOverhead) {
        error = QStringLiteral("the trace buffer of ") + who + QStringLiteral(" is too small to be one");
        return SharedMemoryUser();
    }
    return user;
}

MonitorEntry MonitorEntry::fromXml(const XmlList& entry)
{
    MonitorEntry result;
    entry.get(result.id, HubMgrMonitorReply::Id);
    entry.get(result.processId, HubMgrMonitorReply::ProcessId);
    entry.get(result.osPid, HubMgrMonitorReply::OSPid);
    entry.get(result.contextId, HubMgrMonitorReply::ContextId);
    entry.get(result.state, HubMgrMonitorReply::State);
    entry.get(result.title, HubMgrMonitorReply::Title);
    entry.get(result.name, HubMgrMonitorReply::Name);
    entry.get(result.group, HubMgrMonitorReply::Group);
    entry.get(result.startTime, HubMgrMonitorReply::StartTime);
    if (!entry.first(HubMgrMonitorReply::TraceId).isNull())
        result.traceId = SharedMemoryId(entry, HubMgrMonitorReply::TraceId);
    if (!entry.first(ParentAddressKey).isNull())
        entry.get(result.parentAddress, ParentAddressKey);
    return result;
}

bool HubQuery::fail(const QString& error)
{
    msError = error;
    return false;
}

bool HubQuery::refresh(int seconds)
{
    moEntries.clear();
    if (!Msg(hubManager(), HubMgrMonitorRequest::Message).send())
        return fail(QStringLiteral("cannot send to the Hub"));
    const Msg reply = Msg::wait(HubMgrMonitorReply::Message, seconds);
    if (!reply)
        return fail(reply.lastError() == eMsgResultTimeout ? QStringLiteral("the Hub did not answer")
                                                           : QStringLiteral("the link to the Hub failed"));

    // Its own entry, known by its pid: the address's number would not tell
    // a process attached by name.
    const unsigned self = Context::OSPid();
    const XmlList& body = reply.body();
    for (XmlListIterator item = body.first(EntryKey); !item.isNull(); item.next(EntryKey)) {
        const MonitorEntry entry = MonitorEntry::fromXml(item.getXmlList());
        if (entry.live() && entry.osPid == self)
            continue;
        moEntries.append(entry);
    }
    return true;
}

QList<MonitorEntry> HubQuery::descendants(const MonitorEntry& root) const
{
    QList<MonitorEntry> found;
    QList<MonitorEntry> parents{root};
    while (!parents.isEmpty()) {
        const MonitorEntry parent = parents.takeFirst();
        for (const MonitorEntry& entry : moEntries)
            if (entry.live() && entry.startedBy(parent) && entry.id != root.id) {
                bool seen = false;
                for (const MonitorEntry& known : found)
                    seen = seen || known.id == entry.id;
                if (!seen) {
                    found.append(entry);
                    parents.append(entry);
                }
            }
    }
    return found;
}

const MonitorEntry* HubQuery::select(const QString& selector, QString& error) const
{
    // Each test says whether an entry is the one asked for; names are tried
    // before titles, so that a title that happens to equal another's name
    // does not hide it.
    QList<std::function<bool(const MonitorEntry&)>> tests;
    unsigned number = 0;
    if (isNumber(selector, number)) {
        tests << [number](const MonitorEntry& entry) { return entry.processId == number; };
    } else if (selector.startsWith("pid:") && isNumber(selector.mid(4), number)) {
        tests << [number](const MonitorEntry& entry) { return entry.osPid == number; };
    } else if (selector.startsWith('#') && isNumber(selector.mid(1), number)) {
        tests << [number](const MonitorEntry& entry) { return entry.id == number; };
    } else {
        tests << [&selector](const MonitorEntry& entry) {
            return !entry.name.isEmpty() && entry.nameAndGroup() == selector;
        };
        tests << [&selector](const MonitorEntry& entry) { return entry.name == selector; };
        tests << [&selector](const MonitorEntry& entry) { return entry.title == selector; };
    }

    for (const auto& test : tests) {
        const MonitorEntry* live = nullptr;
        const MonitorEntry* exited = nullptr;
        int liveCount = 0;
        for (const MonitorEntry& entry : moEntries) {
            if (!test(entry))
                continue;
            if (entry.live()) {
                live = &entry;
                ++liveCount;
            } else if (!exited || entry.id > exited->id) {
                exited = &entry;
            }
        }
        if (liveCount > 1) {
            error = QStringLiteral("%1 live processes match '%2': give a process id").arg(liveCount).arg(selector);
            return nullptr;
        }
        if (live || exited)
            return live ? live : exited;
    }
    error = QStringLiteral("no process '%1' on this Hub").arg(selector);
    return nullptr;
}

bool HubQuery::postGlobalLevel(TraceLevelE level, int seconds)
{
    XmlList body;
    body.set(HubMgrGlobalTraceLevelPost::Value, unsigned(level));
    if (!Msg(hubManager(), HubMgrGlobalTraceLevelPost::Message, body).send())
        return fail(QStringLiteral("cannot send to the Hub"));
    // The Hub serves a link's messages in order: once the list asked after
    // the post comes back, the post has been carried out.
    return refresh(seconds);
}

} // namespace Brevi
