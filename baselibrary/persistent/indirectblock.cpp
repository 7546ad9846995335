#include "persistent/indirectblock.h"

#include "core/byteorder.h"
#include "persistent/blocklayout.h"

namespace Brevi {

IndirectBlock::IndirectBlock(unsigned cacheSize)
    : moCache(cacheSize, true)
{ }

bool IndirectBlock::create(const QString& path, quint64 idMask)
{
    mullMask = idMask;
    return moCache.create(path, BlockLayout::IndirectBlockSize, idMask, RawFile::eReadWrite);
}

bool IndirectBlock::open(const QString& path, quint64 idMask)
{
    mullMask = idMask;
    if (!moCache.open(path, RawFile::eReadWrite))
        return false;
    if (!moCache.setBlockSize(BlockLayout::IndirectBlockSize, idMask)) {
        moCache.close();
        return false;
    }
    return true;
}

bool IndirectBlock::close()
{
    if (!moCache)
        return false;
    return moCache.close();
}

bool IndirectBlock::flush() { return moCache.flush(); }

bool IndirectBlock::set(quint64 id, quint64 value)
{
    const quint64 k = id & mullMask;
    const quint64 blockId = BlockLayout::indirectBlock(k);
    void* block = moCache.getBlock(blockId);
    if (!block) {
        // A block made here is got once more on top and returned once, so it
        // stays referenced, and in memory, until the file is closed: the
        // blocks being filled now are the ones that will be filled next.
        if (!moCache.newBlock(blockId))
            return false;
        block = moCache.getBlock(blockId);
        if (!block)
            return false;
    }
    ByteOrder::store64(
        static_cast<unsigned char*>(block) + BlockLayout::IndirectValueSize * BlockLayout::indirectSlot(k), value);
    return moCache.returnBlock(block, true);
}

bool IndirectBlock::get(quint64& value, quint64 id) const
{
    const quint64 k = id & mullMask;
    const void* block = moCache.getBlock(BlockLayout::indirectBlock(k));
    if (!block)
        return false;
    value = ByteOrder::load64(
        static_cast<const unsigned char*>(block) + BlockLayout::IndirectValueSize * BlockLayout::indirectSlot(k));
    return moCache.returnBlock(block, false);
}

bool IndirectBlock::snapshot(const QString& to)
{
    flush();
    return moCache.copy(to);
}

} // namespace Brevi
