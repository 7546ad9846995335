#include "persistent/referencecount.h"

#include "core/byteorder.h"
#include "core/trace.h"
#include "persistent/blocklayout.h"

#include <limits>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleBlockCache;
const unsigned StuckCount = 0xFFFFFFFFu;

// One 16-byte entry inside a held block.
class Entry
{
public:
    Entry(void* block, quint64 k)
        : mpucAt(static_cast<unsigned char*>(block)
            + BlockLayout::ReferenceCountEntrySize * BlockLayout::referenceCountSlot(k))
    { }
    quint64 id() const { return ByteOrder::load64(mpucAt + BlockLayout::ReferenceCountIdOffset); }
    unsigned count() const { return ByteOrder::load32(mpucAt + BlockLayout::ReferenceCountCountOffset); }
    void id(quint64 value) { ByteOrder::store64(mpucAt + BlockLayout::ReferenceCountIdOffset, value); }
    void count(unsigned value) { ByteOrder::store32(mpucAt + BlockLayout::ReferenceCountCountOffset, value); }
    void clear()
    {
        id(0);
        count(0);
        ByteOrder::store32(mpucAt + BlockLayout::ReferenceCountReservedOffset, 0);
    }

private:
    unsigned char* mpucAt;
};

// Block numbers whose place would not fit in a file offset.
bool placeable(quint64 block)
{
    return block <= quint64(std::numeric_limits<qint64>::max()) / BlockLayout::ReferenceCountBlockSize;
}
} // namespace

ReferenceCount::ReferenceCount(unsigned cacheSize)
    : moCache(cacheSize, true)
{ }

bool ReferenceCount::create(const QString& path, quint64 idMask, quint64 growEntries)
{
    mullMask = idMask;
    if (growEntries > mullGrowEntries)
        mullGrowEntries = growEntries;
    return moCache.create(path, BlockLayout::ReferenceCountBlockSize, ~quint64(0), RawFile::eReadWrite);
}

bool ReferenceCount::open(const QString& path, quint64 idMask, quint64 growEntries)
{
    mullMask = idMask;
    if (growEntries > mullGrowEntries)
        mullGrowEntries = growEntries;
    if (!moCache.open(path, RawFile::eReadWrite))
        return false;
    if (!moCache.setBlockSize(BlockLayout::ReferenceCountBlockSize, ~quint64(0))) {
        moCache.close();
        return false;
    }
    return true;
}

bool ReferenceCount::close()
{
    if (!moCache)
        return false;
    return moCache.close();
}

bool ReferenceCount::flush() { return moCache.flush(); }

bool ReferenceCount::newId(quint64 id)
{
    const quint64 k = id & mullMask;
    const quint64 blockId = BlockLayout::referenceCountBlock(k);
    // An id of 0 would make an entry that reads as empty.
    if (id == 0 || !placeable(blockId)) {
        BTRACE(TraceAlways) << "Invalid id" << id;
        return false;
    }
    void* block = moCache.getBlock(blockId);
    if (!block) {
        // Whole stretches of entries at once, so that the file is not extended
        // block by block.
        if (mullGrowEntries != 0 && moCache)
            moCache.truncate(moCache.fileSize() + mullGrowEntries * BlockLayout::ReferenceCountEntrySize);
        block = moCache.newBlock(blockId);
        if (!block)
            return false;
    }
    Entry entry(block, k);
    bool result = false;
    if (entry.id() != 0) {
        BTRACE(TraceAlways) << "Error: `!ptEntry->ulId' failed." << id << "inuse" << entry.id();
    } else {
        entry.id(id);
        entry.count(1);
        result = true;
    }
    moCache.returnBlock(block, result);
    return result;
}

bool ReferenceCount::releaseId(quint64 id)
{
    const quint64 k = id & mullMask;
    void* block = moCache.getBlock(BlockLayout::referenceCountBlock(k));
    if (!block)
        return false;
    Entry entry(block, k);
    bool result = false;
    if (entry.id() != id) {
        BTRACE(TraceAlways) << "Error: `ptEntry->ulId == ulId' failed."
                            << "mismatch" << entry.id() << id;
    } else if (entry.count() != 0) {
        // Released only once its count has come down to 0.
        BTRACE(TraceAlways) << "Count is" << entry.count() << id;
    } else {
        entry.clear();
        result = true;
    }
    moCache.returnBlock(block, result);
    return result;
}

bool ReferenceCount::increment(unsigned& value, quint64 id)
{
    const quint64 k = id & mullMask;
    void* block = moCache.getBlock(BlockLayout::referenceCountBlock(k));
    if (!block)
        return false;
    Entry entry(block, k);
    if (entry.id() != id) {
        BTRACE(TraceAlways) << "Error: `ptEntry->ulId == ulId' failed."
                            << "mismatch" << entry.id() << id;
        moCache.returnBlock(block, false);
        return false;
    }
    bool updated = true;
    unsigned count = entry.count() + 1;
    if (count == 0) {
        // At its maximum the counter sticks: the object is never released.
        count = StuckCount;
        updated = false;
    }
    entry.count(count);
    value = count;
    moCache.returnBlock(block, updated);
    return true;
}

bool ReferenceCount::decrement(unsigned& value, quint64 id)
{
    const quint64 k = id & mullMask;
    void* block = moCache.getBlock(BlockLayout::referenceCountBlock(k));
    if (!block)
        return false;
    Entry entry(block, k);
    bool result = false;
    if (entry.id() != id) {
        BTRACE(TraceAlways) << "Error: `ptEntry->ulId == ulId' failed."
                            << "mismatch" << entry.id() << id;
    } else if (entry.count() == StuckCount) {
        value = StuckCount;
        result = true;
    } else if (entry.count() == 0) {
        BTRACE(TraceAlways) << "Error: `ptEntry->uiCount' failed." << id;
    } else {
        entry.count(entry.count() - 1);
        value = entry.count();
        result = true;
    }
    moCache.returnBlock(block, result);
    return result;
}

bool ReferenceCount::count(unsigned& value, quint64 id) const
{
    const quint64 k = id & mullMask;
    void* block = moCache.getBlock(BlockLayout::referenceCountBlock(k));
    if (!block)
        return false;
    Entry entry(block, k);
    const bool result = entry.id() == id;
    if (result)
        value = entry.count();
    moCache.returnBlock(block, false);
    return result;
}

} // namespace Brevi
