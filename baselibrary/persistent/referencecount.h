#ifndef BASELIBRARY_PERSISTENT_REFERENCECOUNT_H
#define BASELIBRARY_PERSISTENT_REFERENCECOUNT_H

#include "persistent/blockcache.h"

namespace Brevi {

// A file of 32-bit counters keyed by id (layout in persistent/blocklayout.h).
//
// An id is entered with newId() at a count of 1, counted up and down, and
// released with releaseId() once its count is back at 0. The id is stored
// beside its counter, and every call checks that the entry is the caller's:
// a mismatch is traced ("Error: `ptEntry->ulId == ulId' failed.") and fails.
// A counter that reaches all ones sticks there, up and down.
//
// The file grows by 0x500000 entries (80 MiB) at a time, or more if asked, so
// that new blocks do not cost an extension each. Write-through: every change is
// on disk when the call returns.
//
// One thread at a time; nothing locks.
class BREVI_EXPORT ReferenceCount
{
public:
    static const quint64 DefaultGrowEntries = 0x500000;

    explicit ReferenceCount(unsigned cacheSize = 1024);

    // Ids are masked with `idMask` to find their entry. The grow size rises to
    // `growEntries` when that is larger; it never falls below 0x500000.
    bool create(const QString& path, quint64 idMask, quint64 growEntries = 0);
    bool open(const QString& path, quint64 idMask, quint64 growEntries = 0);
    // False when nothing is open.
    bool close();
    bool flush();

    // The count of `id`; false when the entry is not this id's.
    bool count(unsigned& value, quint64 id) const;
    // Enters `id` with a count of 1; false if its entry is in use.
    bool newId(quint64 id);
    // Clears the entry of `id`; false unless its count is 0.
    bool releaseId(quint64 id);
    bool increment(unsigned& value, quint64 id);
    bool decrement(unsigned& value, quint64 id);

    quint64 cacheHits() const { return moCache.hits(); }
    quint64 cacheMisses() const { return moCache.misses(); }
    unsigned cacheSize() const { return moCache.getCacheSize(); }
    quint64 growEntries() const { return mullGrowEntries; }
    const QString& path() const { return moCache.path(); }

    operator OperatorBoolGenerator<ReferenceCount>::Result() const
    {
        return OperatorBoolGenerator<ReferenceCount>::make(bool(moCache));
    }

private:
    // Mutable: reading through the cache changes what it holds, not what the
    // file says.
    mutable BlockCache moCache;
    quint64 mullMask = ~quint64(0);
    quint64 mullGrowEntries = DefaultGrowEntries;
};

} // namespace Brevi

#endif
