// Listen sockets on loopback: accept without waiting, with a deadline and
// without limit; a listener that cannot bind; a port taken again while its
// connections live; a peer that gives up before it is accepted; a process
// out of descriptors.

#include "sockets/tcpsocketlisten.h"

#include "socketstest.h"

#include <unistd.h>

using namespace Brevi;
using namespace BreviTest;

TEST_F(SocketTest, AcceptWithoutWaitingGivesNullAndAValidListener)
{
    TCPSocketListen listener("Listen", NetAddress(QHostAddress::LocalHost, 0), 5);
    ASSERT_TRUE(isUsable(listener));
    EXPECT_NE(listener.localAddress().getPort(), 0u) << "port 0 chose a port";
    const long long start = monotonicMs();
    EXPECT_FALSE(listener.accept("Server", 0));
    EXPECT_LT(monotonicMs() - start, 1000);
    EXPECT_TRUE(isUsable(listener));
    EXPECT_EQ(listener.lastError(), eTCPErrorWouldBlock);

    TCPSocketData client("Client", listener.localAddress());
    ASSERT_TRUE(client.complete(5000));
    ASSERT_TRUE(readable(listener.socket(), 5000));
    boost::shared_ptr<TCPSocketData> server = listener.accept("Server", 0);
    ASSERT_TRUE(server);
    EXPECT_EQ(server->name(), QStringLiteral("Server"));
    EXPECT_TRUE(server->connected());
}

TEST_F(SocketTest, AcceptDeadlinePassesWithoutClient)
{
    TCPSocketListen listener("Listen", NetAddress(QHostAddress::LocalHost, 0), 5);
    const long long start = monotonicMs();
    EXPECT_TRUE(traces([&] { EXPECT_FALSE(listener.accept("Server", 200)); }, TraceNormal, "wait failed"));
    const long long elapsed = monotonicMs() - start;
    EXPECT_GE(elapsed, 190);
    EXPECT_LT(elapsed, 3000);
    EXPECT_EQ(listener.lastError(), eTCPErrorTimeout);
    EXPECT_TRUE(isUsable(listener));
}

TEST_F(SocketTest, AcceptDeadlineTakesAClient)
{
    TCPSocketListen listener("Listen", NetAddress(QHostAddress::LocalHost, 0), 5);
    TCPSocketData client("Client", listener.localAddress());
    ASSERT_TRUE(isUsable(client));
    boost::shared_ptr<TCPSocketData> server;
    EXPECT_TRUE(traces([&] { server = listener.accept("Server", 5000); }, TraceNormal, "Accept succeeded"));
    ASSERT_TRUE(server);
    ASSERT_TRUE(client.complete(5000));
    EXPECT_EQ(server->remoteAddress().getAddressString(), client.localAddress().getAddressString());

    // Without limit, with a client already waiting.
    TCPSocketData second("Second", listener.localAddress());
    EXPECT_TRUE(listener.accept("Server2", -1));
}

TEST_F(SocketTest, PeerThatGaveUpDoesNotEndTheWait)
{
    TCPSocketListen listener("Listen", NetAddress(QHostAddress::LocalHost, 0), 5);
    {
        TCPSocketData quitter("Quitter", listener.localAddress());
        ASSERT_TRUE(quitter.complete(5000));
    } // closed abortively before it was accepted
    // Whatever the system makes of the reset connection, the listener goes on
    // and the next client gets through.
    boost::shared_ptr<TCPSocketData> first = listener.accept("First", 500);
    EXPECT_TRUE(isUsable(listener));
    TCPSocketData client("Client", listener.localAddress());
    ASSERT_TRUE(client.complete(5000));
    boost::shared_ptr<TCPSocketData> server = listener.accept("Server", 5000);
    if (server && first && server->remoteAddress().getPort() != client.localAddress().getPort())
        server = listener.accept("Server", 5000);
    ASSERT_TRUE(server);
    EXPECT_EQ(server->remoteAddress().getPort(), client.localAddress().getPort());
}

TEST_F(SocketTest, PortInUseIsRefused)
{
    TCPSocketListen first("First", NetAddress(QHostAddress::LocalHost, 0), 5);
    ASSERT_TRUE(isUsable(first));
    std::unique_ptr<TCPSocketListen> second;
    EXPECT_TRUE(traces([&] { second.reset(new TCPSocketListen("Second", first.localAddress(), 5)); }, TraceAlways,
                       "Failed to bind socket"));
    EXPECT_FALSE(*second);
    EXPECT_EQ(second->socket(), -1);
    EXPECT_EQ(second->lastError(), eTCPErrorSocketInvalid);
    EXPECT_FALSE(second->accept("Server", 100)) << "an invalid listener gives null at once";
    EXPECT_TRUE(isUsable(first));
}

TEST_F(SocketTest, PortTakenAgainWhileItsConnectionsLive)
{
    std::unique_ptr<TCPSocketListen> listener(new TCPSocketListen("Listen", NetAddress(QHostAddress::LocalHost, 0), 5));
    const NetAddress where = listener->localAddress();
    TCPSocketData client("Client", where);
    boost::shared_ptr<TCPSocketData> server = listener->accept("Server", 5000);
    ASSERT_TRUE(server);
    listener.reset();

    // A listener that restarts gets its fixed port back.
    TCPSocketListen again("Again", where, 5);
    ASSERT_TRUE(isUsable(again));
    EXPECT_EQ(again.localAddress().getPort(), where.getPort());
    TCPSocketData next("Next", where);
    EXPECT_TRUE(again.accept("Server2", 5000));
    EXPECT_EQ(server->send("x", 1), 1u) << "the old connection is untouched";
}

TEST_F(SocketTest, OutOfDescriptorsDisablesTheListener)
{
    TCPSocketListen listener("Listen", NetAddress(QHostAddress::LocalHost, 0), 5);
    // Once through the paths of accept while descriptors are plentiful: the
    // sanitizers' runtime needs some the first time it checks a call.
    EXPECT_FALSE(listener.accept("Server", 0));
    TCPSocketData client("Client", listener.localAddress());
    ASSERT_TRUE(client.complete(5000));
    ASSERT_TRUE(readable(listener.socket(), 5000));
    // No descriptor can be made above the lowest free one.
    const int lowest = dup(0);
    ASSERT_GE(lowest, 0);
    ::close(lowest);
    boost::shared_ptr<TCPSocketData> server;
    const TracePosition start(true);
    {
        FileLimit limit((unsigned long)(lowest));
        ASSERT_TRUE(limit.ok());
        server = listener.accept("Server", 1000);
    }
    EXPECT_TRUE(tracedSince(start, TraceAlways, "accept returned"));
    EXPECT_FALSE(server);
    EXPECT_FALSE(listener);
    EXPECT_EQ(listener.lastError(), eTCPErrorTooManyFiles);
    EXPECT_FALSE(listener.accept("Server", 0));
}
