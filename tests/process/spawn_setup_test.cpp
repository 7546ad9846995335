// What a Spawn accepts before it starts anything: each setter's checks, words
// and error values, and the command line it builds.
#include "processtest.h"

#include "core/trace.h"
#include "process/spawn.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <functional>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using Brevi::Spawn;
using BreviTest::TraceReader;
using ProcessTest::inContext;

namespace {

// A refused value leaves what was set before: the program, or the member of
// any other setter, which takes everything else without looking at the system.
TEST(SpawnSetup, RefusedValuesGiveTheirErrorAndWordsAndChangeNothing)
{
    inContext([] {
        QTemporaryDir directory;
        const QString plain = ProcessTest::writeFile(directory.path(), "plain", "data", 0644);
        const QString file = ProcessTest::writeFile(directory.path(), "input", "data");
        Spawn spawn;
        EXPECT_EQ(spawn.error(), Spawn::eNone);
        ASSERT_TRUE(spawn.setProgram("/bin/sh"));
        const auto program = [&](const QString& v) { return spawn.setProgram(v); };
        const auto stdinPath = [&](const QString& v) { return spawn.setStdin(v); };
        const struct {
            std::function<bool(const QString&)> setter;
            QString value;
            Spawn::ErrorE error;
            QString words;
        } cases[] = {
            {program, QString(), Spawn::eEmptyString, "Empty string"},
            {program, "bin/sh", Spawn::eBadPath, "Program path is not absolute"},
            {program, directory.path() + "/missing", Spawn::eBadPath, "Program path is not a path"},
            {program, directory.path(), Spawn::eBadPath, "Program path is not a path"},
            {program, plain, Spawn::eBadPath, "Program path is not executable"},
            {stdinPath, "relative/input", Spawn::eBadPath, "Path is not absolute 'relative/input'"},
            {stdinPath, directory.path(), Spawn::eBadPath, "Path is not a file '" + directory.path() + "'"},
            {stdinPath, file + "x", Spawn::eBadPath, "Path is not a file '" + file + "x'"},
            {[&](const QString& v) { return spawn.setAccount(v); }, "", Spawn::eEmptyString, "Empty string"},
            {[&](const QString& v) { return spawn.setQualifier(v); }, "", Spawn::eEmptyString, "Enpty string"},
            {[&](const QString& v) { return spawn.setWorkingDirectory(v); }, "", Spawn::eEmptyString, "Empty  string"},
            {[&](const QString& v) { return spawn.addEnvironment(v, "value"); }, "", Spawn::eEmptyString,
             "Empty name string"},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.words.toStdString());
            TraceReader trace;
            EXPECT_FALSE(c.setter(c.value));
            EXPECT_EQ(spawn.error(), c.error);
            EXPECT_TRUE(trace.saw(c.words));
            EXPECT_EQ(spawn.commandLine(), "\"/bin/sh\"");
            if (c.error == Spawn::eEmptyString && !c.value.isNull()) {
                EXPECT_TRUE(c.setter("/no/such thing"));
                EXPECT_EQ(spawn.error(), Spawn::eEmptyString) << "the last failure stays";
            }
        }
        EXPECT_TRUE(spawn.setStdin(file));
        EXPECT_EQ(spawn.environmentCount(), 1u);
        EXPECT_TRUE(spawn.addEnvironment("NAME", ""));
        EXPECT_EQ(spawn.environmentCount(), 2u);

        // An empty stdin path is told at debug level only.
        TraceReader quiet;
        EXPECT_FALSE(spawn.setStdin(""));
        EXPECT_EQ(spawn.error(), Spawn::eEmptyString);
        EXPECT_FALSE(quiet.saw("Empty string"));
        Brevi::Trace::setLevel(Brevi::TraceDebug, Brevi::TraceModuleSpawn);
        EXPECT_FALSE(spawn.setStdin(""));
        EXPECT_TRUE(quiet.saw("Empty string"));
    });
}

TEST(SpawnSetup, UnreadableStdinFile)
{
    // Root reads any file: the check runs in a child that has given root up.
    QTemporaryDir directory;
    const QString file = ProcessTest::writeFile(directory.path(), "secret", "data", 0000);
    chmod(QFile::encodeName(directory.path()).constData(), 0755);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0))
            _exit(3);
        int failed = 0;
        inContext([&] {
            Spawn spawn;
            TraceReader trace;
            failed |= spawn.setStdin(file) ? 1 : 0;
            failed |= spawn.error() != Spawn::eNotReadable ? 2 : 0;
            failed |= trace.saw("Path is not readable '" + file + "'") ? 0 : 4;
        });
        _exit(failed);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << "status " << status;
    EXPECT_EQ(WEXITSTATUS(status), 0) << "1 accepted, 2 error value, 4 trace line, 3 could not give up root";
}

// Values become arguments in their own words; the command line quotes each
// argument unless it already begins with a quote, and escapes nothing.
TEST(SpawnSetup, ArgumentsAndTheCommandLine)
{
    inContext([] {
        Spawn spawn;
        ASSERT_TRUE(spawn.setProgram("/bin/sh"));
        TraceReader trace;
        EXPECT_FALSE(spawn.addArgument(QString()));
        EXPECT_EQ(spawn.error(), Spawn::eNullString);
        EXPECT_TRUE(trace.saw("NULL string"));
        EXPECT_FALSE(spawn.addArgument(static_cast<const char*>(nullptr)));
        EXPECT_EQ(spawn.argumentCount(), 0u);

        EXPECT_TRUE(spawn.addArgument(QString("")));
        EXPECT_TRUE(spawn.addArgument(true));
        EXPECT_TRUE(spawn.addArgument(false));
        EXPECT_TRUE(spawn.addArgument(4294967295u));
        EXPECT_TRUE(spawn.addArgument(-5));
        EXPECT_TRUE(spawn.addArgument(18446744073709551615ull));
        EXPECT_TRUE(spawn.addArgument(-9223372036854775807ll - 1));
        EXPECT_TRUE(spawn.addArgument("text"));
        EXPECT_EQ(spawn.argumentCount(), 8u);
        EXPECT_EQ(spawn.commandLine(), "\"/bin/sh\" \"\" \"true\" \"false\" \"4294967295\" \"-5\" "
                                       "\"18446744073709551615\" \"-9223372036854775808\" \"text\"");
    });

    const auto line = [](const QString& program, const QStringList& arguments) {
        return Spawn::buildCommandLine(program, arguments).toStdString();
    };
    EXPECT_EQ(line("\"/bin/prog\"", {}), "\"/bin/prog\"");
    EXPECT_EQ(line("'/bin/my prog'", {}), "'/bin/my prog'");
    EXPECT_EQ(line("", {}), "\"\"");
    EXPECT_EQ(line("/p", {"\""}), "\"/p\" \"");
    EXPECT_EQ(line("/p", {"'a b'", "\"c d\"", "a\"b", "C:\\dir\\", "two words", "x'"}),
              "\"/p\" 'a b' \"c d\" \"a\"b\" \"C:\\dir\\\" \"two words\" \"x'\"");
}

} // namespace
