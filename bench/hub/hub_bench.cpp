// Round trips of a small message between two processes on loopback: through
// the real Hub (which frames each packet, reads its destination and queues it
// on the other link), and, beside it, the same bytes through a minimal relay
// process that only copies bytes from one socket to the other, and the same
// bytes as one ZeroMQ message each through a ROUTER/DEALER proxy (zmq_proxy)
// in a process of its own: REQ to the ROUTER, REP at the DEALER for round
// trips, DEALER to DEALER for one-way messages. Both ends are driven from
// this one thread, each wait bounded; items_per_second is round trips per
// second (two messages through the middle each). The Stream cases send
// messages one way in batches of 64, at most 16 ahead of the receiver,
// items_per_second being messages. The Library cases are the same two
// exchanges between two real processes with attached contexts (see there).
// The counter middle_us is the CPU time the process in the middle spent per
// item, which a loaded machine changes far less than the rates.
//
//   build-*/bench/hub/hub_bench
#include "core/context.h"
#include "messaging/binaryaddress.h"
#include "messaging/ipcpacketlayout.h"
#include "messaging/ipcpacketreceive.h"
#include "messaging/ipcpacketsend.h"
#include "messaging/msg.h"
#include "messaging/msgaddress.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msgpacket.h"
#include "sockets/tcpsocketdata.h"
#include "sockets/tcpsocketlisten.h"
#include "sockets/tcpsocketselect.h"

#include "benchpeers.h"
#include "benchprocess.h"

#include <QByteArray>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <boost/make_shared.hpp>

#include <chrono>
#include <csignal>
#include <memory>
#include <thread>
#include <vector>

#ifdef HUB_BENCH_ZMQ
#include <zmq.h>
#endif

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

using namespace Brevi;
using namespace Brevi::Catalogue;
using namespace BreviBench;

namespace {

const int Batch = 64;
const int Ahead = 16;

XmlList smallBody()
{
    XmlList body;
    body.set("Sequence", 12345u);
    return body;
}

// Attaches and enables an end on the Hub; its flat address, empty on failure.
QByteArray attach(const HubRun& hub, End& end, const QString& title)
{
    XmlList body;
    body.set(HubMgrAttachRequest::Title, title);
    body.set(HubMgrAttachRequest::Type, HubMgrAttachRequest::TypeAttached);
    for (int tries = 0; tries < 200 && !end.connect(hub.port); ++tries)
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

void roundTrips(benchmark::State& state, pid_t middle, End& a, End& b, const boost::shared_ptr<IpcPacket>& ping,
                const boost::shared_ptr<IpcPacket>& pong)
{
    const ProcessCpu cpu(middle);
    for (auto _ : state) {
        if (!a.send(ping) || !b.receive() || !b.send(pong) || !a.receive()) {
            state.SkipWithError("a round trip failed");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations());
    cpu.report(state, "middle_us", state.iterations());
}

void stream(benchmark::State& state, pid_t middle, End& a, End& b, const boost::shared_ptr<IpcPacket>& packet)
{
    const ProcessCpu cpu(middle);
    for (auto _ : state) {
        // The receiver reads as the sender writes, so that neither side's
        // buffers fill and stall the other.
        int sent = 0;
        int received = 0;
        while (received < Batch) {
            while (sent < Batch && sent - received < Ahead && a.send(packet))
                ++sent;
            if (!b.receive()) {
                state.SkipWithError("a message was lost");
                return;
            }
            ++received;
        }
    }
    state.SetItemsProcessed(state.iterations() * Batch);
    cpu.report(state, "middle_us", state.iterations() * Batch);
}

void HubRoundTrip(benchmark::State& state)
{
    HubRun hub;
    End a, b;
    const QByteArray addressA = attach(hub, a, "ping");
    const QByteArray addressB = attach(hub, b, "pong");
    if (addressA.isEmpty() || addressB.isEmpty()) {
        state.SkipWithError("the Hub did not attach the ends");
        return;
    }
    roundTrips(state, hub.pid(), a, b, message(addressB, addressA, "BenchPing", smallBody()),
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
    roundTrips(state, relay.pid(), a, b, message(addressB, addressA, "BenchPing", smallBody()),
               message(addressA, addressB, "BenchPong", smallBody()));
}

void HubStream(benchmark::State& state)
{
    HubRun hub;
    End a, b;
    const QByteArray addressA = attach(hub, a, "ping");
    const QByteArray addressB = attach(hub, b, "pong");
    if (addressA.isEmpty() || addressB.isEmpty()) {
        state.SkipWithError("the Hub did not attach the ends");
        return;
    }
    stream(state, hub.pid(), a, b, message(addressB, addressA, "BenchPing", smallBody()));
}

void RelayStream(benchmark::State& state)
{
    RelayRun relay;
    End a, b;
    if (!a.connect(relay.port) || !b.connect(relay.port)) {
        state.SkipWithError("the relay did not take the ends");
        return;
    }
    stream(state, relay.pid(), a, b, message("1/17/bench@0", "1/16/bench@0", "BenchPing", smallBody()));
}

// --- The library's own path ---------------------------------------------------
//
// Two processes, each with an attached context (Context::TypeAttached), that
// talk through the Hub with Msg::send and Msg::wait: this process pings, a
// process forked beside it answers each BenchPing with a BenchPong to the
// sender, and acknowledges every 16th BenchData with a BenchAck, so that the
// one-way case keeps at most 32 messages ahead of the receiver. Everything a
// process with the library pays is in these figures: the packet machines,
// Messaging's queues, and the parsing of every body.
namespace Library {

const char* const PongName = "benchpong";
const char* const Ping = "BenchPing";
const char* const Pong = "BenchPong";
const char* const Data = "BenchData";
const char* const Ack = "BenchAck";
const char* const Stop = "BenchStop";

// The library reads its home once per process: every Hub of these cases
// shares this one.
QString home()
{
    static QTemporaryDir directory;
    return directory.path();
}

void pongMain()
{
    const QStringList names{Ping, Data, Stop};
    for (;;) {
        const Msg message = Msg::wait(names, -1);
        if (!message || message.name() == Stop)
            return;
        if (message.name() == Ping)
            message.reply(Pong, message.body());
        else if ((message.getUint32("Sequence") + 1) % Ahead == 0)
            message.reply(Ack);
    }
}

// The answering process, attached under PongName.
class PongProcess
{
public:
    PongProcess()
    {
        miPid = ::fork();
        if (miPid == 0)
            ::_exit(Context::run(pongMain, Context::TypeAttached, Context::FlagAttachOnce, "benchpong", PongName) ? 0
                                                                                                                  : 1);
    }
    ~PongProcess()
    {
        ::kill(miPid, SIGKILL);
        ::waitpid(miPid, nullptr, 0);
    }

private:
    pid_t miPid = -1;
};

// What the pinging context's function works with: the function of
// Context::run takes no arguments.
struct Run {
    benchmark::State* state = nullptr;
    pid_t middle = -1;
    bool stream = false;
};
Run current;

// Pings until the answering process has attached and answers.
bool reachable(const MsgAddress& pong)
{
    for (int tries = 0; tries < 30; ++tries) {
        if (Msg(pong, Ping, smallBody()).send() && Msg::wait(Pong, 1)) {
            // Answers to earlier pings that came late are not counted.
            while (Msg::wait(Pong, 0)) {
            }
            return true;
        }
    }
    return false;
}

void roundTrips(benchmark::State& state, const MsgAddress& pong)
{
    const ProcessCpu cpu(current.middle);
    for (auto _ : state) {
        if (!Msg(pong, Ping, smallBody()).send() || !Msg::wait(Pong, 5)) {
            state.SkipWithError("a round trip failed");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations());
    cpu.report(state, "middle_us", state.iterations());
}

void stream(benchmark::State& state, const MsgAddress& pong)
{
    XmlList body = smallBody();
    const ProcessCpu cpu(current.middle);
    for (auto _ : state) {
        int sent = 0;
        int acknowledged = 0;
        while (acknowledged < Batch) {
            for (; sent < Batch && sent - acknowledged < 2 * Ahead; ++sent) {
                body.set("Sequence", unsigned(sent));
                if (!Msg(pong, Data, body).send()) {
                    state.SkipWithError("a message was refused");
                    return;
                }
            }
            if (!Msg::wait(Ack, 5)) {
                state.SkipWithError("a message was lost");
                return;
            }
            acknowledged += Ahead;
        }
    }
    state.SetItemsProcessed(state.iterations() * Batch);
    cpu.report(state, "middle_us", state.iterations() * Batch);
}

void pingMain()
{
    benchmark::State& state = *current.state;
    const MsgAddress pong(Context::machineName(), QString(PongName), QString());
    if (!reachable(pong)) {
        state.SkipWithError("the answering process did not attach");
        return;
    }
    if (current.stream)
        stream(state, pong);
    else
        roundTrips(state, pong);
    Msg(pong, Stop).send(true);
}

void run(benchmark::State& state, bool stream)
{
    HubRun hub(home());
    if (!hub.ready(state))
        return;
    PongProcess pong;
    current = Run{&state, hub.pid(), stream};
    if (!Context::run(pingMain, Context::TypeAttached, Context::FlagAttachOnce, "benchping"))
        state.SkipWithError("no attached context: the library did not attach to the Hub");
}

} // namespace Library

void LibraryRoundTrip(benchmark::State& state) { Library::run(state, false); }
void LibraryStream(benchmark::State& state) { Library::run(state, true); }

#ifdef HUB_BENCH_ZMQ
// This process's two ends on the broker, with bounded waits; the context
// goes with them.
class ZmqEnds
{
public:
    ZmqEnds(const ZmqBroker& broker, int frontType, int backType)
        : mpContext(zmq_ctx_new())
        , mpFront(open(frontType, broker.frontend))
        , mpBack(open(backType, broker.backend))
        , moBuffer(IpcPacketLayout::InitialMaximumSize)
    {}
    ~ZmqEnds()
    {
        zmq_close(mpFront);
        zmq_close(mpBack);
        zmq_ctx_term(mpContext);
    }

    void* front() const { return mpFront; }
    void* back() const { return mpBack; }

    // Sends `bytes` as one message.
    static bool send(void* socket, const QByteArray& bytes)
    {
        return zmq_send(socket, bytes.constData(), size_t(bytes.size()), 0) == bytes.size();
    }
    // Receives one message of `size` bytes; with `routed`, the identity
    // frame the ROUTER put in front of it first.
    bool receive(void* socket, int size, bool routed = false)
    {
        if (routed) {
            int more = 0;
            size_t length = sizeof(more);
            if (zmq_recv(socket, moBuffer.data(), moBuffer.size(), 0) < 0 ||
                zmq_getsockopt(socket, ZMQ_RCVMORE, &more, &length) != 0 || !more)
                return false;
        }
        return zmq_recv(socket, moBuffer.data(), moBuffer.size(), 0) == size;
    }

private:
    void* open(int type, const QByteArray& endpoint)
    {
        void* socket = zmq_socket(mpContext, type);
        const int linger = 0;
        zmq_setsockopt(socket, ZMQ_LINGER, &linger, sizeof(linger));
        zmq_setsockopt(socket, ZMQ_RCVTIMEO, &WaitMs, sizeof(WaitMs));
        zmq_setsockopt(socket, ZMQ_SNDTIMEO, &WaitMs, sizeof(WaitMs));
        zmq_connect(socket, endpoint.constData());
        return socket;
    }

    void* mpContext;
    void* mpFront;
    void* mpBack;
    std::vector<char> moBuffer;
};

// A copy of a packet's bytes, which outlives the packet.
QByteArray bytes(const boost::shared_ptr<IpcPacket>& packet)
{
    const Extent view = packet->buffer();
    return QByteArray(reinterpret_cast<const char*>(view.data()), int(view.size()));
}

void ZmqRoundTrip(benchmark::State& state)
{
    ZmqBroker broker;
    if (!broker.valid()) {
        state.SkipWithError("the ZeroMQ broker did not start");
        return;
    }
    ZmqEnds ends(broker, ZMQ_REQ, ZMQ_REP);
    const QByteArray ping = bytes(message("1/17/bench@0", "1/16/bench@0", "BenchPing", smallBody()));
    const QByteArray pong = bytes(message("1/16/bench@0", "1/17/bench@0", "BenchPong", smallBody()));
    // The first round trip waits for both connections; it is not counted.
    if (!ends.send(ends.front(), ping) || !ends.receive(ends.back(), ping.size()) || !ends.send(ends.back(), pong) ||
        !ends.receive(ends.front(), pong.size())) {
        state.SkipWithError("the ZeroMQ ends did not connect");
        return;
    }
    const ProcessCpu cpu(broker.pid());
    for (auto _ : state) {
        if (!ends.send(ends.front(), ping) || !ends.receive(ends.back(), ping.size()) ||
            !ends.send(ends.back(), pong) || !ends.receive(ends.front(), pong.size())) {
            state.SkipWithError("a round trip failed");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations());
    cpu.report(state, "middle_us", state.iterations());
}

void ZmqStream(benchmark::State& state)
{
    ZmqBroker broker;
    if (!broker.valid()) {
        state.SkipWithError("the ZeroMQ broker did not start");
        return;
    }
    ZmqEnds ends(broker, ZMQ_DEALER, ZMQ_DEALER);
    const QByteArray ping = bytes(message("1/17/bench@0", "1/16/bench@0", "BenchPing", smallBody()));
    // The first message waits for both connections; it is not counted.
    if (!ends.send(ends.front(), ping) || !ends.receive(ends.back(), ping.size(), true)) {
        state.SkipWithError("the ZeroMQ ends did not connect");
        return;
    }
    const ProcessCpu cpu(broker.pid());
    for (auto _ : state) {
        int sent = 0;
        int received = 0;
        while (received < Batch) {
            while (sent < Batch && sent - received < Ahead && ends.send(ends.front(), ping))
                ++sent;
            if (!ends.receive(ends.back(), ping.size(), true)) {
                state.SkipWithError("a message was lost");
                return;
            }
            ++received;
        }
    }
    state.SetItemsProcessed(state.iterations() * Batch);
    cpu.report(state, "middle_us", state.iterations() * Batch);
}
#endif

} // namespace

BENCHMARK(HubRoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(RelayRoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(HubStream)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(RelayStream)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(LibraryRoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(LibraryStream)->Unit(benchmark::kMicrosecond)->UseRealTime();
#ifdef HUB_BENCH_ZMQ
BENCHMARK(ZmqRoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(ZmqStream)->Unit(benchmark::kMicrosecond)->UseRealTime();
#endif

BENCHMARK_MAIN();
