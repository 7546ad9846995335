#ifndef BENCH_SUPPORT_BENCHPEERS_H
#define BENCH_SUPPORT_BENCHPEERS_H

// What a benchmark of the Hub's path measures against, for the benchmarks of
// what goes through the Hub: the raw end of a link (a socket with the two
// packet machines), a relay process that only copies bytes between two
// connections, and a ZeroMQ proxy process (where the including benchmark
// defines HUB_BENCH_ZMQ and links libzmq).

#include "messaging/binaryaddress.h"
#include "messaging/ipcpacketlayout.h"
#include "messaging/ipcpacketreceive.h"
#include "messaging/ipcpacketsend.h"
#include "messaging/msgpacket.h"
#include "sockets/tcpsocketdata.h"
#include "sockets/tcpsocketlisten.h"
#include "sockets/tcpsocketselect.h"

#include <QByteArray>
#include <QList>

#include <boost/make_shared.hpp>

#include <cerrno>
#include <csignal>
#include <vector>

#ifdef HUB_BENCH_ZMQ
#include <zmq.h>
#endif

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace BreviBench {

using namespace Brevi;

// Every wait of an end, in milliseconds.
const int WaitMs = 5000;

// One end: a socket with the two packet machines, used blocking.
struct End {
    boost::shared_ptr<TCPSocketData> socket;
    IpcPacketSend sender;
    IpcPacketReceive receiver;
    TCPSocketSelect select;

    bool connect(unsigned port)
    {
        socket = boost::make_shared<TCPSocketData>("Bench", NetAddress(QHostAddress::LocalHost, port));
        if (!socket->isValid() || !socket->complete(WaitMs))
            return false;
        sender.setSocket(socket);
        receiver.setSocket(socket);
        receiver.setMaximumSize(IpcPacketLayout::EnabledMaximumSize);
        return true;
    }

    bool wait(TCPSocketSelect::TypeE type)
    {
        select.zero();
        select.set(*socket, type);
        return select.wait(WaitMs) == eTCPErrorNone;
    }

    bool send(const boost::shared_ptr<IpcPacket>& packet)
    {
        if (!sender.set(packet))
            return false;
        for (;;) {
            const IpcResult result = sender.send();
            if (result == eIpcResultOk)
                return true;
            if (result != eIpcResultAgain || !wait(TCPSocketSelect::Write))
                return false;
        }
    }

    boost::shared_ptr<IpcPacket> receive()
    {
        for (;;) {
            const IpcResult result = receiver.receive();
            if (result == eIpcResultOk)
                return receiver.get(0);
            if (result != eIpcResultAgain || !wait(TCPSocketSelect::Read))
                return boost::shared_ptr<IpcPacket>();
        }
    }
};

inline boost::shared_ptr<IpcPacket> message(const QByteArray& destination, const QByteArray& source,
                                            const QString& name, const XmlList& body = XmlList())
{
    return boost::make_shared<MsgPacket>(BinaryAddress(Extent(destination)), BinaryAddress(Extent(source)),
                                         QByteArray(), name, QString(), body, 0, false);
}

// The lower bound: a process that copies bytes between its two connections.
class RelayRun
{
public:
    RelayRun()
    {
        TCPSocketListen listener("Relay", NetAddress(QHostAddress::LocalHost, 0), 2);
        port = listener.localAddress().getPort();
        miPid = ::fork();
        if (miPid == 0)
            ::_exit(relay(listener));
    }
    ~RelayRun()
    {
        ::kill(miPid, SIGKILL);
        ::waitpid(miPid, nullptr, 0);
    }
    unsigned port = 0;
    pid_t pid() const { return miPid; }

private:
    static int relay(TCPSocketListen& listener)
    {
        boost::shared_ptr<TCPSocketData> a = listener.accept("A", -1);
        boost::shared_ptr<TCPSocketData> b = listener.accept("B", -1);
        if (!a || !b)
            return 1;
        std::vector<char> buffer(65536);
        pollfd fds[2] = {{a->socket(), POLLIN, 0}, {b->socket(), POLLIN, 0}};
        for (;;) {
            if (::poll(fds, 2, -1) < 0)
                return 1;
            for (int i = 0; i < 2; ++i) {
                if (!fds[i].revents)
                    continue;
                const ssize_t got = ::recv(fds[i].fd, buffer.data(), buffer.size(), 0);
                if (got <= 0 && errno != EAGAIN)
                    return 0;
                for (ssize_t done = 0; done < got;) {
                    const ssize_t sent = ::send(fds[1 - i].fd, buffer.data() + done, size_t(got - done), MSG_NOSIGNAL);
                    if (sent < 0 && errno != EAGAIN)
                        return 0;
                    if (sent < 0) {
                        pollfd out = {fds[1 - i].fd, POLLOUT, 0};
                        ::poll(&out, 1, -1);
                    } else {
                        done += sent;
                    }
                }
            }
        }
    }
    pid_t miPid = -1;
};

#ifdef HUB_BENCH_ZMQ
// The broker: a process that binds two sockets (a ROUTER and a DEALER unless
// told otherwise) on loopback ports of the system's choosing, tells them
// through a pipe, and runs zmq_proxy between them until it is killed. It is started before this process makes
// a ZeroMQ context of its own, so that nothing of one is copied by fork.
class ZmqBroker
{
public:
    explicit ZmqBroker(int frontType = ZMQ_ROUTER, int backType = ZMQ_DEALER)
    {
        int fds[2];
        if (::pipe(fds) != 0)
            return;
        miPid = ::fork();
        if (miPid == 0) {
            ::close(fds[0]);
            ::_exit(serve(fds[1], frontType, backType));
        }
        ::close(fds[1]);
        char text[256] = {};
        size_t got = 0;
        for (ssize_t n; got < sizeof(text) - 1 && (n = ::read(fds[0], text + got, sizeof(text) - 1 - got)) > 0;)
            got += size_t(n);
        ::close(fds[0]);
        const QList<QByteArray> endpoints = QByteArray(text, int(got)).split('\n');
        if (endpoints.size() >= 2) {
            frontend = endpoints[0];
            backend = endpoints[1];
        }
    }
    ~ZmqBroker()
    {
        if (miPid > 0) {
            ::kill(miPid, SIGKILL);
            ::waitpid(miPid, nullptr, 0);
        }
    }
    bool valid() const { return !frontend.isEmpty() && !backend.isEmpty(); }
    pid_t pid() const { return miPid; }

    QByteArray frontend;
    QByteArray backend;

private:
    static int serve(int report, int frontType, int backType)
    {
        void* context = zmq_ctx_new();
        void* front = zmq_socket(context, frontType);
        void* back = zmq_socket(context, backType);
        if (zmq_bind(front, "tcp://127.0.0.1:*") != 0 || zmq_bind(back, "tcp://127.0.0.1:*") != 0)
            return 1;
        char frontText[128] = {};
        char backText[128] = {};
        size_t size = sizeof(frontText);
        zmq_getsockopt(front, ZMQ_LAST_ENDPOINT, frontText, &size);
        size = sizeof(backText);
        zmq_getsockopt(back, ZMQ_LAST_ENDPOINT, backText, &size);
        const QByteArray text = QByteArray(frontText) + '\n' + QByteArray(backText) + '\n';
        if (::write(report, text.constData(), size_t(text.size())) != text.size())
            return 1;
        ::close(report);
        zmq_proxy(front, back, nullptr);
        return 0;
    }

    pid_t miPid = -1;
};

#endif

} // namespace BreviBench

#endif
