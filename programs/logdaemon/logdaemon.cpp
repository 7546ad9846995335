#include "logdaemon.h"

#include "core/context.h"
#include "core/trace.h"
#include "messaging/messaging.h"
#include "messaging/msg.h"
#include "messaging/msgcatalogue.h"

#include <QDateTime>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleLog;
// How long one wait for a message lasts, so that a stop asked by a signal is
// seen soon.
const int WaitSeconds = 1;
} // namespace

LogDaemon::LogDaemon(const QString& storePath)
    : moStore(storePath)
{}

MsgResult LogDaemon::handle(const Msg& message)
{
    if (message.name() == Catalogue::LogDaemonLocalWriteLog::Message) {
        const LogRecord record = LogRecord::fromMessage(message, QDateTime::currentDateTime());
        if (moStore.append(record)) {
            ++mullStored;
            BTRACE(TraceVerbose) << "Stored log message from" << message.source() << record.category;
        } else {
            BTRACE(TraceAlways) << "Cannot store log message from" << message.source() << "in" << moStore.path()
                                << moStore.errorString();
        }
        return eMsgResultHandled;
    }
    if (message.name() == Catalogue::HubRtrShutdownPost::Message) {
        BTRACE(TraceAlways) << "Shutdown from" << message.source() << "after" << mullStored << "log messages";
        return eMsgResultExit;
    }
    BTRACE(TraceNormal) << "Ignore message" << message.name() << "from" << message.source();
    return eMsgResultNotHandled;
}

int LogDaemon::run(const std::atomic<bool>& stop)
{
    if (!moStore.open())
        BTRACE(TraceAlways) << "Cannot open the log store" << moStore.path() << moStore.errorString();
    BTRACE(TraceAlways) << "Taking log messages into" << moStore.path();
    while (!stop.load()) {
        const Msg message = Msg::receive(WaitSeconds);
        if (!message) {
            // A signal that asks to stop may cut the wait short.
            if (message.lastError() == eMsgResultTimeout || stop.load())
                continue;
            BTRACE(TraceAlways) << "Lost the Hub link" << int(message.lastError());
            return 1;
        }
        if (handle(message) == eMsgResultExit)
            return 0;
    }
    BTRACE(TraceAlways) << "Stopped after" << mullStored << "log messages";
    return 0;
}

} // namespace Brevi
