#include "process/spawn.h"

#include "core/trace.h"
#include "core/traceerrorcode.h"
#include "process/spawnlogon_p.h"

#include <QByteArray>
#include <QFile>
#include <QFileInfo>

#include <boost/make_shared.hpp>

#include <vector>

#include <cerrno>
#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleSpawn;

// Bytes of buffer asked for each pipe, so that a child can write a good deal
// before it waits for its parent to read.
const int PipeSize = 0x100000;
// Characters of the buffer an environment value is read through before
// spawn() changes it. A longer value is not read: the buffer keeps what it
// held, and that is what the variable is set back to.
const int EnvironmentBufferSize = 0x10000;

void closeDescriptor(int& descriptor)
{
    if (descriptor != -1) {
        ::close(descriptor);
        descriptor = -1;
    }
}

// Keeps a descriptor of ours off 0, 1 and 2: the child's standard handles are
// put in place one after the other, and a source that is itself one of them
// would be overwritten before its turn. Only a process that closed its own
// standard handles ever gets such a number.
int aboveStandard(int descriptor)
{
    if (descriptor < 0 || descriptor > 2)
        return descriptor;
    const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, 3);
    const int error = errno;
    ::close(descriptor);
    errno = error;
    return moved;
}

bool makePipe(int (&ends)[2])
{
    if (pipe2(ends, O_CLOEXEC) < 0)
        return false;
    ends[0] = aboveStandard(ends[0]);
    ends[1] = aboveStandard(ends[1]);
    if (ends[0] < 0 || ends[1] < 0) {
        const int error = errno;
        closeDescriptor(ends[0]);
        closeDescriptor(ends[1]);
        errno = error;
        return false;
    }
    // Only a wish: a user over the kernel's pipe allowance keeps the default.
    fcntl(ends[1], F_SETPIPE_SZ, PipeSize);
    return true;
}

// What the child is started with; all of it prepared before the process is
// created, so that a forked child only makes system calls.
struct Launch {
    const char* program = nullptr;
    char* const* arguments = nullptr;
    const char* directory = nullptr;
    // A process group of its own.
    bool processGroup = false;
    // -1 for /dev/null.
    int input = -1;
    // Standard output and standard error; -1 for /dev/null.
    int output = -1;
};

// Where a forked child failed, reported over a pipe that exec closes.
enum ChildStage : int { StageCreate = 1, StageIdentity = 2 };
struct ChildReport {
    int stage;
    int error;
};

// The common case, without an account: posix_spawn, which creates the child
// without copying this process and reports a failed exec as its result.
int launchDirect(const Launch& launch, pid_t& pid)
{
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    int result = posix_spawn_file_actions_init(&actions);
    if (result != 0)
        return result;
    result = posix_spawnattr_init(&attributes);
    if (result != 0) {
        posix_spawn_file_actions_destroy(&actions);
        return result;
    }

    if (launch.input >= 0)
        result = posix_spawn_file_actions_adddup2(&actions, launch.input, STDIN_FILENO);
    else
        result = posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (result == 0) {
        if (launch.output >= 0)
            result = posix_spawn_file_actions_adddup2(&actions, launch.output, STDOUT_FILENO);
        else
            result = posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    }
    if (result == 0)
        result = posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    if (result == 0 && launch.directory)
        result = posix_spawn_file_actions_addchdir_np(&actions, launch.directory);

    // The child starts with no signal blocked, and with the signals a server
    // commonly ignores back at their defaults.
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    sigaddset(&defaults, SIGCHLD);
    if (result == 0)
        result = posix_spawnattr_setsigmask(&attributes, &none);
    if (result == 0)
        result = posix_spawnattr_setsigdefault(&attributes, &defaults);
    short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
    if (launch.processGroup) {
        flags |= POSIX_SPAWN_SETPGROUP;
        if (result == 0)
            result = posix_spawnattr_setpgroup(&attributes, 0);
    }
    if (result == 0)
        result = posix_spawnattr_setflags(&attributes, flags);
    if (result == 0)
        result = posix_spawn(&pid, launch.program, &actions, &attributes, launch.arguments, environ);

    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return result;
}

// In the forked child: tell the parent where it failed, and end.
[[noreturn]] void childFailed(int report, ChildStage stage)
{
    const ChildReport message { stage, errno };
    ssize_t written;
    do
        written = ::write(report, &message, sizeof message);
    while (written < 0 && errno == EINTR);
    _exit(127);
}

bool childStandard(int source, int target, const char* nullMode)
{
    if (source >= 0)
        return dup2(source, target) == target;
    const int null = ::open("/dev/null", nullMode[0] == 'r' ? O_RDONLY : O_WRONLY);
    if (null < 0)
        return false;
    if (null == target)
        return true;
    const bool moved = dup2(null, target) == target;
    ::close(null);
    return moved;
}

// With an account: fork, take on the account in the child, exec. Between fork
// and exec the child makes only system calls (the group list was collected
// before), as a child of a threaded process must. The raw set*id calls change
// the one thread the child has.
int launchAs(const Launch& launch, const SpawnLogon::Identity& identity, pid_t& pid, ChildStage& stage)
{
    stage = StageCreate;
    int report[2];
    if (pipe2(report, O_CLOEXEC) < 0)
        return errno;

    pid = fork();
    if (pid < 0) {
        const int error = errno;
        ::close(report[0]);
        ::close(report[1]);
        return error;
    }
    if (pid == 0) {
        ::close(report[0]);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        struct sigaction defaultAction = {};
        defaultAction.sa_handler = SIG_DFL;
        sigaction(SIGPIPE, &defaultAction, nullptr);
        sigaction(SIGCHLD, &defaultAction, nullptr);
        if (launch.processGroup && setpgid(0, 0) < 0)
            childFailed(report[1], StageCreate);

        if (!childStandard(launch.input, STDIN_FILENO, "r") || !childStandard(launch.output, STDOUT_FILENO, "w")
            || dup2(STDOUT_FILENO, STDERR_FILENO) != STDERR_FILENO)
            childFailed(report[1], StageCreate);

        if (identity.change) {
            if (syscall(SYS_setgroups, identity.groups.size(), identity.groups.data()) < 0
                || syscall(SYS_setresgid, identity.gid, identity.gid, identity.gid) < 0
                || syscall(SYS_setresuid, identity.uid, identity.uid, identity.uid) < 0)
                childFailed(report[1], StageIdentity);
        }
        if (launch.directory && chdir(launch.directory) < 0)
            childFailed(report[1], StageCreate);
        execve(launch.program, launch.arguments, environ);
        childFailed(report[1], StageCreate);
    }

    ::close(report[1]);
    ChildReport message { 0, 0 };
    ssize_t got;
    do
        got = ::read(report[0], &message, sizeof message);
    while (got < 0 && errno == EINTR);
    ::close(report[0]);
    if (got != ssize_t(sizeof message))
        return 0; // exec closed the pipe: the program runs

    // The child has ended on its own; collect it here, nobody else knows it.
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) { }
    pid = 0;
    stage = ChildStage(message.stage);
    return message.error ? message.error : ECHILD;
}

int openProcess(pid_t pid) { return int(syscall(SYS_pidfd_open, pid, 0)); }

// A variable as it was before spawn() set it; a null value for one that was
// not there (or was empty: the two read the same).
struct Remembered {
    QByteArray name;
    QByteArray value;
    bool null;
};

} // namespace

Spawn::Spawn() = default;
Spawn::Spawn(const Spawn& other) = default;
Spawn& Spawn::operator=(const Spawn& other) = default;
Spawn::~Spawn() = default;

bool Spawn::setProgram(const QString& path)
{
    if (path.isEmpty()) {
        BTRACE(TraceAlways) << "Empty string";
        meError = eEmptyString;
        return false;
    }
    const QFileInfo info(path);
    if (info.isRelative()) {
        BTRACE(TraceAlways) << "Program path is not absolute";
        meError = eBadPath;
        return false;
    }
    if (!info.isFile()) {
        BTRACE(TraceAlways) << "Program path is not a path";
        meError = eBadPath;
        return false;
    }
    if (!info.isExecutable()) {
        BTRACE(TraceAlways) << "Program path is not executable";
        meError = eBadPath;
        return false;
    }
    msProgram = path;
    return true;
}

bool Spawn::setAccount(const QString& name)
{
    if (name.isEmpty()) {
        BTRACE(TraceAlways) << "Empty string";
        meError = eEmptyString;
        return false;
    }
    msAccount = name;
    return true;
}

bool Spawn::setQualifier(const QString& password)
{
    if (password.isEmpty()) {
        BTRACE(TraceAlways) << "Enpty string";
        meError = eEmptyString;
        return false;
    }
    msQualifier = password;
    return true;
}

bool Spawn::setWorkingDirectory(const QString& path)
{
    if (path.isEmpty()) {
        BTRACE(TraceAlways) << "Empty  string";
        meError = eEmptyString;
        return false;
    }
    msWorkingDirectory = path;
    return true;
}

bool Spawn::setStdin(const QString& path)
{
    mbPipeInput = false;
    if (path.isEmpty()) {
        BTRACE(TraceDebug) << "Empty string";
        meError = eEmptyString;
        return false;
    }
    const QFileInfo info(path);
    if (info.isRelative()) {
        BTRACE(TraceAlways) << "Path is not absolute" << path;
        meError = eBadPath;
        return false;
    }
    if (!info.isFile()) {
        BTRACE(TraceAlways) << "Path is not a file" << path;
        meError = eBadPath;
        return false;
    }
    if (!info.isReadable()) {
        BTRACE(TraceAlways) << "Path is not readable" << path;
        meError = eNotReadable;
        return false;
    }
    msStdin = path;
    return true;
}

void Spawn::setPipeInput()
{
    mbPipeInput = true;
    msStdin.clear();
}

void Spawn::setPipeOutput() { mbPipeOutput = true; }

bool Spawn::addArgument(const QString& argument)
{
    if (argument.isNull()) {
        BTRACE(TraceAlways) << "NULL string";
        meError = eNullString;
        return false;
    }
    moArguments.append(argument);
    return true;
}

bool Spawn::addArgument(bool argument) { return addArgument(QString(argument ? "true" : "false")); }
bool Spawn::addArgument(unsigned int argument) { return addArgument(QString::number(argument)); }
bool Spawn::addArgument(int argument) { return addArgument(QString::number(argument)); }
bool Spawn::addArgument(unsigned long long argument) { return addArgument(QString::number(argument)); }
bool Spawn::addArgument(long long argument) { return addArgument(QString::number(argument)); }

bool Spawn::addEnvironment(const QString& name, const QString& value)
{
    if (name.isEmpty()) {
        BTRACE(TraceAlways) << "Empty name string";
        meError = eEmptyString;
        return false;
    }
    moEnvironment.append(boost::make_shared<Entry>(name, value));
    return true;
}

bool Spawn::addEnvironment(const QString& name, bool value)
{
    return addEnvironment(name, QString(value ? "TRUE" : "FALSE"));
}
bool Spawn::addEnvironment(const QString& name, unsigned int value)
{
    return addEnvironment(name, QString::number(value));
}
bool Spawn::addEnvironment(const QString& name, int value) { return addEnvironment(name, QString::number(value)); }
bool Spawn::addEnvironment(const QString& name, unsigned long long value)
{
    return addEnvironment(name, QString::number(value));
}
bool Spawn::addEnvironment(const QString& name, long long value)
{
    return addEnvironment(name, QString::number(value));
}

QString Spawn::buildCommandLine(const QString& program, const QStringList& arguments)
{
    const auto quoted = [](const QString& text) {
        const QChar first = text.isEmpty() ? QChar(0) : text.at(0);
        return first == '"' || first == '\'';
    };
    QString line;
    if (quoted(program))
        line += program;
    else
        line += '"' + program + '"';
    for (const QString& argument : arguments) {
        if (argument.isEmpty())
            line += QLatin1String(" \"\"");
        else if (quoted(argument))
            line += ' ' + argument;
        else
            line += QLatin1String(" \"") + argument + '"';
    }
    return line;
}

bool Spawn::alive() const { return mptProcess && mptProcess->running(); }

FILE* Spawn::takeStream(int& descriptor, const char* mode)
{
    if (descriptor == -1)
        return nullptr;
    FILE* stream = fdopen(descriptor, mode);
    if (!stream) {
        BTRACE(TraceAlways) << "Failed to open pipe stream" << TraceErrorCode(errno);
        ::close(descriptor);
    }
    descriptor = -1;
    return stream;
}

FILE* Spawn::getPipeInputHandle() { return takeStream(miPipeInput, "wb"); }
FILE* Spawn::getPipeOutputHandle() { return takeStream(miPipeOutput, "rb"); }

void Spawn::closePipeDescriptors()
{
    closeDescriptor(miPipeInput);
    closeDescriptor(miPipeOutput);
}

bool Spawn::spawn()
{
    BTRACE(TraceDebug) << "IN:spawn";
    if (msProgram.isEmpty()) {
        BTRACE(TraceAlways) << "No  program name supplied";
        meError = eBadPath;
        closePipeDescriptors();
        BTRACE(TraceDebug) << "OUT:spawn ," << false;
        return false;
    }

    bool failed = false;
    // The child's ends; this process keeps the others.
    int stdinFile = -1, inputRead = -1, outputWrite = -1;

    if (!msStdin.isEmpty()) {
        stdinFile = aboveStandard(::open(QFile::encodeName(msStdin).constData(), O_RDONLY | O_CLOEXEC));
        if (stdinFile < 0) {
            BTRACE(TraceAlways) << "Failed to open stdin" << msStdin << TraceErrorCode(errno);
            meError = eStdinFailed;
            failed = true;
        }
    }
    if (!failed && mbPipeInput) {
        int ends[2];
        if (makePipe(ends)) {
            inputRead = ends[0];
            miPipeInput = ends[1];
        } else {
            BTRACE(TraceAlways) << "Failed to create input pipe" << TraceErrorCode(errno);
            meError = ePipeFailed;
            failed = true;
        }
    }
    if (!failed && mbPipeOutput) {
        int ends[2];
        if (makePipe(ends)) {
            miPipeOutput = ends[0];
            outputWrite = ends[1];
        } else {
            BTRACE(TraceAlways) << "Failed to create output pipe" << TraceErrorCode(errno);
            meError = ePipeFailed;
            failed = true;
        }
    }

    if (!failed) {
        // The child inherits this process's environment as it is at the start,
        // so the entries are set here and put back once the child exists.
        QList<Remembered> remembered;
        QByteArray buffer;
        for (const boost::shared_ptr<Entry>& entry : moEnvironment) {
            const QByteArray name = entry->name().toLocal8Bit();
            const char* current = std::getenv(name.constData());
            if (current && *current) {
                const QString value = QString::fromLocal8Bit(current);
                if (value.size() < EnvironmentBufferSize)
                    buffer = value.toLocal8Bit();
                remembered.append(Remembered { name, buffer, false });
            } else {
                remembered.append(Remembered { name, QByteArray(), true });
            }
            ::setenv(name.constData(), entry->value().toLocal8Bit().constData(), 1);
        }

        const QString line = commandLine();
        BTRACE(TraceNormal) << "Command line" << line;

        // The program gets a vector: each argument as given, without the
        // quotes the command line adds around it.
        const QByteArray program = QFile::encodeName(msProgram);
        std::vector<QByteArray> storage;
        storage.reserve(size_t(moArguments.size()));
        for (const QString& argument : moArguments)
            storage.push_back(argument.toLocal8Bit());
        std::vector<char*> arguments;
        arguments.reserve(storage.size() + 2);
        arguments.push_back(const_cast<char*>(program.constData()));
        for (QByteArray& argument : storage)
            arguments.push_back(argument.data());
        arguments.push_back(nullptr);
        const QByteArray directory = QFile::encodeName(msWorkingDirectory);

        Launch launch;
        launch.program = program.constData();
        launch.arguments = arguments.data();
        launch.directory = msWorkingDirectory.isEmpty() ? nullptr : directory.constData();
        launch.input = stdinFile >= 0 ? stdinFile : inputRead;
        launch.output = outputWrite;
        launch.processGroup = mbProcessGroup;

        pid_t pid = 0;
        bool started = false;
        if (!msAccount.isEmpty()) {
            QString user, reason;
            int error = 0;
            SpawnLogon::Identity identity;
            if (!SpawnLogon::logon(msAccount, msQualifier, user, reason, error)) {
                BTRACE(TraceAlways) << "Failed to logon user" << msAccount << reason << TraceErrorCode(error);
                meError = eLogonFailed;
                failed = true;
            } else if (!SpawnLogon::resolve(user, identity, error)) {
                BTRACE(TraceAlways) << "Failed to impersonate user" << msAccount << TraceErrorCode(error);
                meError = eLogonFailed;
            } else {
                ChildStage stage = StageCreate;
                error = launchAs(launch, identity, pid, stage);
                if (error == 0) {
                    started = true;
                } else if (stage == StageIdentity) {
                    BTRACE(TraceAlways) << "Failed to impersonate user" << msAccount << TraceErrorCode(error);
                    meError = eLogonFailed;
                } else {
                    BTRACE(TraceAlways) << "Failed to create process" << TraceErrorCode(error);
                    failed = true;
                }
            }
            // A refused switch of identity is not a failed call: spawn() goes
            // on as if a process had started, with pid 0 and a handle on 0.
        } else {
            const int error = launchDirect(launch, pid);
            if (error == 0) {
                started = true;
            } else {
                BTRACE(TraceAlways) << "Failed to create process" << TraceErrorCode(error);
                failed = true;
            }
        }

        for (int i = remembered.size() - 1; i >= 0; --i) {
            const Remembered& entry = remembered.at(i);
            ::setenv(entry.name.constData(), entry.null ? "" : entry.value.constData(), 1);
        }

        if (!failed) {
            if (started) {
                const int process = openProcess(pid);
                if (process < 0)
                    BTRACE(TraceAlways) << "Failed to open process" << int(pid) << TraceErrorCode(errno);
                muiOSPid = unsigned(pid);
                mptProcess = boost::make_shared<Handle>(process);
                BTRACE(TraceNormal) << "Started process" << muiOSPid;
            } else {
                muiOSPid = 0;
                mptProcess = boost::make_shared<Handle>(0, Handle::NotOwned);
            }
        }
    }

    closeDescriptor(stdinFile);
    closeDescriptor(inputRead);
    closeDescriptor(outputWrite);
    if (failed)
        closePipeDescriptors();
    BTRACE(TraceDebug) << "OUT:spawn ," << !failed;
    return !failed;
}

} // namespace Brevi
