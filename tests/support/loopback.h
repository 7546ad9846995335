#ifndef TESTS_SUPPORT_LOOPBACK_H
#define TESTS_SUPPORT_LOOPBACK_H

#include "sockets/tcpsocketdata.h"
#include "sockets/tcpsocketlisten.h"

#include <boost/shared_ptr.hpp>

namespace BreviTest {

// A listener on a loopback port the system chose, a client connected to it
// and the server's end, made with bounded waits. False when any of them is
// not usable.
struct LoopbackLink {
    boost::shared_ptr<Brevi::TCPSocketListen> listener;
    boost::shared_ptr<Brevi::TCPSocketData> client;
    boost::shared_ptr<Brevi::TCPSocketData> server;
    explicit operator bool() const { return client && server && *client && *server; }
};
LoopbackLink makeLoopbackLink(int waitMs = 5000);

} // namespace BreviTest

#endif
