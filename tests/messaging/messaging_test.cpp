// Messaging between threads of one process: a worker with a context of its
// own connects to its parent, answers requests, is disconnected, fails; once
// posts, queues that are released under a sender, releases from a foreign
// thread, the log proxy's bit bucket, and the pieces a long wait sleeps in.

#include "core/context.h"
#include "messaging/datapacket.h"
#include "messaging/managemsghandlers.h"
#include "messaging/messaging.h"
#include "messaging/msg.h"
#include "messaging/msgcatalogue.h"
#include "sockets/tcpsocketlisten.h"

#include "threadcontexts.h"

#include <QRegularExpression>

#include <gtest/gtest.h>

#include <atomic>

using namespace Brevi;
using namespace BreviTest;

namespace {

const QString Connected = Catalogue::MsgConnectedPost::Message;
const QString Disconnected = Catalogue::MsgDisconnectedPost::Message;

// What the parent and its worker share; each test starts it afresh.
struct Link {
    static inline boost::shared_ptr<Messaging> parent;
    static inline boost::shared_ptr<Messaging> worker;
    static inline MsgAddress workerAddress;
    static inline std::atomic<int> workerResult{eMsgResultUnknown};
    static inline std::atomic<int> ticks{0};
    static inline std::atomic<int> others{0};
    static inline Gate go;
    static inline Gate done;

    static void reset()
    {
        parent.reset();
        worker.reset();
        workerAddress = MsgAddress();
        workerResult = eMsgResultUnknown;
        ticks = 0;
        others = 0;
        go.reset();
        done.reset();
    }
};

// Runs `body` in the parent's standalone context under a fresh home.
void asParent(void (*body)())
{
    static void (*current)() = nullptr;
    current = body;
    Link::reset();
    EXPECT_TRUE(runInNewHome(
        [] {
            Link::parent = Context::messaging();
            current();
        },
        "Parent"));
    Link::reset();
}

// Connects the calling worker to the parent: the parent's address, or the
// invalid one.
MsgAddress connectToParent(const QString& cookie)
{
    Link::worker = Context::messaging();
    Link::workerAddress = Context::address();
    return Context::messaging()->connect(Link::parent, cookie, Log::eNoProxy);
}

// Answers EchoRequest with the same body until the parent disconnects.
void echoWorker()
{
    const MsgAddress parent = connectToParent("job 1");
    if (!parent)
        return;
    ManageMsgHandlers handlers;
    handlers.add("EchoRequest", handler([](const Msg& request) {
                     return request.reply("EchoReply", request.body()) ? eMsgResultHandled : eMsgResultFailed;
                 }));
    handlers.add(Disconnected, handler([parent](const Msg& message) {
                     Context::messaging()->disconnect(parent, QString());
                     return message.getCookie() == "job 1" ? eMsgResultExit : eMsgResultFailed;
                 }));
    Link::workerResult = Msg::wait(30);
}

// The parent's side of a connection: the worker's address from its
// MsgConnectedPost.
MsgAddress awaitWorker(const QString& cookie)
{
    const Msg connected = Msg::wait(Connected, 10);
    EXPECT_TRUE(connected) << "lastError " << connected.lastError();
    EXPECT_EQ(connected.getCookie(), cookie);
    return connected.source();
}

bool echoes(const MsgAddress& worker, int value)
{
    Msg request(worker, "EchoRequest");
    request.set("Value", value);
    request.setCookie(QStringLiteral("cookie %1").arg(value));
    if (!request.send())
        return false;
    const Msg reply = Msg::wait("EchoReply", worker, 10);
    return reply && reply.getCookie() == request.getCookie() && reply.get("Value", -1) == value;
}

// A loopback port that was free a moment ago.
unsigned unusedPort()
{
    const TCPSocketListen probe("Probe", NetAddress(QHostAddress::LocalHost, 0), 1);
    return probe.localAddress().getPort();
}

} // namespace

// A release from another thread than the worker's own changes nothing.
TEST(MessagingThreads, AWorkerConnectsAnswersWithCookiesAndIsDisconnected)
{
    asParent([] {
        WorkerThread worker(echoWorker, "Echo");
        const MsgAddress address = awaitWorker("job 1");
        ASSERT_TRUE(address);
        EXPECT_EQ(address.type(), eMsgAddressContext);
        EXPECT_EQ(address, Link::workerAddress);
        EXPECT_TRUE(Link::parent->isConnected(address));
        for (int i = 0; i < 100; ++i)
            ASSERT_TRUE(echoes(address, i)) << "round " << i;

        TraceReader trace;
        Link::worker->release();
        const QStringList lines = trace.nextTexts();
        EXPECT_EQ(lines.filter("is not allowed to disable messaging for context").size(), 1)
            << lines.join('\n').toStdString();
        EXPECT_TRUE(Link::worker->valid());
        EXPECT_FALSE(Link::worker->isDisabled());
        EXPECT_TRUE(echoes(address, 7)) << "the worker still answers";

        EXPECT_TRUE(Link::parent->disconnect(address, "job 1"));
        worker.join();
        EXPECT_EQ(Link::workerResult, eMsgResultExit);
        EXPECT_FALSE(Link::parent->isConnected(address));
        EXPECT_FALSE(Msg(address, "EchoRequest").send()) << "nothing is left to carry it";
    });
}

TEST(MessagingThreads, TheParentHearsOfAWorkerThatFailed)
{
    asParent([] {
        const QStringList answers{Connected, Disconnected};
        {
            // A worker whose context does not come up says so.
            std::thread broken([] {
                if (!Context::run([] {}, Context::TypeInvalid, 0, "Broken"))
                    Link::parent->failed("job 2");
            });
            broken.join();
            const Msg answer = Msg::wait(answers, 10);
            ASSERT_TRUE(answer);
            EXPECT_EQ(answer.name(), Disconnected);
            EXPECT_EQ(answer.getCookie(), "job 2");
            EXPECT_EQ(answer.source(), Context::address());
        }
        {
            // A connection that fails tells the other side itself.
            WorkerThread twice(
                [] {
                    EXPECT_TRUE(connectToParent("first"));
                    EXPECT_FALSE(Context::messaging()->connect(Link::parent, "second", Log::eNoProxy))
                        << "already connected";
                },
                "Twice");
            EXPECT_EQ(Msg::wait(answers, 10).getCookie(), "first");
            const Msg failed = Msg::wait(answers, 10);
            EXPECT_EQ(failed.name(), Disconnected);
            EXPECT_EQ(failed.getCookie(), "second");
        }
        EXPECT_FALSE(Link::parent->connect(boost::shared_ptr<Messaging>(), "none", Log::eNoProxy));
        EXPECT_FALSE(Link::parent->connect(Link::parent, "self", Log::eNoProxy));
    });
}

TEST(MessagingThreads, SendOnceCollapsesRepeatsThatStillWait)
{
    asParent([] {
        WorkerThread worker(
            [] {
                ManageMsgHandlers handlers;
                handlers.add("TickPost", handler([](const Msg&) { return ++Link::ticks, eMsgResultHandled; }));
                handlers.add("OtherPost", handler([](const Msg&) { return ++Link::others, eMsgResultHandled; }));
                if (!connectToParent("once"))
                    return;
                // Nothing is taken out of the queue until the parent has sent.
                Link::go.wait();
                Msg::wait(0);
                Link::done.open();
            },
            "Once");
        const MsgAddress address = awaitWorker("once");
        ASSERT_TRUE(address);
        for (int i = 0; i < 3; ++i)
            EXPECT_TRUE(Msg(address, "TickPost").sendOnce());
        EXPECT_TRUE(Msg(address, "OtherPost").sendOnce());
        EXPECT_TRUE(Msg(address, "OtherPost").send()) << "a plain send is never collapsed";
        EXPECT_FALSE(Msg(MsgAddress(eMsgAddressContext, 99), "TickPost").sendOnce())
            << "once posts go only to connected contexts";
        EXPECT_FALSE(Link::parent->sendPacket(
            boost::make_shared<DataPacket>(address.binary(), Context::address().binary(), QByteArray(), 16u, 1u, 0u)))
            << "data does not go between threads as packets";
        Link::go.open();
        ASSERT_TRUE(Link::done.wait());
        EXPECT_EQ(Link::ticks, 1);
        EXPECT_EQ(Link::others, 2);
    });
}

TEST(MessagingThreads, AReleasedQueueFailsTheNextSendAndItsEntryGoes)
{
    asParent([] {
        WorkerThread worker(
            [] {
                if (!connectToParent("release"))
                    return;
                Context::messaging()->release();
                Link::done.open();
                Link::go.wait();
            },
            "Released");
        const MsgAddress address = awaitWorker("release");
        ASSERT_TRUE(Link::done.wait());
        EXPECT_TRUE(Link::parent->isConnected(address));
        EXPECT_FALSE(Msg(address, "AnyPost").send());
        EXPECT_FALSE(Link::parent->isConnected(address)) << "the failed queue is forgotten";
        EXPECT_FALSE(Msg(address, "AnyPost").send()) << "and the next send has no way to go";
        EXPECT_FALSE(Link::worker->valid());
        EXPECT_FALSE(Link::worker->connect(Link::parent, "again", Log::eNoProxy))
            << "a released messaging connects nowhere";
        Link::go.open();
        worker.join();

        // A worker that ended took its queue with it.
        WorkerThread gone([] { connectToParent("gone"); }, "Gone");
        const MsgAddress goneAddress = awaitWorker("gone");
        gone.join();
        EXPECT_FALSE(Msg(goneAddress, "AnyPost").send());
        EXPECT_FALSE(Link::parent->isConnected(goneAddress));
    });
}

// A long wait sleeps 300,000 ms at a time while more than 600,000 are left,
// then half of what is left down to 2,000. Waits that a thread's message
// ends show the first pieces without sleeping them: a log message of a thread
// (which, without a log proxy, goes to the bit bucket) wakes the wait without
// ending it, and the wait goes on with a new piece.
TEST(MessagingThreads, ALongWaitSleepsInPiecesThatHalve)
{
    asParent([] {
        WorkerThread worker(
            [] {
                const MsgAddress parent = connectToParent("pieces");
                for (int round = 0; round < 4; ++round) {
                    if (!Link::go.wait())
                        return;
                    Link::go.reset();
                    Context::sleep(100);
                    Msg(parent, Catalogue::LogDaemonLocalWriteLog::Message).send();
                    Context::sleep(100);
                    Msg(parent, "EndPost").send();
                }
            },
            "Waker");
        awaitWorker("pieces");

        // The wait's limit, its first piece, and the bounds of the second.
        const struct {
            qint64 limit, first, secondLow, secondHigh;
        } rounds[] = {{900000, 300000, 300000, 300000},
                      {600000, 300000, 299001, 299999},
                      {500000, 250000, 0, 249999},
                      {3000, 1500, 1300, 1499}};
        const QRegularExpression piece("^Wait (\\d+) msec for message$");
        for (const auto& round : rounds) {
            TraceReader trace;
            Link::go.open();
            IpcResult result = eIpcResultClosed;
            const Msg end = Link::parent->receive(result, round.limit);
            ASSERT_EQ(end.name(), "EndPost") << round.limit << ": the log message is taken, not returned";
            EXPECT_EQ(result, eIpcResultOk);
            const QStringList lines = trace.nextTexts();
            EXPECT_EQ(lines.filter("Give proxy log message to the bit bucket").size(), 1);
            QList<qint64> pieces;
            for (const QString& line : lines) {
                const QRegularExpressionMatch match = piece.match(line);
                if (match.hasMatch())
                    pieces << match.captured(1).toLongLong();
            }
            ASSERT_EQ(pieces.size(), 2) << round.limit << ": one piece, then another after the log message";
            EXPECT_EQ(pieces[0], round.first) << round.limit;
            EXPECT_GE(pieces[1], round.secondLow) << round.limit;
            EXPECT_LE(pieces[1], round.secondHigh) << round.limit;
        }
        EXPECT_FALSE(Link::parent->loggingAddress());
        worker.join();
    });
}

// A messaging that failed or was released: every call fails at once, also a
// wait without limit.
TEST(MessagingFailures, DisabledMessagingFailsCleanly)
{
    TestHome home;
    const auto checkDisabled = [](Messaging& messaging) {
        IpcResult result = eIpcResultOk;
        EXPECT_FALSE(messaging.valid());
        EXPECT_FALSE(messaging.send(Msg(MsgAddress(eMsgAddressContext, 5), "AnyPost")));
        EXPECT_FALSE(messaging.sendOnce(Msg(MsgAddress(eMsgAddressContext, 5), "AnyPost")));
        const Msg none = messaging.receive(result, -1);
        EXPECT_FALSE(none);
        EXPECT_EQ(none.lastError(), eMsgResultIpcError);
        EXPECT_EQ(result, eIpcResultClosed);
        EXPECT_EQ(messaging.socket(), -1);
        EXPECT_FALSE(messaging.flush(result));
        EXPECT_EQ(messaging.nap(10), eIpcResultClosed);
        EXPECT_FALSE(messaging.failed("cookie"));
        EXPECT_FALSE(messaging.haveStandaloneContexts());
        EXPECT_EQ(messaging.dataAvailable(QList<unsigned>{1}, -1), eIpcResultClosed);
        EXPECT_FALSE(messaging.receiveData(result, 1, -1));
        unsigned acks = 0;
        EXPECT_FALSE(messaging.availableAcks(acks, 1));
        EXPECT_FALSE(messaging.enableConnection());
    };

    Messaging plain;
    checkDisabled(plain);
    EXPECT_FALSE(plain.address());

    // No Hub listens on the port: one attempt, refused.
    qputenv("BREVI_HUB_PORT", QByteArray::number(unusedPort()));
    MachineName machine;
    Messaging attached(machine, 1, Context::TypeAttached, Context::FlagAttachOnce, "Attached", QString(), QString());
    checkDisabled(attached);

    ASSERT_TRUE(runStandalone(
        [] {
            const boost::shared_ptr<Messaging> messaging = Context::messaging();
            ASSERT_TRUE(messaging);
            EXPECT_TRUE(messaging->valid());
            EXPECT_EQ(messaging->address(), MsgAddress(eMsgAddressContext, Context::id()));
            EXPECT_EQ(messaging->physicalAddress(), messaging->address());
            EXPECT_FALSE(messaging->parentAddress());
            EXPECT_EQ(Msg::socket(), -1);
            EXPECT_FALSE(messaging->enableConnection()) << "a standalone context has no Hub to ask";
            messaging->release();
            EXPECT_TRUE(messaging->isDisabled());
            EXPECT_FALSE(Msg(Context::address(), "LoopPost").send());
            const Msg none = Msg::wait("LoopPost", -1);
            EXPECT_FALSE(none);
            EXPECT_EQ(none.lastError(), eMsgResultIpcError) << "no wait for ever on a released messaging";
            EXPECT_EQ(Msg::wait(-1), eMsgResultIpcError);
        },
        "Released"));

    // A thread without a context has no messaging at all.
    std::thread bare([] {
        EXPECT_FALSE(Msg(MsgAddress(eMsgAddressContext, 1), "AnyPost").send());
        EXPECT_EQ(Msg::wait("AnyPost", -1).lastError(), eMsgResultIpcError);
        EXPECT_EQ(Msg::receive(-1).lastError(), eMsgResultIpcError);
        EXPECT_FALSE(Msg::addHandler("AnyPost", handler([](const Msg&) { return eMsgResultHandled; })));
        EXPECT_EQ(Msg::socket(), -1);
        EXPECT_FALSE(Msg::flush());
    });
    bare.join();
}

TEST(MessagingData, PacketsToItselfWaitBehindMessages)
{
    ASSERT_TRUE(runInNewHome(
        [] {
            const boost::shared_ptr<Messaging> messaging = Context::messaging();
            const unsigned channel = 5;
            const QList<unsigned> channels{channel};
            EXPECT_TRUE(messaging->addDatachannel(channel, DatachannelTransport::IPC));
            EXPECT_EQ(messaging->dataAvailable(channels, 0), eIpcResultAgain);
            EXPECT_EQ(messaging->dataAvailable(channels, 30), eIpcResultTimeout);
            IpcResult result = eIpcResultOk;
            EXPECT_FALSE(messaging->receiveData(result, channel, 30));
            EXPECT_EQ(result, eIpcResultTimeout);

            const BinaryAddress& self = messaging->physicalAddress().binary();
            const boost::shared_ptr<IpcPacket> packet =
                boost::make_shared<DataPacket>(self, self, QByteArray(), 64u, channel, 0u);
            EXPECT_TRUE(messaging->sendPacket(packet));
            EXPECT_TRUE(Msg(Context::address(), "ControlPost").send());
            EXPECT_EQ(messaging->dataAvailable(channel), eIpcResultMessagePending);
            EXPECT_EQ(messaging->dataAvailable(channels, -1), eIpcResultMessagePending);
            EXPECT_FALSE(messaging->receiveData(result, channel, -1));
            EXPECT_EQ(result, eIpcResultMessagePending);
            EXPECT_FALSE(messaging->flushData(result));
            EXPECT_EQ(result, eIpcResultMessagePending);

            EXPECT_EQ(Msg::receive(0).name(), "ControlPost");
            EXPECT_EQ(messaging->receiveData(result, channel, 0), packet);
            EXPECT_EQ(result, eIpcResultOk);
            EXPECT_TRUE(messaging->flushData(result)) << "nothing to flush on a standalone context";

            EXPECT_TRUE(messaging->sendPacket(packet));
            EXPECT_TRUE(messaging->sendPacket(packet));
            unsigned acks = 0;
            EXPECT_TRUE(messaging->availableAcks(acks, channel));
            EXPECT_EQ(acks, 2u);
            acks = 0;
            EXPECT_FALSE(messaging->availableAcks(acks, 99)) << "an unknown channel never acknowledges";

            messaging->removeDatachannel(channel);
            EXPECT_TRUE(messaging->sendPacket(packet));
            EXPECT_FALSE(messaging->receiveData(result, channel, -1));
            EXPECT_EQ(result, eIpcResultClosed) << "a removed channel does not wait";
            Messaging::Transport transport = DatachannelTransport::Best;
            EXPECT_TRUE(messaging->dataTransportType(transport));
            EXPECT_EQ(transport, DatachannelTransport::Memory);
        },
        "Data"));
}

TEST(MessagingUI, AUserInterfaceThreadServesWhatIsPendingOnEverySend)
{
    ASSERT_TRUE(runInNewHome(
        [] {
            static int pings;
            pings = 0;
            ManageMsgHandlers handlers;
            handlers.add("PingPost", handler([](const Msg&) { return ++pings, eMsgResultHandled; }));
            EXPECT_FALSE(Context::messaging()->isUI());
            EXPECT_TRUE(Msg::setUI());
            EXPECT_TRUE(Context::messaging()->isUI());
            EXPECT_TRUE(Msg(Context::address(), "PingPost").send());
            EXPECT_EQ(pings, 1) << "served inside the send";
            handlers.add("HaltPost", handler([](const Msg&) { return eMsgResultFailed; }));
            EXPECT_FALSE(Msg(Context::address(), "HaltPost").send()) << "a handler's stop shows in the send";
        },
        "UI"));
}
