// The tools around the Hub, run as a person runs them, against the real Hub:
// hubstatus lists what is attached, processtrace prints the trace of a
// process that has ended or goes on running, tracelevel changes what a
// running process traces, and each says so plainly when there is no Hub.
//
// The processes they look at are mostly scripted clients of the Hub that
// trace into the buffer the Hub gave them, as a process's Trace does, and one
// program attached through the library.

#include "core/sharedmemoryuser.h"
#include "core/trace.h"

#include "hubtest.h"

#include <QProcess>
#include <QThread>

#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include <csignal>

#include <unistd.h>

using namespace Brevi;
using namespace HubTest;

namespace {

struct ToolRun {
    int exitCode = -1;
    QString out;
    QString err;
};

ToolRun run(const QString& program, const QStringList& arguments, const QStringList& unset = {})
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const QString& name : unset)
        environment.remove(name);
    process.setProcessEnvironment(environment);
    process.start(program, arguments);
    if (!process.waitForFinished(30000))
        process.kill();
    process.waitForFinished(5000);
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            QString::fromUtf8(process.readAllStandardOutput()), QString::fromUtf8(process.readAllStandardError())};
}

// Tries `check` until it holds, for up to ten seconds.
bool eventually(const std::function<bool()>& check)
{
    for (int i = 0; i < 200; ++i) {
        if (check())
            return true;
        QThread::msleep(50);
    }
    return false;
}

// A process attached to the Hub. One that traces does so into its shared
// buffer through the Trace of the test's thread (only one per thread), which
// starts at TraceNormal on every module, as a process's does; one that does
// not only has its buffer's levels set so.
class TracingProcess
{
public:
    TracingProcess(unsigned port, bool traces, const QString& title, const QString& name = QString(),
                   const QString& group = QString())
        : moClient(new HubClient(port))
    {
        mbStarted = moClient->attach(title, name, group);
        moBuffer = SharedMemoryUser(moClient->traceBuffer());
        mbStarted = mbStarted && moBuffer && moClient->enable();
        if (!mbStarted)
            return;
        if (traces) {
            mpTrace.reset(new Trace);
            mpTrace->initializeBuffer(moBuffer.address(), moBuffer.size(), true);
        } else {
            Trace::setLevel(moBuffer.address(), TraceNormal, 0);
        }
    }
    ~TracingProcess()
    {
        if (mpTrace)
            mpTrace->disable();
    }

    bool started() const { return mbStarted; }
    unsigned processId() const { return moClient->processId(); }
    const unsigned char* buffer() const { return moBuffer.address(); }
    void end() { moClient->close(); }

private:
    std::unique_ptr<HubClient> moClient;
    SharedMemoryUser moBuffer;
    std::unique_ptr<Trace> mpTrace;
    bool mbStarted = false;
};

class HubTools : public HubFixture
{
protected:
    ToolRun tool(const char* program, QStringList arguments)
    {
        arguments << "--port" << QString::number(port());
        return run(QString::fromUtf8(program), arguments);
    }
    // Once the Hub has seen the process go, its list says "Exited".
    bool listedAsExited(const QString& title)
    {
        return eventually([&] {
            const QStringList lines = tool(HUBSTATUS, {}).out.split('\n');
            return !lines.filter(title).filter("Exited").isEmpty();
        });
    }
};

} // namespace

TEST_F(HubTools, StatusListsTheAttachedAndTheEndedProcesses)
{
    startHub();
    TracingProcess worker(port(), false, "Backup worker 7", "Worker", "Jobs");
    TracingProcess plain(port(), false, "Plain one");
    ASSERT_TRUE(worker.started());
    ASSERT_TRUE(plain.started());

    ToolRun status = tool(HUBSTATUS, {});
    ASSERT_EQ(status.exitCode, 0) << status.err.toStdString();
    const QStringList lines = status.out.split('\n', Qt::SkipEmptyParts);
    EXPECT_TRUE(lines[0].contains("2 live processes")) << status.out.toStdString();
    const QStringList workerLines = lines.filter("Backup worker 7");
    ASSERT_EQ(workerLines.size(), 1) << status.out.toStdString();
    const QStringList columns = workerLines[0].split(' ', Qt::SkipEmptyParts);
    EXPECT_TRUE(columns.contains(QString::number(worker.processId())));
    EXPECT_TRUE(columns.contains(QString::number(::getpid())));
    EXPECT_TRUE(columns.contains("Ready"));
    EXPECT_TRUE(columns.contains("Worker/Jobs"));
    EXPECT_EQ(lines.filter("Plain one").size(), 1);
    EXPECT_TRUE(lines.filter("hubstatus").isEmpty()) << "the tool leaves itself out";

    // A program attached through the library shows as it attached.
    ChildProcess target(TOOLTARGET, {"Target program", "Target"}, {"BREVI_HUB_PORT=" + QString::number(port())});
    EXPECT_TRUE(eventually([&] {
        const QStringList rows = tool(HUBSTATUS, {}).out.split('\n').filter("Target program");
        return rows.size() == 1 && rows[0].split(' ', Qt::SkipEmptyParts).contains("Target") &&
               rows[0].split(' ', Qt::SkipEmptyParts).contains(QString::number(target.pid()));
    }));
    target.kill(SIGKILL);
    EXPECT_TRUE(target.waitExit(5000));

    plain.end();
    ASSERT_TRUE(listedAsExited("Plain one"));
    status = tool(HUBSTATUS, {"--live"});
    EXPECT_EQ(status.exitCode, 0);
    EXPECT_TRUE(status.out.contains("Backup worker 7"));
    EXPECT_FALSE(status.out.contains("Plain one"));
}

TEST_F(HubTools, TraceOfAProcessFollowedWhileItRunsAndReadAfterItEnded)
{
    startHub();
    QProcess follower;
    {
        TracingProcess process(port(), true, "Short lived", "Short");
        ASSERT_TRUE(process.started());
        Trace::setLevel(TraceDebug, unsigned(TraceModuleTimer));
        for (int i = 1; i <= 5; ++i)
            BREVI_TRACE(TraceModuleApplication, TraceAlways) << "step" << i;

        // Once the first lines are out, the follower follows.
        follower.start(PROCESSTRACE, {"--port", QString::number(port()), "--follow", "Short"});
        ASSERT_TRUE(eventually([&] {
            follower.waitForReadyRead(50);
            return follower.peek(1 << 16).contains("step 5");
        }));
        BREVI_TRACE(TraceModuleTimer, TraceDebug) << "timer detail";
        BREVI_TRACE(TraceModuleApplication, TraceNormal) << "last words";
        process.end();
    }
    ASSERT_TRUE(follower.waitForFinished(20000));
    EXPECT_EQ(follower.exitCode(), 0);
    const QString followed = QString::fromUtf8(follower.readAllStandardOutput());
    EXPECT_EQ(followed.count("step 1"), 1) << followed.toStdString();
    EXPECT_EQ(followed.count("last words"), 1) << followed.toStdString();
    EXPECT_TRUE(QString::fromUtf8(follower.readAllStandardError()).contains("has ended"));
    ASSERT_TRUE(listedAsExited("Short lived"));

    ToolRun trace = tool(PROCESSTRACE, {"Short"});
    ASSERT_EQ(trace.exitCode, 0) << trace.err.toStdString();
    EXPECT_EQ(trace.out, followed);
    // The link's own lines come after these: the test's are the process's.
    QStringList lines = trace.out.split('\n', Qt::SkipEmptyParts).filter("hubtools_test:");
    ASSERT_EQ(lines.size(), 7) << trace.out.toStdString();
    EXPECT_TRUE(trace.out.startsWith(lines[0]));
    EXPECT_TRUE(lines[0].contains("step 1"));
    EXPECT_TRUE(lines[5].contains("timer detail"));
    EXPECT_TRUE(lines[6].contains("last words"));
    EXPECT_TRUE(lines[6].contains("APPLICATION"));
    EXPECT_TRUE(trace.err.contains("Exited"));

    // By title as well; filtered by level, module and count.
    trace = tool(PROCESSTRACE, {"Short lived", "--max-level", "always", "--last", "2"});
    lines = trace.out.split('\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 2) << trace.out.toStdString();
    EXPECT_TRUE(lines[0].contains("step 4"));
    EXPECT_TRUE(lines[1].contains("step 5"));
    trace = tool(PROCESSTRACE, {"Short", "--module", "TIMER"});
    EXPECT_EQ(trace.out.count('\n'), 1);
    EXPECT_TRUE(trace.out.contains("timer detail"));

    trace = tool(PROCESSTRACE, {"Nobody"});
    EXPECT_EQ(trace.exitCode, 1);
    EXPECT_TRUE(trace.err.contains("no process 'Nobody'")) << trace.err.toStdString();
}

TEST_F(HubTools, LevelChangesWhatARunningProcessTraces)
{
    startHub();
    TracingProcess process(port(), true, "Tracer", "Tracer");
    TracingProcess bystander(port(), false, "Bystander");
    ASSERT_TRUE(process.started());
    ASSERT_TRUE(bystander.started());
    EXPECT_EQ(Trace::getLevel(process.buffer(), TraceModuleApplication), TraceNormal);
    BREVI_TRACE(TraceModuleApplication, TraceDebug) << "debug before";

    // One process, every module.
    ToolRun level = tool(TRACELEVEL, {"debug", "Tracer"});
    ASSERT_EQ(level.exitCode, 0) << level.err.toStdString();
    EXPECT_TRUE(level.out.contains("TraceDebug set on all modules of process")) << level.out.toStdString();
    BREVI_TRACE(TraceModuleApplication, TraceDebug) << "debug after";
    EXPECT_EQ(Trace::getLevel(bystander.buffer(), TraceModuleApplication), TraceNormal);

    const ToolRun trace = tool(PROCESSTRACE, {"Tracer"});
    EXPECT_TRUE(trace.out.contains("debug after")) << trace.out.toStdString();
    EXPECT_FALSE(trace.out.contains("debug before"));

    // One module of one process, by its name.
    level = tool(TRACELEVEL, {"--module", "MSG", "1", QString::number(process.processId())});
    ASSERT_EQ(level.exitCode, 0) << level.err.toStdString();
    EXPECT_EQ(Trace::getLevel(process.buffer(), TraceModuleMsg), TraceTesting);
    EXPECT_EQ(Trace::getLevel(process.buffer(), TraceModuleContext), TraceDebug);
    const ToolRun show = tool(TRACELEVEL, {"--show", "Tracer"});
    ASSERT_EQ(show.exitCode, 0) << show.err.toStdString();
    EXPECT_TRUE(show.out.contains("most modules: TraceDebug")) << show.out.toStdString();
    EXPECT_FALSE(show.out.split('\n').filter(QRegExp("^  MSG +1 TraceTesting$")).isEmpty()) << show.out.toStdString();

    // Every process, through the Hub.
    level = tool(TRACELEVEL, {"always"});
    ASSERT_EQ(level.exitCode, 0) << level.err.toStdString();
    EXPECT_TRUE(level.out.contains("of 2 live processes")) << level.out.toStdString();
    for (const unsigned module : {unsigned(TraceModuleMsg), unsigned(TraceModuleApplication), 700u}) {
        EXPECT_EQ(Trace::getLevel(process.buffer(), module), TraceAlways) << module;
        EXPECT_EQ(Trace::getLevel(bystander.buffer(), module), TraceAlways) << module;
    }
    BREVI_TRACE(TraceModuleApplication, TraceNormal) << "normal after always";
    BREVI_TRACE(TraceModuleApplication, TraceAlways) << "always after always";
    const ToolRun quieter = tool(PROCESSTRACE, {"Tracer", "--last", "1"});
    EXPECT_TRUE(quieter.out.contains("always after always")) << quieter.out.toStdString();

    // An ended process's levels no longer matter.
    bystander.end();
    ASSERT_TRUE(listedAsExited("Bystander"));
    level = tool(TRACELEVEL, {"debug", "Bystander"});
    EXPECT_EQ(level.exitCode, 1);
    EXPECT_TRUE(level.err.contains("has ended")) << level.err.toStdString();
}

TEST_F(HubTools, RunsOfToolsKeepNoTraceOfTheirOwnAndLeaveQuietly)
{
    startHub();
    ChildProcess target(TOOLTARGET, {"Killed target", "Killed"}, {"BREVI_HUB_PORT=" + QString::number(port())});
    // Listed once it has enabled its link, which comes before its first
    // line: kill it only once that line is in its buffer.
    ASSERT_TRUE(eventually([&] { return tool(PROCESSTRACE, {"Killed"}).out.contains("tool target is up"); }));
    target.kill(SIGKILL);
    ASSERT_TRUE(target.waitExit(5000));
    ASSERT_TRUE(listedAsExited("Killed target"));

    // More runs than the Hub keeps the traces of ended processes for.
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(tool(HUBSTATUS, {}).exitCode, 0) << "run " << i;
    const ToolRun trace = tool(PROCESSTRACE, {"Killed"});
    EXPECT_EQ(trace.exitCode, 0) << trace.err.toStdString();
    EXPECT_TRUE(trace.out.contains("tool target is up"));
    const QStringList lines = tool(HUBSTATUS, {}).out.split('\n');
    EXPECT_EQ(lines.filter("hubstatus").size(), 0) << "a tool's run is not kept";

    // Each run detached in order: only the killed process's link is a
    // failure in the Hub's trace. (Links of process 0 never attached: the
    // fixture's probes for the Hub's port.)
    const QStringList hubTrace =
        QString::fromUtf8(
            BreviTest::TestHome::readFile(moHome.trace() + "/hub-" + QString::number(mpHub->process().pid()) + ".tra"))
            .split('\n');
    EXPECT_EQ(hubTrace.filter(QRegExp(" 0 HUB .*of process [1-9][0-9]* closed:")).size(), 1)
        << hubTrace.filter("closed:").join('\n').toStdString();
}

TEST(HubToolsWithoutHub, NoHubAndCommandLineMistakesAreToldAndFail)
{
    BreviTest::TestHome home;
    const QString nowhere = QString::number(freePort());
    const QList<QPair<const char*, QStringList>> calls{
        {HUBSTATUS, {}}, {TRACELEVEL, {"debug"}}, {PROCESSTRACE, {"Anyone"}}, {CHILDCTL, {"freeze", "Anyone"}}};
    for (const auto& call : calls) {
        const QStringList arguments = QStringList(call.second) << "--port" << nowhere;
        ToolRun result = run(call.first, arguments);
        EXPECT_EQ(result.exitCode, 1) << call.first;
        EXPECT_TRUE(result.err.contains("cannot reach the Hub on port " + nowhere)) << result.err.toStdString();
        EXPECT_TRUE(result.out.isEmpty());
        result = run(call.first, arguments, {"BREVI_HOME"});
        EXPECT_EQ(result.exitCode, 1) << call.first;
        EXPECT_TRUE(result.err.contains("BREVI_HOME is not set")) << result.err.toStdString();
        result = run(call.first, {"--help"});
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_TRUE(result.out.contains("Exit status")) << call.first;
    }

    // Mistakes are told before any Hub is asked.
    const QList<QPair<const char*, QStringList>> mistakes{
        {HUBSTATUS, {"extra"}},
        {TRACELEVEL, {"loud"}},
        {TRACELEVEL, {"9"}},
        {TRACELEVEL, {"debug", "one", "two"}},
        {TRACELEVEL, {"--module", "1025", "debug"}},
        {PROCESSTRACE, {}},
        {PROCESSTRACE, {"--last", "0", "x"}},
        {CHILDCTL, {"freeze"}},
        {CHILDCTL, {"melt", "Anyone"}},
        {CHILDCTL, {"freeze", "Anyone", "--for", "soon"}},
    };
    // An option no tool knows, before or after the arguments.
    for (const char* program : {HUBSTATUS, TRACELEVEL, PROCESSTRACE, TRACEDUMP, CHILDCTL}) {
        const ToolRun result = run(program, {"--no-such-option", "x"});
        EXPECT_EQ(result.exitCode, 2) << program;
        EXPECT_TRUE(result.err.contains("no-such-option")) << result.err.toStdString();
    }
    for (const auto& mistake : mistakes) {
        const ToolRun result = run(mistake.first, QStringList(mistake.second) << "--port" << nowhere);
        EXPECT_EQ(result.exitCode, 2) << mistake.first << " " << mistake.second.join(' ').toStdString();
        EXPECT_FALSE(result.err.isEmpty());
        EXPECT_FALSE(result.err.contains("Hub on port"));
    }
    EXPECT_EQ(run(HUBSTATUS, {"--port", "70000"}).exitCode, 2);
}
