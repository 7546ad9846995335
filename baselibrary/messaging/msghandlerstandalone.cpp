#include "messaging/msghandlerstandalone.h"

#include "core/context.h"
#include "core/trace.h"
#include "messaging/ipcpacket.h"
#include "messaging/msg.h"
#include "messaging/msgqueuestandalone.h"
#include "messaging/msgreceivequeue.h"
#include "sockets/tcpsocketselect.h"

#include <boost/make_shared.hpp>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleMsg;
}

MsgHandlerStandalone::MsgHandlerStandalone(unsigned contextId, MsgReceiveQueue* receiveQueue)
    : MsgHandler(contextId)
    , mpoReceiveQueue(receiveQueue)
    , mptQueue(boost::make_shared<MsgQueueStandalone>(contextId))
{
    moAddress = MsgAddress(eMsgAddressContext, contextId);
}

MsgHandlerStandalone::~MsgHandlerStandalone() = default;

bool MsgHandlerStandalone::wait(IpcResult& result, qint64 ms)
{
    result = eIpcResultClosed;
    if (!mptQueue->wait(result, ms))
        return false;
    QList<boost::any> items;
    mptQueue->dequeueAll(items);
    for (const boost::any& item : qAsConst(items)) {
        if (const Msg* message = boost::any_cast<Msg>(&item))
            mpoReceiveQueue->enqueue(*message);
        else if (const boost::shared_ptr<IpcPacket>* packet = boost::any_cast<boost::shared_ptr<IpcPacket>>(&item))
            mpoReceiveQueue->enqueue(*packet);
        else
            BTRACE(TraceAlways) << "Unknown item on queue, give it to the bit bucket";
    }
    return true;
}

bool MsgHandlerStandalone::nap(IpcResult& result, unsigned ms) { return mptQueue->wait(result, qint64(ms)); }

bool MsgHandlerStandalone::flush(IpcResult& result)
{
    result = eIpcResultOk;
    return true;
}

bool MsgHandlerStandalone::flushData(IpcResult& result, const QString&, unsigned)
{
    result = eIpcResultOk;
    return true;
}

boost::shared_ptr<MsgQueue> MsgHandlerStandalone::queue() { return mptQueue; }

bool MsgHandlerStandalone::select(TCPSocketSelect& select)
{
    select.zero();
    return bool(mptQueue);
}

bool MsgHandlerStandalone::pending(const TCPSocketSelect&) { return !mptQueue->isEmpty(); }

bool MsgHandlerStandalone::prepareQueue() { return true; }

void MsgHandlerStandalone::release()
{
    const unsigned caller = Context::id();
    if (caller != muiContextId) {
        BTRACE(TraceAlways) << "Context" << caller << "is not allowed to disable message handler for context"
                            << muiContextId;
        return;
    }
    mptQueue->release();
    mbDisabled = true;
}

int MsgHandlerStandalone::linkState() const { return mptQueue->isValid() ? 0 : -1; }

} // namespace Brevi
