// The shared-memory transport between this process and a helper process: a
// stream whole and in order through the ring, Best picking the ring on one
// machine, an end killed in mid-stream noticed within the heartbeat with
// nothing left in /dev/shm, and receive details that do not describe a sound
// area refused before anything in it is touched.

#include "dcfixture.h"

#include "tracelines.h"

#include "core/byteorder.h"
#include "core/sharedmemoryprovider.h"
#include "core/sharedmemoryuser.h"
#include "datachannel/datachannellayout.h"
#include "messaging/msgcatalogue.h"

#include <QFile>

#include <csignal>

using namespace Brevi;
using namespace Brevi::Catalogue;
using namespace DcTest;
using HubTest::ChildProcess;

namespace {

class Memory : public Channels
{
protected:
    // Where the area named in receive details would be, had it a name.
    static QString nameOf(const XmlList& receiveDetails)
    {
        return "/dev/shm/" + SharedMemoryId(receiveDetails, DatachannelKey::MemoryId).id();
    }
};

TEST_F(Memory, BestPicksTheRingOnOneMachineAndAStreamArrivesWholeAndInOrder)
{
    runAttached(
        [&] {
            streamFromPeer("Best", streamBytes(512ull << 20), [](Datachannel& channel) {
                EXPECT_EQ(channel.transport(), Datachannel::Memory);
                EXPECT_FALSE(QFile::exists(nameOf(channel.receiveDetails())));
            });
        },
        "tester");
}

TEST_F(Memory, AnEndKilledInMidStreamTakesTheOtherDownWithinTheHeartbeatLeavingNoName)
{
    runAttached(
        [&] {
            BreviTest::TraceReader trace;
            std::chrono::steady_clock::time_point killed;
            // The sender, killed once 8 MiB have come: what was handed over
            // is read, then the channel is down.
            ChildProcess sender(HubTest::childProgram(), {"send", "dcsender", "tester", "0", "Memory"});
            Datachannel in = accept();
            ASSERT_TRUE(in.isValid());
            const QString name = nameOf(in.receiveDetails());
            const Counted counted = receiveStream(in, [&](unsigned long long bytes) {
                if (bytes >= (8u << 20) && sender.running()) {
                    sender.kill(SIGKILL);
                    killed = std::chrono::steady_clock::now();
                }
                return false;
            });
            EXPECT_EQ(counted.result, Datachannel::eDown);
            EXPECT_EQ(counted.hash, streamHash(counted.bytes)) << "what came is the stream's beginning";
            EXPECT_LT(secondsSince(killed), 3);
            EXPECT_TRUE(trace.saw("The sending process has ended"));
            EXPECT_FALSE(QFile::exists(name)) << "the sender removed the name once attached";
            in.close();

            // The receiver never reads: the ring fills, the sender waits.
            ChildProcess receiver(HubTest::childProgram(), {"stall", "dcreceiver"});
            Datachannel out =
                offer(named("dcreceiver"), Datachannel::sendDetails(Datachannel::Memory, named("dcreceiver")));
            ASSERT_TRUE(out.connected());
            std::thread killer([&] {
                std::this_thread::sleep_for(std::chrono::milliseconds(500));
                receiver.kill(SIGKILL);
                killed = std::chrono::steady_clock::now();
            });
            EXPECT_EQ(sendStream(out, 0).result, Datachannel::eDown);
            killer.join();
            EXPECT_LT(secondsSince(killed), 3);
            EXPECT_TRUE(trace.saw("The peer has ended"));
        },
        "tester");
}

TEST_F(Memory, ReceiveDetailsOfNoSoundAreaAreRefusedWithTheirReason)
{
    runAttached(
        [&] {
            XmlList send =
                Datachannel::sendDetails(Datachannel::Memory, MsgAddress(), Datachannel::Synchronization(), 100, 1);
            send.set(DatachannelKey::PeerAddress, named("elsewhere").toXml());
            XmlList zero = send.clone();
            zero.set(DatachannelKey::ShmBufferSize, 0u);
            BreviTest::TraceReader trace;
            EXPECT_FALSE(Datachannel(never(), zero).isValid());
            EXPECT_TRUE(trace.saw("Invalid buffer size supplied"));

            Datachannel in(never(), send);
            ASSERT_TRUE(in.isValid());
            const XmlList sound = in.receiveDetails();
            // A buffer of 100 takes 104 bytes, and a table of one entry 16.
            EXPECT_EQ(SharedMemoryUser(SharedMemoryId(sound, DatachannelKey::MemoryId)).size(),
                      DatachannelShmLayout::areaSize(100, 1));
            EXPECT_EQ(DatachannelShmLayout::areaSize(100, 1), 16u + 104u + DatachannelShmLayout::SyncSize);

            SharedMemoryProvider small(64);
            struct Case {
                const char* expected;
                std::function<void(XmlList&)> spoil;
            };
            const std::vector<Case> cases = {
                {"No process id supplied", [](XmlList& d) { d.remove(DatachannelKey::ProcessId); }},
                {"No receive handle supplied", [](XmlList& d) { d.remove(DatachannelKey::ReceiveHandle); }},
                {"Invalid send channel count size supplied",
                 [](XmlList& d) { d.set(DatachannelKey::ShmBufferCount, 0u); }},
                {"Failed to attach to shared memory",
                 [](XmlList& d) { d.set(DatachannelKey::MemoryId, SharedMemoryId("no such area", 4096).toXml()); }},
                {"area of 64 bytes", [&](XmlList& d) { d.set(DatachannelKey::MemoryId, small.id().toXml()); }},
                {"semaphores at", [](XmlList& d) { d.set(DatachannelKey::SendHandle, 8u); }},
                {"Failed to get handle to other process",
                 [](XmlList& d) { d.set(DatachannelKey::ProcessId, 0x7ffffff0u); }},
            };
            for (const Case& c : cases) {
                XmlList spoilt = sound.clone();
                c.spoil(spoilt);
                EXPECT_FALSE(Datachannel(never(), spoilt).isValid()) << c.expected;
                EXPECT_TRUE(trace.saw(c.expected));
            }
            // A block table pointing outside the area.
            SharedMemoryUser area(SharedMemoryId(sound, DatachannelKey::MemoryId));
            ByteOrder::store32(area.address(), 0xFFFFFF00u);
            EXPECT_FALSE(Datachannel(never(), sound).isValid());
            EXPECT_TRUE(trace.saw("block 0 at offset 4294967040"));
        },
        "tester");
}

} // namespace
