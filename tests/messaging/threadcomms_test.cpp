// Threads of one process talking through ThreadComms: a worker connects to
// the thread that made the link and the two exchange messages under the
// link's name; the link used in its own thread; links that cannot work, and
// a worker that cannot connect telling its parent.

#include "core/context.h"
#include "messaging/managemsghandlers.h"
#include "messaging/messaging.h"
#include "messaging/msg.h"
#include "messaging/msgcatalogue.h"
#include "messaging/threadcomms.h"

#include "threadcontexts.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace Brevi;
using namespace BreviTest;

namespace {

const QString Connected = Catalogue::MsgConnectedPost::Message;
const QString Disconnected = Catalogue::MsgDisconnectedPost::Message;

// The parent's link as the worker gets it, and what the worker saw.
ThreadComms gLink;
MsgAddress gWorkerAddress;
std::atomic<int> gAnswered{0};
std::atomic<bool> gToldOfTheEnd{false};
QStringList gLines;

// Asks the parent ten times, then leaves.
void askingWorker()
{
    ThreadComms link = gLink;
    gWorkerAddress = Context::address();
    if (!link.connect() || !link.connect())
        return;
    for (int i = 0; i < 10; ++i) {
        XmlList body;
        body.set("Value", i);
        if (!link.send("SquareRequest", body))
            return;
        const Msg reply = Msg::wait("SquareReply", link.address(), 10);
        if (reply && reply.getCookie() == link.name() && reply.get("Value", -1) == i * i)
            ++gAnswered;
    }
    // Both ends are told, this one too, as Messaging::disconnect tells them.
    const MsgAddress parent = link.address();
    link.disconnect();
    const Msg end = Msg::wait(Disconnected, parent, 10);
    gToldOfTheEnd = end && end.getCookie() == link.name();
}

} // namespace

TEST(ThreadComms, AWorkerConnectsTalksUnderTheLinksNameAndLeaves)
{
    ASSERT_TRUE(runInNewHome(
        [] {
            gLink = ThreadComms("job 7");
            WorkerThread worker(askingWorker, "Worker");
            const Msg hello = Msg::wait(Connected, 10);
            ASSERT_TRUE(hello) << "lastError " << hello.lastError();
            EXPECT_EQ(hello.getCookie(), "job 7");
            EXPECT_EQ(hello.source(), gWorkerAddress);
            Context::messaging()->setLoggingAddress(hello.source());

            ManageMsgHandlers handlers;
            handlers.add("SquareRequest", handler([](const Msg& request) {
                             const int value = request.get("Value", 0);
                             XmlList body;
                             body.set("Value", value * value);
                             return request.getCookie() == "job 7" && request.reply("SquareReply", body)
                                        ? eMsgResultHandled
                                        : eMsgResultFailed;
                         }));
            const Msg bye = Msg::wait(Disconnected, hello.source(), 10);
            ASSERT_TRUE(bye) << "lastError " << bye.lastError();
            EXPECT_EQ(bye.getCookie(), "job 7");
            worker.join();
            EXPECT_EQ(gAnswered, 10);
            EXPECT_TRUE(gToldOfTheEnd);
            EXPECT_FALSE(Context::messaging()->isConnected(hello.source()));
            EXPECT_FALSE(Context::messaging()->loggingAddress()) << "no longer logs to the worker that left";
        },
        "Parent"));
}

TEST(ThreadComms, InItsOwnThreadTheLinkLoopsBack)
{
    ASSERT_TRUE(runInNewHome(
        [] {
            TraceReader trace;
            ThreadComms link("self");
            ThreadComms copy;
            copy = link;
            EXPECT_EQ(copy.name(), "self");
            EXPECT_TRUE(copy.connect());
            EXPECT_EQ(copy.address(), Context::address());
            EXPECT_TRUE(copy.send("SelfPost"));
            const Msg self = Msg::wait("SelfPost", 1);
            ASSERT_TRUE(self);
            EXPECT_EQ(self.getCookie(), "self");
            EXPECT_TRUE(copy.disconnect());
            EXPECT_FALSE(copy.address());
            const QStringList lines = trace.nextTexts();
            EXPECT_EQ(lines.filter("Assignment operator").size(), 1) << lines.join('\n').toStdString();
            EXPECT_EQ(lines.filter("Trying to connect to the local thread, be happy").size(), 1);
            EXPECT_EQ(lines.filter("Trying to disconnect from local thread").size(), 1);
        },
        "Parent"));
}

TEST(ThreadCommsBadInput, LinksThatCannotWork)
{
    TestHome home;
    // Made where there is no messaging: there is nothing to connect to.
    std::thread([] { gLink = ThreadComms("orphan"); }).join();
    ASSERT_TRUE(runStandalone(
        [] {
            TraceReader trace;
            ThreadComms orphan = gLink;
            EXPECT_FALSE(orphan.connect());
            EXPECT_FALSE(orphan.failed());
            EXPECT_FALSE(orphan.send("AnyPost"));
            EXPECT_FALSE(orphan.disconnect());
            gLines = trace.nextTexts();

            // A worker whose context has no messaging cannot connect, and
            // tells its parent so.
            gLink = ThreadComms("job 9");
            std::thread([] {
                Context::run(
                    [] {
                        ThreadComms link = gLink;
                        EXPECT_FALSE(link.connect());
                        EXPECT_TRUE(link.failed());
                    },
                    Context::Type(7), 0, "Plain");
            }).join();
            const Msg failed = Msg::wait(QStringList({Connected, Disconnected}), 10);
            ASSERT_TRUE(failed);
            EXPECT_EQ(failed.name(), Disconnected);
            EXPECT_EQ(failed.getCookie(), "job 9");
        },
        "Parent"));
    EXPECT_EQ(gLines.filter("Other thread data is invalid").size(), 2) << gLines.join('\n').toStdString();
    EXPECT_EQ(gLines.filter("Not connected").size(), 2);
}
