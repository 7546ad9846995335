// The process frame: what Context::run does, its identity rules, the trace
// file it opens from "profile.cfg", and the dumps it leaves after a crash.

#include "core/context.h"
#include "core/fixedpath.h"
#include "core/sharedmemoryprovider.h"
#include "messaging/messaging.h"

#include "testhome.h"
#include "tracelines.h"

#include <QDir>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>

using namespace Brevi;
using BreviTest::ringTexts;
using BreviTest::TestHome;

namespace {

const Context::Type NoMessaging = Context::Type(7);
int gCalls = 0;

void countCall() { ++gCalls; }

QString pidText() { return QString::number(getpid()); }

// Runs `body` on a new thread inside a context of its own.
void runOnThread(void (*body)(), const QString& title)
{
    std::thread worker([&] { Context::run(body, NoMessaging, 0, title); });
    worker.join();
}

} // namespace

TEST(ContextRun, InvalidTypesOpenTracingButDoNotCallTheFunction)
{
    TestHome home;
    gCalls = 0;
    EXPECT_FALSE(Context::run(countCall, Context::TypeInvalid, 0, "Refused"));
    EXPECT_FALSE(Context::run(countCall, Context::TypeAdopted, 0, "Refused"));
    EXPECT_EQ(gCalls, 0);
    // An adopted context never has a trace file of its own.
    EXPECT_EQ(home.filesIn(home.trace()), QStringList({"refused-" + pidText() + ".tra"}));
    EXPECT_FALSE(Context::isValid()) << "nothing is left behind on the thread";
    EXPECT_EQ(Context::object(), nullptr);
    EXPECT_EQ(Trace::object(), nullptr);
}

TEST(ContextRun, ATypeAboveFourRunsWithoutMessaging)
{
    TestHome home;
    static bool called = false;
    const bool result = Context::run(
        [] {
            called = true;
            EXPECT_TRUE(Context::isValid());
            EXPECT_EQ(Context::type(), Context::Type(7));
            EXPECT_EQ(Context::id(), 1u);
            EXPECT_FALSE(Context::messaging());
            EXPECT_EQ(Context::baseName(), "Seven ");
            ASSERT_NE(Context::security(), nullptr);
            EXPECT_EQ(Context::security()->mode, 0600u);
            EXPECT_EQ(Context::address(), MsgAddress(eMsgAddressContext, 1));
            EXPECT_FALSE(Context::parentAddress());
            EXPECT_TRUE(Context::machineName().isEmpty());
            EXPECT_TRUE(ringTexts().contains("Address is '2/1' '2/1' 7"));
        },
        NoMessaging, 0, "Seven");
    EXPECT_TRUE(result);
    EXPECT_TRUE(called);
}

TEST(ContextRun, SecondOverloadPassesArgumentsAndResult)
{
    TestHome home;
    char first[] = "program";
    char second[] = "argument";
    char* argv[] = {first, second, nullptr};
    int result = 0;
    EXPECT_TRUE(Context::run([](int& out, int argc, char** const args) { out = argc * 10 + int(std::strlen(args[1])); },
                             result, 2, argv, NoMessaging, 0, "Args"));
    EXPECT_EQ(result, 28);
}

TEST(ContextRun, StandaloneRunsWithItsOwnMessagingAndReleasesItFirst)
{
    TestHome home;
    static boost::shared_ptr<Messaging> kept;
    gCalls = 0;
    EXPECT_TRUE(Context::run(
        [] {
            ++gCalls;
            kept = Context::messaging();
            ASSERT_TRUE(kept);
            EXPECT_TRUE(kept->valid());
            EXPECT_EQ(Context::type(), Context::TypeStandalone);
            EXPECT_EQ(kept->address(), Context::address());
            EXPECT_EQ(Context::address(), MsgAddress(eMsgAddressContext, 1));
        },
        Context::TypeStandalone, 0, "Alone"));
    EXPECT_EQ(gCalls, 1);
    ASSERT_TRUE(kept);
    EXPECT_TRUE(kept->isDisabled()) << "released on the way out";
    kept.reset();
    const QString trace = TestHome::readFile(home.trace() + "/alone-" + pidText() + ".tra");
    const int released = trace.indexOf("message(s) still have handler(s)");
    EXPECT_GE(released, 0);
    EXPECT_LT(released, trace.indexOf("Disable trace")) << "messaging goes before the trace";
}

TEST(ContextRun, NoHomeNoRun)
{
    unsetenv("BREVI_HOME");
    gCalls = 0;
    EXPECT_FALSE(Context::run(countCall, NoMessaging, 0, "Homeless"));
    EXPECT_EQ(gCalls, 0);
    EXPECT_TRUE(FixedPath::home().isEmpty());
}

TEST(ContextRun, AnAdoptedContextTracesIntoTheBufferItIsGiven)
{
    TestHome home;
    SharedMemoryProvider provider(64 * 1024);
    ASSERT_TRUE(provider);
    const MsgAddress address(eMsgAddressContext, 9);
    {
        Context adopted(address, provider.id(), "Adopted");
        EXPECT_EQ(Context::type(), Context::TypeAdopted);
        EXPECT_EQ(Context::id(), 9u);
        EXPECT_EQ(Context::address(), address);
        EXPECT_TRUE(Context::object()->title().startsWith("Adopted"));
        EXPECT_EQ(Context::object()->title().size(), 7 + 12) << "the local time is appended";
        BREVI_TRACE(TraceModuleApplication, TraceAlways) << "into the shared buffer";
    }
    SharedMemoryUser reader(provider.id());
    ASSERT_TRUE(reader);
    EXPECT_FALSE(Trace::active(reader.address())) << "the destructor disabled it";
    const QStringList lines = ringTexts(reader.address(), reader.size());
    EXPECT_TRUE(lines.contains("into the shared buffer")) << lines.join('\n').toStdString();
    EXPECT_TRUE(home.filesIn(home.trace()).isEmpty()) << "an adopted context has no trace file";

    Context lost(address, SharedMemoryId(), "Lost");
    EXPECT_TRUE(ringTexts().contains("Invalid Trace buffer"));
}

TEST(ContextStatics, NeutralAnswersWithoutAContext)
{
    EXPECT_FALSE(Context::isValid());
    EXPECT_EQ(Context::type(), Context::TypeInvalid);
    EXPECT_EQ(Context::id(), 0u);
    EXPECT_EQ(Context::uniqueId(), 0u);
    EXPECT_TRUE(Context::temporaryFileName().isEmpty());
    EXPECT_EQ(Context::security(), nullptr);
    EXPECT_FALSE(Context::messaging());
    EXPECT_FALSE(Context::address());
    EXPECT_TRUE(Context::machineName().isEmpty());
    EXPECT_EQ(Context::OSPid(), unsigned(getpid()));
    Context::traceHandles(TraceAlways);
    const unsigned long long now = Context::systemTime();
    EXPECT_GT(now, 1700000000000ull) << "milliseconds since 1970";
}

TEST(ContextStatics, CountersArePerContextAndIndependent)
{
    TestHome home;
    Context::run(
        [] {
            EXPECT_EQ(Context::uniqueId(), 1u);
            EXPECT_EQ(Context::uniqueId(), 2u);
            const QString expected =
                QStringLiteral("%1/%2_001_0001").arg(FixedPath::tmp()).arg(getpid(), 5, 10, QLatin1Char('0'));
            EXPECT_EQ(Context::temporaryFileName(), expected);
            EXPECT_TRUE(Context::temporaryFileName().endsWith("_001_0002"));
            runOnThread(
                [] {
                    EXPECT_EQ(Context::id(), 2u);
                    EXPECT_EQ(Context::uniqueId(), 1u);
                    EXPECT_TRUE(Context::temporaryFileName().endsWith("_002_0001"));
                },
                "Worker");
            EXPECT_EQ(Context::uniqueId(), 3u);
            Context::traceHandles(TraceAlways);
            EXPECT_EQ(ringTexts().last(), "traceHandle not implimented for windows");
        },
        NoMessaging, 0, "Counters");
}

TEST(ContextStatics, CrunchNameEncodesEveryUnsafeCharacter)
{
    EXPECT_EQ(Context::crunchName("a/b?c<d>e\\f:g*h|i^j"), "a_2f_b_3f_c_3c_d_3e_e_5c_f_3a_g_2a_h_7c_i_5e_j");
    EXPECT_EQ(Context::crunchName("//"), "_2f__2f_");
    EXPECT_EQ(Context::crunchName(""), "");
}

// Unsafe characters of the title are crunched.
TEST(ContextTraceFile, NameFromTitlePidAndContextId)
{
    TestHome home;
    Context::run(
        [] {
            runOnThread([] {}, "Backup A/B");
            runOnThread([] {}, "Log Daemon");
        },
        NoMessaging, 0, "Log Daemon");
    EXPECT_EQ(home.filesIn(home.trace()),
              QStringList({"backup-a_2f_b-" + pidText() + "-2.tra", "log-daemon-" + pidText() + "-3.tra",
                           "log-daemon-" + pidText() + ".tra"}));
}

TEST(ContextTraceFile, AFileWhereTheDirectoryShouldBeIsReplaced)
{
    TestHome home;
    QDir().mkpath(home.path() + "/runtime");
    QFile blocker(home.trace());
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    Context::run([] {}, NoMessaging, 0, "Blocked");
    EXPECT_TRUE(QFileInfo(home.trace()).isDir());
    EXPECT_EQ(home.filesIn(home.trace()).size(), 1);
}

TEST(ContextTraceFile, UnwritableDirectoryLeavesTheRing)
{
    TestHome home;
    setenv("BREVI_TRACE", "/proc/1/no-trace-here", 1);
    EXPECT_TRUE(Context::run(
        [] {
            BREVI_TRACE(TraceModuleApplication, TraceAlways) << "into the ring";
            const QStringList lines = ringTexts();
            EXPECT_TRUE(lines.filter("Cannot open trace file").size() == 1) << lines.join('\n').toStdString();
            EXPECT_EQ(lines.last(), "into the ring");
        },
        NoMessaging, 0, "Ring Only"));
    unsetenv("BREVI_TRACE");
}

TEST(ContextProfile, SettingsComeFromTheLineScan)
{
    TestHome home;
    home.writeProfile({"<brevixmllist>", " <item name=\"DefaultTraceLevel\" type=\"string\">",
                       "  <value>TraceDebug</value>", " </item>", " <item name=\"DefaultTraceLinesPerFile\">",
                       "  <value>1000</value>", " <item name=\"DefaultTraceFilesToKeep\">", "  <value>x12</value>",
                       "</brevixmllist>"});
    Context::run(
        [] {
            EXPECT_EQ(Trace::getLevel(unsigned(TraceModuleRawFile)), TraceDebug);
            EXPECT_TRUE(ringTexts().contains("Launched")) << "Launched is a debug line";
        },
        NoMessaging, 0, "Profiled");
    EXPECT_EQ(home.filesIn(home.trace()), QStringList({"profiled-" + pidText() + "-000001.tra"}));
}

TEST(ContextProfile, OnlyAnExistingProfileCanTurnTheFileOff)
{
    TestHome home;
    home.writeProfile({"<item name=\"BoolTraceToFile\">", "<value>true</value>"});
    Context::run([] { EXPECT_EQ(Trace::getLevel(1u), TraceNormal); }, NoMessaging, 0, "Quiet");
    EXPECT_TRUE(home.filesIn(home.trace()).isEmpty()) << "\"true\" is not \"True\"";
}

TEST(ContextProfile, TheLastOccurrenceWinsAndUnknownLevelsAreIgnored)
{
    TestHome home;
    home.writeProfile({"BoolTraceToFile", "<value>False</value>", "BoolTraceToFile", "x True x", "DefaultTraceLevel",
                       "<value>TraceVerbose</value>", "DefaultTraceLevel", "<value>tracedebug</value>",
                       "DefaultTraceLinesPerFile"});
    Context::run([] { EXPECT_EQ(Trace::getLevel(1u), TraceNormal); }, NoMessaging, 0, "Last");
    EXPECT_EQ(home.filesIn(home.trace()), QStringList({"last-" + pidText() + ".tra"}));
}

TEST(ContextEnvironment, FirstContextTakesItsIdentityFromTheEnvironment)
{
    TestHome home;
    setenv("BREVI_CONTEXT_TITLE", "\"Env Title\"", 1);
    setenv("BREVI_CONTEXT_NAME", "envname", 1);
    setenv("BREVI_CONTEXT_GROUP", "envgroup", 1);
    Context::run(
        [] {
            const Context* context = Context::object();
            EXPECT_EQ(context->title(), "Env Title") << "the environment's title wins";
            EXPECT_EQ(context->name(), "given") << "a given name wins";
            EXPECT_EQ(context->group(), "keep") << "and the group comes only with a name from the environment";
            runOnThread(
                [] {
                    EXPECT_EQ(Context::object()->title(), "Second");
                    EXPECT_TRUE(Context::object()->name().isEmpty()) << "only the first context reads it";
                },
                "Second");
        },
        NoMessaging, Context::FlagUseEnvironment, "Caller", "given", "keep");
    EXPECT_EQ(home.filesIn(home.trace(), "env-title-*").size(), 1);
}

TEST(ContextEnvironment, NameAndGroupTogether)
{
    TestHome home;
    setenv("BREVI_CONTEXT_NAME", "envname", 1);
    setenv("BREVI_CONTEXT_GROUP", "envgroup", 1);
    Context::run(
        [] {
            EXPECT_EQ(Context::object()->title(), "Caller");
            EXPECT_EQ(Context::object()->name(), "envname");
            EXPECT_EQ(Context::object()->group(), "envgroup");
        },
        NoMessaging, Context::FlagUseEnvironment, "Caller", "", "caller group");
}

TEST(ContextEnvironment, NoNameInTheEnvironmentKeepsTheCallersGroup)
{
    TestHome home;
    unsetenv("BREVI_CONTEXT_NAME");
    setenv("BREVI_CONTEXT_GROUP", "ignored", 1);
    Context::run(
        [] {
            EXPECT_TRUE(Context::object()->name().isEmpty());
            EXPECT_EQ(Context::object()->group(), "caller group");
        },
        NoMessaging, Context::FlagUseEnvironment, "Caller", "", "caller group");
}

TEST(ContextEnvironment, WithoutTheFlagTheEnvironmentIsNotRead)
{
    TestHome home;
    setenv("BREVI_CONTEXT_TITLE", "Env Title", 1);
    Context::run([] { EXPECT_EQ(Context::object()->title(), "Caller"); }, NoMessaging, 0, "Caller");
}

class ContextCrash : public ::testing::Test
{
protected:
    TestHome home;

    QStringList dumps(const QString& pattern) const { return home.filesIn(home.dump(), pattern); }
};

TEST_F(ContextCrash, AFaultLeavesBothDumpFilesAndEndsByTheSignal)
{
    const BreviTest::ChildResult child = BreviTest::runChild(CRASH_HELPER, {"segv"}, {"BREVI_HOME=" + home.path()});
    EXPECT_EQ(child.signal, SIGSEGV);
    const QStringList dmp = dumps("*.dmp");
    ASSERT_EQ(dmp.size(), 1);
    const QRegularExpression name("^Crash Test-2\\.2\\.11698-\\d{8}-\\d{6}-(\\d+)-(\\d+)\\.dmp$");
    const auto match = name.match(dmp[0]);
    ASSERT_TRUE(match.hasMatch()) << dmp[0].toStdString();
    EXPECT_EQ(match.captured(1), match.captured(2)) << "the main thread faulted";

    const QString dump = TestHome::readFile(home.dump() + "/" + dmp[0]);
    EXPECT_TRUE(dump.contains("Signal: 11")) << dump.left(400).toStdString();
    EXPECT_TRUE(dump.contains("rip 0x"));
    EXPECT_TRUE(dump.contains("Backtrace:"));
    EXPECT_TRUE(dump.contains("Maps:"));

    const QStringList tra = dumps("*.tra");
    ASSERT_EQ(tra.size(), 1);
    EXPECT_EQ(QFileInfo(tra[0]).completeBaseName(), QFileInfo(dmp[0]).completeBaseName());
    const QByteArray text = TestHome::readFile(home.dump() + "/" + tra[0]);
    EXPECT_TRUE(text.startsWith("\xEF\xBB\xBFMajor Version: 2 Minor version: 2 Build number: 11698\n"));
    EXPECT_TRUE(text.contains("about to crash in mode segv"));
}

// An uncaught exception aborts; a fault on a thread without a context has no
// trace to dump; a second dump in one process is not written.
TEST_F(ContextCrash, OtherCrashesAndASecondDump)
{
    const struct {
        const char* mode;
        int signal;
        int traceDumps;
        const char* prefix;
    } cases[] = {{"terminate", SIGABRT, 1, "Crash Test-"},
                 {"thread", SIGSEGV, 0, "Unknown-2.2.11698-"},
                 {"twice", 0, 1, "Crash Test-"}};
    for (const auto& c : cases) {
        TestHome own;
        const BreviTest::ChildResult child = BreviTest::runChild(CRASH_HELPER, {c.mode}, {"BREVI_HOME=" + own.path()});
        EXPECT_EQ(child.signal, c.signal) << c.mode;
        EXPECT_EQ(child.exitCode, c.signal ? -1 : 0) << c.mode;
        const QStringList dmp = own.filesIn(own.dump(), "*.dmp");
        ASSERT_EQ(dmp.size(), 1) << c.mode;
        EXPECT_TRUE(dmp[0].startsWith(c.prefix)) << dmp[0].toStdString();
        EXPECT_EQ(own.filesIn(own.dump(), "*.tra").size(), c.traceDumps) << c.mode;
    }
}
