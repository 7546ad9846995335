// Streams between attached contexts of this process (threads, each with a
// Hub link of its own) through the real Hub: whole and in order, held to the
// throttle, and many at once into one group.

#include "dcfixture.h"

#include "core/extent.h"
#include "datachannel/datachannelgroup.h"
#include "messaging/msg.h"

#include <vector>

using namespace Brevi;
using namespace DcTest;
using Sync = Datachannel::Synchronization;
using Compress = Datachannel::Compression;

namespace {

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
    Attached receiver("receiver", [&] {
        for (Counted& counted : received) {
            MsgAddress sender;
            Datachannel channel = accept(&sender);
            counted = receiveStream(channel);
            Msg(sender, Done).send(true);
        }
    });
    std::vector<Counted> sent;
    runAttached(
        [&] {
            for (const Case& c : cases) {
                Datachannel channel = offer(
                    named("receiver"), Datachannel::sendDetails(Datachannel::IPC, named("receiver"), c.synchronization,
                                                                c.bufferSize, c.bufferCount, c.compression));
                EXPECT_TRUE(channel.connected());
                sent.push_back(sendStream(channel, c.bytes));
                // The receiver takes no offer while it reads.
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

TEST_F(Streams, TheThrottleHoldsTheRateItIsSet)
{
    const unsigned rate = 1000000;
    const unsigned long long total = 4ull * rate;
    Counted received;
    Attached receiver("receiver", [&] {
        Datachannel channel = accept();
        received = receiveStream(channel);
    });
    double seconds = 0;
    runAttached(
        [&] {
            Datachannel channel = offer(
                named("receiver"), Datachannel::sendDetails(Datachannel::IPC, named("receiver"), Sync::None, 10000));
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
    EXPECT_NEAR(double(total - rate) / seconds, rate, rate * 0.05) << seconds << " s";
}

TEST_F(Streams, AGroupServesSixteenSendersByteAndBufferRequestsAlike)
{
    const int senders = 16;
    const unsigned piece = 50000;
    const unsigned long long bytes = streamBytes(32ull << 20) / senders;
    std::vector<Counted> received(senders);
    Attached receiver("receiver", [&] {
        struct Stream {
            Datachannel channel;
            DatachannelRequest request;
            std::vector<unsigned char> memory;
            Sha1 sha;
        };
        std::vector<Stream> streams(senders);
        DatachannelGroup group;
        for (int i = 0; i < senders; ++i) {
            Stream& stream = streams[size_t(i)];
            stream.channel = accept();
            stream.memory.resize(piece);
            stream.request.datachannel(stream.channel);
            // Half of them by the byte, half by the buffer.
            i % 2 ? stream.request.requestBuffer() : stream.request.request(stream.memory.data(), piece);
            EXPECT_TRUE(group.add(stream.request));
            EXPECT_FALSE(group.add(stream.request)) << "one request per channel";
        }
        MsgResult why = eMsgResultOk;
        while (group.size() && group.wait(why))
            for (int i = 0; i < senders; ++i) {
                Stream& stream = streams[size_t(i)];
                DatachannelRequest& request = stream.request;
                if (!request.complete())
                    continue;
                Extent got = request.bufferMode() ? Extent() : Extent(stream.memory.data(), piece - request.wanted());
                request.getBuffer(got);
                stream.sha.addData(got);
                received[size_t(i)].bytes += got.size();
                if (request.result() == Datachannel::eOk) {
                    request.bufferMode() ? request.requestBuffer() : request.request(stream.memory.data(), piece);
                } else {
                    received[size_t(i)].ends += request.result() == Datachannel::eEOD;
                    group.remove(request);
                    request = DatachannelRequest();
                }
            }
        EXPECT_EQ(group.size(), 0) << "wait ended with " << why;
        for (int i = 0; i < senders; ++i)
            received[size_t(i)].hash = digest(streams[size_t(i)].sha);
    });
    std::vector<std::unique_ptr<Attached>> sending;
    for (int i = 0; i < senders; ++i)
        sending.emplace_back(new Attached(QStringLiteral("sender%1").arg(i), [&] {
            Datachannel channel =
                offer(named("receiver"), Datachannel::sendDetails(Datachannel::IPC, named("receiver")));
            sendStream(channel, bytes);
        }));
    sending.clear();
    receiver.join();
    for (const Counted& counted : received) {
        EXPECT_EQ(counted.bytes, bytes);
        EXPECT_EQ(counted.hash, streamHash(bytes));
        EXPECT_EQ(counted.ends, 1);
    }
}

} // namespace
