#ifndef PROGRAMS_LOGDAEMON_LOGDAEMON_H
#define PROGRAMS_LOGDAEMON_LOGDAEMON_H

#include "logstore.h"

#include "messaging/msgresult.h"

#include <QDateTime>
#include <QHash>
#include <QString>

#include <atomic>

namespace Brevi {

class Msg;

// The log daemon's work: every log message that reaches it becomes one
// record of its store; HubRtrShutdownPost ends it; anything else is traced
// and left.
//
// It runs inside an attached context under the name "LogDaemonLocal", so the
// Hub gives it the well-known id 8 and every process of the machine reaches
// it at MsgAddress(machine, eWellKnownLogDaemon), as do other machines'
// processes, through their Hub's link to this one.
//
// What it takes:
//   LogDaemonLocalWriteLog  a log body (Log) from a process of this
//                           machine; the record's source is the sender.
//   LogDaemonWriteLog       the same from a process of another machine. Its
//                           sender is that process, or a program that passes
//                           messages on for it: then the body names the
//                           process under Source (an address list, as
//                           MsgAddress::toXml gives it, or its flat text)
//                           and may give its title under ProcessName.
// Records carry the title of their source process as well, which the daemon
// learns by watching the Hub's process list (HubMgrMonitorRequest and the
// posts that follow it), so that an operator can ask for one process's lines
// by name.
//
// Failure: a record that cannot be written is traced and the daemon goes on;
// a broken Hub link ends run().
//
// Threads: the thread of its context.
class LogDaemon
{
public:
    explicit LogDaemon(const QString& storePath, qint64 maxBytes = LogStore::DefaultMaxBytes,
                       int keep = LogStore::DefaultKeep);

    LogStore& store() { return moStore; }
    unsigned long long stored() const { return mullStored; }

    // eMsgResultHandled for a log message (stored or not) and the Hub's
    // process posts, eMsgResultExit for the Hub's shutdown,
    // eMsgResultNotHandled for the rest.
    MsgResult handle(const Msg& message);

    // Learns the titles of the processes the Hub has, then takes messages
    // until the Hub says to shut down, the link breaks, or `stop` becomes
    // true (looked at least once a second). 0 for an ordinary end, 1 when
    // the link failed.
    int run(const std::atomic<bool>& stop);

private:
    void take(const Msg& message, bool otherMachine);
    // The local time now; the zone's offset is looked up once a second.
    QDateTime now();
    void watchProcesses();

    LogStore moStore;
    unsigned long long mullStored = 0;
    // The titles of this machine's live processes by ProcessId.
    QHash<unsigned, QString> moTitles;
    qint64 mllOffsetSecond = -1;
    int miOffset = 0;
};

} // namespace Brevi

#endif
