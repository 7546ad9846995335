#include "hubmanager.h"

#include "hub.h"
#include "hubconstants.h"
#include "hublink.h"

#include "core/context.h"
#include "core/trace.h"
#include "core/xmllist.h"
#include "core/xmllistiterator.h"
#include "messaging/binaryaddress.h"
#include "messaging/msgaddress.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msgpacket.h"

#include <boost/make_shared.hpp>

#include <sys/syscall.h>
#include <unistd.h>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleHub;
using namespace Catalogue;
using HubConstants::ManagerId;
using HubConstants::RouterId;

// A pidfd on a process that is not our child, to learn when it ends.
int openPidfd(unsigned pid)
{
    if (pid == 0)
        return -1;
    const long fd = ::syscall(SYS_pidfd_open, pid_t(pid), 0);
    return fd < 0 ? -1 : int(fd);
}

template <typename T>
T value(const XmlList& body, const QString& key, T fallback = T())
{
    T result = fallback;
    body.get(result, key);
    return result;
}

// A level from a number (uint32 or int32, or digits in a string) or from its
// name ("TraceDebug"); false for anything else or a level above TraceDebug.
// The item's type is looked at first, so that no get is tried on a wrong one.
bool traceLevel(const XmlList& body, TraceLevelE& level)
{
    static const char* const names[] = {"TraceAlways", "TraceTesting", "TraceNormal", "TraceVerbose", "TraceDebug"};
    const QString& key = HubMgrGlobalTraceLevelPost::Value;
    const XmlListIterator item = body.first(key);
    if (item.isNull())
        return false;
    unsigned number = TraceLevelNone;
    int signedNumber = -1;
    QString text;
    switch (item.type()) {
    case XmlList::ValueUint32:
        body.get(number, item);
        break;
    case XmlList::ValueInt32:
        if (body.get(signedNumber, item) && signedNumber >= 0)
            number = unsigned(signedNumber);
        break;
    case XmlList::ValueString:
        if (body.get(text, item)) {
            bool isNumber = false;
            number = text.toUInt(&isNumber);
            if (!isNumber) {
                number = TraceLevelNone;
                for (unsigned i = 0; i <= TraceDebug; ++i)
                    if (text == QLatin1String(names[i]))
                        number = i;
            }
        }
        break;
    default:
        break;
    }
    if (number > TraceDebug)
        return false;
    level = TraceLevelE(number);
    return true;
}
} // namespace

HubManager::HubManager(Hub& hub)
    : moHub(hub)
{}

ProcessPointer HubManager::processOf(const HubLink& link) const
{
    return link.processId() ? moHub.processes().byId(link.processId()) : ProcessPointer();
}

QByteArray HubManager::replyTo(const HubLink& link, const MsgPacket& packet) const
{
    if (packet.source().type() != eMsgAddressInvalid)
        return Router::text(packet.source());
    const ProcessPointer process = processOf(link);
    return process ? process->physicalText(moHub.machine()) : QByteArray();
}

void HubManager::reply(HubLink& link, const MsgPacket& request, unsigned service, const QString& name,
                       const XmlList& body)
{
    moHub.send(link, service, replyTo(link, request), name, request.cookie(), body);
}

void HubManager::handle(HubLink& link, const MsgPacket& packet)
{
    const QString name = packet.name();
    const XmlList body = packet.xml();
    if (!body.isValid()) {
        BTRACE(TraceAlways) << "Dropped" << name << "from link" << link.serial() << ": its body does not parse";
        return;
    }
    BTRACE(TraceVerbose) << "Hub message" << name << "from link" << link.serial() << "process" << link.processId();

    if (name == HubMgrAttachRequest::Message)
        return attach(link, packet, body);
    if (!link.processId()) {
        BTRACE(TraceAlways) << "Dropped" << name << "from link" << link.serial() << ": not attached";
        return;
    }
    if (name == HubMgrTraceBufferRequest::Message)
        return traceBuffer(link, packet);
    if (name == HubMgrConnectionEnableRequest::Message)
        return enable(link, packet);
    if (name == HubMgrContextReadyPost::Message)
        return contextReady(link);
    if (name == HubMgrSetTitlePost::Message)
        return setTitle(link, body);
    if (name == HubMgrMonitorRequest::Message)
        return monitor(link, packet);
    if (name == HubMgrNamedProcessListRequest::Message)
        return namedProcessList(link, packet);
    if (name == HubMgrPersistentProcessListRequest::Message)
        return persistentProcessList(link, packet);
    if (name == HubMgrRemovePersistencePost::Message) {
        if (const ProcessPointer process = processOf(link))
            process->persistent = false;
        return;
    }
    if (name == HubMgrCreateProcessRequest::Message)
        return createProcess(link, packet, body);
    if (name == HubMgrGlobalTraceLevelPost::Message)
        return globalTraceLevel(body);
    if (name == HubMgrShutdownPost::Message) {
        BTRACE(TraceAlways) << "Shutdown asked by process" << link.processId();
        return moHub.beginShutdown();
    }
    if (name == HubRtrConnectionDetachPost::Message) {
        BTRACE(TraceNormal) << "Process" << link.processId() << "detaches";
        link.setClosing(moHub.now());
        return;
    }
    if (name == HubRtrRegisterNotifyOnExitPost::Message || name == HubRtrUnregisterNotifyOnExitPost::Message)
        return registerExit(link, body, name == HubRtrRegisterNotifyOnExitPost::Message);
    if (name == HubRtrRegisterNotifyOnReadyPost::Message || name == HubRtrUnregisterNotifyOnReadyPost::Message)
        return registerReady(link, body, name == HubRtrRegisterNotifyOnReadyPost::Message);
    if (name == HubRtrBroadcastMessagePost::Message)
        return broadcast(link, packet, body);
    if (name == HubRtrContextDonePost::Message) {
        BTRACE(TraceNormal) << "Process" << link.processId() << "says its context is done";
        return;
    }

    BTRACE(TraceAlways) << "Unknown message for the Hub" << name << "from process" << link.processId();
    XmlList post;
    post.set(HubRtrUndeliverableMessagePost::Destination, MsgAddress(packet.destination()).toXml());
    post.set(HubRtrUndeliverableMessagePost::Name, name);
    post.set(HubRtrUndeliverableMessagePost::Body, body);
    post.set(HubRtrUndeliverableMessagePost::Cookie, packet.cookie());
    reply(link, packet, RouterId, HubRtrUndeliverableMessagePost::Message, post);
}

// --- attach and the link's set-up ---------------------------------------------

void HubManager::refuseAttach(HubLink& link, const MsgPacket& packet, const char* reason)
{
    BTRACE(TraceAlways) << "Attach refused on link" << link.serial() << ":" << reason;
    XmlList body;
    body.set(HubMgrAttachReply::MachineName, moHub.machine().fullName());
    reply(link, packet, ManagerId, HubMgrAttachReply::Message, body);
    link.setClosing(moHub.now());
}

void HubManager::attach(HubLink& link, const MsgPacket& packet, const XmlList& body)
{
    if (link.processId()) {
        BTRACE(TraceAlways) << "Attach request on link" << link.serial() << "of process" << link.processId()
                            << ", ignored";
        return;
    }
    const QString type = value<QString>(body, HubMgrAttachRequest::Type);
    if (type != HubMgrAttachRequest::TypeAttached && type != HubMgrAttachRequest::TypeMonitored)
        return refuseAttach(link, packet, "unknown process type");
    if (moHub.shuttingDown())
        return refuseAttach(link, packet, "the Hub is shutting down");

    ProcessPointer entry = boost::make_shared<ProcessEntry>();
    entry->kind = type == HubMgrAttachRequest::TypeMonitored ? ProcessEntry::eMonitored : ProcessEntry::eAttached;
    entry->title = value<QString>(body, HubMgrAttachRequest::Title);
    entry->osPid = value<unsigned>(body, HubMgrAttachRequest::OSPid);
    entry->contextId = value<unsigned>(body, HubMgrAttachRequest::ContextId);
    entry->name = value<QString>(body, HubMgrAttachRequest::Name);
    // A group without a name means nothing: processes are found by both.
    if (!entry->name.isEmpty())
        entry->group = value<QString>(body, HubMgrAttachRequest::Group);
    entry->notifyReady = value<bool>(body, HubMgrAttachRequest::NotifyReady);
    entry->persistent = value<bool>(body, HubMgrAttachRequest::Persistent);
    entry->startTime = Context::systemTime();
    entry->linkSerial = link.serial();

    ProcessCreator::Pending pending;
    const bool created = entry->osPid && moHub.creator().find(entry->osPid, pending);
    if (created)
        entry->parentAddress = pending.request.parentAddress;

    if (!moHub.processes().add(entry)) {
        BTRACE(TraceAlways) << "Name conflict:" << entry->name << "group" << entry->group << "is taken";
        if (created && moHub.creator().take(entry->osPid, pending))
            creationDone(pending, HubMgrCreateProcessReply::StatusNameConflict);
        return refuseAttach(link, packet, "a live process has that name and group");
    }
    link.setProcessId(entry->processId);
    // Its starter hears of it once the connection is enabled.
    if (created)
        moHub.creator().attached(entry->osPid, entry->processId);
    if (entry->kind == ProcessEntry::eMonitored)
        entry->pidfd = openPidfd(entry->osPid);

    XmlList reply;
    reply.set(HubMgrAttachReply::ProcessId, entry->processId);
    reply.set(HubMgrAttachReply::MachineName, moHub.machine().fullName());
    if (created)
        reply.set(HubMgrAttachReply::ParentAddress, entry->parentAddress);
    moHub.send(link, ManagerId, entry->physicalText(moHub.machine()), HubMgrAttachReply::Message, packet.cookie(),
               reply);
    BTRACE(TraceNormal) << "Attached" << type << entry->title << "pid" << entry->osPid << "as process"
                        << entry->processId << "name" << entry->name << "group" << entry->group << "link"
                        << link.serial();

    moHub.notifications().attached(*entry);
    tellMonitors(HubMgrMonitorProcessNewPost::Message, monitorEntry(*entry));
}

void HubManager::traceBuffer(HubLink& link, const MsgPacket& packet)
{
    const ProcessPointer process = processOf(link);
    if (!process->traceProvider) {
        SharedMemoryProvider provider;
        if (provider.allocate(moHub.options().traceBufferSize)) {
            SharedMemoryUser user(provider.id());
            if (user) {
                process->traceProvider = provider;
                process->traceUser = user;
            } else {
                provider.release();
            }
        }
        if (!process->traceProvider)
            BTRACE(TraceAlways) << "No trace buffer for process" << process->processId;
    }
    XmlList body;
    if (process->traceProvider)
        body.set(HubMgrTraceBufferReply::Id, process->traceProvider.id().toXml());
    reply(link, packet, ManagerId, HubMgrTraceBufferReply::Message, body);
}

void HubManager::enable(HubLink& link, const MsgPacket& packet)
{
    const ProcessPointer process = processOf(link);
    if (!link.enabled()) {
        link.enable(moHub.options().maximumPacketSize);
        if (process->state == ProcessEntry::eStateAttached)
            process->state = ProcessEntry::eStateEnabled;
    }
    reply(link, packet, RouterId, HubRtrConnectionEnableReply::Message, XmlList());
    moHub.releaseHeld(link);
    BTRACE(TraceNormal) << "Connection of process" << process->processId << "enabled";
    // Now its starter may talk to it: what it sends comes after the enable
    // reply on the child's link.
    ProcessCreator::Pending pending;
    if (moHub.creator().takeChild(process->processId, pending))
        creationDone(pending, HubMgrCreateProcessReply::StatusSuccess, process);
    if (!process->notifyReady && process->state == ProcessEntry::eStateEnabled)
        becomeReady(*process);
    else
        processChanged(*process);
}

void HubManager::contextReady(HubLink& link)
{
    const ProcessPointer process = processOf(link);
    // Ready before enabled: it becomes ready with the enable.
    process->notifyReady = false;
    if (process->state == ProcessEntry::eStateEnabled)
        becomeReady(*process);
}

void HubManager::becomeReady(ProcessEntry& process)
{
    process.state = ProcessEntry::eStateReady;
    BTRACE(TraceNormal) << "Process" << process.processId << "is ready";
    moHub.deliverReady(moHub.notifications().ready(process));
    processChanged(process);
}

void HubManager::setTitle(HubLink& link, const XmlList& body)
{
    const ProcessPointer process = processOf(link);
    QString title;
    if (body.get(title, HubMgrSetTitlePost::Title)) {
        process->title = title;
        processChanged(*process);
    }
}

// --- monitoring -----------------------------------------------------------------

XmlList HubManager::monitorEntry(const ProcessEntry& process) const
{
    XmlList entry;
    entry.set(HubMgrMonitorReply::Id, process.serial);
    entry.set(HubMgrMonitorReply::ProcessId, process.processId);
    entry.set(HubMgrMonitorReply::OSPid, process.osPid);
    entry.set(HubMgrMonitorReply::ContextId, process.contextId);
    entry.set(HubMgrMonitorReply::State, process.stateWord());
    entry.set(HubMgrMonitorReply::Title, process.title);
    if (process.traceProvider)
        entry.set(HubMgrMonitorReply::TraceId, process.traceProvider.id().toXml());
    entry.set(HubMgrMonitorReply::StartTime, process.startTime);
    entry.set(HubMgrMonitorReply::Group, process.group);
    entry.set(HubMgrMonitorReply::Name, process.name);
    if (!process.parentAddress.isEmpty())
        entry.set(HubConstants::MonitorParentAddress, process.parentAddress);
    return entry;
}

void HubManager::tellMonitors(const QString& name, const XmlList& body)
{
    for (const unsigned id : moMonitors)
        if (const ProcessPointer monitor = moHub.processes().byId(id))
            moHub.post(*monitor, ManagerId, name, body);
}

void HubManager::processChanged(const ProcessEntry& process)
{
    XmlList body;
    body.set(HubMgrMonitorProcessChangePost::Id, process.serial);
    body.set(HubMgrMonitorProcessChangePost::ProcessId, process.processId);
    body.set(HubMgrMonitorProcessChangePost::State, process.stateWord());
    body.set(HubMgrMonitorProcessChangePost::Title, process.title);
    tellMonitors(HubMgrMonitorProcessChangePost::Message, body);
}

void HubManager::processEnded(const ProcessEntry& process)
{
    moMonitors.erase(process.processId);
    moHub.creator().forget(process.processId);
    // A child that goes before its connection is enabled has failed to start.
    ProcessCreator::Pending pending;
    if (moHub.creator().takeChild(process.processId, pending))
        creationDone(pending, HubMgrCreateProcessReply::StatusAttachFailed);
    XmlList body;
    body.set(HubMgrMonitorProcessEndPost::Id, process.serial);
    body.set(HubMgrMonitorProcessEndPost::ProcessId, process.processId);
    tellMonitors(HubMgrMonitorProcessEndPost::Message, body);
}

void HubManager::monitor(HubLink& link, const MsgPacket& packet)
{
    XmlList body;
    const std::vector<ProcessPointer> live = moHub.processes().live();
    const std::deque<ProcessPointer>& exited = moHub.processes().exited();
    body.set(HubMgrMonitorReply::EntryCount, unsigned(live.size() + exited.size()));
    for (const ProcessPointer& process : live)
        body.set(HubConstants::MonitorEntry, monitorEntry(*process), XmlList::SetCreate);
    for (const ProcessPointer& process : exited)
        body.set(HubConstants::MonitorEntry, monitorEntry(*process), XmlList::SetCreate);
    reply(link, packet, ManagerId, HubMgrMonitorReply::Message, body);
    moMonitors.insert(link.processId());
}

void HubManager::namedProcessList(HubLink& link, const MsgPacket& packet)
{
    XmlList body;
    for (const ProcessPointer& process : moHub.processes().live()) {
        if (process->name.isEmpty())
            continue;
        XmlList entry;
        entry.set(HubMgrNamedProcessListReply::Id, process->serial);
        entry.set(HubMgrNamedProcessListReply::ProcessId, process->processId);
        entry.set(HubMgrNamedProcessListReply::Title, process->title);
        entry.set(HubMgrNamedProcessListReply::Group, process->group);
        entry.set(HubMgrNamedProcessListReply::Name, process->name);
        body.set(HubMgrNamedProcessListReply::Entry, entry, XmlList::SetCreate);
    }
    reply(link, packet, ManagerId, HubMgrNamedProcessListReply::Message, body);
}

void HubManager::persistentProcessList(HubLink& link, const MsgPacket& packet)
{
    XmlList body;
    auto add = [&body](const ProcessEntry& process) {
        if (!process.persistent)
            return;
        XmlList entry;
        entry.set(HubMgrPersistentProcessListReply::Title, process.title);
        entry.set(HubMgrPersistentProcessListReply::Running, process.live());
        body.set(HubMgrPersistentProcessListReply::Entry, entry, XmlList::SetCreate);
    };
    for (const ProcessPointer& process : moHub.processes().live())
        add(*process);
    for (const ProcessPointer& process : moHub.processes().exited())
        add(*process);
    reply(link, packet, ManagerId, HubMgrPersistentProcessListReply::Message, body);
}

void HubManager::globalTraceLevel(const XmlList& body)
{
    TraceLevelE level = TraceAlways;
    if (!traceLevel(body, level)) {
        BTRACE(TraceAlways) << "Global trace level without a level from 0 to 4, ignored";
        return;
    }
    BTRACE(TraceAlways) << "Global trace level set to" << unsigned(level);
    unsigned count = 0;
    for (const ProcessPointer& process : moHub.processes().live())
        if (process->traceUser) {
            Trace::setLevel(process->traceUser.address(), level, 0);
            ++count;
        }
    Trace::setLevel(level, 0u);
    BTRACE(TraceNormal) << "Trace level written into" << count << "buffers";
}

// --- process creation -----------------------------------------------------------

void HubManager::createProcess(HubLink& link, const MsgPacket& packet, const XmlList& body)
{
    ProcessCreator::Request request;
    request.instance = value<unsigned>(body, HubMgrCreateProcessRequest::Instance);
    request.program = value<QString>(body, HubMgrCreateProcessRequest::Program);
    request.title = value<QString>(body, HubMgrCreateProcessRequest::Title);
    request.name = value<QString>(body, HubMgrCreateProcessRequest::Name);
    if (!request.name.isEmpty())
        request.group = value<QString>(body, HubMgrCreateProcessRequest::Group);
    request.traceFile = value<QString>(body, HubMgrCreateProcessRequest::TraceFile);
    request.requester = link.processId();
    request.replyTo = replyTo(link, packet);
    request.cookie = packet.cookie().toUtf8();
    const MsgAddress parent = packet.source().type() != eMsgAddressInvalid
                                  ? MsgAddress(packet.source())
                                  : MsgAddress(moHub.machine(), link.processId());
    request.parentAddress = parent.toXml();
    BTRACE(TraceNormal) << "Process" << link.processId() << "asks to start" << request.program << "instance"
                        << request.instance << "name" << request.name << "group" << request.group;

    QString status;
    if (moHub.shuttingDown())
        status = HubMgrCreateProcessReply::StatusShutdown;
    else if (moHub.processes().conflicts(request.name, request.group) ||
             moHub.creator().claims(request.name, request.group))
        // A child already on its way to the name would refuse this one's
        // attach: no use starting it.
        status = HubMgrCreateProcessReply::StatusNameConflict;
    else
        status = moHub.creator().start(request, moHub.now() + moHub.options().attachTimeoutMs);
    if (!status.isEmpty()) {
        ProcessCreator::Pending pending;
        pending.request = request;
        creationDone(pending, status);
    }
}

void HubManager::creationDone(const ProcessCreator::Pending& pending, const QString& status,
                              const ProcessPointer& process)
{
    const ProcessCreator::Request& request = pending.request;
    BTRACE(TraceNormal) << "Start of" << request.program << "instance" << request.instance << ":" << status;
    const ProcessPointer requester = moHub.processes().byId(request.requester);
    HubLink* link = requester ? moHub.link(requester->linkSerial) : nullptr;
    if (!link)
        return;
    XmlList body;
    body.set(HubMgrCreateProcessReply::Instance, request.instance);
    body.set(HubMgrCreateProcessReply::Status, status);
    if (process) {
        const MsgAddress address = process->name.isEmpty() ? MsgAddress(moHub.machine(), process->processId)
                                                           : MsgAddress(moHub.machine(), process->name, process->group);
        body.set(HubMgrCreateProcessReply::Address, address.toXml());
    }
    moHub.send(*link, ManagerId, request.replyTo, HubMgrCreateProcessReply::Message, QString::fromUtf8(request.cookie),
               body);
}

// --- the router's posts ---------------------------------------------------------

void HubManager::registerExit(HubLink& link, const XmlList& body, bool on)
{
    XmlList address;
    if (!body.get(address, HubRtrRegisterNotifyOnExitPost::Address)) {
        BTRACE(TraceAlways) << "Exit notification without an address from process" << link.processId();
        return;
    }
    const MsgAddress parsed(address);
    if (!on)
        return moHub.notifications().unwatchExit(link.processId(), parsed);
    const Router::Result target = moHub.router().resolve(parsed);
    Notifications::Target kind = Notifications::eNothing;
    unsigned serial = 0;
    if (target.kind == Router::Result::eProcess) {
        kind = Notifications::eProcess;
        serial = target.process->serial;
    } else if (target.kind != Router::Result::eUndeliverable) {
        kind = Notifications::eHub;
    }
    BTRACE(TraceVerbose) << "Process" << link.processId() << "watches the exit of" << parsed;
    moHub.deliverExit(moHub.notifications().watchExit(link.processId(), address, kind, serial));
}

void HubManager::registerReady(HubLink& link, const XmlList& body, bool on)
{
    XmlList address;
    if (!body.get(address, HubRtrRegisterNotifyOnReadyPost::Address)) {
        BTRACE(TraceAlways) << "Ready notification without an address from process" << link.processId();
        return;
    }
    const MsgAddress parsed(address);
    if (!on)
        return moHub.notifications().unwatchReady(link.processId(), parsed);
    const Router::Result target = moHub.router().resolve(parsed);
    Notifications::Target kind = Notifications::eNothing;
    if (target.kind == Router::Result::eProcess) {
        kind = Notifications::eProcess;
    } else if (target.kind != Router::Result::eUndeliverable) {
        kind = Notifications::eHub;
    } else if ((parsed.type() == eMsgAddressAttached || parsed.type() == eMsgAddressRouted) &&
               parsed.machine() == moHub.machine() &&
               (parsed.id() == 0 || parsed.id() < HubConstants::FirstProcessId)) {
        // A name, or a well-known id, that a process may yet take.
        kind = Notifications::eFuture;
    }
    BTRACE(TraceVerbose) << "Process" << link.processId() << "watches the readiness of" << parsed;
    moHub.deliverReady(moHub.notifications().watchReady(link.processId(), address, kind, target.process));
}

void HubManager::broadcast(HubLink& link, const MsgPacket& packet, const XmlList& body)
{
    QString name;
    QString cookie;
    XmlList content;
    if (!body.get(name, HubRtrBroadcastMessagePost::Name) || name.isEmpty()) {
        BTRACE(TraceAlways) << "Broadcast without a name from process" << link.processId();
        return;
    }
    body.get(cookie, HubRtrBroadcastMessagePost::Cookie);
    body.get(content, HubRtrBroadcastMessagePost::Body);
    const ProcessPointer sender = processOf(link);
    const QByteArray source = packet.source().type() != eMsgAddressInvalid ? Router::text(packet.source())
                                                                           : sender->physicalText(moHub.machine());
    unsigned count = 0;
    for (const ProcessPointer& process : moHub.processes().live()) {
        HubLink* target = process->processId != sender->processId ? moHub.link(process->linkSerial) : nullptr;
        if (target && target->enabled() && !target->closing()) {
            moHub.sendAs(*target, source, process->physicalText(moHub.machine()), name, cookie, content);
            ++count;
        }
    }
    BTRACE(TraceVerbose) << "Broadcast" << name << "from process" << sender->processId << "to" << count;
}

} // namespace Brevi
