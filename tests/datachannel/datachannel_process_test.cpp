// Streams between this process and a helper process through the real Hub: a
// gigabyte whole and in order, and an end killed in mid-stream, which the
// other end hears of as eDown within seconds, never a hang.

#include "dcfixture.h"

#include "tracelines.h"

#include "messaging/msg.h"

#include <boost/make_shared.hpp>

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
            Datachannel channel = accept(boost::make_shared<Deadline>(600));
            ASSERT_TRUE(channel.isValid());
            const Counted counted = receiveStream(channel);
            const Msg report = done.wait(60);
            EXPECT_EQ(counted.bytes, total);
            EXPECT_EQ(counted.ends, 1);
            EXPECT_EQ(counted.hash, streamHash(total));
            EXPECT_EQ(report.getString("Hash").toLatin1(), counted.hash);
            EXPECT_EQ(report.getString("Result"), "eOk");
            // Its window and the packets it refills, and nothing that grows
            // with the stream.
            const unsigned long long growth = report.getUint64("PeakKiB") - report.getUint64("StartKiB");
            EXPECT_LT(growth, 24u * 1024) << "KiB";
            RecordProperty("SenderGrowthKiB", QByteArray::number(growth).constData());
            int status = -1;
            EXPECT_TRUE(sender.waitExit(30000, &status));
            EXPECT_EQ(status, 0);
        },
        "tester");
}

TEST_F(Processes, AReceiverKilledInMidStreamTakesTheSenderDown)
{
    runAttached(
        [&] {
            BreviTest::TraceReader trace;
            ChildProcess receiver(HubTest::childProgram(), {"receive", "dcreceiver", "stall"});
            const XmlList details =
                Datachannel::sendDetails(Datachannel::IPC, named("dcreceiver"), Datachannel::Synchronization::Windowed);
            Datachannel channel = offer(named("dcreceiver"), details, boost::make_shared<Deadline>(60));
            ASSERT_TRUE(channel.connected());
            // The window fills and the sender waits for acknowledgements
            // that will never come.
            std::chrono::steady_clock::time_point killed;
            std::thread killer([&] {
                std::this_thread::sleep_for(std::chrono::milliseconds(500));
                receiver.kill(SIGKILL);
                killed = std::chrono::steady_clock::now();
            });
            const Counted counted = sendStream(channel, 0);
            killer.join();
            EXPECT_EQ(counted.result, Datachannel::eDown);
            EXPECT_LT(secondsSince(killed), 10);
            EXPECT_TRUE(trace.saw("The peer has ended"));
        },
        "tester");
}

TEST_F(Processes, ASenderKilledInMidStreamTakesTheReceiverDownAfterWhatCame)
{
    runAttached(
        [&] {
            BreviTest::TraceReader trace;
            ChildProcess sender(HubTest::childProgram(), {"send", "dcsender", "tester", "0", "None"});
            Datachannel channel = accept(boost::make_shared<Deadline>(60));
            ASSERT_TRUE(channel.isValid());
            std::chrono::steady_clock::time_point killed;
            bool kill = true;
            const Counted counted = receiveStream(channel, [&](unsigned long long bytes) {
                if (kill && bytes >= (8u << 20)) {
                    sender.kill(SIGKILL);
                    killed = std::chrono::steady_clock::now();
                    kill = false;
                }
                return false;
            });
            EXPECT_EQ(counted.result, Datachannel::eDown);
            EXPECT_EQ(counted.ends, 0);
            EXPECT_GE(counted.bytes, 8u << 20);
            EXPECT_EQ(counted.hash, streamHash(counted.bytes)) << "what came is the stream's beginning";
            EXPECT_LT(secondsSince(killed), 10);
            EXPECT_TRUE(trace.saw("The sending process has ended"));
        },
        "tester");
}

} // namespace
