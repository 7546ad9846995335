#include "sockets/tcperrortable.h"

#include <cerrno>

namespace Brevi {

TCPError TCPErrorTable::general(int error)
{
    switch (error) {
    case EFAULT:
        return eTCPErrorInternal;
    case EALREADY:
    case EISCONN:
        return eTCPErrorConnected;
    case ENOTSOCK:
    case EBADF:
        return eTCPErrorSocketInvalid;
    case EADDRINUSE:
        return eTCPErrorLocalAddressInUse;
    case EADDRNOTAVAIL:
        return eTCPErrorUnreachable;
    case ENOBUFS:
    case ENOMEM:
        return eTCPErrorResource;
    case ECONNREFUSED:
        return eTCPErrorConnectionRefused;
    default:
        return eTCPErrorUnknown;
    }
}

TCPError TCPErrorTable::option(int error)
{
    switch (error) {
    case EFAULT:
        return eTCPErrorInternal;
    case ENOTSOCK:
    case EBADF:
        return eTCPErrorSocketInvalid;
    case ENOPROTOOPT:
        return eTCPErrorUnavailable;
    default:
        return eTCPErrorUnknown;
    }
}

TCPError TCPErrorTable::connect(int error)
{
    switch (error) {
    case EAFNOSUPPORT:
        return eTCPErrorInvalidArgument;
    case ETIMEDOUT:
        return eTCPErrorTimeout;
    default:
        return general(error);
    }
}

TCPError TCPErrorTable::bind(int error)
{
    switch (error) {
    case EACCES:
        return eTCPErrorNotAllowed;
    case EINVAL:
        return eTCPErrorAlreadyBound;
    case ENOTSOCK:
    case EBADF:
        return eTCPErrorSocketInvalid;
    default:
        return eTCPErrorUnknown;
    }
}

TCPError TCPErrorTable::listen(int error)
{
    switch (error) {
    case ENOTSOCK:
    case EBADF:
    case EOPNOTSUPP:
        return eTCPErrorSocketInvalid;
    case EADDRINUSE:
        return eTCPErrorLocalAddressInUse;
    default:
        return eTCPErrorUnknown;
    }
}

TCPError TCPErrorTable::peerName(int error)
{
    switch (error) {
    case EFAULT:
        return eTCPErrorInternal;
    case ENOTSOCK:
    case EBADF:
        return eTCPErrorSocketInvalid;
    case ENOBUFS:
    case ENOMEM:
        return eTCPErrorResource;
    default:
        return eTCPErrorUnknown;
    }
}

TCPError TCPErrorTable::shutdown(int error)
{
    switch (error) {
    case ENOTSOCK:
    case EBADF:
    case ENOTCONN:
        return eTCPErrorSocketInvalid;
    default:
        return eTCPErrorUnknown;
    }
}

TCPErrorTable::Effect TCPErrorTable::send(int error)
{
    switch (error) {
    case EINTR:
        return {eTCPErrorInterrupted, false};
    case EAGAIN:
#if EWOULDBLOCK != EAGAIN
    case EWOULDBLOCK:
#endif
        return {eTCPErrorWouldBlock, false};
    case ENOBUFS:
    case ENOMEM:
        return {eTCPErrorNoBuffers, false};
    case EFAULT:
        return {eTCPErrorInternal, true};
    case ENOTSOCK:
    case EBADF:
    case ENOTCONN:
        return {eTCPErrorSocketInvalid, true};
    case ECONNRESET:
    case EPIPE:
        return {eTCPErrorClosed, true};
    default:
        return {eTCPErrorUnknown, true};
    }
}

TCPErrorTable::Effect TCPErrorTable::recv(int error)
{
    switch (error) {
    case EINTR:
        return {eTCPErrorInterrupted, false};
    case EAGAIN:
#if EWOULDBLOCK != EAGAIN
    case EWOULDBLOCK:
#endif
        return {eTCPErrorWouldBlock, false};
    case ECONNRESET:
    case EPIPE:
        return {eTCPErrorClosed, false};
    case ENOBUFS:
    case ENOMEM:
        return {eTCPErrorNoBuffers, false};
    case ENOTSOCK:
    case EBADF:
    case ENOTCONN:
        return {eTCPErrorSocketInvalid, true};
    default:
        return {eTCPErrorInternal, true};
    }
}

TCPErrorTable::Effect TCPErrorTable::accept(int error)
{
    switch (error) {
    case EAGAIN:
#if EWOULDBLOCK != EAGAIN
    case EWOULDBLOCK:
#endif
    // The peer gave up before we took its connection; the queue may hold more.
    case ECONNABORTED:
    case EPROTO:
        return {eTCPErrorWouldBlock, false};
    case EINTR:
        return {eTCPErrorInterrupted, true};
    case EFAULT:
        return {eTCPErrorInternal, true};
    case EINVAL:
    case ENOTSOCK:
    case EBADF:
        return {eTCPErrorSocketInvalid, true};
    case EMFILE:
    case ENFILE:
        return {eTCPErrorTooManyFiles, true};
    case ENOPROTOOPT:
    case EOPNOTSUPP:
    case EADDRNOTAVAIL:
    case ENETDOWN:
        return {eTCPErrorUnreachable, true};
    case ENOBUFS:
    case ENOMEM:
        return {eTCPErrorResource, true};
    default:
        return {eTCPErrorUnknown, true};
    }
}

bool TCPErrorTable::waitResource(int error) { return error == EFAULT || error == EINVAL || error == ENOMEM; }

} // namespace Brevi
