// A supervised tree of 16 child processes under one top process, all of
// them the example program "supervised", through the real Hub: a freeze and
// a thaw of the whole tree as a person or a backup would order them from
// outside (request to the top, answer when all are frozen; then the same
// for the thaw), and a shutdown of the tree (the post to the top until the
// Hub says the top has ended, which it does only after its 16 children).
// Beside them, the floor: one request and its answer between this process
// and the top, through the same Hub.
//
// Counters: median_ms is the median of the rounds (the benchmark's own time
// is their mean), tree_cpu_ms the CPU time the Hub and the tree's processes
// spent per round.
//
//   build/bench/childmanager/childmanager_bench
#include "benchprocess.h"
#include "benchsupport.h"

#include "core/context.h"
#include "messaging/msg.h"
#include "messaging/msgaddress.h"
#include "messaging/msgcatalogue.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>
#include <thread>
#include <vector>

#include <unistd.h>

using namespace Brevi;
using namespace Brevi::Catalogue;

namespace {

const char* const Shape = "Leaf#16";
const char* const Group = "Supervised";
const int AnswerSeconds = 30;

pid_t gHub = 0;

// CPU milliseconds (user and system) of a process so far; with `reaped`,
// also of the children it has collected.
double cpuMs(pid_t pid, bool reaped = false)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return 0;
    const QList<QByteArray> fields = stat.readAll().split(')').last().trimmed().split(' ');
    if (fields.size() < 15)
        return 0;
    double ticks = fields[11].toDouble() + fields[12].toDouble();
    if (reaped)
        ticks += fields[13].toDouble() + fields[14].toDouble();
    return ticks * 1000.0 / double(sysconf(_SC_CLK_TCK));
}

// The Hub's running children: the tree's leaves.
double leavesCpuMs()
{
    double total = 0;
    QFile children(QStringLiteral("/proc/%1/task/%1/children").arg(gHub));
    if (children.open(QIODevice::ReadOnly))
        for (const QByteArray& child : children.readAll().split(' '))
            if (!child.trimmed().isEmpty())
                total += cpuMs(pid_t(child.trimmed().toInt()));
    return total;
}

// The Hub, the top and the leaves, while they all run.
double treeCpuMs(pid_t top) { return cpuMs(gHub) + cpuMs(top) + leavesCpuMs(); }

// What this process's collected children (the tops) have spent.
double collectedCpuMs() { return BreviBench::childCpuSeconds() * 1000.0; }

MsgAddress top() { return MsgAddress(Context::machineName(), "Bench", Group); }

// Sends `name` to the top and waits for its answer `reply`; the answer, or
// the invalid message.
Msg exchange(const QString& name, const QStringList& replies)
{
    Msg request(top(), name);
    const QString cookie = QString::number(Context::uniqueId());
    request.setCookie(cookie);
    if (!request.send())
        return Msg();
    // Before the top has attached, the Hub returns the request.
    const QStringList wanted = QStringList(replies) << HubRtrUndeliverableMessagePost::Message;
    for (;;) {
        const Msg answer = Msg::wait(wanted, AnswerSeconds);
        if (!answer)
            return answer;
        if (answer.name() == HubRtrUndeliverableMessagePost::Message) {
            if (answer.getString(HubRtrUndeliverableMessagePost::Cookie) == cookie)
                return Msg();
        } else if (answer.getCookie() == cookie) {
            return answer;
        }
    }
}

// A tree, started and waited for until all its children run: until then a
// freeze is refused, and then thawed again.
struct Tree {
    std::unique_ptr<BreviBench::Program> process;
    pid_t pid = 0;

    bool start()
    {
        process.reset(new BreviBench::Program(SUPERVISED_PATH, {"--name", "Bench", "--shape", Shape}));
        pid = process->pid();
        for (int attempt = 0; attempt < 600; ++attempt) {
            const Msg frozen = exchange(ChildMgrFreezeRequest::Message, {ChildMgrFreezeReply::Message});
            if (frozen.getBool(ChildMgrFreezeReply::Success))
                return exchange(ChildMgrThawRequest::Message, {ChildMgrThawReply::Message})
                    .getBool(ChildMgrThawReply::Success);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }
    // Shuts it down; true once the Hub has said the top has ended.
    bool shutdown()
    {
        Msg watch(MsgAddress(eMsgAddressHub, eWellKnownHubRouter), HubRtrRegisterNotifyOnExitPost::Message);
        watch.set(HubRtrRegisterNotifyOnExitPost::Address, top().toXml());
        watch.send();
        Msg(top(), ChildMgrShutdownPost::Message).send();
        for (;;) {
            const Msg ended = Msg::wait(HubRtrProcessExitedPost::Message, AnswerSeconds);
            if (!ended)
                return false;
            if (MsgAddress(ended.getXmlList(HubRtrProcessExitedPost::Address)) == top())
                return true;
        }
    }
    // The top has ended by now, or is ended.
    void reap()
    {
        process.reset();
        pid = 0;
    }
};

double median(std::vector<double> values)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void finish(benchmark::State& state, const std::vector<double>& rounds, double cpu)
{
    state.counters["median_ms"] = median(rounds);
    state.counters["tree_cpu_ms"] = rounds.empty() ? 0 : cpu / double(rounds.size());
}

void RoundTripToTheTop(benchmark::State& state)
{
    Tree tree;
    if (!tree.start()) {
        state.SkipWithError("the tree did not come up");
        return;
    }
    std::vector<double> rounds;
    const double before = treeCpuMs(tree.pid);
    for (auto _ : state) {
        QElapsedTimer clock;
        clock.start();
        if (!exchange("TreeWorkPost", {"TreeWorkDonePost"})) {
            state.SkipWithError("no answer");
            break;
        }
        rounds.push_back(double(clock.nsecsElapsed()) / 1e6);
    }
    finish(state, rounds, treeCpuMs(tree.pid) - before);
    tree.shutdown();
    tree.reap();
}

void FreezeAndThawSixteenChildren(benchmark::State& state)
{
    Tree tree;
    if (!tree.start()) {
        state.SkipWithError("the tree did not come up");
        return;
    }
    std::vector<double> rounds, freezes;
    const double before = treeCpuMs(tree.pid);
    for (auto _ : state) {
        QElapsedTimer clock;
        clock.start();
        const bool frozen = exchange(ChildMgrFreezeRequest::Message, {ChildMgrFreezeReply::Message})
                                .getBool(ChildMgrFreezeReply::Success);
        freezes.push_back(double(clock.nsecsElapsed()) / 1e6);
        const bool thawed =
            exchange(ChildMgrThawRequest::Message, {ChildMgrThawReply::Message}).getBool(ChildMgrThawReply::Success);
        if (!frozen || !thawed) {
            state.SkipWithError("the freeze or the thaw failed");
            break;
        }
        rounds.push_back(double(clock.nsecsElapsed()) / 1e6);
    }
    finish(state, rounds, treeCpuMs(tree.pid) - before);
    state.counters["freeze_median_ms"] = median(freezes);
    tree.shutdown();
    tree.reap();
}

void ShutdownSixteenChildren(benchmark::State& state)
{
    std::vector<double> rounds;
    double cpu = 0;
    for (auto _ : state) {
        state.PauseTiming();
        Tree tree;
        if (!tree.start()) {
            state.SkipWithError("the tree did not come up");
            break;
        }
        // The leaves end as children of the Hub, which collects them, the
        // top as this process's.
        const double before = cpuMs(gHub, true) + leavesCpuMs() + cpuMs(tree.pid) + collectedCpuMs();
        state.ResumeTiming();
        QElapsedTimer clock;
        clock.start();
        const bool ended = tree.shutdown();
        rounds.push_back(double(clock.nsecsElapsed()) / 1e6);
        state.PauseTiming();
        tree.reap();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        cpu += cpuMs(gHub, true) + leavesCpuMs() + collectedCpuMs() - before;
        state.ResumeTiming();
        if (!ended) {
            state.SkipWithError("the tree did not end");
            break;
        }
    }
    finish(state, rounds, cpu);
}

BENCHMARK(RoundTripToTheTop)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(200);
BENCHMARK(FreezeAndThawSixteenChildren)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(200);
BENCHMARK(ShutdownSixteenChildren)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(15);

} // namespace

int main(int argc, char** argv)
{
    QTemporaryDir home;
    QTemporaryDir programs;
    QFile::link(SUPERVISED_PATH, programs.filePath("supervised"));
    const BreviBench::HubRun hub(home.path(), {"--programs", programs.path()});
    if (!hub.listening())
        return 1;
    gHub = hub.pid();
    setenv("BREVI_HUB_PORT", QByteArray::number(hub.port).constData(), 1);
    return BreviBench::runInContext(argc, argv, Context::TypeAttached, "childmanager bench", home.path());
}
