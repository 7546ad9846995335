// Log messages from this process to the real log daemon through the real
// Hub, each stored and flushed to the daemon's file before the batch counts
// (items_per_second is wall time: the whole path, three processes on the
// machine's cores); beside it, trace lines from the same attached context
// into a text file. Then the same log messages while the daemon is stalled
// (SIGSTOP: the Hub holds what it cannot deliver, then stops reading this
// process, whose own queue grows) and while there is none (each message comes
// back from the Hub as undeliverable, and is taken off the queue as a
// process's loop would). The CPU time is this process's: what logging costs
// the work it reports on. daemon_us and hub_us are the CPU time those two
// processes spend per message; grown_bytes is how much this process's
// memory grew per message.
//
//   build-*/bench/logging/logging_bench
#include "core/context.h"
#include "core/trace.h"
#include "logging/logline.h"
#include "messaging/msg.h"
#include "messaging/msgcatalogue.h"

#include "benchprocess.h"

#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <thread>

#include <unistd.h>

using namespace Brevi;
using BreviBench::HubRun;
using BreviBench::ProcessCpu;
using BreviBench::Program;

namespace {

const int Batch = 2000;
const int WaitMs = 30000;

// The library reads its home once per process: every case shares this one.
QString home()
{
    static QTemporaryDir directory;
    return directory.path();
}

// True once the last bytes of the store hold `marker` (within WaitMs).
bool stored(const QString& path, const QByteArray& marker)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(WaitMs);
    while (std::chrono::steady_clock::now() < deadline) {
        QFile file(path);
        if (file.open(QIODevice::ReadOnly) && file.seek(qMax<qint64>(0, file.size() - 2 * marker.size() - 64)) &&
            file.readAll().contains(marker))
            return true;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return false;
}

long long residentBytes()
{
    QFile statm("/proc/self/statm");
    if (!statm.open(QIODevice::ReadOnly))
        return 0;
    return statm.readAll().split(' ').value(1).toLongLong() * ::sysconf(_SC_PAGESIZE);
}

enum Daemon { eRunning, eStalled, eGone };

// What the benchmark's context works with: the function of Context::run
// takes no arguments.
struct Run {
    benchmark::State* state = nullptr;
    pid_t hub = -1;
    pid_t daemon = -1;
    QString store;
    Daemon daemonState = eRunning;
};
Run current;
int gBatches = 0;

void logBatch(const QString& job)
{
    for (int i = 0; i < Batch - 1; ++i)
        BREVI_LOG("Bench", Log::eLogInformation) << "Job %1s copied %2i files" << job << i;
    BREVI_LOG("Bench", Log::eLogInformation) << "Bench batch %1i end" << ++gBatches;
}

QByteArray marker() { return "Bench batch " + QByteArray::number(gBatches) + " end"; }

// Takes the undeliverable posts of one batch off the queue.
bool takeReturned()
{
    for (int returned = 0; returned < Batch;) {
        const Msg message = Msg::receive(WaitMs / 1000);
        if (!message)
            return false;
        if (message.name() == Catalogue::HubRtrUndeliverableMessagePost::Message)
            ++returned;
    }
    return true;
}

void senderMain()
{
    benchmark::State& state = *current.state;
    const QString job = QStringLiteral("nightly");
    const ProcessCpu hubCpu(current.hub);
    const ProcessCpu daemonCpu(current.daemon);
    const long long before = residentBytes();
    for (auto _ : state) {
        logBatch(job);
        bool done = true;
        switch (current.daemonState) {
        case eRunning:
            done = Msg::flush() && stored(current.store, marker());
            break;
        case eStalled:
            // One turn of the pump, as a process that waits for its own
            // messages now and then gives it.
            Msg::receive(0);
            break;
        case eGone:
            done = Msg::flush() && takeReturned();
            break;
        }
        if (!done) {
            state.SkipWithError("the batch did not get through");
            return;
        }
    }
    const int64_t items = state.iterations() * Batch;
    state.SetItemsProcessed(items);
    hubCpu.report(state, "hub_us", items);
    if (current.daemonState == eRunning)
        daemonCpu.report(state, "daemon_us", items);
    state.counters["grown_bytes"] = double(residentBytes() - before) / double(items);
    if (current.daemonState == eStalled) {
        // Nothing was lost: once the daemon goes on, all of it is stored.
        ::kill(current.daemon, SIGCONT);
        if (!Msg::flush() || !stored(current.store, marker()))
            state.SkipWithError("held messages were lost");
    }
}

void logMessages(benchmark::State& state, Daemon daemon)
{
    HubRun hub(home());
    if (!hub.ready(state))
        return;
    static int runs = 0;
    const QString store = home() + "/store-" + QString::number(++runs) + ".log";
    std::unique_ptr<Program> program;
    if (daemon != eGone) {
        program.reset(new Program(LOGDAEMON_PATH, {"--file", store}));
        if (!stored(store, "Log Daemon has started")) {
            state.SkipWithError("the log daemon did not start");
            return;
        }
        if (daemon == eStalled)
            program->signal(SIGSTOP);
    }
    current = Run{&state, hub.pid(), program ? program->pid() : -1, store, daemon};
    if (!Context::run(senderMain, Context::TypeAttached, Context::FlagAttachOnce, "Bench Logger"))
        state.SkipWithError("the process did not attach to the Hub");
}

void LogToDaemon(benchmark::State& state) { logMessages(state, eRunning); }
void LogToStalledDaemon(benchmark::State& state) { logMessages(state, eStalled); }
void LogWithoutDaemon(benchmark::State& state) { logMessages(state, eGone); }

// Trace lines with the same words and values, from an attached context of
// the same kind, into its text trace file (flushed every line).
void traceMain()
{
    benchmark::State& state = *current.state;
    QTemporaryDir directory;
    Context::object()->trace().file(directory.path() + "/bench", 0, 0, TraceFileText);
    const QString job = QStringLiteral("nightly");
    int i = 0;
    for (auto _ : state)
        BREVI_TRACE(TraceModuleApplication, TraceNormal) << "Job" << job << "copied" << ++i << "files";
    state.SetItemsProcessed(state.iterations());
}

void TraceToFile(benchmark::State& state)
{
    HubRun hub(home());
    if (!hub.ready(state))
        return;
    current = Run{&state, hub.pid(), -1, QString(), eRunning};
    if (!Context::run(traceMain, Context::TypeAttached, Context::FlagAttachOnce, "Bench Tracer"))
        state.SkipWithError("the process did not attach to the Hub");
}

} // namespace

BENCHMARK(LogToDaemon)->UseRealTime()->Unit(benchmark::kMicrosecond)->MinTime(2);
BENCHMARK(TraceToFile);
BENCHMARK(LogToStalledDaemon)->Iterations(20)->Unit(benchmark::kMicrosecond);
BENCHMARK(LogWithoutDaemon)->UseRealTime()->Unit(benchmark::kMicrosecond)->MinTime(2);

BENCHMARK_MAIN();
