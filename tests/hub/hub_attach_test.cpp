// A process's start with the Hub: attach, trace buffer, enable; the ids and
// names the Hub gives out and refuses; monitored processes.

#include "hubtest.h"

#include "core/sharedmemoryuser.h"
#include "core/xmllistiterator.h"
#include "messaging/msgaddress.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msgpacket.h"

using namespace Brevi;
using namespace Brevi::Catalogue;
using namespace HubTest;

namespace {

class HubAttach : public HubFixture
{};

// The monitor reply's entry for a title, or an invalid list.
bool findEntry(HubClient& monitor, const QString& title, XmlList& found)
{
    const boost::shared_ptr<MsgPacket> reply =
        monitor.request(monitor.manager(), HubMgrMonitorRequest::Message, XmlList(), HubMgrMonitorReply::Message);
    if (!reply)
        return false;
    const XmlList body = reply->xml();
    for (XmlListIterator it = body.first("Entry"); !it.isNull(); it.next("Entry")) {
        XmlList entry;
        QString entryTitle;
        if (body.get(entry, it) && entry.get(entryTitle, HubMgrMonitorReply::Title) && entryTitle == title) {
            found = entry;
            return true;
        }
    }
    return false;
}

} // namespace

TEST_F(HubAttach, ReplyGivesIdentityBufferAndEnable)
{
    startHub({"--trace-buffer-size", "256K"});
    std::unique_ptr<HubClient> first = connect();
    ASSERT_TRUE(first->attach("first"));
    EXPECT_GE(first->processId(), 16u);
    EXPECT_EQ(first->machine().fullName(), machine());
    EXPECT_EQ(first->attachPacket()->source().text().toQByteArray(), "1/1/" + machine().toUtf8());
    EXPECT_TRUE(first->attachReply().first(HubMgrAttachReply::ParentAddress).isNull());

    const SharedMemoryId id = first->traceBuffer();
    ASSERT_TRUE(id);
    EXPECT_EQ(id.size(), 256u * 1024);
    const SharedMemoryUser buffer(id);
    ASSERT_TRUE(buffer);
    EXPECT_EQ(buffer.size(), 256u * 1024);

    ASSERT_TRUE(first->send("3/1", HubMgrConnectionEnableRequest::Message));
    const boost::shared_ptr<MsgPacket> enabled = first->wait(HubRtrConnectionEnableReply::Message, 5000);
    ASSERT_TRUE(enabled);
    EXPECT_EQ(enabled->source().text().toQByteArray(), "1/2/" + machine().toUtf8());

    // A second process gets an id of its own and a buffer of its own.
    std::unique_ptr<HubClient> second = started("second");
    EXPECT_NE(second->processId(), first->processId());
}

TEST_F(HubAttach, NamesAreUniqueAndTheLogDaemonGetsItsWellKnownId)
{
    startHub();
    std::unique_ptr<HubClient> logDaemon = started("log daemon", "LogDaemonLocal");
    EXPECT_EQ(logDaemon->processId(), 8u);

    // Same name, no group: refused with a reply that has no ProcessId, and
    // the link is closed.
    std::unique_ptr<HubClient> impostor = connect();
    EXPECT_FALSE(impostor->attach("impostor", "LogDaemonLocal"));
    EXPECT_EQ(impostor->attachReply().size(), 1);
    EXPECT_TRUE(impostor->waitClosed(5000));

    std::unique_ptr<HubClient> service = started("service", "svc", "g1");
    std::unique_ptr<HubClient> twin = connect();
    EXPECT_FALSE(twin->attach("twin", "svc", "g1"));
    EXPECT_TRUE(started("other group", "svc", "g2")->processId());
    EXPECT_TRUE(started("no group", "svc")->processId());

    std::unique_ptr<HubClient> strange = connect();
    EXPECT_FALSE(strange->attach("strange", QString(), QString(), "Detached"));

    // Once the log daemon has gone, its name and id are free again.
    logDaemon->close();
    unsigned id = 0;
    for (unsigned long long end = steadyMs() + 5000; !id && steadyMs() < end;) {
        std::unique_ptr<HubClient> next = connect();
        if (next->attach("log daemon again", "LogDaemonLocal"))
            id = next->processId();
    }
    EXPECT_EQ(id, 8u);
}

TEST_F(HubAttach, MonitoredProcessDropsItsLinkAndIsWatchedUntilItEnds)
{
    startHub();
    std::unique_ptr<HubClient> watcher = started("watcher");
    ChildProcess child(childProgram(), {"monitored"}, {"BREVI_HUB_PORT=" + QString::number(port())});

    XmlList entry;
    QString state;
    for (unsigned long long end = steadyMs() + 10000; state != "Detached" && steadyMs() < end;)
        if (findEntry(*watcher, "monitored child", entry))
            entry.get(state, HubMgrMonitorReply::State);
    ASSERT_EQ(state, "Detached");
    unsigned id = 0;
    ASSERT_TRUE(entry.get(id, HubMgrMonitorReply::ProcessId));
    XmlList watch;
    watch.set(HubRtrRegisterNotifyOnExitPost::Address, MsgAddress(MachineName(machine()), id).toXml());
    ASSERT_TRUE(watcher->send(watcher->router(), HubRtrRegisterNotifyOnExitPost::Message, watch));
    EXPECT_FALSE(watcher->wait(HubRtrProcessExitedPost::Message, 300));

    child.kill(SIGKILL);
    const boost::shared_ptr<MsgPacket> exited = watcher->wait(HubRtrProcessExitedPost::Message, 5000);
    ASSERT_TRUE(exited);
    XmlList address;
    ASSERT_TRUE(exited->xml().get(address, HubRtrProcessExitedPost::Address));
    EXPECT_EQ(MsgAddress(address).id(), id);
}

TEST_F(HubAttach, LinkThatDoesNotAttachInTimeIsDropped)
{
    startHub({"--attach-timeout", "300"});
    std::unique_ptr<HubClient> silent = connect();
    EXPECT_TRUE(silent->waitClosed(5000));
    // Messages before attach are not answered.
    std::unique_ptr<HubClient> early = connect();
    ASSERT_TRUE(early->send("3/1", HubMgrMonitorRequest::Message));
    EXPECT_FALSE(early->wait(HubMgrMonitorReply::Message, 200));
}
