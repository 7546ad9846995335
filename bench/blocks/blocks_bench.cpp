// What a block costs: a cache hit (hash lookup and reference counting), a miss
// (eviction and a read from the page cache), and the write-through path of
// making and freeing blocks with their free list.

#include "persistent/blockcache.h"
#include "persistent/blocks.h"
#include "persistent/freelist.h"

#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

using namespace Brevi;

namespace {

const unsigned BlockSize = 4096;
const unsigned FileBlocks = 4096;

// A block file of FileBlocks blocks, filled so that reads are real reads.
QString makeFile(const QTemporaryDir& dir)
{
    const QString path = dir.path() + "/bench.blocks";
    QFile file(path);
    file.open(QIODevice::WriteOnly | QIODevice::Truncate);
    const QByteArray block(BlockSize, 'b');
    for (unsigned i = 0; i < FileBlocks; ++i)
        file.write(block);
    return path;
}

// Every get finds its block in the cache.
void cacheHit(benchmark::State& state)
{
    QTemporaryDir dir;
    BlockCache cache(1024, true);
    cache.create(makeFile(dir), BlockSize, ~quint64(0), RawFile::eReadWrite);
    const unsigned working = unsigned(state.range(0));
    for (unsigned id = 0; id < working; ++id)
        cache.returnBlock(cache.getBlock(id), false);
    std::mt19937 random(1);
    for (auto _ : state) {
        void* block = cache.getBlock(random() % working);
        benchmark::DoNotOptimize(block);
        cache.returnBlock(block, false);
    }
    state.counters["hits"] = double(cache.hits());
}
BENCHMARK(cacheHit)->Arg(16)->Arg(1024);

// A working set larger than the cache: most gets evict and read.
void cacheMiss(benchmark::State& state)
{
    QTemporaryDir dir;
    BlockCache cache(unsigned(state.range(0)), true);
    cache.create(makeFile(dir), BlockSize, ~quint64(0), RawFile::eReadWrite);
    std::mt19937 random(2);
    for (auto _ : state) {
        void* block = cache.getBlock(random() % FileBlocks);
        benchmark::DoNotOptimize(block);
        cache.returnBlock(block, false);
    }
    state.counters["missRate"] = double(cache.misses()) / double(cache.hits() + cache.misses());
}
BENCHMARK(cacheMiss)->Arg(64)->Arg(1024);

// An updated block written through on return.
void writeThrough(benchmark::State& state)
{
    QTemporaryDir dir;
    BlockCache cache(1024, true);
    cache.create(makeFile(dir), BlockSize, ~quint64(0), RawFile::eReadWrite);
    std::mt19937 random(3);
    for (auto _ : state) {
        unsigned char* block = static_cast<unsigned char*>(cache.getBlock(random() % 512));
        block[0]++;
        cache.returnBlock(block, true);
    }
}
BENCHMARK(writeThrough);

// newBlock and freeBlock in a Blocks file: the free list's two small writes,
// the zeroing of the freed block and the new block's write.
void newAndFree(benchmark::State& state)
{
    QTemporaryDir dir;
    Blocks blocks(1024);
    blocks.create(dir.path() + "/alloc.blocks", BlockSize, 8, 0, RawFile::eReadWrite);
    std::vector<void*> held;
    for (auto _ : state) {
        quint64 id = 0;
        held.push_back(blocks.newBlock(id));
        if (held.size() == 64) {
            for (void* block : held)
                blocks.freeBlock(block);
            held.clear();
        }
    }
    for (void* block : held)
        blocks.freeBlock(block);
}
BENCHMARK(newAndFree);

// The free list alone: one put and one get, each with its count written.
void freeListPutGet(benchmark::State& state)
{
    QTemporaryDir dir;
    FreeList list;
    list.create(dir.path() + "/list.free", ~quint64(0));
    list.grow(1, 10000);
    for (auto _ : state) {
        quint64 id = 0;
        list.get(id);
        list.put(id);
    }
}
BENCHMARK(freeListPutGet);

} // namespace

BENCHMARK_MAIN();
