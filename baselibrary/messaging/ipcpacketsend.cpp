#include "messaging/ipcpacketsend.h"

#include "core/trace.h"
#include "messaging/ipcpacket.h"
#include "sockets/tcpsocketdata.h"

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleMsgPacket;

// The errors after which the socket is still good and a later call can go on.
bool isPassing(TCPError error)
{
    return error == eTCPErrorWouldBlock || error == eTCPErrorInterrupted || error == eTCPErrorResource ||
           error == eTCPErrorNoBuffers;
}
} // namespace

IpcPacketSend::IpcPacketSend() = default;

IpcPacketSend::IpcPacketSend(const boost::shared_ptr<TCPSocketData>& socket) { setSocket(socket); }

IpcPacketSend::~IpcPacketSend() = default;

void IpcPacketSend::setSocket(const boost::shared_ptr<TCPSocketData>& socket)
{
    mptPacket.reset();
    moRemaining = Extent();
    mptSocket = socket;
    mbValid = socket && socket->isValid();
    meResult = eIpcResultOk;
}

bool IpcPacketSend::set(const boost::shared_ptr<IpcPacket>& packet)
{
    if (mptPacket) {
        BTRACE(TraceAlways) << "Already sending a packet";
        return false;
    }
    if (!packet || !*packet) {
        BTRACE(TraceAlways) << "No packet provided";
        return false;
    }
    mptPacket = packet;
    moRemaining = packet->buffer();
    return true;
}

IpcResult IpcPacketSend::send()
{
    meResult = eIpcResultOk;
    if (!mbValid) {
        BTRACE(TraceNormal) << "Attempt to send on a failed connection";
        return meResult = eIpcResultClosed;
    }
    if (!mptPacket) {
        BTRACE(TraceNormal) << "Attempt to send a message when none is pending";
        return meResult = eIpcResultPending;
    }
    while (moRemaining.available()) {
        const unsigned sent = sendData(reinterpret_cast<const char*>(moRemaining.at()), moRemaining.available());
        if (!sent)
            return meResult;
        moRemaining.used(sent);
    }
    boost::shared_ptr<IpcPacket> done;
    done.swap(mptPacket);
    moRemaining = Extent();
    done->transmitted();
    return meResult;
}

unsigned IpcPacketSend::sendData(const char* data, unsigned size)
{
    const unsigned sent = mptSocket->send(data, size);
    if (sent)
        return sent;
    const TCPError error = mptSocket->lastError();
    // A socket disabled by someone else answers 0 and leaves its last error
    // as it was, which may be a passing one: it must not be taken for a full
    // buffer, or the caller would wait for a socket that never gets writable.
    if (mptSocket->isValid() && isPassing(error)) {
        meResult = eIpcResultAgain;
        return 0;
    }
    if (error == eTCPErrorClosed)
        BTRACE(TraceNormal) << "Socket has closed";
    else
        BTRACE(TraceAlways) << "Error writing socket" << error;
    mbValid = false;
    meResult = eIpcResultClosed;
    return 0;
}

} // namespace Brevi
