// Msg: what the constructors make of their addresses and authorization, the
// message rebuilt from a packet, the body's values, copies and clones,
// replies; then dispatch on one thread: handlers that decline, stop a wait,
// change the table while they run, are guarded by an authorization; the wait
// family, MsgPending and ManageMsgHandlers.

#include "core/buffer.h"
#include "core/context.h"
#include "messaging/condition.h"
#include "messaging/datamsgpacket.h"
#include "messaging/datapacket.h"
#include "messaging/managemsghandlers.h"
#include "messaging/messaging.h"
#include "messaging/msg.h"
#include "messaging/msgpacket.h"
#include "messaging/msgpending.h"

#include "threadcontexts.h"
#include "tracelines.h"

#include <QRegularExpression>

#include <gtest/gtest.h>

using namespace Brevi;
using namespace BreviTest;

namespace {

MsgAddress remote(const QString& machine, unsigned id) { return MsgAddress(MachineName(machine), id); }

boost::shared_ptr<Buffer> bufferOf(const QByteArray& bytes) { return boost::make_shared<Buffer>(bytes); }

QByteArray bytesOf(const boost::shared_ptr<Buffer>& buffer)
{
    return buffer ? QByteArray(reinterpret_cast<const char*>(buffer->data()), int(buffer->size())) : QByteArray();
}

// A message to this very context, which send() puts into its own receive
// queue: how one thread gives itself work for its handlers.
bool post(const QString& name, int value = 0)
{
    Msg message(Context::address(), name);
    message.set("Value", value);
    return message.send();
}

} // namespace

using MsgContent = TraceTest<TraceModuleMsg>;

TEST_F(MsgContent, ConstructorsComputeTheSourceAndTheAuthorization)
{
    const Msg none;
    EXPECT_FALSE(none);
    EXPECT_EQ(none.lastError(), eMsgResultOk);
    EXPECT_TRUE(none.name().isEmpty());

    // Without a context the source is what the destination's return address
    // of nobody is: nothing.
    const Msg local(MsgAddress(eMsgAddressContext, 4), "LocalPost");
    ASSERT_TRUE(local);
    EXPECT_EQ(local.destination(), MsgAddress(eMsgAddressContext, 4));
    EXPECT_TRUE(local.authorization().isEmpty());
    EXPECT_EQ(local.compression(), eMsgDoNotCompress);

    const Msg toHub(Authorization("pass"), MsgAddress(eMsgAddressHub, 1), "HubMgrAttachRequest");
    ASSERT_TRUE(toHub);
    EXPECT_FALSE(toHub.source()) << "the Hub knows the other end of its link";

    const MsgAddress from = remote("alpha", 12);
    const Msg authorized(Authorization("pass"), from, remote("beta", 3), "JobRequest", XmlList(), eMsgCompressOnSend);
    EXPECT_EQ(authorized.source(), from);
    EXPECT_EQ(authorized.authorization(), Authorization("pass").binary("beta"));
    EXPECT_EQ(authorized.compression(), eMsgCompressOnSend);

    EXPECT_TRUE(traces([] { EXPECT_EQ(Msg(MsgAddress(), "X").lastError(), eMsgResultInvalidArgs); }, TraceAlways,
                       "Invalid destination for message"));
    EXPECT_EQ(Msg(remote("beta", 3), QString()).lastError(), eMsgResultInvalidArgs);
}

TEST_F(MsgContent, RebuiltFromAPacket)
{
    XmlList body;
    body.set("Size", 42u);
    const MsgAddress to = remote("beta", 3);
    const MsgAddress from = remote("alpha", 12);
    const QByteArray pass = Authorization("pass").binary("beta");

    const Msg message(boost::make_shared<MsgPacket>(to, from, pass, "FileRequest", "c1", body, 1u, false));
    ASSERT_TRUE(message);
    EXPECT_EQ(message.lastError(), eMsgResultOk);
    EXPECT_EQ(message.destination(), to);
    EXPECT_EQ(message.source(), from);
    EXPECT_EQ(message.name(), "FileRequest");
    EXPECT_EQ(message.getCookie(), "c1");
    EXPECT_EQ(message.authorization(), pass);
    EXPECT_EQ(message.get("Size", 0u), 42u);
    EXPECT_FALSE(message.rawData());

    const Msg withData(
        boost::make_shared<DataMsgPacket>(to, from, pass, "BlockPost", "c2", body, bufferOf("raw bytes"), 2u, true));
    ASSERT_TRUE(withData);
    EXPECT_EQ(bytesOf(withData.rawData()), "raw bytes");
    EXPECT_EQ(withData.get("Size", 0u), 42u);

    EXPECT_TRUE(traces([] { EXPECT_EQ(Msg(boost::shared_ptr<IpcPacket>()).lastError(), eMsgResultIpcError); },
                       TraceAlways, "No packet"));
    EXPECT_TRUE(traces([] { EXPECT_EQ(Msg(boost::make_shared<MsgPacket>()).lastError(), eMsgResultIpcError); },
                       TraceAlways, "Invalid packet"));
    EXPECT_TRUE(traces(
        [&] {
            const Msg data(boost::make_shared<DataPacket>(to.binary(), from.binary(), pass, 64u, 7u, 0u));
            EXPECT_FALSE(data);
            EXPECT_EQ(data.lastError(), eMsgResultIpcError);
        },
        TraceAlways, "Invalid packet type"));
}

TEST_F(MsgContent, BodyValuesCopiesAndClones)
{
    Msg message(remote("beta", 3), "StatusPost");
    EXPECT_TRUE(message.set("Flag", true));
    EXPECT_TRUE(message.set("Text", "literal"));
    EXPECT_TRUE(message.set("Count", 7u));
    EXPECT_TRUE(message.set("Delta", -7));
    EXPECT_TRUE(message.set("Big", 1ull << 40));
    EXPECT_TRUE(message.set("Small", -(1ll << 40)));
    EXPECT_TRUE(message.set("Machine", MachineName("gamma")));
    XmlList inner;
    inner.set("Leaf", QString("x"));
    EXPECT_TRUE(message.set("Inner", inner));

    EXPECT_TRUE(message.get("Flag", false));
    EXPECT_EQ(message.get("Text", "none"), "literal") << "a literal is text, never a bool";
    EXPECT_EQ(message.get("Count", 0u), 7u);
    EXPECT_EQ(message.get("Delta", 0), -7);
    EXPECT_EQ(message.get("Big", 0ull), 1ull << 40);
    EXPECT_EQ(message.get("Small", 0ll), -(1ll << 40));
    EXPECT_EQ(message.get("Machine", QString()), "gamma");
    EXPECT_EQ(message.get("Absent", QString("default")), "default");
    EXPECT_EQ(message.get("Count", -1), -1) << "types are matched strictly";

    bool found = true;
    EXPECT_EQ(message.getUint32("Count", &found), 7u);
    EXPECT_EQ(message.getXmlList("Inner", &found).size(), 1);
    EXPECT_TRUE(found) << "never set to true, only cleared";
    EXPECT_EQ(message.getString("Absent", &found), QString());
    EXPECT_FALSE(found);
    found = true;
    EXPECT_EQ(message.getInt64("Small", &found), -(1ll << 40));
    EXPECT_TRUE(found);

    // Copies share: the cookie and raw data show in every copy.
    Msg copy = message;
    copy.setCookie("shared");
    copy.rawData(bufferOf("abc"));
    EXPECT_EQ(message.getCookie(), "shared");
    EXPECT_EQ(bytesOf(message.rawData()), "abc");

    // A clone is deep: body, cookie and raw bytes are its own.
    Msg clone = message.clone();
    clone.set("Count", 8u);
    clone.setCookie("own");
    clone.rawData()->data()[0] = 'X';
    EXPECT_EQ(message.get("Count", 0u), 7u);
    EXPECT_EQ(message.getCookie(), "shared");
    EXPECT_EQ(bytesOf(message.rawData()), "abc");
    EXPECT_EQ(clone.get("Count", 0u), 8u);

    // The invalid message stays invalid, and one invalid body is shared.
    Msg invalid;
    EXPECT_FALSE(invalid.set("Count", 1u));
    invalid.setCookie("nothing");
    EXPECT_TRUE(Msg().getCookie().isEmpty());
    EXPECT_FALSE(invalid.clone());
    EXPECT_FALSE(invalid.send());
    EXPECT_FALSE(invalid.reply("AnyReply"));
}

// ---------------------------------------------------------------------------
// Dispatch on one thread

TEST(MsgDispatch, RepliesGoToTheComputedSourceWithTheCookieAndTheirData)
{
    ASSERT_TRUE(runInNewHome(
        [] {
            // The computed source is the address to answer to.
            EXPECT_EQ(Msg(MsgAddress(eMsgAddressContext, 9), "P").source(), Context::address());
            EXPECT_FALSE(Msg(MsgAddress(eMsgAddressHub, 1), "P").source());
            // Over a route the answer goes back the reversed way.
            MsgRoute route;
            route.append(MachineName("first"));
            route.append(MachineName("second"));
            const MsgAddress far(route, 5);
            EXPECT_EQ(Msg(far, "P").source(), far.returnAddress(Context::address(), 0));

            Msg request(Context::address(), "ReadRequest");
            request.setCookie("req 1");
            ASSERT_TRUE(request.send());
            const Msg got = Msg::wait("ReadRequest", 5);
            ASSERT_TRUE(got);
            XmlList body;
            body.set("Length", 3u);
            ASSERT_TRUE(got.reply("ReadReply", bufferOf("xyz"), body));
            const Msg reply = Msg::wait("ReadReply", 5);
            ASSERT_TRUE(reply);
            EXPECT_EQ(reply.getCookie(), "req 1");
            EXPECT_EQ(reply.destination(), Context::address());
            EXPECT_EQ(bytesOf(reply.rawData()), "xyz");
            EXPECT_EQ(reply.get("Length", 0u), 3u);
            EXPECT_FALSE(
                Msg(Authorization(), MsgAddress(), Context::address(), "FromNobody", XmlList()).reply("AnyReply"))
                << "no source, no reply";
        },
        "Reply"));
}

TEST(MsgDispatch, HandlersDeclineNewestFirstAndStopAWait)
{
    ASSERT_TRUE(runInNewHome(
        [] {
            static QStringList calls;
            calls.clear();
            ManageMsgHandlers handlers;
            handlers.add("WorkPost", handler([](const Msg&) { return calls << "older", eMsgResultHandled; }));
            handlers.add("WorkPost", handler([](const Msg&) { return calls << "newer", eMsgResultNotHandled; }));
            ASSERT_TRUE(post("WorkPost"));
            EXPECT_EQ(Msg::wait(0), eMsgResultOk);
            EXPECT_EQ(calls, QStringList({"newer", "older"}));

            // A message nobody takes is dropped without an error.
            calls.clear();
            TraceReader trace;
            handlers.add("IdlePost", handler([](const Msg&) { return calls << "idle", eMsgResultNotHandled; }));
            ASSERT_TRUE(post("IdlePost"));
            ASSERT_TRUE(post("NobodyPost"));
            EXPECT_EQ(Msg::wait(0), eMsgResultOk);
            EXPECT_EQ(calls, QStringList({"idle"}));
            const QStringList lines = trace.nextTexts();
            EXPECT_EQ(lines.filter(QRegularExpression("^Message 'IdlePost' from .* not handled$")).size(), 1);
            EXPECT_EQ(lines.filter(QRegularExpression("^Message 'NobodyPost' from .* has no handlers$")).size(), 1);

            // A handler's stop ends the wait, though the wanted message waits behind.
            handlers.add("StopPost", handler([](const Msg&) { return eMsgResultFailed; }));
            ASSERT_TRUE(post("StopPost"));
            ASSERT_TRUE(post("WantedPost"));
            const Msg stopped = Msg::wait("WantedPost", 5);
            EXPECT_FALSE(stopped);
            EXPECT_EQ(stopped.lastError(), eMsgResultFailed);
            EXPECT_TRUE(Msg::wait("WantedPost", 0)) << "still there for the next wait";

            // A serving wait without limit ends only by a handler.
            handlers.add("ExitPost", handler([](const Msg&) { return eMsgResultExit; }));
            ASSERT_TRUE(post("ExitPost"));
            EXPECT_EQ(Msg::wait(-1), eMsgResultExit);
        },
        "Dispatch"));
}

TEST(MsgDispatch, HandlersMayChangeTheTableWhileTheyRun)
{
    ASSERT_TRUE(runInNewHome(
        [] {
            static QStringList calls;
            static MsgHandlerPointer first;
            static MsgHandlerPointer second;
            second = handler([](const Msg& message) {
                calls << QStringLiteral("second %1").arg(message.get("Value", -1));
                return eMsgResultHandled;
            });
            first = handler([](const Msg& message) {
                calls << QStringLiteral("first %1").arg(message.get("Value", -1));
                // Hands the name over to another handler, from inside the dispatch.
                EXPECT_TRUE(Msg::removeHandler("TurnPost", first));
                EXPECT_TRUE(Msg::addHandler("TurnPost", second));
                return eMsgResultHandled;
            });
            ASSERT_TRUE(Msg::addHandler("TurnPost", first));
            ASSERT_TRUE(post("TurnPost", 1));
            ASSERT_TRUE(post("TurnPost", 2));
            ASSERT_TRUE(post("TurnPost", 3));
            EXPECT_EQ(Msg::wait(0), eMsgResultOk);
            EXPECT_EQ(calls, QStringList({"first 1", "second 2", "second 3"}));
            EXPECT_FALSE(Msg::removeHandler("TurnPost", first)) << "already gone";
            EXPECT_TRUE(Msg::removeHandler("TurnPost", second));
            EXPECT_EQ(Context::messaging()->handlerCount(), 0);
            first.reset();
            second.reset();
        },
        "Turns"));
}

TEST(MsgDispatch, AnAuthorizedHandlerSeesOnlyMessagesThatCarryIt)
{
    ASSERT_TRUE(runInNewHome(
        [] {
            static QStringList calls;
            const QByteArray pass = Authorization("pass").binary("beta");
            const QByteArray other = Authorization("other").binary("beta");
            const MsgAddress to = remote("beta", 3);
            const MsgAddress from = remote("alpha", 12);
            const boost::shared_ptr<Messaging> messaging = Context::messaging();

            ManageMsgHandlers handlers;
            handlers.add("GuardedPost", handler([](const Msg&) { return calls << "open", eMsgResultHandled; }));
            handlers.add("GuardedPost", pass,
                         handler([](const Msg&) { return calls << "guarded", eMsgResultHandled; }));
            // Messages as they come off the link, put straight into the
            // receive queue: each meets the authorization test on the way in.
            messaging->requeue({Msg(Authorization("pass"), from, to, "GuardedPost", XmlList())});
            EXPECT_EQ(Msg::wait(0), eMsgResultOk);
            EXPECT_EQ(calls, QStringList({"guarded"}));

            calls.clear();
            TraceReader trace;
            messaging->requeue(
                {Msg(Authorization("other"), from, to, "GuardedPost", XmlList()), Msg(from, "GuardedPost")});
            EXPECT_EQ(Msg::wait(0), eMsgResultOk);
            EXPECT_TRUE(calls.isEmpty()) << "refused on arrival: " << calls.join(',').toStdString();
            EXPECT_EQ(trace.nextTexts().filter("Not authorized, give it to the bit bucket").size(), 2);

            // Without the guarded handler the name is open again.
            handlers.removeAll();
            handlers.add("GuardedPost", handler([](const Msg&) { return calls << "open", eMsgResultHandled; }));
            messaging->requeue({Msg(from, "GuardedPost")});
            EXPECT_EQ(Msg::wait(0), eMsgResultOk);
            EXPECT_EQ(calls, QStringList({"open"}));
            EXPECT_NE(other, pass);
        },
        "Guarded"));
}

TEST(MsgDispatch, TheWaitFamilyEndsAsAsked)
{
    ASSERT_TRUE(runInNewHome(
        [] {
            ASSERT_TRUE(post("OtherPost"));
            const Msg absent = Msg::wait("AbsentPost", 0);
            EXPECT_FALSE(absent);
            EXPECT_EQ(absent.lastError(), eMsgResultTimeout);
            EXPECT_FALSE(Context::messaging()->pending()) << "the other message was handled on the way";

            Condition never;
            EXPECT_EQ(Msg::wait(never, 0), eMsgResultTimeout);
            const unsigned long long before = Context::systemTime();
            EXPECT_EQ(Msg::wait(never, 1), eMsgResultTimeout);
            EXPECT_GE(Context::systemTime() - before, 900u);
            EXPECT_EQ(Msg::wait(1), eMsgResultOk) << "a serving wait that runs out is a success";

            // From a given source only.
            ASSERT_TRUE(Msg(Authorization(), remote("alpha", 1), Context::address(), "FromPost", XmlList()).send());
            ASSERT_TRUE(post("FromPost", 2));
            const Msg mine = Msg::wait("FromPost", Context::address(), 5);
            ASSERT_TRUE(mine);
            EXPECT_EQ(mine.get("Value", -1), 2);

            ASSERT_TRUE(post("SecondPost", 5));
            const Msg either = Msg::wait(QStringList({"FirstPost", "SecondPost"}), 5);
            EXPECT_EQ(either.name(), "SecondPost");

            // Requeued messages come back in front, the list reversed.
            ASSERT_TRUE(post("QueuedPost", 0));
            EXPECT_TRUE(Msg::requeue({Msg(Context::address(), "A"), Msg(Context::address(), "B")}));
            EXPECT_EQ(Msg::receive(0).name(), "B");
            EXPECT_EQ(Msg::receive(0).name(), "A");
            EXPECT_EQ(Msg::receive(0).name(), "QueuedPost");
            EXPECT_EQ(Msg::receive(0).lastError(), eMsgResultTimeout);

            // A standalone context has no Hub link: the condition holds at once.
            Msg::HubDisconnected gone(Context::messaging());
            EXPECT_TRUE(Msg::hubDisconnected(Context::messaging()));
            EXPECT_EQ(Msg::wait(gone, 5), eMsgResultExit);
        },
        "Waits"));
}

TEST(MsgDispatch, PendingMessagesForAnOwnEventLoop)
{
    MsgPending outside;
    EXPECT_FALSE(outside.isPending()) << "no messaging on this thread";
    EXPECT_FALSE(outside.handle());
    EXPECT_EQ(outside.lastError(), eMsgResultFailed);

    ASSERT_TRUE(runInNewHome(
        [] {
            static int handled;
            handled = 0;
            ManageMsgHandlers handlers;
            handlers.add("LoopPost", handler([](const Msg&) { return ++handled, eMsgResultHandled; }));
            MsgPending pending;
            EXPECT_FALSE(pending.isPending());
            ASSERT_TRUE(post("LoopPost"));
            ASSERT_TRUE(post("LoopPost"));
            EXPECT_TRUE(pending ? true : false) << "operator bool";
            EXPECT_TRUE(pending.handle()) << "all handled, go on";
            EXPECT_EQ(pending.lastError(), eMsgResultTimeout);
            EXPECT_EQ(handled, 2);
            EXPECT_FALSE(pending.isPending());

            Condition wanted;
            handlers.add("WantedPost", handler([&wanted](const Msg& message) { return wanted.handle(message); }));
            ASSERT_TRUE(post("WantedPost"));
            ASSERT_TRUE(post("LoopPost"));
            MsgPending copy(pending);
            EXPECT_FALSE(copy.handle(wanted)) << "the condition ends it";
            EXPECT_EQ(copy.lastError(), eMsgResultOk);
            EXPECT_EQ(handled, 2) << "what came after the condition waits";
            EXPECT_TRUE(copy.isPending());
        },
        "Pending"));
}

TEST(MsgDispatch, ManagedHandlersGoWithTheLastCopy)
{
    ASSERT_TRUE(runInNewHome(
        [] {
            const boost::shared_ptr<Messaging> messaging = Context::messaging();
            const auto any = [](const Msg&) { return eMsgResultHandled; };
            {
                ManageMsgHandlers handlers;
                EXPECT_TRUE(handlers.add("APost", handler(any)));
                EXPECT_TRUE(handlers.add("BPost", handler(any)));
                EXPECT_TRUE(handlers.add("CPost", handler(any)));
                EXPECT_FALSE(handlers.add("DPost", MsgHandlerPointer())) << "no function, nothing registered";
                EXPECT_EQ(handlers.count(), 3);
                handlers.removeAllExcept({"APost", "CPost"});
                EXPECT_EQ(messaging->handlerCount(), 2);
                handlers.remove("CPost");
                EXPECT_EQ(messaging->handlerCount(), 1);
                {
                    ManageMsgHandlers copy = handlers;
                    copy.add("EPost", handler(any));
                }
                EXPECT_EQ(messaging->handlerCount(), 2) << "a copy that goes leaves the shared record";
                EXPECT_EQ(handlers.count(), 2);
            }
            EXPECT_EQ(messaging->handlerCount(), 0);
        },
        "Managed"));
}
