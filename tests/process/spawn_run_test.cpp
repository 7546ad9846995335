// Starting real children: pipes, standard input, arguments, environment,
// liveness, copies and repeated starts, and every failure with nothing left
// open.
#include "processtest.h"

#include "process/spawn.h"

#include <QDir>
#include <QFile>
#include <QPair>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using Brevi::Spawn;
using BreviTest::TraceReader;
using ProcessTest::helper;
using ProcessTest::inContext;
using ProcessTest::openDescriptors;
using ProcessTest::readAndClose;

namespace {

bool setUp(Spawn& spawn, const QString& program, const QStringList& arguments)
{
    bool ok = spawn.setProgram(program);
    for (const QString& argument : arguments)
        ok = spawn.addArgument(argument) && ok;
    return ok;
}

int exitCodeOf(Spawn& spawn)
{
    int code = -1;
    return spawn.getOSHandle() && spawn.getOSHandle()->wait(&code) ? code : -1;
}

TEST(SpawnRun, BothPipesOneForOutputAndError)
{
    Spawn spawn;
    ASSERT_TRUE(setUp(spawn, "/bin/sh", {"-c", "cat; echo err >&2"}));
    spawn.setPipeInput();
    spawn.setPipeOutput();
    EXPECT_EQ(spawn.getPipeInputHandle(), nullptr);
    ASSERT_TRUE(spawn.spawn());
    EXPECT_TRUE(spawn);
    EXPECT_GT(spawn.getOSPid(), 0u);
    FILE* in = spawn.getPipeInputHandle();
    FILE* out = spawn.getPipeOutputHandle();
    ASSERT_NE(in, nullptr);
    ASSERT_NE(out, nullptr);
    // Each is handed out once.
    EXPECT_EQ(spawn.getPipeInputHandle(), nullptr);
    EXPECT_EQ(spawn.getPipeOutputHandle(), nullptr);

    // More than a default pipe holds, all written before anything is read.
    QByteArray sent;
    for (int i = 0; i < 20000; ++i)
        sent += "line " + QByteArray::number(i) + '\n';
    ASSERT_EQ(fwrite(sent.constData(), 1, size_t(sent.size()), in), size_t(sent.size()));
    fclose(in);
    EXPECT_EQ(readAndClose(out), sent + "err\n");
    EXPECT_EQ(exitCodeOf(spawn), 0);
}

TEST(SpawnRun, StandardInputSources)
{
    QTemporaryDir directory;
    const QString file = ProcessTest::writeFile(directory.path(), "input", "from the file\n");
    const auto run = [](Spawn& spawn, const char* toPipe) {
        spawn.setPipeOutput();
        if (!spawn.spawn())
            return QByteArray("(not started)");
        if (FILE* in = spawn.getPipeInputHandle()) {
            fputs(toPipe, in);
            fclose(in);
        }
        const QByteArray output = readAndClose(spawn.getPipeOutputHandle());
        return exitCodeOf(spawn) == 0 ? output : "(failed)";
    };

    Spawn fromFile;
    ASSERT_TRUE(setUp(fromFile, "/bin/cat", {}));
    ASSERT_TRUE(fromFile.setStdin(file));
    EXPECT_EQ(run(fromFile, ""), "from the file\n");

    // The input pipe forgets the stdin path.
    Spawn piped;
    ASSERT_TRUE(setUp(piped, "/bin/cat", {}));
    ASSERT_TRUE(piped.setStdin(file));
    piped.setPipeInput();
    EXPECT_EQ(run(piped, "from the pipe\n"), "from the pipe\n");

    // A refused stdin path still turns the input pipe off; without either
    // the child reads an empty input, never the test's own.
    Spawn refused;
    ASSERT_TRUE(setUp(refused, "/bin/sh", {"-c", "cat; echo end"}));
    refused.setPipeInput();
    EXPECT_FALSE(refused.setStdin("relative"));
    EXPECT_EQ(run(refused, "lost\n"), "end\n");
}

// The child starts in the working directory and gets each argument as it was
// given: the quotes of the command line are no part of it.
TEST(SpawnRun, ArgumentsAndWorkingDirectoryReachTheChild)
{
    inContext([] {
        QTemporaryDir directory;
        const QString path = QDir(directory.path()).canonicalPath();
        Spawn spawn;
        ASSERT_TRUE(setUp(spawn, helper(), {"args", "two words", "", "\"pre quoted\"", "a\"b", "back\\", "'single'"}));
        ASSERT_TRUE(spawn.setWorkingDirectory(path));
        spawn.setPipeOutput();
        TraceReader trace;
        ASSERT_TRUE(spawn.spawn());
        EXPECT_EQ(readAndClose(spawn.getPipeOutputHandle()),
                  path.toLocal8Bit() + "\n[two words]\n[]\n[\"pre quoted\"]\n[a\"b]\n[back\\]\n['single']\n");
        EXPECT_EQ(exitCodeOf(spawn), 0);
        EXPECT_TRUE(trace.saw("Command line '" + spawn.commandLine() + "'"));
    });
}

TEST(SpawnRun, EnvironmentForTheChildAndWhatIsLeftBehind)
{
    setenv("BREVI_T_KEPT", "before", 1);
    setenv("BREVI_T_EMPTY", "", 1);
    unsetenv("BREVI_T_NEW");
    unsetenv("BREVI_T_TWICE");

    Spawn spawn;
    ASSERT_TRUE(setUp(spawn, "/usr/bin/env", {}));
    spawn.setPipeOutput();
    ASSERT_TRUE(spawn.addEnvironment("BREVI_T_KEPT", "during"));
    ASSERT_TRUE(spawn.addEnvironment("BREVI_T_EMPTY", "filled"));
    ASSERT_TRUE(spawn.addEnvironment("BREVI_T_NEW", "fresh"));
    ASSERT_TRUE(spawn.addEnvironment("BREVI_T_TWICE", "1"));
    ASSERT_TRUE(spawn.addEnvironment("BREVI_T_TWICE", "2"));
    // Upper case for the environment, lower case for arguments.
    ASSERT_TRUE(spawn.addEnvironment("BREVI_T_YES", true));
    ASSERT_TRUE(spawn.addEnvironment("BREVI_T_LL", -1234567890123ll));
    ASSERT_TRUE(spawn.spawn());
    const QList<QByteArray> seen = readAndClose(spawn.getPipeOutputHandle()).split('\n');
    EXPECT_EQ(exitCodeOf(spawn), 0);
    for (const char* entry : {"BREVI_T_KEPT=during", "BREVI_T_EMPTY=filled", "BREVI_T_NEW=fresh", "BREVI_T_TWICE=2",
                              "BREVI_T_YES=TRUE", "BREVI_T_LL=-1234567890123"})
        EXPECT_TRUE(seen.contains(entry)) << entry;

    // Put back from the last entry to the first; a variable that was not
    // there, or was empty, is there now and empty.
    EXPECT_STREQ(getenv("BREVI_T_KEPT"), "before");
    EXPECT_STREQ(getenv("BREVI_T_EMPTY"), "");
    EXPECT_STREQ(getenv("BREVI_T_NEW"), "");
    EXPECT_STREQ(getenv("BREVI_T_TWICE"), "");
}

TEST(SpawnRun, AliveWhileRunningAndNotAfter)
{
    Spawn spawn;
    EXPECT_FALSE(spawn.alive());
    ASSERT_TRUE(setUp(spawn, helper(), {"block"}));
    spawn.setPipeInput();
    ASSERT_TRUE(spawn.spawn());
    EXPECT_TRUE(spawn.alive());
    EXPECT_TRUE(spawn.alive()) << "asking must neither end nor reap the child";

    fclose(spawn.getPipeInputHandle());
    ASSERT_TRUE(ProcessTest::waitUntilEnded(*spawn.getOSHandle(), 10000));
    EXPECT_FALSE(spawn.alive());
    // alive() left the exit status for the caller, once.
    int code = -1, signal = -1;
    EXPECT_TRUE(spawn.getOSHandle()->wait(&code, &signal));
    EXPECT_EQ(code, 0);
    EXPECT_EQ(signal, 0);
    EXPECT_FALSE(spawn.getOSHandle()->wait());
    EXPECT_FALSE(spawn.alive());

    Spawn killed;
    ASSERT_TRUE(setUp(killed, "/bin/sh", {"-c", "kill -TERM $$"}));
    ASSERT_TRUE(killed.spawn());
    ASSERT_TRUE(killed.getOSHandle()->wait(&code, &signal));
    EXPECT_EQ(signal, SIGTERM);
}

// The children of this process that are still in the process table, and how
// many of them have ended without being collected.
QPair<int, int> childrenAndZombies()
{
    int children = 0, zombies = 0;
    for (const QString& pid : QDir("/proc").entryList(QDir::Dirs)) {
        QFile stat("/proc/" + pid + "/stat");
        if (!stat.open(QIODevice::ReadOnly))
            continue;
        // "pid (name) state ppid ...": the name may hold blanks.
        const QList<QByteArray> fields = stat.readAll().split(')').last().trimmed().split(' ');
        if (fields.size() > 1 && fields[1].toInt() == getpid()) {
            ++children;
            zombies += fields[0] == "Z";
        }
    }
    return {children, zombies};
}

TEST(SpawnRun, CopiesShareTheProcessAndEveryChildIsCollected)
{
    Spawn original;
    ASSERT_TRUE(setUp(original, "/bin/cat", {}));
    original.setPipeInput();
    original.setPipeOutput();
    ASSERT_TRUE(original.spawn());
    {
        Spawn copy(original);
        Spawn assigned;
        assigned = original;
        EXPECT_EQ(copy.getOSHandle(), original.getOSHandle());
        EXPECT_EQ(assigned.getOSPid(), original.getOSPid());
    }
    // The copies are gone; the descriptors they held still work here.
    FILE* in = original.getPipeInputHandle();
    fputs("through\n", in);
    fclose(in);
    EXPECT_EQ(readAndClose(original.getPipeOutputHandle()), "through\n");
    // The process handle lives while anyone holds it; a second start
    // replaces it.
    boost::shared_ptr<Brevi::Handle> handle = original.getOSHandle();
    ASSERT_TRUE(original.spawn());
    EXPECT_NE(original.getOSHandle(), handle);
    int code = -1;
    EXPECT_TRUE(handle->wait(&code));
    EXPECT_EQ(code, 0);

    // Children let go of while they run, by the last copy or the last holder
    // of the handle, are collected once they end: none stays a zombie.
    fclose(original.getPipeInputHandle());
    original = Spawn();
    for (int i = 0; i < 5; ++i) {
        Spawn sleeper;
        ASSERT_TRUE(setUp(sleeper, "/bin/sleep", {"0.5"}));
        ASSERT_TRUE(sleeper.spawn());
        if (i == 0)
            handle = sleeper.getOSHandle();
    }
    handle.reset();
    QPair<int, int> left = childrenAndZombies();
    EXPECT_GE(left.first, 5) << "the sleepers";
    for (int i = 0; i < 100 && left.first > 0; ++i) {
        QThread::msleep(50);
        left = childrenAndZombies();
    }
    EXPECT_EQ(left.first, 0) << left.second << " of them zombies";

    // A child that leads its own group takes what it starts along.
    Spawn leader;
    ASSERT_TRUE(setUp(leader, "/bin/sh", {"-c", "sleep 30 & wait"}));
    leader.setProcessGroup();
    ASSERT_TRUE(leader.spawn());
    EXPECT_EQ(getpgid(pid_t(leader.getOSPid())), pid_t(leader.getOSPid()));
    ASSERT_EQ(kill(-pid_t(leader.getOSPid()), SIGKILL), 0);
    int signal = 0;
    EXPECT_TRUE(leader.getOSHandle()->wait(&code, &signal));
    EXPECT_EQ(signal, SIGKILL);
}

TEST(SpawnRun, NoDescriptorReachesTheChildOrStaysBehind)
{
    const QStringList before = openDescriptors();
    // What the test's own runner leaves open for children passes on as well.
    QByteArray expected = "0\n1\n2\n";
    for (const QString& descriptor : before) {
        if (descriptor.toInt() > 2 && !(fcntl(descriptor.toInt(), F_GETFD) & FD_CLOEXEC))
            expected += descriptor.toLatin1() + '\n';
    }
    QTemporaryDir directory;
    const QString file = ProcessTest::writeFile(directory.path(), "input", "");
    {
        // Another child's pipes and a stdin file are open while the helper
        // starts; it sees only its standard handles.
        Spawn other;
        ASSERT_TRUE(setUp(other, helper(), {"block"}));
        other.setPipeInput();
        other.setPipeOutput();
        ASSERT_TRUE(other.spawn());

        Spawn spawn;
        ASSERT_TRUE(setUp(spawn, helper(), {"fds"}));
        ASSERT_TRUE(spawn.setStdin(file));
        spawn.setPipeOutput();
        ASSERT_TRUE(spawn.spawn());
        EXPECT_EQ(readAndClose(spawn.getPipeOutputHandle()), expected);
        EXPECT_EQ(exitCodeOf(spawn), 0);

        fclose(other.getPipeInputHandle());
        EXPECT_EQ(readAndClose(other.getPipeOutputHandle()), "");
        EXPECT_EQ(exitCodeOf(other), 0);
    }
    EXPECT_EQ(openDescriptors(), before);
}

// The lowest limit on descriptor numbers that leaves exactly `free` of them
// unused in this process.
rlim_t limitLeaving(int free)
{
    const QStringList open = openDescriptors();
    rlim_t limit = 0;
    for (int unused = 0; unused < free || open.contains(QString::number(limit)); ++limit) {
        if (!open.contains(QString::number(limit)))
            ++unused;
    }
    return limit;
}

// A start that fails: its words, its error value, no process, no pipe handed
// out (one made before the failure is closed with it), the environment put
// back, and no descriptor left open. The last cases leave the process only
// `free` descriptor numbers: a pipe takes two, the stdin file one.
struct StartFailure {
    const char* name;
    std::function<void(Spawn&, const QString& directory)> prepare;
    Spawn::ErrorE error;
    std::function<QString(const QString& directory)> words;
    int free;
};

TEST(SpawnRun, FailedStartsLeaveNothingOpen)
{
    const auto plain = [](const char* words) { return [words](const QString&) { return QString(words); }; };
    const auto cat = [](Spawn& s, const QString&) { s.setProgram("/bin/cat"); };
    inContext([&] {
        const StartFailure failures[] = {
            {"no program", [](Spawn& s, const QString&) { s.setProgram("relative"); }, Spawn::eBadPath,
             plain("No  program name supplied"), 0},
            {"program gone",
             [](Spawn& s, const QString& d) {
                 s.setProgram(ProcessTest::writeFile(d, "gone", "#!/bin/sh\n", 0755));
                 QFile::remove(d + "/gone");
             },
             Spawn::eNone, plain("Failed to create process ': (2) No such file or directory'"), 0},
            {"program no longer executable",
             [](Spawn& s, const QString& d) {
                 s.setProgram(ProcessTest::writeFile(d, "locked", "#!/bin/sh\n", 0755));
                 chmod(QFile::encodeName(d + "/locked").constData(), 0644);
             },
             Spawn::eNone, plain("Failed to create process ': (13) Permission denied'"), 0},
            {"no working directory",
             [](Spawn& s, const QString&) {
                 s.setProgram("/bin/true");
                 s.setWorkingDirectory("/no/such/directory");
             },
             Spawn::eNone, plain("Failed to create process ': (2) No such file or directory'"), 0},
            {"stdin file gone",
             [](Spawn& s, const QString& d) {
                 s.setProgram("/bin/cat");
                 s.setStdin(ProcessTest::writeFile(d, "input", "data"));
                 QFile::remove(d + "/input");
             },
             Spawn::eStdinFailed,
             [](const QString& d) {
                 return "Failed to open stdin '" + d + "/input' ': (2) No such file or directory'";
             },
             0},
            {"no input pipe", cat, Spawn::ePipeFailed,
             plain("Failed to create input pipe ': (24) Too many open files'"), 1},
            {"no output pipe", cat, Spawn::ePipeFailed,
             plain("Failed to create output pipe ': (24) Too many open files'"), 3},
            {"no output pipe beside a stdin file",
             [](Spawn& s, const QString& d) {
                 s.setProgram("/bin/cat");
                 s.setStdin(ProcessTest::writeFile(d, "input", "data"));
             },
             Spawn::ePipeFailed, plain("Failed to create output pipe ': (24) Too many open files'"), 2},
        };
        setenv("BREVI_T_KEPT", "before", 1);
        for (const StartFailure& failure : failures) {
            SCOPED_TRACE(failure.name);
            QTemporaryDir directory;
            const QStringList before = openDescriptors();
            Spawn spawn;
            spawn.setPipeInput();
            spawn.setPipeOutput();
            spawn.addEnvironment("BREVI_T_KEPT", "during");
            failure.prepare(spawn, directory.path());
            rlimit saved;
            getrlimit(RLIMIT_NOFILE, &saved);
            rlimit lowered = saved;
            if (failure.free)
                lowered.rlim_cur = limitLeaving(failure.free);
            TraceReader trace;
            setrlimit(RLIMIT_NOFILE, &lowered);
            const bool started = spawn.spawn();
            setrlimit(RLIMIT_NOFILE, &saved);
            EXPECT_FALSE(started);
            EXPECT_EQ(spawn.error(), failure.error);
            EXPECT_TRUE(trace.saw(failure.words(directory.path())));
            EXPECT_FALSE(spawn);
            EXPECT_FALSE(spawn.getOSHandle());
            EXPECT_EQ(spawn.getPipeInputHandle(), nullptr);
            EXPECT_EQ(spawn.getPipeOutputHandle(), nullptr);
            EXPECT_STREQ(getenv("BREVI_T_KEPT"), "before");
            EXPECT_EQ(openDescriptors(), before);
        }
    });
}

} // namespace
