// Data sockets on loopback: the discipline every socket gets, adopting a
// handle, connecting (in progress, timed out, refused, to addresses that
// cannot be used), moving bytes, peers that end or reset the stream,
// shutdown, and the buffer size rules.

#include "sockets/tcpsocketdata.h"

#include "socketstest.h"

#include <cstring>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

using namespace Brevi;
using namespace BreviTest;

TEST_F(SocketTest, EverySocketGetsTheDiscipline)
{
    Link link = makeLink();
    ASSERT_TRUE(link.server);
    for (const TCPSocket* socket :
         std::initializer_list<const TCPSocket*>{link.listener.get(), link.client.get(), link.server.get()}) {
        SCOPED_TRACE(socket->name().toStdString());
        const int handle = socket->socket();
        EXPECT_TRUE(fcntl(handle, F_GETFL) & O_NONBLOCK);
        EXPECT_TRUE(fcntl(handle, F_GETFD) & FD_CLOEXEC);
        int noDelay = 0;
        linger abortive = {0, 99};
        socklen_t length = sizeof noDelay;
        getsockopt(handle, IPPROTO_TCP, TCP_NODELAY, &noDelay, &length);
        length = sizeof abortive;
        getsockopt(handle, SOL_SOCKET, SO_LINGER, &abortive, &length);
        EXPECT_EQ(noDelay, 1);
        EXPECT_EQ(abortive.l_onoff, 1);
        EXPECT_EQ(abortive.l_linger, 0);
    }
    // Bound to the any-address, the client names its real end once connected.
    EXPECT_TRUE(link.client->localAddress() == QHostAddress::LocalHost);
    EXPECT_EQ(link.server->remoteAddress().getAddressString(), link.client->localAddress().getAddressString());
    EXPECT_TRUE(traces([&] { BREVI_TRACE(TraceModuleTcpSocket, TraceAlways) << *link.client; }, TraceAlways,
                       QStringLiteral("'Client' %1 valid").arg(link.client->socket())));
}

TEST_F(SocketTest, ConnectInProgressThenComplete)
{
    TCPSocketListen listener("Listen", NetAddress(QHostAddress::LocalHost, 0), 5);
    TCPSocketData client("Client", listener.localAddress());
    ASSERT_TRUE(isUsable(client));
    if (!client.connected()) {
        EXPECT_EQ(client.lastError(), eTCPErrorWouldBlock);
        EXPECT_TRUE(client.localAddress() == QHostAddress::LocalHost) << "the way out is known from the start";
        EXPECT_TRUE(traces([&] { EXPECT_TRUE(client.complete(5000)); }, TraceNormal, "connected"));
    }
    EXPECT_EQ(client.lastError(), eTCPErrorNone);
    boost::shared_ptr<TCPSocketData> server = listener.accept("Server", 5000);
    ASSERT_TRUE(server);
    // Accepted sockets are connected from the start.
    EXPECT_TRUE(traces([&] { EXPECT_TRUE(server->complete(0)); }, TraceVerbose, "Already connected"));
}

TEST_F(SocketTest, CompleteTimesOutAndCanBeCalledAgain)
{
    // With a queue of none, the system takes one connection and drops the
    // handshakes of the next, which stay under way.
    TCPSocketListen listener("Listen", NetAddress(QHostAddress::LocalHost, 0), 0);
    TCPSocketData first("First", listener.localAddress());
    ASSERT_TRUE(first.complete(5000));
    std::unique_ptr<TCPSocketData> waiting;
    for (int i = 0; i < 4 && !waiting; ++i) {
        waiting.reset(new TCPSocketData("Next", listener.localAddress()));
        if (waiting->complete(300) || waiting->lastError() != eTCPErrorTimeout)
            waiting.reset();
    }
    ASSERT_TRUE(waiting) << "no connect stayed under way";
    const long long start = monotonicMs();
    EXPECT_TRUE(
        traces([&] { EXPECT_FALSE(waiting->complete(150)); }, TraceNormal, "Timeout while completing connection"));
    EXPECT_GE(monotonicMs() - start, 140);
    EXPECT_EQ(waiting->lastError(), eTCPErrorTimeout);
    EXPECT_TRUE(isUsable(*waiting));
    EXPECT_FALSE(waiting->complete(0));
}

TEST_F(SocketTest, RefusedConnect)
{
    TCPSocketData client("Client", refusingPort());
    // Refused at once (disabled), or when completing (still valid: the
    // caller decides about retrying).
    if (client) {
        EXPECT_TRUE(
            traces([&] { EXPECT_FALSE(client.complete(5000)); }, TraceAlways, "Completion of connection failed"));
        EXPECT_TRUE(isUsable(client));
        // The system has closed the connection: shutting it down fails.
        EXPECT_TRUE(
            traces([&] { EXPECT_FALSE(client.shutdown(eTCPShutdownBoth)); }, TraceAlways, "Failed to shutdown socket"));
        EXPECT_FALSE(client);
        EXPECT_EQ(client.lastError(), eTCPErrorSocketInvalid);
    } else {
        EXPECT_EQ(client.lastError(), eTCPErrorConnectionRefused);
    }
}

TEST_F(SocketTest, AddressesThatCannotBeUsed)
{
    // No name lookup in the text form, no IPv6, no null address.
    for (const char* text : {"no.such.host 80", "::1 80", ""}) {
        SCOPED_TRACE(text);
        std::unique_ptr<TCPSocketData> client;
        EXPECT_TRUE(traces([&] { client.reset(new TCPSocketData("Client", NetAddress(QString::fromLatin1(text)))); },
                           TraceAlways, "Invalid address for data socket"));
        EXPECT_FALSE(*client);
        EXPECT_EQ(client->lastError(), eTCPErrorInvalidArgument);
        EXPECT_TRUE(traces([&] { EXPECT_FALSE(client->complete(1000)); }, TraceNormal, "Invalid socket"));
        EXPECT_EQ(client->socketError(), eTCPErrorDisabled);
        EXPECT_NE(client->socket(), -1) << "disabled, open until closed";
        EXPECT_TRUE(traces([&] { client->close(); }, TraceNormal, "==================== CLOSE SOCKET"));
        EXPECT_EQ(client->socket(), -1);
        EXPECT_EQ(client->lastError(), eTCPErrorInvalidArgument) << "close keeps the last error";
    }
    // A null local address creates nothing, and the set-up finds no handle.
    TCPSocketData unbound("Unbound", NetAddress(QStringLiteral("127.0.0.1 1")), NetAddress());
    EXPECT_EQ(unbound.socket(), -1);
    EXPECT_EQ(unbound.lastError(), eTCPErrorSocketInvalid);
    TCPSocketData empty("Empty");
    char byte = 0;
    EXPECT_EQ(empty.recv(&byte, 1), 0u);
    EXPECT_FALSE(empty.shutdown(eTCPShutdownSend));
    EXPECT_TRUE(empty.shutdown(TCPShutdownType(0))) << "an unknown type does nothing";
    EXPECT_TRUE(traces([&] { EXPECT_EQ(empty.getSendBufferSize(), 0u); }, TraceAlways, "The socket is closed"));
}

TEST_F(SocketTest, AdoptedHandleIsTakenOver)
{
    TCPSocketListen listener("Listen", NetAddress(QHostAddress::LocalHost, 0), 5);
    TCPSocketData client("Client", listener.localAddress());
    ASSERT_TRUE(client.complete(5000) && readable(listener.socket(), 5000));
    int handle = ::accept(listener.socket(), nullptr, nullptr);
    const int original = handle;
    TCPSocketData server("Server", handle);
    EXPECT_EQ(handle, -1);
    EXPECT_EQ(server.socket(), original);
    EXPECT_TRUE(server.connected());
    EXPECT_EQ(server.remoteAddress().getPort(), client.localAddress().getPort());
    EXPECT_TRUE(fcntl(original, F_GETFL) & O_NONBLOCK);

    int loose = ::socket(AF_INET, SOCK_STREAM, 0);
    std::unique_ptr<TCPSocketData> stray;
    EXPECT_TRUE(traces([&] { stray.reset(new TCPSocketData("Stray", loose)); }, TraceAlways,
                       "Failed to get remote socket address"));
    EXPECT_FALSE(*stray);
    EXPECT_FALSE(stray->connected());
}

TEST_F(SocketTest, BytesTravelUntilTheBufferIsFull)
{
    Link link = makeLink();
    ASSERT_TRUE(link.server);
    char buffer[8];
    EXPECT_TRUE(traces([&] { EXPECT_EQ(link.server->recv(buffer, 8), 0u); }, TraceDebug, "Would block"));
    EXPECT_EQ(link.server->lastError(), eTCPErrorWouldBlock);
    EXPECT_EQ(link.client->send(buffer, 0), 0u) << "nothing is sent, and no end read, for nothing";
    EXPECT_EQ(link.client->recv(buffer, 0), 0u);

    const QByteArray chunk(65536, 'x');
    unsigned taken = 0;
    for (unsigned sent = 1; sent && taken < 1u << 30;)
        taken += sent = link.client->send(chunk.constData(), unsigned(chunk.size()));
    EXPECT_EQ(link.client->lastError(), eTCPErrorWouldBlock);
    EXPECT_TRUE(isUsable(*link.client));

    QByteArray received;
    QByteArray part(65536, '\0');
    while (unsigned(received.size()) < taken && readable(link.server->socket(), 5000)) {
        const unsigned n = link.server->recv(part.data(), unsigned(part.size()));
        ASSERT_GT(n, 0u);
        received += part.left(int(n));
    }
    EXPECT_EQ(received, QByteArray(int(taken), 'x'));
    EXPECT_EQ(link.client->send("y", 1), 1u) << "room again once the peer read";
}

// A reset from the peer disables a socket that sends, and only ends the
// stream of one that receives.
TEST_F(SocketTest, PeerResetDisablesASenderAndClosesAReceiver)
{
    Link sender = makeLink();
    Link receiver = makeLink();
    ASSERT_TRUE(sender.server && receiver.server);
    sender.server->close(); // abortive: the client receives a reset
    receiver.server->close();
    ASSERT_TRUE(readable(sender.client->socket(), 5000) && readable(receiver.client->socket(), 5000));

    EXPECT_TRUE(
        traces([&] { EXPECT_EQ(sender.client->send("z", 1), 0u); }, TraceAlways, "Error sending data over socket"));
    EXPECT_FALSE(*sender.client);
    EXPECT_EQ(sender.client->lastError(), eTCPErrorClosed);
    EXPECT_EQ(sender.client->send("z", 1), 0u);
    EXPECT_EQ(sender.client->socketError(), eTCPErrorDisabled);

    char buffer[16];
    EXPECT_TRUE(traces([&] { EXPECT_EQ(receiver.client->recv(buffer, 16), 0u); }, TraceNormal,
                       "Error receiving data over socket"));
    EXPECT_EQ(receiver.client->lastError(), eTCPErrorClosed);
    EXPECT_TRUE(isUsable(*receiver.client));
    EXPECT_EQ(receiver.client->recv(buffer, 16), 0u);
    EXPECT_EQ(receiver.client->lastError(), eTCPErrorClosed) << "then the stream reads as ended";
}

TEST_F(SocketTest, EndOfStreamAndHalfClose)
{
    Link link = makeLink();
    ASSERT_TRUE(link.server);
    EXPECT_EQ(link.server->send("last", 4), 4u);
    EXPECT_TRUE(link.server->shutdown(eTCPShutdownSend));
    char buffer[16];
    ASSERT_TRUE(readable(link.client->socket(), 5000));
    EXPECT_EQ(link.client->recv(buffer, 16), 4u);
    ASSERT_TRUE(readable(link.client->socket(), 5000));
    EXPECT_EQ(link.client->recv(buffer, 16), 0u);
    EXPECT_EQ(link.client->lastError(), eTCPErrorClosed);
    EXPECT_TRUE(isUsable(*link.client));
    EXPECT_EQ(link.client->send("more", 4), 4u) << "the other direction still carries";
    ASSERT_TRUE(readable(link.server->socket(), 5000));
    EXPECT_EQ(link.server->recv(buffer, 16), 4u);
}

TEST_F(SocketTest, BufferSizeRules)
{
    Link link = makeLink();
    ASSERT_TRUE(link.server);
    TCPSocketData& socket = *link.client;
    ASSERT_TRUE(socket.setSendBufferSize(0x20000) && socket.setRecvBufferSize(0x20000));
    const unsigned size = socket.getSendBufferSize();
    EXPECT_GE(size, 0x20000u);
    EXPECT_GE(socket.getRecvBufferSize(), 0x20000u);
    EXPECT_TRUE(traces([&] { EXPECT_FALSE(socket.setSendBufferSize(1023)); }, TraceAlways,
                       "Invalid argument, mst be at least 1024"));
    EXPECT_EQ(socket.lastError(), eTCPErrorInvalidArgument);
    EXPECT_EQ(socket.getSendBufferSize(), size) << "a refused size leaves the size";
    EXPECT_TRUE(socket.setSendBufferSize(1024));
    EXPECT_LT(socket.getSendBufferSize(), size);

    socket.disable(eTCPErrorUnknown);
    EXPECT_GT(socket.getRecvBufferSize(), 0u) << "a disabled socket keeps its handle and options";
    socket.close();
    EXPECT_FALSE(socket.setRecvBufferSize(4096));
    EXPECT_EQ(socket.lastError(), eTCPErrorSocketInvalid);
    const quint32 network = TCPSocketData::fromHostUint32(0x01020304u);
    EXPECT_EQ(std::memcmp(&network, "\x01\x02\x03\x04", 4), 0);
    EXPECT_EQ(TCPSocketData::toHostUint32(network), 0x01020304u);
}
