#ifndef PROGRAMS_LOGDAEMON_LOGDAEMON_H
#define PROGRAMS_LOGDAEMON_LOGDAEMON_H

#include "logstore.h"

#include "messaging/msgresult.h"

#include <QString>

#include <atomic>

namespace Brevi {

class Msg;

// The log daemon's work: every LogDaemonLocalWriteLog that reaches it becomes
// one record of its store; HubRtrShutdownPost ends it; anything else is
// traced and left.
//
// It runs inside an attached context under the name "LogDaemonLocal", so the
// Hub gives it the well-known id 8 and every process of the machine reaches
// it at MsgAddress(machine, eWellKnownLogDaemon).
//
// Failure: a record that cannot be written is traced and the daemon goes on;
// a broken Hub link ends run().
//
// Threads: the thread of its context.
class LogDaemon
{
public:
    explicit LogDaemon(const QString& storePath);

    LogStore& store() { return moStore; }
    unsigned long long stored() const { return mullStored; }

    // eMsgResultHandled for a log message (stored or not), eMsgResultExit
    // for the Hub's shutdown, eMsgResultNotHandled for the rest.
    MsgResult handle(const Msg& message);

    // Takes messages until the Hub says to shut down, the link breaks, or
    // `stop` becomes true (looked at least once a second). 0 for an
    // ordinary end, 1 when the link failed.
    int run(const std::atomic<bool>& stop);

private:
    LogStore moStore;
    unsigned long long mullStored = 0;
};

} // namespace Brevi

#endif
