#ifndef BASELIBRARY_PERSISTENT_JOURNALEDFILE_H
#define BASELIBRARY_PERSISTENT_JOURNALEDFILE_H

#include "brevi_export.h"
#include "persistent/journal.h"
#include "persistent/rawfile.h"

#include <QString>

#include <map>

namespace Brevi {

// One file of a block file's set, the block file or its free list, as the
// next open will find it: its bytes on disk with the complete transactions of
// the journal beside it laid over them (persistent/journallayout.h).
//
// For the checkers and tools, which never write: a file whose last
// transaction was committed but had not reached its places when its process
// stopped is judged as the open that follows will see it.
//
// Read-only; one thread at a time.
class BREVI_EXPORT JournaledFile
{
public:
    // `file` is JournalLayout::BlockFile or JournalLayout::FreeListFile.
    JournaledFile(const QString& blockFilePath, unsigned file);
    JournaledFile(const JournaledFile&) = delete;
    JournaledFile& operator=(const JournaledFile&) = delete;

    // Whether the file is there to read (the journal may be missing).
    bool isOpen() const { return bool(moFile); }
    // The file's length once the journal is replayed.
    quint64 size() const { return mullSize; }
    // True when all `count` bytes at `offset` lie within size().
    bool read(quint64 offset, void* data, unsigned count);
    // How many transactions the journal holds whole.
    unsigned transactions() const { return muiTransactions; }

private:
    RawFile moFile;
    quint64 mullFileSize = 0;
    quint64 mullSize = 0;
    unsigned muiTransactions = 0;
    // The last bytes the journal has for each place, by offset. A record of
    // zeros keeps its length and no bytes.
    std::map<quint64, JournalRecord> moImages;
};

} // namespace Brevi

#endif
