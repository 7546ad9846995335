#ifndef BASELIBRARY_PERSISTENT_FREELIST_H
#define BASELIBRARY_PERSISTENT_FREELIST_H

#include "persistent/blockcache.h"

namespace Brevi {

// A persistent stack of free block ids: the ".free" companion of every Blocks
// file (layout in persistent/blocklayout.h).
//
// put() pushes a freed id with its generation raised by one (the bits above the
// id mask count how often the block was freed); grow() pushes fresh ids in
// falling order so that the lowest comes off first; get() pops, last in first
// out. Every operation writes the entry count to the file at once, so that the
// file is right whenever the process stops; inside a transaction of the
// Blocks it belongs to, its changes are held with the block file's and
// reach the file with them (persistent/blocks.h).
//
// Failure by result and trace ("Failed to create freelist file", "Failed to
// open freelist file", "Failed to write control record"). One thread at a
// time; nothing locks.
class BREVI_EXPORT FreeList
{
public:
    explicit FreeList(unsigned cacheSize = 2);

    // Makes the file empty of entries (an existing file keeps its blocks, but
    // its count becomes 0).
    bool create(const QString& path, quint64 idMask);
    bool open(const QString& path, quint64 idMask);
    // Writes the count and closes.
    bool close();
    bool flush();

    // Pushes `id` plus one generation (idMask + 1; nothing with an id mask of
    // all ones).
    bool put(quint64 id);
    // Pushes firstId + count - 1 down to firstId, as they are. True at once for
    // a count of 0.
    bool grow(quint64 firstId, quint64 count);
    // Pops the most recent entry. False on an empty list, with `id` untouched.
    bool get(quint64& id);
    quint64 entryCount() const { return mullEntryCount; }

    const QString& path() const { return moCache.path(); }

    // True while the file is open and set up.
    operator OperatorBoolGenerator<FreeList>::Result() const
    {
        return OperatorBoolGenerator<FreeList>::make(bool(moCache));
    }

private:
    // Blocks holds the free list's changes in its own transactions, and puts
    // the count back when one is undone.
    friend class Blocks;

    bool flushControl();
    // The block holding entry number `entry`, got or made.
    void* entryBlock(quint64 entry);

    // Mutable: reading through the cache changes what it holds, not what the
    // file says.
    mutable BlockCache moCache;
    quint64 mullEntryCount = 0;
    quint64 mullGenerationStep = 0;
};

} // namespace Brevi

#endif
