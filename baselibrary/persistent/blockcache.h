#ifndef BASELIBRARY_PERSISTENT_BLOCKCACHE_H
#define BASELIBRARY_PERSISTENT_BLOCKCACHE_H

#include "brevi_export.h"
#include "core/buffer.h"
#include "core/operatorboolgenerator.h"
#include "persistent/journal.h"
#include "persistent/rawfile.h"

#include <QString>

#include <map>
#include <vector>

namespace Brevi {

// A file seen as an array of fixed-size blocks, with the blocks in memory kept
// under reference counts and the unreferenced ones on a least-recently-used
// list.
//
// A block id is 64 bits. Its bits inside the id mask give the place in the file
// ((id & idMask) * blockSize); the bits above are a generation that takes part
// in the id's identity in the cache but not in its place.
//
// Calling order: every getBlock() or newBlock() is paired with one
// returnBlock(), freeBlock() or discardBlock(). A block may be got many times;
// each get adds a reference, and the pointer stays the same while any is held.
// The pointers handed out point at the block's data; the cache finds its own
// header in front of them and checks its guard words on every call
// ("Invalid block at").
//
// With write-through on, an updated block reaches the file when it is returned
// or updated, and the cache serves reads only. With a cache size of 0 nothing
// is kept: a block is freed when its last reference goes. When every block held
// is referenced, the cache grows beyond its size rather than fail ("All cache
// is busy, increase size").
//
// The file is opened first and the block size set afterwards, so that a user
// can read its own control record at the start of the file (read()) before it
// knows the block size. Only then does the object test true.
//
// Failure: null, 0 or false, with a trace line at TraceAlways. No exceptions,
// no locks: one thread at a time per object, and one object per file.
class BREVI_EXPORT BlockCache
{
public:
    explicit BlockCache(unsigned cacheSize = 1024, bool writeThrough = true);
    // Traces "Cache Hits " and "Cache Misses", writes dirty blocks of a cache
    // that is not write-through, and frees the memory. The file is closed by
    // its own destructor.
    ~BlockCache();

    BlockCache(const BlockCache&) = delete;
    BlockCache& operator=(const BlockCache&) = delete;

    // Opens or makes the file (existing contents are kept) and sets the block
    // size. "Failed to create file" on failure.
    bool create(const QString& path, unsigned blockSize, quint64 idMask, RawFile::Mode mode);
    // Opens an existing file; the block size stays unset. "Failed to open file".
    bool open(const QString& path, RawFile::Mode mode);
    // Fixes block size and id mask once per open: false, with nothing changed,
    // when the size is already set or `blockSize` is 0.
    bool setBlockSize(unsigned blockSize, quint64 idMask);

    // Transfers at file offset 0, for control records; false unless all
    // `count` bytes moved.
    bool read(void* data, unsigned count);
    bool write(const void* data, unsigned count);

    // The block's data with one more reference, read from the file if it is
    // not held. Null for a block past the end of the file ("Block" id "not in
    // file"), for a freed or discarded block waiting to be reused ("Attempt to
    // get a discarded block"), and on read failures.
    void* getBlock(quint64 id);
    // A zeroed block for `id` with one reference, written to the file at once
    // when write-through (the file grows if needed). A block just freed comes
    // back here in the same memory. Null on failure.
    void* newBlock(quint64 id);
    // Drops one reference. With `updated`, the block is marked dirty and, when
    // write-through, written now. False for a pointer that is not a block's.
    bool returnBlock(const void* block, bool updated);
    // Writes the block now (write-through) or marks it dirty; keeps the
    // reference.
    bool updateBlock(const void* block);
    // Overwrites the block's place in the file with zeros at once, drops one
    // reference and marks the block discarded. The block's full id, 0 for a bad
    // pointer.
    quint64 freeBlock(const void* block);
    // Drops one reference; at the last one the block is forgotten without
    // being written. The block's full id, 0 for a bad pointer.
    quint64 discardBlock(const void* block);
    // The full id of a held block, 0 for a bad pointer.
    quint64 number(const void* block);

    // Writes the dirty blocks; always true.
    bool flush();
    // Empties the cache and closes the file; false when not open and set up.
    bool close();
    // Sets the file's end (without reserving space).
    bool truncate(quint64 size);
    // Copies the open file to `to`, as it stands on disk: flush first. False
    // when nothing is open or the copy fails.
    bool copy(const QString& to);
    // An exclusive lock on the whole file for as long as it stays open; false
    // when another open of the file holds one, in this process or another.
    bool lock();
    // Returns once what was written is on the disk (fdatasync).
    bool sync();

    // Holding, for the transactions of Blocks. From hold() on nothing reaches
    // the file: a block returned updated, updated, made or freed is held in
    // memory with what is to be written at its place, and so is a write() of
    // a control record. A held block is pinned: it is never evicted, and it
    // does not count against the cache size. writeHeld() writes everything
    // held and ends holding; dropHeld() forgets it all and ends holding: a
    // held block that is still referenced is read again from the file, one
    // that is not leaves the cache. A block changed in memory counts as
    // changed only once it is returned updated or updated.
    void hold();
    bool holding() const { return mbHolding; }
    bool hasHeld() const { return !moHeld.empty() || !moHeldControl.isEmpty(); }
    // What is held, as changes to file number `file`, in the order of the
    // file.
    void heldChanges(std::vector<JournalChange>& changes, unsigned file) const;
    // False when a write failed; holding ends all the same, with memory
    // holding the changes.
    bool writeHeld();
    // False when a block still referenced could not be read again.
    bool dropHeld();

    unsigned getBlockSize() const { return muiBlockSize; }
    unsigned getCacheSize() const { return muiCacheSize; }
    // Blocks now held in memory, referenced or not.
    unsigned size() const { return unsigned(moHash.size()); }
    // The size of the open file, 0 while closed.
    quint64 fileSize() const;
    quint64 hits() const { return mullHits; }
    quint64 misses() const { return mullMisses; }
    quint64 idMask() const { return mullIdMask; }
    bool writeThrough() const { return mbWriteThrough; }
    // The path of the open file, empty while closed.
    const QString& path() const { return moFile.path(); }

    // True when the file is open and the block size set.
    operator OperatorBoolGenerator<BlockCache>::Result() const
    {
        return OperatorBoolGenerator<BlockCache>::make(moFile && muiBlockSize != 0);
    }

private:
    struct Block;

    Block* validBlock(const void* data) const;
    Block* allocateBlock();
    void fillHeader(Block* block, quint64 id);
    void releaseBlock(Block* block);
    void lastReference(Block* block);
    bool flushBlock(Block* block);
    // Where block `id` starts in the file; false when that lies beyond what
    // a file offset can say.
    bool placeOf(quint64 id, quint64& position) const;
    void addToLRU(Block* block);
    void removeFromLRU(Block* block);
    Block* discardedFromLRU();
    Block* headFromLRU();
    void emptyCache();
    void checkInvariant() const;
    void traceBusy() const;
    // Blocks in memory that eviction may consider: the held ones are not.
    unsigned cachedCount() const { return unsigned(moHash.size()) - muiHeldBlocks; }
    // The block's place is to get its data, or zeros, at the next writeHeld().
    void holdBlock(Block* block);
    void holdZeros(Block* block);
    void unpin(Block* block);
    // Writes a block's bytes at the place of `id`.
    bool writeAt(quint64 id, const void* data);

    bool mbWriteThrough;
    unsigned muiCacheSize;
    RawFile moFile;
    QString msShortName;
    // The blocks in memory by full id, chained through the blocks themselves:
    // a block coming into memory or leaving it allocates nothing, and a
    // look-up is one multiplication and a walk along a chain of about one.
    struct Table {
        Block* value(quint64 id) const;
        void insert(Block* block);
        void remove(Block* block);
        int size() const { return int(uiCount); }
        // Calls `f` on every block; `f` may free the block it is given.
        template <typename F>
        void forEach(F f) const;
        void clear();
        unsigned bucketOf(quint64 id) const;

        std::vector<Block*> oBuckets;
        unsigned uiCount = 0;
        // 64 minus the bucket count's power of two.
        unsigned uiShift = 64;
    };
    Table moHash;
    Block* mpoLRUHead = nullptr;
    Block* mpoLRUTail = nullptr;
    unsigned muiBlockSize = 0;
    unsigned muiLRULength = 0;
    quint64 mullHits = 0;
    quint64 mullMisses = 0;
    quint64 mullIdMask = ~quint64(0);
    unsigned muiAllocationSize = 0;
    Buffer moZeroBlock;

    // What a transaction has changed, by place: the block whose data go there,
    // or null for zeros, with the full id the block had.
    struct Held {
        Block* poBlock;
        quint64 ullId;
    };
    bool mbHolding = false;
    std::map<quint64, Held> moHeld;
    unsigned muiHeldBlocks = 0;
    QByteArray moHeldControl;
};

} // namespace Brevi

#endif
