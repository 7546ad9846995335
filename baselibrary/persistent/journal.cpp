#include "persistent/journal.h"

#include "core/byteorder.h"
#include "core/extent.h"
#include "core/trace.h"
#include "persistent/blocklayout.h"

#include <QFileInfo>

#include <chrono>
#include <cstring>
#include <random>

namespace Brevi {

using namespace JournalLayout;

namespace {

const unsigned TraceModule = TraceModuleBlocks;

// CRC-32C, reflected polynomial 0x82f63b78. The processor's instruction does
// eight bytes at a time; the table serves machines without it.
struct CrcTable {
    quint32 entries[256];
    CrcTable()
    {
        for (quint32 i = 0; i < 256; ++i) {
            quint32 crc = i;
            for (int bit = 0; bit < 8; ++bit)
                crc = (crc >> 1) ^ (0x82f63b78u & (0u - (crc & 1u)));
            entries[i] = crc;
        }
    }
};

quint32 crcByTable(quint32 crc, const unsigned char* data, size_t length)
{
    static const CrcTable table;
    while (length--)
        crc = table.entries[(crc ^ *data++) & 0xff] ^ (crc >> 8);
    return crc;
}

#if defined(__x86_64__)
__attribute__((target("sse4.2"))) quint32 crcByInstruction(quint32 crc, const unsigned char* data, size_t length)
{
    quint64 wide = crc;
    for (; length >= 8; data += 8, length -= 8) {
        quint64 word;
        std::memcpy(&word, data, 8);
        wide = __builtin_ia32_crc32di(wide, word);
    }
    crc = quint32(wide);
    while (length--)
        crc = __builtin_ia32_crc32qi(crc, *data++);
    return crc;
}
#endif

// A start the journal's earlier runs are most unlikely to have reached, so
// that what is left of them past the end of a new run never continues it.
quint64 randomSequence()
{
    std::random_device device;
    const quint64 clock = quint64(std::chrono::steady_clock::now().time_since_epoch().count());
    std::mt19937_64 mix((quint64(device()) << 32) ^ device() ^ clock);
    return mix() >> 1;
}

} // namespace

quint32 JournalLayout::checksum(const void* data, size_t length, quint32 crc)
{
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    crc = ~crc;
#if defined(__x86_64__)
    static const bool instruction = __builtin_cpu_supports("sse4.2");
    if (instruction)
        return ~crcByInstruction(crc, bytes, length);
#endif
    return ~crcByTable(crc, bytes, length);
}

Journal::Journal() = default;

Journal::~Journal() { close(); }

bool Journal::open(const QString& blockFilePath)
{
    close();
    msBlockFilePath = blockFilePath;
    mullPosition = 0;
    mullSequence = randomSequence();
    // Made by the first transaction: a file that is only read gets none.
    if (QFileInfo::exists(blockFilePath + Suffix) && !moFile.open(blockFilePath + Suffix, RawFile::eReadWrite)) {
        BTRACE(TraceAlways) << "Failed to open journal" << blockFilePath + Suffix;
        return false;
    }
    return true;
}

bool Journal::close()
{
    msBlockFilePath.clear();
    if (!moFile)
        return false;
    return moFile.close();
}

bool Journal::empty(bool synchronous)
{
    mullPosition = 0;
    if (!moFile)
        return true;
    // A header without its magic ends the run at once. The file keeps its
    // length: writing over blocks it already has spares the file system a
    // change of size at every synchronous commit.
    const unsigned char nothing[HeaderSize] = {};
    if (!moFile.setPosition(0, RawFile::eStart) || moFile.write(nothing, HeaderSize) != HeaderSize ||
        (synchronous && !moFile.sync())) {
        BTRACE(TraceAlways) << "Failed to empty journal" << moFile.path();
        return false;
    }
    return true;
}

bool Journal::append(const std::vector<JournalChange>& changes, bool synchronous)
{
    if (msBlockFilePath.isEmpty())
        return false;
    if (!moFile && !moFile.create(msBlockFilePath + Suffix, RawFile::eReadWrite)) {
        BTRACE(TraceAlways) << "Failed to make journal" << msBlockFilePath + Suffix;
        return false;
    }
    size_t total = HeaderSize + CommitSize;
    for (const JournalChange& change : changes)
        total += RecordSize + (change.kind == KindBytes ? padded(change.length) : 0);
    // Grown, never shrunk: a resize up would clear what it adds every time.
    if (moBuffer.size() < total)
        moBuffer.resize(total);
    unsigned char* buffer = moBuffer.data();

    std::memset(buffer, 0, HeaderSize);
    ByteOrder::store32(buffer + HeaderMagicOffset, TransactionMagic);
    ByteOrder::store32(buffer + HeaderCountOffset, unsigned(changes.size()));
    ByteOrder::store64(buffer + HeaderSequenceOffset, mullSequence);
    ByteOrder::store64(buffer + HeaderLengthOffset, total);
    size_t at = HeaderSize;
    for (const JournalChange& change : changes) {
        unsigned char* record = buffer + at;
        ByteOrder::store32(record + RecordFileOffset, change.file);
        ByteOrder::store32(record + RecordKindOffset, change.kind);
        ByteOrder::store64(record + RecordPlaceOffset, change.offset);
        ByteOrder::store32(record + RecordLengthOffset, change.length);
        ByteOrder::store32(record + RecordLengthOffset + 4, 0);
        at += RecordSize;
        if (change.kind == KindBytes) {
            std::memcpy(buffer + at, change.data, change.length);
            std::memset(buffer + at + change.length, 0, padded(change.length) - change.length);
            at += padded(change.length);
        }
    }
    unsigned char* commit = buffer + at;
    ByteOrder::store32(commit + CommitMagicOffset, CommitMagic);
    ByteOrder::store32(commit + CommitChecksumOffset, checksum(buffer, at + CommitChecksumOffset));
    ByteOrder::store64(commit + CommitSequenceOffset, mullSequence);

    // A short write leaves a transaction that does not check, which no replay
    // takes: the next append simply writes over it.
    const Extent extent(buffer, unsigned(total));
    if (!moFile.setPosition(qint64(mullPosition), RawFile::eStart) || !moFile.write(extent) ||
        extent.available() != 0) {
        BTRACE(TraceAlways) << "Failed to write transaction to journal" << moFile.path() << quint64(total);
        return false;
    }
    if (synchronous && !moFile.sync()) {
        // The whole transaction may be in the journal, and the caller is told
        // it failed: it must not be replayed later.
        const unsigned char zero[4] = {};
        if (moFile.setPosition(qint64(mullPosition), RawFile::eStart))
            moFile.write(zero, sizeof zero);
        BTRACE(TraceAlways) << "Failed to sync journal" << moFile.path();
        return false;
    }
    mullPosition += total;
    ++mullSequence;
    return true;
}

unsigned Journal::read(const QString& blockFilePath, std::vector<JournalRecord>& records)
{
    RawFile file(blockFilePath + Suffix, RawFile::eReadOnly);
    if (!file)
        return 0;
    QByteArray all(int(qMin<quint64>(file.size(), quint64(0x7fffffff))), 0);
    Extent extent(all.data(), unsigned(all.size()));
    if (!file.read(extent))
        return 0;
    const unsigned char* journal = reinterpret_cast<const unsigned char*>(all.constData());
    const quint64 size = quint64(all.size()) - extent.available();

    unsigned transactions = 0;
    quint64 position = 0;
    quint64 expected = 0;
    while (position + HeaderSize + CommitSize <= size) {
        const unsigned char* header = journal + position;
        const quint64 length = ByteOrder::load64(header + HeaderLengthOffset);
        const quint64 sequence = ByteOrder::load64(header + HeaderSequenceOffset);
        if (ByteOrder::load32(header + HeaderMagicOffset) != TransactionMagic || length < HeaderSize + CommitSize ||
            length % 8 != 0 || length > size - position || (transactions && sequence != expected))
            break;
        const unsigned char* commit = header + length - CommitSize;
        if (ByteOrder::load32(commit + CommitMagicOffset) != CommitMagic ||
            ByteOrder::load64(commit + CommitSequenceOffset) != sequence ||
            ByteOrder::load32(commit + CommitChecksumOffset) !=
                checksum(header, size_t(length - CommitSize + CommitChecksumOffset)))
            break;

        // The checksum matched, so the records are as they were written; the
        // bounds are checked all the same, as a guard against a bad writer.
        std::vector<JournalRecord> parsed;
        const quint64 end = length - CommitSize;
        quint64 at = HeaderSize;
        bool whole = true;
        for (unsigned n = ByteOrder::load32(header + HeaderCountOffset); n && whole; --n) {
            JournalRecord record;
            whole = at + RecordSize <= end;
            if (!whole)
                break;
            record.file = ByteOrder::load32(header + at + RecordFileOffset);
            record.kind = ByteOrder::load32(header + at + RecordKindOffset);
            record.offset = ByteOrder::load64(header + at + RecordPlaceOffset);
            record.length = ByteOrder::load32(header + at + RecordLengthOffset);
            at += RecordSize;
            whole = record.file < FileCount && record.kind >= KindBytes && record.kind <= KindLength &&
                    record.length <= MaximumRecordLength;
            if (whole && record.kind == KindBytes) {
                whole = at + padded(record.length) <= end;
                if (whole)
                    record.bytes = QByteArray(reinterpret_cast<const char*>(header + at), int(record.length));
                at += padded(record.length);
            }
            parsed.push_back(record);
        }
        if (!whole || at != end)
            break;
        records.insert(records.end(), parsed.begin(), parsed.end());
        ++transactions;
        position += length;
        expected = sequence + 1;
    }
    return transactions;
}

bool Journal::recover(bool synchronous, unsigned& replayed)
{
    std::vector<JournalRecord> records;
    replayed = read(msBlockFilePath, records);
    if (!replayed)
        return empty(synchronous);

    const QString paths[FileCount] = {msBlockFilePath, msBlockFilePath + BlockLayout::FreeListSuffix};
    RawFile files[FileCount];
    bool written = true;
    for (const JournalRecord& record : records) {
        RawFile& file = files[record.file];
        if (!file && !file.create(paths[record.file], RawFile::eReadWrite)) {
            written = false;
            break;
        }
        if (record.kind == KindLength) {
            if (file.size() < record.offset && !file.truncate(record.offset, false))
                written = false;
            continue;
        }
        const QByteArray zeros = record.kind == KindZeros ? QByteArray(int(record.length), 0) : QByteArray();
        const QByteArray& bytes = record.kind == KindZeros ? zeros : record.bytes;
        const Extent extent(bytes.constData(), unsigned(bytes.size()));
        if (!file.setPosition(qint64(record.offset), RawFile::eStart) || !file.write(extent) || extent.available() != 0)
            written = false;
    }
    for (RawFile& file : files) {
        if (file && synchronous && !file.sync())
            written = false;
    }
    if (!written) {
        BTRACE(TraceAlways) << "Failed to replay journal" << moFile.path() << "; it is kept";
        return false;
    }
    BTRACE(TraceNormal) << "Replayed" << replayed << "transactions from journal" << moFile.path();
    return empty(synchronous);
}

} // namespace Brevi
