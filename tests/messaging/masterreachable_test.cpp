// Following the master's reachability from the Node manager's state posts: a
// stand-in for the Node manager runs on a thread of its own and posts the
// states the test scripts, the way the real one would after a subscription.
// One case runs over the real Hub, to see the subscription come and go.

#include "core/context.h"
#include "messaging/managemsghandlers.h"
#include "messaging/masterreachable.h"
#include "messaging/msg.h"
#include "messaging/msgcatalogue.h"
#include "messaging/threadcomms.h"

#include "testhome.h"
#include "threadcontexts.h"
#ifdef HUB_PATH
#include "hubtest.h"
#include "messaging/msgpacket.h"
#endif

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include <atomic>
#include <memory>
#include <thread>

using namespace Brevi;
using namespace BreviTest;

namespace {

const QString StatePost = Catalogue::NodeMgrMasterStatePost::Message;
const QString ScriptPost = "StandInScriptPost";
const QString DonePost = "StandInDonePost";
const QString QuitPost = "StandInQuitPost";
const QString DelayKey = "DelayMs";

ThreadComms gLink;

// The Node manager's stand-in: for each script post it waits as long as the
// script says, posts the master state the script holds to whoever sent it,
// and then says it is done. The state post travels ahead of the done post on
// the same queue, so a test that has the done post knows the state post has
// been through its handlers.
void nodeManagerStandIn()
{
    ThreadComms link = gLink;
    if (!link.connect())
        return;
    ManageMsgHandlers handlers;
    handlers.add(ScriptPost, handler([](const Msg& script) {
                     XmlList body = script.body().clone();
                     unsigned delay = 0;
                     if (body.get(delay, DelayKey)) {
                         body.remove(DelayKey);
                         Context::sleep(delay);
                     }
                     Msg(script.source(), StatePost, body).send();
                     Msg(script.source(), DonePost).send();
                     return eMsgResultHandled;
                 }));
    Msg::wait(QuitPost, link.address(), 60);
    link.disconnect();
}

// The stand-in's thread, connected, for the life of one test body.
class StandIn
{
public:
    StandIn()
    {
        gLink = ThreadComms("node manager");
        moThread = std::make_unique<WorkerThread>(nodeManagerStandIn, "NodeManager");
        const Msg hello = Msg::wait(Catalogue::MsgConnectedPost::Message, 10);
        EXPECT_TRUE(hello) << "stand-in did not connect, lastError " << hello.lastError();
        moAddress = hello.source();
    }
    ~StandIn()
    {
        Msg(moAddress, QuitPost).send();
        moThread->join();
    }

    // Has the stand-in post a state, and waits until it has been handled.
    bool post(const QString& state, const QString& master = QString(), bool authorized = true)
    {
        return script(state, master, authorized, -1) && Msg::wait(DonePost, moAddress, 10);
    }
    // The same, posted after `delayMs`; the caller waits for it as it likes.
    bool script(const QString& state, const QString& master, bool authorized, int delayMs)
    {
        XmlList body;
        body.set(Catalogue::NodeMgrMasterStatePost::Master, master);
        body.set(Catalogue::NodeMgrMasterStatePost::Authorized, authorized);
        body.set(Catalogue::NodeMgrMasterStatePost::State, state);
        if (delayMs >= 0)
            body.set(DelayKey, unsigned(delayMs));
        return Msg(moAddress, ScriptPost, body).send();
    }

private:
    std::unique_ptr<WorkerThread> moThread;
    MsgAddress moAddress;
};

// A callback that counts its calls, and those made while `watched` said
// reachable.
MasterReachable::Callback counter(int& calls, int* reachableCalls = nullptr,
                                  const MasterReachable* const* watched = nullptr)
{
    return boost::make_shared<boost::function<void()>>([&calls, reachableCalls, watched] {
        ++calls;
        if (reachableCalls && *watched && **watched)
            ++*reachableCalls;
    });
}

} // namespace

TEST(MasterReachable, OneCallbackPerChangeOfReachability)
{
    TestHome home;
    ASSERT_TRUE(runStandalone(
        [] {
            StandIn nodeManager;
            // An older handler of the post still sees it.
            int seenByOthers = 0;
            ManageMsgHandlers handlers;
            handlers.add(StatePost, handler([&seenByOthers](const Msg&) {
                             ++seenByOthers;
                             return eMsgResultHandled;
                         }));
            int calls = 0, reachableCalls = 0;
            const MasterReachable* watched = nullptr;
            MasterReachable master(counter(calls, &reachableCalls, &watched));
            watched = &master;
            // The thread's ring is small: lines are checked soon after.
            Trace::setLevel(TraceNormal, unsigned(TraceModuleMsg));

            // Before the master is named and trusted there is no news: a
            // name alone is taken, and a loss while never reachable is none.
            TraceReader trace;
            ASSERT_TRUE(nodeManager.post("Authorized", QString()));
            EXPECT_TRUE(master.master().fullName().isEmpty());
            EXPECT_EQ(trace.nextTexts().filter("master has no name yet").size(), 1);
            ASSERT_TRUE(nodeManager.post("Connected", "rules@0000", false));
            EXPECT_EQ(master.master().fullName(), "rules@0000");
            ASSERT_TRUE(nodeManager.post("Unavailable"));
            EXPECT_FALSE(master);
            EXPECT_EQ(calls, 0);

            ASSERT_TRUE(nodeManager.post("Connected", "rules@0001"));
            EXPECT_TRUE(master);
            EXPECT_EQ(master.master().fullName(), "rules@0001");
            EXPECT_EQ(calls, 1);
            EXPECT_EQ(reachableCalls, 1) << "the callback sees the new state";

            // The same news, a state that says nothing, and an unnamed or
            // untrusted report are no change.
            for (const QString& state : {"Connected", "Authorized", "Connecting", "Disconnecting"})
                ASSERT_TRUE(nodeManager.post(state, "rules@0001"));
            ASSERT_TRUE(nodeManager.post("Authorized", QString()));
            ASSERT_TRUE(nodeManager.post("Connected", "rules@0001", false));
            EXPECT_TRUE(master);
            EXPECT_EQ(calls, 1);
            EXPECT_EQ(master.state(), "Connected");

            // Each of the three lost states loses it; only the first is a
            // change, and its callback sees it lost.
            trace = TraceReader();
            for (const QString& state : {"Unavailable", "Unauthorized", "Unknown"})
                ASSERT_TRUE(nodeManager.post(state));
            EXPECT_FALSE(master);
            EXPECT_EQ(calls, 2);
            EXPECT_EQ(reachableCalls, 1);
            EXPECT_EQ(master.master().fullName(), "rules@0001") << "the last master's name stays";
            int lost = 0, called = 0;
            for (const TracedLine& line : trace.next()) {
                lost += line.text.contains("master not reachable") && line.level == TraceAlways;
                called += line.text.contains("Calling master state callback");
            }
            EXPECT_EQ(lost, 3);
            EXPECT_EQ(called, 1);

            // Found again under another name.
            ASSERT_TRUE(nodeManager.post("Authorized", "rules@0002"));
            EXPECT_TRUE(master);
            EXPECT_EQ(master.master().fullName(), "rules@0002");
            EXPECT_EQ(calls, 3);
            EXPECT_EQ(seenByOthers, 14);
        },
        "Watcher"));
}

TEST(MasterReachable, WaitIsTrueAtOnceWhenReachableOtherwiseUntilTheNewsOrTheEnd)
{
    TestHome home;
    ASSERT_TRUE(runStandalone(
        [] {
            StandIn nodeManager;
            int calls = 0;
            MasterReachable master(counter(calls));

            // Nothing comes: the time runs out.
            EXPECT_FALSE(master.wait(0));
            EXPECT_FALSE(master.wait(1));

            // Posts come while the wait runs, the last one the news: the
            // caller learns it from the result, not from the callback.
            ASSERT_TRUE(nodeManager.script("Unknown", QString(), false, 0));
            ASSERT_TRUE(nodeManager.script("Authorized", QString(), true, 0));
            ASSERT_TRUE(nodeManager.script("Connected", "rules@0001", true, 200));
            EXPECT_TRUE(master.wait(10));
            EXPECT_EQ(master.state(), "Connected");
            EXPECT_EQ(calls, 0);
            // The wait passed over the done posts of the first two, which
            // have no handler; the last one is still to come.
            ASSERT_TRUE(Msg::wait(DonePost, 10));

            // Reachable: no post is needed, and none is waiting.
            EXPECT_TRUE(master.wait(0));
            EXPECT_TRUE(master.wait(-1));

            // The standing handler is back after the wait.
            ASSERT_TRUE(nodeManager.post("Unavailable"));
            EXPECT_FALSE(master);
            EXPECT_EQ(calls, 1);

            // A handler that ends the waits of its thread ends this one too.
            ManageMsgHandlers handlers;
            handlers.add("StopPost", handler([](const Msg&) { return eMsgResultExit; }));
            ASSERT_TRUE(Msg(Context::address(), "StopPost").send());
            EXPECT_FALSE(master.wait(10));
        },
        "Watcher"));
}

TEST(MasterReachable, CopiesAreSnapshotsAndTheDestroyedHearNothing)
{
    TestHome home;
    ASSERT_TRUE(runStandalone(
        [] {
            StandIn nodeManager;
            int calls = 0;
            auto master = std::make_unique<MasterReachable>(counter(calls));
            ASSERT_TRUE(nodeManager.post("Connected", "rules@0001"));
            MasterReachable copy;
            copy = *master;
            EXPECT_EQ(copy.master().fullName(), "rules@0001");

            // Only the original follows, and calls back once.
            ASSERT_TRUE(nodeManager.post("Unavailable"));
            EXPECT_FALSE(*master);
            EXPECT_TRUE(copy);
            EXPECT_EQ(calls, 2);

            // Destroyed, it is off the handler list.
            master.reset();
            ASSERT_TRUE(nodeManager.post("Connected", "rules@0001"));
            EXPECT_EQ(calls, 2);

            // A second subscription replaces the callback.
            MasterReachable again(counter(calls));
            int otherCalls = 0;
            again.callback(counter(otherCalls));
            ASSERT_TRUE(nodeManager.post("Connected", "rules@0003"));
            EXPECT_EQ(calls, 2);
            EXPECT_EQ(otherCalls, 1);
        },
        "Watcher"));
}

TEST(MasterReachable, AThreadWithoutMessagingNeverHearsAndNeverWaits)
{
    TestHome home;
    static bool waited = true;
    static QStringList lines;
    ASSERT_TRUE(Context::run(
        [] {
            TraceReader trace;
            int calls = 0;
            MasterReachable master(counter(calls));
            waited = master.wait(1);
            lines = trace.nextTexts();
        },
        Context::Type(7), 0, "Plain"));
    EXPECT_FALSE(waited);
    EXPECT_EQ(lines.filter("Cannot register for the master state").size(), 1) << lines.join('\n').toStdString();
}

#ifdef HUB_PATH
// Over the real Hub, with the Node manager a scripted process attached under
// its well-known name and group: the subscription reaches it at that logical
// address, its post reaches the subscriber, and the subscriber takes the
// subscription back on its way out.

namespace {
std::atomic<bool> gOverHubWaited{false};
QString gOverHubMaster;
} // namespace

class MasterReachableOverTheHub : public HubTest::HubFixture
{};

TEST_F(MasterReachableOverTheHub, SubscribesAtTheNodeManagerAndUnsubscribesOnItsWay)
{
    using namespace Catalogue;
    startHub();
    std::unique_ptr<HubTest::HubClient> nodeManager = started("Node manager", NodeManagerService, NodeManagerService);
    ASSERT_TRUE(nodeManager);
    qputenv("BREVI_HUB_PORT", QByteArray::number(port()));

    std::thread watcher([] {
        Context::run(
            [] {
                MasterReachable master(boost::make_shared<boost::function<void()>>([] {}));
                gOverHubWaited = master.wait(30);
                gOverHubMaster = master.master().fullName();
            },
            Context::TypeAttached, Context::FlagAttachOnce, "Watcher");
    });

    const auto subscription = nodeManager->wait(NodeMgrRegisterNotifyMasterStatePost::Message, 20000);
    EXPECT_TRUE(subscription);
    if (subscription) {
        XmlList state;
        state.set(NodeMgrMasterStatePost::Master, QStringLiteral("rules@0001"));
        state.set(NodeMgrMasterStatePost::Authorized, true);
        state.set(NodeMgrMasterStatePost::State, QStringLiteral("Connected"));
        // The flat text is a view on the address's bytes: keep the address.
        const MsgAddress source(subscription->source());
        const QByteArray subscriber = source.binary().text().toQByteArray();
        EXPECT_TRUE(nodeManager->send(subscriber, NodeMgrMasterStatePost::Message, state));
        EXPECT_TRUE(nodeManager->wait(NodeMgrUnregisterNotifyMasterStatePost::Message, 20000));
    }
    watcher.join();
    EXPECT_TRUE(gOverHubWaited);
    EXPECT_EQ(gOverHubMaster, "rules@0001");
}
#endif
