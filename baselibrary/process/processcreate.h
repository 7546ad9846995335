#ifndef BASELIBRARY_PROCESS_PROCESSCREATE_H
#define BASELIBRARY_PROCESS_PROCESSCREATE_H

#include "brevi_export.h"
#include "core/operatorboolgenerator.h"
#include "messaging/msgaddress.h"
#include "messaging/msgcondition.h"
#include "messaging/msgresult.h"

#include <QString>

namespace Brevi {

class MachineName;
class Msg;
class MsgRoute;

// Asks the Hub of a machine, this one or another, to start a program, and
// holds the outcome. The whole exchange runs inside the constructor: when it
// returns, the Hub has answered, the request has failed, or the machine has
// gone away; the object then only reports.
//
//     ProcessCreate child(Context::machineName(), "indexer", "Indexer", "indexer", "jobs");
//     if (child)
//         Msg(child.address(), "IndexStartRequest", body).send();
//     else
//         ... child.error(): eDoesNotExist, eNameConflict, eUnavailable, ...
//
// The program is a name the Hub resolves in its own programs directory, not
// a path checked here. Title, name and group travel with the request and
// become the new process's identity; a group without a name is dropped, since
// the Hub finds processes by both.
//
// How it waits: the request goes to the target's manager (context id 1 on
// the machine or route), and the constructor serves the thread's messages
// until one of three things answers it: the manager's
// HubMgrCreateProcessReply carrying this request's instance number, the local
// router's HubRtrUndeliverableMessagePost returning this very request, or the
// router's HubRtrProcessExitedPost for the target's manager (asked for while
// the wait lasts). Other handlers of the thread run meanwhile. There is no
// time limit here: a Hub that stays reachable and never answers blocks the
// constructor, because the limit on a process's start is the Hub's to keep.
//
// Several requests may be under way on several threads of a process; the
// instance number (Context::uniqueId) tells their answers apart, and each
// declines what belongs to another.
//
// Failure: error() says what went wrong; the boolean test is true exactly
// when the Hub said "Success" and gave the new process's address. Bad
// arguments (eInvalidArguments) and a request that cannot be sent
// (eSendFailed) are traced at TraceAlways and nothing is waited for.
//
// Threads: construct it on a thread with messaging; its handlers run on that
// thread inside the constructor. Afterwards it is a plain record: copies hold
// the same instance, addresses and outcome and wait on nothing.
class BREVI_EXPORT ProcessCreate : public MsgCondition
{
public:
    enum Result {
        // The Hub said "Success"; also the value while nothing has gone wrong.
        eCreated = 0,
        // No machine (or the route's last hop has no name), or no program.
        eInvalidArguments = 1,
        // The request could not be sent.
        eSendFailed = 2,
        // The request came back undeliverable, or the target's manager ended.
        eUnavailable = 3,
        // Reply status "Invalid".
        eInvalid = 4,
        // Reply status "Does Not Exist".
        eDoesNotExist = 5,
        // Reply status "Spawn Failed".
        eSpawnFailed = 6,
        // Reply status "Execute Failed".
        eExecuteFailed = 7,
        // Any other reply status: "Shutdown", "No Executable", "Attach
        // Failed"...; also "Success" without an address to reach the process.
        eOtherFailure = 8,
        // Reply status "Name Conflict": a live process has that name and group.
        eNameConflict = 9,
        // The wait itself failed: the thread's messaging gave up (Hub link
        // lost, context shutting down) or a handler stopped the wait.
        eWaitFailed = 10
    };

    // Starts `program` through the Hub of `machine`.
    ProcessCreate(const MachineName& machine, const QString& program, const QString& title = QString(),
                  const QString& name = QString(), const QString& group = QString());
    // Starts `program` on the machine at the end of `route`, for a machine
    // reached through others.
    ProcessCreate(const MsgRoute& route, const QString& program, const QString& title = QString(),
                  const QString& name = QString(), const QString& group = QString());
    ProcessCreate(const ProcessCreate& other);
    ProcessCreate& operator=(const ProcessCreate& other);
    ~ProcessCreate() override;

    Result error() const { return meResult; }
    // The new process's address; invalid unless the Hub said "Success".
    const MsgAddress& address() const { return moCreatedAddress; }

    operator OperatorBoolGenerator<ProcessCreate>::Result() const
    {
        return OperatorBoolGenerator<ProcessCreate>::make(moCreatedAddress.isValid());
    }

private:
    // Checks the arguments; false, traced, with eInvalidArguments.
    bool checkArguments(const MachineName& target, const QString& program);
    void doProcessCreate(const QString& title, const QString& name, const QString& group);
    MsgResult handlerProcessCreateReply(const Msg& message);
    MsgResult handlerUndeliverable(const Msg& message);
    MsgResult handlerProcessExited(const Msg& message);
    // Records the outcome and ends the wait.
    void finish(Result result);

    QString msProgram;
    unsigned muiInstance;
    MsgAddress moManagerAddress;
    MsgAddress moRouterAddress;
    MsgAddress moCreatedAddress;
    Result meResult;
};

} // namespace Brevi

#endif
