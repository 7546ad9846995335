// 10,000 events set with Timer::set and fired back to the context that set
// them; the lateness of each is the time it was received (microseconds of the
// system clock) less the moment it was due. All events are set before the
// first one is due, so that the receiving thread is free when they arrive.
//
//   spread: due one every 0.2 ms over two seconds: the timer's reaction.
//   burst: all due in the same millisecond: how fast the timer and the queue
//          between the threads drain a backlog.
//
// Counters: mean_late_ms, p99_late_ms, max_late_ms; set_us is the mean time of
// one Timer::set call. Due times are taken just before each set, so a clock
// tick during the call (rare; a set takes microseconds) counts against the
// timer by at most a millisecond.
//
//   build-*/bench/timer/timer_bench
#include "core/context.h"
#include "messaging/messaging.h"
#include "messaging/msg.h"
#include "messaging/timer.h"

#include <QTemporaryDir>

#include "benchsupport.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <numeric>
#include <vector>

#include <time.h>

using namespace Brevi;

namespace {

const int Events = 10000;
// Time to set them all before the first is due.
const unsigned LeadMs = 3000;

double nowMs()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return double(now.tv_sec) * 1000.0 + double(now.tv_nsec) / 1.0e6;
}

// Sets the events, the i-th due `spacingUs` * i microseconds (rounded down to
// the millisecond) after the lead time, and collects them; false when one is
// missing or the setting outlasted the lead.
bool setAndFire(benchmark::State& state, double spacingUs)
{
    const double setStart = nowMs();
    const unsigned long long first = Context::systemTime() + LeadMs;
    for (int i = 0; i < Events; ++i) {
        const unsigned long long due = first + (unsigned long long)(spacingUs * i / 1000.0);
        const unsigned long long now = Context::systemTime();
        if (now >= due) {
            state.SkipWithError("setting took longer than the lead time");
            return false;
        }
        if (!Timer::set(QStringLiteral("Tick%1").arg(i), unsigned(due - now), QString::number(due))) {
            state.SkipWithError("set failed");
            return false;
        }
    }
    const double setUs = (nowMs() - setStart) * 1000.0 / Events;

    std::vector<double> late;
    late.reserve(Events);
    const boost::shared_ptr<Messaging> messaging = Context::messaging();
    while (int(late.size()) < Events) {
        IpcResult result = eIpcResultOk;
        const Msg message = messaging->receive(result, 10000);
        const double received = nowMs();
        if (!message) {
            state.SkipWithError("an event did not come");
            return false;
        }
        late.push_back(received - message.getCookie().toDouble());
    }
    std::sort(late.begin(), late.end());
    state.counters["mean_late_ms"] = std::accumulate(late.begin(), late.end(), 0.0) / late.size();
    state.counters["p99_late_ms"] = late[late.size() * 99 / 100];
    state.counters["max_late_ms"] = late.back();
    state.counters["set_us"] = setUs;
    return true;
}

void spread(benchmark::State& state)
{
    for (auto _ : state)
        if (!setAndFire(state, 200.0))
            return;
    state.SetItemsProcessed(state.iterations() * Events);
}
BENCHMARK(spread)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void burst(benchmark::State& state)
{
    for (auto _ : state)
        if (!setAndFire(state, 0.0))
            return;
    state.SetItemsProcessed(state.iterations() * Events);
}
BENCHMARK(burst)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char** argv)
{
    return BreviBench::runInContext(argc, argv, Context::TypeStandalone, "Timer bench", QString(),
                                    [] { Timer::shutdown(); });
}
