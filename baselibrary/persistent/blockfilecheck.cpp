#include "persistent/blockfilecheck.h"

#include "core/byteorder.h"
#include "core/extent.h"
#include "persistent/blocklayout.h"
#include "persistent/journaledfile.h"
#include "persistent/rawfile.h"

#include <QSet>

#include <algorithm>
#include <cstring>
#include <vector>

namespace Brevi {

namespace {

// Faults of one kind beyond this many are counted, not listed.
const int ListedFaults = 20;

class FaultList
{
public:
    explicit FaultList(QStringList& problems)
        : mrProblems(problems)
    { }
    ~FaultList()
    {
        if (miCount > ListedFaults)
            mrProblems << QString("... and %1 more like these").arg(miCount - ListedFaults);
    }
    void add(const QString& text)
    {
        if (++miCount <= ListedFaults)
            mrProblems << text;
    }

private:
    QStringList& mrProblems;
    int miCount = 0;
};

// Reads `count` bytes at `offset`; true only when all of them came.
bool readAt(JournaledFile& file, quint64 offset, void* data, unsigned count) { return file.read(offset, data, count); }

QString hex(quint64 value) { return "0x" + QString::number(value, 16); }

// Which block places have been seen on the free list: a bit per place while
// that stays small, a set otherwise.
class PlaceSet
{
public:
    explicit PlaceSet(quint64 total)
    {
        if (total <= (quint64(1) << 26))
            moBits.resize(size_t(total), false);
    }
    // False when the place was already there.
    bool insert(quint64 place)
    {
        if (!moBits.empty()) {
            if (moBits[size_t(place)])
                return false;
            moBits[size_t(place)] = true;
            return true;
        }
        if (moSet.contains(place))
            return false;
        moSet.insert(place);
        return true;
    }

private:
    std::vector<bool> moBits;
    QSet<quint64> moSet;
};

void checkFreeList(const QString& path, BlockFileReport& report)
{
    JournaledFile file(path, JournalLayout::FreeListFile);
    if (!file.isOpen()) {
        report.problems << "cannot open the free list " + path + BlockLayout::FreeListSuffix;
        return;
    }
    report.freeFileSize = file.size();
    unsigned char count[8];
    if (!readAt(file, BlockLayout::FreeListCountOffset, count, sizeof(count))) {
        report.problems << "the free list has no entry count";
        return;
    }
    report.freeListRead = true;
    report.freeEntryCount = ByteOrder::load64(count);
    const quint64 entries = report.freeEntryCount;
    if (entries == 0)
        return;
    if (entries >= report.totalBlockCount) {
        report.problems
            << QString("the free list counts %1 entries for %2 blocks").arg(entries).arg(report.totalBlockCount);
        return;
    }
    const quint64 needed = BlockLayout::FreeListBlockSize * (BlockLayout::freeListEntryBlock(entries - 1) + 1);
    if (report.freeFileSize < needed) {
        report.problems << QString("the free list's entries run beyond its file (%1 bytes, %2 needed)")
                               .arg(report.freeFileSize)
                               .arg(needed);
        return;
    }

    std::vector<unsigned char> entryBlock(BlockLayout::FreeListBlockSize);
    std::vector<quint64> places;
    PlaceSet seen(report.totalBlockCount);
    FaultList faults(report.problems);
    const quint64 generationShift = quint64(__builtin_popcountll(report.idMask));
    for (quint64 entry = 0; entry < entries; ++entry) {
        const unsigned slot = BlockLayout::freeListEntrySlot(entry);
        if (slot == 0
            && !readAt(file, BlockLayout::FreeListBlockSize * BlockLayout::freeListEntryBlock(entry), entryBlock.data(),
                BlockLayout::FreeListBlockSize)) {
            faults.add(QString("cannot read free list block %1").arg(BlockLayout::freeListEntryBlock(entry)));
            return;
        }
        const quint64 id = ByteOrder::load64(entryBlock.data() + BlockLayout::FreeListEntrySize * slot);
        const quint64 place = id & report.idMask;
        if (generationShift < 64)
            report.highestGeneration = std::max(report.highestGeneration, id >> generationShift);
        if (place == 0 || place >= report.totalBlockCount) {
            faults.add(QString("free entry %1 names block %2 outside 1 to %3")
                           .arg(entry)
                           .arg(hex(id))
                           .arg(report.totalBlockCount - 1));
            continue;
        }
        if (!seen.insert(place)) {
            faults.add(QString("block %1 is on the free list more than once (entry %2)").arg(place).arg(entry));
            continue;
        }
        if (report.fileSize < (place + 1) * report.blockSize)
            faults.add(QString("free block %1 lies beyond the end of the file").arg(place));
        else
            places.push_back(place);
    }

    // A block is zeroed on disk before it is listed, and nothing writes a
    // listed block: a free block that is not all zero has been written after
    // it was freed. The file is read in runs of blocks rather than a block at
    // a time, as most of a file's blocks may be free.
    std::sort(places.begin(), places.end());
    JournaledFile blocks(path, JournalLayout::BlockFile);
    const quint64 runBlocks = qMax<quint64>(1, (1u << 20) / report.blockSize);
    std::vector<unsigned char> run;
    for (size_t next = 0; next < places.size();) {
        const quint64 first = places[next];
        const quint64 count = qMin(runBlocks, report.fileSize / report.blockSize - first);
        run.resize(size_t(count * report.blockSize));
        const bool read = blocks.isOpen() && readAt(blocks, first * report.blockSize, run.data(), unsigned(run.size()));
        for (; next < places.size() && places[next] < first + count; ++next) {
            const unsigned char* data = run.data() + (places[next] - first) * report.blockSize;
            if (!read)
                faults.add(QString("cannot read free block %1").arg(places[next]));
            else if (data[0] != 0 || std::memcmp(data, data + 1, report.blockSize - 1) != 0)
                faults.add(QString("free block %1 is not zero").arg(places[next]));
        }
    }
}

} // namespace

bool BlockFileCheck::checkBlockFile(const QString& path, BlockFileReport& report)
{
    report = BlockFileReport();
    JournaledFile file(path, JournalLayout::BlockFile);
    if (!file.isOpen()) {
        report.problems << "cannot open " + path;
        return false;
    }
    report.journalTransactions = file.transactions();
    report.fileSize = file.size();
    unsigned char record[BlockLayout::ControlSize];
    if (!readAt(file, 0, record, sizeof(record))) {
        report.problems << QString("the file is shorter than a control record (%1 bytes)").arg(report.fileSize);
        return false;
    }
    report.controlRead = true;
    report.totalBlockCount = ByteOrder::load64(record + BlockLayout::ControlTotalCountOffset);
    report.blockSize = ByteOrder::load32(record + BlockLayout::ControlBlockSizeOffset);
    report.reserved = ByteOrder::load32(record + BlockLayout::ControlReservedOffset);
    report.idMask = ByteOrder::load64(record + BlockLayout::ControlIdMaskOffset);

    bool usable = true;
    if (report.blockSize < BlockLayout::MinimumBlockSize || report.blockSize > BlockLayout::MaximumBlockSize) {
        report.problems << QString("block size %1 is not from %2 to %3")
                               .arg(report.blockSize)
                               .arg(BlockLayout::MinimumBlockSize)
                               .arg(BlockLayout::MaximumBlockSize);
        usable = false;
    }
    if (report.reserved != 0)
        report.problems << QString("reserved word is %1, not 0").arg(hex(report.reserved));
    if (!BlockLayout::plausibleIdMask(report.idMask)) {
        report.problems << QString("id mask %1 is not a run of low bits").arg(hex(report.idMask));
        usable = false;
    }
    if (report.totalBlockCount == 0) {
        report.problems << "total block count is 0";
        usable = false;
    } else if (report.idMask != ~quint64(0) && BlockLayout::plausibleIdMask(report.idMask)
        && report.totalBlockCount > report.idMask + 1) {
        report.problems << QString("total block count %1 is beyond what id mask %2 can place")
                               .arg(report.totalBlockCount)
                               .arg(hex(report.idMask));
        usable = false;
    }
    if (!usable)
        return false;
    checkFreeList(path, report);
    if (report.freeListRead && report.freeEntryCount <= report.totalBlockCount)
        report.usedBlockCount = report.totalBlockCount - report.freeEntryCount;
    return report.sound();
}

bool BlockFileCheck::checkReferenceCountFile(const QString& path, quint64 idMask, QStringList& problems)
{
    RawFile file(path, RawFile::eReadOnly);
    if (!file) {
        problems << "cannot open " + path;
        return false;
    }
    const int before = problems.size();
    const quint64 blocks = file.size() / BlockLayout::ReferenceCountBlockSize;
    std::vector<unsigned char> data(BlockLayout::ReferenceCountBlockSize);
    const unsigned perBlock = BlockLayout::ReferenceCountBlockSize / BlockLayout::ReferenceCountEntrySize;
    {
        FaultList faults(problems);
        if (!file.setPosition(0, RawFile::eStart)) {
            faults.add("cannot read " + path);
            return false;
        }
        for (quint64 block = 0; block < blocks; ++block) {
            Extent extent(data.data(), BlockLayout::ReferenceCountBlockSize);
            if (!file.read(extent) || extent.available() != 0) {
                faults.add(QString("cannot read block %1").arg(block));
                break;
            }
            for (unsigned slot = 0; slot < perBlock; ++slot) {
                const unsigned char* at = data.data() + slot * BlockLayout::ReferenceCountEntrySize;
                const quint64 id = ByteOrder::load64(at + BlockLayout::ReferenceCountIdOffset);
                const unsigned count = ByteOrder::load32(at + BlockLayout::ReferenceCountCountOffset);
                const unsigned reserved = ByteOrder::load32(at + BlockLayout::ReferenceCountReservedOffset);
                const quint64 k = block * perBlock + slot;
                if (reserved != 0)
                    faults.add(QString("entry %1 has reserved word %2").arg(k).arg(hex(reserved)));
                if (id == 0 && count != 0)
                    faults.add(QString("empty entry %1 has count %2").arg(k).arg(count));
                if (id != 0 && (id & idMask) != k)
                    faults.add(QString("entry %1 holds id %2 of entry %3").arg(k).arg(hex(id)).arg(id & idMask));
            }
        }
    }
    return problems.size() == before;
}

bool BlockFileCheck::checkIndirectBlockFile(const QString& path, QStringList& problems)
{
    RawFile file(path, RawFile::eReadOnly);
    if (!file) {
        problems << "cannot open " + path;
        return false;
    }
    const quint64 size = file.size();
    if (size % BlockLayout::IndirectBlockSize != 0) {
        problems << QString("file size %1 is not a whole number of %2-byte blocks")
                        .arg(size)
                        .arg(BlockLayout::IndirectBlockSize);
        return false;
    }
    return true;
}

} // namespace Brevi
