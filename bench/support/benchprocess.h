#ifndef BENCH_SUPPORT_BENCHPROCESS_H
#define BENCH_SUPPORT_BENCHPROCESS_H

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>

#include <sys/types.h>
#include <time.h>

namespace BreviBench {

// A program started beside a benchmark (fork and exec, nothing else in the
// child), stopped with SIGTERM and reaped by the destructor; SIGKILL when it
// has not gone within ten seconds.
class Program
{
public:
    Program(const QString& path, const QStringList& arguments);
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    pid_t pid() const { return miPid; }
    void signal(int number) const;

private:
    pid_t miPid = -1;
};

// The real Hub on a port that was free a moment before, with the machine
// name "bench@0", in `home` (or a home of its own when none is given), and
// any further arguments given.
class HubRun
{
public:
    explicit HubRun(const QString& home = QString(), const QStringList& arguments = QStringList());

    // True once the Hub takes connections (within a few seconds).
    bool listening() const;
    // Waits until it listens and points this process's library at it
    // (BREVI_HOME, BREVI_HUB_PORT). False, with the benchmark skipped, when
    // it does not come.
    bool ready(benchmark::State& state) const;
    pid_t pid() const { return mpProgram->pid(); }

    unsigned port = 0;

private:
    QTemporaryDir moOwnHome;
    QString msHome;
    std::unique_ptr<Program> mpProgram;
};

// The CPU time another process (all its threads) spends from the moment this
// is made, per item: unlike a rate, it hardly moves when other work shares
// the machine.
class ProcessCpu
{
public:
    explicit ProcessCpu(pid_t pid);
    // Microseconds per item; -1 when the clock cannot be read.
    double perItem(int64_t items) const;
    // The same as the counter `name` of the benchmark.
    void report(benchmark::State& state, const char* name, int64_t items) const;

private:
    long long now() const;

    clockid_t moClock = 0;
    long long miStart = -1;
};

} // namespace BreviBench

#endif
