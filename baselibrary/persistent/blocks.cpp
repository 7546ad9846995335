#include "persistent/blocks.h"

#include "core/byteorder.h"
#include "core/trace.h"
#include "persistent/blocklayout.h"

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleBlocks;
}

Blocks::Blocks(unsigned cacheSize)
    : moCache(cacheSize, true)
    , moFreeList(2)
{ }

Blocks::~Blocks() { close(); }

bool Blocks::create(
    const QString& path, unsigned blockSize, unsigned generationBits, quint64 growBytes, RawFile::Mode mode)
{
    if (moCache)
        close();
    msShortName = path.mid(path.lastIndexOf('/') + 1);
    const quint64 idMask = BlockLayout::idMaskFor(generationBits);
    if (blockSize < BlockLayout::MinimumBlockSize) {
        BTRACE(TraceAlways) << msShortName << "Invalid block size must be greater that"
                            << BlockLayout::MinimumBlockSize;
        return false;
    }
    // With no bit left for the place, every id would land on block 0 and its
    // control record.
    if (idMask == 0) {
        BTRACE(TraceAlways) << msShortName << "Invalid generation bits" << generationBits;
        return false;
    }
    if (!moCache.create(path, blockSize, idMask, mode)) {
        BTRACE(TraceAlways) << msShortName << "Failed to create file" << path;
        return false;
    }
    BTRACE(TraceNormal) << msShortName << "Initialize file" << path << mode;
    muiControlBlockSize = blockSize;
    muiControlReserved = 0;
    mullControlIdMask = idMask;
    if (!moFreeList.create(path + BlockLayout::FreeListSuffix, idMask)) {
        BTRACE(TraceAlways) << msShortName << "Failed to create freelist file for" << path;
        moCache.close();
        return false;
    }
    mullGrowStep = growBytes == 0 ? BlockLayout::CreateGrowBlocks : growBytes / blockSize;
    if (mullGrowStep < 2) {
        mullTotalBlockCount = 1;
        mullGrowStep = 0;
    } else {
        // Never more blocks than the id mask can place apart.
        if (idMask != ~quint64(0) && mullGrowStep > idMask)
            mullGrowStep = idMask + 1;
        mullTotalBlockCount = mullGrowStep;
        if (!extendTo(mullTotalBlockCount) || !flushControl()
            || !moFreeList.grow(BlockLayout::FirstBlock, mullGrowStep - 1))
            return false;
    }
    return flushControl();
}

bool Blocks::open(const QString& path, quint64 growBytes, RawFile::Mode mode)
{
    if (moCache)
        close();
    msShortName = path.mid(path.lastIndexOf('/') + 1);
    BTRACE(TraceNormal) << msShortName << "Open" << path << mode;
    // Always read-write, whatever the caller asked: every use of a block file
    // may free or make blocks.
    if (!moCache.open(path, RawFile::eReadWrite)) {
        BTRACE(TraceAlways) << msShortName << "Failed to open file" << path;
        return false;
    }
    if (!getControl()) {
        BTRACE(TraceAlways) << msShortName << "Failed to get control block" << path;
        moCache.close();
        return false;
    }
    if (!moFreeList.open(path + BlockLayout::FreeListSuffix, mullControlIdMask)) {
        BTRACE(TraceAlways) << msShortName << "Failed to open freelist file for" << path;
        moCache.close();
        return false;
    }
    mullGrowStep = growBytes == 0 ? BlockLayout::OpenGrowBlocks : growBytes / muiControlBlockSize;
    if (mullGrowStep == 1)
        mullGrowStep = 0;
    return true;
}

bool Blocks::getControl()
{
    unsigned char record[BlockLayout::ControlSize];
    if (!moCache.read(record, sizeof(record))) {
        BTRACE(TraceAlways) << msShortName << "Failed to read control record";
        return false;
    }
    const quint64 total = ByteOrder::load64(record + BlockLayout::ControlTotalCountOffset);
    const unsigned blockSize = ByteOrder::load32(record + BlockLayout::ControlBlockSizeOffset);
    const unsigned reserved = ByteOrder::load32(record + BlockLayout::ControlReservedOffset);
    const quint64 idMask = ByteOrder::load64(record + BlockLayout::ControlIdMaskOffset);
    // A record that no create could have written is not trusted with an
    // allocation or with the place of a write.
    if (blockSize < BlockLayout::MinimumBlockSize || blockSize > BlockLayout::MaximumBlockSize) {
        BTRACE(TraceAlways) << msShortName << "Invalid block size in control record" << blockSize;
        return false;
    }
    if (!BlockLayout::plausibleIdMask(idMask) || total == 0) {
        BTRACE(TraceAlways) << msShortName << "Invalid control record" << total << hex << idMask;
        return false;
    }
    if (!moCache.setBlockSize(blockSize, idMask))
        return false;
    mullTotalBlockCount = total;
    muiControlBlockSize = blockSize;
    muiControlReserved = reserved;
    mullControlIdMask = idMask;
    return true;
}

bool Blocks::flushControl()
{
    unsigned char record[BlockLayout::ControlSize];
    ByteOrder::store64(record + BlockLayout::ControlTotalCountOffset, mullTotalBlockCount);
    ByteOrder::store32(record + BlockLayout::ControlBlockSizeOffset, muiControlBlockSize);
    ByteOrder::store32(record + BlockLayout::ControlReservedOffset, muiControlReserved);
    ByteOrder::store64(record + BlockLayout::ControlIdMaskOffset, mullControlIdMask);
    return moCache.write(record, sizeof(record));
}

bool Blocks::extendTo(quint64 blocks) { return moCache.truncate(blocks * muiControlBlockSize); }

bool Blocks::close()
{
    if (!moCache)
        return false;
    const bool control = flushControl();
    const bool cache = moCache.close();
    const bool freeList = moFreeList.close();
    return control && cache && freeList;
}

const void* Blocks::getBlock(quint64 id) const
{
    if ((id & mullControlIdMask) == 0)
        return nullptr;
    return moCache.getBlock(id);
}

void* Blocks::getBlock(quint64 id)
{
    if ((id & mullControlIdMask) == 0)
        return nullptr;
    return moCache.getBlock(id);
}

bool Blocks::returnBlock(const void* block) const { return block && moCache.returnBlock(block, false); }

bool Blocks::returnBlock(const void* block, bool updated) { return block && moCache.returnBlock(block, updated); }

bool Blocks::updateBlock(const void* block) { return block && moCache.updateBlock(block); }

void* Blocks::newBlock(quint64& id)
{
    if (!moCache)
        return nullptr;
    quint64 freeId = 0;
    while (moFreeList.get(freeId)) {
        const quint64 place = freeId & mullControlIdMask;
        if (place != 0 && place < mullTotalBlockCount) {
            id = freeId;
            return moCache.newBlock(id);
        }
        // Block 0 or a place the file does not count: using it would write
        // over the control record or beyond the blocks. The entry is dropped.
        BTRACE(TraceAlways) << msShortName << "Invalid block id in free list" << freeId;
    }
    if ((mullTotalBlockCount & ~mullControlIdMask) != 0) {
        BTRACE(TraceAlways) << msShortName << "No more block ids" << mullTotalBlockCount;
        return nullptr;
    }
    const quint64 next = mullTotalBlockCount;
    if (mullGrowStep != 0) {
        quint64 step = mullGrowStep;
        if (mullControlIdMask != ~quint64(0) && step > mullControlIdMask + 1 - next)
            step = mullControlIdMask + 1 - next;
        // The file and the control record first, the free list last: a process
        // that stops in between loses the new ids rather than listing ids the
        // control record does not count.
        if (!extendTo(next + step))
            return nullptr;
        mullTotalBlockCount = next + step;
        flushControl();
        moFreeList.grow(next + 1, step - 1);
    } else {
        mullTotalBlockCount = next + 1;
        flushControl();
    }
    id = next;
    return moCache.newBlock(id);
}

bool Blocks::freeBlock(const void* block)
{
    if (!block)
        return false;
    const quint64 id = moCache.freeBlock(block);
    return id != 0 && moFreeList.put(id);
}

bool Blocks::discardBlock(const void* block) { return block && moCache.discardBlock(block) != 0; }

bool Blocks::flush()
{
    const bool cache = moCache.flush();
    return moFreeList.flush() && cache;
}

quint64 Blocks::number(const void* block) const { return moCache.number(block); }

} // namespace Brevi
