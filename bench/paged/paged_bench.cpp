// The paged list's external sort beside GNU sort and std::sort, and the paged
// queue beside the same work done with plain system calls.
//
// Sort: 2,000,000 records of 100 bytes, a random 16-byte key of printable
// characters at the front. PagedList (64 KiB pages, an 8 MiB sort page) is
// written, sorted and read back; GNU sort gets the same records as lines of
// 100 characters, one thread, LC_ALL=C, and as much memory (-S) as the list's
// sort holds at its peak; std::sort sorts the records in memory. The counter
// "child_cpu_s" is the CPU time of the sort process, which the CPU column
// does not see.
//
// Queue: a sender thread and a receiver thread that receives and releases
// each record, for records of 100 bytes and of 64 KiB. The plain peer appends
// each record (with the same 12-byte header) to one file and writes a 24-byte
// state with pwrite; its receiver reads each record with one read and writes
// its own 24-byte state; the threads hand over as the queue's do, by a mutex
// and a condition signalled when the receiver had caught up. Neither syncs to
// the disk. CPU is that of the whole process (both threads).
//
// Environment: BREVI_BENCH_RECORDS (default 2000000) and BREVI_BENCH_DIR (a
// scratch directory; default the system's temporary directory).

#include "core/byteorder.h"
#include "core/context.h"
#include "persistent/pagedlist.h"
#include "persistent/pagedqueue.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include "benchsupport.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Brevi;

namespace {

const unsigned RecordSize = 100;
const unsigned KeySize = 16;
const unsigned ListPageSize = 64 * 1024;
const unsigned SortPageSize = 8 * 1024 * 1024;

typedef std::array<char, RecordSize> Record;

QString scratch()
{
    // Removed with everything in it when the program ends.
    static const char* const base = std::getenv("BREVI_BENCH_DIR");
    static QTemporaryDir directory((base ? QString::fromLocal8Bit(base) : QDir::tempPath()) + "/paged_bench-XXXXXX");
    return directory.path();
}

const std::vector<Record>& records()
{
    static std::vector<Record>* made = nullptr;
    if (!made) {
        const char* setting = std::getenv("BREVI_BENCH_RECORDS");
        const size_t count = setting ? size_t(std::strtoull(setting, nullptr, 10)) : 2000000;
        static const char Letters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        std::mt19937_64 random(7);
        made = new std::vector<Record>(count);
        for (size_t i = 0; i < count; ++i) {
            Record& record = (*made)[i];
            for (unsigned k = 0; k < KeySize; ++k)
                record[k] = Letters[random() & 63];
            for (unsigned k = KeySize; k < RecordSize; ++k)
                record[k] = Letters[(i + k) & 63];
        }
    }
    return *made;
}

PagedList::CompareResult byKey(const Extent& first, const Extent& second)
{
    const int order = std::memcmp(first.data(), second.data(), KeySize);
    return order < 0 ? PagedList::eLess : order > 0 ? PagedList::eGreater : PagedList::eEqual;
}

// The memory the list's external sort holds at its peak: the sort page, the
// extents of one sort page's entries (16 bytes each, in an array that grows by
// doubling), the list's page and the eight pages of a merge.
quint64 sortMemory()
{
    const quint64 perPage = SortPageSize / (RecordSize + 8 + 4);
    quint64 extents = 256;
    while (extents < perPage)
        extents *= 2;
    return SortPageSize + extents * 16 + 9ull * ListPageSize;
}

double threadSeconds()
{
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

void PagedListExternalSort(benchmark::State& state)
{
    const std::vector<Record>& input = records();
    double sortSeconds = 0;
    for (auto _ : state) {
        PagedList list(byKey, PagedList::FindFunction(), ListPageSize, SortPageSize);
        for (const Record& record : input) {
            if (!list.write(record.data(), RecordSize)) {
                state.SkipWithError("write failed");
                return;
            }
        }
        const double start = threadSeconds();
        if (!list.sort()) {
            state.SkipWithError("sort failed");
            return;
        }
        sortSeconds += threadSeconds() - start;
        Extent entry;
        QByteArray last(KeySize, '\0');
        size_t count = 0;
        while (list.read(entry)) {
            if (std::memcmp(entry.data(), last.constData(), KeySize) < 0) {
                state.SkipWithError("not sorted");
                return;
            }
            std::memcpy(last.data(), entry.data(), KeySize);
            ++count;
        }
        if (count != input.size()) {
            state.SkipWithError("records lost");
            return;
        }
    }
    state.counters["sort_cpu_s"] = sortSeconds / double(state.iterations());
    state.counters["memory_MiB"] = double(sortMemory()) / (1024 * 1024);
    state.SetItemsProcessed(state.iterations() * int64_t(input.size()));
}

void GnuSort(benchmark::State& state)
{
    const std::vector<Record>& input = records();
    const QByteArray in = QFile::encodeName(scratch() + "/sort.in");
    const QByteArray out = QFile::encodeName(scratch() + "/sort.out");
    {
        const int fd = ::open(in.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        std::vector<char> lines;
        lines.reserve(input.size() * (RecordSize + 1));
        for (const Record& record : input) {
            lines.insert(lines.end(), record.begin(), record.end());
            lines.push_back('\n');
        }
        if (fd < 0 || ::write(fd, lines.data(), lines.size()) != ssize_t(lines.size())) {
            state.SkipWithError("cannot write the input");
            return;
        }
        ::close(fd);
    }
    const QByteArray memory = QByteArray::number(sortMemory() / 1024) + "K";
    const QByteArray temporary = QFile::encodeName(scratch());
    double cpu = 0;
    for (auto _ : state) {
        const double before = BreviBench::childCpuSeconds();
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::setenv("LC_ALL", "C", 1);
            ::execlp("sort", "sort", "--parallel=1", "-S", memory.constData(), "-T", temporary.constData(), "-o",
                     out.constData(), in.constData(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        int status = 0;
        if (pid < 0 || ::waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            state.SkipWithError("sort failed");
            return;
        }
        cpu += BreviBench::childCpuSeconds() - before;
    }
    state.counters["child_cpu_s"] = cpu / double(state.iterations());
    state.counters["memory_MiB"] = double(sortMemory()) / (1024 * 1024);
    state.SetItemsProcessed(state.iterations() * int64_t(input.size()));
    ::unlink(in.constData());
    ::unlink(out.constData());
}

void StdSortInMemory(benchmark::State& state)
{
    const std::vector<Record>& input = records();
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<Record> copy(input);
        state.ResumeTiming();
        std::sort(copy.begin(), copy.end(),
                  [](const Record& a, const Record& b) { return std::memcmp(a.data(), b.data(), KeySize) < 0; });
        benchmark::DoNotOptimize(copy.data());
    }
    state.SetItemsProcessed(state.iterations() * int64_t(input.size()));
}

// Records to pass through a queue per size: some hundreds of megabytes at
// most.
int queueRecords(unsigned size) { return size <= 1024 ? 200000 : 4000; }

QByteArray queueRecord(unsigned size, int number)
{
    QByteArray bytes(int(size), char('a' + number % 26));
    ByteOrder::store32(bytes.data(), quint32(number));
    return bytes;
}

void PagedQueueHandOver(benchmark::State& state)
{
    const unsigned size = unsigned(state.range(0));
    const int count = queueRecords(size);
    const QByteArray record = queueRecord(size, 0);
    for (auto _ : state) {
        const QString path = scratch() + "/queue";
        PagedQueue queue(path, PagedQueue::DefaultMaximumFileSize, 1000);
        std::thread sender([&] {
            for (int i = 0; i < count; ++i) {
                if (queue.send(record.constData(), size) != PagedQueue::eOk)
                    return;
            }
        });
        int received = 0;
        Extent data;
        while (received < count) {
            const PagedQueue::Result result = queue.receive(data);
            if (result == PagedQueue::eTryAgain)
                continue;
            if (result != PagedQueue::eOk || data.size() != size || queue.release() != PagedQueue::eOk)
                break;
            ++received;
        }
        sender.join();
        if (received != count) {
            state.SkipWithError("the queue failed");
            return;
        }
        state.PauseTiming();
        PagedQueue().discard(path);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * count);
    state.SetBytesProcessed(state.iterations() * int64_t(count) * size);
}

// The same hand-over with one file, plain writes and reads, and the two
// 24-byte states in a state file.
void PlainHandOver(benchmark::State& state)
{
    const unsigned size = unsigned(state.range(0));
    const int count = queueRecords(size);
    const unsigned length = 12 + size;
    QByteArray record = queueRecord(size, 0);
    record.prepend(QByteArray(12, '\0'));
    ByteOrder::store32(record.data(), 8);
    ByteOrder::store32(record.data() + 4, 1);
    ByteOrder::store32(record.data() + 8, size);
    const QByteArray dataPath = QFile::encodeName(scratch() + "/plain.data");
    const QByteArray statePath = QFile::encodeName(scratch() + "/plain.state");
    for (auto _ : state) {
        const int writeData = ::open(dataPath.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        const int readData = ::open(dataPath.constData(), O_RDONLY | O_CLOEXEC);
        const int stateFile = ::open(statePath.constData(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        std::mutex mutex;
        std::condition_variable condition;
        quint64 written = 0;
        quint64 read = 0;
        // One side's 24-byte state after `records` records: file, offset, count.
        const auto writeState = [&](off_t at, int records) {
            unsigned char bytes[24] = {};
            ByteOrder::store64(bytes + 8, quint64(records) * length);
            ByteOrder::store64(bytes + 16, quint64(records));
            return ::pwrite(stateFile, bytes, sizeof bytes, at) == ssize_t(sizeof bytes);
        };
        std::thread sender([&] {
            for (int i = 0; i < count; ++i) {
                if (::write(writeData, record.constData(), length) != ssize_t(length) || !writeState(0, i + 1))
                    return;
                bool wake;
                {
                    std::lock_guard<std::mutex> lock(mutex);
                    wake = read == written;
                    ++written;
                }
                if (wake)
                    condition.notify_one();
            }
        });
        std::vector<char> buffer(length);
        int received = 0;
        while (received < count) {
            {
                std::unique_lock<std::mutex> lock(mutex);
                condition.wait(lock, [&] { return read != written; });
            }
            if (::read(readData, buffer.data(), length) != ssize_t(length) || !writeState(24, received + 1))
                break;
            {
                std::lock_guard<std::mutex> lock(mutex);
                ++read;
            }
            ++received;
        }
        sender.join();
        ::close(writeData);
        ::close(readData);
        ::close(stateFile);
        if (received != count) {
            state.SkipWithError("plain hand-over failed");
            return;
        }
    }
    ::unlink(dataPath.constData());
    ::unlink(statePath.constData());
    state.SetItemsProcessed(state.iterations() * count);
    state.SetBytesProcessed(state.iterations() * int64_t(count) * size);
}

BENCHMARK(PagedListExternalSort)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();
BENCHMARK(GnuSort)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();
BENCHMARK(StdSortInMemory)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();
// Several rounds each, so that the plain peer's cutting of the last round's
// file weighs as the queue's removal of its finished files does.
BENCHMARK(PagedQueueHandOver)
    ->Arg(100)
    ->Arg(65536)
    ->MinTime(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();
BENCHMARK(PlainHandOver)
    ->Arg(100)
    ->Arg(65536)
    ->MinTime(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

} // namespace

// The list's temporary files need a context, and go to the scratch
// directory's tree.
int main(int argc, char** argv)
{
    return BreviBench::runInContext(argc, argv, Context::Type(7), "paged_bench", scratch());
}
