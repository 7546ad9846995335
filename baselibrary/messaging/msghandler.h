#ifndef BASELIBRARY_MESSAGING_MSGHANDLER_H
#define BASELIBRARY_MESSAGING_MSGHANDLER_H

#include "brevi_export.h"
#include "messaging/ipcresult.h"
#include "messaging/msgaddress.h"

#include <QString>
#include <QtGlobal>

#include <boost/shared_ptr.hpp>

namespace Brevi {

class IpcPacket;
class Msg;
class MsgQueue;
class TCPSocketSelect;

// How the bytes of a Messaging move. The subclasses are the standalone
// handler (a thread without a link of its own, MsgHandlerStandalone) and the
// attached one (the context that holds the process's link to the Hub).
//
// This base class is the plain handler: it moves nothing and marks a
// messaging that failed or is disabled. Every operation fails at once:
// false, eIpcResultClosed, no socket (-1), no queue, invalid addresses,
// link state -1.
//
// Threads: a handler belongs to the thread of its Messaging's context. Only
// the queue it gives out (`queue`) is touched by other threads.
class BREVI_EXPORT MsgHandler
{
public:
    // Disabled when `contextId` is 0.
    explicit MsgHandler(unsigned contextId);
    virtual ~MsgHandler();
    MsgHandler(const MsgHandler&) = delete;
    MsgHandler& operator=(const MsgHandler&) = delete;

    // Waits up to `ms` milliseconds (negative: no limit, 0: only look) for
    // something to arrive, and puts what came into the owner's receive
    // queue. False with `result` saying why: eIpcResultTimeout, or
    // eIpcResultClosed when the handler cannot receive.
    virtual bool wait(IpcResult& result, qint64 ms);
    // Sleeps up to `ms` milliseconds or until something arrives, without
    // taking it in.
    virtual bool nap(IpcResult& result, unsigned ms);
    // Sends a message that is for no context connected in this process.
    virtual bool send(const Msg& message);
    // Queues a packet for the link.
    virtual bool enqueue(const boost::shared_ptr<IpcPacket>& packet);
    // Unused by the system; false.
    virtual bool reserved();
    // Waits until everything queued for the link has gone.
    virtual bool flush(IpcResult& result);
    // Waits until the data packets queued for (machine, id) have gone.
    virtual bool flushData(IpcResult& result, const QString& machine, unsigned id);
    // The queue through which other contexts of the process reach this one;
    // null when there is none.
    virtual boost::shared_ptr<MsgQueue> queue();
    // The largest packet the link accepts from now on; true.
    virtual bool setMaximumSize(unsigned size);
    // The descriptor of the link; -1 when there is none.
    virtual int socket();
    // The handler's sockets for a caller's own select.
    virtual bool select(TCPSocketSelect& select);
    // Whether the select's result, or the queue, has something.
    virtual bool pending(const TCPSocketSelect& select);
    // Makes the queue ready for other contexts.
    virtual bool prepareQueue();
    // Asks for a MsgIpcClosedPost to this context when the link goes.
    virtual void notifyIpcClosed();
    // Owner only: stops for good.
    virtual void release();
    virtual const MsgAddress& address() const;
    virtual const MsgAddress& physicalAddress() const;
    virtual const MsgAddress& parentAddress() const;
    // 0 while the handler can move messages, -1 when not.
    virtual int linkState() const;

    unsigned contextId() const { return muiContextId; }
    bool isDisabled() const { return mbDisabled; }

protected:
    unsigned muiContextId;
    bool mbDisabled;
    MsgAddress moAddress;
};

} // namespace Brevi

#endif
