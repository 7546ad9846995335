#include "sockets/tcpsocket.h"

#include "core/trace.h"
#include "core/traceerrorcode.h"
#include "sockets/tcperrortable.h"

#include <cerrno>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleTcpSocket;
} // namespace

TCPSocket::TCPSocket(const QString& name)
    : msName(name)
{}

TCPSocket::TCPSocket(const QString& name, const NetAddress& local)
    : msName(name)
{
    createAndBind(local, false);
    initialize();
}

TCPSocket::TCPSocket(const QString& name, const NetAddress& local, bool reuse)
    : msName(name)
{
    createAndBind(local, reuse);
    initialize();
}

TCPSocket::TCPSocket(const QString& name, int& handle)
    : msName(name)
    , miSocket(handle)
{
    handle = -1;
    initialize();
}

TCPSocket::~TCPSocket() { close(); }

void TCPSocket::createAndBind(const NetAddress& local, bool reuse)
{
    BTRACE(TraceDebug) << "IN:createAndBind" << msName << local;
    if (!local.valid()) {
        meLastError = eTCPErrorInvalidArgument;
        BTRACE(TraceAlways) << "Failed to create socket" << msName << "on a null address";
        return;
    }
    const int family = local.protocol() == QAbstractSocket::IPv4Protocol ? AF_INET : AF_INET6;
    miSocket = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    if (miSocket < 0) {
        const int error = errno;
        meLastError = TCPErrorTable::general(error);
        BTRACE(TraceAlways) << "Failed to create socket" << msName << TraceErrorCode(error);
        miSocket = -1;
        return;
    }
    if (reuse && local.getPort() != 0) {
        const int on = 1;
        if (setsockopt(miSocket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0)
            BTRACE(TraceNormal) << "Failed to set address reuse for socket" << msName << TraceErrorCode(errno);
    }
    sockaddr_storage address = {};
    if (!local.getAddress(reinterpret_cast<sockaddr&>(address))) {
        // Binding is over IPv4 only; anything else is the caller's mistake.
        meLastError = eTCPErrorInvalidArgument;
        BTRACE(TraceAlways) << "Failed to bind socket" << msName << local << "is no IPv4 address";
        close();
        return;
    }
    if (::bind(miSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(sockaddr_in)) != 0) {
        const int error = errno;
        meLastError = TCPErrorTable::bind(error);
        BTRACE(TraceAlways) << "Failed to bind socket" << msName << local << TraceErrorCode(error) << meLastError;
        close();
        return;
    }
    BTRACE(TraceDebug) << "OUT:createAndBind ," << msName << miSocket;
}

void TCPSocket::initialize()
{
    // Every path of construction ends here, so that no socket escapes the
    // discipline, adopted ones included.
    if (miSocket < 0) {
        meLastError = eTCPErrorSocketInvalid;
        return;
    }
    const int flags = fcntl(miSocket, F_GETFL);
    if (flags < 0 || fcntl(miSocket, F_SETFL, flags | O_NONBLOCK) != 0)
        BTRACE(TraceAlways) << "Failed to set socket non-blocking" << msName << TraceErrorCode(errno);
    // An adopted handle may come from a call that did not ask for it.
    if (fcntl(miSocket, F_SETFD, FD_CLOEXEC) != 0)
        BTRACE(TraceAlways) << "Failed to set close on exec for socket" << msName << TraceErrorCode(errno);

    // Abortive close: a link that is given up is gone at once, with no unsent
    // data kept around and no lingering state that holds the port.
    const linger noLinger = {1, 0};
    if (setsockopt(miSocket, SOL_SOCKET, SO_LINGER, &noLinger, sizeof noLinger) != 0)
        BTRACE(TraceAlways) << "Failed to set no linger for socket" << msName << TraceErrorCode(errno);

    if (!refreshLocalAddress()) {
        const int error = errno;
        meLastError = TCPErrorTable::general(error);
        BTRACE(TraceAlways) << "Failed to get local socket address" << msName << TraceErrorCode(error);
        return;
    }
    mbValid = true;

    // Messages are small and answered: they must leave at once, not wait for
    // the acknowledgement of the previous one.
    int value = 1;
    BTRACE(TraceDebug) << "Set TCP_NODELAY" << msName;
    if (setsockopt(miSocket, IPPROTO_TCP, TCP_NODELAY, &value, sizeof value) != 0) {
        const int error = errno;
        meLastError = TCPErrorTable::option(error);
        BTRACE(TraceAlways) << "Failed to set TCP_NODELAY" << msName << TraceErrorCode(error);
    }
    value = 0;
    socklen_t length = sizeof value;
    if (getsockopt(miSocket, IPPROTO_TCP, TCP_NODELAY, &value, &length) != 0) {
        const int error = errno;
        meLastError = TCPErrorTable::option(error);
        BTRACE(TraceAlways) << "Failed to get TCP_NODELAY value" << msName << TraceErrorCode(error);
    } else {
        BTRACE(TraceDebug) << "TCP_NODELAY" << value;
    }
    BTRACE(TraceVerbose) << "Socket" << msName << miSocket << "on" << moLocalAddress;
}

bool TCPSocket::refreshLocalAddress()
{
    sockaddr_storage address = {};
    socklen_t length = sizeof address;
    if (getsockname(miSocket, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return false;
    moLocalAddress.setAddress(reinterpret_cast<const sockaddr&>(address));
    return true;
}

void TCPSocket::close()
{
    if (miSocket < 0)
        return;
    BTRACE(TraceNormal) << "==================== CLOSE SOCKET" << miSocket << "====================";
    // No retry on EINTR: the descriptor is released whatever close says.
    ::close(miSocket);
    miSocket = -1;
    mbValid = false;
}

void TCPSocket::disable(TCPError error)
{
    if (!mbValid)
        return;
    BTRACE(TraceNormal) << "Disable socket" << msName << miSocket << error;
    mbValid = false;
    meLastError = error;
}

TCPError TCPSocket::socketError() const
{
    if (!mbValid)
        return eTCPErrorDisabled;
    int value = 0;
    socklen_t length = sizeof value;
    if (getsockopt(miSocket, SOL_SOCKET, SO_ERROR, &value, &length) != 0)
        value = errno;
    if (value == 0)
        return eTCPErrorNone;
    const TCPError error = TCPErrorTable::general(value);
    BTRACE(TraceNormal) << "Socket has error" << msName << TraceErrorCode(value) << error;
    return error;
}

Trace& operator<<(Trace& trace, const TCPSocket& socket)
{
    return trace << socket.name() << socket.socket() << (socket.isValid() ? "valid" : "invalid");
}

} // namespace Brevi
