// The machine-local transports of data channels beside what they are built
// from, in the same run.
//
// Ring: a shared-memory channel of ten 64 KiB buffers between this process
// (receiving) and a sender started beside it, beside a bare ring of the same
// buffers in POSIX shared memory handed over with the same process-shared
// semaphores. In both, the sender copies 64 KiB into each buffer and the
// receiver copies it out, so that the same bytes move; bytes_per_second
// counts them, and sender_s_per_GiB is the sending process's CPU time.
//
// Spool: a file channel's sender writing records of 100 B and 64 KiB with no
// receiver, beside a plain append of the same records with their 12-byte
// headers to a file plus a 48-byte state write (pwrite) after each: the
// same durability, no more (neither syncs). items_per_second counts records.
//
//   build-*/bench/datachannel/transport_bench

#include "benchprocess.h"
#include "benchsupport.h"

#include "core/extent.h"
#include "datachannel/datachannel.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msgcondition.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <boost/make_shared.hpp>

#include <csignal>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <unistd.h>

using namespace Brevi;
using namespace BreviBench;

namespace {

const unsigned RingBuffer = 65536;
const unsigned RingCount = 10;
// Bytes received per iteration.
const unsigned long long Batch = 256ull << 20;
const double GiB = double(1ull << 30);

boost::shared_ptr<MsgCondition> never() { return boost::make_shared<MsgCondition>(); }

Program startSender(const QStringList& arguments) { return Program(QStringLiteral("/proc/self/exe"), arguments); }

void report(benchmark::State& state, unsigned long long bytes, const ProcessCpu& sender)
{
    state.SetBytesProcessed(int64_t(bytes));
    if (bytes)
        state.counters["sender_s_per_GiB"] = sender.perItem(1) / 1e6 / (double(bytes) / GiB);
}

// --- The channel ---------------------------------------------------------------

QByteArray gDetails;

void sendChannelMain()
{
    XmlList details;
    details.fromBinary(QByteArray::fromBase64(gDetails));
    Datachannel channel(never(), details);
    const std::vector<unsigned char> source(RingBuffer, 'c');
    for (;;) {
        Extent buffer;
        if (channel.getSendBufferPolled(buffer) != Datachannel::eOk)
            return;
        std::memcpy(buffer.data(), source.data(), buffer.size());
        if (channel.sendBufferPolled(buffer.size()) != Datachannel::eOk)
            return;
    }
}

void MemoryChannel(benchmark::State& state)
{
    XmlList send = Datachannel::sendDetails(Datachannel::Memory, MsgAddress(), Datachannel::Synchronization(),
                                            RingBuffer, RingCount);
    // As another context would have sent them.
    send.set(Catalogue::DatachannelKey::PeerAddress, MsgAddress(eMsgAddressContext, 99).toXml());
    Datachannel channel(never(), send);
    if (!channel) {
        state.SkipWithError("no memory channel");
        return;
    }
    const Program sending = startSender({"--send-channel", channel.receiveDetails().toBinary().toBase64()});
    const ProcessCpu sender(sending.pid());
    std::vector<unsigned char> into(RingBuffer);
    unsigned long long total = 0;
    for (auto _ : state) {
        for (unsigned long long got = 0; got < Batch;) {
            Extent buffer;
            if (channel.getReceiveBufferPolled(buffer) != Datachannel::eOk) {
                state.SkipWithError("the channel failed");
                return;
            }
            std::memcpy(into.data(), buffer.data(), buffer.size());
            got += buffer.size();
            channel.releaseBuffer();
        }
        total += Batch;
    }
    report(state, total, sender);
    sending.signal(SIGKILL);
}

// --- The bare ring -------------------------------------------------------------

struct Ring {
    sem_t free;
    sem_t full;
    unsigned sizes[RingCount];
    unsigned char buffers[RingCount][RingBuffer];
};

Ring* mapRing(const char* name, bool create)
{
    const int fd = shm_open(name, create ? O_CREAT | O_EXCL | O_RDWR : O_RDWR, 0600);
    if (fd < 0 || (create && ftruncate(fd, sizeof(Ring)) != 0))
        return nullptr;
    void* at = mmap(nullptr, sizeof(Ring), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return at == MAP_FAILED ? nullptr : static_cast<Ring*>(at);
}

int sendRing(const char* name)
{
    Ring* ring = mapRing(name, false);
    if (!ring)
        return 1;
    const std::vector<unsigned char> source(RingBuffer, 'r');
    for (unsigned index = 0;; index = (index + 1) % RingCount) {
        while (sem_wait(&ring->free) != 0) {
        }
        std::memcpy(ring->buffers[index], source.data(), RingBuffer);
        ring->sizes[index] = RingBuffer;
        sem_post(&ring->full);
    }
}

void BareRing(benchmark::State& state)
{
    const QByteArray name = "/transport_bench_ring_" + QByteArray::number(getpid());
    Ring* ring = mapRing(name.constData(), true);
    if (!ring) {
        state.SkipWithError("no shared memory");
        return;
    }
    sem_init(&ring->free, 1, RingCount);
    sem_init(&ring->full, 1, 0);
    const Program sending = startSender({"--send-ring", QString::fromLatin1(name)});
    const ProcessCpu sender(sending.pid());
    std::vector<unsigned char> into(RingBuffer);
    unsigned long long total = 0;
    unsigned index = 0;
    for (auto _ : state) {
        for (unsigned long long got = 0; got < Batch;) {
            while (sem_wait(&ring->full) != 0) {
            }
            std::memcpy(into.data(), ring->buffers[index], ring->sizes[index]);
            got += ring->sizes[index];
            sem_post(&ring->free);
            index = (index + 1) % RingCount;
        }
        total += Batch;
    }
    report(state, total, sender);
    sending.signal(SIGKILL);
    shm_unlink(name.constData());
    munmap(ring, sizeof(Ring));
}

// --- Spools --------------------------------------------------------------------

// Records per iteration: about 64 MiB of either size.
int64_t recordsFor(unsigned size) { return int64_t((64ull << 20) / size); }

void FileChannel(benchmark::State& state)
{
    const unsigned size = unsigned(state.range(0));
    QTemporaryDir directory;
    const XmlList details = Datachannel::sendDetails(directory.path() + "/spool", 64ull << 20, size);
    Datachannel channel(never(), details);
    int64_t records = 0;
    for (auto _ : state) {
        // Filled in place, as the append below writes from where its
        // record already is.
        for (int64_t i = 0; i < recordsFor(size); ++i) {
            Extent buffer;
            if (channel.getSendBuffer(buffer) != Datachannel::eOk || channel.sendBuffer(size) != Datachannel::eOk) {
                state.SkipWithError("the channel failed");
                return;
            }
        }
        records += recordsFor(size);
    }
    state.SetItemsProcessed(records);
    state.SetBytesProcessed(records * size);
    channel.close();
    Datachannel::discard(details);
}

void AppendAndPwrite(benchmark::State& state)
{
    const unsigned size = unsigned(state.range(0));
    QTemporaryDir directory;
    const QByteArray stateName = QFile::encodeName(directory.path() + "/state");
    int files = 0;
    const auto next = [&] {
        const QByteArray data = QFile::encodeName(directory.path() + "/data" + QString::number(++files));
        return open(data.constData(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
    };
    int file = next();
    const int stateFile = open(stateName.constData(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    std::vector<unsigned char> record(12 + size, 'a');
    unsigned char stateBytes[48] = {};
    int64_t records = 0;
    unsigned long long written = 0;
    for (auto _ : state) {
        for (int64_t i = 0; i < recordsFor(size); ++i) {
            std::memcpy(record.data() + 8, &size, 4);
            if (write(file, record.data(), record.size()) != ssize_t(record.size())) {
                state.SkipWithError("the append failed");
                return;
            }
            written += record.size();
            std::memcpy(stateBytes + 8, &written, 8);
            if (pwrite(stateFile, stateBytes, sizeof stateBytes, 0) != ssize_t(sizeof stateBytes)) {
                state.SkipWithError("the state write failed");
                return;
            }
        }
        records += recordsFor(size);
        // The channel begins a new file each 64 MiB; so does this.
        close(file);
        file = next();
        written = 0;
    }
    state.SetItemsProcessed(records);
    state.SetBytesProcessed(records * size);
    close(file);
    close(stateFile);
}

} // namespace

BENCHMARK(MemoryChannel)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BareRing)->Unit(benchmark::kMillisecond)->UseRealTime();
// A few iterations each: every one leaves a file of 64 MiB behind until the
// end, as a spool with no receiver does.
BENCHMARK(FileChannel)->ArgName("record")->Arg(100)->Arg(65536)->Iterations(6)->Unit(benchmark::kMillisecond);
BENCHMARK(AppendAndPwrite)->ArgName("record")->Arg(100)->Arg(65536)->Iterations(6)->Unit(benchmark::kMillisecond);

// A sender, when started as one: --send-channel DETAILS, --send-ring NAME.
int main(int argc, char** argv)
{
    if (argc == 3 && QByteArray(argv[1]) == "--send-ring")
        return sendRing(argv[2]);
    if (argc == 3 && QByteArray(argv[1]) == "--send-channel") {
        gDetails = argv[2];
        return Context::run(sendChannelMain, Context::TypeStandalone, 0, "benchsender", "benchsender") ? 0 : 1;
    }
    return runInContext(argc, argv, Context::TypeStandalone, QStringLiteral("transportbench"));
}
