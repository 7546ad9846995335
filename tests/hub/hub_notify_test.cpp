// Exit and ready notifications.

#include "hubtest.h"

#include "messaging/msgaddress.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msgpacket.h"

using namespace Brevi;
using namespace Brevi::Catalogue;
using namespace HubTest;

namespace {

class HubNotify : public HubFixture
{
protected:
    void SetUp() override { startHub(); }

    void watch(HubClient& watcher, const QString& message, const MsgAddress& address)
    {
        XmlList body;
        body.set(HubRtrRegisterNotifyOnExitPost::Address, address.toXml());
        ASSERT_TRUE(watcher.send(watcher.router(), message, body));
        // A reply on the same link shows the Hub has taken the post, before
        // the test goes on to end the process watched.
        ASSERT_TRUE(watcher.request(watcher.manager(), HubMgrNamedProcessListRequest::Message, XmlList(),
                                    HubMgrNamedProcessListReply::Message));
    }

    static MsgAddress numeric(unsigned id) { return MsgAddress(MachineName(machine()), id); }
    static MsgAddress named(const QString& name) { return MsgAddress(MachineName(machine()), name, QString()); }

    // The address and Success of the next ready post; false if none came.
    static bool readyPost(HubClient& watcher, int ms, MsgAddress& address, bool& success)
    {
        const boost::shared_ptr<MsgPacket> post = watcher.wait(HubRtrProcessReadyPost::Message, ms);
        XmlList list;
        if (!post || !post->xml().get(list, HubRtrProcessReadyPost::Address) ||
            !post->xml().get(success, HubRtrProcessReadyPost::Success))
            return false;
        address = MsgAddress(list);
        return true;
    }

    static MsgAddress exitPost(HubClient& watcher, int ms)
    {
        const boost::shared_ptr<MsgPacket> post = watcher.wait(HubRtrProcessExitedPost::Message, ms);
        XmlList list;
        if (!post || !post->xml().get(list, HubRtrProcessExitedPost::Address))
            return MsgAddress();
        return MsgAddress(list);
    }
};

} // namespace

TEST_F(HubNotify, ExitIsToldWhenALinkClosesWhenItsProcessIsKilledAndAtOnceWhenGone)
{
    std::unique_ptr<HubClient> watcher = started("watcher");
    std::unique_ptr<HubClient> leaving = started("leaving");
    std::unique_ptr<HubClient> kept = started("kept");
    watch(*watcher, HubRtrRegisterNotifyOnExitPost::Message, numeric(leaving->processId()));
    watch(*watcher, HubRtrRegisterNotifyOnExitPost::Message, numeric(kept->processId()));
    watch(*watcher, HubRtrUnregisterNotifyOnExitPost::Message, numeric(kept->processId()));
    kept->close();
    leaving->close();
    EXPECT_EQ(exitPost(*watcher, 5000), numeric(leaving->processId()));
    // The one unregistered is not told.
    EXPECT_FALSE(exitPost(*watcher, 300));

    // One that says it leaves: the Hub closes its link and tells.
    std::unique_ptr<HubClient> detaching = started("detaching");
    watch(*watcher, HubRtrRegisterNotifyOnExitPost::Message, numeric(detaching->processId()));
    ASSERT_TRUE(detaching->send(detaching->router(), HubRtrConnectionDetachPost::Message));
    EXPECT_TRUE(detaching->waitClosed(5000));
    EXPECT_EQ(exitPost(*watcher, 5000), numeric(detaching->processId()));

    // A process killed outright: its link closes with it.
    ChildProcess child(childProgram(), {"attach"},
                       {"BREVI_HUB_PORT=" + QString::number(port()), "BREVI_CONTEXT_NAME=victim"});
    bool listed = false;
    for (unsigned long long end = steadyMs() + 10000; !listed && steadyMs() < end;) {
        const boost::shared_ptr<MsgPacket> list =
            watcher->request(watcher->manager(), HubMgrNamedProcessListRequest::Message, XmlList(),
                             HubMgrNamedProcessListReply::Message);
        listed = list && list->bodyText().contains("victim");
    }
    ASSERT_TRUE(listed);
    watch(*watcher, HubRtrRegisterNotifyOnExitPost::Message, named("victim"));
    child.kill(SIGKILL);
    EXPECT_EQ(exitPost(*watcher, 5000), named("victim"));

    // Nothing by that address: told at once.
    watch(*watcher, HubRtrRegisterNotifyOnExitPost::Message, numeric(999999));
    EXPECT_EQ(exitPost(*watcher, 5000), numeric(999999));
}

TEST_F(HubNotify, ReadyIsToldWhenTheProcessSaysSoOrFailsWhenItEndsFirst)
{
    std::unique_ptr<HubClient> watcher = started("watcher");
    std::unique_ptr<HubClient> slow = connect();
    ASSERT_TRUE(slow->attach("slow", "slow", QString(), "Attached", true));
    ASSERT_TRUE(slow->enable());
    watch(*watcher, HubRtrRegisterNotifyOnReadyPost::Message, named("slow"));
    MsgAddress address;
    bool success = false;
    // It promised to say when it is ready, and has not yet.
    EXPECT_FALSE(readyPost(*watcher, 300, address, success));
    ASSERT_TRUE(slow->send("3/1", HubMgrContextReadyPost::Message));
    ASSERT_TRUE(readyPost(*watcher, 5000, address, success));
    EXPECT_EQ(address, named("slow"));
    EXPECT_TRUE(success);

    // Already ready: told at once. Waiting for a name nobody has yet: told
    // when a process takes it and is enabled.
    watch(*watcher, HubRtrRegisterNotifyOnReadyPost::Message, named("slow"));
    ASSERT_TRUE(readyPost(*watcher, 5000, address, success));
    EXPECT_TRUE(success);
    watch(*watcher, HubRtrRegisterNotifyOnReadyPost::Message, named("later"));
    std::unique_ptr<HubClient> later = started("later", "later");
    ASSERT_TRUE(readyPost(*watcher, 5000, address, success));
    EXPECT_EQ(address, named("later"));
    EXPECT_TRUE(success);

    // One that ends before it is ready.
    std::unique_ptr<HubClient> doomed = connect();
    ASSERT_TRUE(doomed->attach("doomed", "doomed", QString(), "Attached", true));
    watch(*watcher, HubRtrRegisterNotifyOnReadyPost::Message, named("doomed"));
    doomed->close();
    ASSERT_TRUE(readyPost(*watcher, 5000, address, success));
    EXPECT_EQ(address, named("doomed"));
    EXPECT_FALSE(success);

    // A number that names nobody: false at once.
    watch(*watcher, HubRtrRegisterNotifyOnReadyPost::Message, numeric(999999));
    ASSERT_TRUE(readyPost(*watcher, 5000, address, success));
    EXPECT_FALSE(success);
}
