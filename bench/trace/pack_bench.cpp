// PackBuffer and UnpackBuffer on a million ints, beside memcpy of the same bytes.

#include "core/packbuffer.h"
#include "core/unpackbuffer.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

using namespace Brevi;

namespace {

const int Count = 1000000;
const int64_t Bytes = int64_t(Count) * 4;

void BM_PackAppendInts(benchmark::State& state)
{
    PackBuffer pack(Count * 4);
    for (auto _ : state) {
        pack.reset();
        for (int i = 0; i < Count; ++i)
            pack.append(i);
        benchmark::DoNotOptimize(pack.size());
    }
    state.SetBytesProcessed(state.iterations() * Bytes);
}
BENCHMARK(BM_PackAppendInts)->Unit(benchmark::kMicrosecond);

void BM_UnpackTakeInts(benchmark::State& state)
{
    PackBuffer pack(Count * 4);
    for (int i = 0; i < Count; ++i)
        pack.append(i);
    UnpackBuffer unpack;
    long long sum = 0;
    for (auto _ : state) {
        unpack.fromRawData(pack.extentWithoutSize());
        int value;
        while (unpack.take(value))
            sum += value;
        benchmark::DoNotOptimize(sum);
    }
    state.SetBytesProcessed(state.iterations() * Bytes);
}
BENCHMARK(BM_UnpackTakeInts)->Unit(benchmark::kMicrosecond);

void BM_MemcpySameBytes(benchmark::State& state)
{
    std::vector<int> source(Count, 7), target(Count);
    for (auto _ : state) {
        std::memcpy(target.data(), source.data(), size_t(Bytes));
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * Bytes);
}
BENCHMARK(BM_MemcpySameBytes)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
