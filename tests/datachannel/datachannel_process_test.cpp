// Streams between this process and a helper process through the real Hub: a
// gigabyte whole and in order, a receiver that reads nothing holding the
// sender to the window, and an end killed in mid-stream, which the other end
// hears of as eDown within seconds, never a hang.

#include "dcfixture.h"

#include "tracelines.h"

#include "core/extent.h"
#include "messaging/msg.h"

#include <csignal>

using namespace Brevi;
using namespace DcTest;
using HubTest::ChildProcess;

namespace {

class Processes : public Channels
{};

TEST_F(Processes, AGigabyteFromAnotherProcessArrivesWholeWithTheSendersMemoryBounded)
{
    const unsigned long long total = streamBytes(1ull << 30);
    runAttached(
        [&] {
            Catch done(Done);
            ChildProcess sender(HubTest::childProgram(),
                                {"send", "dcsender", "tester", QString::number(total), "Windowed"});
            Datachannel channel = accept(nullptr, 60);
            ASSERT_TRUE(channel.isValid());
            const Counted counted = receiveStream(channel);
            const Msg report = done.wait(60);
            EXPECT_EQ(counted.bytes, total);
            EXPECT_EQ(counted.ends, 1);
            EXPECT_EQ(counted.hash, streamHash(total));
            EXPECT_EQ(report.getString("Hash").toLatin1(), counted.hash);
            EXPECT_EQ(report.getString("Result"), "eOk");
            // Its window and the packets it refills, and nothing that grows
            // with the stream (but for the sanitizer's quarantine of what is
            // freed, which does).
            const unsigned long long growth = report.getUint64("GrowthKiB");
#ifndef __SANITIZE_ADDRESS__
            EXPECT_LT(growth, 24u * 1024) << "KiB";
#endif
            RecordProperty("SenderGrowthKiB", QByteArray::number(growth).constData());
            int status = -1;
            EXPECT_TRUE(sender.waitExit(30000, &status));
            EXPECT_EQ(status, 0);
        },
        "tester");
}

TEST_F(Processes, AnEndKilledInMidStreamTakesTheOtherDownWithinSeconds)
{
    runAttached(
        [&] {
            BreviTest::TraceReader trace;
            std::chrono::steady_clock::time_point killed;
            // The receiver reads nothing: exactly the window goes, and the
            // sender waits for acknowledgements that will never come.
            ChildProcess receiver(HubTest::childProgram(), {"stall", "dcreceiver"});
            const unsigned size = 16384;
            const unsigned count = 8;
            Datachannel out = offer(named("dcreceiver"),
                                    Datachannel::sendDetails(Datachannel::IPC, named("dcreceiver"),
                                                             Datachannel::Synchronization::Windowed, size, count));
            ASSERT_TRUE(out.connected());
            std::thread killer([&] {
                std::this_thread::sleep_for(std::chrono::milliseconds(500));
                receiver.kill(SIGKILL);
                killed = std::chrono::steady_clock::now();
            });
            unsigned room = 60 * size;
            const Extent all(streamAt(0, room), room);
            EXPECT_EQ(out.sendPolled(all), Datachannel::eDown);
            killer.join();
            EXPECT_EQ(all.offset(), count * size) << "the window, and not a byte more";
            EXPECT_LT(secondsSince(killed), 10);
            EXPECT_TRUE(trace.saw("The peer has ended"));

            // A sender without a window, killed once 8 MiB have come: what
            // came is read, then the channel is down.
            ChildProcess sender(HubTest::childProgram(), {"send", "dcsender", "tester", "0", "None"});
            Datachannel in = accept();
            ASSERT_TRUE(in.isValid());
            const Counted counted = receiveStream(in, [&](unsigned long long bytes) {
                if (bytes >= (8u << 20) && sender.running()) {
                    sender.kill(SIGKILL);
                    killed = std::chrono::steady_clock::now();
                }
                return false;
            });
            EXPECT_EQ(counted.result, Datachannel::eDown);
            EXPECT_GE(counted.bytes, 8u << 20);
            EXPECT_EQ(counted.hash, streamHash(counted.bytes)) << "what came is the stream's beginning";
            EXPECT_LT(secondsSince(killed), 10);
            EXPECT_TRUE(trace.saw("The sending process has ended"));
        },
        "tester");
}

} // namespace
