// The link between a process and its Hub: packets built, sent, received and
// read between two threads over a loopback pair, beside the same bytes
// written and read raw on the same pair, which is the floor.
//
// One way: a batch of messages per iteration, the peer reading (and, for
// packets, parsing) each; items/s is messages per second. Round trip: one
// message out and its answer back per iteration. Data: 16 KiB buffers of a
// channel, bytes/s is the payload moved.

#include "core/buffer.h"
#include "core/xmllist.h"
#include "messaging/binaryaddress.h"
#include "messaging/datapacket.h"
#include "messaging/ipcpacketreceive.h"
#include "messaging/ipcpacketsend.h"
#include "messaging/msgpacket.h"
#include "sockets/netaddress.h"
#include "sockets/tcpsocketdata.h"
#include "sockets/tcpsocketlisten.h"

#include <QHostAddress>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <thread>
#include <vector>

#include <poll.h>
#include <time.h>

using namespace Brevi;

namespace {

const int Batch = 2000;
const unsigned DataPayload = 16384;
const int PollLimit = 10000;

struct Pair {
    boost::shared_ptr<TCPSocketListen> listener;
    boost::shared_ptr<TCPSocketData> client;
    boost::shared_ptr<TCPSocketData> server;
};

Pair makePair()
{
    Pair pair;
    pair.listener.reset(new TCPSocketListen("Listen", NetAddress(QHostAddress::LocalHost, 0), 5));
    pair.client.reset(new TCPSocketData("Client", pair.listener->localAddress()));
    pair.server = pair.listener->accept("Server", PollLimit);
    if (!pair.server || !pair.client->complete(PollLimit))
        std::abort();
    return pair;
}

// CPU time of the calling thread, in microseconds.
double threadCpu()
{
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return now.tv_sec * 1e6 + now.tv_nsec / 1e3;
}

void waitFor(const TCPSocket& socket, short events)
{
    pollfd entry = {socket.socket(), events, 0};
    if (::poll(&entry, 1, PollLimit) <= 0)
        std::abort();
}

BinaryAddress address(const char* text) { return BinaryAddress(Extent(QByteArray(text))); }

// About the smallest body a message has: one short string, whose XmlList
// text is some 100 bytes (the element names take most of it).
XmlList smallBody()
{
    XmlList body;
    body.set("Job", QString("done"), XmlList::SetCreate);
    return body;
}

const BinaryAddress& destination()
{
    static const BinaryAddress value = address("1/1001/backup-server-17@4711");
    return value;
}
const BinaryAddress& source()
{
    static const BinaryAddress value = address("1/1002/backup-server-17@4711");
    return value;
}

void sendPacket(IpcPacketSend& sender, const boost::shared_ptr<IpcPacket>& packet)
{
    sender.set(packet);
    IpcResult result;
    while ((result = sender.send()) == eIpcResultAgain)
        waitFor(*sender.socket(), POLLOUT);
    if (result != eIpcResultOk)
        std::abort();
}

boost::shared_ptr<IpcPacket> receivePacket(IpcPacketReceive& receiver)
{
    IpcResult result;
    while ((result = receiver.receive()) == eIpcResultAgain)
        waitFor(*receiver.socket(), POLLIN);
    if (result != eIpcResultOk)
        return boost::shared_ptr<IpcPacket>();
    return receiver.get(0);
}

// What the reading side does with a message: its name and its body.
void readMessage(const boost::shared_ptr<IpcPacket>& packet)
{
    const MsgPacket& message = static_cast<const MsgPacket&>(*packet);
    QString job;
    message.xml().get(job, "Job");
    benchmark::DoNotOptimize(message.name());
    if (job != "done")
        std::abort();
}

// What a router does: the destination's hash, nothing of the body.
void routeMessage(const boost::shared_ptr<IpcPacket>& packet)
{
    if (!packet || !packet->destination().hash())
        std::abort();
}

void writeRaw(TCPSocketData& socket, const char* bytes, unsigned size)
{
    unsigned at = 0;
    while (at < size) {
        const unsigned sent = socket.send(bytes + at, size - at);
        if (!sent)
            waitFor(socket, POLLOUT);
        at += sent;
    }
}

// Reads exactly `size` bytes, in reads as large as `chunk`.
void readRaw(TCPSocketData& socket, char* into, unsigned size)
{
    unsigned at = 0;
    while (at < size) {
        const unsigned got = socket.recv(into + at, size - at);
        if (!got) {
            if (socket.lastError() != eTCPErrorWouldBlock)
                std::abort();
            waitFor(socket, POLLIN);
        }
        at += got;
    }
}

// Argument 1: built from an XmlList and its body parsed at the far end, as
// between two components. Argument 0: built from the body's text and only
// its header read, as the Hub forwards a packet.
void BM_MessageOneWay(benchmark::State& state)
{
    const bool wholeMessage = state.range(0) != 0;
    Pair pair = makePair();
    const XmlList body = smallBody();
    const QByteArray bodyText = body.toBinary();
    // A message's name is a QString already, held by the Msg.
    const QString name("JobStatusPost");
    double readerCpu = 0;
    for (auto _ : state) {
        std::thread reader([&] {
            const double start = threadCpu();
            IpcPacketReceive receiver(pair.server);
            for (int i = 0; i < Batch; ++i) {
                if (wholeMessage)
                    readMessage(receivePacket(receiver));
                else
                    routeMessage(receivePacket(receiver));
            }
            readerCpu += threadCpu() - start;
        });
        IpcPacketSend sender(pair.client);
        for (int i = 0; i < Batch; ++i) {
            if (wholeMessage)
                sendPacket(sender, boost::make_shared<MsgPacket>(destination(), source(), QByteArray(), name, QString(),
                                                                 body, unsigned(i), false));
            else
                sendPacket(sender, boost::make_shared<MsgPacket>(destination(), source(), QByteArray(), name, QString(),
                                                                 bodyText, unsigned(i), false));
        }
        reader.join();
    }
    state.SetItemsProcessed(state.iterations() * Batch);
    state.counters["reader_cpu_us"] = readerCpu / double(state.iterations() * Batch);
}

void BM_RawOneWay(benchmark::State& state)
{
    Pair pair = makePair();
    const MsgPacket sample(destination(), source(), QByteArray(), "JobStatusPost", QString(), smallBody(), 0, false);
    const Extent bytes = sample.buffer();
    std::vector<char> all(bytes.size() * Batch);
    double readerCpu = 0;
    for (auto _ : state) {
        std::thread reader([&] {
            const double start = threadCpu();
            readRaw(*pair.server, all.data(), unsigned(all.size()));
            readerCpu += threadCpu() - start;
        });
        for (int i = 0; i < Batch; ++i)
            writeRaw(*pair.client, reinterpret_cast<const char*>(bytes.data()), bytes.size());
        reader.join();
    }
    state.SetItemsProcessed(state.iterations() * Batch);
    state.counters["packet_bytes"] = bytes.size();
    state.counters["reader_cpu_us"] = readerCpu / double(state.iterations() * Batch);
    state.counters["body_bytes"] = sample.body().size();
}

// Arguments as for the one-way case; each side has its own body, since an
// XmlList is not to be shared between threads.
void BM_MessageRoundTrip(benchmark::State& state)
{
    const bool wholeMessage = state.range(0) != 0;
    Pair pair = makePair();
    auto message = [wholeMessage](const BinaryAddress& to, const BinaryAddress& from, const QString& name,
                                  const QString& cookie, const XmlList& body, const QByteArray& text) {
        return wholeMessage ? boost::make_shared<MsgPacket>(to, from, QByteArray(), name, cookie, body, 0, false)
                            : boost::make_shared<MsgPacket>(to, from, QByteArray(), name, cookie, text, 0, false);
    };
    auto take = [wholeMessage](const boost::shared_ptr<IpcPacket>& packet) {
        if (wholeMessage)
            readMessage(packet);
        else
            routeMessage(packet);
    };
    const QString requestName("JobStatusRequest");
    const QString replyName("JobStatusReply");
    std::thread echo([&] {
        const XmlList body = smallBody();
        const QByteArray text = body.toBinary();
        IpcPacketReceive receiver(pair.server);
        IpcPacketSend sender(pair.server);
        while (boost::shared_ptr<IpcPacket> packet = receivePacket(receiver)) {
            take(packet);
            const MsgPacket& request = static_cast<const MsgPacket&>(*packet);
            sendPacket(sender,
                       message(request.source(), request.destination(), replyName, request.cookie(), body, text));
        }
    });
    const XmlList body = smallBody();
    const QByteArray text = body.toBinary();
    IpcPacketSend sender(pair.client);
    IpcPacketReceive receiver(pair.client);
    unsigned cookie = 0;
    for (auto _ : state) {
        sendPacket(sender, message(destination(), source(), requestName, QString::number(++cookie), body, text));
        take(receivePacket(receiver));
    }
    pair.client->shutdown(eTCPShutdownSend);
    echo.join();
}

void BM_RawRoundTrip(benchmark::State& state)
{
    Pair pair = makePair();
    const MsgPacket sample(destination(), source(), QByteArray(), "JobStatusRequest", "1", smallBody(), 0, false);
    const Extent bytes = sample.buffer();
    const unsigned size = bytes.size();
    std::thread echo([&] {
        std::vector<char> in(size);
        for (;;) {
            unsigned at = 0;
            while (at < size) {
                const unsigned got = pair.server->recv(in.data() + at, size - at);
                if (!got && pair.server->lastError() != eTCPErrorWouldBlock)
                    return;
                if (!got)
                    waitFor(*pair.server, POLLIN);
                at += got;
            }
            writeRaw(*pair.server, in.data(), size);
        }
    });
    std::vector<char> back(size);
    for (auto _ : state) {
        writeRaw(*pair.client, reinterpret_cast<const char*>(bytes.data()), size);
        readRaw(*pair.client, back.data(), size);
    }
    pair.client->shutdown(eTCPShutdownSend);
    echo.join();
}

// The channel's own calls without a copy on either end: the sender writes
// into the packet's room (availableExtent, used) and the reader reads the
// received payload in place (data), as the raw side writes and reads its
// buffers directly.
void BM_DataPacketStream(benchmark::State& state)
{
    Pair pair = makePair();
    // A channel keeps its packet and refills it once it has gone.
    const boost::shared_ptr<DataPacket> packet =
        boost::make_shared<DataPacket>(destination(), source(), QByteArray(), DataPayload, 9, 0);
    const Extent room = packet->availableExtent();
    for (unsigned i = 0; i < DataPayload; ++i)
        room[i] = static_cast<unsigned char>(i * 7);
    double readerCpu = 0;
    for (auto _ : state) {
        std::thread reader([&] {
            const double start = threadCpu();
            IpcPacketReceive receiver(pair.server);
            for (int i = 0; i < Batch; ++i) {
                const boost::shared_ptr<IpcPacket> got = receivePacket(receiver);
                DataPacket& data = static_cast<DataPacket&>(*got);
                if (!data.prepareReceive() || data.data().size() != DataPayload || data.data()[100] != 0xBC)
                    std::abort();
            }
            readerCpu += threadCpu() - start;
        });
        IpcPacketSend sender(pair.client);
        for (int i = 0; i < Batch; ++i) {
            packet->used(DataPayload);
            packet->prepareSend(DataPayload, false);
            sendPacket(sender, packet);
        }
        reader.join();
    }
    state.SetBytesProcessed(state.iterations() * Batch * int64_t(DataPayload));
    state.counters["reader_cpu_us"] = readerCpu / double(state.iterations() * Batch);
}

void BM_RawDataStream(benchmark::State& state)
{
    Pair pair = makePair();
    const DataPacket sample(destination(), source(), QByteArray(), DataPayload, 9, 0);
    const unsigned size = sample.size();
    std::vector<char> bytes(size, 'd');
    double readerCpu = 0;
    for (auto _ : state) {
        std::thread reader([&] {
            const double start = threadCpu();
            std::vector<char> into(size);
            for (int i = 0; i < Batch; ++i)
                readRaw(*pair.server, into.data(), size);
            readerCpu += threadCpu() - start;
        });
        for (int i = 0; i < Batch; ++i)
            writeRaw(*pair.client, bytes.data(), size);
        reader.join();
    }
    state.SetBytesProcessed(state.iterations() * Batch * int64_t(DataPayload));
    state.counters["reader_cpu_us"] = readerCpu / double(state.iterations() * Batch);
}

} // namespace

BENCHMARK(BM_MessageOneWay)->Arg(1)->Arg(0)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RawOneWay)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MessageRoundTrip)->Arg(1)->Arg(0)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RawRoundTrip)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DataPacketStream)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RawDataStream)->UseRealTime()->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
