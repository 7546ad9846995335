// Links that misbehave: each costs only itself, its watchers are told, and
// the Hub serves everyone else.

#include "hubtest.h"

#include "core/byteorder.h"
#include "messaging/ipcpacketlayout.h"
#include "messaging/msgaddress.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msgpacket.h"

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

QByteArray header(unsigned magic, unsigned size)
{
    QByteArray bytes(8, '\0');
    ByteOrder::store32(reinterpret_cast<unsigned char*>(bytes.data()), magic);
    ByteOrder::store32(reinterpret_cast<unsigned char*>(bytes.data()) + 4, size);
    return bytes;
}

} // namespace

TEST_F(HubRobustness, BrokenStreamsEndOnlyTheirOwnLink)
{
    startHub();
    std::unique_ptr<HubClient> watcher = started("watcher");
    const QList<QPair<const char*, QByteArray>> cases = {
        {"garbage", QByteArray("this is not a packet at all")},
        {"bad magic", header(0x12345678, 40) + QByteArray(32, 'x')},
        {"too small", header(IpcPacketLayout::MessageMagic, 8)},
        {"too big", header(IpcPacketLayout::MessageMagic, 0x7FFFFFFF)},
        {"truncated", header(IpcPacketLayout::MessageMagic, 1000) + QByteArray(100, 'x')},
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
    ASSERT_TRUE(sloppy->sendRaw(header(IpcPacketLayout::MessageMagic, 16) + QByteArray("3/1\0abc", 8)));
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
