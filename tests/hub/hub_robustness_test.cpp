// Links that misbehave: each costs only itself, its watchers are told, and
// the Hub serves everyone else.

#include "hubtest.h"

#include "core/byteorder.h"
#include "messaging/binaryaddress.h"
#include "messaging/ipcpacketlayout.h"
#include "messaging/msgaddress.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msgpacket.h"
#include "sockets/tcpsocketdata.h"

#include <QFile>
#include <QThread>

#include <boost/make_shared.hpp>

#include <vector>

#include <sys/resource.h>

using namespace Brevi;
using namespace Brevi::Catalogue;
using namespace HubTest;

namespace {

class HubRobustness : public HubFixture
{
protected:
    void watchExit(HubClient& watcher, const HubClient& process)
    {
        XmlList body;
        body.set(HubRtrRegisterNotifyOnExitPost::Address,
                 MsgAddress(MachineName(machine()), process.processId()).toXml());
        ASSERT_TRUE(watcher.send(watcher.router(), HubRtrRegisterNotifyOnExitPost::Message, body));
        // Taken before the test goes on (a reply on the same link).
        ASSERT_TRUE(served(watcher));
    }

    static bool served(HubClient& client)
    {
        return bool(
            client.request(client.manager(), HubMgrMonitorRequest::Message, XmlList(), HubMgrMonitorReply::Message));
    }
};

// A message of exactly `size` bytes, the cookie making up the difference.
boost::shared_ptr<MsgPacket> sized(const QByteArray& to, const QByteArray& from, unsigned size)
{
    const auto make = [&](int pad) {
        return boost::make_shared<MsgPacket>(BinaryAddress(Extent(to)), BinaryAddress(Extent(from)), QByteArray(),
                                             "Sized", QString(pad, 'c'), XmlList(), 0, false);
    };
    return make(int(size - make(0)->size()));
}

// A copy of a packet's bytes, which outlives the packet.
QByteArray bytesOf(const IpcPacket& packet)
{
    const Extent bytes = packet.buffer();
    return QByteArray(reinterpret_cast<const char*>(bytes.data()), int(bytes.size()));
}

} // namespace

TEST_F(HubRobustness, BrokenStreamsEndOnlyTheirOwnLink)
{
    startHub();
    std::unique_ptr<HubClient> watcher = started("watcher");
    const QList<QPair<const char*, QByteArray>> cases = {
        {"garbage", QByteArray("this is not a packet at all")},
        {"bad magic", packetHeader(0x12345678, 40) + QByteArray(32, 'x')},
        {"too small", packetHeader(IpcPacketLayout::MessageMagic, 8)},
        {"too big", packetHeader(IpcPacketLayout::MessageMagic, 0x7FFFFFFF)},
        {"truncated", packetHeader(IpcPacketLayout::MessageMagic, 1000) + QByteArray(100, 'x')},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.first);
        std::unique_ptr<HubClient> victim = started(item.first);
        watchExit(*watcher, *victim);
        ASSERT_TRUE(victim->sendRaw(item.second));
        if (QByteArray(item.first) == "truncated")
            victim->close();
        else
            EXPECT_TRUE(victim->waitClosed(5000));
        EXPECT_TRUE(watcher->wait(HubRtrProcessExitedPost::Message, 5000));
        EXPECT_TRUE(served(*watcher));
    }

    // A packet that frames but whose fields do not: dropped, the link stays.
    std::unique_ptr<HubClient> sloppy = started("sloppy");
    ASSERT_TRUE(sloppy->sendRaw(packetHeader(IpcPacketLayout::MessageMagic, 16) + QByteArray("3/1\0abc", 8)));
    EXPECT_TRUE(served(*sloppy));
}

TEST_F(HubRobustness, AProcessThatNeverReadsIsDroppedAndItsSendersGoOn)
{
    startHub({"--pause-queue", "64K", "--max-queue", "1M", "--stall-timeout", "1000"});
    std::unique_ptr<HubClient> watcher = started("watcher");
    std::unique_ptr<HubClient> sink = started("sink");
    std::unique_ptr<HubClient> flood = started("flood");
    watchExit(*watcher, *sink);

    XmlList body;
    body.set("Value", QString(8000, 'f'));
    bool dropped = false;
    for (unsigned long long end = steadyMs() + 30000; !dropped && steadyMs() < end;) {
        flood->send(sink->address(), "Flood", body);
        dropped = bool(watcher->wait(HubRtrProcessExitedPost::Message, 0));
    }
    EXPECT_TRUE(dropped);
    // The sender is read again, and is told where its messages went.
    EXPECT_TRUE(flood->wait(HubRtrUndeliverableMessagePost::Message, 10000));
    EXPECT_TRUE(served(*flood));
}

TEST_F(HubRobustness, AQueueOverItsLimitEndsTheLinkAtOnce)
{
    // Long before the stall time: many senders, one message each, so that
    // pausing them does not keep the queue down.
    startHub({"--max-packet", "1M", "--max-queue", "1M", "--pause-queue", "64K", "--stall-timeout", "60000"});
    std::unique_ptr<HubClient> watcher = started("watcher");
    std::unique_ptr<HubClient> sink = started("sink");
    watchExit(*watcher, *sink);
    XmlList body;
    body.set("Value", QString(900000, 's'));
    std::vector<std::unique_ptr<HubClient>> senders;
    bool dropped = false;
    for (int i = 0; i < 16 && !dropped; ++i) {
        senders.push_back(started(QStringLiteral("sender %1").arg(i)));
        ASSERT_TRUE(senders.back()->send(sink->address(), "Bulk", body));
        dropped = bool(watcher->wait(HubRtrProcessExitedPost::Message, 100));
    }
    EXPECT_TRUE(dropped || watcher->wait(HubRtrProcessExitedPost::Message, 5000));
    // Those held back for the sink are read again.
    for (const std::unique_ptr<HubClient>& sender : senders)
        EXPECT_TRUE(served(*sender));
}

TEST_F(HubRobustness, ALinkThatAsksWithoutReadingIsDropped)
{
    startHub({"--pause-queue", "64K", "--max-queue", "1M", "--stall-timeout", "1000"});
    std::unique_ptr<HubClient> watcher = started("watcher");
    std::unique_ptr<HubClient> greedy = started("greedy");
    watchExit(*watcher, *greedy);
    // Each request is answered with the whole process list; the answers pile
    // up until the Hub stops reading and gives the link up.
    for (unsigned long long end = steadyMs() + 30000; !greedy->closed() && steadyMs() < end;)
        if (!greedy->sendRaw(MsgPacket(BinaryAddress(Extent(QByteArray("3/1"))), BinaryAddress(), QByteArray(),
                                       HubMgrMonitorRequest::Message, QString(), QByteArray(), 0, false)
                                 .buffer()
                                 .toQByteArray()))
            break;
    EXPECT_TRUE(watcher->wait(HubRtrProcessExitedPost::Message, 10000));
    EXPECT_TRUE(served(*watcher));
}

TEST_F(HubRobustness, APacketAboveTheLinksLimitEndsThatLinkOnly)
{
    startHub({"--max-packet", "100000"});
    std::unique_ptr<HubClient> watcher = started("watcher");
    std::unique_ptr<HubClient> receiver = started("receiver");

    // Before enable the limit is 65,536 bytes, whatever the Hub's maximum.
    std::unique_ptr<HubClient> early = connect();
    ASSERT_TRUE(early->attach("early"));
    watchExit(*watcher, *early);
    ASSERT_TRUE(early->sendPacket(sized("3/1", early->address(), 65537)));
    EXPECT_TRUE(early->waitClosed(5000));
    EXPECT_TRUE(watcher->wait(HubRtrProcessExitedPost::Message, 5000));

    // Afterwards the Hub's maximum: a packet of that size goes through whole,
    // one byte more ends the link.
    std::unique_ptr<HubClient> sender = started("sender");
    watchExit(*watcher, *sender);
    const boost::shared_ptr<MsgPacket> largest = sized(receiver->address(), sender->address(), 100000);
    ASSERT_TRUE(sender->sendPacket(largest));
    const boost::shared_ptr<MsgPacket> got = receiver->wait("Sized", 5000);
    ASSERT_TRUE(got);
    EXPECT_EQ(bytesOf(*got), bytesOf(*largest));
    ASSERT_TRUE(sender->sendPacket(sized(receiver->address(), sender->address(), 100001)));
    EXPECT_TRUE(sender->waitClosed(5000));
    EXPECT_TRUE(watcher->wait(HubRtrProcessExitedPost::Message, 5000));
    EXPECT_TRUE(served(*receiver));
}

TEST_F(HubRobustness, APacketLeftUnfinishedEndsItsLinkAfterTheStallTime)
{
    startHub({"--stall-timeout", "1000"});
    std::unique_ptr<HubClient> watcher = started("watcher");
    std::unique_ptr<HubClient> receiver = started("receiver");
    std::unique_ptr<HubClient> slow = started("slow");
    std::unique_ptr<HubClient> stuck = started("stuck");
    std::unique_ptr<HubClient> stuckInHeader = started("stuck in header");
    watchExit(*watcher, *stuck);
    watchExit(*watcher, *stuckInHeader);

    // A packet that comes in pieces, each well within the stall time though
    // the whole takes longer, is delivered.
    const QByteArray whole = bytesOf(*sized(receiver->address(), slow->address(), 4000));
    for (int offset = 0; offset < whole.size(); offset += 1000) {
        ASSERT_TRUE(slow->sendRaw(whole.mid(offset, 1000)));
        QThread::msleep(400);
    }
    const boost::shared_ptr<MsgPacket> got = receiver->wait("Sized", 5000);
    ASSERT_TRUE(got);
    EXPECT_EQ(bytesOf(*got), whole);

    // Half a packet, or half a header, and then nothing: the Hub lets go of
    // the link (and the packet's memory) and tells the watcher.
    ASSERT_TRUE(stuck->sendRaw(bytesOf(*sized(receiver->address(), stuck->address(), 4000)).left(2000)));
    ASSERT_TRUE(stuckInHeader->sendRaw(packetHeader(IpcPacketLayout::MessageMagic, 4000).left(5)));
    EXPECT_TRUE(stuck->waitClosed(10000));
    EXPECT_TRUE(stuckInHeader->waitClosed(10000));
    EXPECT_TRUE(watcher->wait(HubRtrProcessExitedPost::Message, 5000));
    EXPECT_TRUE(watcher->wait(HubRtrProcessExitedPost::Message, 5000));
    EXPECT_FALSE(slow->closed());
    EXPECT_TRUE(served(*slow));
}

TEST_F(HubRobustness, AFloodToAProcessThatReadsLateIsHeldBackNotLostNorHeld)
{
    startHub({"--pause-queue", "64K", "--max-queue", "512M", "--stall-timeout", "60000"});
    std::unique_ptr<HubClient> sink = started("sink");
    std::unique_ptr<HubClient> flood = started("flood");
    std::unique_ptr<HubClient> other = started("other");
    const unsigned long before = statusKiB(mpHub->process().pid(), "VmRSS");
    ASSERT_GT(before, 0u);

    // The sink reads nothing while the flood goes on, until the Hub stops
    // taking the flood (its socket stays full for a second) or the cap.
    const unsigned Cap = 6000;
    XmlList body;
    body.set("Value", QString(16000, 'f'));
    unsigned queued = 0;
    for (unsigned long long moved = steadyMs(); queued < Cap && steadyMs() - moved < 1000;) {
        if (flood->unsent() < 64) {
            body.set("Sequence", queued++);
            ASSERT_TRUE(flood->post(sink->address(), "Flood", body));
            continue;
        }
        const size_t unsent = flood->unsent();
        flood->flush(10);
        if (flood->unsent() < unsent)
            moved = steadyMs();
    }
    EXPECT_LT(queued, Cap) << "the Hub took everything";
    const unsigned long after = statusKiB(mpHub->process().pid(), "VmRSS");
    EXPECT_LT(after, before + 32 * 1024) << "the Hub held the flood: " << before << " KiB, then " << after;
    // Everybody else is served meanwhile.
    EXPECT_TRUE(served(*other));

    // The sink reads: every message comes, in order, and the flood goes on.
    unsigned next = 0;
    bool inOrder = true;
    for (unsigned long long end = steadyMs() + 30000; next < queued && steadyMs() < end;) {
        flood->flush(1);
        const boost::shared_ptr<MsgPacket> message = sink->wait("Flood", 100);
        if (!message)
            continue;
        unsigned sequence = 0;
        inOrder = inOrder && message->xml().get(sequence, "Sequence") && sequence == next;
        ++next;
    }
    EXPECT_EQ(next, queued);
    EXPECT_TRUE(inOrder);
    EXPECT_TRUE(served(*flood));
}

TEST_F(HubRobustness, LinksThatUseUpTheDescriptorsCostOnlyThemselves)
{
    // The Hub runs with few descriptors; a crowd of links that connect and
    // never attach uses them up.
    rlimit saved;
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit few = saved;
    few.rlim_cur = 64;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    mpHub.reset(new HubProcess({"--attach-timeout", "1000"}));
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &saved), 0);
    ASSERT_TRUE(mpHub->ready());

    std::unique_ptr<HubClient> existing = started("existing");
    std::vector<boost::shared_ptr<TCPSocketData>> crowd;
    for (int i = 0; i < 120; ++i) {
        crowd.push_back(boost::make_shared<TCPSocketData>("Crowd", NetAddress(QHostAddress::LocalHost, port())));
        crowd.back()->complete(1000);
    }
    EXPECT_TRUE(served(*existing));

    // The silent links are dropped when their attach time is up, and a new
    // process attaches again.
    std::unique_ptr<HubClient> late;
    for (unsigned long long end = steadyMs() + 20000; steadyMs() < end;) {
        late.reset(new HubClient(port(), 1000));
        if (late->connected() && late->start("late"))
            break;
        late.reset();
        QThread::msleep(200);
    }
    ASSERT_TRUE(late);
    EXPECT_TRUE(served(*late));
    EXPECT_TRUE(served(*existing));
    EXPECT_TRUE(mpHub->process().running());
}
