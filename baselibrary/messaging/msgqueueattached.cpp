#include "messaging/msgqueueattached.h"

#include "core/trace.h"
#include "sockets/tcpsocketdata.h"
#include "sockets/tcpsocketlisten.h"
#include "sockets/tcpsocketselect.h"

#include <boost/make_shared.hpp>

#include <chrono>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleMsg;

// The owner reads the wake-up bytes in pieces of this size until a read
// gives fewer.
const unsigned DrainSize = 256;

// An interrupted call or a system short of buffers is tried again this many
// times, no more: the wake-up is sent with the queue's mutex held, and a
// system that keeps refusing must not hold every producer there.
const unsigned RetryLimit = 8;

qint64 monotonicMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
} // namespace

MsgQueueAttached::MsgQueueAttached(unsigned contextId)
    : MsgQueue(contextId, true)
    , msName(QStringLiteral("MsgQueue %1").arg(contextId))
{}

MsgQueueAttached::~MsgQueueAttached() = default;

bool MsgQueueAttached::enqueue(boost::any* item) { return append(item, false, "Failed to send wakeup byte"); }

bool MsgQueueAttached::enqueueOnce(boost::any* item) { return append(item, true, "Failed to send wakup byte"); }

bool MsgQueueAttached::wake(const char* failure)
{
    if (!mptSend || !*mptSend)
        return true;
    const char byte = 0;
    for (unsigned attempt = 1;; ++attempt) {
        if (mptSend->send(&byte, 1) == 1)
            return true;
        switch (mptSend->lastError()) {
        case eTCPErrorWouldBlock:
            // The buffer is full of earlier bytes: the owner wakes anyway.
            return true;
        case eTCPErrorInterrupted:
        case eTCPErrorNoBuffers:
            if (attempt < RetryLimit)
                continue;
            // The item stays queued; the owner is woken by the next append,
            // or by whatever else wakes it first.
            BTRACE(TraceAlways) << failure << *mptSend << mptSend->lastError() << "after" << attempt
                                << "attempts, the next item tries again";
            mbWakeOwed = true;
            return true;
        default:
            BTRACE(TraceAlways) << failure << *mptSend << mptSend->lastError();
            return false;
        }
    }
}

void MsgQueueAttached::releaseLocked()
{
    if (mptSend)
        mptSend->close();
    if (mptRecv)
        mptRecv->close();
    mptSend.reset();
    mptRecv.reset();
}

boost::shared_ptr<TCPSocketData> MsgQueueAttached::acceptFrom(TCPSocketListen& listener, const NetAddress& from,
                                                              const QString& name, qint64 ms)
{
    const qint64 deadline = monotonicMs() + ms;
    for (;;) {
        const qint64 remaining = deadline - monotonicMs();
        if (remaining <= 0) {
            BTRACE(TraceAlways) << "Timed out connection to listen socket" << listener;
            return boost::shared_ptr<TCPSocketData>();
        }
        boost::shared_ptr<TCPSocketData> accepted = listener.accept(name, remaining);
        if (!accepted) {
            if (listener.lastError() == eTCPErrorTimeout) {
                BTRACE(TraceAlways) << "Timed out connection to listen socket" << listener;
            } else if (listener.lastError() == eTCPErrorInterrupted) {
                continue;
            } else {
                BTRACE(TraceAlways) << "Failed to accept connection" << listener << listener.lastError();
            }
            return boost::shared_ptr<TCPSocketData>();
        }
        // The port tells the connection apart: every socket here is on the
        // loopback host.
        if (accepted->remoteAddress() == from && accepted->remoteAddress().getPort() == from.getPort())
            return accepted;
        // Someone else on this host found the port first: not ours.
        BTRACE(TraceAlways) << "Got connection from" << accepted->remoteAddress() << "not" << from << "to"
                            << listener.localAddress();
        accepted->close();
    }
}

bool MsgQueueAttached::setup(TCPSocketSelect& select)
{
    if (Context::id() != muiContextId) {
        BTRACE(TraceAlways) << "Attempt to set up queue from thread" << Context::id() << "not" << muiContextId;
        return false;
    }
    {
        boost::mutex::scoped_lock lock(moMutex);
        if (mbReleased)
            return false;
        if (!mbInvalid) {
            select.set(*mptRecv, TCPSocketSelect::Read);
            return true;
        }
    }

    const NetAddress loopback(QHostAddress::LocalHost, 0);
    // Closed when this step ends: the pair needs no fixed port.
    TCPSocketListen listener(msName + " Listen", loopback, 1);
    if (!listener) {
        BTRACE(TraceAlways) << "Failed to create listen socket" << listener.lastError();
        return false;
    }
    // Bound to the loopback address itself, so that its address is the one
    // the accepted end sees as remote.
    boost::shared_ptr<TCPSocketData> send =
        boost::make_shared<TCPSocketData>(msName + " Send", listener.localAddress(), loopback);
    if (!*send) {
        BTRACE(TraceAlways) << "Failed to connect listen socket" << send->lastError();
        return false;
    }
    boost::shared_ptr<TCPSocketData> recv =
        acceptFrom(listener, send->localAddress(), msName + " Recv", SetupTimeoutMs);
    if (!recv) {
        BTRACE(TraceAlways) << "Failed to accept connection";
        return false;
    }
    if (!send->complete(SetupTimeoutMs)) {
        BTRACE(TraceAlways) << "Failed to connect listen socket" << send->lastError();
        return false;
    }

    boost::mutex::scoped_lock lock(moMutex);
    if (mbReleased)
        return false;
    mptSend = send;
    mptRecv = recv;
    mbInvalid = false;
    select.set(*mptRecv, TCPSocketSelect::Read);
    BTRACE(TraceNormal) << "Connected" << *mptSend << "to" << *mptRecv;
    return true;
}

bool MsgQueueAttached::drain(const TCPSocketSelect* selected)
{
    if (!mptRecv)
        return true;
    if (selected && !selected->isSet(*mptRecv, TCPSocketSelect::Read))
        return false;
    char bytes[DrainSize];
    for (unsigned refused = 0;;) {
        const unsigned got = mptRecv->recv(bytes, DrainSize);
        if (got == DrainSize)
            continue;
        if (got > 0)
            return true;
        switch (mptRecv->lastError()) {
        case eTCPErrorWouldBlock:
            return true;
        case eTCPErrorInterrupted:
        case eTCPErrorNoBuffers:
            // Bytes left behind only wake the owner once more.
            if (++refused < RetryLimit)
                continue;
            return true;
        default:
            BTRACE(TraceAlways) << "Unexpected error" << *mptRecv << mptRecv->lastError();
            release();
            return false;
        }
    }
}

bool MsgQueueAttached::dequeue(boost::any& item, const TCPSocketSelect* selected)
{
    if (foreign(false))
        return false;
    if (!drain(selected))
        return false;
    boost::mutex::scoped_lock lock(moMutex);
    if (moItems.isEmpty())
        return false;
    item = moItems.takeFirst();
    return true;
}

bool MsgQueueAttached::dequeueAll(QList<boost::any>& items, const TCPSocketSelect* selected)
{
    if (foreign(false))
        return false;
    if (!drain(selected))
        return false;
    boost::mutex::scoped_lock lock(moMutex);
    if (moItems.isEmpty())
        return false;
    items.append(moItems);
    moItems.clear();
    return true;
}

bool MsgQueueAttached::select(TCPSocketSelect& select)
{
    if (!mptRecv)
        return false;
    return select.set(*mptRecv, TCPSocketSelect::Read);
}

bool MsgQueueAttached::pending(const TCPSocketSelect& select)
{
    if (mptRecv && select.isSet(*mptRecv, TCPSocketSelect::Read))
        return true;
    return !isEmpty();
}

} // namespace Brevi
