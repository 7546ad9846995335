#include "sockets/tcpsocketdata.h"

#include "core/trace.h"
#include "core/traceerrorcode.h"
#include "sockets/tcperrortable.h"
#include "sockets/tcpsocketpoll.h"

#include <cerrno>
#include <climits>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleTcpSocket;
} // namespace

TCPSocketData::TCPSocketData(const QString& name)
    : TCPSocket(name)
{}

TCPSocketData::TCPSocketData(const QString& name, int& handle)
    : TCPSocket(name, handle)
{
    if (socket() < 0)
        return;
    sockaddr_storage address = {};
    socklen_t length = sizeof address;
    if (getpeername(socket(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        const int error = errno;
        BTRACE(TraceAlways) << "Failed to get remote socket address" << *this << TraceErrorCode(error);
        disable(TCPErrorTable::peerName(error));
        return;
    }
    moRemoteAddress.setAddress(reinterpret_cast<const sockaddr&>(address));
    mbConnected = true;
}

TCPSocketData::TCPSocketData(const QString& name, const NetAddress& remote)
    : TCPSocket(name, NetAddress(QHostAddress::Any, 0))
{
    initialize(remote);
}

TCPSocketData::TCPSocketData(const QString& name, const NetAddress& remote, const NetAddress& local)
    : TCPSocket(name, local)
{
    initialize(remote);
}

TCPSocketData::~TCPSocketData() = default;

bool TCPSocketData::initialize(const NetAddress& remote)
{
    BTRACE(TraceDebug) << "IN:initialize" << *this << remote;
    if (!isValid())
        return false;
    moRemoteAddress = remote;
    sockaddr_storage address = {};
    if (!remote.getAddress(reinterpret_cast<sockaddr&>(address))) {
        BTRACE(TraceAlways) << "Invalid address for data socket" << *this << remote;
        disable(eTCPErrorInvalidArgument);
        return false;
    }
    if (::connect(socket(), reinterpret_cast<const sockaddr*>(&address), sizeof(sockaddr_in)) == 0) {
        connectedNow();
        BTRACE(TraceNormal) << "Connected at once" << *this << "to" << remote;
        return true;
    }
    const int error = errno;
    if (error == EINPROGRESS || error == EAGAIN) {
        setLastError(eTCPErrorWouldBlock);
        // The way out is chosen when the connect begins: a peer that accepts
        // can already be matched against this end.
        refreshLocalAddress();
        BTRACE(TraceDebug) << "OUT:initialize , connecting" << *this << "to" << remote;
        return true;
    }
    const TCPError result = TCPErrorTable::connect(error);
    BTRACE(TraceAlways) << "Failed to connect" << *this << "to" << remote << TraceErrorCode(error) << result;
    disable(result);
    return false;
}

void TCPSocketData::connectedNow()
{
    mbConnected = true;
    setLastError(eTCPErrorNone);
    // Bound to the any-address, the socket names its real end once connected.
    refreshLocalAddress();
}

bool TCPSocketData::complete(qint64 ms)
{
    BTRACE(TraceDebug) << "IN:complete" << *this << ms;
    if (!isValid()) {
        BTRACE(TraceNormal) << "Invalid socket" << *this;
        return false;
    }
    if (mbConnected) {
        BTRACE(TraceVerbose) << "Already connected" << *this;
        return true;
    }
    TCPSocketPoll poll;
    poll.set(*this, TCPSocketPoll::Connect);
    const TCPError result = poll.wait(ms);
    switch (result) {
    case eTCPErrorNone: {
        BTRACE(TraceDebug) << "Connect complete check for errors" << *this;
        const TCPError error = socketError();
        if (error == eTCPErrorNone) {
            connectedNow();
            BTRACE(TraceNormal) << *this << "connected" << localAddress() << "to" << moRemoteAddress;
            return true;
        }
        setLastError(error);
        BTRACE(TraceAlways) << "Completion of connection failed" << *this << "to" << moRemoteAddress << error;
        return false;
    }
    case eTCPErrorInterrupted:
        setLastError(result);
        BTRACE(TraceNormal) << "Interrupted while completing connection" << *this;
        return false;
    case eTCPErrorTimeout:
        setLastError(result);
        BTRACE(TraceNormal) << "Timeout while completing connection" << *this << "to" << moRemoteAddress << ms;
        return false;
    default:
        setLastError(result);
        BTRACE(TraceAlways) << "Unexpected error while completing connection" << *this << result;
        return false;
    }
}

unsigned TCPSocketData::send(const void* data, unsigned size)
{
    if (!isValid() || size == 0)
        return 0;
    // MSG_NOSIGNAL: a peer that is gone is a result here, never a SIGPIPE
    // that ends the process.
    const ssize_t sent = ::send(socket(), data, size, MSG_NOSIGNAL);
    if (sent > 0)
        return unsigned(sent);
    if (sent == 0) {
        setLastError(eTCPErrorClosed);
        BTRACE(TraceVerbose) << "Error sending data over socket" << *this << "nothing taken" << eTCPErrorClosed;
        return 0;
    }
    const int error = errno;
    const TCPErrorTable::Effect effect = TCPErrorTable::send(error);
    if (effect.fatal) {
        BTRACE(TraceAlways) << "Error sending data over socket" << *this << TraceErrorCode(error) << effect.error;
        disable(effect.error);
    } else {
        BTRACE(TraceVerbose) << "Error sending data over socket" << *this << TraceErrorCode(error) << effect.error;
        setLastError(effect.error);
    }
    return 0;
}

unsigned TCPSocketData::recv(void* data, unsigned size)
{
    if (!isValid() || size == 0)
        return 0;
    const ssize_t received = ::recv(socket(), data, size, 0);
    if (received > 0)
        return unsigned(received);
    if (received == 0) {
        setLastError(eTCPErrorClosed);
        BTRACE(TraceNormal) << "End of stream" << *this;
        return 0;
    }
    const int error = errno;
    const TCPErrorTable::Effect effect = TCPErrorTable::recv(error);
    if (effect.error == eTCPErrorWouldBlock) {
        setLastError(effect.error);
        BTRACE(TraceDebug) << "Would block" << *this;
        return 0;
    }
    if (effect.fatal) {
        BTRACE(TraceAlways) << "Error receiving data over socket" << *this << TraceErrorCode(error) << effect.error;
        disable(effect.error);
    } else {
        BTRACE(TraceNormal) << "Error receiving data over socket" << *this << TraceErrorCode(error) << effect.error;
        setLastError(effect.error);
    }
    return 0;
}

bool TCPSocketData::shutdown(TCPShutdownType type)
{
    int how;
    switch (type) {
    case eTCPShutdownReceive:
        how = SHUT_RD;
        break;
    case eTCPShutdownSend:
        how = SHUT_WR;
        break;
    case eTCPShutdownBoth:
        how = SHUT_RDWR;
        break;
    default:
        return true;
    }
    if (!isValid())
        return false;
    if (::shutdown(socket(), how) != 0) {
        const int error = errno;
        const TCPError result = TCPErrorTable::shutdown(error);
        BTRACE(TraceAlways) << "Failed to shutdown socket" << *this << type << TraceErrorCode(error) << result;
        disable(result);
        return false;
    }
    BTRACE(TraceVerbose) << "Shutdown" << *this << type;
    return true;
}

unsigned TCPSocketData::getBufferSize(int option, const char* failure)
{
    if (socket() < 0) {
        BTRACE(TraceAlways) << "The socket is closed" << *this;
        setLastError(eTCPErrorSocketInvalid);
        return 0;
    }
    int value = 0;
    socklen_t length = sizeof value;
    if (getsockopt(socket(), SOL_SOCKET, option, &value, &length) != 0) {
        const int error = errno;
        setLastError(TCPErrorTable::option(error));
        BTRACE(TraceAlways) << failure << *this << TraceErrorCode(error) << lastError();
        return 0;
    }
    return value > 0 ? unsigned(value) : 0;
}

bool TCPSocketData::setBufferSize(int option, unsigned size, const char* failure)
{
    if (size < 1024) {
        BTRACE(TraceAlways) << "Invalid argument, mst be at least 1024" << *this << size;
        setLastError(eTCPErrorInvalidArgument);
        return false;
    }
    if (socket() < 0) {
        BTRACE(TraceAlways) << "The socket is closed" << *this;
        setLastError(eTCPErrorSocketInvalid);
        return false;
    }
    const int value = size > unsigned(INT_MAX) ? INT_MAX : int(size);
    if (setsockopt(socket(), SOL_SOCKET, option, &value, sizeof value) != 0) {
        const int error = errno;
        setLastError(TCPErrorTable::option(error));
        BTRACE(TraceAlways) << failure << *this << size << TraceErrorCode(error) << lastError();
        return false;
    }
    return true;
}

unsigned TCPSocketData::getSendBufferSize() { return getBufferSize(SO_SNDBUF, "Failed to get send buffer size"); }

unsigned TCPSocketData::getRecvBufferSize() { return getBufferSize(SO_RCVBUF, "Failed to get receive buffer size"); }

bool TCPSocketData::setSendBufferSize(unsigned size)
{
    return setBufferSize(SO_SNDBUF, size, "Failed to set send buffer size");
}

bool TCPSocketData::setRecvBufferSize(unsigned size)
{
    return setBufferSize(SO_RCVBUF, size, "Failed to set receive buffer size");
}

quint32 TCPSocketData::toHostUint32(quint32 value) { return ntohl(value); }

quint32 TCPSocketData::fromHostUint32(quint32 value) { return htonl(value); }

} // namespace Brevi
