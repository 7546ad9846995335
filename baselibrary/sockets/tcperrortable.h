#ifndef BASELIBRARY_SOCKETS_TCPERRORTABLE_H
#define BASELIBRARY_SOCKETS_TCPERRORTABLE_H

#include "brevi_export.h"
#include "sockets/tcperror.h"

namespace Brevi {

// What a system error (errno) means to a socket: the TCPError it is reported
// as, and whether it is soft or fatal.
//
// A soft error only sets the socket's `lastError` and leaves it usable: the
// caller waits for readiness, or looks at the result, and goes on. A fatal
// error also disables the socket (TCPSocket::disable): every later operation
// on it fails at once until it is closed.
//
// The tables differ by operation on purpose. A reset met while sending is
// fatal (what was sent is lost), met while receiving it is only the end of
// the stream; the catch-all of a send is eTCPErrorUnknown, that of a receive
// eTCPErrorInternal. Several errno values stand for one meaning: EBADF beside
// ENOTSOCK, ENOMEM beside ENOBUFS, EPIPE beside ECONNRESET, EWOULDBLOCK beside
// EAGAIN, ENFILE beside EMFILE.
//
//   errno            general     option      connect    send          recv          accept
//   EFAULT           Internal    Internal    Internal   fatal Intern. fatal Intern. fatal Internal
//   EALREADY/EISCONN Connected   Unknown     Connected  fatal Unkn.   fatal Intern. fatal Unknown
//   ENOTSOCK/EBADF   SockInval.  SockInval.  SockInval. fatal SockIn. fatal SockIn. fatal SocketInvalid
//   EADDRINUSE       LocAddrUse  Unknown     LocAddrUse fatal Unkn.   fatal Intern. fatal Unknown
//   EADDRNOTAVAIL    Unreachable Unknown     Unreachab. fatal Unkn.   fatal Intern. fatal Unreachable
//   ENOBUFS/ENOMEM   Resource    Unknown     Resource   soft NoBuf.   soft NoBuf.   fatal Resource
//   ECONNREFUSED     ConnRefused Unknown     ConnRefus. fatal Unkn.   fatal Intern. fatal Unknown
//   ENOPROTOOPT      Unknown     Unavailable Unknown    fatal Unkn.   fatal Intern. fatal Unreachable
//   EAFNOSUPPORT     Unknown     Unknown     InvalidArg fatal Unkn.   fatal Intern. fatal Unknown
//   ETIMEDOUT        Unknown     Unknown     Timeout    fatal Unkn.   fatal Intern. fatal Unknown
//   EINTR            Unknown     Unknown     Unknown    soft Interr.  soft Interr.  fatal Interrupted
//   EAGAIN           Unknown     Unknown     under way  soft WouldBl. soft WouldBl. (try again)
//   ENOTCONN         Unknown     Unknown     Unknown    fatal SockIn. fatal SockIn. fatal Unknown
//   ECONNRESET/EPIPE Unknown     Unknown     Unknown    fatal Closed  soft Closed   fatal Unknown
//   EINVAL           Unknown     Unknown     Unknown    fatal Unkn.   fatal Intern. fatal SocketInvalid
//   EMFILE/ENFILE    Unknown     Unknown     Unknown    fatal Unkn.   fatal Intern. fatal TooManyFiles
//   EOPNOTSUPP       Unknown     Unknown     Unknown    fatal Unkn.   fatal Intern. fatal Unreachable
//   ENETDOWN         Unknown     Unknown     Unknown    fatal Unkn.   fatal Intern. fatal Unreachable
//   ECONNABORTED,
//   EPROTO           Unknown     Unknown     Unknown    fatal Unkn.   fatal Intern. (try again)
//   any other        Unknown     Unknown     Unknown    fatal Unkn.   fatal Intern. fatal Unknown
//
// "general" serves getsockname, SO_ERROR (TCPSocket::socketError) and the
// result of a connect that completed later; "option" serves getsockopt and
// setsockopt. A connect that is under way (EINPROGRESS, EAGAIN) is no error.
// An accept that finds a connection already aborted by its peer (ECONNABORTED,
// EPROTO) goes on waiting, as it does when the queue is empty: the peer's
// trouble is no fault of the listener.
//
// Pure functions of their argument: callable from any thread.
class BREVI_EXPORT TCPErrorTable
{
public:
    // A system error with its meaning for one operation.
    struct Effect {
        TCPError error;
        bool fatal;
    };

    // getsockname, SO_ERROR, and connect errors found after the fact.
    static TCPError general(int error);
    // getsockopt and setsockopt.
    static TCPError option(int error);
    // An immediate connect failure; always fatal. Not for EINPROGRESS/EAGAIN.
    static TCPError connect(int error);
    // bind: EACCES gives eTCPErrorNotAllowed, EINVAL eTCPErrorAlreadyBound,
    // ENOTSOCK/EBADF eTCPErrorSocketInvalid, others eTCPErrorUnknown.
    static TCPError bind(int error);
    // listen: ENOTSOCK/EBADF/EOPNOTSUPP eTCPErrorSocketInvalid, EADDRINUSE
    // eTCPErrorLocalAddressInUse, others eTCPErrorUnknown.
    static TCPError listen(int error);
    // getpeername of an adopted socket: EFAULT eTCPErrorInternal,
    // ENOTSOCK/EBADF eTCPErrorSocketInvalid, ENOBUFS/ENOMEM eTCPErrorResource,
    // others eTCPErrorUnknown.
    static TCPError peerName(int error);
    // shutdown: ENOTSOCK/EBADF/ENOTCONN eTCPErrorSocketInvalid, others
    // eTCPErrorUnknown.
    static TCPError shutdown(int error);
    static Effect send(int error);
    static Effect recv(int error);
    // For EAGAIN, ECONNABORTED and EPROTO: eTCPErrorWouldBlock, not fatal.
    static Effect accept(int error);
    // A failed wait (select or poll) whose cause is a passing shortage of
    // resources: EFAULT, EINVAL (more descriptors than the process may hold)
    // and ENOMEM. The waiter backs off and retries these.
    static bool waitResource(int error);
};

} // namespace Brevi

#endif
