// Starts per second of /bin/true: through Spawn (set up, start, wait on the
// process handle) and through posix_spawn and waitpid called directly. Each
// runs a thousand starts; items_per_second is starts per second.
//
//   build-*/bench/spawn/spawn_bench
#include "process/spawn.h"

#include <benchmark/benchmark.h>

#include <spawn.h>
#include <sys/wait.h>

extern char** environ;

namespace {

const char* const Program = "/bin/true";
const int Starts = 1000;

void SpawnTrue(benchmark::State& state)
{
    for (auto _ : state) {
        Brevi::Spawn spawn;
        spawn.setProgram(Program);
        if (!spawn.spawn() || !spawn.getOSHandle()->wait()) {
            state.SkipWithError("spawn failed");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations());
}

void SpawnTrueWithPipes(benchmark::State& state)
{
    for (auto _ : state) {
        Brevi::Spawn spawn;
        spawn.setProgram(Program);
        spawn.setPipeInput();
        spawn.setPipeOutput();
        spawn.addArgument("argument");
        spawn.addEnvironment("BREVI_BENCH", "1");
        if (!spawn.spawn()) {
            state.SkipWithError("spawn failed");
            return;
        }
        fclose(spawn.getPipeInputHandle());
        fclose(spawn.getPipeOutputHandle());
        spawn.getOSHandle()->wait();
    }
    state.SetItemsProcessed(state.iterations());
}

void PosixSpawnTrue(benchmark::State& state)
{
    char* const arguments[] = { const_cast<char*>(Program), nullptr };
    for (auto _ : state) {
        pid_t pid = 0;
        int status = 0;
        if (posix_spawn(&pid, Program, nullptr, nullptr, arguments, environ) != 0 || waitpid(pid, &status, 0) != pid) {
            state.SkipWithError("posix_spawn failed");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(PosixSpawnTrue)->Iterations(Starts)->UseRealTime();
BENCHMARK(SpawnTrue)->Iterations(Starts)->UseRealTime();
BENCHMARK(SpawnTrueWithPipes)->Iterations(Starts)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
