#ifndef BASELIBRARY_PROCESS_CHILD_H
#define BASELIBRARY_PROCESS_CHILD_H

#include "brevi_export.h"
#include "core/xmllist.h"
#include "messaging/msgaddress.h"
#include "process/childmanager.h"

#include <QString>

#include <boost/shared_ptr.hpp>

namespace boost {
class thread;
}

namespace Brevi {

// One thing a ChildManager supervises, as the manager records it:
//
// - a child process: an address (the one ProcessCreate gave), no thread;
// - a child thread: its boost::thread and a name, the cookie of the
//   MsgConnectedPost with which the thread's context introduces itself; the
//   address is learnt from that post;
// - a peer: a process this manager did not start and only watches. It is
//   never sent a shutdown and does not count when the manager asks whether
//   its children are frozen or thawed. Only ChildManager::addPeer makes one.
//
// The record's state is the manager's view of the child (CMStarting until
// the Hub or the thread says it is ready, CMFreezing while a freeze request
// is unanswered, ...). `state(State)` is virtual so that an owner can follow
// what happens to its children: a subclass sees every change the manager
// makes.
//
//     boost::shared_ptr<Child> indexer = boost::make_shared<Child>(
//         "indexer", created.address(), Child::eWaitForExit, Child::eFreezable, Child::eShutdownOnExit);
//     manager.addChild(indexer);
//
// Records are held by boost::shared_ptr: the manager's list and the owner
// share them. Sending fails, with false, when the address is not known yet.
//
// Threads: a record belongs to its manager's thread.
class BREVI_EXPORT Child
{
public:
    typedef ChildManager::State State;

    enum WaitForExit {
        // The manager waits for the child to end before it lets its owner go.
        eWaitForExit = 1,
        // A shutdown sends the request and forgets the child at once.
        eNoWaitForExit = 2
    };
    enum Freeze {
        eFreezable = 1,
        // Never sent a freeze request, never holds a freeze up.
        eNotFreezable = 2
    };
    enum ShutdownOnExit {
        // The manager shuts its owner down when this child ends.
        eShutdownOnExit = 1,
        eNoShutdownOnExit = 2
    };

    // No thread, no name, no address; CMStopped.
    Child();
    // A child thread; its address is learnt when it connects. Waits for exit.
    Child(const boost::shared_ptr<boost::thread>& thread, const QString& name, Freeze freeze,
          ShutdownOnExit shutdownOnExit);
    // A child process (or, through addPeer, a peer) at `address`.
    Child(const QString& name, const MsgAddress& address, WaitForExit waitForExit, Freeze freeze,
          ShutdownOnExit shutdownOnExit);
    Child(const Child& other);
    Child& operator=(const Child& other);
    virtual ~Child();

    // Sets the manager's view of the child.
    virtual void state(State state);
    State state() const { return meState; }

    const QString& name() const { return msName; }
    void name(const QString& name) { msName = name; }
    const MsgAddress& address() const { return moAddress; }
    void address(const MsgAddress& address) { moAddress = address; }
    const boost::shared_ptr<boost::thread>& thread() const { return mptThread; }
    void thread(const boost::shared_ptr<boost::thread>& thread) { mptThread = thread; }

    bool peer() const { return mbPeer; }
    WaitForExit waitForExit() const { return meWaitForExit; }
    Freeze freezeType() const { return meFreeze; }
    ShutdownOnExit shutdownOnExit() const { return meShutdownOnExit; }

    // A running, freezable child is sent ChildMgrFreezeRequest and becomes
    // CMFreezing: true. Any other is left alone: false. A freezable peer is
    // asked too.
    bool freeze();
    // A child not yet stopping is sent ChildMgrShutdownPost (a peer is not)
    // and becomes CMStopping, or CMStopped when the manager is not to wait
    // for it. True exactly when it is not waited for (eNoWaitForExit), so
    // that the manager drops it from its list at once.
    bool shutdown();
    // Joins the thread, if there is one.
    void join();

    // A message to the child with `cookie`; false for a child without an
    // address, and when the send fails. sendFlushed waits until the link
    // has taken it.
    bool send(const QString& name, const XmlList& body, const QString& cookie) const;
    bool sendFlushed(const QString& name, const XmlList& body, const QString& cookie) const;

private:
    friend class ChildManager;
    bool send(const QString& name, const XmlList& body, const QString& cookie, bool flush) const;

    boost::shared_ptr<boost::thread> mptThread;
    QString msName;
    MsgAddress moAddress;
    State meState;
    bool mbPeer = false;
    WaitForExit meWaitForExit = eWaitForExit;
    Freeze meFreeze = eFreezable;
    ShutdownOnExit meShutdownOnExit = eNoShutdownOnExit;
};

} // namespace Brevi

#endif
