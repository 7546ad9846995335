#include "logdaemon.h"

#include "hubquery.h"

#include "core/context.h"
#include "core/trace.h"
#include "messaging/managemsghandlers.h"
#include "messaging/messaging.h"
#include "messaging/msg.h"
#include "messaging/msgcatalogue.h"

#include <QDateTime>

#include <boost/make_shared.hpp>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleLog;
// How long one wait for a message lasts, so that a stop asked by a signal is
// seen soon.
const int WaitSeconds = 1;
// How long the Hub may take to list its processes.
const int ListSeconds = 10;

QString flat(const MsgAddress& address)
{
    const Extent text = address.binary().text();
    return QString::fromUtf8(reinterpret_cast<const char*>(text.data()), int(text.size()));
}
} // namespace

using namespace Catalogue;

LogDaemon::LogDaemon(const QString& storePath, qint64 maxBytes, int keep)
    : moStore(storePath, maxBytes, keep)
{}

QDateTime LogDaemon::now()
{
    // Local time with the offset as a number: a QDateTime in local time asks
    // the C library, which looks at the zone file again, at every turn, and
    // that took a fifth of the daemon's time.
    const qint64 ms = QDateTime::currentMSecsSinceEpoch();
    if (ms / 1000 != mllOffsetSecond) {
        mllOffsetSecond = ms / 1000;
        miOffset = QDateTime::fromMSecsSinceEpoch(ms).offsetFromUtc();
    }
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::OffsetFromUTC, miOffset);
}

void LogDaemon::take(const Msg& message, bool otherMachine)
{
    const XmlList& body = message.body();
    LogRecord record = LogRecord::fromBody(body, now());
    MsgAddress source = message.source();
    QString sourceText;
    if (otherMachine) {
        XmlList address;
        if (body.get(address, LogKey::Source) && MsgAddress(address))
            source = MsgAddress(address);
        else
            body.get(sourceText, LogKey::Source);
        body.get(record.process, LogAttachment::ProcessName);
    }
    record.source = sourceText.isEmpty() ? flat(source) : sourceText;
    if (record.process.isEmpty() && sourceText.isEmpty() &&
        (!otherMachine || source.machine() == Context::machineName()))
        record.process = moTitles.value(source.id());

    if (moStore.append(record)) {
        ++mullStored;
        BTRACE(TraceVerbose) << "Stored log message from" << record.source << record.category;
    } else {
        BTRACE(TraceAlways) << "Cannot store log message from" << record.source << "in" << moStore.path()
                            << moStore.errorString();
    }
}

MsgResult LogDaemon::handle(const Msg& message)
{
    const QString& name = message.name();
    if (name == LogDaemonLocalWriteLog::Message || name == LogDaemonWriteLog::Message) {
        take(message, name == LogDaemonWriteLog::Message);
        return eMsgResultHandled;
    }
    if (name == HubMgrMonitorProcessNewPost::Message) {
        moTitles.insert(message.getUint32(HubMgrMonitorProcessNewPost::ProcessId),
                        message.getString(HubMgrMonitorProcessNewPost::Title));
        return eMsgResultHandled;
    }
    if (name == HubMgrMonitorProcessChangePost::Message) {
        moTitles.insert(message.getUint32(HubMgrMonitorProcessChangePost::ProcessId),
                        message.getString(HubMgrMonitorProcessChangePost::Title));
        return eMsgResultHandled;
    }
    if (name == HubMgrMonitorProcessEndPost::Message) {
        // What the process sent came before the Hub saw it go.
        moTitles.remove(message.getUint32(HubMgrMonitorProcessEndPost::ProcessId));
        return eMsgResultHandled;
    }
    if (name == HubRtrShutdownPost::Message) {
        BTRACE(TraceAlways) << "Shutdown from" << message.source() << "after" << mullStored << "log messages";
        return eMsgResultExit;
    }
    BTRACE(TraceNormal) << "Ignore message" << name << "from" << message.source();
    return eMsgResultNotHandled;
}

void LogDaemon::watchProcesses()
{
    moTitles.insert(Context::address().id(), Context::object()->title());
    HubQuery query;
    if (!query.refresh(ListSeconds)) {
        BTRACE(TraceAlways) << "Records go without titles: cannot list the Hub's processes," << query.error();
        return;
    }
    for (const MonitorEntry& entry : query.entries())
        if (entry.live())
            moTitles.insert(entry.processId, entry.title);
}

int LogDaemon::run(const std::atomic<bool>& stop)
{
    if (!moStore.open())
        BTRACE(TraceAlways) << "Cannot open the log store" << moStore.path() << moStore.errorString();
    BTRACE(TraceAlways) << "Taking log messages into" << moStore.path();
    // As handlers, so that log messages that come while the daemon waits for
    // something else (the Hub's process list) are stored all the same.
    ManageMsgHandlers handlers;
    const MsgHandlerPointer handler =
        boost::make_shared<MsgHandlerFunction>([this](const Msg& message) { return handle(message); });
    for (const QString& name :
         {LogDaemonLocalWriteLog::Message, LogDaemonWriteLog::Message, HubMgrMonitorProcessNewPost::Message,
          HubMgrMonitorProcessChangePost::Message, HubMgrMonitorProcessEndPost::Message, HubRtrShutdownPost::Message})
        handlers.add(name, handler);
    watchProcesses();
    while (!stop.load()) {
        const MsgResult result = Msg::wait(WaitSeconds);
        if (result == eMsgResultExit)
            return 0;
        // A signal that asks to stop may cut the wait short.
        if (result != eMsgResultOk && result != eMsgResultTimeout && !stop.load()) {
            BTRACE(TraceAlways) << "Lost the Hub link" << int(result);
            return 1;
        }
    }
    BTRACE(TraceAlways) << "Stopped after" << mullStored << "log messages";
    return 0;
}

} // namespace Brevi
