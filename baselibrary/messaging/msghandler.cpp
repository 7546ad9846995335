#include "messaging/msghandler.h"

#include "core/trace.h"
#include "messaging/msg.h"
#include "messaging/msgqueue.h"

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleMsg;

const MsgAddress& invalidAddress()
{
    static const MsgAddress invalid;
    return invalid;
}
} // namespace

MsgHandler::MsgHandler(unsigned contextId)
    : muiContextId(contextId)
    , mbDisabled(contextId == 0)
{}

MsgHandler::~MsgHandler() = default;

bool MsgHandler::wait(IpcResult& result, qint64)
{
    result = eIpcResultClosed;
    return false;
}

bool MsgHandler::nap(IpcResult& result, unsigned)
{
    result = eIpcResultClosed;
    return false;
}

bool MsgHandler::send(const Msg& message)
{
    BTRACE(TraceNormal) << "No link for message" << message.name() << "to" << message.destination();
    return false;
}

bool MsgHandler::enqueue(const boost::shared_ptr<IpcPacket>&) { return false; }

bool MsgHandler::reserved() { return false; }

bool MsgHandler::flush(IpcResult& result)
{
    result = eIpcResultClosed;
    return false;
}

bool MsgHandler::flushData(IpcResult& result, const QString&, unsigned)
{
    result = eIpcResultClosed;
    return false;
}

boost::shared_ptr<MsgQueue> MsgHandler::queue() { return boost::shared_ptr<MsgQueue>(); }

bool MsgHandler::setMaximumSize(unsigned) { return true; }

int MsgHandler::socket() { return -1; }

bool MsgHandler::select(TCPSocketSelect&) { return false; }

bool MsgHandler::pending(const TCPSocketSelect&) { return false; }

bool MsgHandler::prepareQueue() { return false; }

void MsgHandler::notifyIpcClosed() {}

void MsgHandler::release() {}

const MsgAddress& MsgHandler::address() const { return invalidAddress(); }

const MsgAddress& MsgHandler::physicalAddress() const { return invalidAddress(); }

const MsgAddress& MsgHandler::parentAddress() const { return invalidAddress(); }

int MsgHandler::linkState() const { return -1; }

} // namespace Brevi
