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
using ProcessTest::inContext;
using ProcessTest::TraceWatch;

namespace {

struct Refusal {
    QString value;
    Spawn::ErrorE error;
    QString words;
};

TEST(SpawnSetup, ProgramPathChecksInOrder)
{
    inContext([] {
        QTemporaryDir directory;
        const QString plain = ProcessTest::writeFile(directory.path(), "plain", "data", 0644);
        Spawn spawn;
        EXPECT_EQ(spawn.error(), Spawn::eNone);
        ASSERT_TRUE(spawn.setProgram("/bin/sh"));
        const Refusal cases[] = {
            {QString(), Spawn::eEmptyString, "Empty string"},
            {"bin/sh", Spawn::eBadPath, "Program path is not absolute"},
            {directory.path() + "/missing", Spawn::eBadPath, "Program path is not a path"},
            {directory.path(), Spawn::eBadPath, "Program path is not a path"},
            {plain, Spawn::eBadPath, "Program path is not executable"},
        };
        for (const Refusal& c : cases) {
            TraceWatch trace;
            EXPECT_FALSE(spawn.setProgram(c.value)) << c.value.toStdString();
            EXPECT_EQ(spawn.error(), c.error) << c.value.toStdString();
            EXPECT_TRUE(trace.saw(c.words, false)) << trace.all();
            // The program set before stays.
            EXPECT_EQ(spawn.commandLine(), "\"/bin/sh\"");
        }
    });
}

TEST(SpawnSetup, StdinPathChecksInOrder)
{
    inContext([] {
        QTemporaryDir directory;
        const QString file = ProcessTest::writeFile(directory.path(), "input", "data");
        const Refusal cases[] = {
            {"relative/input", Spawn::eBadPath, "Path is not absolute 'relative/input'"},
            {directory.path(), Spawn::eBadPath, "Path is not a file '" + directory.path() + "'"},
            {file + "x", Spawn::eBadPath, "Path is not a file '" + file + "x'"},
        };
        for (const Refusal& c : cases) {
            Spawn spawn;
            TraceWatch trace;
            EXPECT_FALSE(spawn.setStdin(c.value));
            EXPECT_EQ(spawn.error(), c.error);
            EXPECT_TRUE(trace.saw(c.words, false)) << trace.all();
        }

        // The empty path is told at debug level only.
        Spawn spawn;
        TraceWatch quiet;
        EXPECT_FALSE(spawn.setStdin(""));
        EXPECT_EQ(spawn.error(), Spawn::eEmptyString);
        EXPECT_FALSE(quiet.saw("Empty string", false));
        Brevi::Trace::setLevel(Brevi::TraceDebug, Brevi::TraceModuleSpawn);
        TraceWatch debug;
        EXPECT_FALSE(spawn.setStdin(""));
        EXPECT_TRUE(debug.saw("Empty string", false));

        EXPECT_TRUE(spawn.setStdin(file));
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
            TraceWatch trace;
            failed |= spawn.setStdin(file) ? 1 : 0;
            failed |= spawn.error() != Spawn::eNotReadable ? 2 : 0;
            failed |= trace.saw("Path is not readable '" + file + "'", false) ? 0 : 4;
        });
        _exit(failed);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << "status " << status;
    EXPECT_EQ(WEXITSTATUS(status), 0) << "1 accepted, 2 error value, 4 trace line, 3 could not give up root";
}

TEST(SpawnSetup, EmptyStringsAreRefusedWithTheirOwnWords)
{
    inContext([] {
        Spawn spawn;
        const std::function<bool(const QString&)> setters[] = {
            [&](const QString& v) { return spawn.setAccount(v); },
            [&](const QString& v) { return spawn.setQualifier(v); },
            [&](const QString& v) { return spawn.setWorkingDirectory(v); },
            [&](const QString& v) { return spawn.addEnvironment(v, "value"); },
        };
        const char* words[] = {"Empty string", "Enpty string", "Empty  string", "Empty name string"};
        for (int i = 0; i < 4; ++i) {
            TraceWatch trace;
            Spawn fresh;
            spawn = fresh;
            EXPECT_FALSE(setters[i](""));
            EXPECT_EQ(spawn.error(), Spawn::eEmptyString);
            EXPECT_TRUE(trace.saw(words[i], false)) << words[i] << ": " << trace.all();
            // Anything else is taken without a look at the system, and the
            // last failure stays.
            EXPECT_TRUE(setters[i]("/no/such thing"));
            EXPECT_EQ(spawn.error(), Spawn::eEmptyString);
        }
        EXPECT_EQ(spawn.environmentCount(), 1u);
        EXPECT_TRUE(spawn.addEnvironment("NAME", ""));
        EXPECT_EQ(spawn.environmentCount(), 2u);
    });
}

TEST(SpawnSetup, ArgumentsNullEmptyAndNumbers)
{
    inContext([] {
        Spawn spawn;
        ASSERT_TRUE(spawn.setProgram("/bin/sh"));
        TraceWatch trace;
        EXPECT_FALSE(spawn.addArgument(QString()));
        EXPECT_EQ(spawn.error(), Spawn::eNullString);
        EXPECT_TRUE(trace.saw("NULL string", false));
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
}

TEST(SpawnSetup, CommandLineQuoting)
{
    const auto line = [](const QString& program, const QStringList& arguments) {
        return Spawn::buildCommandLine(program, arguments).toStdString();
    };
    EXPECT_EQ(line("/bin/prog", {}), "\"/bin/prog\"");
    // A leading quote of either kind turns the automatic quotes off.
    EXPECT_EQ(line("\"/bin/prog\"", {}), "\"/bin/prog\"");
    EXPECT_EQ(line("'/bin/my prog'", {}), "'/bin/my prog'");
    EXPECT_EQ(line("", {}), "\"\"");
    EXPECT_EQ(line("/p", {""}), "\"/p\" \"\"");
    EXPECT_EQ(line("/p", {"\""}), "\"/p\" \"");
    EXPECT_EQ(line("/p", {"'a b'", "\"c d\""}), "\"/p\" 'a b' \"c d\"");
    // Nothing inside is escaped.
    EXPECT_EQ(line("/p", {"a\"b", "C:\\dir\\", "two words", "x'"}),
              "\"/p\" \"a\"b\" \"C:\\dir\\\" \"two words\" \"x'\"");
}

} // namespace
