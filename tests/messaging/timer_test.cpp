// The process's timer thread: the order in which events fire, replacement by
// the same context and name, names and cancel per context, events already
// due, shutdown; and what it does with callers and posts it cannot serve. Times
// are a few hundred milliseconds, so that the posts behind an event are read
// before it is due even on a loaded machine or under a sanitizer; every wait
// is bounded.

#include "core/context.h"
#include "messaging/messaging.h"
#include "messaging/msg.h"
#include "messaging/msgcatalogue.h"
#include "messaging/timer.h"

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

// Timer::set for the moment `when`.
bool setAt(const QString& name, unsigned long long when, const QString& cookie)
{
    const unsigned long long now = Context::systemTime();
    return Timer::set(name, unsigned(when > now ? when - now : 0), cookie);
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

// What a worker thread saw.
QStringList gWorkerFired;
Gate gWorkerSet;

} // namespace

TEST(Timer, EventsFireInTimeOrderAndASecondSetOfANameMovesItsOneEvent)
{
    ASSERT_TRUE(runInNewHome(
        [] {
            const unsigned long long base = Context::systemTime() + 400;
            ASSERT_TRUE(setAt("Last", base + 300, "l"));
            for (const char* name : {"B1", "B2", "B3"})
                ASSERT_TRUE(postSet(name, base + 100, name));
            ASSERT_TRUE(setAt("A", base, "a"));
            ASSERT_TRUE(setAt("Tick", base + 50, "first"));
            ASSERT_TRUE(setAt("Tick", base + 200, "second"));
            EXPECT_EQ(firedUntil("Last"), QStringList({"A/a", "B1/B1", "B2/B2", "B3/B3", "Tick/second", "Last/l"}));
            EXPECT_GE(Context::systemTime(), base + 300);
            Timer::shutdown();
        },
        "Parent"));
}

TEST(Timer, NamesAndCancelArePerContext)
{
    ASSERT_TRUE(runInNewHome(
        [] {
            WorkerThread worker(
                [] {
                    const bool set = Timer::set("Tick", 700, "worker");
                    gWorkerSet.open();
                    if (set)
                        gWorkerFired = firedUntil("Tick");
                },
                "Worker");
            ASSERT_TRUE(gWorkerSet.wait());
            // Behind the worker's set in the timer's queue.
            ASSERT_TRUE(Timer::set("Tick", 400, "parent"));
            EXPECT_TRUE(Timer::cancel("Tick"));
            EXPECT_TRUE(Timer::cancel("Unknown"));
            ASSERT_TRUE(Timer::set("Probe", 500));
            EXPECT_EQ(firedUntil("Probe"), QStringList({"Probe/"}));
            worker.join();
            EXPECT_EQ(gWorkerFired, QStringList({"Tick/worker"}));
            Timer::shutdown();
        },
        "Parent"));
}

TEST(Timer, AnEventAlreadyDueFiresAtOnceAndTracesItsLateness)
{
    TestHome home;
    traceEverything(home);
    ASSERT_TRUE(runStandalone(
        [] {
            ASSERT_TRUE(Timer::set("Later", 60000));
            ASSERT_TRUE(postSet("Past", Context::systemTime() - 500, "p"));
            EXPECT_EQ(firedUntil("Past", 2000), QStringList({"Past/p"}));
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
    Timer::shutdown(); // no timer yet: nothing to do
    ASSERT_TRUE(runStandalone(
        [] {
            TraceReader trace;
            ASSERT_TRUE(Timer::set("Far", 60000));
            const MsgAddress timer = Timer::address();
            Timer::shutdown();
            EXPECT_FALSE(Timer::isRunning());
            EXPECT_FALSE(Timer::address());
            EXPECT_FALSE(Msg(timer, "AnyonePost").send()) << "the timer's queue is gone";
            EXPECT_FALSE(Timer::set("Far", 10));
            EXPECT_FALSE(Timer::cancel("Far"));
            Timer::shutdown();
            const QStringList lines = trace.nextTexts();
            EXPECT_EQ(lines.filter("Timer thread has been shut down").size(), 1) << lines.join('\n').toStdString();
            EXPECT_EQ(lines.filter("No timer thread, nothing to cancel for").size(), 1);
        },
        "Parent"));
    const QString trace = timerTrace(home);
    EXPECT_TRUE(trace.contains("Shutdown post from")) << trace.toStdString();
    EXPECT_TRUE(trace.contains("dropping 1 pending event(s)"));
    // The thread's context was taken down before the shutdown returned.
    EXPECT_TRUE(trace.trimmed().endsWith("Disable trace"));
}

TEST(TimerBadInput, AnEventForAContextThatHasGoneIsDropped)
{
    TestHome home;
    ASSERT_TRUE(runStandalone(
        [] {
            ASSERT_TRUE(Timer::set("Probe", 60000));
            WorkerThread worker(
                [] {
                    // Tock first, so that it is in the list when Tick fires.
                    EXPECT_TRUE(Timer::set("Tock", 650, "gone"));
                    EXPECT_TRUE(Timer::set("Tick", 600, "gone"));
                },
                "Worker");
            worker.join();
            // Due after the worker's events: the timer is still there for
            // those who are.
            ASSERT_TRUE(Timer::set("Probe", 700));
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
            TraceReader trace;
            EXPECT_FALSE(Timer::set("Tick", 10));
            EXPECT_FALSE(Timer::set("", 10));
            EXPECT_FALSE(Timer::cancel("Tick"));
            const QStringList lines = trace.nextTexts();
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
            ASSERT_TRUE(Timer::set("Probe", 60000));
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
}
