// Starting a program through a Hub with ProcessCreate: what it refuses before
// anything is sent; a thread that cannot reach a Hub; and, with the real Hub
// started on a free port, programs started and spoken to, the Hub's failures,
// machines that cannot be reached, and a Hub that goes away meanwhile.
//
// How the answers are told apart is checked with the real Hub too: messages
// that only a Hub could send (a reply from the manager, posts from the router)
// are put into this context's own queue with that source before the request
// goes out, so that they arrive ahead of the Hub's real answer. Whatever they
// leave undecided, the real answer decides.
#include "hubtest.h"
#include "processtest.h"

#include "core/context.h"
#include "core/machinename.h"
#include "core/trace.h"
#include "core/xmllist.h"
#include "messaging/messaging.h"
#include "messaging/msg.h"
#include "messaging/msgaddress.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msgroute.h"
#include "process/processcreate.h"

#include <QFile>
#include <QTemporaryDir>
#include <QThread>

#include <boost/make_shared.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <thread>

using namespace Brevi::Catalogue;
using Brevi::Context;
using Brevi::MachineName;
using Brevi::Msg;
using Brevi::MsgAddress;
using Brevi::MsgRoute;
using Brevi::ProcessCreate;
using Brevi::XmlList;
using BreviTest::TraceReader;
using HubTest::steadyMs;
using ProcessTest::inContext;

namespace {

void traceEverything() { Brevi::Trace::setLevel(Brevi::TraceDebug, Brevi::TraceModuleProcessCreate); }

// The outcome of a request that never reached a Hub.
void expectNotStarted(const ProcessCreate& request, ProcessCreate::Result error)
{
    EXPECT_EQ(request.error(), error);
    EXPECT_FALSE(request);
    EXPECT_FALSE(request.address());
}

TEST(ProcessCreateRefusal, NoMachineOrNoProgramIsRefused)
{
    inContext(
        [] {
            traceEverything();
            MsgRoute twoHops(MachineName("first@1"));
            ASSERT_TRUE(twoHops.append(MachineName("second@2")));
            TraceReader trace;
            struct Case {
                const char* what;
                ProcessCreate request;
            };
            const Case cases[] = {
                {"no machine", ProcessCreate(MachineName(), "indexer", "Indexer", "ix", "jobs")},
                {"no program", ProcessCreate(MachineName("node@1"), QString(), "Indexer")},
                {"invalid route", ProcessCreate(MsgRoute(), "indexer")},
                {"route, no program", ProcessCreate(twoHops, QString())},
            };
            for (const Case& c : cases) {
                SCOPED_TRACE(c.what);
                expectNotStarted(c.request, ProcessCreate::eInvalidArguments);
            }
            const auto lines = trace.next();
            EXPECT_TRUE(BreviTest::hasLine(lines, "Invalid argument(s)"));
            // Refused before any send was tried.
            EXPECT_FALSE(BreviTest::hasLine(lines, "Failed to send create process request"));
        },
        Context::TypeStandalone);
}

TEST(ProcessCreateRefusal, WithoutAHubLinkTheRequestCannotBeSent)
{
    // A standalone thread reaches only the contexts of its own process.
    inContext(
        [] {
            traceEverything();
            const int handlers = Context::messaging()->handlerCount();
            TraceReader trace;
            const ProcessCreate byMachine(MachineName("node@1"), "indexer", "Indexer", "ix", "jobs");
            expectNotStarted(byMachine, ProcessCreate::eSendFailed);
            EXPECT_TRUE(trace.saw("Failed to send create process request"));

            MsgRoute route(MachineName("gateway@1"));
            ASSERT_TRUE(route.append(MachineName("far@2")));
            expectNotStarted(ProcessCreate(route, "indexer"), ProcessCreate::eSendFailed);
            // No wait took place, so no handler was left behind either.
            EXPECT_EQ(Context::messaging()->handlerCount(), handlers);
        },
        Context::TypeStandalone);
}

// --- with the real Hub ----------------------------------------------------------

// A Hub on a free port with a programs directory, and this test process as
// one of its attached processes. The programs:
//   echochild  the helper built beside the tests: attaches, greets its parent,
//              answers EchoRequest, ends on QuitPost
//   notexec    a file that may not be executed
//   garbage    an executable file that no system can run
//   sleeper    never attaches: writes its pid into sleeper.pid and sleeps
class ProcessCreateHub : public HubTest::HubFixture
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(QFile::link(HubTest::childProgram(), moPrograms.filePath("echochild")));
        ProcessTest::writeFile(moPrograms.path(), "notexec", "#!/bin/sh\n", 0644);
        ProcessTest::writeFile(moPrograms.path(), "garbage", "neither a script nor a program\n", 0755);
        ProcessTest::writeFile(moPrograms.path(), "sleeper",
                               "#!/bin/sh\necho $$ > " + pidFile().toLocal8Bit() + ".new\nmv " +
                                   pidFile().toLocal8Bit() + ".new " + pidFile().toLocal8Bit() + "\nexec sleep 60\n",
                               0755);
        // The Hub waits long for an attach: a start only ends when a test
        // says so.
        startHub({"--programs", moPrograms.path(), "--attach-timeout", "60000"});
        ::setenv("BREVI_HUB_PORT", QByteArray::number(port()).constData(), 1);
    }

    void TearDown() override
    {
        // A sleeper outliving its Hub (one that was killed) is ended here.
        QFile file(pidFile());
        if (file.open(QIODevice::ReadOnly))
            ::kill(pid_t(file.readAll().trimmed().toInt()), SIGKILL);
        HubTest::HubFixture::TearDown();
    }

    QString pidFile() const { return moPrograms.filePath("sleeper.pid"); }
    // Waits until the sleeper runs.
    bool sleeperStarted() const
    {
        const unsigned long long end = steadyMs() + 10000;
        while (!QFile::exists(pidFile()) && steadyMs() < end)
            QThread::msleep(10);
        return QFile::exists(pidFile());
    }

    // Runs `body` in this process's attached context.
    static void attached(const std::function<void()>& body)
    {
        static const std::function<void()>* current = nullptr;
        current = &body;
        const bool ran = Context::run([] { (*current)(); }, Context::TypeAttached, Context::FlagAttachOnce,
                                      QStringLiteral("procreate test"));
        current = nullptr;
        ASSERT_TRUE(ran) << "no attached context";
    }

    QTemporaryDir moPrograms;
};

MsgAddress manager() { return MsgAddress(Context::machineName(), Brevi::eWellKnownHubManager); }
MsgAddress router() { return MsgAddress(Context::machineName(), Brevi::eWellKnownHubRouter); }

// The instance number the next ProcessCreate of this context takes.
unsigned nextInstance() { return Context::uniqueId() + 1; }

// Puts a message from `source` into this context's own queue.
void arrives(const MsgAddress& source, const QString& name, const XmlList& body)
{
    ASSERT_TRUE(Msg(Brevi::Authorization(), source, Context::address(), name, body).send());
}

XmlList createReply(unsigned instance, const QString& status)
{
    XmlList body;
    body.set(HubMgrCreateProcessReply::Instance, instance);
    body.set(HubMgrCreateProcessReply::Status, status);
    return body;
}

// A request of this context to the manager, returned as undeliverable.
XmlList bounced(unsigned instance, const QString& program, const MsgAddress& destination = manager())
{
    XmlList request;
    request.set(HubMgrCreateProcessRequest::Program, program);
    request.set(HubMgrCreateProcessRequest::Instance, instance);
    XmlList body;
    body.set(HubRtrUndeliverableMessagePost::Destination, destination.toXml());
    body.set(HubRtrUndeliverableMessagePost::Name, HubMgrCreateProcessRequest::Message);
    body.set(HubRtrUndeliverableMessagePost::Body, request);
    return body;
}

XmlList exited(const MsgAddress& address)
{
    XmlList body;
    body.set(HubRtrProcessExitedPost::Address, address.toXml());
    return body;
}

// The program that the real Hub turns down at once, so that its answer
// arrives behind whatever a test has put in the queue.
const char* const Missing = "nothere";

TEST_F(ProcessCreateHub, StartedProgramIsReachedAtTheAddressGiven)
{
    attached([] {
        const int handlers = Context::messaging()->handlerCount();
        const ProcessCreate child(Context::machineName(), "echochild", "Echo Child", "kid", "jobs");
        ASSERT_TRUE(child) << "error " << child.error();
        EXPECT_EQ(child.error(), ProcessCreate::eCreated);
        EXPECT_EQ(child.address(), MsgAddress(Context::machineName(), "kid", "jobs"));
        EXPECT_EQ(Context::messaging()->handlerCount(), handlers);

        // The child learnt from the Hub who started it.
        const Msg hello = Msg::wait("ChildHelloPost", 20);
        ASSERT_TRUE(hello) << hello.lastError();
        EXPECT_EQ(MsgAddress(hello.getXmlList("ParentAddress")), Context::address());

        XmlList question;
        question.set("Value", QStringLiteral("ping"));
        ASSERT_TRUE(Msg(child.address(), "EchoRequest", question).send());
        const Msg echo = Msg::wait("EchoReply", 20);
        ASSERT_TRUE(echo) << echo.lastError();
        EXPECT_EQ(echo.getString("Value"), "ping");

        // The name and group are taken while the child lives.
        const ProcessCreate twin(Context::machineName(), "echochild", "Twin", "kid", "jobs");
        EXPECT_EQ(twin.error(), ProcessCreate::eNameConflict);
        EXPECT_FALSE(twin);
        EXPECT_FALSE(twin.address());

        // Without a name the child is found by its number; a group alone
        // names nothing.
        const ProcessCreate anonymous(Context::machineName(), "echochild", "Anonymous", QString(), "jobs");
        ASSERT_TRUE(anonymous) << "error " << anonymous.error();
        EXPECT_NE(anonymous.address().id(), 0u);
        EXPECT_TRUE(anonymous.address().name().isEmpty());
        ASSERT_TRUE(Msg(anonymous.address(), "EchoRequest", question).send());
        EXPECT_TRUE(Msg::wait("EchoReply", 20));

        EXPECT_TRUE(Msg(child.address(), "QuitPost").send(true));
        EXPECT_TRUE(Msg(anonymous.address(), "QuitPost").send(true));
    });
}

TEST_F(ProcessCreateHub, TheHubsRefusalsBecomeResults)
{
    attached([] {
        const int handlers = Context::messaging()->handlerCount();
        struct Case {
            const char* program;
            ProcessCreate::Result error;
        };
        const Case cases[] = {
            {Missing, ProcessCreate::eDoesNotExist},
            {"../echochild", ProcessCreate::eInvalid},
            {"garbage", ProcessCreate::eSpawnFailed},
            // "No Executable" has no value of its own.
            {"notexec", ProcessCreate::eOtherFailure},
        };
        for (const Case& c : cases) {
            const ProcessCreate request(Context::machineName(), c.program, "Refused");
            EXPECT_EQ(request.error(), c.error) << c.program;
            EXPECT_FALSE(request) << c.program;
            EXPECT_FALSE(request.address()) << c.program;
        }
        EXPECT_EQ(Context::messaging()->handlerCount(), handlers);
    });
}

TEST_F(ProcessCreateHub, MachineThatCannotBeReachedIsUnavailable)
{
    attached([] {
        const int handlers = Context::messaging()->handlerCount();
        const ProcessCreate far(MachineName("elsewhere@0badcafe"), "echochild");
        EXPECT_EQ(far.error(), ProcessCreate::eUnavailable);
        EXPECT_FALSE(far);

        MsgRoute route(MachineName("gateway@1"));
        ASSERT_TRUE(route.append(MachineName("beyond@2")));
        const ProcessCreate routed(route, "echochild");
        EXPECT_EQ(routed.error(), ProcessCreate::eUnavailable);
        EXPECT_EQ(Context::messaging()->handlerCount(), handlers);
    });
}

TEST_F(ProcessCreateHub, HubThatGoesAwayEndsTheWait)
{
    std::atomic<bool> killed{false};
    std::thread killer([this, &killed] {
        if (sleeperStarted()) {
            mpHub->process().kill(SIGKILL);
            killed = mpHub->process().waitExit(10000);
        }
    });
    attached([] {
        // The Hub started the sleeper and waits for it to attach; it dies
        // before it can answer.
        const ProcessCreate request(Context::machineName(), "sleeper");
        EXPECT_EQ(request.error(), ProcessCreate::eWaitFailed);
        EXPECT_FALSE(request);
    });
    killer.join();
    EXPECT_TRUE(killed);
}

// --- which answer counts --------------------------------------------------------

TEST_F(ProcessCreateHub, OnlyTheManagersReplyToThisRequestCounts)
{
    attached([] {
        // The right instance from a process that is not the Hub; the Hub's
        // manager answering another request of this process.
        const unsigned instance = nextInstance();
        XmlList success = createReply(instance, HubMgrCreateProcessReply::StatusSuccess);
        success.set(HubMgrCreateProcessReply::Address, MsgAddress(Context::machineName(), 4242).toXml());
        arrives(MsgAddress(Context::machineName(), 4242), HubMgrCreateProcessReply::Message, success);
        XmlList other = success.clone();
        other.set(HubMgrCreateProcessReply::Instance, instance + 1000);
        arrives(manager(), HubMgrCreateProcessReply::Message, other);

        const ProcessCreate request(Context::machineName(), Missing);
        EXPECT_EQ(request.error(), ProcessCreate::eDoesNotExist);
        EXPECT_FALSE(request.address());

        // The router may answer too; "Success" brings the address.
        arrives(router(), HubMgrCreateProcessReply::Message, success.clone());
        success.set(HubMgrCreateProcessReply::Instance, nextInstance());
        arrives(router(), HubMgrCreateProcessReply::Message, success);
        const ProcessCreate answered(Context::machineName(), Missing);
        EXPECT_EQ(answered.error(), ProcessCreate::eCreated);
        EXPECT_EQ(answered.address(), MsgAddress(Context::machineName(), 4242));
        EXPECT_TRUE(answered);
    });
}

TEST_F(ProcessCreateHub, StatusWordsMapToResults)
{
    attached([] {
        struct Case {
            QString status;
            ProcessCreate::Result error;
        };
        const Case cases[] = {
            {"Invalid", ProcessCreate::eInvalid},
            {"Does Not Exist", ProcessCreate::eDoesNotExist},
            {"Spawn Failed", ProcessCreate::eSpawnFailed},
            {"Execute Failed", ProcessCreate::eExecuteFailed},
            {"Name Conflict", ProcessCreate::eNameConflict},
            {"Shutdown", ProcessCreate::eOtherFailure},
            {"No Executable", ProcessCreate::eOtherFailure},
            {"Attach Failed", ProcessCreate::eOtherFailure},
            // Compared exactly.
            {"name conflict", ProcessCreate::eOtherFailure},
            {"Success ", ProcessCreate::eOtherFailure},
            // "Success" without an address to reach the process at.
            {"Success", ProcessCreate::eOtherFailure},
        };
        for (const Case& c : cases) {
            arrives(manager(), HubMgrCreateProcessReply::Message, createReply(nextInstance(), c.status));
            const ProcessCreate request(Context::machineName(), Missing);
            EXPECT_EQ(request.error(), c.error) << c.status.toStdString();
            EXPECT_FALSE(request) << c.status.toStdString();
        }
    });
}

TEST_F(ProcessCreateHub, OnlyThisRequestReturnedEndsTheWait)
{
    attached([] {
        const unsigned instance = nextInstance();
        // Another program to the same manager with this instance number, this
        // request to another machine, and this very request but not from a
        // router.
        arrives(router(), HubRtrUndeliverableMessagePost::Message, bounced(instance, "other"));
        arrives(router(), HubRtrUndeliverableMessagePost::Message,
                bounced(instance, Missing, MsgAddress(MachineName("elsewhere@1"), Brevi::eWellKnownHubManager)));
        arrives(manager(), HubRtrUndeliverableMessagePost::Message, bounced(instance, Missing));
        const ProcessCreate request(Context::machineName(), Missing);
        EXPECT_EQ(request.error(), ProcessCreate::eDoesNotExist);

        arrives(router(), HubRtrUndeliverableMessagePost::Message, bounced(nextInstance(), Missing));
        const ProcessCreate bouncedRequest(Context::machineName(), Missing);
        EXPECT_EQ(bouncedRequest.error(), ProcessCreate::eUnavailable);
        EXPECT_FALSE(bouncedRequest);
    });
}

TEST_F(ProcessCreateHub, EndOfTheTargetsManagerEndsTheWaitAndIsPassedOn)
{
    attached([] {
        // Another watcher of exits in this context.
        int told = 0;
        const Brevi::MsgHandlerPointer watcher = boost::make_shared<Brevi::MsgHandlerFunction>([&told](const Msg&) {
            ++told;
            return Brevi::eMsgResultHandled;
        });
        ASSERT_TRUE(Msg::addHandler(HubRtrProcessExitedPost::Message, watcher));

        // Another process's end, and the manager's told by someone who is not
        // the router: neither decides.
        arrives(router(), HubRtrProcessExitedPost::Message, exited(MsgAddress(Context::machineName(), 4242)));
        arrives(manager(), HubRtrProcessExitedPost::Message, exited(manager()));
        const ProcessCreate request(Context::machineName(), Missing);
        EXPECT_EQ(request.error(), ProcessCreate::eDoesNotExist);
        EXPECT_EQ(told, 2);

        arrives(router(), HubRtrProcessExitedPost::Message, exited(manager()));
        const ProcessCreate gone(Context::machineName(), Missing);
        EXPECT_EQ(gone.error(), ProcessCreate::eUnavailable);
        EXPECT_FALSE(gone);
        EXPECT_EQ(told, 3);
        Msg::removeHandler(HubRtrProcessExitedPost::Message, watcher);
    });
}

} // namespace
