// Round trips of a small message between two processes on loopback: through
// the real Hub (which frames each packet, reads its destination and queues it
// on the other link), and, beside it, the same bytes through a minimal relay
// process that only copies bytes from one socket to the other. Both ends are
// driven from this one thread, each wait bounded; items_per_second is round
// trips per second (two packets through the middle each). The Stream cases
// send messages one way in batches of 64, items_per_second being messages.
//
//   build-*/bench/hub/hub_bench
#include "messaging/binaryaddress.h"
#include "messaging/ipcpacketlayout.h"
#include "messaging/ipcpacketreceive.h"
#include "messaging/ipcpacketsend.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msgpacket.h"
#include "sockets/tcpsocketdata.h"
#include "sockets/tcpsocketlisten.h"
#include "sockets/tcpsocketselect.h"

#include <QByteArray>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <boost/make_shared.hpp>

#include <chrono>
#include <csignal>
#include <memory>
#include <thread>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Brevi;
using namespace Brevi::Catalogue;

namespace {

const int WaitMs = 5000;
const int Batch = 64;

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

boost::shared_ptr<IpcPacket> message(const QByteArray& destination, const QByteArray& source, const QString& name,
                                     const XmlList& body = XmlList())
{
    return boost::make_shared<MsgPacket>(BinaryAddress(Extent(destination)), BinaryAddress(Extent(source)),
                                         QByteArray(), name, QString(), body, 0, false);
}

XmlList smallBody()
{
    XmlList body;
    body.set("Sequence", 12345u);
    return body;
}

// The real Hub, in a home of its own, on a port that was free.
class HubRun
{
public:
    HubRun()
    {
        port = TCPSocketListen("Probe", NetAddress(QHostAddress::LocalHost, 0), 1).localAddress().getPort();
        const QByteArray program = HUB_PATH;
        const QByteArray portText = QByteArray::number(port);
        const QByteArray home = moHome.path().toLocal8Bit();
        const char* argv[] = {
            program.constData(), "--port", portText.constData(), "--node", "bench", "--machine-id", "0", "--home",
            home.constData(),    nullptr};
        miPid = ::fork();
        if (miPid == 0) {
            ::execv(argv[0], const_cast<char**>(argv));
            ::_exit(127);
        }
    }
    ~HubRun()
    {
        ::kill(miPid, SIGTERM);
        ::waitpid(miPid, nullptr, 0);
    }

    // Attaches and enables an end; its flat address, empty on failure.
    QByteArray attach(End& end, const QString& title)
    {
        XmlList body;
        body.set(HubMgrAttachRequest::Title, title);
        body.set(HubMgrAttachRequest::Type, HubMgrAttachRequest::TypeAttached);
        for (int tries = 0; tries < 200 && !end.connect(port); ++tries)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (!end.send(message("3/1", QByteArray(), HubMgrAttachRequest::Message, body)))
            return QByteArray();
        const boost::shared_ptr<IpcPacket> reply = end.receive();
        unsigned id = 0;
        if (!reply || !static_cast<MsgPacket&>(*reply).xml().get(id, HubMgrAttachReply::ProcessId))
            return QByteArray();
        if (!end.send(message("3/1", QByteArray(), HubMgrConnectionEnableRequest::Message)) || !end.receive())
            return QByteArray();
        return "1/" + QByteArray::number(id) + "/bench@0";
    }

    unsigned port = 0;

private:
    QTemporaryDir moHome;
    pid_t miPid = -1;
};

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

void roundTrips(benchmark::State& state, End& a, End& b, const boost::shared_ptr<IpcPacket>& ping,
                const boost::shared_ptr<IpcPacket>& pong)
{
    for (auto _ : state) {
        if (!a.send(ping) || !b.receive() || !b.send(pong) || !a.receive()) {
            state.SkipWithError("a round trip failed");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations());
}

void stream(benchmark::State& state, End& a, End& b, const boost::shared_ptr<IpcPacket>& packet)
{
    for (auto _ : state) {
        // The receiver reads as the sender writes, so that neither side's
        // buffers fill and stall the other.
        int sent = 0;
        int received = 0;
        while (received < Batch) {
            while (sent < Batch && sent - received < 16 && a.send(packet))
                ++sent;
            if (!b.receive()) {
                state.SkipWithError("a message was lost");
                return;
            }
            ++received;
        }
    }
    state.SetItemsProcessed(state.iterations() * Batch);
}

void HubRoundTrip(benchmark::State& state)
{
    HubRun hub;
    End a, b;
    const QByteArray addressA = hub.attach(a, "ping");
    const QByteArray addressB = hub.attach(b, "pong");
    if (addressA.isEmpty() || addressB.isEmpty()) {
        state.SkipWithError("the Hub did not attach the ends");
        return;
    }
    roundTrips(state, a, b, message(addressB, addressA, "BenchPing", smallBody()),
               message(addressA, addressB, "BenchPong", smallBody()));
}

void RelayRoundTrip(benchmark::State& state)
{
    RelayRun relay;
    End a, b;
    if (!a.connect(relay.port) || !b.connect(relay.port)) {
        state.SkipWithError("the relay did not take the ends");
        return;
    }
    const QByteArray addressA = "1/16/bench@0";
    const QByteArray addressB = "1/17/bench@0";
    roundTrips(state, a, b, message(addressB, addressA, "BenchPing", smallBody()),
               message(addressA, addressB, "BenchPong", smallBody()));
}

void HubStream(benchmark::State& state)
{
    HubRun hub;
    End a, b;
    const QByteArray addressA = hub.attach(a, "ping");
    const QByteArray addressB = hub.attach(b, "pong");
    if (addressA.isEmpty() || addressB.isEmpty()) {
        state.SkipWithError("the Hub did not attach the ends");
        return;
    }
    stream(state, a, b, message(addressB, addressA, "BenchPing", smallBody()));
}

void RelayStream(benchmark::State& state)
{
    RelayRun relay;
    End a, b;
    if (!a.connect(relay.port) || !b.connect(relay.port)) {
        state.SkipWithError("the relay did not take the ends");
        return;
    }
    stream(state, a, b, message("1/17/bench@0", "1/16/bench@0", "BenchPing", smallBody()));
}

} // namespace

BENCHMARK(HubRoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(RelayRoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(HubStream)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(RelayStream)->Unit(benchmark::kMicrosecond)->UseRealTime();

BENCHMARK_MAIN();
