#ifndef BASELIBRARY_PERSISTENT_INDIRECTBLOCK_H
#define BASELIBRARY_PERSISTENT_INDIRECTBLOCK_H

#include "persistent/blockcache.h"

namespace Brevi {

// A file-backed array of 64-bit values keyed by id: the value of an id lies at
// file offset 8 * (id & idMask) (layout in persistent/blocklayout.h). A slot
// never set reads 0; a slot beyond the end of the file cannot be read.
//
// Write-through. A block that set() has to make stays referenced, and so in
// memory, until the file is closed: the blocks being filled are the ones about
// to be filled again.
//
// One thread at a time; nothing locks.
class BREVI_EXPORT IndirectBlock
{
public:
    explicit IndirectBlock(unsigned cacheSize = 1024);

    bool create(const QString& path, quint64 idMask);
    bool open(const QString& path, quint64 idMask);
    // False when nothing is open.
    bool close();
    bool flush();

    bool set(quint64 id, quint64 value);
    // False when the slot's block is not in the file.
    bool get(quint64& value, quint64 id) const;
    // Flushes, then copies the file to `to`.
    bool snapshot(const QString& to);

    quint64 cacheHits() const { return moCache.hits(); }
    quint64 cacheMisses() const { return moCache.misses(); }
    unsigned cacheSize() const { return moCache.getCacheSize(); }
    // Blocks held in memory now, pinned ones included.
    unsigned cachedBlocks() const { return moCache.size(); }
    const QString& path() const { return moCache.path(); }

    operator OperatorBoolGenerator<IndirectBlock>::Result() const
    {
        return OperatorBoolGenerator<IndirectBlock>::make(bool(moCache));
    }

private:
    // Mutable: reading through the cache changes what it holds, not what the
    // file says.
    mutable BlockCache moCache;
    quint64 mullMask = ~quint64(0);
};

} // namespace Brevi

#endif
