// The child manager's protocol inside one process, without a Hub: the
// manager runs in the test's context, and each child, freezer or bystander
// is a context on a thread of its own that keeps what it is sent (Remote).
// What such a party answers is put into the test's own queue with that
// party's address as its source; what the Hub would say (ready, exited) is
// put there the same way. A whole tree through the real Hub is in
// childtree_test.cpp.
#include "processtest.h"

#include "core/context.h"
#include "messaging/msg.h"
#include "messaging/msgcatalogue.h"
#include "messaging/threadcomms.h"
#include "process/child.h"
#include "process/childmanager.h"
#include "process/conditiondone.h"
#include "process/conditionmsgwithcookie.h"

#include <boost/make_shared.hpp>
#include <boost/thread/thread.hpp>

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

using namespace Brevi;
using namespace Brevi::Catalogue;
using BreviTest::TraceReader;
using ProcessTest::inContext;

namespace {

typedef ChildManager::ChildPointer ChildPointer;

// A context on a thread of its own, connected to the test's, that keeps every
// message it is sent until ChildMgrShutdownPost or the end of the object.
class Remote
{
public:
    // Waits until it is connected, unless it is to be a child thread of the
    // manager, which takes its MsgConnectedPost itself.
    explicit Remote(const QString& name, bool wait = true)
        : moComms(name)
    {
        mptThread = boost::make_shared<boost::thread>([this] {
            static thread_local Remote* self;
            self = this;
            Context::run([] { self->serve(); }, Context::TypeStandalone, 0, "remote");
        });
        if (wait)
            moAddress = Msg::wait(MsgConnectedPost::Message, 10).source();
    }
    ~Remote()
    {
        if (moAddress)
            Msg(moAddress, "RemoteStopPost").send();
        if (mptThread->joinable())
            mptThread->join();
    }

    const MsgAddress& address() const { return moAddress; }
    const boost::shared_ptr<boost::thread>& thread() const { return mptThread; }
    const QString& name() const { return moComms.name(); }

    // The next message it was sent, waiting a while for it; invalid if none.
    Msg next()
    {
        std::unique_lock<std::mutex> lock(moMutex);
        moArrived.wait_for(lock, std::chrono::seconds(10), [this] { return !moReceived.isEmpty(); });
        return moReceived.isEmpty() ? Msg() : moReceived.takeFirst();
    }
    // Whether nothing has come, after a moment's wait.
    bool quiet()
    {
        boost::this_thread::sleep_for(boost::chrono::milliseconds(50));
        std::lock_guard<std::mutex> lock(moMutex);
        return moReceived.isEmpty();
    }

    // A message from this party arrives at the test's context.
    void says(const QString& name, const XmlList& body = XmlList(), const QString& cookie = QString()) const
    {
        Msg message(Authorization(), moAddress, Context::address(), name, body);
        message.setCookie(cookie);
        message.send();
    }

private:
    void serve()
    {
        moComms.connect(Log::eNoProxy);
        for (;;) {
            const Msg message = Msg::receive(1);
            if (!message)
                continue;
            if (message.name() == "RemoteStopPost")
                break;
            std::lock_guard<std::mutex> lock(moMutex);
            moReceived.append(message.clone());
            moArrived.notify_all();
            if (message.name() == ChildMgrShutdownPost::Message)
                break;
        }
        moComms.disconnect();
    }

    ThreadComms moComms;
    MsgAddress moAddress;
    boost::shared_ptr<boost::thread> mptThread;
    std::mutex moMutex;
    std::condition_variable moArrived;
    QList<Msg> moReceived;
};

// Runs the handlers of what has arrived; the result of the last.
MsgResult serve() { return Msg::wait(0); }

XmlList with(const QString& key, bool value)
{
    XmlList body;
    body.set(key, value);
    return body;
}

XmlList about(const MsgAddress& address, bool success = true)
{
    XmlList body;
    body.set(HubRtrProcessReadyPost::Address, address.toXml());
    body.set(HubRtrProcessReadyPost::Success, success);
    return body;
}

// The Hub says the child is ready.
void ready(const Remote& child) { child.says(HubRtrProcessReadyPost::Message, about(child.address())); }

ChildPointer childOf(const Remote& remote, Child::WaitForExit wait = Child::eWaitForExit,
                     Child::ShutdownOnExit shutdown = Child::eNoShutdownOnExit)
{
    return boost::make_shared<Child>(remote.name(), remote.address(), wait, Child::eFreezable, shutdown);
}

::testing::AssertionResult isReply(const Msg& message, const QString& name, bool success, const QString& reason)
{
    if (message.name() != name || message.getBool(ChildMgrFreezeReply::Success) != success ||
        message.getString(ChildMgrFreezeReply::Reason) != reason)
        return ::testing::AssertionFailure()
               << message.name().toStdString() << " success " << message.getBool(ChildMgrFreezeReply::Success)
               << " reason '" << message.getString(ChildMgrFreezeReply::Reason).toStdString() << "'";
    return ::testing::AssertionSuccess();
}

TEST(ChildManager, FreezeGoesDownToTheChildrenAndTheAnswerBackUp)
{
    inContext(
        [] {
            Remote freezer("freezer"), other("other"), child("child");
            ChildManager manager;
            manager.initialize(ChildManager::CMStarting);
            QList<int> done;
            ASSERT_TRUE(manager.addMsgHandler("WorkPost", boost::make_shared<MsgHandlerFunction>([&](const Msg& m) {
                                                  if (!manager.deferred(m))
                                                      done << m.getInt32("Seq");
                                                  return eMsgResultHandled;
                                              })));

            freezer.says(ChildMgrFreezeRequest::Message);
            serve();
            EXPECT_TRUE(isReply(freezer.next(), ChildMgrFreezeReply::Message, false, ChildMgrStateStarting));
            const ChildPointer record = childOf(child);
            ASSERT_TRUE(manager.addChild(record));
            EXPECT_TRUE(manager.contextReady());
            // A child still starting could not answer a freeze.
            freezer.says(ChildMgrFreezeRequest::Message);
            serve();
            EXPECT_TRUE(isReply(freezer.next(), ChildMgrFreezeReply::Message, false, ChildMgrStateFailed));
            EXPECT_EQ(manager.state(), ChildManager::CMRunning);

            ready(child);
            freezer.says(ChildMgrFreezeRequest::Message, XmlList(), "f1");
            serve();
            EXPECT_EQ(manager.state(), ChildManager::CMFreezing);
            EXPECT_EQ(record->state(), ChildManager::CMFreezing);
            EXPECT_EQ(child.next().name(), ChildMgrFreezeRequest::Message);
            // The freeze belongs to the first who asked.
            other.says(ChildMgrFreezeRequest::Message);
            for (int seq = 1; seq <= 3; ++seq) {
                XmlList work;
                work.set("Seq", seq);
                Msg(Context::address(), "WorkPost", work).send();
            }
            serve();
            EXPECT_TRUE(isReply(other.next(), ChildMgrFreezeReply::Message, false, ChildMgrStateFreezing));
            EXPECT_TRUE(done.isEmpty());
            EXPECT_FALSE(manager.childrenFrozen());

            child.says(ChildMgrFreezeReply::Message, with(ChildMgrFreezeReply::Success, true));
            serve();
            EXPECT_EQ(record->state(), ChildManager::CMFrozen);
            EXPECT_TRUE(manager.childrenFrozen());
            EXPECT_TRUE(freezer.quiet()) << "frozen is the owner's to say";
            EXPECT_TRUE(manager.frozen());
            const Msg frozen = freezer.next();
            EXPECT_TRUE(isReply(frozen, ChildMgrFreezeReply::Message, true, QString()));
            EXPECT_EQ(frozen.getCookie(), "f1");

            other.says(ChildMgrThawRequest::Message);
            serve();
            EXPECT_TRUE(isReply(other.next(), ChildMgrThawReply::Message, false, ChildMgrStateDidNotFreeze));
            EXPECT_EQ(manager.state(), ChildManager::CMFrozen);
            freezer.says(ChildMgrThawRequest::Message, XmlList(), "t1");
            serve();
            EXPECT_EQ(manager.state(), ChildManager::CMThawing);
            EXPECT_EQ(child.next().name(), ChildMgrThawRequest::Message);
            EXPECT_TRUE(freezer.quiet()) << "the answer waits for the children";
            child.says(ChildMgrThawReply::Message, with(ChildMgrThawReply::Success, true));
            serve();
            EXPECT_EQ(manager.state(), ChildManager::CMRunning);
            const Msg thawed = freezer.next();
            EXPECT_TRUE(isReply(thawed, ChildMgrThawReply::Message, true, QString()));
            EXPECT_EQ(thawed.getCookie(), "t1");
            // What waited is handled now, in the order it came.
            serve();
            EXPECT_EQ(done, (QList<int>{1, 2, 3}));

            freezer.says(ChildMgrThawRequest::Message);
            serve();
            EXPECT_TRUE(isReply(freezer.next(), ChildMgrThawReply::Message, false, ChildMgrStateNotFrozen));
        },
        Context::TypeStandalone);
}

TEST(ChildManager, ARefusalOrTheEndOfTheFreezerUndoesTheFreeze)
{
    inContext(
        [] {
            Remote freezer("freezer"), first("first"), second("second");
            ChildManager manager;
            manager.initialize(ChildManager::CMStarting);
            const ChildPointer one = childOf(first), two = childOf(second);
            manager.addChild(one);
            manager.addChild(two);
            manager.contextReady();
            ready(first);
            ready(second);

            freezer.says(ChildMgrFreezeRequest::Message);
            serve();
            first.says(ChildMgrFreezeReply::Message, with(ChildMgrFreezeReply::Success, true));
            second.says(ChildMgrFreezeReply::Message, with(ChildMgrFreezeReply::Success, false));
            serve();
            // One refusal thaws whoever froze, and the freeze is answered
            // false once all run again.
            EXPECT_EQ(manager.state(), ChildManager::CMThawing);
            EXPECT_EQ(two->state(), ChildManager::CMRunning);
            EXPECT_EQ(first.next().name(), ChildMgrFreezeRequest::Message);
            EXPECT_EQ(first.next().name(), ChildMgrThawRequest::Message);
            first.says(ChildMgrThawReply::Message, with(ChildMgrThawReply::Success, true));
            serve();
            EXPECT_EQ(manager.state(), ChildManager::CMRunning);
            EXPECT_FALSE(manager.freezeSuccessful());
            EXPECT_TRUE(isReply(freezer.next(), ChildMgrFreezeReply::Message, false, QString()));

            // Frozen, and then the one who froze is gone: the tree thaws by
            // itself, and nobody is answered.
            freezer.says(ChildMgrFreezeRequest::Message);
            serve();
            first.says(ChildMgrFreezeReply::Message, with(ChildMgrFreezeReply::Success, true));
            second.says(ChildMgrFreezeReply::Message, with(ChildMgrFreezeReply::Success, true));
            serve();
            ASSERT_TRUE(manager.frozen());
            EXPECT_TRUE(isReply(freezer.next(), ChildMgrFreezeReply::Message, true, QString()));
            XmlList gone;
            gone.set(HubRtrProcessExitedPost::Address, freezer.address().toXml());
            freezer.says(HubRtrProcessExitedPost::Message, gone);
            serve();
            EXPECT_EQ(manager.state(), ChildManager::CMThawing);
            first.says(ChildMgrThawReply::Message, with(ChildMgrThawReply::Success, true));
            second.says(ChildMgrThawReply::Message, with(ChildMgrThawReply::Success, true));
            serve();
            EXPECT_EQ(manager.state(), ChildManager::CMRunning);
            EXPECT_TRUE(freezer.quiet());
        },
        Context::TypeStandalone);
}

TEST(ChildManager, ProtocolBreachesAreTracedAndChangeNothing)
{
    inContext(
        [] {
            Remote freezer("freezer"), child("child"), stranger("stranger");
            ChildManager manager;
            TraceReader trace;
            EXPECT_FALSE(manager.addChild(childOf(child)));
            EXPECT_TRUE(trace.saw("NOT INITIALIZED"));
            manager.initialize(ChildManager::CMStarting);
            const ChildPointer record = childOf(child);
            manager.addChild(record);
            manager.contextReady();
            ready(child);
            freezer.says(ChildMgrFreezeRequest::Message);
            serve();

            // A reply from a process that is no child, a child that answers
            // twice, a thaw answer nobody asked for.
            stranger.says(ChildMgrFreezeReply::Message, with(ChildMgrFreezeReply::Success, false));
            child.says(ChildMgrFreezeReply::Message, with(ChildMgrFreezeReply::Success, true));
            child.says(ChildMgrFreezeReply::Message, with(ChildMgrFreezeReply::Success, false));
            child.says(ChildMgrThawReply::Message, with(ChildMgrThawReply::Success, false));
            trace.next();
            serve();
            const auto lines = trace.next();
            EXPECT_TRUE(BreviTest::hasLine(lines, "Should not get here: freeze reply from", TraceAlways));
            EXPECT_TRUE(BreviTest::hasLine(lines, "Should not get here: thaw reply from", TraceAlways));
            EXPECT_EQ(manager.state(), ChildManager::CMFreezing);
            EXPECT_EQ(record->state(), ChildManager::CMFrozen);
            EXPECT_FALSE(manager.freezeSuccessful());
            manager.frozen();
            child.says(ChildMgrFreezeReply::Message, with(ChildMgrFreezeReply::Success, true));
            serve();
            EXPECT_TRUE(trace.saw("Should not get here: freeze reply from", TraceAlways));
            EXPECT_EQ(manager.state(), ChildManager::CMFrozen);
            EXPECT_TRUE(manager.freezeSuccessful());

            // Calls the protocol does not allow.
            EXPECT_FALSE(manager.state(ChildManager::CMFreezing));
            EXPECT_FALSE(manager.addMsgHandler(ChildMgrThawRequest::Message, MsgHandlerPointer()));
            const ChildPointer peer = childOf(stranger);
            ASSERT_TRUE(manager.addPeer(peer, true));
            EXPECT_TRUE(peer->peer());
            EXPECT_FALSE(manager.removeChild(peer));
            EXPECT_FALSE(manager.removePeer(record));
            EXPECT_FALSE(manager.addPeer(
                boost::make_shared<Child>(freezer.thread(), "t", Child::eFreezable, Child::eNoShutdownOnExit), false));
            const auto refusals = trace.next();
            for (const char* words :
                 {"Attempt to remove peer with a call to removeChild",
                  "Attempt to remove non-peer with a call to removePeer", "Failed to add a thread as a peer"})
                EXPECT_TRUE(BreviTest::hasLine(refusals, words)) << words;
            EXPECT_TRUE(manager.removePeer(peer));
            EXPECT_FALSE(manager.removePeer(peer));
            EXPECT_TRUE(trace.saw("Unknown peer"));
            EXPECT_EQ(manager.childCount(), 1u);
        },
        Context::TypeStandalone);
}

TEST(ChildManager, ShutdownWaitsForTheChildrenItMustAndEndsTheLoop)
{
    inContext(
        [] {
            Remote waited("waited"), dropped("dropped"), critical("critical"), peer("peer");
            Remote thread("thread", false);
            ChildManager manager;
            manager.initialize(ChildManager::CMStarting);
            const ChildPointer threadRecord =
                boost::make_shared<Child>(thread.thread(), thread.name(), Child::eFreezable, Child::eNoShutdownOnExit);
            const ChildPointer waitedRecord = childOf(waited);
            manager.addChild(threadRecord);
            manager.addChild(waitedRecord);
            manager.addChild(childOf(dropped, Child::eNoWaitForExit));
            manager.addChild(childOf(critical, Child::eWaitForExit, Child::eShutdownOnExit));
            manager.addPeer(childOf(peer, Child::eNoWaitForExit), true);
            manager.contextReady();
            ready(waited);
            ready(dropped);
            ready(critical);
            // The thread introduces itself: it runs, at its context's address.
            EXPECT_TRUE(manager.waitForReady(threadRecord));
            serve();
            EXPECT_EQ(threadRecord->address().type(), eMsgAddressContext);

            // A child that the owner cannot do without ends: all stop.
            XmlList gone;
            gone.set(HubRtrProcessExitedPost::Address, critical.address().toXml());
            critical.says(HubRtrProcessExitedPost::Message, gone);
            EXPECT_EQ(serve(), eMsgResultOk);
            EXPECT_EQ(manager.state(), ChildManager::CMStopping);
            EXPECT_FALSE(manager.waitForReady(waitedRecord)) << "no wait while stopping";
            EXPECT_EQ(waited.next().name(), ChildMgrShutdownPost::Message);
            EXPECT_EQ(dropped.next().name(), ChildMgrShutdownPost::Message);
            EXPECT_TRUE(peer.quiet()) << "a peer is not this manager's to stop";
            // The thread ends and is joined; one child is still awaited.
            EXPECT_TRUE(manager.waitForExit(threadRecord));
            EXPECT_FALSE(threadRecord->thread()->joinable());
            EXPECT_EQ(manager.childCount(), 1u);
            EXPECT_EQ(waitedRecord->state(), ChildManager::CMStopping);

            gone.set(HubRtrProcessExitedPost::Address, waited.address().toXml());
            waited.says(HubRtrProcessExitedPost::Message, gone);
            EXPECT_EQ(serve(), eMsgResultExit);
            EXPECT_EQ(waitedRecord->state(), ChildManager::CMStopped);
            EXPECT_FALSE(manager.shutdown());
            manager.release();
        },
        Context::TypeStandalone);
}

TEST(ChildManager, ConditionsEndAWaitOnTheirMessageOrOnTheStop)
{
    inContext(
        [] {
            Remote other("other");
            ChildManager manager;
            manager.initialize(ChildManager::CMRunning);
            ConditionMsgWithCookie answer(manager, "AnswerPost", "mine");
            other.says("AnswerPost", XmlList(), "theirs");
            other.says("AnswerPost", XmlList(), "mine");
            EXPECT_EQ(Msg::wait(answer, 5), eMsgResultOk);
            EXPECT_EQ(answer.message().getCookie(), "mine");

            // A shutdown ends the waits for what will not come now.
            ConditionMsg next(manager, "NextPost");
            ConditionDone done(manager);
            EXPECT_FALSE(done.done());
            manager.shutdown();
            EXPECT_EQ(Msg::wait(next, 5), eMsgResultExit) << "the empty manager's loop ends";
            EXPECT_TRUE(next.done());
            EXPECT_FALSE(next.message());
            EXPECT_EQ(Msg::wait(done, 5), eMsgResultOk);
        },
        Context::TypeStandalone);
}

} // namespace
