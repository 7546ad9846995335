#ifndef BASELIBRARY_PERSISTENT_BLOCKS_H
#define BASELIBRARY_PERSISTENT_BLOCKS_H

#include "persistent/blockcache.h"
#include "persistent/freelist.h"

namespace Brevi {

// Fixed-size blocks with allocation: a block file whose block 0 holds a control
// record, a free list in the companion file path + ".free", and growth of the
// file in large steps (layout in persistent/blocklayout.h).
//
// The cache is write-through: every updateBlock() and every returnBlock() with
// `updated` reaches the file at once, and freed blocks are zeroed on disk, so
// the file is usable whenever the process stops. At worst a block freed or
// grown at that moment is lost to the free list.
//
// Block 0 is never handed out: firstBlock() is 1 and an id of 0 means no block.
// The bits of an id above idMask() are its generation, raised each time the
// block is freed, so a stale id of a reused block does not find the new
// contents in the cache.
//
// Pairing: each getBlock() or newBlock() with one returnBlock(), freeBlock() or
// discardBlock(); these return false on a null pointer.
//
// Failure by result and a trace line at TraceAlways. One thread at a time per
// object, one object per file; nothing locks.
class BREVI_EXPORT Blocks
{
public:
    explicit Blocks(unsigned cacheSize = 1024);
    ~Blocks();

    // Makes the block file and its free list. `blockSize` must be at least 24
    // ("Invalid block size must be greater that" 24). The id mask keeps the low
    // 64 - `generationBits` bits. The file is extended by `growBytes` /
    // `blockSize` blocks at a time (10240 blocks when 0; one at a time when
    // that is below 2).
    bool create(
        const QString& path, unsigned blockSize, unsigned generationBits, quint64 growBytes, RawFile::Mode mode);
    // Opens an existing block file and its free list, always for reading and
    // writing: `mode` is only traced. The grow step is `growBytes` /
    // blockSize(), or 1024 blocks when 0. A file whose control record makes no
    // sense is refused ("Failed to get control block").
    bool open(const QString& path, quint64 growBytes, RawFile::Mode mode);
    // Writes the control record and closes both files.
    bool close();

    unsigned blockSize() const { return muiControlBlockSize; }
    quint64 firstBlock() const { return 1; }

    // The block with one more reference; null for id 0, for a block past the
    // end of the file, or on failure.
    const void* getBlock(quint64 id) const;
    void* getBlock(quint64 id);
    // Drops one reference without writing.
    bool returnBlock(const void* block) const;
    bool returnBlock(const void* block, bool updated);
    bool updateBlock(const void* block);
    // A zeroed block, from the free list or from beyond the end of the file;
    // its id goes into `id`. When the id space is used up, null with `id` left
    // as given: set it to 0 first and test it.
    void* newBlock(quint64& id);
    // Zeroes the block on disk and gives its id, one generation on, to the free
    // list.
    bool freeBlock(const void* block);
    // Forgets the block's changes; its id does not go back to the free list.
    bool discardBlock(const void* block);
    bool flush();
    quint64 number(const void* block) const;

    quint64 idMask() const { return mullControlIdMask; }
    // Counts block 0.
    quint64 totalBlockCount() const { return mullTotalBlockCount; }
    // Total less the free entries, so block 0 counts as used.
    quint64 usedBlockCount() const { return mullTotalBlockCount - moFreeList.entryCount(); }
    quint64 cacheHits() const { return moCache.hits(); }
    quint64 cacheMisses() const { return moCache.misses(); }
    unsigned cacheSize() const { return moCache.getCacheSize(); }
    // Blocks held in memory now.
    unsigned cachedBlocks() const { return moCache.size(); }
    // The grow step in blocks, 0 for one at a time.
    quint64 growStep() const { return mullGrowStep; }
    const QString& path() const { return moCache.path(); }

    // True when the block file and the free list are both open.
    operator OperatorBoolGenerator<Blocks>::Result() const
    {
        return OperatorBoolGenerator<Blocks>::make(bool(moCache) && bool(moFreeList));
    }

private:
    bool flushControl();
    bool getControl();
    bool extendTo(quint64 blocks);

    // Mutable: reading through the cache changes what it holds, not what the
    // file says.
    mutable BlockCache moCache;
    FreeList moFreeList;
    quint64 mullTotalBlockCount = 0;
    unsigned muiControlBlockSize = 0;
    unsigned muiControlReserved = 0;
    quint64 mullControlIdMask = 0;
    QString msShortName;
    quint64 mullGrowStep = 0;
};

} // namespace Brevi

#endif
