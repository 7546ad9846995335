#include "persistent/freelist.h"

#include "core/byteorder.h"
#include "core/trace.h"
#include "persistent/blocklayout.h"

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleBlocks;
}

FreeList::FreeList(unsigned cacheSize)
    : moCache(cacheSize, true)
{ }

bool FreeList::create(const QString& path, quint64 idMask)
{
    mullGenerationStep = idMask + 1;
    if (!moCache.create(path, BlockLayout::FreeListBlockSize, idMask, RawFile::eReadWrite)) {
        BTRACE(TraceAlways) << "Failed to create freelist file" << path;
        return false;
    }
    mullEntryCount = 0;
    return flushControl();
}

bool FreeList::open(const QString& path, quint64 idMask)
{
    mullGenerationStep = idMask + 1;
    if (!moCache.open(path, RawFile::eReadWrite)) {
        BTRACE(TraceAlways) << "Failed to open freelist file" << path;
        return false;
    }
    // The count is read while the block size is still unset: it lies in
    // block 0, which the cache never hands out for this file.
    unsigned char count[8];
    if (!moCache.read(count, sizeof(count))) {
        BTRACE(TraceAlways) << "Failed to read control data for freelist file" << path;
        moCache.close();
        return false;
    }
    mullEntryCount = ByteOrder::load64(count);
    return moCache.setBlockSize(BlockLayout::FreeListBlockSize, idMask);
}

bool FreeList::flushControl()
{
    unsigned char count[8];
    ByteOrder::store64(count, mullEntryCount);
    if (!moCache.write(count, sizeof(count))) {
        BTRACE(TraceAlways) << "Failed to write control record" << moCache.path();
        return false;
    }
    return true;
}

void* FreeList::entryBlock(quint64 entry)
{
    const quint64 id = BlockLayout::freeListEntryBlock(entry);
    void* block = moCache.getBlock(id);
    return block ? block : moCache.newBlock(id);
}

bool FreeList::put(quint64 id)
{
    void* block = entryBlock(mullEntryCount);
    if (!block)
        return false;
    // The generation above the mask counts how often the block was freed; it
    // wraps at the top of the 64 bits.
    ByteOrder::store64(static_cast<unsigned char*>(block)
            + BlockLayout::FreeListEntrySize * BlockLayout::freeListEntrySlot(mullEntryCount),
        id + mullGenerationStep);
    if (!moCache.returnBlock(block, true))
        return false;
    ++mullEntryCount;
    return flushControl();
}

bool FreeList::grow(quint64 firstId, quint64 count)
{
    if (count == 0)
        return true;
    quint64 entry = mullEntryCount;
    void* block = entryBlock(entry);
    if (!block)
        return false;
    // Falling order: the lowest id is on top, so fresh blocks are used from
    // the front of the file.
    for (quint64 n = count; n != 0; --n, ++entry) {
        if (entry != mullEntryCount && BlockLayout::freeListEntrySlot(entry) == 0) {
            if (!moCache.returnBlock(block, true))
                return false;
            block = entryBlock(entry);
            if (!block)
                return false;
        }
        ByteOrder::store64(
            static_cast<unsigned char*>(block) + BlockLayout::FreeListEntrySize * BlockLayout::freeListEntrySlot(entry),
            firstId + n - 1);
    }
    if (!moCache.returnBlock(block, true))
        return false;
    mullEntryCount += count;
    return flushControl();
}

bool FreeList::get(quint64& id)
{
    if (mullEntryCount == 0)
        return false;
    const quint64 entry = mullEntryCount - 1;
    void* block = moCache.getBlock(BlockLayout::freeListEntryBlock(entry));
    if (!block)
        return false;
    const quint64 value = ByteOrder::load64(
        static_cast<unsigned char*>(block) + BlockLayout::FreeListEntrySize * BlockLayout::freeListEntrySlot(entry));
    moCache.returnBlock(block, false);
    id = value;
    mullEntryCount = entry;
    return flushControl();
}

bool FreeList::flush()
{
    moCache.flush();
    return flushControl();
}

bool FreeList::close()
{
    if (!moCache)
        return false;
    flushControl();
    return moCache.close();
}

} // namespace Brevi
