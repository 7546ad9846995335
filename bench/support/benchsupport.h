#ifndef BENCH_SUPPORT_BENCHSUPPORT_H
#define BENCH_SUPPORT_BENCHSUPPORT_H

// What several benchmark programs share: running the benchmarks inside a
// context, and the CPU time of child processes.

#include "core/context.h"

#include <QString>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <cstdlib>

#include <sys/resource.h>

namespace BreviBench {

// CPU seconds, user and system, of the children waited for so far.
inline double childCpuSeconds()
{
    rusage usage;
    getrusage(RUSAGE_CHILDREN, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Runs the benchmarks the command line names inside a context of `type`, for
// code that needs one (messaging, timers, temporary files), and then `after`
// while the context is still up. The home is `home`, or with an empty one a
// fresh directory that lasts as long as the run. The program's exit code.
inline int runInContext(int argc, char** argv, Brevi::Context::Type type, const QString& title,
                        const QString& home = QString(), void (*after)() = nullptr)
{
    static int sArgc = 0;
    static char** sArgv = nullptr;
    static void (*sAfter)() = nullptr;
    sArgc = argc;
    sArgv = argv;
    sAfter = after;
    QTemporaryDir fresh;
    setenv("BREVI_HOME", (home.isEmpty() ? fresh.path() : home).toLocal8Bit().constData(), 1);
    const auto run = [] {
        benchmark::Initialize(&sArgc, sArgv);
        benchmark::RunSpecifiedBenchmarks();
        benchmark::Shutdown();
        if (sAfter)
            sAfter();
    };
    return Brevi::Context::run(run, type, 0, title) ? 0 : 1;
}

} // namespace BreviBench

#endif
