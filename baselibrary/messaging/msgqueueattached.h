#ifndef BASELIBRARY_MESSAGING_MSGQUEUEATTACHED_H
#define BASELIBRARY_MESSAGING_MSGQUEUEATTACHED_H

#include "brevi_export.h"
#include "core/context.h"
#include "messaging/msgqueue.h"
#include "sockets/netaddress.h"

#include <QString>
#include <QtGlobal>

#include <boost/shared_ptr.hpp>

namespace Brevi {

class TCPSocketData;
class TCPSocketListen;

// The queue of a context that sleeps in select on its Hub link: a producer
// wakes it with one byte over a loopback socket pair, whose receiving end
// stands in the owner's select beside the link.
//
//     MsgQueueAttached queue;            // invalid until set up
//     queue.setup(select);               // the owner: the pair, and "recv" in select
//     ... select.wait(...);
//     while (queue.dequeue(item, &select)) ...
//
// Only the transition from empty to one item writes a byte, so a burst costs
// one; the owner reads the pair dry, 256 bytes a time, and then takes every
// item. A full socket buffer counts as a wake-up sent: bytes already wait.
// An interrupted send, or one the system has no buffers for, is tried a few
// times and then left owed to the next item, so that no producer spins on
// the mutex while the system refuses; the owner's reading likewise.
//
// The pair is made on port 0 and accepts only its own connection, so that
// another process on the host cannot plant one. Invalid until `setup`, and
// again after `release` (which closes the pair).
//
// Threads: as MsgQueue. The send socket is written only under the mutex.
class BREVI_EXPORT MsgQueueAttached : public MsgQueue
{
public:
    // Time `setup` gives the pair to connect, in milliseconds.
    static constexpr qint64 SetupTimeoutMs = 5000;

    // Owned by the context `contextId` (the calling thread's by default).
    explicit MsgQueueAttached(unsigned contextId = Context::id());
    ~MsgQueueAttached() override;

    bool enqueue(boost::any* item) override;
    bool enqueueOnce(boost::any* item) override;

    // Owner only. With a select result, only when the wake-up socket is
    // readable in it (null: always). Reads the wake-up bytes, then takes the
    // first item. A broken pair ("Unexpected error") releases the queue.
    bool dequeue(boost::any& item, const TCPSocketSelect* selected);
    bool dequeue(boost::any& item) override { return dequeue(item, nullptr); }
    // The same, taking every item.
    bool dequeueAll(QList<boost::any>& items, const TCPSocketSelect* selected);
    bool dequeueAll(QList<boost::any>& items) override { return dequeueAll(items, nullptr); }

    // Adds the wake-up socket to `select` for reading; false before setup.
    bool select(TCPSocketSelect& select) override;
    // The wake-up socket is readable in `select`, or items wait.
    bool pending(const TCPSocketSelect& select) override;
    // Owner only: makes the pair and adds its receiving end to `select`. True
    // at once for a queue that is set up; false after release.
    bool setup(TCPSocketSelect& select) override;

    const QString& name() const { return msName; }

    // Accepts on `listener`, within `ms` milliseconds, the connection that
    // comes from `from`; any other is traced ("Got connection from", "not",
    // "to"), closed, and the wait goes on. Null on time-out ("Timed out
    // connection to listen socket") or failure ("Failed to accept
    // connection").
    static boost::shared_ptr<TCPSocketData> acceptFrom(TCPSocketListen& listener, const NetAddress& from,
                                                       const QString& name, qint64 ms);

protected:
    bool wake(const char* failure) override;
    void releaseLocked() override;

private:
    // Reads the wake-up bytes; false (and the queue released) on a broken
    // pair.
    bool drain(const TCPSocketSelect* selected);

    QString msName;
    boost::shared_ptr<TCPSocketData> mptSend;
    boost::shared_ptr<TCPSocketData> mptRecv;
};

} // namespace Brevi

#endif
