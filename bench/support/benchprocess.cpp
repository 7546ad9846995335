#include "benchprocess.h"

#include "sockets/tcpsocketdata.h"
#include "sockets/tcpsocketlisten.h"

#include <QByteArray>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <thread>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace BreviBench {

using namespace Brevi;

Program::Program(const QString& path, const QStringList& arguments)
{
    std::vector<QByteArray> storage{path.toLocal8Bit()};
    for (const QString& argument : arguments)
        storage.push_back(argument.toLocal8Bit());
    std::vector<char*> argv;
    for (QByteArray& item : storage)
        argv.push_back(item.data());
    argv.push_back(nullptr);
    miPid = ::fork();
    if (miPid == 0) {
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
}

Program::~Program()
{
    if (miPid <= 0)
        return;
    ::kill(miPid, SIGCONT);
    ::kill(miPid, SIGTERM);
    for (int tries = 0; tries < 1000; ++tries) {
        if (::waitpid(miPid, nullptr, WNOHANG) == miPid)
            return;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ::kill(miPid, SIGKILL);
    ::waitpid(miPid, nullptr, 0);
}

void Program::signal(int number) const { ::kill(miPid, number); }

HubRun::HubRun(const QString& home, const QStringList& arguments)
    : msHome(home.isEmpty() ? moOwnHome.path() : home)
{
    port = TCPSocketListen("Probe", NetAddress(QHostAddress::LocalHost, 0), 1).localAddress().getPort();
    mpProgram.reset(new Program(HUB_PATH, QStringList{"--port", QString::number(port), "--node", "bench",
                                                      "--machine-id", "0", "--home", msHome} +
                                              arguments));
}

bool HubRun::ready(benchmark::State& state) const
{
    if (!listening()) {
        state.SkipWithError("the Hub did not start");
        return false;
    }
    ::setenv("BREVI_HOME", msHome.toLocal8Bit().constData(), 1);
    ::setenv("BREVI_HUB_PORT", QByteArray::number(port).constData(), 1);
    return true;
}

bool HubRun::listening() const
{
    for (int tries = 0; tries < 250; ++tries) {
        TCPSocketData probe("Probe", NetAddress(QHostAddress::LocalHost, port));
        if (probe.isValid() && probe.complete(200))
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

ProcessCpu::ProcessCpu(pid_t pid)
{
    if (::clock_getcpuclockid(pid, &moClock) == 0)
        miStart = now();
}

long long ProcessCpu::now() const
{
    timespec time;
    if (::clock_gettime(moClock, &time) != 0)
        return -1;
    return (long long)(time.tv_sec) * 1000000000LL + time.tv_nsec;
}

double ProcessCpu::perItem(int64_t items) const
{
    const long long end = now();
    if (miStart < 0 || end < miStart || items <= 0)
        return -1;
    return double(end - miStart) / 1000.0 / double(items);
}

void ProcessCpu::report(benchmark::State& state, const char* name, int64_t items) const
{
    const double micros = perItem(items);
    if (micros >= 0)
        state.counters[name] = micros;
}

} // namespace BreviBench
