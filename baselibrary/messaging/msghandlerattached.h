#ifndef BASELIBRARY_MESSAGING_MSGHANDLERATTACHED_H
#define BASELIBRARY_MESSAGING_MSGHANDLERATTACHED_H

#include "brevi_export.h"
#include "core/context.h"
#include "core/machinename.h"
#include "messaging/ipcpacketreceive.h"
#include "messaging/ipcpacketsend.h"
#include "messaging/msghandler.h"
#include "sockets/tcpsocketselect.h"

#include <QList>
#include <QString>
#include <QtGlobal>

#include <boost/shared_ptr.hpp>

namespace Brevi {

class IpcPacket;
class Msg;
class MsgQueueAttached;
class MsgReceiveQueue;
class TCPSocketData;

// The handler of the context that holds the process's link to the Hub.
//
// The constructor does all the attaching: it connects to the Hub on the local
// host (port BREVI_HUB_PORT, 30303 when that is not set), retrying once a
// second for up to two minutes (a single try with Context::FlagAttachOnce),
// sends HubMgrAttachRequest and waits up to 30 seconds for the reply, which
// gives the process its number and the machine its name. Messages that come
// before the reply are set aside and put back, in their order, in front of
// the receive queue. A handler that did not attach has linkState() -1 and
// moves nothing ("Failed to attach to Hub").
//
// Afterwards one select serves the link and the wake-up pair of the queue
// that the process's other threads send through. `send` only queues a
// packet: bytes leave in the waits (`wait`, `nap`, `flush`, `flushData`), so
// a send never blocks however slow the Hub is. What the Hub sends is read in
// the same waits and put, in order, into the owner's MsgReceiveQueue.
//
// Until the Hub has enabled the connection (Messaging::enableConnection) the
// link accepts packets of 65,536 bytes at most; a larger one ends it.
//
// Loss of the Hub: the socket is closed (`socket` gives -1, so
// Msg::HubDisconnected is done). A context that asked with `notifyIpcClosed`
// then finds MsgIpcClosedPost from itself in its receive queue; any other
// releases its queue, so that the other threads' sends start failing. Waits
// go on serving the other threads while any of them still uses the queue;
// without any, `wait` fails with eIpcResultClosed.
//
// `release` (owner only) detaches: HubRtrConnectionDetachPost, then the
// link is shut for sending and served until the Hub closes it, whatever
// still arrives being dropped.
//
// Threads: everything runs on the owning context's thread; other threads
// come in only through `queue`. The socket, the send queue and both packet
// machines need no lock.
class BREVI_EXPORT MsgHandlerAttached : public MsgHandler
{
public:
    // The Hub's port when BREVI_HUB_PORT does not give one.
    static const unsigned DefaultPort = 30303;
    // Both socket buffers of the link, in bytes.
    static const unsigned SocketBufferSize = 0x20000;
    // Connecting: attempts (the counter runs from 1 while below this; from
    // this less one with FlagAttachOnce), the overall limit, the limit of one
    // attempt and the pause between two.
    static const unsigned AttemptLimit = 120;
    static const qint64 ConnectLimitMs = 120000;
    static const qint64 CompleteLimitMs = 30000;
    static const unsigned RetryPauseMs = 1000;
    // How long the attach reply may take.
    static const qint64 AttachReplyLimitMs = 30000;
    // How long a detach waits for the Hub to take what is queued and to close
    // the link, so that a process never hangs on its way out.
    static const qint64 DetachLimitMs = 30000;

    // Attaches the context `contextId` as `type` (TypeAttached or
    // TypeMonitored) with the flags, title, group and name of the attach
    // request. `machine` is given the name the Hub gave this machine.
    // Received messages go to `receiveQueue`, which must outlive the handler.
    MsgHandlerAttached(MachineName& machine, unsigned contextId, Context::Type type, unsigned flags,
                       const QString& title, const QString& group, const QString& name, MsgReceiveQueue* receiveQueue);
    ~MsgHandlerAttached() override;

    // The port the link goes to: BREVI_HUB_PORT when it holds a port number,
    // otherwise DefaultPort.
    static unsigned hubPort();

    // Serves link and queue until something has come into the receive
    // queue, for up to `ms` milliseconds (negative: no limit; 0: one pass).
    // False with eIpcResultTimeout when nothing came, eIpcResultClosed when
    // the link is gone and no other context uses the queue, or when the wait
    // itself failed (the handler is then disabled).
    bool wait(IpcResult& result, qint64 ms) override;
    // One pass of `wait`, sleeping at most once.
    bool nap(IpcResult& result, unsigned ms) override;
    // A message becomes a packet (a data message when it has raw data) and
    // is queued for the link. False for an invalid message or without a link.
    bool send(const Msg& message) override;
    // Queues a packet for the link; nothing is written here. False without a
    // link.
    bool enqueue(const boost::shared_ptr<IpcPacket>& packet) override;
    // Serves the link until the send queue is empty: eIpcResultOk, or
    // eIpcResultClosed when the link is gone (what was queued is lost).
    bool flush(IpcResult& result) override;
    // The same until no data packet for (machine, id) waits in the send queue.
    bool flushData(IpcResult& result, const QString& machine, unsigned id) override;
    boost::shared_ptr<MsgQueue> queue() override;
    // The largest packet accepted from the Hub.
    bool setMaximumSize(unsigned size) override;
    // The link's descriptor; -1 once it is gone.
    int socket() override;
    // `select` becomes a copy of the handler's select (link and wake-up
    // pair); emptied, and false, without a link. While something that a
    // poll cannot see waits in this process (a message in the receive
    // queue, bytes the receiver read ahead), the link is also asked for
    // writing, which it nearly always is: a wait on `select` then ends at
    // once, and the caller handles what waits instead of sleeping on it.
    bool select(TCPSocketSelect& select) override;
    // The link is ready in `select`, the receiver holds bytes read ahead, or
    // the queue has something.
    bool pending(const TCPSocketSelect& select) override;
    // Makes the queue's wake-up pair and puts it into the select.
    bool prepareQueue() override;
    void notifyIpcClosed() override;
    // Owner only: detaches from the Hub and releases the queue. From another
    // context: "Context", its id, "is not allowed to release messaging for
    // context", and nothing happens.
    void release() override;
    const MsgAddress& address() const override { return moAddress; }
    const MsgAddress& physicalAddress() const override { return moPhysicalAddress; }
    const MsgAddress& parentAddress() const override { return moParentAddress; }
    // 0 while the link is up.
    int linkState() const override;

    // Packets waiting for the link.
    int sendQueueSize() const { return moSendQueue.size(); }

private:
    bool connectToHub(unsigned flags);
    bool attach(MachineName& machine, Context::Type type, unsigned flags, const QString& title, const QString& group,
                const QString& name);
    bool awaitAttachReply(MachineName& machine, const QString& group, const QString& name);

    // Writes what the link takes of the send queue. With a select result,
    // only when the link is writable in it.
    void emptySendQueue(const TCPSocketSelect* selected);
    // Takes in what the queue and the link have. With a select result, only
    // what is ready in it. True when nothing came. It reads the link until the
    // receiver says the socket is dry, so that nothing it read ahead is left
    // for a poll that cannot see it.
    bool fillReceiveQueue(const TCPSocketSelect* selected);
    // Whether the link is to be read: it is up, and the select result says it
    // is readable or bytes read ahead wait in the receiver (null: always).
    bool readable(const TCPSocketSelect* selected) const;
    // The link is gone: closes it, then tells the owner (notifyIpcClosed) or
    // releases the queue.
    void linkLost(const char* how);
    // Gives a packet from the link to the receive queue, or to the bit bucket
    // while detaching.
    void take(const boost::shared_ptr<IpcPacket>& packet);
    // One wait on a copy of the select; `where` names the caller in the
    // trace of a failure, which disables the handler. While bytes read ahead
    // wait in the receiver it only looks, and does not sleep.
    bool selectWait(IpcResult& result, qint64 ms, const char* where);
    bool linkUp() const;
    // Whether the link is gone and no other context can send through the
    // queue any more.
    bool nothingLeft() const;
    // Runs the link until the Hub has closed it; for detaching.
    void drain(qint64 ms);
    IpcResult disable();

    MsgAddress moPhysicalAddress;
    MsgAddress moParentAddress;
    MsgReceiveQueue* mpoReceiveQueue;
    TCPSocketSelect moSelect;
    TCPSocketSelect moSelectClone;
    boost::shared_ptr<TCPSocketData> mptSocket;
    QList<boost::shared_ptr<IpcPacket>> moSendQueue;
    IpcPacketSend moPacketSend;
    IpcPacketReceive moPacketReceive;
    boost::shared_ptr<MsgQueueAttached> mptQueue;
    bool mbDetaching = false;
    IpcResult mePendingResult = eIpcResultOk;
    bool mbNotifyIpcClosed = false;
    unsigned muiNextSendId = 1;
    unsigned muiNextReceiveId = 1;
};

} // namespace Brevi

#endif
