// hub: the per-machine process through which every attached process of the
// machine talks. See hub.h for what it does and hubconstants.h for the
// decisions its peers rely on.

#include "hub.h"
#include "huboptions.h"
#include "sharedmemorysweep.h"

#include "core/context.h"
#include "core/fixedpath.h"
#include "core/sharedmemoryprovider.h"
#include "core/trace.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTextStream>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

using namespace Brevi;

namespace {

const unsigned TraceModule = TraceModuleHub;

HubOptions options;
// The write end of the pipe on which a daemon tells its starter how it went.
int readyDescriptor = -1;

void report(char status)
{
    if (readyDescriptor < 0)
        return;
    ssize_t written;
    do
        written = ::write(readyDescriptor, &status, 1);
    while (written < 0 && errno == EINTR);
    ::close(readyDescriptor);
    readyDescriptor = -1;
}

void onSignal(int) { Hub::requestStop(); }

// The pid file names the process that serves the port: with --daemon that is
// not the process its starter knows.
bool writePidFile()
{
    QFile file(options.pidFile);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
        file.write(QByteArray::number(qint64(::getpid())) + '\n') < 0 || !file.flush()) {
        BTRACE(TraceAlways) << "Hub cannot write its pid file" << options.pidFile << file.errorString();
        QTextStream(stderr) << "hub: cannot write the pid file " << options.pidFile << ": " << file.errorString()
                            << '\n';
        return false;
    }
    return true;
}

void installSignals()
{
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    // No SA_RESTART: the signal cuts the loop's wait short, so that shutdown
    // begins at once.
    action.sa_flags = 0;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

void hubMain(int& result, int, char** const)
{
    SharedMemoryProvider::initialize(QString());
    // What processes killed earlier left in shared memory, a Hub among them.
    const unsigned swept = SharedMemorySweep().sweepDead();
    if (swept)
        BTRACE(TraceAlways) << "Removed" << swept << "shared memory names of processes that are gone";
    BTRACE(TraceAlways) << "Hub starting: machine" << options.machineName().fullName() << "port" << options.port
                        << "programs" << options.programsDirectory << "trace buffers" << options.traceBufferSize;
    Hub hub(options);
    // Before listening: whoever starts the Hub takes an accepted connection
    // as its sign of life and may ask it to stop at once, which must end it
    // the orderly way, not by the signal's default action.
    installSignals();
    if (!hub.listen()) {
        QTextStream(stderr) << "hub: cannot listen on 127.0.0.1 port " << options.port << " (see the trace in "
                            << FixedPath::trace() << ")\n";
        report('1');
        result = 1;
        return;
    }
    if (!options.pidFile.isEmpty() && !writePidFile()) {
        report('1');
        result = 1;
        return;
    }
    report('0');
    result = hub.run();
    if (!options.pidFile.isEmpty())
        QFile::remove(options.pidFile);
}

// Detaches from the terminal. The starting process waits until the Hub
// listens or has failed, so that whoever started it can rely on the port.
// Returns only in the daemon.
void daemonize()
{
    int descriptors[2];
    if (::pipe2(descriptors, O_CLOEXEC) != 0) {
        std::perror("hub: pipe");
        std::exit(1);
    }
    const pid_t child = ::fork();
    if (child < 0) {
        std::perror("hub: fork");
        std::exit(1);
    }
    if (child > 0) {
        ::close(descriptors[1]);
        pollfd wait = {descriptors[0], POLLIN, 0};
        char status = '1';
        if (::poll(&wait, 1, 120000) == 1 && ::read(descriptors[0], &status, 1) != 1)
            status = '1';
        std::_Exit(status == '0' ? 0 : 1);
    }
    ::close(descriptors[0]);
    readyDescriptor = descriptors[1];
    ::setsid();
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null >= 0) {
        ::dup2(null, STDIN_FILENO);
        ::dup2(null, STDOUT_FILENO);
        ::dup2(null, STDERR_FILENO);
        if (null > STDERR_FILENO)
            ::close(null);
    }
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName("hub");
    QCoreApplication::setApplicationVersion(Context::version());

    QString error;
    QString help;
    if (!options.parse(application.arguments(), error, help)) {
        QTextStream(stderr) << "hub: " << error << " (see --help)\n";
        return 2;
    }
    if (!help.isEmpty()) {
        QTextStream(stdout) << help;
        return 0;
    }
    options.programsDirectory = QDir(options.programsDirectory).absolutePath();
    if (!options.pidFile.isEmpty())
        options.pidFile = QDir().absoluteFilePath(options.pidFile);
    if (!options.home.isEmpty())
        ::setenv("BREVI_HOME", QDir(options.home).absolutePath().toLocal8Bit().constData(), 1);
    const QByteArray home = qgetenv("BREVI_HOME");
    if (home.isEmpty() || !QDir(QString::fromLocal8Bit(home)).exists()) {
        QTextStream(stderr) << "hub: BREVI_HOME is not set or is no directory (see --home)\n";
        return 2;
    }
    if (options.daemon)
        daemonize();

    int result = 1;
    if (!Context::run(hubMain, result, argc, argv, Context::Type(7), 0, QStringLiteral("Hub"))) {
        QTextStream(stderr) << "hub: the process frame did not come up\n";
        report('1');
        return 1;
    }
    return result;
}
