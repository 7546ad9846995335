#ifndef BASELIBRARY_MESSAGING_MSGQUEUE_H
#define BASELIBRARY_MESSAGING_MSGQUEUE_H

#include "brevi_export.h"

#include <QList>

#include <boost/any.hpp>
#include <boost/thread/mutex.hpp>

#include <atomic>

namespace Brevi {

class TCPSocketSelect;

// The meeting point of two threads of one process: producers (other
// contexts that are connected to the owner) put items in, and the owner's
// context takes them out. An item is a boost::any holding a Msg (or, from the
// link, a packet), so that only the owner looks inside.
//
// The subclass decides how the sleeping owner is woken: MsgQueueAttached by a
// byte over a loopback socket pair (the owner sleeps in select on its Hub
// link), MsgQueueStandalone by a condition variable. Either wakes the owner
// only when the queue goes from empty to one item: the owner takes every item
// at each wake-up.
//
// Failure: `enqueue` is false when the queue has been released (or its
// wake-up failed): the producer drops its pointer to the queue. It never
// blocks on the owner and never fails for size; there is no limit.
//
// Threads: `enqueue` and `enqueueOnce` from any thread; `dequeue`, `setup` and
// `release` only from the owner's context (traced and refused otherwise).
// The queue's mutex is held for the list only, and is the last lock taken:
// Messaging's mutex comes before it. The queue is owned by shared pointers,
// so a producer's pointer stays usable after the owner has gone.
class BREVI_EXPORT MsgQueue
{
public:
    virtual ~MsgQueue();
    MsgQueue(const MsgQueue&) = delete;
    MsgQueue& operator=(const MsgQueue&) = delete;

    // Appends a copy of `*item`, and wakes the owner if the queue was empty.
    virtual bool enqueue(boost::any* item) = 0;
    // The same, unless an item that is a Msg of the same name and an equal
    // source already waits: then nothing is added and the result is true.
    virtual bool enqueueOnce(boost::any* item) = 0;

    // Owner only. Takes the first item; false when there is none (or the
    // caller is not the owner).
    virtual bool dequeue(boost::any& item);
    // Owner only. Takes every item, in order; false when there was none.
    virtual bool dequeueAll(QList<boost::any>& items);

    // For an owner that sleeps in its own select: adds the queue's wake-up
    // socket, if any, and says whether there is one.
    virtual bool select(TCPSocketSelect& select);
    // Whether the queue has something for the owner, after a wait on
    // `select`.
    virtual bool pending(const TCPSocketSelect& select);
    // Makes the queue ready for producers; true when it is.
    virtual bool setup(TCPSocketSelect& select);
    // Owner only: the queue becomes invalid for good, its items are dropped
    // and a sleeping owner is woken. Producers' next enqueue fails.
    virtual void release();

    // The context that owns the queue.
    unsigned contextId() const { return muiContextId; }
    bool isValid() const;
    // Released: invalid for good, even for setup.
    bool isReleased() const;
    bool isEmpty() const;
    int count() const;

    // The number of other contexts that hold the queue to send to it.
    void addUser();
    void removeUser();
    unsigned users() const;

protected:
    explicit MsgQueue(unsigned contextId, bool invalid);

    // Appends under the mutex; `wake` is called when the queue has just gone
    // from empty to one item, or when an earlier wake-up is still owed, and
    // its failure fails the enqueue. It runs under the mutex unless
    // `mbWakeUnlocked` is set.
    bool append(boost::any* item, bool once, const char* failure);
    // Wakes the owner.
    virtual bool wake(const char* failure) = 0;
    // Releases what the subclass holds; the mutex is held.
    virtual void releaseLocked() = 0;
    // True, after the refusal is traced, when the calling context is not
    // the owner.
    bool foreign(bool releasing) const;

    const unsigned muiContextId;
    mutable boost::mutex moMutex;
    bool mbInvalid;
    bool mbReleased = false;
    // The subclass's wake-up needs no lock (a condition variable's notify).
    bool mbWakeUnlocked = false;
    // A wake-up that the system would not take for the moment: the next
    // append tries it again, though the queue is not empty. Under the mutex.
    bool mbWakeOwed = false;
    // Counts appends and releases, so that an owner about to sleep can watch
    // for news without the mutex.
    std::atomic<unsigned> muiChanges{0};
    QList<boost::any> moItems;
    unsigned muiUsers = 0;
};

} // namespace Brevi

#endif
