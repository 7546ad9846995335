// Throughput of one data channel between two processes on loopback, in
// buffers of 16 KiB and 64 KiB: an IPC channel through the real Hub, windowed
// and not, beside the same buffers as data packets through a relay process
// that only copies bytes, and as ZeroMQ messages of the same size from a PUSH
// to a PULL socket through a zmq_proxy process. In every case a process
// forked beside this one sends without pause and this one receives, so that
// both ends and the middle each have a process; bytes_per_second counts the
// buffers' payload. The counters: middle_s_per_GiB, the CPU seconds the
// process in the middle spent per GiB, and, for the channel, sender_peak_MiB,
// the sending process's peak resident memory.
//
//   build-*/bench/datachannel/datachannel_bench

#include "benchpeers.h"
#include "benchprocess.h"

#include "core/context.h"
#include "core/extent.h"
#include "datachannel/datachannel.h"
#include "messaging/datapacket.h"
#include "messaging/msg.h"
#include "messaging/msgcondition.h"

#include <QFile>

#include <boost/make_shared.hpp>

using namespace Brevi;
using namespace BreviBench;

namespace {

// Bytes received per iteration.
const unsigned long long Batch = 64ull << 20;
const double GiB = double(1ull << 30);

// What a sender is to do: its arguments after the mode.
unsigned guiSize = 0;
bool gbWindowed = false;

// A field of /proc/<pid>/status, in KiB.
unsigned long long statusKiB(pid_t pid, const char* field)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith(field))
            return line.mid(int(qstrlen(field))).simplified().split(' ').value(0).toULongLong();
    return 0;
}

// This program started again as a sender (see main), so that the sender's
// memory is its own and not what it would share with this process after a
// fork.
Program startSender(const QStringList& arguments) { return Program(QStringLiteral("/proc/self/exe"), arguments); }

void report(benchmark::State& state, unsigned long long bytes, const ProcessCpu& middle, const ProcessCpu& sender)
{
    state.SetBytesProcessed(int64_t(bytes));
    if (!bytes)
        return;
    // Microseconds in all, per GiB in seconds.
    state.counters["middle_s_per_GiB"] = middle.perItem(1) / 1e6 / (double(bytes) / GiB);
    state.counters["sender_s_per_GiB"] = sender.perItem(1) / 1e6 / (double(bytes) / GiB);
}

// --- The channel through the Hub --------------------------------------------

namespace Channel {

const char* const ReceiverName = "dcbenchreceiver";
const char* const Offer = "BenchOfferPost";
const char* const Accept = "BenchAcceptPost";

QString home()
{
    static QTemporaryDir directory;
    return directory.path();
}

MsgAddress receiver() { return MsgAddress(Context::machineName(), QString(ReceiverName), QString()); }

// The sender's side of the handshake, then buffers filled in place and sent
// whole until the channel goes down with the receiver.
void sendMain()
{
    const boost::shared_ptr<MsgCondition> never = boost::make_shared<MsgCondition>();
    const Datachannel::Synchronization synchronization =
        gbWindowed ? Datachannel::Synchronization::Windowed : Datachannel::Synchronization::None;
    const XmlList details = Datachannel::sendDetails(Datachannel::IPC, receiver(), synchronization, guiSize);
    Datachannel channel(never, details);
    XmlList body;
    body.set("Details", details);
    Msg answer;
    for (int tries = 0; !answer && tries < 30; ++tries)
        if (Msg(receiver(), Offer, body).send(true))
            answer = Msg::wait(Accept, 1);
    XmlList receiveDetails;
    if (!answer || !answer.body().get(receiveDetails, "Details") || channel.connect(receiveDetails) != Datachannel::eOk)
        return;
    for (;;) {
        Extent buffer;
        if (channel.getSendBufferPolled(buffer) != Datachannel::eOk ||
            channel.sendBufferPolled(buffer.size()) != Datachannel::eOk)
            return;
    }
}

int sendChannel()
{
    return Context::run(sendMain, Context::TypeAttached, Context::FlagAttachOnce, "dcbenchsender") ? 0 : 1;
}

struct Run {
    benchmark::State* state = nullptr;
    pid_t hub = -1;
    pid_t sender = -1;
};
Run current;

void receiveMain()
{
    benchmark::State& state = *current.state;
    const Msg offer = Msg::wait(Offer, 30);
    XmlList details;
    if (!offer || !offer.body().get(details, "Details")) {
        state.SkipWithError("no offer from the sender");
        return;
    }
    Datachannel channel(boost::make_shared<MsgCondition>(), details);
    XmlList body;
    body.set("Details", channel.receiveDetails());
    offer.reply(Accept, body, eMsgDoNotCompress, true);
    const ProcessCpu middle(current.hub);
    const ProcessCpu sending(current.sender);
    unsigned long long total = 0;
    for (auto _ : state) {
        for (unsigned long long got = 0; got < Batch;) {
            Extent buffer;
            if (channel.getReceiveBufferPolled(buffer) != Datachannel::eOk) {
                state.SkipWithError("the channel failed");
                return;
            }
            got += buffer.size();
            channel.releaseBuffer();
        }
        total += Batch;
    }
    report(state, total, middle, sending);
    state.counters["sender_peak_MiB"] = double(statusKiB(current.sender, "VmHWM:")) / 1024;
}

void run(benchmark::State& state)
{
    HubRun hub(home());
    if (!hub.ready(state))
        return;
    const Program sending =
        startSender({"--send-channel", QString::number(state.range(0)), QString::number(state.range(1))});
    current = Run{&state, hub.pid(), sending.pid()};
    if (!Context::run(receiveMain, Context::TypeAttached, Context::FlagAttachOnce, "dcbenchreceiver", ReceiverName))
        state.SkipWithError("no attached context: the library did not attach to the Hub");
}

} // namespace Channel

void HubChannel(benchmark::State& state) { Channel::run(state); }

// --- The same buffers through a relay ------------------------------------------

// Data packets of the buffer size, as a channel sends them, written without
// pause.
int sendRelay(unsigned port)
{
    End end;
    if (!end.connect(port))
        return 1;
    const QByteArray to = "1/17/bench@0";
    const QByteArray from = "1/16/bench@0";
    const boost::shared_ptr<DataPacket> packet = boost::make_shared<DataPacket>(
        BinaryAddress(Extent(to)), BinaryAddress(Extent(from)), QByteArray(), guiSize, 1, 0);
    for (;;) {
        packet->used(packet->available());
        if (!packet->prepareSend(guiSize, false) || !end.send(packet))
            return 0;
    }
}

void Relay(benchmark::State& state)
{
    RelayRun relay;
    End end;
    if (!end.connect(relay.port)) {
        state.SkipWithError("the relay did not take this end");
        return;
    }
    const Program sending = startSender({"--send-relay", QString::number(relay.port), QString::number(state.range(0))});
    const ProcessCpu middle(relay.pid());
    const ProcessCpu sender(sending.pid());
    unsigned long long total = 0;
    for (auto _ : state) {
        for (unsigned long long got = 0; got < Batch;) {
            const boost::shared_ptr<IpcPacket> packet = end.receive();
            if (!packet) {
                state.SkipWithError("the relay lost the stream");
                return;
            }
            got += static_cast<DataPacket&>(*packet).room();
        }
        total += Batch;
    }
    report(state, total, middle, sender);
}

#ifdef HUB_BENCH_ZMQ
// --- The same sizes as ZeroMQ messages through a proxy ------------------------

int sendZmq(const char* endpoint)
{
    void* context = zmq_ctx_new();
    void* push = zmq_socket(context, ZMQ_PUSH);
    if (zmq_connect(push, endpoint) != 0)
        return 1;
    const std::vector<char> buffer(guiSize, 'z');
    while (zmq_send(push, buffer.data(), buffer.size(), 0) >= 0) {
    }
    return 0;
}

void Zmq(benchmark::State& state)
{
    ZmqBroker broker(ZMQ_PULL, ZMQ_PUSH);
    if (!broker.valid()) {
        state.SkipWithError("the ZeroMQ proxy did not start");
        return;
    }
    const Program sending =
        startSender({"--send-zmq", QString::fromLatin1(broker.frontend), QString::number(state.range(0))});
    void* context = zmq_ctx_new();
    void* pull = zmq_socket(context, ZMQ_PULL);
    zmq_setsockopt(pull, ZMQ_RCVTIMEO, &WaitMs, sizeof(WaitMs));
    zmq_connect(pull, broker.backend.constData());
    std::vector<char> buffer(size_t(state.range(0)));
    const ProcessCpu middle(broker.pid());
    const ProcessCpu sender(sending.pid());
    unsigned long long total = 0;
    for (auto _ : state) {
        for (unsigned long long got = 0; got < Batch;) {
            const int size = zmq_recv(pull, buffer.data(), buffer.size(), 0);
            if (size <= 0) {
                state.SkipWithError("the proxy lost the stream");
                break;
            }
            got += unsigned(size);
        }
        total += Batch;
    }
    report(state, total, middle, sender);
    zmq_close(pull);
    zmq_ctx_term(context);
}
#endif

} // namespace

BENCHMARK(HubChannel)
    ->ArgNames({"buffer", "windowed"})
    ->Args({16384, 1})
    ->Args({16384, 0})
    ->Args({65536, 1})
    ->Args({65536, 0})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(Relay)->ArgName("buffer")->Arg(16384)->Arg(65536)->Unit(benchmark::kMillisecond)->UseRealTime();
#ifdef HUB_BENCH_ZMQ
BENCHMARK(Zmq)->ArgName("buffer")->Arg(16384)->Arg(65536)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

// A sender, when started as one: --send-channel SIZE WINDOWED, --send-relay
// PORT SIZE, --send-zmq ENDPOINT SIZE.
int main(int argc, char** argv)
{
    if (argc == 4 && QByteArray(argv[1]).startsWith("--send-")) {
        const QByteArray mode = argv[1];
        guiSize = QByteArray(argv[3]).toUInt();
        if (mode == "--send-channel") {
            guiSize = QByteArray(argv[2]).toUInt();
            gbWindowed = QByteArray(argv[3]) != "0";
            return Channel::sendChannel();
        }
        if (mode == "--send-relay")
            return sendRelay(QByteArray(argv[2]).toUInt());
#ifdef HUB_BENCH_ZMQ
        if (mode == "--send-zmq")
            return sendZmq(argv[2]);
#endif
        return 2;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
