// Attached processes through the real Hub: this test's own context and
// helper processes, each with the library's attached handler.

#include "attachedtest.h"

#include "core/buffer.h"
#include "messaging/messaging.h"
#include "messaging/msgaddress.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msgpacket.h"
#include "messaging/msgpending.h"
#include "sockets/tcpsocketselect.h"

#include <QMap>
#include <QThread>

#include <boost/make_shared.hpp>

#include <csignal>

#include <sys/wait.h>

using namespace Brevi;
using namespace Brevi::Catalogue;
using namespace AttachedTest;
using HubTest::ChildProcess;
using HubTest::HubClient;

namespace {

class AttachedHub : public HubTest::HubFixture
{
protected:
    void start(const QStringList& arguments = {})
    {
        startHub(arguments);
        useHubPort(port());
    }

    static MsgAddress named(const QString& name)
    {
        return MsgAddress(MachineName(HubTest::machine()), name, QString());
    }

    // Asks the Hub, from this test's attached context, to tell when
    // `address` is ready or has exited.
    static void watch(const QString& post, const MsgAddress& address)
    {
        XmlList body;
        body.set(HubRtrRegisterNotifyOnReadyPost::Address, address.toXml());
        ASSERT_TRUE(Msg(MsgAddress(eWellKnownHubRouter), post, body).send(true));
    }

    // The address a ready or exit post tells of; invalid if none came.
    static MsgAddress told(const QString& post, bool* success = nullptr)
    {
        const Msg message = waitFor(post, 15);
        if (success)
            *success = message.getBool(HubRtrProcessReadyPost::Success);
        return MsgAddress(message.getXmlList(HubRtrProcessReadyPost::Address));
    }

    // The same from a scripted watcher, for tests whose own context must not
    // be attached when the Hub goes.
    static bool readyThroughClient(HubClient& watcher, const MsgAddress& address)
    {
        XmlList body;
        body.set(HubRtrRegisterNotifyOnReadyPost::Address, address.toXml());
        if (!watcher.send(watcher.router(), HubRtrRegisterNotifyOnReadyPost::Message, body))
            return false;
        const boost::shared_ptr<MsgPacket> post = watcher.wait(HubRtrProcessReadyPost::Message, 15000);
        XmlList told;
        return post && post->xml().get(told, HubRtrProcessReadyPost::Address) && MsgAddress(told) == address;
    }

    static Msg echo(const MsgAddress& to, const QString& cookie, const XmlList& body = XmlList())
    {
        Msg request(to, "EchoRequest", body);
        request.setCookie(cookie);
        EXPECT_TRUE(request.send());
        return request;
    }

    // The exit status of a helper, or -1 if it did not end in time.
    static int status(ChildProcess& child, int ms = 30000)
    {
        int raw = 0;
        if (!child.waitExit(ms, &raw))
            return -1;
        return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    }
};

TEST_F(AttachedHub, ProcessesExchangeByNameAndByNumberWithRepliesMatchedByCookie)
{
    start();
    const bool ran = runContext(
        [this] {
            ASSERT_EQ(Context::type(), Context::TypeAttached);
            EXPECT_EQ(Context::machineName().fullName(), HubTest::machine());
            EXPECT_EQ(Context::address().type(), eMsgAddressAttached);
            EXPECT_GE(Context::address().id(), 16u);
            EXPECT_NE(Msg::socket(), -1);
            EXPECT_EQ(Context::messaging()->loggingAddress(), MsgAddress(eWellKnownLogDaemon));

            watch(HubRtrRegisterNotifyOnReadyPost::Message, named("echo-a"));
            watch(HubRtrRegisterNotifyOnReadyPost::Message, named("echo-b"));
            ChildProcess a(helperProgram(), {"echo", "echo-a"});
            ChildProcess b(helperProgram(), {"echo", "echo-b"});
            QList<MsgAddress> ready;
            for (int i = 0; i < 2; ++i) {
                bool success = false;
                ready.append(told(HubRtrProcessReadyPost::Message, &success));
                EXPECT_TRUE(success);
            }
            ASSERT_TRUE(ready.contains(named("echo-a")) && ready.contains(named("echo-b")));

            // Interleaved requests to two processes by name: each reply
            // carries its request's cookie and body, from the one asked.
            QMap<QString, MsgAddress> asked;
            for (const QString cookie : {"a1", "b1", "a2", "b2", "a3"}) {
                XmlList body;
                body.set("Seq", cookie);
                const MsgAddress to = named(cookie.startsWith('a') ? "echo-a" : "echo-b");
                echo(to, cookie, body);
                asked.insert(cookie, to);
            }
            QMap<QString, unsigned> processIds;
            for (int count = asked.size(), i = 0; i < count; ++i) {
                const Msg reply = waitFor("EchoReply");
                ASSERT_TRUE(reply) << "reply " << i;
                const QString cookie = reply.getCookie();
                ASSERT_TRUE(asked.contains(cookie)) << cookie.toStdString();
                EXPECT_EQ(reply.getString("Seq"), cookie);
                EXPECT_EQ(reply.source(), asked.take(cookie));
                processIds.insert(cookie.left(1), reply.getUint32("ProcessId"));
            }
            EXPECT_TRUE(asked.isEmpty());

            // By number, and a body larger than an unenabled link allows:
            // both links have been enabled.
            const MsgAddress numeric(Context::machineName(), processIds.value("b"));
            ASSERT_TRUE(numeric);
            XmlList large;
            large.set("Blob", QString(200000, QChar('x')));
            echo(numeric, "n1", large);
            const Msg reply = waitFor("EchoReply");
            ASSERT_TRUE(reply);
            EXPECT_EQ(reply.getCookie(), "n1");
            EXPECT_EQ(reply.getString("Blob").size(), 200000);

            // Raw data beside the body goes as a data message both ways.
            QByteArray bytes(150000, '\0');
            for (int at = 0; at < bytes.size(); ++at)
                bytes[at] = char(at * 7 % 251);
            Msg withData(named("echo-a"), "EchoRequest");
            withData.rawData(boost::make_shared<Buffer>(bytes));
            withData.setCookie("d1");
            ASSERT_TRUE(withData.send());
            const Msg dataReply = waitFor("EchoReply");
            ASSERT_TRUE(dataReply);
            EXPECT_EQ(dataReply.getCookie(), "d1");
            ASSERT_TRUE(dataReply.rawData());
            EXPECT_EQ(dataReply.rawData()->toQByteArray(), bytes);

            // Nobody of that name: the Hub sends it back.
            echo(named("nobody"), "lost");
            const Msg back = waitFor(HubRtrUndeliverableMessagePost::Message);
            ASSERT_TRUE(back);
            EXPECT_EQ(back.getString(HubRtrUndeliverableMessagePost::Name), "EchoRequest");
            EXPECT_EQ(back.getString(HubRtrUndeliverableMessagePost::Cookie), "lost");
            EXPECT_EQ(MsgAddress(back.getXmlList(HubRtrUndeliverableMessagePost::Destination)), named("nobody"));

            for (const char* name : {"echo-a", "echo-b"})
                EXPECT_TRUE(Msg(named(name), "QuitPost").send(true));
            EXPECT_EQ(status(a), 0);
            EXPECT_EQ(status(b), 0);
        },
        Context::TypeAttached, 0, "tester");
    EXPECT_TRUE(ran);
}

TEST_F(AttachedHub, AThreadWithALoopOfItsOwnWaitsOnTheLinkInItsSelect)
{
    start();
    const bool ran = runContext(
        [this] {
            watch(HubRtrRegisterNotifyOnReadyPost::Message, named("echo"));
            ChildProcess server(helperProgram(), {"echo", "echo"});
            ASSERT_EQ(told(HubRtrProcessReadyPost::Message), named("echo"));
            echo(named("echo"), "s1");
            // As a user interface does: the link in its own select, waiting
            // there, and the messages handled when the select says so.
            MsgPending pending;
            bool replied = false;
            const MsgHandlerPointer reply = boost::make_shared<MsgHandlerFunction>([&replied](const Msg& message) {
                replied = message.getCookie() == "s1";
                return eMsgResultHandled;
            });
            Msg::addHandler("EchoReply", reply);
            const unsigned long long deadline = HubTest::steadyMs() + 10000;
            while (!replied && HubTest::steadyMs() < deadline) {
                TCPSocketSelect select;
                ASSERT_TRUE(pending.select(select));
                if (select.wait(500) != eTCPErrorNone)
                    continue;
                ASSERT_TRUE(pending.pending(select));
                pending.handle();
            }
            EXPECT_TRUE(replied);
            Msg::removeHandler("EchoReply", reply);
            EXPECT_TRUE(Msg(named("echo"), "QuitPost").send(true));
            EXPECT_EQ(status(server), 0);
        },
        Context::TypeAttached, 0, "looper");
    EXPECT_TRUE(ran);
}

TEST_F(AttachedHub, ExitIsToldForALeaverAndForAKilledProcessWhoseTraceTheHubKeeps)
{
    start();
    const bool ran = runContext(
        [this] {
            watch(HubRtrRegisterNotifyOnReadyPost::Message, named("leaver"));
            watch(HubRtrRegisterNotifyOnReadyPost::Message, named("victim"));
            ChildProcess leaver(helperProgram(), {"echo", "leaver"});
            ChildProcess victim(helperProgram(), {"echo", "victim"});
            told(HubRtrProcessReadyPost::Message);
            told(HubRtrProcessReadyPost::Message);
            watch(HubRtrRegisterNotifyOnExitPost::Message, named("leaver"));
            watch(HubRtrRegisterNotifyOnExitPost::Message, named("victim"));

            // A process that ends its context detaches, and the Hub tells.
            ASSERT_TRUE(Msg(named("leaver"), "QuitPost").send(true));
            EXPECT_EQ(status(leaver), 0);
            EXPECT_EQ(told(HubRtrProcessExitedPost::Message), named("leaver"));

            // One killed outright says nothing; its link closes with it. It is
            // killed only once it answers, so that its first trace line is
            // surely in its buffer: ready is told before its work begins.
            ASSERT_TRUE(Msg(named("victim"), "EchoRequest").send());
            ASSERT_TRUE(waitFor("EchoReply"));
            victim.kill(SIGKILL);
            EXPECT_EQ(status(victim), 128 + SIGKILL);
            EXPECT_EQ(told(HubRtrProcessExitedPost::Message), named("victim"));

            // Its trace lives on in the buffer the Hub gave it.
            ASSERT_TRUE(Msg(MsgAddress(eMsgAddressHub, eWellKnownHubManager), HubMgrMonitorRequest::Message).send());
            const Msg list = waitFor(HubMgrMonitorReply::Message);
            ASSERT_TRUE(list);
            const bool found = traced(list.body(), "helper victim", "Echo server ready");
            EXPECT_TRUE(found);
        },
        Context::TypeAttached, 0, "watcher");
    EXPECT_TRUE(ran);
}

// One that asked is told the Hub has gone; without being asked, the loss
// releases the queue of the other threads.
TEST_F(AttachedHub, TheHubsLossIsToldToWhoAskedAndReleasesTheOtherThreadsQueue)
{
    start({"--shutdown-timeout", "300"});
    std::unique_ptr<HubClient> watcher = started("watcher");
    ChildProcess notified(helperProgram(), {"hubloss", "notified", "notify"});
    ChildProcess plain(helperProgram(), {"hubloss", "plain", "release"});
    ASSERT_TRUE(readyThroughClient(*watcher, named("notified")));
    ASSERT_TRUE(readyThroughClient(*watcher, named("plain")));
    watcher->close();
    EXPECT_EQ(mpHub->stop(), 0);
    EXPECT_EQ(status(notified), 10);
    EXPECT_EQ(status(plain), 20);
}

TEST_F(AttachedHub, AMonitoredProcessRunsStandaloneAndTracesIntoTheHubsBuffer)
{
    start();
    std::unique_ptr<HubClient> viewer = started("viewer");
    ChildProcess helper(helperProgram(), {"monitored", "mon"});
    // Its buffer is the Hub's: poll the Hub's list until the line shows.
    bool found = false;
    const unsigned long long deadline = HubTest::steadyMs() + 15000;
    while (!found && HubTest::steadyMs() < deadline && helper.running()) {
        const boost::shared_ptr<MsgPacket> list =
            viewer->request(viewer->manager(), HubMgrMonitorRequest::Message, XmlList(), HubMgrMonitorReply::Message);
        ASSERT_TRUE(list);
        found = traced(list->xml(), "helper mon", "Monitored process running");
        QThread::msleep(50);
    }
    EXPECT_TRUE(found);
    EXPECT_TRUE(helper.running()) << "it ended early with " << status(helper, 0);
}

} // namespace
