#ifndef BASELIBRARY_MESSAGING_MSGHANDLERSTANDALONE_H
#define BASELIBRARY_MESSAGING_MSGHANDLERSTANDALONE_H

#include "brevi_export.h"
#include "messaging/msghandler.h"

#include <boost/shared_ptr.hpp>

namespace Brevi {

class MsgQueueStandalone;
class MsgReceiveQueue;

// The handler of a thread with no link of its own: it reaches only the
// contexts it is connected to, and they reach it through its
// MsgQueueStandalone, which its `wait` sleeps on and drains into the owner's
// receive queue. Its address is MsgAddress(eMsgAddressContext, id), physical
// address the same, no parent.
//
// `send` fails (a message for no connected context has nowhere to go);
// `flush` has nothing to wait for; there is no socket.
//
// Threads: the owner's; its queue is the one thing other threads touch.
class BREVI_EXPORT MsgHandlerStandalone : public MsgHandler
{
public:
    // Drains into `receiveQueue`, which must outlive the handler.
    MsgHandlerStandalone(unsigned contextId, MsgReceiveQueue* receiveQueue);
    ~MsgHandlerStandalone() override;

    bool wait(IpcResult& result, qint64 ms) override;
    bool nap(IpcResult& result, unsigned ms) override;
    bool flush(IpcResult& result) override;
    bool flushData(IpcResult& result, const QString& machine, unsigned id) override;
    boost::shared_ptr<MsgQueue> queue() override;
    bool select(TCPSocketSelect& select) override;
    bool pending(const TCPSocketSelect& select) override;
    bool prepareQueue() override;
    void release() override;
    const MsgAddress& address() const override { return moAddress; }
    const MsgAddress& physicalAddress() const override { return moAddress; }
    const MsgAddress& parentAddress() const override { return moParentAddress; }
    int linkState() const override;

private:
    MsgAddress moParentAddress;
    MsgReceiveQueue* mpoReceiveQueue;
    boost::shared_ptr<MsgQueueStandalone> mptQueue;
};

} // namespace Brevi

#endif
