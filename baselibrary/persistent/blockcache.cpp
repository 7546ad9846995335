#include "persistent/blockcache.h"

#include "core/trace.h"
#include "core/traceerrorcode.h"
#include "persistent/blocklayout.h"

#include <QFile>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleBlockCache;
const unsigned GuardWord = 0xabcddcba;
} // namespace

// One malloc allocation: this header, the block's data, and a trailing guard
// word in the last four bytes of the allocation. Users hold a pointer to the
// data and the header is found by stepping back from it, so the guard words
// tell a stray or overrun pointer before anything is changed.
struct BlockCache::Block {
    unsigned uiGuard;
    bool bDirty;
    bool bDiscard;
    // Pinned by the open transaction: off the LRU list whatever the count.
    bool bHeld;
    unsigned uiRefCount;
    Block* poNext;
    Block* poPrevious;
    // The next block in the same chain of the table.
    Block* poHashNext;
    quint64 ullId;

    unsigned char* data() { return reinterpret_cast<unsigned char*>(this) + sizeof(Block); }
    static Block* fromData(const void* data)
    {
        return reinterpret_cast<Block*>(static_cast<unsigned char*>(const_cast<void*>(data)) - sizeof(Block));
    }
};

unsigned BlockCache::Table::bucketOf(quint64 id) const
{
    // Fibonacci hashing: the top bits of the product spread ids that differ
    // only in their low bits, which is how block ids come.
    return unsigned((id * 0x9e3779b97f4a7c15ull) >> uiShift);
}

BlockCache::Block* BlockCache::Table::value(quint64 id) const
{
    if (oBuckets.empty())
        return nullptr;
    Block* block = oBuckets[bucketOf(id)];
    while (block && block->ullId != id)
        block = block->poHashNext;
    return block;
}

void BlockCache::Table::insert(Block* block)
{
    if (uiCount >= oBuckets.size()) {
        // Twice the chains, at least 64: the blocks are relinked, not copied.
        std::vector<Block*> old(std::max<size_t>(64, 2 * oBuckets.size()), nullptr);
        old.swap(oBuckets);
        uiShift = 64;
        for (size_t n = oBuckets.size(); n > 1; n >>= 1)
            --uiShift;
        for (Block* chain : old) {
            while (chain) {
                Block* next = chain->poHashNext;
                Block*& head = oBuckets[bucketOf(chain->ullId)];
                chain->poHashNext = head;
                head = chain;
                chain = next;
            }
        }
    }
    Block*& head = oBuckets[bucketOf(block->ullId)];
    block->poHashNext = head;
    head = block;
    ++uiCount;
}

void BlockCache::Table::remove(Block* block)
{
    if (oBuckets.empty())
        return;
    for (Block** link = &oBuckets[bucketOf(block->ullId)]; *link; link = &(*link)->poHashNext) {
        if (*link == block) {
            *link = block->poHashNext;
            block->poHashNext = nullptr;
            --uiCount;
            return;
        }
    }
}

template <typename F>
void BlockCache::Table::forEach(F f) const
{
    for (Block* chain : oBuckets) {
        while (chain) {
            Block* next = chain->poHashNext;
            f(chain);
            chain = next;
        }
    }
}

void BlockCache::Table::clear()
{
    std::fill(oBuckets.begin(), oBuckets.end(), nullptr);
    uiCount = 0;
}

BlockCache::BlockCache(unsigned cacheSize, bool writeThrough)
    : mbWriteThrough(writeThrough)
    , muiCacheSize(cacheSize)
{}

BlockCache::~BlockCache()
{
    BTRACE(TraceNormal) << msShortName << "Cache Hits " << mullHits << "Cache Misses" << mullMisses;
    emptyCache();
}

bool BlockCache::create(const QString& path, unsigned blockSize, quint64 idMask, RawFile::Mode mode)
{
    // Blocks of another file must not stay in the hash under the same ids.
    if (moFile)
        close();
    msShortName = path.mid(path.lastIndexOf('/') + 1);
    if (!moFile.create(path, mode)) {
        BTRACE(TraceAlways) << msShortName << "Failed to create file" << path
                            << TraceErrorCode(int(moFile.lastError()));
        return false;
    }
    return setBlockSize(blockSize, idMask);
}

bool BlockCache::open(const QString& path, RawFile::Mode mode)
{
    if (moFile)
        close();
    msShortName = path.mid(path.lastIndexOf('/') + 1);
    if (!moFile.open(path, mode)) {
        BTRACE(TraceAlways) << msShortName << "Failed to open file" << path << TraceErrorCode(int(moFile.lastError()));
        return false;
    }
    return true;
}

bool BlockCache::setBlockSize(unsigned blockSize, quint64 idMask)
{
    if (muiBlockSize != 0 || blockSize == 0)
        return false;
    if (blockSize > BlockLayout::MaximumBlockSize) {
        BTRACE(TraceAlways) << msShortName << "Invalid block size" << blockSize;
        return false;
    }
    muiBlockSize = blockSize;
    mullIdMask = idMask;
    muiAllocationSize = (unsigned(sizeof(Block)) + blockSize + unsigned(sizeof(unsigned)) + 3) & ~3u;
    moZeroBlock.size(0);
    moZeroBlock.size(blockSize);
    std::memset(moZeroBlock.data(), 0, blockSize);
    return true;
}

bool BlockCache::read(void* data, unsigned count)
{
    if (!moFile.setPosition(0, RawFile::eStart)) {
        BTRACE(TraceAlways) << msShortName << "Failed to position to begining of file";
        return false;
    }
    Extent extent(data, count);
    if (!moFile.read(extent) || extent.available() != 0) {
        BTRACE(TraceAlways) << msShortName << "Failed to read enough data at begining of file" << count;
        return false;
    }
    return true;
}

bool BlockCache::write(const void* data, unsigned count)
{
    if (mbHolding) {
        moHeldControl = QByteArray(static_cast<const char*>(data), int(count));
        return true;
    }
    if (!moFile.setPosition(0, RawFile::eStart)) {
        BTRACE(TraceAlways) << msShortName << "Failed to position to begining of file";
        return false;
    }
    const Extent extent(data, count);
    if (!moFile.write(extent) || extent.available() != 0) {
        BTRACE(TraceAlways) << msShortName << "Failed to write enough data at begining of file" << count;
        return false;
    }
    return true;
}

quint64 BlockCache::fileSize() const { return moFile ? moFile.size() : 0; }

BlockCache::Block* BlockCache::validBlock(const void* data) const
{
    if (!data || muiBlockSize == 0) {
        BTRACE(TraceAlways) << msShortName << "Invalid block at" << data;
        return nullptr;
    }
    Block* block = Block::fromData(data);
    // The leading guard first, then whether the hash knows this very block:
    // only then is the allocation known to be ours and its end safe to read.
    bool valid = block->uiGuard == GuardWord && moHash.value(block->ullId) == block;
    if (valid) {
        unsigned trailer;
        std::memcpy(&trailer, reinterpret_cast<unsigned char*>(block) + muiAllocationSize - sizeof(unsigned),
                    sizeof(unsigned));
        valid = trailer == GuardWord;
    }
    if (!valid) {
        BTRACE(TraceAlways) << msShortName << "Invalid block at" << data;
        return nullptr;
    }
    return block;
}

BlockCache::Block* BlockCache::allocateBlock()
{
    Block* block = static_cast<Block*>(std::malloc(muiAllocationSize));
    if (!block)
        BTRACE(TraceAlways) << msShortName << "Failed to allocate block of" << muiAllocationSize;
    return block;
}

void BlockCache::fillHeader(Block* block, quint64 id)
{
    block->uiGuard = GuardWord;
    block->bDirty = false;
    block->bDiscard = false;
    block->bHeld = false;
    block->uiRefCount = 1;
    block->poNext = nullptr;
    block->poPrevious = nullptr;
    block->poHashNext = nullptr;
    block->ullId = id;
    std::memcpy(reinterpret_cast<unsigned char*>(block) + muiAllocationSize - sizeof(unsigned), &GuardWord,
                sizeof(unsigned));
}

void BlockCache::releaseBlock(Block* block)
{
    // A freed block must not pass for one of ours if a stale pointer comes back.
    block->uiGuard = 0;
    std::free(block);
}

bool BlockCache::placeOf(quint64 id, quint64& position) const
{
    const quint64 index = id & mullIdMask;
    if (index > quint64(std::numeric_limits<qint64>::max()) / muiBlockSize)
        return false;
    position = index * muiBlockSize;
    return true;
}

void BlockCache::checkInvariant() const
{
    if (moHash.size() < static_cast<int>(muiLRULength))
        BTRACE(TraceAlways) << "Error: `moHash.size() >= static_cast<int>(muiLRULength)' failed.";
}

void BlockCache::traceBusy() const
{
    BTRACE(TraceNormal) << msShortName << "All cache is busy, increase size"
                        << "Hash size" << moHash.size() << "Cache size" << muiCacheSize;
}

void* BlockCache::getBlock(quint64 id)
{
    if (muiBlockSize == 0) {
        BTRACE(TraceAlways) << msShortName << "Block" << id << "not in file";
        return nullptr;
    }
    checkInvariant();
    Block* block = moHash.value(id);
    if (muiCacheSize != 0) {
        if (block) {
            ++mullHits;
            if (block->bDiscard) {
                BTRACE(TraceAlways) << msShortName << "Attempt to get a discarded block" << id;
                return nullptr;
            }
            if (block->uiRefCount == 0) {
                if (!block->bHeld)
                    removeFromLRU(block);
                block->uiRefCount = 1;
            } else {
                ++block->uiRefCount;
            }
            checkInvariant();
            return block->data();
        }
        ++mullMisses;
        if (cachedCount() >= muiCacheSize) {
            block = headFromLRU();
            if (block) {
                flushBlock(block);
                moHash.remove(block);
            } else {
                traceBusy();
            }
        }
    } else if (block) {
        if (!block->bDiscard) {
            ++block->uiRefCount;
            return block->data();
        }
        // A discarded block that someone still holds: its memory is read afresh.
        moHash.remove(block);
    }
    if (!block)
        block = allocateBlock();
    if (!block)
        return nullptr;
    fillHeader(block, id);
    quint64 position = 0;
    if (!placeOf(id, position)) {
        BTRACE(TraceAlways) << msShortName << "Unable to position to block" << (id & mullIdMask);
        releaseBlock(block);
        return nullptr;
    }
    // One pread: the file position is nobody's state, so a miss costs one
    // system call.
    if (moFile.readAt(position, block->data(), muiBlockSize) != muiBlockSize) {
        BTRACE(TraceAlways) << msShortName << "Block" << id << "not in file";
        releaseBlock(block);
        return nullptr;
    }
    moHash.insert(block);
    checkInvariant();
    return block->data();
}

void* BlockCache::newBlock(quint64 id)
{
    if (muiBlockSize == 0) {
        BTRACE(TraceAlways) << msShortName << "Failed to position to new block" << id;
        return nullptr;
    }
    checkInvariant();
    Block* block = moHash.value(id);
    if (block) {
        if (muiCacheSize == 0) {
            BTRACE(TraceAlways) << msShortName << "Block" << id << "is already in hash and inuse";
            BTRACE(TraceAlways) << "Error: `muiCacheSize' failed.";
            return nullptr;
        }
        ++mullHits;
        if (block->bDiscard && block->uiRefCount == 0) {
            // A freed block comes straight back in the same memory.
            removeFromLRU(block);
            block->uiRefCount = 1;
            block->bDiscard = false;
            block->bDirty = true;
            std::memset(block->data(), 0, muiBlockSize);
            if (mbHolding)
                holdBlock(block);
        } else {
            BTRACE(TraceAlways) << msShortName << "Block" << id << "is already in hash and inuse";
            BTRACE(TraceAlways) << "Error: `poBlock->bDiscard && !poBlock->uiRefCount' failed.";
        }
        checkInvariant();
        return block->data();
    }

    if (muiCacheSize != 0) {
        if (muiCacheSize > cachedCount()) {
            block = discardedFromLRU();
            if (block) {
                BTRACE(TraceVerbose) << msShortName << "Remove discarded block" << block->ullId << "from cache";
                moHash.remove(block);
            }
        } else {
            // The cache is write-through for every user that makes blocks, so
            // an unreferenced block has nothing unwritten to lose here.
            block = headFromLRU();
            if (block) {
                BTRACE(TraceVerbose) << msShortName << "Remove block" << block->ullId << "from cache";
                moHash.remove(block);
            } else {
                traceBusy();
            }
        }
    }
    if (!block)
        block = allocateBlock();
    if (!block)
        return nullptr;
    fillHeader(block, id);
    std::memset(block->data(), 0, muiBlockSize);
    moHash.insert(block);
    if (mbHolding) {
        holdBlock(block);
    } else if (mbWriteThrough) {
        bool written = false;
        quint64 position = 0;
        if (!placeOf(id, position)) {
            BTRACE(TraceAlways) << msShortName << "Failed to position to new block" << id;
        } else {
            written = moFile.writeAt(position, block->data(), muiBlockSize) == muiBlockSize;
            if (!written)
                BTRACE(TraceAlways) << msShortName << "Failed to write new block" << id;
        }
        if (!written) {
            // Nothing may keep pointing at memory that is given back.
            moHash.remove(block);
            releaseBlock(block);
            checkInvariant();
            return nullptr;
        }
    } else {
        block->bDirty = true;
    }
    checkInvariant();
    return block->data();
}

// The last reference has gone: an unreferenced block waits in the list (a
// discarded one at the head, first to be reused), or without a cache it goes.
void BlockCache::lastReference(Block* block)
{
    if (block->bHeld)
        return;
    if (muiCacheSize != 0) {
        addToLRU(block);
    } else {
        moHash.remove(block);
        releaseBlock(block);
    }
}

bool BlockCache::returnBlock(const void* data, bool updated)
{
    checkInvariant();
    Block* block = validBlock(data);
    if (!block)
        return false;
    if (block->uiRefCount == 0) {
        // Already back in the list: linking it twice would break the list.
        BTRACE(TraceAlways) << msShortName << "Error: `poBlock->uiRefCount' failed." << block->ullId;
        return false;
    }
    bool result = true;
    if (updated && !block->bDiscard) {
        if (mbHolding) {
            holdBlock(block);
        } else {
            block->bDirty = true;
            if (mbWriteThrough)
                result = flushBlock(block);
        }
    }
    if (--block->uiRefCount == 0)
        lastReference(block);
    checkInvariant();
    return result;
}

bool BlockCache::updateBlock(const void* data)
{
    Block* block = validBlock(data);
    if (!block)
        return false;
    if (mbHolding && !block->bDiscard) {
        holdBlock(block);
        return true;
    }
    if (block->bDiscard || !mbWriteThrough) {
        block->bDirty = true;
        return true;
    }
    quint64 position = 0;
    if (!placeOf(block->ullId, position)) {
        BTRACE(TraceAlways) << msShortName << "Failed to position for write" << block->ullId;
        return false;
    }
    if (moFile.writeAt(position, block->data(), muiBlockSize) != muiBlockSize) {
        BTRACE(TraceAlways) << msShortName << "Failed to write whole block" << block->ullId;
        return false;
    }
    block->bDirty = false;
    return true;
}

bool BlockCache::flushBlock(Block* block)
{
    if (block->bDiscard || !block->bDirty || block->bHeld)
        return true;
    // The data of a failed write are gone: dirty is cleared all the same.
    block->bDirty = false;
    return writeAt(block->ullId, block->data());
}

quint64 BlockCache::freeBlock(const void* data)
{
    checkInvariant();
    Block* block = validBlock(data);
    if (!block)
        return 0;
    const quint64 id = block->ullId;
    const bool listed = block->uiRefCount == 0 && !block->bHeld;
    block->bDiscard = true;
    block->bDirty = false;
    if (mbHolding) {
        holdZeros(block);
    } else {
        quint64 position = 0;
        if (!placeOf(id, position))
            BTRACE(TraceAlways) << msShortName << "Failed to position for zero freed block" << id;
        else if (moFile.writeAt(position, moZeroBlock.data(), muiBlockSize) != muiBlockSize)
            BTRACE(TraceAlways) << msShortName << "Failed to zero freed block" << id;
    }
    if (block->uiRefCount == 0) {
        // Freed while unreferenced: to the head, first to be reused.
        if (listed)
            removeFromLRU(block);
        lastReference(block);
    } else if (--block->uiRefCount == 0) {
        lastReference(block);
    }
    checkInvariant();
    return id;
}

quint64 BlockCache::discardBlock(const void* data)
{
    checkInvariant();
    Block* block = validBlock(data);
    if (!block)
        return 0;
    const quint64 id = block->ullId;
    const bool listed = block->uiRefCount == 0 && !block->bHeld;
    if (block->uiRefCount != 0)
        --block->uiRefCount;
    if (block->uiRefCount == 0) {
        block->bDiscard = true;
        block->bDirty = false;
        if (block->bHeld) {
            // Its changes vanish: the place keeps what the file has.
            unpin(block);
            moHeld.erase(id & mullIdMask);
        }
        if (listed)
            removeFromLRU(block);
        lastReference(block);
    }
    checkInvariant();
    return id;
}

quint64 BlockCache::number(const void* data)
{
    Block* block = validBlock(data);
    return block ? block->ullId : 0;
}

void BlockCache::addToLRU(Block* block)
{
    block->poNext = nullptr;
    block->poPrevious = nullptr;
    if (block->bDiscard) {
        block->poNext = mpoLRUHead;
        if (mpoLRUHead)
            mpoLRUHead->poPrevious = block;
        else
            mpoLRUTail = block;
        mpoLRUHead = block;
    } else {
        block->poPrevious = mpoLRUTail;
        if (mpoLRUTail)
            mpoLRUTail->poNext = block;
        else
            mpoLRUHead = block;
        mpoLRUTail = block;
    }
    ++muiLRULength;
}

void BlockCache::removeFromLRU(Block* block)
{
    if (muiLRULength == 0)
        BTRACE(TraceAlways) << "Error: `muiLRULength' failed.";
    else
        --muiLRULength;
    if (block->poPrevious)
        block->poPrevious->poNext = block->poNext;
    else if (mpoLRUHead == block)
        mpoLRUHead = block->poNext;
    if (block->poNext)
        block->poNext->poPrevious = block->poPrevious;
    else if (mpoLRUTail == block)
        mpoLRUTail = block->poPrevious;
    block->poNext = nullptr;
    block->poPrevious = nullptr;
}

BlockCache::Block* BlockCache::discardedFromLRU()
{
    Block* block = mpoLRUHead;
    if (!block || !block->bDiscard)
        return nullptr;
    removeFromLRU(block);
    return block;
}

BlockCache::Block* BlockCache::headFromLRU()
{
    Block* block = mpoLRUHead;
    if (block)
        removeFromLRU(block);
    return block;
}

bool BlockCache::flush()
{
    if (mbWriteThrough)
        return true;
    moHash.forEach([this](Block* block) { flushBlock(block); });
    return true;
}

void BlockCache::emptyCache()
{
    // What a transaction left unwritten is forgotten, never written.
    moHash.forEach([](Block* block) { block->bHeld = false; });
    moHeld.clear();
    muiHeldBlocks = 0;
    moHeldControl.clear();
    mbHolding = false;
    flush();
    moHash.forEach([this](Block* block) { releaseBlock(block); });
    moHash.clear();
    // The list's blocks have gone with the hash.
    mpoLRUHead = mpoLRUTail = nullptr;
    muiLRULength = 0;
}

bool BlockCache::close()
{
    if (!moFile || muiBlockSize == 0) {
        // A file opened and never set up is still closed, without a result.
        if (moFile)
            moFile.close();
        return false;
    }
    emptyCache();
    mpoLRUHead = mpoLRUTail = nullptr;
    muiBlockSize = 0;
    moZeroBlock.reset();
    return moFile.close();
}

bool BlockCache::truncate(quint64 size) { return moFile.truncate(size, false); }

bool BlockCache::lock() { return moFile.lock(0, 0); }

bool BlockCache::sync() { return moFile.sync(); }

void BlockCache::hold() { mbHolding = true; }

void BlockCache::holdBlock(Block* block)
{
    block->bDirty = true;
    if (!block->bHeld) {
        block->bHeld = true;
        ++muiHeldBlocks;
    }
    moHeld[block->ullId & mullIdMask] = Held{block, block->ullId};
}

void BlockCache::holdZeros(Block* block)
{
    unpin(block);
    moHeld[block->ullId & mullIdMask] = Held{nullptr, block->ullId};
}

void BlockCache::unpin(Block* block)
{
    if (block->bHeld) {
        block->bHeld = false;
        --muiHeldBlocks;
    }
}

void BlockCache::heldChanges(std::vector<JournalChange>& changes, unsigned file) const
{
    if (!moHeldControl.isEmpty()) {
        JournalChange change;
        change.file = file;
        change.length = unsigned(moHeldControl.size());
        change.data = reinterpret_cast<const unsigned char*>(moHeldControl.constData());
        changes.push_back(change);
    }
    for (const std::pair<const quint64, Held>& held : moHeld) {
        JournalChange change;
        change.file = file;
        change.offset = held.first * muiBlockSize;
        change.length = muiBlockSize;
        if (held.second.poBlock)
            change.data = held.second.poBlock->data();
        else
            change.kind = JournalLayout::KindZeros;
        changes.push_back(change);
    }
}

bool BlockCache::writeAt(quint64 id, const void* data)
{
    quint64 position = 0;
    if (!placeOf(id, position)) {
        BTRACE(TraceAlways) << msShortName << "Failed to position to write block" << id;
        return false;
    }
    if (moFile.writeAt(position, data, muiBlockSize) != muiBlockSize) {
        BTRACE(TraceAlways) << msShortName << "Failed to write whole block" << id;
        return false;
    }
    return true;
}

bool BlockCache::writeHeld()
{
    mbHolding = false;
    bool written = true;
    for (const std::pair<const quint64, Held>& held : moHeld) {
        if (!writeAt(held.first, held.second.poBlock ? held.second.poBlock->data() : moZeroBlock.data()))
            written = false;
    }
    if (!moHeldControl.isEmpty() && !write(moHeldControl.constData(), unsigned(moHeldControl.size())))
        written = false;
    for (const std::pair<const quint64, Held>& held : moHeld) {
        Block* block = held.second.poBlock;
        if (!block)
            continue;
        block->bDirty = false;
        unpin(block);
        if (block->uiRefCount == 0)
            lastReference(block);
    }
    moHeld.clear();
    moHeldControl.clear();
    checkInvariant();
    return written;
}

bool BlockCache::dropHeld()
{
    mbHolding = false;
    bool restored = true;
    for (const std::pair<const quint64, Held>& held : moHeld) {
        Block* block = held.second.poBlock ? held.second.poBlock : moHash.value(held.second.ullId);
        // A freed block whose memory has gone to another id has nothing to
        // forget; neither has one that was made again since.
        if (!block || (!held.second.poBlock && !block->bDiscard))
            continue;
        const bool listed = block->uiRefCount == 0 && !block->bHeld;
        unpin(block);
        if (block->uiRefCount == 0) {
            if (listed)
                removeFromLRU(block);
            moHash.remove(block);
            releaseBlock(block);
            continue;
        }
        // Still referenced: the holder's pointer stays, with the file's bytes
        // behind it again.
        block->bDiscard = false;
        block->bDirty = false;
        quint64 position = 0;
        size_t read = 0;
        if (!placeOf(block->ullId, position)) {
            BTRACE(TraceAlways) << msShortName << "Failed to read block" << block->ullId << "again";
            restored = false;
        } else {
            read = moFile.readAt(position, block->data(), muiBlockSize);
            // Short without an error: the end of the file.
            if (read != muiBlockSize && moFile.lastError() != 0) {
                BTRACE(TraceAlways) << msShortName << "Failed to read block" << block->ullId << "again";
                restored = false;
            }
        }
        // A block made beyond the end of the file reads as the zeros it was.
        std::memset(block->data() + read, 0, muiBlockSize - read);
    }
    moHeld.clear();
    moHeldControl.clear();
    checkInvariant();
    return restored;
}

bool BlockCache::copy(const QString& to)
{
    if (!moFile)
        return false;
    return QFile::copy(moFile.path(), to);
}

} // namespace Brevi
