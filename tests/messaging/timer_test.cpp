// The process's timer thread: the order in which events fire, replacement by
// the same context and name, names per context, cancel, events already due,
// shutdown; and what it does with callers and posts it cannot serve. Times
// are tens of milliseconds and every wait is bounded.

#include "core/context.h"
#include "messaging/messaging.h"
#include "messaging/msg.h"
#include "messaging/msgcatalogue.h"
#include "messaging/timer.h"

#include "testhome.h"
#include "threadcontexts.h"

#include <QRegularExpression>

#include <gtest/gtest.h>

#include <thread>

using namespace Brevi;
using namespace BreviTest;

namespace {

namespace SetPost = Catalogue::TimerSetPost;

// Every context of the test traces at full detail, the timer's too.
void traceEverything(const TestHome& home)
{
    home.writeProfile({"<item name=\"DefaultTraceLevel\" type=\"string\">", "<value>TraceDebug</value>"});
}

// The timer thread's trace file; read after the shutdown, when it is closed.
QString timerTrace(const TestHome& home)
{
    const QStringList files = home.filesIn(home.trace(), "*-timer-*.tra");
    return files.size() == 1 ? QString::fromUtf8(TestHome::readFile(home.trace() + "/" + files.first())) : QString();
}

// "name/cookie" of what the timer sends this context, until `last` comes or
// `ms` have passed.
QStringList firedUntil(const QString& last, qint64 ms = 5000)
{
    QStringList fired;
    const unsigned long long deadline = Context::systemTime() + ms;
    for (unsigned long long now = Context::systemTime(); now < deadline; now = Context::systemTime()) {
        IpcResult result = eIpcResultOk;
        const Msg message = Context::messaging()->receive(result, qint64(deadline - now));
        if (!message)
            break;
        EXPECT_EQ(message.source(), Timer::address()) << message.name().toStdString();
        fired << message.name() + '/' + message.getCookie();
        if (message.name() == last)
            break;
    }
    return fired;
}

// A set post as any context could send it, with the time as given.
bool postSet(const QString& name, unsigned long long when, const QString& cookie)
{
    Msg post(Timer::address(), SetPost::Message);
    post.set(SetPost::Name, name);
    post.set(SetPost::When, when);
    post.set(SetPost::Cookie, cookie);
    return post.send();
}

// What a worker thread saw; each test starts it afresh.
QStringList gWorkerFired;
Gate gWorkerSet;

} // namespace

TEST(Timer, EventsFireInTimeOrderAndEqualTimesInTheOrderSet)
{
    TestHome home;
    ASSERT_TRUE(runStandalone(
        [] {
            ASSERT_TRUE(Timer::set("Last", 120, "l"));
            ASSERT_TRUE(Timer::isRunning());
            const unsigned long long same = Context::systemTime() + 60;
            for (const char* name : {"B1", "B2", "B3"})
                ASSERT_TRUE(postSet(name, same, name));
            ASSERT_TRUE(Timer::set("A", 20, "a"));
            ASSERT_TRUE(Timer::set("C", 90));
            EXPECT_EQ(firedUntil("Last"), QStringList({"A/a", "B1/B1", "B2/B2", "B3/B3", "C/", "Last/l"}));
            Timer::shutdown();
        },
        "Parent"));
}

TEST(Timer, SettingANameAgainMovesItsOneEvent)
{
    TestHome home;
    traceEverything(home);
    ASSERT_TRUE(runStandalone(
        [] {
            // Later: the first time passes without a message.
            ASSERT_TRUE(Timer::set("Tick", 30, "first"));
            const unsigned long long before = Context::systemTime();
            ASSERT_TRUE(Timer::set("Tick", 80, "second"));
            ASSERT_TRUE(Timer::set("Probe", 150));
            EXPECT_EQ(firedUntil("Tick"), QStringList({"Tick/second"}));
            EXPECT_GE(Context::systemTime(), before + 80);
            EXPECT_EQ(firedUntil("Probe"), QStringList({"Probe/"}));

            // Earlier: nothing is left behind at the old time.
            ASSERT_TRUE(Timer::set("Tock", 60000, "old"));
            ASSERT_TRUE(Timer::set("Tock", 10, "new"));
            EXPECT_EQ(firedUntil("Tock"), QStringList({"Tock/new"}));
            Timer::shutdown();
        },
        "Parent"));
    EXPECT_TRUE(timerTrace(home).contains("dropping 0 pending event(s)")) << timerTrace(home).toStdString();
}

TEST(Timer, NamesArePerContextAndSoIsCancel)
{
    TestHome home;
    ASSERT_TRUE(runStandalone(
        [] {
            ASSERT_TRUE(Timer::set("Tick", 200, "parent"));
            WorkerThread worker(
                [] {
                    const bool set = Timer::set("Tick", 300, "worker");
                    gWorkerSet.open();
                    if (set)
                        gWorkerFired = firedUntil("Tick");
                },
                "Worker");
            ASSERT_TRUE(gWorkerSet.wait());
            // Behind the worker's set in the timer's queue: it must leave
            // the worker's Tick alone.
            ASSERT_TRUE(Timer::cancel("Tick"));
            ASSERT_TRUE(Timer::set("Probe", 400));
            EXPECT_EQ(firedUntil("Probe"), QStringList({"Probe/"}));
            worker.join();
            EXPECT_EQ(gWorkerFired, QStringList({"Tick/worker"}));
            Timer::shutdown();
        },
        "Parent"));
}

TEST(Timer, CancelDropsTheEventAndAnUnknownNameIsNothing)
{
    TestHome home;
    traceEverything(home);
    ASSERT_TRUE(runStandalone(
        [] {
            ASSERT_TRUE(Timer::set("Tick", 30));
            ASSERT_TRUE(Timer::set("Tock", 40));
            EXPECT_TRUE(Timer::cancel("Tick"));
            EXPECT_TRUE(Timer::cancel("Unknown"));
            ASSERT_TRUE(Timer::set("Probe", 80));
            EXPECT_EQ(firedUntil("Probe"), QStringList({"Tock/", "Probe/"}));
            Timer::shutdown();
        },
        "Parent"));
    const QString trace = timerTrace(home);
    EXPECT_TRUE(trace.contains(QRegularExpression("Cancel post from .* for 'Unknown'"))) << trace.toStdString();
}

TEST(Timer, AnEventAlreadyDueFiresAtOnceAndTracesItsLateness)
{
    TestHome home;
    traceEverything(home);
    ASSERT_TRUE(runStandalone(
        [] {
            ASSERT_TRUE(Timer::set("Now", 0, "zero"));
            ASSERT_TRUE(postSet("Past", Context::systemTime() - 500, "p"));
            EXPECT_EQ(firedUntil("Past", 2000), QStringList({"Now/zero", "Past/p"}));
            Timer::shutdown();
        },
        "Parent"));
    const QString trace = timerTrace(home);
    const QRegularExpressionMatch late =
        QRegularExpression("Notify Message 'Past' Cookie 'p' (\\d+) msec late").match(trace);
    ASSERT_TRUE(late.hasMatch()) << trace.toStdString();
    EXPECT_GE(late.captured(1).toInt(), 500);
}

TEST(Timer, ShutdownJoinsTheThreadAndTheTimerStaysDown)
{
    TestHome home;
    traceEverything(home);
    ASSERT_TRUE(runStandalone(
        [] {
            const TracePosition start(true);
            ASSERT_TRUE(Timer::set("Far", 60000));
            const MsgAddress timer = Timer::address();
            ASSERT_TRUE(timer);
            Timer::shutdown();
            EXPECT_FALSE(Timer::isRunning());
            EXPECT_FALSE(Timer::address());
            EXPECT_FALSE(Msg(timer, "AnyonePost").send()) << "the timer's queue is gone";

            EXPECT_FALSE(Timer::set("Far", 10));
            EXPECT_FALSE(Timer::cancel("Far"));
            Timer::shutdown();
            const QStringList lines = tracedSince(start);
            EXPECT_EQ(lines.filter("Timer thread has been shut down").size(), 1) << lines.join('\n').toStdString();
            EXPECT_EQ(lines.filter("No timer thread, nothing to cancel for").size(), 1);
            EXPECT_EQ(lines.filter("Timer thread has already shut down").size(), 1);
        },
        "Parent"));
    const QString trace = timerTrace(home);
    EXPECT_TRUE(trace.contains("Shutdown post from")) << trace.toStdString();
    EXPECT_TRUE(trace.contains("dropping 1 pending event(s)"));
    // The thread's context was taken down before the shutdown returned.
    EXPECT_TRUE(trace.trimmed().endsWith("Disable trace"));
}

TEST(Timer, ShutdownWithoutATimerIsHarmlessAndAThreadWithoutMessagingCanStopIt)
{
    TestHome home;
    Timer::shutdown();
    ASSERT_TRUE(runStandalone(
        [] {
            Timer::shutdown();
            ASSERT_TRUE(Timer::set("Tick", 10));
            EXPECT_EQ(firedUntil("Tick"), QStringList({"Tick/"}));
            std::thread([] { Timer::shutdown(); }).join();
            EXPECT_FALSE(Timer::isRunning());
        },
        "Parent"));
    EXPECT_TRUE(timerTrace(home).contains("Timer thread ends"));
}

TEST(TimerBadInput, AnEventForAContextThatHasGoneIsDropped)
{
    TestHome home;
    ASSERT_TRUE(runStandalone(
        [] {
            ASSERT_TRUE(Timer::set("Probe", 400));
            WorkerThread worker(
                [] {
                    EXPECT_TRUE(Timer::set("Tick", 200, "gone"));
                    EXPECT_TRUE(Timer::set("Tock", 250, "gone"));
                },
                "Worker");
            worker.join();
            EXPECT_EQ(firedUntil("Probe"), QStringList({"Probe/"}));
            Timer::shutdown();
        },
        "Parent"));
    const QString trace = timerTrace(home);
    EXPECT_TRUE(trace.contains(QRegularExpression("Failed to notify .* Message 'Tick' .* dropped 1 more event")))
        << trace.toStdString();
}

TEST(TimerBadInput, CallersWithoutMessagingOrWithoutAName)
{
    TestHome home;
    // A thread with no context at all.
    std::thread([] { EXPECT_FALSE(Timer::set("Tick", 10)); }).join();
    ASSERT_TRUE(Context::run(
        [] {
            Trace::setLevel(TraceDebug, TraceModuleTimer);
            const TracePosition start(true);
            EXPECT_FALSE(Timer::set("Tick", 10));
            EXPECT_FALSE(Timer::set("", 10));
            EXPECT_FALSE(Timer::cancel("Tick"));
            const QStringList lines = tracedSince(start);
            EXPECT_EQ(lines.filter("No messaging, cannot reach the timer thread").size(), 2)
                << lines.join('\n').toStdString();
            EXPECT_EQ(lines.filter("No message name supplied").size(), 1);
            // Started by the first caller all the same; stopped by a caller
            // that cannot post to it.
            EXPECT_TRUE(Timer::isRunning());
            Timer::shutdown();
            EXPECT_FALSE(Timer::isRunning());
        },
        Context::Type(7), 0, "Plain"));
}

TEST(TimerBadInput, TheThreadIgnoresWhatItCannotUse)
{
    TestHome home;
    traceEverything(home);
    ASSERT_TRUE(runStandalone(
        [] {
            ASSERT_TRUE(Timer::set("Probe", 5000));
            ASSERT_TRUE(postSet("", Context::systemTime(), "nameless"));
            Msg timeless(Timer::address(), SetPost::Message);
            timeless.set(SetPost::Name, QStringLiteral("Timeless"));
            ASSERT_TRUE(timeless.send());
            ASSERT_TRUE(Msg(Timer::address(), "StrangePost").send());
            ASSERT_TRUE(Msg(Timer::address(), Catalogue::TimerSignalPost::Message).send());
            ASSERT_TRUE(Timer::set("Probe", 20, "after"));
            EXPECT_EQ(firedUntil("Probe"), QStringList({"Probe/after"}));
            Timer::shutdown();
        },
        "Parent"));
    const QString trace = timerTrace(home);
    EXPECT_TRUE(trace.contains(QRegularExpression("Ignored set post from .* No message name supplied")))
        << trace.toStdString();
    EXPECT_TRUE(trace.contains("No time supplied for 'Timeless'"));
    EXPECT_TRUE(trace.contains("Ignore message 'StrangePost' from"));
    EXPECT_FALSE(trace.contains("Ignore message 'TimerSignalPost'"));
    EXPECT_TRUE(trace.contains("has connected 'Hello'"));
}
