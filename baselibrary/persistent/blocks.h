#ifndef BASELIBRARY_PERSISTENT_BLOCKS_H
#define BASELIBRARY_PERSISTENT_BLOCKS_H

#include "persistent/blockcache.h"
#include "persistent/freelist.h"
#include "persistent/journal.h"

namespace Brevi {

// Fixed-size blocks with allocation: a block file whose block 0 holds a control
// record, a free list in the companion file path + ".free", and growth of the
// file in large steps (layout in persistent/blocklayout.h).
//
// Changes are made in transactions. Between begin() and commit() nothing
// reaches the files: the blocks changed stay in memory. commit() writes all of
// them (blocks, the control record, the free list) to the journal beside the
// file (path + ".journal", persistent/journallayout.h) and then to their
// places; open() writes again a transaction that the journal holds whole, and
// drops one that it does not. So a transaction reaches the files all together
// or not at all, whenever the process stops. abort(), or a commit() that
// fails, leaves the files as they were and the blocks in memory as the files
// have them. A call that changes something outside a transaction is a
// transaction of its own, so it too reaches the file whole before it returns.
//
// Durability: with eProcessSafe (the default) a committed transaction
// survives the process being killed at any moment, as its bytes are in the
// kernel's hands; a crash of the system or a power loss may lose the last
// transactions, but never leaves a transaction in part. With eSynchronous
// commit() also waits until the journal is on the disk (fdatasync), so that a
// committed transaction survives a power loss too.
//
// One opener at a time: create() and open() take an exclusive lock on the
// block file, and a second opener, in this process or another, is refused
// ("Block file is open elsewhere"; lockedElsewhere() tells it apart).
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
// object.
class BREVI_EXPORT Blocks
{
public:
    enum Durability { eProcessSafe = 0, eSynchronous = 1 };

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
    // Forgets an open transaction, and closes the files and the journal.
    bool close();
    // Whether the last create() or open() was refused because another opener
    // holds the file.
    bool lockedElsewhere() const { return mbLockedElsewhere; }

    // Takes effect at once, and lasts across opens.
    void setDurability(Durability durability) { meDurability = durability; }
    Durability durability() const { return meDurability; }

    // Starts a transaction. False when one is open already, when the file is
    // not open, or when an earlier commit could not write its changes to the
    // files: then nothing more is changed until the file is opened again,
    // which writes them from the journal.
    bool begin();
    // Makes the transaction's changes durable, all together. False when they
    // could not be: then they are undone as by abort().
    bool commit();
    // Undoes the transaction's changes: the control record's counts and the
    // free list are as at begin(), and blocks still referenced hold the
    // file's bytes again.
    void abort();
    bool inTransaction() const { return mbInTransaction; }
    // Whether the open transaction has changed anything yet.
    bool hasChanges() const;

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
    // Locks the block file and opens the journal; an open writes again what
    // the journal holds.
    bool lockAndRecover(const QString& path, bool recover);
    bool synchronous() const { return meDurability == eSynchronous; }
    // newBlock() within a transaction.
    void* makeBlock(quint64& id);
    // A change that failed inside a transaction fails its commit.
    bool noteResult(bool result);
    // Makes the files long enough for the changes of the commit before the
    // journal takes them, so that writing them to their places cannot fail
    // for want of room granted.
    bool reserve();

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

    Journal moJournal;
    Durability meDurability = eProcessSafe;
    bool mbLockedElsewhere = false;
    bool mbInTransaction = false;
    bool mbFailed = false;
    // An earlier commit could not write everything to the files.
    bool mbUnwritten = false;
    // What abort() puts back.
    quint64 mullSavedTotalBlockCount = 0;
    quint64 mullSavedFreeCount = 0;
    // Lengths the files are known to have at least.
    quint64 mullFileLength[JournalLayout::FileCount] = {};
    // The changes of a commit; kept to spare an allocation per commit.
    std::vector<JournalChange> moChanges;
};

} // namespace Brevi

#endif
