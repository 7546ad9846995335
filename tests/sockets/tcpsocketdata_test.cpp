// Data sockets on loopback: the discipline every socket gets, adopting a
// handle, connecting (at once, in progress, timed out, refused, to an address
// that cannot be used), moving bytes, a peer that ends or resets the stream,
// shutdown, and the buffer size rules.

#include "sockets/tcpsocketdata.h"

#include "socketstest.h"

#include <QByteArray>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Brevi;
using namespace BreviTest;

namespace {

int intOption(int handle, int level, int option)
{
    int value = -1;
    socklen_t length = sizeof value;
    getsockopt(handle, level, option, &value, &length);
    return value;
}

// Sends until the system takes no more; returns the bytes taken.
unsigned fill(TCPSocketData& socket)
{
    static const QByteArray chunk(65536, 'x');
    unsigned total = 0;
    for (int i = 0; i < 10000; ++i) {
        const unsigned sent = socket.send(chunk.constData(), unsigned(chunk.size()));
        if (!sent)
            break;
        total += sent;
    }
    return total;
}

} // namespace

TEST_F(SocketTest, EverySocketIsNonBlockingAbortiveUndelayedAndClosedOnExec)
{
    Link link = makeLink();
    ASSERT_TRUE(link.server);
    for (const TCPSocket* socket :
         {static_cast<const TCPSocket*>(link.listener.get()), static_cast<const TCPSocket*>(link.client.get()),
          static_cast<const TCPSocket*>(link.server.get())}) {
        SCOPED_TRACE(socket->name().toStdString());
        const int handle = socket->socket();
        EXPECT_TRUE(fcntl(handle, F_GETFL) & O_NONBLOCK);
        EXPECT_TRUE(fcntl(handle, F_GETFD) & FD_CLOEXEC);
        EXPECT_EQ(intOption(handle, IPPROTO_TCP, TCP_NODELAY), 1);
        linger value = {0, 99};
        socklen_t length = sizeof value;
        ASSERT_EQ(getsockopt(handle, SOL_SOCKET, SO_LINGER, &value, &length), 0);
        EXPECT_EQ(value.l_onoff, 1);
        EXPECT_EQ(value.l_linger, 0);
    }
}

TEST_F(SocketTest, ConnectedEndsKnowEachOther)
{
    Link link = makeLink();
    ASSERT_TRUE(link.server);
    EXPECT_TRUE(link.client->connected());
    EXPECT_TRUE(link.server->connected());
    EXPECT_EQ(link.client->lastError(), eTCPErrorNone);
    // The client was bound to the any-address; once connected it tells the
    // interface and port its connection leaves from.
    EXPECT_TRUE(link.client->localAddress() == QHostAddress::LocalHost);
    EXPECT_NE(link.client->localAddress().getPort(), 0u);
    EXPECT_EQ(link.server->remoteAddress().getAddressString(), link.client->localAddress().getAddressString());
    EXPECT_EQ(link.client->remoteAddress().getAddressString(), link.listener->localAddress().getAddressString());
    EXPECT_EQ(link.server->localAddress().getPort(), link.listener->localAddress().getPort());

    // An accepted socket is connected from the start: complete needs no wait.
    EXPECT_TRUE(traces([&] { EXPECT_TRUE(link.server->complete(0)); }, TraceVerbose, "Already connected"));
    EXPECT_TRUE(traces([&] { BREVI_TRACE(TraceModuleTcpSocket, TraceAlways) << *link.client; }, TraceAlways,
                       QStringLiteral("'Client' %1 valid").arg(link.client->socket())));
}

TEST_F(SocketTest, ConnectInProgressThenComplete)
{
    TCPSocketListen listener("Listen", NetAddress(QHostAddress::LocalHost, 0), 5);
    ASSERT_TRUE(isUsable(listener));
    TCPSocketData client("Client", listener.localAddress());
    ASSERT_TRUE(isUsable(client));
    if (!client.connected()) {
        EXPECT_EQ(client.lastError(), eTCPErrorWouldBlock);
        EXPECT_TRUE(traces([&] { EXPECT_TRUE(client.complete(5000)); }, TraceNormal, "connected"));
    }
    EXPECT_TRUE(client.connected());
    EXPECT_EQ(client.lastError(), eTCPErrorNone);
    EXPECT_TRUE(listener.accept("Server", 5000));
}

TEST_F(SocketTest, CompleteTimesOutAndCanBeCalledAgain)
{
    // With a queue of none, the system takes one connection and drops the
    // handshakes of the next ones, which then stay under way.
    TCPSocketListen listener("Listen", NetAddress(QHostAddress::LocalHost, 0), 0);
    ASSERT_TRUE(isUsable(listener));
    TCPSocketData first("First", listener.localAddress());
    ASSERT_TRUE(first.complete(5000));
    std::unique_ptr<TCPSocketData> waiting;
    for (int i = 0; i < 4 && !waiting; ++i) {
        std::unique_ptr<TCPSocketData> next(
            new TCPSocketData(QStringLiteral("Next%1").arg(i), listener.localAddress()));
        if (!next->complete(300) && next->lastError() == eTCPErrorTimeout)
            waiting = std::move(next);
    }
    ASSERT_TRUE(waiting) << "no connect stayed under way";
    const long long start = monotonicMs();
    EXPECT_TRUE(
        traces([&] { EXPECT_FALSE(waiting->complete(150)); }, TraceNormal, "Timeout while completing connection"));
    EXPECT_GE(monotonicMs() - start, 140);
    EXPECT_EQ(waiting->lastError(), eTCPErrorTimeout);
    EXPECT_TRUE(isUsable(*waiting));
    EXPECT_FALSE(waiting->connected());
    EXPECT_FALSE(waiting->complete(0));
    EXPECT_EQ(waiting->lastError(), eTCPErrorTimeout);
}

TEST_F(SocketTest, RefusedConnectIsReported)
{
    RefusingPort port;
    ASSERT_TRUE(port.address());
    TCPSocketData client("Client", port.address());
    // The refusal comes either at once (the socket is disabled) or from the
    // completion (the socket stays valid for the caller to decide).
    if (client) {
        EXPECT_TRUE(
            traces([&] { EXPECT_FALSE(client.complete(5000)); }, TraceAlways, "Completion of connection failed"));
        EXPECT_TRUE(isUsable(client));
        EXPECT_FALSE(client.connected());
        // The refused socket is closed by the system: shutting it down fails.
        EXPECT_TRUE(
            traces([&] { EXPECT_FALSE(client.shutdown(eTCPShutdownBoth)); }, TraceAlways, "Failed to shutdown socket"));
        EXPECT_FALSE(client);
        EXPECT_EQ(client.lastError(), eTCPErrorSocketInvalid);
    } else {
        EXPECT_EQ(client.lastError(), eTCPErrorConnectionRefused);
    }
    char byte = 0;
    EXPECT_EQ(client.send(&byte, 1), 0u);
}

TEST_F(SocketTest, AddressesThatCannotBeConnectedTo)
{
    // Names are not looked up by the text form, IPv6 is not connected to,
    // and the null address is nothing.
    for (const char* text : {"no.such.host 80", "::1 80", ""}) {
        SCOPED_TRACE(text);
        std::unique_ptr<TCPSocketData> client;
        EXPECT_TRUE(traces([&] { client.reset(new TCPSocketData("Client", NetAddress(QString::fromLatin1(text)))); },
                           TraceAlways, "Invalid address for data socket"));
        EXPECT_FALSE(*client);
        EXPECT_NE(client->socket(), -1) << "disabled, still open until closed";
        EXPECT_EQ(client->lastError(), eTCPErrorInvalidArgument);
        EXPECT_TRUE(traces([&] { EXPECT_FALSE(client->complete(1000)); }, TraceNormal, "Invalid socket"));
        EXPECT_EQ(client->socketError(), eTCPErrorDisabled);
        EXPECT_TRUE(traces([&] { client->close(); }, TraceNormal, "==================== CLOSE SOCKET"));
        EXPECT_EQ(client->socket(), -1);
        EXPECT_EQ(client->lastError(), eTCPErrorInvalidArgument) << "close keeps the last error";
    }
}

TEST_F(SocketTest, SocketsThatNeverGotAHandle)
{
    // A null local address creates nothing; the set-up then finds no handle.
    TCPSocketData unbound("Unbound", NetAddress(QStringLiteral("127.0.0.1 1")), NetAddress());
    EXPECT_FALSE(unbound);
    EXPECT_EQ(unbound.socket(), -1);
    EXPECT_EQ(unbound.lastError(), eTCPErrorSocketInvalid);

    TCPSocketData empty("Empty");
    EXPECT_FALSE(empty);
    EXPECT_FALSE(empty.initialize(NetAddress(QStringLiteral("127.0.0.1 1"))));
    EXPECT_EQ(empty.socketError(), eTCPErrorDisabled);
    char buffer[4];
    EXPECT_EQ(empty.recv(buffer, sizeof buffer), 0u);
    EXPECT_FALSE(empty.shutdown(eTCPShutdownSend));
    EXPECT_TRUE(empty.shutdown(TCPShutdownType(0))) << "an unknown type does nothing";
    EXPECT_TRUE(traces([&] { EXPECT_EQ(empty.getSendBufferSize(), 0u); }, TraceAlways, "The socket is closed"));
    EXPECT_FALSE(empty.setRecvBufferSize(4096));
    EXPECT_EQ(empty.lastError(), eTCPErrorSocketInvalid);

    int none = -1;
    TCPSocketData adopted("Adopted", none);
    EXPECT_FALSE(adopted);
    EXPECT_EQ(adopted.lastError(), eTCPErrorSocketInvalid);
}

TEST_F(SocketTest, AdoptedHandleIsTakenOver)
{
    TCPSocketListen listener("Listen", NetAddress(QHostAddress::LocalHost, 0), 5);
    TCPSocketData client("Client", listener.localAddress());
    ASSERT_TRUE(client.complete(5000));
    ASSERT_TRUE(readable(listener.socket(), 5000));
    int handle = ::accept(listener.socket(), nullptr, nullptr);
    ASSERT_GE(handle, 0);
    const int original = handle;
    TCPSocketData server("Server", handle);
    EXPECT_EQ(handle, -1);
    EXPECT_EQ(server.socket(), original);
    EXPECT_TRUE(isUsable(server));
    EXPECT_TRUE(server.connected());
    EXPECT_EQ(server.remoteAddress().getPort(), client.localAddress().getPort());
    EXPECT_TRUE(fcntl(original, F_GETFL) & O_NONBLOCK) << "adopted sockets get the discipline too";
    EXPECT_TRUE(fcntl(original, F_GETFD) & FD_CLOEXEC);

    // A socket that is no connection has no peer to name.
    int loose = ::socket(AF_INET, SOCK_STREAM, 0);
    std::unique_ptr<TCPSocketData> stray;
    EXPECT_TRUE(traces([&] { stray.reset(new TCPSocketData("Stray", loose)); }, TraceAlways,
                       "Failed to get remote socket address"));
    EXPECT_FALSE(*stray);
    EXPECT_FALSE(stray->connected());
    EXPECT_EQ(stray->lastError(), eTCPErrorUnknown);
}

TEST_F(SocketTest, BytesTravelBothWays)
{
    Link link = makeLink();
    ASSERT_TRUE(link.server);
    char buffer[64];
    EXPECT_TRUE(traces([&] { EXPECT_EQ(link.server->recv(buffer, sizeof buffer), 0u); }, TraceDebug, "Would block"));
    EXPECT_EQ(link.server->lastError(), eTCPErrorWouldBlock);
    EXPECT_TRUE(isUsable(*link.server));

    EXPECT_EQ(link.client->send("hello", 5), 5u);
    ASSERT_TRUE(readable(link.server->socket(), 5000));
    ASSERT_EQ(link.server->recv(buffer, sizeof buffer), 5u);
    EXPECT_EQ(std::memcmp(buffer, "hello", 5), 0);
    EXPECT_EQ(link.server->send("back", 4), 4u);
    ASSERT_TRUE(readable(link.client->socket(), 5000));
    EXPECT_EQ(link.client->recv(buffer, 2), 2u) << "a short buffer takes part";
    EXPECT_EQ(link.client->recv(buffer + 2, 10), 2u);
    EXPECT_EQ(std::memcmp(buffer, "back", 4), 0);

    // Nothing happens for nothing: no end of stream is read into it.
    EXPECT_EQ(link.client->send(buffer, 0), 0u);
    EXPECT_EQ(link.client->recv(buffer, 0), 0u);
    EXPECT_TRUE(isUsable(*link.client));
}

TEST_F(SocketTest, FullSendBufferWouldBlockAndDrains)
{
    Link link = makeLink();
    ASSERT_TRUE(link.server);
    const unsigned taken = fill(*link.client);
    EXPECT_GT(taken, 0u);
    EXPECT_EQ(link.client->lastError(), eTCPErrorWouldBlock);
    EXPECT_TRUE(isUsable(*link.client));

    // Everything taken arrives, in order.
    QByteArray buffer(65536, '\0');
    unsigned received = 0;
    while (received < taken && readable(link.server->socket(), 5000)) {
        const unsigned n = link.server->recv(buffer.data(), unsigned(buffer.size()));
        if (!n)
            break;
        ASSERT_EQ(buffer.left(int(n)), QByteArray(int(n), 'x'));
        received += n;
    }
    EXPECT_EQ(received, taken);
    EXPECT_GT(link.client->send("y", 1), 0u) << "room again once the peer read";
}

TEST_F(SocketTest, PeerResetWhileSendingDisables)
{
    Link link = makeLink();
    ASSERT_TRUE(link.server);
    // The server's close is abortive: the client receives a reset.
    link.server->close();
    ASSERT_TRUE(readable(link.client->socket(), 5000));
    char byte = 'z';
    EXPECT_TRUE(
        traces([&] { EXPECT_EQ(link.client->send(&byte, 1), 0u); }, TraceAlways, "Error sending data over socket"));
    EXPECT_FALSE(*link.client);
    EXPECT_EQ(link.client->lastError(), eTCPErrorClosed);
    EXPECT_NE(link.client->socket(), -1);
    // Disabled: every later operation fails at once.
    EXPECT_EQ(link.client->send(&byte, 1), 0u);
    EXPECT_EQ(link.client->recv(&byte, 1), 0u);
    EXPECT_EQ(link.client->socketError(), eTCPErrorDisabled);
    EXPECT_EQ(link.client->lastError(), eTCPErrorClosed);
}

TEST_F(SocketTest, PeerResetWhileReceivingOnlyCloses)
{
    Link link = makeLink();
    ASSERT_TRUE(link.server);
    link.server->close();
    ASSERT_TRUE(readable(link.client->socket(), 5000));
    char buffer[16];
    EXPECT_TRUE(traces([&] { EXPECT_EQ(link.client->recv(buffer, sizeof buffer), 0u); }, TraceNormal,
                       "Error receiving data over socket"));
    EXPECT_EQ(link.client->lastError(), eTCPErrorClosed);
    EXPECT_TRUE(isUsable(*link.client));
    // After the reset has been told, the stream reads as ended.
    EXPECT_EQ(link.client->recv(buffer, sizeof buffer), 0u);
    EXPECT_EQ(link.client->lastError(), eTCPErrorClosed);
}

TEST_F(SocketTest, OrderlyEndOfStreamAndHalfClose)
{
    Link link = makeLink();
    ASSERT_TRUE(link.server);
    EXPECT_EQ(link.server->send("last", 4), 4u);
    EXPECT_TRUE(link.server->shutdown(eTCPShutdownSend));
    EXPECT_TRUE(link.server->shutdown(TCPShutdownType(7))) << "an unknown type does nothing";

    char buffer[16];
    ASSERT_TRUE(readable(link.client->socket(), 5000));
    EXPECT_EQ(link.client->recv(buffer, sizeof buffer), 4u);
    ASSERT_TRUE(readable(link.client->socket(), 5000));
    EXPECT_EQ(link.client->recv(buffer, sizeof buffer), 0u);
    EXPECT_EQ(link.client->lastError(), eTCPErrorClosed);
    EXPECT_TRUE(isUsable(*link.client));

    // The other direction still carries.
    EXPECT_EQ(link.client->send("more", 4), 4u);
    ASSERT_TRUE(readable(link.server->socket(), 5000));
    EXPECT_EQ(link.server->recv(buffer, sizeof buffer), 4u);
}

TEST_F(SocketTest, BufferSizeRules)
{
    Link link = makeLink();
    ASSERT_TRUE(link.server);
    TCPSocketData& socket = *link.client;
    ASSERT_TRUE(socket.setSendBufferSize(0x20000));
    ASSERT_TRUE(socket.setRecvBufferSize(0x20000));
    const unsigned send = socket.getSendBufferSize();
    const unsigned recv = socket.getRecvBufferSize();
    EXPECT_GE(send, 0x20000u);
    EXPECT_GE(recv, 0x20000u);

    EXPECT_TRUE(traces([&] { EXPECT_FALSE(socket.setSendBufferSize(1023)); }, TraceAlways,
                       "Invalid argument, mst be at least 1024"));
    EXPECT_EQ(socket.lastError(), eTCPErrorInvalidArgument);
    EXPECT_FALSE(socket.setRecvBufferSize(0));
    EXPECT_EQ(socket.getSendBufferSize(), send) << "a refused size leaves the size";
    EXPECT_EQ(socket.getRecvBufferSize(), recv);
    EXPECT_TRUE(socket.setSendBufferSize(1024));
    EXPECT_LT(socket.getSendBufferSize(), send);
    EXPECT_TRUE(isUsable(socket));

    // A disabled socket still has its handle and its options.
    socket.disable(eTCPErrorUnknown);
    EXPECT_GT(socket.getRecvBufferSize(), 0u);
    socket.close();
    EXPECT_EQ(socket.getRecvBufferSize(), 0u);
    EXPECT_EQ(socket.lastError(), eTCPErrorSocketInvalid);
}

TEST(TCPSocketDataOrder, HostAndNetworkOrder)
{
    const quint32 network = TCPSocketData::fromHostUint32(0x01020304u);
    unsigned char bytes[4];
    std::memcpy(bytes, &network, 4);
    EXPECT_EQ(bytes[0], 0x01);
    EXPECT_EQ(bytes[3], 0x04);
    EXPECT_EQ(TCPSocketData::toHostUint32(network), 0x01020304u);
}
