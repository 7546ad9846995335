// The queues: MsgQueueStandalone and MsgQueueAttached between threads (every
// item once and in order, the owner's rights, release under a producer, the
// wake-up pair with one byte per burst and its refusal of foreign
// connections), and MsgReceiveQueue's authorization and data channel rules.

#include "core/authorization.h"
#include "messaging/datapacket.h"
#include "messaging/msgpacket.h"
#include "messaging/msgqueueattached.h"
#include "messaging/msgqueuestandalone.h"
#include "messaging/msgreceivequeue.h"
#include "sockets/tcpsocketdata.h"
#include "sockets/tcpsocketlisten.h"
#include "sockets/tcpsocketselect.h"

#include "tracelines.h"

#include <boost/make_shared.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <sys/socket.h>

using namespace Brevi;
using namespace BreviTest;

// The sockets' system calls, passed through unless a test has one thread's
// calls refused with an error: how an interrupted or starved system shows.
// The refusals stop after a thousand, so that a loop that never gives up
// still ends, and the count shows it.
namespace {
std::atomic<std::thread::id> soRefusedThread;
std::atomic<int> siRefusal{0};
std::atomic<unsigned> suiRefused{0};

bool refuseHere()
{
    if (siRefusal.load() == 0 || soRefusedThread.load() != std::this_thread::get_id() || suiRefused.load() >= 1000)
        return false;
    ++suiRefused;
    errno = siRefusal.load();
    return true;
}

struct Refusal {
    Refusal(int error)
    {
        suiRefused = 0;
        soRefusedThread = std::this_thread::get_id();
        siRefusal = error;
    }
    ~Refusal() { siRefusal = 0; }
};
} // namespace

extern "C" ssize_t send(int socket, const void* data, size_t size, int flags)
{
    static const auto next = reinterpret_cast<ssize_t (*)(int, const void*, size_t, int)>(dlsym(RTLD_NEXT, "send"));
    return refuseHere() ? -1 : next(socket, data, size, flags);
}

extern "C" ssize_t recv(int socket, void* data, size_t size, int flags)
{
    static const auto next = reinterpret_cast<ssize_t (*)(int, void*, size_t, int)>(dlsym(RTLD_NEXT, "recv"));
    return refuseHere() ? -1 : next(socket, data, size, flags);
}

namespace {

typedef std::pair<int, int> Item; // producer, sequence number

bool put(MsgQueue& queue, const boost::any& value)
{
    boost::any item = value;
    return queue.enqueue(&item);
}

bool putOnce(MsgQueue& queue, const Msg& message)
{
    boost::any item = message;
    return queue.enqueueOnce(&item);
}

long long nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

MsgAddress remote(const QString& machine, unsigned id) { return MsgAddress(MachineName(machine), id); }

boost::shared_ptr<IpcPacket> dataFor(unsigned channel)
{
    return boost::make_shared<DataPacket>(remote("beta", 3).binary(), remote("alpha", 1).binary(), QByteArray(), 64u,
                                          channel, 0u);
}

} // namespace

using MsgQueueTest = BreviTest::TraceTest<TraceModuleMsg>;

// Two producers hammer the queue while the owner drains it: every item
// arrives once, each producer's items in the order they were put.
TEST_F(MsgQueueTest, ProducersHammeringEnqueueLoseNothingAndKeepOrder)
{
    const int perProducer = 50000;
    MsgQueueStandalone queue(0);
    std::atomic<int> refused{0};
    std::vector<std::thread> producers;
    for (int producer = 0; producer < 2; ++producer)
        producers.emplace_back([&queue, &refused, producer, perProducer] {
            for (int n = 0; n < perProducer; ++n)
                if (!put(queue, Item(producer, n)))
                    ++refused;
        });

    int next[2] = {0, 0};
    int received = 0;
    bool inOrder = true;
    while (received < 2 * perProducer) {
        IpcResult result = eIpcResultClosed;
        if (!queue.wait(result, 5000)) {
            ADD_FAILURE() << "no item within 5 s, result " << result << ", " << received << " received";
            break;
        }
        QList<boost::any> items;
        ASSERT_TRUE(queue.dequeueAll(items));
        for (const boost::any& item : items) {
            const Item value = boost::any_cast<Item>(item);
            inOrder = inOrder && value.second == next[value.first];
            next[value.first] = value.second + 1;
            ++received;
        }
    }
    for (std::thread& producer : producers)
        producer.join();
    EXPECT_TRUE(inOrder);
    EXPECT_EQ(received, 2 * perProducer);
    EXPECT_EQ(refused, 0);
    EXPECT_TRUE(queue.isEmpty());
}

TEST_F(MsgQueueTest, StandaloneWaitTimesOutIsWokenAndEndsWithRelease)
{
    MsgQueueStandalone queue(0);
    IpcResult result = eIpcResultOk;
    EXPECT_FALSE(queue.wait(result, 0));
    EXPECT_EQ(result, eIpcResultTimeout);
    const long long before = nowMs();
    EXPECT_FALSE(queue.wait(result, 50));
    EXPECT_EQ(result, eIpcResultTimeout);
    EXPECT_GE(nowMs() - before, 50);

    std::thread producer([&queue] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        put(queue, 1);
    });
    EXPECT_TRUE(queue.wait(result, -1)) << "woken by another thread";
    EXPECT_EQ(result, eIpcResultOk);
    producer.join();
    EXPECT_TRUE(queue.wait(result, 0)) << "wait takes nothing out";

    queue.release();
    EXPECT_FALSE(queue.isValid());
    EXPECT_TRUE(queue.isEmpty()) << "release drops the items";
    EXPECT_FALSE(queue.wait(result, -1)) << "no wait for ever on a released queue";
    EXPECT_EQ(result, eIpcResultClosed);
    EXPECT_FALSE(put(queue, 2));
}

TEST_F(MsgQueueTest, EnqueueOnceCollapsesTheSameNameFromTheSameSource)
{
    MsgQueueStandalone queue(0);
    const MsgAddress to(eMsgAddressContext, 1);
    const Msg tick(Authorization(), remote("alpha", 1), to, "TickPost", XmlList());
    EXPECT_TRUE(putOnce(queue, tick));
    EXPECT_TRUE(putOnce(queue, Msg(Authorization(), remote("alpha", 1), to, "TickPost", XmlList())));
    EXPECT_TRUE(putOnce(queue, Msg(Authorization(), remote("beta", 1), to, "TickPost", XmlList()))) << "another source";
    EXPECT_TRUE(putOnce(queue, Msg(Authorization(), remote("alpha", 1), to, "TockPost", XmlList())));
    boost::any notMessage = 5;
    EXPECT_TRUE(queue.enqueueOnce(&notMessage));
    EXPECT_TRUE(queue.enqueueOnce(&notMessage)) << "only messages are compared";
    EXPECT_EQ(queue.count(), 5);
    EXPECT_FALSE(queue.enqueue(nullptr));
}

TEST_F(MsgQueueTest, OnlyTheOwnerTakesOutAndReleases)
{
    MsgQueueStandalone queue(7); // owned by context 7; this thread has none
    ASSERT_TRUE(put(queue, 1));
    boost::any item;
    EXPECT_TRUE(
        traces([&] { EXPECT_FALSE(queue.dequeue(item)); }, TraceAlways, "Attempt to dequeue from thread 0 not 7"));
    EXPECT_TRUE(traces([&] { queue.release(); }, TraceAlways,
                       "Context 0 is not allowed to release message queue for context 7"));
    EXPECT_TRUE(queue.isValid());
    EXPECT_TRUE(put(queue, 2));
    EXPECT_EQ(queue.count(), 2);
}

// A producer that keeps putting while the owner releases: its enqueue turns
// false and stays false, and nothing breaks.
TEST_F(MsgQueueTest, AQueueReleasedUnderAProducerRefusesFromThenOn)
{
    boost::shared_ptr<MsgQueueStandalone> queue = boost::make_shared<MsgQueueStandalone>(0);
    std::atomic<bool> refused{false};
    std::atomic<int> afterRefusal{0};
    std::thread producer([queue, &refused, &afterRefusal] {
        const long long end = nowMs() + 10000;
        while (!refused && nowMs() < end)
            refused = !put(*queue, 1);
        for (int n = 0; n < 1000; ++n)
            afterRefusal += put(*queue, 1) ? 1 : 0;
    });
    IpcResult result = eIpcResultOk;
    ASSERT_TRUE(queue->wait(result, 5000));
    queue->release();
    producer.join();
    EXPECT_TRUE(refused);
    EXPECT_EQ(afterRefusal, 0);
    EXPECT_TRUE(queue->isEmpty());
}

// ---------------------------------------------------------------------------
// The wake-up pair

TEST_F(MsgQueueTest, AttachedQueueWakesItsSelectOnceABurst)
{
    MsgQueueAttached queue(0);
    TCPSocketSelect select;
    EXPECT_FALSE(put(queue, 1)) << "invalid until set up";
    ASSERT_TRUE(queue.setup(select));
    EXPECT_TRUE(queue.isValid());
    EXPECT_EQ(select.count(TCPSocketSelect::Read), 1u);
    EXPECT_TRUE(queue.setup(select)) << "a second setup changes nothing";

    // One item: one byte, which the dequeue reads.
    std::thread producer([&queue] { put(queue, 1); });
    TCPSocketSelect ready;
    select.clone(ready);
    EXPECT_EQ(ready.wait(5000), eTCPErrorNone) << "woken by the producer's byte";
    producer.join();
    boost::any item;
    ASSERT_TRUE(queue.dequeue(item, &ready));
    EXPECT_EQ(boost::any_cast<int>(item), 1);

    // Two items: the second writes no byte, so one read leaves nothing to wake for.
    ASSERT_TRUE(put(queue, 2));
    ASSERT_TRUE(put(queue, 3));
    select.clone(ready);
    ASSERT_EQ(ready.wait(1000), eTCPErrorNone);
    ASSERT_TRUE(queue.dequeue(item, &ready));
    EXPECT_EQ(boost::any_cast<int>(item), 2);
    TCPSocketSelect after;
    select.clone(after);
    EXPECT_EQ(after.wait(0), eTCPErrorTimeout) << "the burst wrote a single byte";
    EXPECT_TRUE(queue.pending(after)) << "the item still waits";
    QList<boost::any> rest;
    EXPECT_FALSE(queue.dequeueAll(rest, &after)) << "not readable in that select";
    EXPECT_TRUE(queue.dequeueAll(rest, nullptr));
    ASSERT_EQ(rest.size(), 1);
    EXPECT_EQ(boost::any_cast<int>(rest.first()), 3);

    queue.release();
    EXPECT_FALSE(put(queue, 4));
    EXPECT_FALSE(queue.setup(select)) << "released for good";
}

// The wake-up byte is sent with the mutex held, and the owner reads on its
// own thread: neither keeps trying while the system refuses.
TEST_F(MsgQueueTest, AttachedQueueStopsRetryingARefusingSystem)
{
    MsgQueueAttached queue(0);
    TCPSocketSelect select;
    ASSERT_TRUE(queue.setup(select));
    TCPSocketSelect ready;
    {
        Refusal starved(ENOBUFS);
        EXPECT_TRUE(tracesOnce([&] { EXPECT_TRUE(put(queue, 1)); }, TraceAlways, "after 8 attempts"));
        EXPECT_EQ(suiRefused.load(), 8u);
    }
    select.clone(ready);
    EXPECT_EQ(ready.wait(0), eTCPErrorTimeout) << "no byte went";
    ASSERT_TRUE(put(queue, 2));
    select.clone(ready);
    EXPECT_EQ(ready.wait(1000), eTCPErrorNone) << "the next item sent the byte it owed";

    ASSERT_TRUE(put(queue, 3));
    QList<boost::any> items;
    {
        Refusal interrupted(EINTR);
        EXPECT_TRUE(queue.dequeueAll(items, nullptr));
        EXPECT_EQ(suiRefused.load(), 8u);
    }
    ASSERT_EQ(items.size(), 3);
    EXPECT_EQ(boost::any_cast<int>(items.last()), 3);
    EXPECT_TRUE(queue.isValid());
}

TEST_F(MsgQueueTest, TheWakeUpPairAcceptsOnlyItsOwnConnection)
{
    TCPSocketListen listener("Listen", NetAddress(QHostAddress::LocalHost, 0), 4);
    ASSERT_TRUE(listener);
    // Someone else finds the port first.
    TCPSocketData foreign("Foreign", listener.localAddress());
    ASSERT_TRUE(foreign.complete(2000));
    TCPSocketData own("Own", listener.localAddress(), NetAddress(QHostAddress::LocalHost, 0));
    ASSERT_TRUE(own);
    boost::shared_ptr<TCPSocketData> accepted;
    EXPECT_TRUE(traces([&] { accepted = MsgQueueAttached::acceptFrom(listener, own.localAddress(), "Recv", 5000); },
                       TraceAlways, "Got connection from"));
    ASSERT_TRUE(accepted);
    EXPECT_EQ(accepted->remoteAddress().getPort(), own.localAddress().getPort());
    char byte = 0;
    EXPECT_EQ(foreign.recv(&byte, 1), 0u);
    EXPECT_EQ(foreign.lastError(), eTCPErrorClosed) << "the planted connection was closed";

    EXPECT_TRUE(traces([&] { EXPECT_FALSE(MsgQueueAttached::acceptFrom(listener, own.localAddress(), "Recv", 100)); },
                       TraceAlways, "Timed out connection to listen socket"));
}

// ---------------------------------------------------------------------------
// The receive queue

TEST_F(MsgQueueTest, ReceiveQueueLetsInOnlyAuthorizedNames)
{
    MsgReceiveQueue queue;
    const MsgAddress to = remote("beta", 3);
    const MsgAddress from = remote("alpha", 1);
    const Msg plain(Authorization(), from, to, "GuardedPost", XmlList());
    const Msg pass(Authorization("pass"), from, to, "GuardedPost", XmlList());
    const Msg wrong(Authorization("wrong"), from, to, "GuardedPost", XmlList());

    EXPECT_TRUE(queue.enqueue(plain)) << "an empty table lets all in";
    queue.addAuthorization("GuardedPost", Authorization("pass").binary("beta"));
    queue.addAuthorization("GuardedPost", Authorization("pass").binary("beta"));
    EXPECT_TRUE(
        traces([&] { EXPECT_FALSE(queue.enqueue(plain)); }, TraceAlways, "Not authorized, give it to the bit bucket"));
    EXPECT_FALSE(queue.enqueue(wrong));
    EXPECT_TRUE(queue.enqueue(pass));
    EXPECT_TRUE(queue.enqueue(Msg(Authorization(), from, to, "OpenPost", XmlList()))) << "other names stay open";
    queue.removeAuthorization("GuardedPost", Authorization("pass").binary("beta"));
    EXPECT_FALSE(queue.enqueue(plain)) << "one of the two entries is left";
    queue.removeAuthorization("GuardedPost", Authorization("pass").binary("beta"));
    EXPECT_TRUE(queue.enqueue(plain));

    EXPECT_TRUE(queue.prepend(Msg(Authorization(), from, to, "FirstPost", XmlList())));
    EXPECT_TRUE(queue.enqueueOnce(Msg(Authorization(), from, to, "OpenPost", XmlList())));
    EXPECT_TRUE(queue.enqueueOnce(Msg(Authorization(), to, to, "OpenPost", XmlList())));
    QStringList names;
    Msg message;
    while (queue.dequeue(message))
        names << message.name() + (message.source() == to ? "*" : "");
    EXPECT_EQ(names, QStringList({"FirstPost", "GuardedPost", "GuardedPost", "OpenPost", "GuardedPost", "OpenPost*"}));
}

TEST_F(MsgQueueTest, ReceiveQueueServesMessagesBeforeData)
{
    MsgReceiveQueue queue;
    queue.addDatachannel(1, DatachannelTransport::IPC);
    queue.addDatachannel(1, DatachannelTransport::IPC);
    queue.addDatachannel(2, DatachannelTransport::IPC);
    EXPECT_EQ(queue.channelCount(), 2);
    IpcResult result = eIpcResultOk;
    EXPECT_EQ(queue.dataAvailable(1), eIpcResultAgain);
    EXPECT_FALSE(queue.dequeueData(result, 1));
    EXPECT_EQ(result, eIpcResultAgain);
    EXPECT_FALSE(queue.dequeueData(result, 9));
    EXPECT_EQ(result, eIpcResultClosed) << "unknown channel";

    EXPECT_TRUE(queue.enqueue(dataFor(2)));
    EXPECT_EQ(queue.dataAvailable(1), eIpcResultAgain);
    EXPECT_EQ(queue.dataAvailable(QList<unsigned>({1, 2})), eIpcResultOk);

    // A message first: no data read until it is taken.
    XmlList body;
    EXPECT_TRUE(queue.enqueue(boost::make_shared<MsgPacket>(remote("beta", 3), remote("alpha", 1), QByteArray(),
                                                            "ControlPost", "", body, 1u, false)));
    EXPECT_EQ(queue.dataAvailable(2), eIpcResultMessagePending);
    EXPECT_EQ(queue.dataAvailable(QList<unsigned>({2})), eIpcResultMessagePending);
    EXPECT_FALSE(queue.dequeueData(result, 2));
    EXPECT_EQ(result, eIpcResultMessagePending);
    Msg control;
    ASSERT_TRUE(queue.dequeue(control));
    EXPECT_EQ(control.name(), "ControlPost");
    EXPECT_TRUE(queue.dequeueData(result, 2));
    EXPECT_EQ(result, eIpcResultOk);

    // On a sending channel incoming packets are acknowledgements, counted and dropped.
    EXPECT_TRUE(queue.enqueue(dataFor(1)));
    EXPECT_TRUE(queue.enqueue(dataFor(1)));
    EXPECT_EQ(queue.availableAcks(1), 2u);
    EXPECT_EQ(queue.availableAcks(1), 0u);
    EXPECT_EQ(queue.availableAcks(9), 0u);

    queue.removeDatachannel(2);
    EXPECT_TRUE(traces([&] { EXPECT_FALSE(queue.enqueue(dataFor(2))); }, TraceNormal, "Unknown datachannel"));
    EXPECT_FALSE(queue.enqueue(boost::shared_ptr<IpcPacket>()));
}

// The transport a thread may add beside the channels it has: asked for the
// best, the queue names one; asked for one it cannot have, None, with the
// reason.
TEST_F(MsgQueueTest, ReceiveQueueAnswersWhichTransportAThreadMayAdd)
{
    typedef DatachannelTransport T;
    const struct {
        T::Transport has, asked, answer;
        const char* reason;
    } cases[] = {
        {T::None, T::Best, T::Memory, nullptr},
        {T::None, T::IPC, T::IPC, nullptr},
        {T::None, T::Memory, T::Memory, nullptr},
        {T::None, T::File, T::File, nullptr},
        {T::None, T::None, T::None, "Should not be given transport type"},
        {T::IPC, T::Best, T::IPC, nullptr},
        {T::IPC, T::IPC, T::IPC, nullptr},
        {T::IPC, T::Memory, T::None, "Cannot mix IPC and Memory datachannels"},
        {T::Memory, T::Best, T::None, "Can only have one memory datachannel per thread"},
        {T::Memory, T::Memory, T::None, nullptr},
        {T::Memory, T::File, T::None, nullptr},
        {T::File, T::File, T::None, "Can only have one file datachannel per thread"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.has << " asked " << c.asked);
        MsgReceiveQueue queue;
        if (c.has != T::None)
            queue.addDatachannel(1, c.has);
        T::Transport asked = c.asked;
        TraceReader trace;
        queue.dataTransportType(asked);
        EXPECT_EQ(asked, c.answer);
        if (c.reason) {
            EXPECT_TRUE(trace.saw(c.reason, TraceAlways));
        }
    }
}
