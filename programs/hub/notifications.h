#ifndef PROGRAMS_HUB_NOTIFICATIONS_H
#define PROGRAMS_HUB_NOTIFICATIONS_H

#include "processtable.h"

#include "core/xmllist.h"
#include "messaging/msgaddress.h"

#include <QString>

#include <vector>

namespace Brevi {

// Who waits for which process to be ready or to end.
//
// A watcher registers an address with HubRtrRegisterNotifyOnExitPost or
// HubRtrRegisterNotifyOnReadyPost; the Hub resolves it (Router::resolve) and
// hands the outcome here. The answer goes back with the address as the
// watcher wrote it, so that it can match it with its own:
//
// - exit: HubRtrProcessExitedPost when the process's link closes (a monitored
//   process: when it ends), or at once when no such process lives. A watch
//   on the Hub itself never fires while the Hub runs.
// - ready: HubRtrProcessReadyPost with Success true when the process is ready
//   (at once if it is), false when it ends first. A watch on a name, or on a
//   well-known id, that no process holds yet waits for one to attach; any
//   other address that names no live process is answered false at once.
//
// An unregister post removes the watcher's watches on an equal address. A
// watcher's watches go with it when it ends.
//
// Threads: the Hub's one thread.
class Notifications
{
public:
    // One post to send: to the process `watcher`, about `address`.
    struct Post {
        unsigned watcher;
        XmlList address;
        bool success;
    };

    // What an address resolved to.
    enum Target {
        // A live process, by its serial.
        eProcess,
        // The Hub itself.
        eHub,
        // No live process, but one may come: a logical name, a well-known id.
        eFuture,
        // Nothing, and nothing will come.
        eNothing
    };

    // Registers a watch on exit; returns the post to send at once, if any.
    std::vector<Post> watchExit(unsigned watcher, const XmlList& address, Target target, unsigned serial);
    std::vector<Post> watchReady(unsigned watcher, const XmlList& address, Target target,
                                 const ProcessPointer& process);
    void unwatchExit(unsigned watcher, const MsgAddress& address);
    void unwatchReady(unsigned watcher, const MsgAddress& address);

    // A process has attached: watches on its name or well-known id that
    // waited for one are tied to it from now on.
    void attached(const ProcessEntry& process);
    // A process has become ready: the posts for its ready watchers.
    std::vector<Post> ready(const ProcessEntry& process);
    // A process has ended: its exit watchers' posts, and the ready posts
    // that fail; its own watches are dropped.
    void exited(const ProcessEntry& process, std::vector<Post>& exits, std::vector<Post>& readies);

    // The number of watches held, for the trace and the tests.
    unsigned count() const { return unsigned(moExit.size() + moReady.size()); }

private:
    struct Watch {
        unsigned watcher;
        XmlList address;
        MsgAddress parsed;
        Target target;
        // eProcess: the process's serial.
        unsigned serial;
    };

    static void unwatch(std::vector<Watch>& watches, unsigned watcher, const MsgAddress& address);
    // True when a waiting watch's address names `process`.
    static bool names(const Watch& watch, const ProcessEntry& process);

    std::vector<Watch> moExit;
    std::vector<Watch> moReady;
};

} // namespace Brevi

#endif
