#ifndef PROGRAMS_HUB_PROCESSCREATOR_H
#define PROGRAMS_HUB_PROCESSCREATOR_H

#include "core/xmllist.h"
#include "process/handle.h"

#include <QByteArray>
#include <QString>

#include <boost/shared_ptr.hpp>

#include <vector>

namespace Brevi {

// The Hub's side of HubMgrCreateProcessRequest: starts a program from the
// programs directory and keeps the request until the new process attaches,
// ends, or runs out of time; and collects every child it started once it has
// ended, so that none lingers as a zombie.
//
// A program is named by its file name alone: a name with "/" in it, or "."
// or "..", is "Invalid", so that a request cannot reach outside the
// directory. A missing file is "Does Not Exist", one that is no executable
// file "No Executable", a refused start "Spawn Failed". The child gets the
// request's Title, Name, Group and TraceFile in BREVI_CONTEXT_TITLE,
// BREVI_CONTEXT_NAME, BREVI_CONTEXT_GROUP and BREVI_CONTEXT_TRACE_FILE (empty
// when not given, so that the Hub's own values never leak into it) and the
// Hub's port in BREVI_HUB_PORT. The Hub matches the attach by the child's
// operating-system pid, and answers "Success" only once the child's
// connection is enabled: until its trace buffer has come, a process takes any
// other message for a broken start, so its starter must not be told to go
// ahead before.
//
// Each child leads a process group of its own, and whatever it starts
// belongs to that group unless it moves elsewhere: ending a child ends the
// group, so that a script's own children do not live on as orphans. The
// group is sent SIGTERM, and SIGKILL once the grace time is up; the child is
// collected only after that, so that its pid, which names the group, cannot
// be given to another process meanwhile. A child that has not attached, or
// enabled its connection, in time is ended so: its starter has been told
// "Attach Failed" and nobody wants it. So is one still starting when the Hub
// shuts down, whose starter is told "Shutdown", and, when the Hub stops, every
// child of the Hub's that is still running.
//
// Threads: the Hub's one thread (Spawn changes the environment of the whole
// process for a moment).
class ProcessCreator
{
public:
    struct Request {
        unsigned instance = 0;
        // The asking process, and the address its reply goes to.
        unsigned requester = 0;
        QByteArray replyTo;
        QByteArray cookie;
        // The asking process's address, for the child's ParentAddress.
        XmlList parentAddress;
        QString program;
        QString title;
        QString name;
        QString group;
        QString traceFile;
    };
    struct Pending {
        Request request;
        unsigned osPid = 0;
        // The child's ProcessId once it has attached; 0 before.
        unsigned processId = 0;
        unsigned long long deadline = 0;
    };

    ProcessCreator(const QString& programsDirectory, unsigned hubPort);

    // Starts the program. An empty result: it runs, and `pending` waits for
    // its attach. Otherwise the status word of the failure.
    QString start(const Request& request, unsigned long long deadline);

    // The request waiting for the attach of the process with this pid, left
    // in place; false if none waits for it.
    bool find(unsigned osPid, Pending& pending) const;
    // That request, taken out: its child may not attach.
    bool take(unsigned osPid, Pending& pending);
    // Its child has attached as `processId`; the request now waits for the
    // child's connection to be enabled.
    void attached(unsigned osPid, unsigned processId);
    // The request whose child attached as `processId`, taken out: the
    // child's connection is enabled, or the child has gone. False if none
    // waits for it.
    bool takeChild(unsigned processId, Pending& pending);
    // Requests whose time is up or whose child has ended before it was
    // enabled, taken out.
    std::vector<Pending> expired(unsigned long long now);
    // Every request still waiting, taken out, and their children ended: the
    // Hub is shutting down, and each starter is told so.
    std::vector<Pending> takeAll(unsigned long long now);
    // Requests of a process that has gone are dropped: nobody to answer.
    void forget(unsigned requester);
    // A request waits for a child that is to bear this name and group.
    bool claims(const QString& name, const QString& group) const;
    bool waiting() const { return !moPending.empty(); }

    // Collects the children that have ended, and kills the groups whose
    // grace time is up. True while any is still held.
    bool reap(unsigned long long now);
    // Ends the groups of all children still held: SIGTERM, and SIGKILL to
    // every group once all have ended or `graceMs` is up; then collects
    // them. What the Hub does last.
    void endAll(unsigned graceMs);

    // How long a group has between SIGTERM and SIGKILL.
    static const unsigned GraceMs = 2000;

private:
    struct Child {
        unsigned osPid;
        boost::shared_ptr<Handle> handle;
        // When the group gets SIGKILL; 0 while it is not being ended.
        unsigned long long killAt = 0;
    };
    bool running(unsigned osPid) const;
    // SIGTERM to the child's group, SIGKILL after the grace time.
    void end(unsigned osPid, unsigned long long now);

    QString msDirectory;
    unsigned muiPort;
    std::vector<Pending> moPending;
    std::vector<Child> moChildren;
};

} // namespace Brevi

#endif
