#ifndef BASELIBRARY_SOCKETS_TCPSOCKETLISTEN_H
#define BASELIBRARY_SOCKETS_TCPSOCKETLISTEN_H

#include "brevi_export.h"
#include "sockets/netaddress.h"
#include "sockets/tcpsocket.h"
#include "sockets/tcpsocketpoll.h"

#include <QString>
#include <QtGlobal>

#include <boost/shared_ptr.hpp>

namespace Brevi {

class TCPSocketData;

// A listening socket that accepts TCPSocketData connections.
//
//     TCPSocketListen listener("Listen", NetAddress(QHostAddress::LocalHost, 0), 5);
//     NetAddress where = listener.localAddress();   // the port chosen
//     boost::shared_ptr<TCPSocketData> link = listener.accept("Recv", 5000);
//
// Bound at construction, to port 0 for any free port (localAddress then tells
// which). A fixed port can be taken again at once after its previous owner
// closed, even while connections of that owner linger in the system; a port
// that someone listens on is refused.
//
// Failure: a listener that could not bind ("Failed to bind socket") or listen
// ("Failed to listen on socket") is not valid, with `lastError` set, and
// `accept` gives null at once.
//
// Threads: one thread at a time.
class BREVI_EXPORT TCPSocketListen : public TCPSocket
{
public:
    // Binds to `local` and listens with a queue of `backlog` connections.
    TCPSocketListen(const QString& name, const NetAddress& local, unsigned backlog);

    // Takes a waiting connection as a connected TCPSocketData called `name`,
    // waiting up to `ms` milliseconds for one:
    // - 0: only takes one that is waiting; null with `lastError`
    //   eTCPErrorWouldBlock if none is;
    // - positive: waits until one comes or the time is up (eTCPErrorTimeout).
    //   A connection that its peer gave up before it was taken does not end
    //   the wait;
    // - negative: waits without limit, then takes one.
    // Null when nothing was accepted: the listener's `lastError` says why
    // (eTCPErrorTimeout, eTCPErrorInterrupted, or a fatal error that disabled
    // the listener, such as eTCPErrorTooManyFiles when the process is out of
    // descriptors).
    boost::shared_ptr<TCPSocketData> accept(const QString& name, qint64 ms);

private:
    // One accept call. Sets `accepted` when it produced a usable socket;
    // returns true when the wait should go on (nothing was waiting).
    bool doAccept(const QString& name, boost::shared_ptr<TCPSocketData>& accepted);

    TCPSocketPoll moPoll;
};

} // namespace Brevi

#endif
