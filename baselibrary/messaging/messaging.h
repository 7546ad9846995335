#ifndef BASELIBRARY_MESSAGING_MESSAGING_H
#define BASELIBRARY_MESSAGING_MESSAGING_H

#include "brevi_export.h"
#include "core/authorization.h"
#include "core/context.h"
#include "core/machinename.h"
#include "core/operatorboolgenerator.h"
#include "datachannel/datachanneltransport.h"
#include "logging/log.h"
#include "messaging/binaryaddress.h"
#include "messaging/ipcresult.h"
#include "messaging/msg.h"
#include "messaging/msgaddress.h"
#include "messaging/msghandlerlistentry.h"
#include "messaging/msgreceivequeue.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QString>
#include <QtGlobal>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include <atomic>

namespace Brevi {

class IpcPacket;
class MsgHandler;
class MsgQueue;
class TCPSocketSelect;

// A context's one link to the rest of the system: it sends, receives, holds
// the handler table and the receive queue, and connects to the contexts of
// other threads of the process. How bytes move is left to the MsgHandler it
// holds: standalone (a thread without a link of its own, reaching only the
// contexts it is connected to), attached (the context with the process's
// link to the Hub), or plain (a messaging that failed or was released, on
// which every call fails at once).
//
// Application code does not hold one: Context makes it, and Msg's statics
// reach it. Connecting the thread of a worker to its parent:
//
//     // in the worker, with a Context of its own:
//     MsgAddress parent = Context::messaging()->connect(parentMessaging, "job 7", Log::eNoProxy);
//     // the parent gets MsgConnectedPost with cookie "job 7" from the worker;
//     // messages now go both ways through the two contexts' queues.
//
// Failure: calls on a disabled Messaging (never set up, or released) fail
// cleanly: `send` is false, `receive` the invalid Msg with
// eMsgResultIpcError, the data calls eIpcResultClosed. Nothing blocks unless
// asked to wait without limit.
//
// Threads: a Messaging has no thread of its own; everything runs on its
// context's thread, in `send`, `receive` and the waits, so handlers run during
// any wait. Other threads come in only through the queue its handler gives
// out, and through `connect`, `connectQueue`, `disconnectQueue` and `failed`,
// which take `mutex`. Locks are taken in the order Messaging's mutex, then a
// MsgQueue's.
class BREVI_EXPORT Messaging
{
public:
    typedef DatachannelTransport::Transport Transport;

    // Plain: disabled, every call fails.
    Messaging();
    // Attached to the local Hub as `type` (3, or 4 for a monitored process),
    // with the flags, title, name and group of the attach request; `machine`
    // is given the name the Hub gave this machine. Plain, with "Failed to
    // attach to Hub", when there is no Hub link to be had.
    Messaging(MachineName& machine, unsigned contextId, Context::Type type, unsigned flags, const QString& title,
              const QString& group, const QString& name);
    // Standalone, for the context `contextId`.
    explicit Messaging(unsigned contextId);
    // Releases, when still enabled.
    ~Messaging();
    Messaging(const Messaging&) = delete;
    Messaging& operator=(const Messaging&) = delete;

    // --- Identity -------------------------------------------------------------
    const MsgAddress& address() const { return moAddress; }
    const MsgAddress& physicalAddress() const { return moPhysicalAddress; }
    const MsgAddress& parentAddress() const { return moParentAddress; }
    // Where this context's log messages go; invalid when nowhere. An
    // attached context sends to the machine's log daemon; a thread's context
    // to the attached context it was connected to with Log::eProxy.
    const MsgAddress& loggingAddress() const { return moLoggingAddress; }
    // For a context that is to log elsewhere; the invalid address stops its
    // logging. Owner's thread only.
    void setLoggingAddress(const MsgAddress& address) { moLoggingAddress = address; }
    unsigned contextId() const { return muiContextId; }
    // The descriptor of the Hub link; -1 for a context without one.
    int socket();
    // The handler can move messages (its link state is not -1).
    bool valid() const;
    bool isValid() const { return valid(); }
    bool isDisabled() const { return mbDisabled.load(); }
    operator OperatorBoolGenerator<Messaging>::Result() const
    {
        return OperatorBoolGenerator<Messaging>::make(valid());
    }
    // A user-interface thread cannot block on a socket: after each send it
    // serves what is pending (Msg::wait(0)).
    bool isUI() const { return mbUI; }
    void setUI() { mbUI = true; }

    // --- Send -----------------------------------------------------------------
    // To this context itself (straight into the receive queue, in order with
    // what else came), to a connected context of the process (its queue), or
    // to the handler's link. False for an invalid message, and when a
    // connected queue refuses it (the queue is then forgotten).
    bool send(const Msg& message);
    // Then, for a UI thread, serves what is pending (true when that gives
    // eMsgResultOk); otherwise flushes if asked to.
    bool send(const Msg& message, bool flush);
    // Only to this context or a connected one, and only if no message of the
    // same name and source still waits there. False for any other address.
    bool sendOnce(const Msg& message);
    // A packet to this context, or to the link; never to another thread
    // ("Cannot send packets between threads").
    bool sendPacket(const boost::shared_ptr<IpcPacket>& packet);
    bool flush(IpcResult& result);

    // --- Receive --------------------------------------------------------------
    // The next message, waiting up to `ms` milliseconds (negative: no limit,
    // 0: only what is there). Handlers are not run here. The invalid message
    // with eMsgResultTimeout, or eMsgResultIpcError when the handler cannot
    // receive; `result` tells the handler's answer. A log message of a
    // thread this context is log proxy for is passed on, not returned.
    Msg receive(IpcResult& result, qint64 ms);
    // Puts the messages back in front of the receive queue, each in front of
    // the last: the list ends up reversed. Each passes the authorization test
    // again.
    void requeue(const QList<Msg>& messages);
    // eIpcResultMessagePending at once when a message waits; otherwise
    // sleeps up to `ms` milliseconds in the handler and gives its answer.
    IpcResult nap(unsigned ms);
    // A message waits, or the handler has something (or has failed, so that
    // the caller looks and meets the error).
    bool pending();
    bool pending(const TCPSocketSelect& select);
    bool select(TCPSocketSelect& select);

    // --- Handlers -------------------------------------------------------------
    // The newest handler of a name is asked first. An authorization makes
    // the receive queue refuse messages of the name that lack it. False for a
    // null handler or an empty name.
    bool addWaitHandler(const QString& name, const QByteArray& authorization, const MsgHandlerPointer& handler);
    // Removes the first entry of the name holding this very pointer.
    bool removeWaitHandler(const QString& name, const MsgHandlerPointer& handler);
    // A copy of the handlers of the message's name, newest first.
    QList<MsgHandlerListEntry> waitHandlers(const Msg& message) const;
    int handlerCount() const;

    // --- Authorization --------------------------------------------------------
    bool addAuthorization(const QString& name, const QByteArray& authorization);
    bool removeAuthorization(const QString& name, const QByteArray& authorization);
    // In the binary form for this context's machine.
    bool addAuthorization(const QString& name, const Authorization& authorization);
    bool removeAuthorization(const QString& name, const Authorization& authorization);

    // --- Connections between contexts of the process --------------------------
    // Makes this context's queue ready for other contexts.
    bool haveStandaloneContexts();
    // Called on this context's thread: joins it with `other` (usually the
    // context of a parent or of a new thread) so that each can send to the
    // other, and sends `other` a MsgConnectedPost with `cookie`. Returns
    // `other`'s address; the invalid address on failure, in which case
    // `other` is told with MsgDisconnectedPost (`failed`). With `proxy`
    // Log::eProxy and no logging address yet, an attached `other` becomes
    // this context's log proxy.
    MsgAddress connect(const boost::shared_ptr<Messaging>& other, const QString& cookie, Log::Proxy proxy);
    // Sends `address` a MsgDisconnectedPost with `cookie` (if not empty), then
    // forgets its queue. True when it was connected.
    bool disconnect(const MsgAddress& address, const QString& cookie);
    // Enters `other`'s queue under `other`'s address. False when `other` has
    // no usable queue or is already connected.
    bool connectQueue(Messaging* other);
    bool disconnectQueue(const MsgAddress& address);
    // Whether `address` is a connected context.
    bool isConnected(const MsgAddress& address) const;
    // Puts a MsgDisconnectedPost with `cookie` into this context's own queue,
    // from any thread: how a waiting parent hears that its worker failed.
    bool failed(const QString& cookie);
    // The Hub's leave for this process to talk to others, for an attached
    // context: HubMgrConnectionEnableRequest, and its reply awaited.
    bool enableConnection();
    // Asks for MsgIpcClosedPost, from this context to itself, when the Hub
    // link goes; without it the loss releases this context's queue, so that
    // the other threads' sends fail. Only an attached context has a link.
    void notifyIpcClosed();
    // Owner only: drops the handlers, releases the handler and its queue, and
    // disables. From another thread it changes nothing.
    void release();

    // --- Data channels of this thread -------------------------------------------
    // Always true. See MsgReceiveQueue::addDatachannel for the limit.
    bool addDatachannel(unsigned id, Transport transport, unsigned limit = 0);
    void removeDatachannel(unsigned id);
    // See MsgReceiveQueue::dataTransportType.
    bool dataTransportType(Transport& transport) const;
    IpcResult dataAvailable(unsigned id) const;
    // Waits up to `ms` (negative: no limit, 0: one look) for a packet on one
    // of the channels: eIpcResultOk, eIpcResultMessagePending (a message came
    // first), eIpcResultTimeout, or eIpcResultClosed.
    IpcResult dataAvailable(const QList<unsigned>& ids, qint64 ms);
    // The same, taking the channel's first packet.
    boost::shared_ptr<IpcPacket> receiveData(IpcResult& result, unsigned id, qint64 ms);
    // Adds the acknowledgements waiting for the channel to `count`, waiting
    // for one if there is none and no message is pending. True when `count`
    // is above 0.
    bool availableAcks(unsigned& count, unsigned id);
    // Waits until what is queued for the link has gone; false with
    // eIpcResultMessagePending while a message waits to be served.
    bool flushData(IpcResult& result);
    bool flushData(IpcResult& result, const QString& machine, unsigned id);

private:
    // The handler of an attached context: it connects to the Hub and
    // attaches before it returns; its link state says whether that worked.
    boost::shared_ptr<MsgHandler> attachHandler(MachineName& machine, Context::Type type, unsigned flags,
                                                const QString& title, const QString& group, const QString& name);
    void adoptAddresses();
    // True, after the refusal is traced, when the calling context is not
    // the owner.
    bool foreign(const char* what) const;
    // Takes a log message of a thread this context is log proxy for; true
    // when it was one.
    bool proxyLog(const Msg& message);
    bool sendable(const Msg& message) const;
    bool sendToQueue(const Msg& message, bool once, bool& found);
    QByteArray binary(const Authorization& authorization) const;

    unsigned muiContextId = 0;
    std::atomic<bool> mbDisabled{true};
    MsgAddress moAddress;
    MsgAddress moPhysicalAddress;
    MsgAddress moParentAddress;
    mutable boost::mutex moMutex;
    QHash<BinaryAddress, boost::shared_ptr<MsgQueue>> moQueues;
    QHash<QString, QList<MsgHandlerListEntry>> moWaitHandlers;
    MsgReceiveQueue moReceiveQueue;
    bool mbUI = false;
    MsgAddress moLoggingAddress;
    MachineName moMachine;
    boost::shared_ptr<MsgHandler> mptHandler;
};

} // namespace Brevi

#endif
