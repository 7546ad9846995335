// Streams between attached contexts of this process (threads, each with a
// Hub link of its own) through the real Hub: whole and in order, held to the
// window, held to the throttle, and many at once into one group.

#include "dcfixture.h"

#include "core/extent.h"
#include "core/sha1.h"
#include "datachannel/datachannelgroup.h"
#include "messaging/msg.h"

#include <boost/make_shared.hpp>

#include <map>
#include <vector>

using namespace Brevi;
using namespace DcTest;
using Sync = Datachannel::Synchronization;
using Compress = Datachannel::Compression;

namespace {

const char* const Go = "DcGoPost";

class Streams : public Channels
{};

TEST_F(Streams, BetweenTwoContextsArriveWholeAndInOrderWithOneEndOfData)
{
    struct Case {
        Sync synchronization;
        Compress compression;
        unsigned bufferSize;
        unsigned bufferCount;
        unsigned long long bytes;
    };
    const unsigned long long total = streamBytes(48ull << 20);
    // Compression of small buffers is slow: that stream is the shortest.
    const std::vector<Case> cases = {{Sync::Windowed, Compress::None, 0, 0, total / 2},
                                     {Sync::None, Compress::None, 65536, 0, total / 4},
                                     {Sync::Windowed, Compress::OnSend, 16384, 4, total / 8},
                                     {Sync::None, Compress::OnSend, 1000, 0, total / 32}};
    std::vector<Counted> received(cases.size());
    std::atomic<bool> ready{false};
    std::thread receiver([&] {
        runAttached(
            [&] {
                ready = true;
                for (Counted& counted : received) {
                    MsgAddress sender;
                    Datachannel channel = accept(boost::make_shared<Deadline>(120), &sender);
                    counted = receiveStream(channel);
                    Msg(sender, Done).send(true);
                }
            },
            "receiver");
    });
    ASSERT_TRUE(await(ready));
    std::vector<Counted> sent;
    runAttached(
        [&] {
            for (const Case& c : cases) {
                const XmlList details = Datachannel::sendDetails(Datachannel::IPC, named("receiver"), c.synchronization,
                                                                 c.bufferSize, c.bufferCount, c.compression);
                Datachannel channel = offer(named("receiver"), details, boost::make_shared<Deadline>(120));
                EXPECT_TRUE(channel.connected());
                sent.push_back(sendStream(channel, c.bytes));
                // The next offer waits until this stream is read: the
                // receiver handles no offer while it reads.
                EXPECT_TRUE(Msg::wait(Done, named("receiver"), 120));
            }
        },
        "sender");
    receiver.join();
    ASSERT_EQ(sent.size(), cases.size());
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(i);
        const QByteArray expected = streamHash(cases[i].bytes);
        EXPECT_EQ(sent[i].result, Datachannel::eOk);
        EXPECT_EQ(sent[i].hash, expected);
        EXPECT_EQ(received[i].bytes, cases[i].bytes);
        EXPECT_EQ(received[i].hash.toStdString(), expected.toStdString());
        EXPECT_EQ(received[i].ends, 1);
        EXPECT_EQ(received[i].result, Datachannel::eDown);
    }
}

TEST_F(Streams, AReceiverThatStopsReadingStopsTheSenderAtTheWindow)
{
    const unsigned size = 16384;
    const unsigned count = 8;
    const unsigned total = 60 * size;
    Counted received;
    std::atomic<bool> ready{false};
    std::thread receiver([&] {
        runAttached(
            [&] {
                ready = true;
                MsgAddress sender;
                Datachannel channel = accept(boost::make_shared<Deadline>(60), &sender);
                // Not a byte read until the sender has been held up; then
                // everything, in order.
                Msg::wait(1);
                Msg(sender, "DcStalledPost").send(true);
                Msg::wait(Go, 30);
                received = receiveStream(channel);
            },
            "receiver");
    });
    ASSERT_TRUE(await(ready));
    runAttached(
        [&] {
            const boost::shared_ptr<Catch> stalled = boost::make_shared<Catch>("DcStalledPost");
            Datachannel channel = offer(
                named("receiver"),
                Datachannel::sendDetails(Datachannel::IPC, named("receiver"), Sync::Windowed, size, count), stalled);
            unsigned sent = 0;
            unsigned available = total;
            const unsigned char* data = streamAt(0, available);
            ASSERT_GE(available, total);
            const Extent all(data, total);
            EXPECT_EQ(channel.sendPolled(all), Datachannel::eMessagePending);
            EXPECT_EQ(channel.lastPollResult(), eMsgResultOk) << "the condition ended the wait";
            EXPECT_EQ(all.offset(), count * size) << "exactly the window went";
            sent = all.offset();
            Msg(named("receiver"), Go).send(true);
            const Extent rest(data + sent, total - sent);
            EXPECT_EQ(channel.sendPolled(rest), Datachannel::eOk);
            EXPECT_EQ(channel.flushPolled(), Datachannel::eOk);
        },
        "sender");
    receiver.join();
    EXPECT_EQ(received.bytes, total);
    EXPECT_EQ(received.hash, streamHash(total));
    EXPECT_EQ(received.ends, 1);
}

TEST_F(Streams, TheThrottleHoldsTheRateItIsSet)
{
    const unsigned rate = 1000000;
    const unsigned long long total = 4ull * rate;
    Counted received;
    std::atomic<bool> ready{false};
    std::thread receiver([&] {
        runAttached(
            [&] {
                ready = true;
                Datachannel channel = accept(boost::make_shared<Deadline>(60));
                received = receiveStream(channel);
            },
            "receiver");
    });
    ASSERT_TRUE(await(ready));
    double seconds = 0;
    runAttached(
        [&] {
            Datachannel channel = offer(
                named("receiver"), Datachannel::sendDetails(Datachannel::IPC, named("receiver"), Sync::None, 10000),
                boost::make_shared<Deadline>(60));
            channel.throttle(rate);
            // Whole buffers: the throttle counts the packets' bytes.
            const auto start = std::chrono::steady_clock::now();
            for (unsigned long long done = 0; done < total;) {
                unsigned piece = unsigned(std::min<unsigned long long>(100000, total - done));
                const unsigned char* data = streamAt(done, piece);
                ASSERT_EQ(channel.sendPolled(data, piece), Datachannel::eOk);
                done += piece;
            }
            seconds = secondsSince(start);
            channel.close();
        },
        "sender");
    receiver.join();
    EXPECT_EQ(received.bytes, total);
    // The first second's allowance goes at once; the rest is paid for.
    const double measured = double(total - rate) / seconds;
    EXPECT_NEAR(measured, rate, rate * 0.05) << seconds << " s";
}

TEST_F(Streams, AGroupServesSixteenSendersByteAndBufferRequestsAlike)
{
    const int senders = 16;
    const unsigned Piece = 50000;
    const unsigned long long bytes = streamBytes(32ull << 20) / 16;
    std::atomic<bool> ready{false};
    std::vector<std::thread> threads;
    std::vector<Counted> sent(senders);
    std::map<unsigned, Counted> received;
    std::thread receiver([&] {
        runAttached(
            [&] {
                ready = true;
                DatachannelGroup group;
                std::vector<Datachannel> channels;
                std::map<unsigned, DatachannelRequest> requests;
                std::map<unsigned, Sha1> hashes;
                std::vector<unsigned char> space(senders * Piece);
                std::map<unsigned, unsigned char*> memory;
                for (int i = 0; i < senders; ++i) {
                    channels.push_back(accept(boost::make_shared<Deadline>(60)));
                    DatachannelRequest request(channels.back());
                    memory[request.hash()] = space.data() + i * Piece;
                    // Half of them by the byte, half by the buffer.
                    if (i % 2)
                        request.requestBuffer();
                    else
                        request.request(memory[request.hash()], Piece);
                    EXPECT_TRUE(group.add(request));
                    EXPECT_FALSE(group.add(request)) << "one request per channel";
                    requests[request.hash()] = request;
                }
                MsgResult why = eMsgResultOk;
                while (group.size() && group.wait(why)) {
                    for (auto it = requests.begin(); it != requests.end();) {
                        DatachannelRequest& request = it->second;
                        Counted& counted = received[it->first];
                        Extent buffer;
                        if (!request.complete()) {
                            ++it;
                            continue;
                        }
                        if (!request.bufferMode())
                            buffer = Extent(memory[it->first], Piece - request.wanted());
                        else
                            request.getBuffer(buffer);
                        hashes[it->first].addData(buffer);
                        counted.bytes += buffer.size();
                        if (request.result() == Datachannel::eOk) {
                            if (request.bufferMode())
                                request.requestBuffer();
                            else
                                request.request(memory[it->first], Piece);
                            ++it;
                            continue;
                        }
                        counted.ends += request.result() == Datachannel::eEOD;
                        counted.result = request.result();
                        group.remove(request);
                        it = requests.erase(it);
                    }
                }
                EXPECT_EQ(group.size(), 0) << "wait ended with " << why;
                for (auto& item : hashes) {
                    const Extent& digest = item.second.result();
                    received[item.first].hash =
                        QByteArray(reinterpret_cast<const char*>(digest.data()), int(digest.size())).toHex();
                }
            },
            "receiver");
    });
    ASSERT_TRUE(await(ready));
    for (int i = 0; i < senders; ++i)
        threads.emplace_back([&, i] {
            runAttached(
                [&] {
                    Datachannel channel =
                        offer(named("receiver"), Datachannel::sendDetails(Datachannel::IPC, named("receiver")),
                              boost::make_shared<Deadline>(120));
                    sent[i] = sendStream(channel, bytes);
                },
                QStringLiteral("sender%1").arg(i));
        });
    for (std::thread& thread : threads)
        thread.join();
    receiver.join();
    const QByteArray expected = streamHash(bytes);
    ASSERT_EQ(received.size(), size_t(senders));
    for (const auto& item : received) {
        SCOPED_TRACE(item.first);
        EXPECT_EQ(item.second.bytes, bytes);
        EXPECT_EQ(item.second.hash, expected);
        EXPECT_EQ(item.second.ends, 1);
    }
}

} // namespace
