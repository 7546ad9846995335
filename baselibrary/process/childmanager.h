#ifndef BASELIBRARY_PROCESS_CHILDMANAGER_H
#define BASELIBRARY_PROCESS_CHILDMANAGER_H

#include "brevi_export.h"
#include "messaging/managemsghandlers.h"
#include "messaging/msg.h"
#include "messaging/msgaddress.h"
#include "messaging/msgresult.h"

#include <QList>
#include <QString>

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>

namespace Brevi {

class Child;
class ConditionChildrenExited;
class ConditionExited;
class ConditionReady;
class ConditionThawed;
class Trace;

// The state machine a process, or a thread, runs to supervise what it has
// started: child processes, child threads, and peers it only watches (see
// Child). It follows each through starting, running, freezing, frozen,
// thawing and stopping, carries a freeze down the tree of contexts and the
// answer back up, holds back the owner's messages while a freeze lasts, and
// tells the owner when it may leave its message loop.
//
// It is driven by messages alone. initialize() registers its handlers on the
// calling thread's messaging; they run inside the owner's waits, and each
// ends by calling the virtual checkState, which a subclass extends with work
// of its own. A typical owner:
//
//     ChildManager manager;
//     manager.initialize(ChildManager::CMStarting, ChildManager::eHonorHubShutdown);
//     ProcessCreate worker(Context::machineName(), "worker", "Worker", "worker", "jobs");
//     manager.addChild(boost::make_shared<Child>("worker", worker.address(), Child::eWaitForExit,
//                                                Child::eFreezable, Child::eShutdownOnExit));
//     manager.contextReady();
//     while (Msg::wait(-1) != eMsgResultExit) // a handler's eMsgResultExit ends it
//         ...;                                // (the Hub link is gone, for instance)
//     manager.release();
//
// A child process reports ready and ended through the Hub
// (HubRtrProcessReadyPost, HubRtrProcessExitedPost); it should attach with
// Context::FlagNotifyReady and call contextReady() once its own manager is
// initialized, so that nobody sends it a freeze before it can answer. A child
// thread runs a context of its own, connects to its parent with ThreadComms
// under the child's name, and is told ended by MsgDisconnectedPost.
//
// Freeze and thaw. A ChildMgrFreezeRequest to a running manager makes it
// CMFreezing and passes the request to each running freezable child. Once
// every one has answered frozen (childrenFrozen), the owner reaches a point
// where it may stop, calls frozen(), which answers the one who asked, and
// waits in waitForThaw(); simpleFreezeCheckState and checkForFreeze are the
// two ready-made ways to do so. The thaw request must come from the one who
// froze (else "DidNotFreeze"); it goes down the same way, and thawed() sends
// the answer up once every child runs again. Should the one who froze end
// meanwhile, the Hub says so and the tree thaws by itself. Messages that the
// owner's handlers pass to deferred() while a freeze lasts are put back, in
// their order, when it ends.
//
// Shutdown. ChildMgrShutdownPost (and, with eHonorHubShutdown, the Hub's
// HubRtrShutdownPost) makes the manager CMStopping: children are sent
// ChildMgrShutdownPost, and once the last has ended checkState makes the
// handler's result eMsgResultExit, which ends the owner's wait. A shutdown
// overrides a freeze. A manager whose first context loses the Hub link shuts
// down too.
//
// Protocol breaches (a reply for a child that is not frozen, a thaw that
// nobody froze, a freeze from an unknown source while frozen) are traced,
// "Should not get here" among them, and otherwise ignored: they never put a
// record in a wrong state. Calls that need initialize() first trace
// "NOT INITIALIZED" and refuse.
//
// Copies hold the same records and state but none of the handlers: a copy
// is not initialized.
//
// Threads: a manager belongs to the thread that initialized it, and locks
// nothing. The waits run handlers, so the child list can change under a
// caller of waitForReady, waitForExit or waitForThaw.
class BREVI_EXPORT ChildManager
{
public:
    enum State {
        CMStarting = 0,
        CMRunning = 1,
        CMFreezing = 2,
        CMFrozen = 3,
        CMThawing = 4,
        CMStopping = 5,
        CMStopped = 6
    };
    enum HonorHubShutdown {
        // The Hub's HubRtrShutdownPost shuts the manager down too.
        eHonorHubShutdown = 1,
        eIgnoreHubShutdown = 2
    };
    typedef boost::shared_ptr<Child> ChildPointer;
    typedef boost::shared_ptr<boost::function1<MsgResult, const Msg&>> HandlerPointer;

    ChildManager();
    ChildManager(const ChildManager& other);
    ChildManager& operator=(const ChildManager& other);
    virtual ~ChildManager();

    // Sets the state as given (without the effects of state(State)),
    // registers the handlers on the calling thread and asks its messaging
    // for MsgIpcClosedPost when the Hub link goes.
    void initialize(State state, HonorHubShutdown honor = eIgnoreHubShutdown);
    // Ends freeze and thaw, shuts down what is still waited for and waits
    // (without limit) until it has ended, then takes the handlers off and
    // empties the list.
    void release();

    // Tells the Hub this context is ready (HubMgrContextReadyPost; a thread's
    // context has no Hub to tell) and becomes CMRunning. True when the state
    // changed.
    bool contextReady();

    State state() const { return meState; }
    // Moves to `state` with the effects the protocol gives each state; true
    // when the state changed. CMFreezing is taken only from CMRunning with no
    // freezable child still starting, freezing or thawing; CMThawing only
    // from CMFreezing or CMFrozen.
    bool state(State state);

    // A child process or thread: it is watched from now on. False for an
    // empty pointer.
    bool addChild(const ChildPointer& child);
    // A peer: watched for ready (`running` false) or for exit (`running`
    // true). False for a thread.
    bool addPeer(const ChildPointer& child, bool running);
    // No longer watched, and CMStopped. False for a thread, for a peer
    // (removePeer) and for one not in the list.
    bool removeChild(ChildPointer child);
    bool removePeer(ChildPointer child);

    // The first record with that name or address; empty when there is none.
    ChildPointer child(const QString& name) const;
    ChildPointer child(const MsgAddress& address) const;
    // Children and peers.
    unsigned int childCount() const { return unsigned(moChildren.size()); }
    QList<ChildPointer> childList() const { return moChildren; }

    // Wait, running handlers, until the child is ready (true) or will never
    // be (false: it ended, went from the list, or the manager is stopping);
    // until it has left the list (true); until a freeze has ended (true when
    // back in CMRunning). No time limit: the Hub tells every end.
    bool waitForReady(ChildPointer child);
    bool waitForExit(ChildPointer child);
    bool waitForThaw();

    // Every child that is no peer and is freezable is CMFrozen (CMRunning for
    // childrenThawed); true for an empty list.
    bool childrenFrozen() const;
    bool childrenThawed() const;
    // The owner is at a safe point: CMFrozen, and the one who froze is told.
    bool frozen();
    // Starts the thaw from this side (CMThawing).
    bool thaw();
    // Ends a thaw: answers the one who froze, then CMRunning.
    bool thawed();
    bool freezeSuccessful() const { return mbFreezeSuccessful; }
    bool thawSuccessful() const { return mbThawSuccessful; }

    // Asks for the shutdown by a ChildMgrShutdownPost to this context, so
    // that it happens in the message loop; shutdownNow() stops at once.
    // False once stopping.
    bool shutdown();
    bool shutdownNow();

    // For the owner's handlers: false while running (handle the message
    // now); true when the message has been kept for later (starting, or a
    // freeze under way) or dropped (stopping).
    bool deferred(const Msg& message);

    // Adds a handler of the owner's to the manager's set, so that release()
    // takes it off too. The manager's own messages are refused (false).
    bool addMsgHandler(const QString& name, const HandlerPointer& handler);
    void removeMsgHandler(const QString& name);

    // Called at the end of every handler of the manager. The base ends a
    // thaw whose children all run again, makes `result` eMsgResultExit when
    // stopping with an empty list, and sets `changed` when the state moved.
    virtual void checkState(bool& changed, MsgResult& result, const Msg& message);
    // For an owner that does nothing while frozen, called from an override of
    // checkState: once the children are frozen it calls frozen() and waits
    // for the thaw there; a freeze that does not end in CMRunning makes
    // `result` eMsgResultExit.
    void simpleFreezeCheckState(bool& changed, MsgResult& result, const Msg& message);
    // For an owner that polls in a long loop: when a freeze is due, frozen()
    // and the wait for the thaw; the wait's outcome, or true when there was
    // nothing to do.
    bool checkForFreeze();

    // "1", "2", ...: unique names for child threads. Unguarded.
    static QString nextId();
    // "CMStarting", "CMRunning", ...; "CMUnknown" for a value outside the
    // enumeration.
    static const char* stateName(State state);

private:
    friend class ConditionChildrenExited;
    friend class ConditionExited;
    friend class ConditionReady;
    friend class ConditionThawed;

    // Whether a waiter is finished, and with what.
    bool thawed(bool& flag) const;
    bool ready(bool& flag, const ChildPointer& child) const;
    bool exited(bool& flag, const ChildPointer& child) const;
    bool contains(const ChildPointer& child) const;
    bool isOwnAddress(const MsgAddress& address) const;
    // True, after "NOT INITIALIZED", when initialize() has not been called.
    bool notInitialized(const char* call) const;
    // Removes the record from the list, without any message.
    void forget(const ChildPointer& child);
    // The common end of removeChild and removePeer: `unknown` is traced for
    // one not in the list; otherwise its exit watch goes and it is stopped.
    bool unwatch(const ChildPointer& child, const char* unknown);
    void notifyRouter(const QString& name, const MsgAddress& address, bool flush = false) const;
    void replyFailure(const Msg& message, const QString& name, const QString& reason) const;
    static bool isManagerMessage(const QString& name, HonorHubShutdown honor);
    HandlerPointer bound(MsgResult (ChildManager::*member)(const Msg&));
    // A child that has just become ready or connected joins what the
    // manager is doing: a freeze under way, or a shutdown.
    void joinIn(const ChildPointer& child, const char* event);
    // The common frame of the handlers: checkState, and the result.
    MsgResult finish(State entry, MsgResult result, const Msg& message);

    MsgResult handleShutdown(const Msg& message);
    MsgResult handleProcessReady(const Msg& message);
    MsgResult handleProcessExit(const Msg& message);
    MsgResult handleIpcClosed(const Msg& message);
    MsgResult handleThreadConnect(const Msg& message);
    MsgResult handleThreadDisconnect(const Msg& message);
    MsgResult handleFreezeRequest(const Msg& message);
    MsgResult handleFreezeReply(const Msg& message);
    MsgResult handleThawRequest(const Msg& message);
    MsgResult handleThawReply(const Msg& message);

    QList<ChildPointer> moChildren;
    State meState = CMStarting;
    Msg moFreezeMessage;
    MsgAddress moRouterAddress;
    QList<Msg> moDeferred;
    bool mbInitialized = false;
    bool mbFreezeSuccessful = false;
    bool mbThawSuccessful = false;
    ManageMsgHandlers moHandlers;
    HonorHubShutdown meHonorHubShutdown = eIgnoreHubShutdown;

    static unsigned muiNextId;
};

// The state's own name: "CMStarting", "CMRunning", ...
BREVI_EXPORT Trace& operator<<(Trace& trace, ChildManager::State state);

} // namespace Brevi

#endif
