// Listen sockets on loopback: accept without waiting, with a deadline and
// without limit; a port in use; a port taken again while its connections
// live; a peer that gives up first; a process out of descriptors.

#include "sockets/tcpsocketlisten.h"

#include "socketstest.h"

#include <unistd.h>

using namespace Brevi;
using namespace BreviTest;

TEST_F(SocketTest, AcceptNowWithADeadlineAndWithoutLimit)
{
    TCPSocketListen listener("Listen", NetAddress(QHostAddress::LocalHost, 0), 5);
    ASSERT_TRUE(isUsable(listener));
    EXPECT_NE(listener.localAddress().getPort(), 0u) << "port 0 chose a port";
    EXPECT_FALSE(listener.accept("Server", 0));
    EXPECT_EQ(listener.lastError(), eTCPErrorWouldBlock);
    EXPECT_TRUE(isUsable(listener));

    long long start = monotonicMs();
    EXPECT_TRUE(traces([&] { EXPECT_FALSE(listener.accept("Server", 200)); }, TraceNormal, "wait failed"));
    EXPECT_GE(monotonicMs() - start, 190);
    EXPECT_EQ(listener.lastError(), eTCPErrorTimeout);
    EXPECT_TRUE(isUsable(listener));

    TCPSocketData client("Client", listener.localAddress());
    boost::shared_ptr<TCPSocketData> server;
    EXPECT_TRUE(traces([&] { server = listener.accept("Server", 5000); }, TraceNormal, "Accept succeeded"));
    ASSERT_TRUE(server);
    ASSERT_TRUE(client.complete(5000));
    EXPECT_EQ(server->name(), QStringLiteral("Server"));
    EXPECT_EQ(server->remoteAddress().getAddressString(), client.localAddress().getAddressString());

    TCPSocketData second("Second", listener.localAddress());
    ASSERT_TRUE(second.complete(5000) && readable(listener.socket(), 5000));
    EXPECT_TRUE(listener.accept("Now", 0));
    TCPSocketData third("Third", listener.localAddress());
    EXPECT_TRUE(listener.accept("Unlimited", -1));
}

TEST_F(SocketTest, PeerThatGaveUpDoesNotStopTheListener)
{
    TCPSocketListen listener("Listen", NetAddress(QHostAddress::LocalHost, 0), 5);
    {
        TCPSocketData quitter("Quitter", listener.localAddress());
        ASSERT_TRUE(quitter.complete(5000));
    } // reset before it was accepted
    const boost::shared_ptr<TCPSocketData> early = listener.accept("Early", 500);
    EXPECT_TRUE(isUsable(listener));
    TCPSocketData client("Client", listener.localAddress());
    ASSERT_TRUE(client.complete(5000));
    boost::shared_ptr<TCPSocketData> server = listener.accept("Server", 5000);
    if (server && early && server->remoteAddress().getPort() != client.localAddress().getPort())
        server = listener.accept("Server", 5000);
    ASSERT_TRUE(server);
    EXPECT_EQ(server->remoteAddress().getPort(), client.localAddress().getPort());
}

TEST_F(SocketTest, PortInUseAndPortTakenAgain)
{
    std::unique_ptr<TCPSocketListen> first(new TCPSocketListen("First", NetAddress(QHostAddress::LocalHost, 0), 5));
    const NetAddress where = first->localAddress();
    std::unique_ptr<TCPSocketListen> second;
    EXPECT_TRUE(
        traces([&] { second.reset(new TCPSocketListen("Second", where, 5)); }, TraceAlways, "Failed to bind socket"));
    EXPECT_EQ(second->socket(), -1);
    EXPECT_EQ(second->lastError(), eTCPErrorSocketInvalid);
    EXPECT_FALSE(second->accept("Server", 1000)) << "null at once";

    // A listener that restarts gets its port back while its connections live.
    TCPSocketData client("Client", where);
    boost::shared_ptr<TCPSocketData> server = first->accept("Server", 5000);
    ASSERT_TRUE(server);
    first.reset();
    TCPSocketListen again("Again", where, 5);
    ASSERT_TRUE(isUsable(again));
    TCPSocketData next("Next", where);
    EXPECT_TRUE(again.accept("Server2", 5000));
    EXPECT_EQ(server->send("x", 1), 1u) << "the old connection is untouched";
}

TEST_F(SocketTest, OutOfDescriptorsDisablesTheListener)
{
    TCPSocketListen listener("Listen", NetAddress(QHostAddress::LocalHost, 0), 5);
    // Through accept's paths once while descriptors are plentiful: the
    // sanitizers' runtime needs some the first time it checks a call.
    EXPECT_FALSE(listener.accept("Server", 0));
    TCPSocketData client("Client", listener.localAddress());
    ASSERT_TRUE(client.complete(5000) && readable(listener.socket(), 5000));
    const int lowest = dup(0);
    ::close(lowest);
    boost::shared_ptr<TCPSocketData> server;
    TraceReader trace;
    {
        FileLimit limit((unsigned long)(lowest)); // no descriptor can be made
        ASSERT_TRUE(limit.ok());
        server = listener.accept("Server", 1000);
    }
    EXPECT_TRUE(trace.saw("accept returned", TraceAlways));
    EXPECT_FALSE(server);
    EXPECT_FALSE(listener);
    EXPECT_EQ(listener.lastError(), eTCPErrorTooManyFiles);
}
