#ifndef BASELIBRARY_MESSAGING_MASTERREACHABLE_H
#define BASELIBRARY_MESSAGING_MASTERREACHABLE_H

#include "brevi_export.h"
#include "core/machinename.h"
#include "core/operatorboolgenerator.h"
#include "messaging/msgaddress.h"
#include "messaging/msghandlerlistentry.h"

#include <QString>

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>

namespace Brevi {

class Msg;

// Whether the master node of the installation, the one that holds and hands
// out the rules, can be reached from this machine, and a call when that
// changes. The local Node manager knows; this object subscribes to its
// NodeMgrMasterStatePost and keeps the last word:
//
//     MasterReachable master(boost::make_shared<boost::function<void()>>(
//         [&] { onMasterChange(master); }));
//     if (!master.wait(30))
//         ... no master within 30 s; master.state() says what the node
//         ... manager last reported
//     // later, on each change: onMasterChange runs inside a message wait,
//     // and `master` (operator bool) tells whether it is reachable now.
//
// Subscribing means a handler on the thread's Messaging and a
// NodeMgrRegisterNotifyMasterStatePost to the Node manager at its logical
// address on this machine (name and group NodeManager). The destructor takes
// the handler off and unsubscribes.
//
// The states "Authorized" and "Connected" with a master's name and the body's
// Authorized true make the master reachable; "Unavailable", "Unauthorized" and
// "Unknown" make it unreachable; anything else, and a post without a master's
// name, changes nothing. The callback runs once per change of reachability,
// not once per post.
//
// Failure: nothing throws. A thread without messaging cannot subscribe (the
// object then never changes); `wait` says false when the time ran out or the
// wait was broken off (the link failed, a handler ended the wait).
//
// Threads: the object belongs to the thread that subscribed: its handler and
// callback run there, inside that thread's message waits, and the object must
// stay where it is (not move) while it is subscribed. A copy takes the values
// but no handler and no callback: it is a snapshot that does not follow.
class BREVI_EXPORT MasterReachable
{
public:
    typedef boost::shared_ptr<boost::function<void()>> Callback;

    // Nothing registered: unreachable, no master, no state.
    MasterReachable();
    // Subscribes at once: as `callback(callback)`.
    explicit MasterReachable(const Callback& callback);
    // Takes the handler off and unsubscribes.
    ~MasterReachable();
    MasterReachable(const MasterReachable& other);
    MasterReachable& operator=(const MasterReachable& other);

    // Registers the handler and subscribes; with one already registered only
    // the callback is replaced. The callback may be null: the object then
    // follows the state without telling anyone.
    void callback(const Callback& callback);

    // Waits until the master is reachable: true at once if it already is,
    // false when `seconds` pass without (0 only looks, negative waits without
    // limit) or the wait is broken off. The callback is not called for what
    // this wait takes in: the caller learns it from the result.
    bool wait(int seconds);

    bool reachable() const { return mbReachable; }
    operator OperatorBoolGenerator<MasterReachable>::Result() const
    {
        return OperatorBoolGenerator<MasterReachable>::make(mbReachable);
    }
    // The master's name as last reported; empty until one is.
    const MachineName& master() const { return moMaster; }
    // The state word of the last post ("Connected", "Unavailable"...).
    const QString& state() const { return msState; }

    // Where the subscription goes: the Node manager on this machine. Invalid
    // on a thread that does not know its machine (no Hub).
    static MsgAddress nodeManager();

private:
    void cleanup();
    void subscribe();
    // Takes a NodeMgrMasterStatePost in: true when it changed reachability.
    bool processMasterState(const Msg& message);
    // The standing handler: the state, then the callback on a change.
    MsgResult handleMasterState(const Msg& message);

    // Accepts the post from whichever address the Node manager speaks from.
    MsgAddress moSource;
    bool mbReachable = false;
    MachineName moMaster;
    MsgHandlerPointer mptHandler;
    Callback mptCallback;
    QString msState;
};

} // namespace Brevi

#endif
