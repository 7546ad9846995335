#ifndef BASELIBRARY_SOCKETS_TCPSOCKET_H
#define BASELIBRARY_SOCKETS_TCPSOCKET_H

#include "brevi_export.h"
#include "core/operatorboolgenerator.h"
#include "sockets/netaddress.h"
#include "sockets/tcperror.h"

#include <QString>

namespace Brevi {

class Trace;

// The base of every socket of the system: it owns one handle and fixes the
// discipline all sockets share. Every socket is non-blocking (no call waits;
// TCPSocketSelect and TCPSocketPoll do the waiting), closes abortively (close
// discards unsent data and resets the connection instead of lingering), has
// Nagle's algorithm off (small packets leave at once), and is closed on exec
// (a child started by the process does not inherit the Hub link).
//
// TCPSocket is not used by itself: TCPSocketData and TCPSocketListen derive
// from it, and its constructors are for them.
//
// Failure: constructors never throw. A socket that could not be set up has
// `valid` false and a `lastError`, and tests false under `if (socket)`. An
// operation that meets a fatal error disables the socket (`disable`): it stays
// open but every later operation fails at once; `close` then frees the
// handle. Which errors are fatal is in TCPErrorTable.
//
// Threads: one thread at a time; nothing is locked. The send and receive
// sides of one connection are shared between their owners through
// boost::shared_ptr, and both run on the owning context's thread.
class BREVI_EXPORT TCPSocket
{
public:
    // Closes the handle.
    virtual ~TCPSocket();
    TCPSocket(const TCPSocket&) = delete;
    TCPSocket& operator=(const TCPSocket&) = delete;

    // Closes the handle if there is one and leaves the socket invalid;
    // `lastError` stays as it was. Safe to call again.
    void close();
    // Marks the socket unusable with `error` as its `lastError`, if it is
    // valid; the handle stays open until `close`. Operations that find a
    // fatal error call this; an owner may too (a link it gives up on).
    void disable(TCPError error);
    // The error pending on the socket (SO_ERROR, which reading clears):
    // eTCPErrorNone when there is none, eTCPErrorDisabled for a socket that
    // is not valid. This is how the outcome of a connect is learnt.
    TCPError socketError() const;

    // The name given by the owner; only for tracing.
    const QString& name() const { return msName; }
    // The system's descriptor, -1 when there is none.
    int socket() const { return miSocket; }
    // The result of the last failed operation (or eTCPErrorNone after a
    // connect completed).
    TCPError lastError() const { return meLastError; }
    // The address the socket is bound to; for a data socket, from the start
    // of its connect, the interface and port the connection leaves from.
    const NetAddress& localAddress() const { return moLocalAddress; }

    // True from a successful set-up until `close` or `disable`.
    bool isValid() const { return mbValid; }
    operator OperatorBoolGenerator<TCPSocket>::Result() const
    {
        return OperatorBoolGenerator<TCPSocket>::make(mbValid);
    }

protected:
    // No handle; not valid.
    explicit TCPSocket(const QString& name);
    // Creates a socket of the family of `local` and binds it there (port 0:
    // any free port, which `localAddress` then tells). A null address creates
    // nothing. On any failure the socket is not valid and `lastError` is
    // eTCPErrorSocketInvalid; the cause is traced ("Failed to create socket",
    // "Failed to bind socket").
    TCPSocket(const QString& name, const NetAddress& local);
    // As above; with `reuse`, the port may be taken while connections of an
    // earlier owner of it still linger in the system (a listener that
    // restarts on its fixed port). A port someone listens on is still refused.
    TCPSocket(const QString& name, const NetAddress& local, bool reuse);
    // Adopts `handle` (one that accept gave); the variable is set to -1, so
    // the handle has one owner.
    TCPSocket(const QString& name, int& handle);

    // Sets up the handle the socket holds: non-blocking, abortive close, no
    // Nagle, close on exec, then reads the local address. Valid on success.
    void initialize();
    // Reads the local address again (after a connect it names the real
    // interface and port); false, with nothing changed, if the system fails.
    bool refreshLocalAddress();
    void setLastError(TCPError error) { meLastError = error; }

private:
    void createAndBind(const NetAddress& local, bool reuse);

    QString msName;
    int miSocket = -1;
    TCPError meLastError = eTCPErrorNone;
    bool mbValid = false;
    NetAddress moLocalAddress;
};

// The name, the handle and "valid" or "invalid".
BREVI_EXPORT Trace& operator<<(Trace& trace, const TCPSocket& socket);

} // namespace Brevi

#endif
