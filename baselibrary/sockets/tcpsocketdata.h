#ifndef BASELIBRARY_SOCKETS_TCPSOCKETDATA_H
#define BASELIBRARY_SOCKETS_TCPSOCKETDATA_H

#include "brevi_export.h"
#include "sockets/netaddress.h"
#include "sockets/tcperror.h"
#include "sockets/tcpsocket.h"

#include <QString>
#include <QtGlobal>

namespace Brevi {

// A connected TCP stream: non-blocking connect, send and receive.
//
// Every operation returns at once. A connect is begun by the constructor (or
// `initialize`) and usually ends later: wait for it with `complete`, or with
// a TCPSocketSelect on the socket for writing and then `complete(0)`. Data
// moves with `send` and `recv`, which move what they can and tell how much;
// when they move nothing, `lastError` says why.
//
//     TCPSocketData link("IPC", NetAddress(QHostAddress::LocalHost, 30303));
//     if (!link.complete(30000))
//         ... link.lastError(): eTCPErrorTimeout, eTCPErrorConnectionRefused, ...
//     unsigned sent = link.send(bytes, size);   // may be fewer than size
//
// Two kinds of failure (see TCPErrorTable for the full tables):
// - soft: `lastError` is set and the socket stays usable. eTCPErrorWouldBlock
//   (wait for readiness and call again), eTCPErrorInterrupted,
//   eTCPErrorNoBuffers, and eTCPErrorClosed from recv (the peer ended or
//   reset the stream: nothing more will come);
// - fatal: the socket is disabled with the error in `lastError` and every
//   later operation fails at once. A reset met while sending is fatal.
//
// Threads: one thread at a time; the sending and receiving owners of one
// link share it through boost::shared_ptr on the same thread.
class BREVI_EXPORT TCPSocketData : public TCPSocket
{
public:
    // No handle: not valid, and `initialize` does nothing on it.
    explicit TCPSocketData(const QString& name);
    // Adopts a handle that accept gave, which is connected already; the
    // variable is set to -1. If the peer's address cannot be read, "Failed to
    // get remote socket address" is traced and the socket is disabled.
    TCPSocketData(const QString& name, int& handle);
    // Creates a socket bound to the any-address, port 0, and begins to
    // connect to `remote`.
    TCPSocketData(const QString& name, const NetAddress& remote);
    // The same, bound to `local` first.
    TCPSocketData(const QString& name, const NetAddress& remote, const NetAddress& local);
    ~TCPSocketData() override;

    // Begins to connect to `remote`; for the constructors that take a remote
    // address, which call it. Nothing happens on a socket that is not valid.
    // True when the connect is done or under way: `connected()` true and
    // `lastError` eTCPErrorNone, or `lastError` eTCPErrorWouldBlock (the usual
    // case; finish with `complete`). False when the socket was disabled:
    // eTCPErrorInvalidArgument for an address that is not IPv4 ("Invalid
    // address for data socket"), else the system's reason ("Failed to
    // connect"), e.g. eTCPErrorConnectionRefused.
    bool initialize(const NetAddress& remote);

    // Waits up to `ms` milliseconds (negative: no limit, 0: only look) for a
    // connect under way to end. True when connected (at once if it already
    // was). False otherwise, with the socket still valid so that the caller
    // can decide about retrying: `lastError` eTCPErrorTimeout, or
    // eTCPErrorInterrupted, or the reason the connect failed
    // (eTCPErrorConnectionRefused...). False with nothing changed on a
    // socket that is not valid ("Invalid socket").
    bool complete(qint64 ms);
    bool connected() const { return mbConnected; }

    // Writes up to `size` bytes and returns how many were taken, possibly
    // fewer. 0 when nothing was: `lastError` tells why (a soft
    // eTCPErrorWouldBlock when the system's buffer is full; eTCPErrorClosed
    // when the peer reset the link, which disables the socket). 0 with
    // nothing changed for a socket that is not valid, and for size 0. Never
    // raises SIGPIPE.
    unsigned send(const void* data, unsigned size);
    // Reads up to `size` bytes and returns how many came. 0 when none did:
    // `lastError` eTCPErrorWouldBlock (nothing there yet), eTCPErrorClosed
    // (the peer ended or reset the stream; the socket stays valid), or a
    // fatal error. 0 with nothing changed for a socket that is not valid, and
    // for size 0.
    unsigned recv(void* data, unsigned size);

    // Stops receiving, sending or both. Another type does nothing and
    // returns true. False for a socket that is not valid, and when the system
    // refuses ("Failed to shutdown socket"), which disables the socket.
    bool shutdown(TCPShutdownType type);

    // The peer: the address given to `initialize`, or the one an adopted
    // connection came from.
    const NetAddress& remoteAddress() const { return moRemoteAddress; }

    // The system's buffer sizes, as the system reports them (Linux counts its
    // bookkeeping and reports about twice the size that was set). 0 on
    // failure, with `lastError` set; "The socket is closed" when there is no
    // handle.
    unsigned getSendBufferSize();
    unsigned getRecvBufferSize();
    // Sets the buffer size; at least 1024 ("Invalid argument, mst be at least
    // 1024" and eTCPErrorInvalidArgument otherwise, leaving the size). False
    // on failure, with `lastError` set. These work on a disabled socket too,
    // as long as it has a handle.
    bool setSendBufferSize(unsigned size);
    bool setRecvBufferSize(unsigned size);

    // Network to host order, and host to network order, of 32 bits.
    static quint32 toHostUint32(quint32 value);
    static quint32 fromHostUint32(quint32 value);

private:
    unsigned getBufferSize(int option, const char* failure);
    bool setBufferSize(int option, unsigned size, const char* failure);
    void connectedNow();

    NetAddress moRemoteAddress;
    bool mbConnected = false;
};

} // namespace Brevi

#endif
