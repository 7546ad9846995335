#ifndef BASELIBRARY_PERSISTENT_BLOCKFILECHECK_H
#define BASELIBRARY_PERSISTENT_BLOCKFILECHECK_H

#include "brevi_export.h"

#include <QString>
#include <QStringList>

namespace Brevi {

// What a check found in a block file and its ".free" companion.
struct BlockFileReport {
    // The control record could be read (the fields below are from it).
    bool controlRead = false;
    quint64 fileSize = 0;
    quint64 totalBlockCount = 0;
    unsigned blockSize = 0;
    unsigned reserved = 0;
    quint64 idMask = 0;
    // The free list could be read.
    bool freeListRead = false;
    quint64 freeFileSize = 0;
    quint64 freeEntryCount = 0;
    // Total less free entries (block 0 counts as used).
    quint64 usedBlockCount = 0;
    // The highest generation found among the free ids.
    quint64 highestGeneration = 0;
    // Transactions the journal holds whole. The files are judged with them
    // written, as the next open will write them.
    unsigned journalTransactions = 0;
    // One line per fault; empty for a sound file.
    QStringList problems;

    bool sound() const { return controlRead && freeListRead && problems.isEmpty(); }
};

// Read-only checks of the persistent block files (persistent/blocklayout.h),
// for tests and inspection tools. They open the files read-only and never
// write; they do not use the classes that maintain the files, so a fault in
// those cannot hide itself. A block file is read as the next open will find
// it: with what its journal holds whole laid over it (JournaledFile).
//
// What a sound block file is: a control record with a block size from 24 up, a
// reserved word of 0, an id mask of low bits only and a total count of at least
// 1; a file at least as long as block 0; a free list whose every block holding
// entries is in the file and whose every entry names a block from 1 to below
// the total count, each block at most once. A block that is neither free nor
// in use (lost when a process stopped between zeroing it and listing it) cannot
// be told from a block in use, and is not a fault.
class BREVI_EXPORT BlockFileCheck
{
public:
    // True when the block file and its free list are sound; `report` says what
    // was read and what was wrong.
    static bool checkBlockFile(const QString& path, BlockFileReport& report);

    // A reference count file: whole blocks only; every entry either empty (all
    // zero) or holding an id whose masked value is the entry's own number, and
    // a reserved word of 0.
    static bool checkReferenceCountFile(const QString& path, quint64 idMask, QStringList& problems);

    // An indirect block file: whole blocks only.
    static bool checkIndirectBlockFile(const QString& path, QStringList& problems);
};

} // namespace Brevi

#endif
