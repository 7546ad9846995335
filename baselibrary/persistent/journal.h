#ifndef BASELIBRARY_PERSISTENT_JOURNAL_H
#define BASELIBRARY_PERSISTENT_JOURNAL_H

#include "brevi_export.h"
#include "persistent/journallayout.h"
#include "persistent/rawfile.h"

#include <QByteArray>
#include <QString>

#include <vector>

namespace Brevi {

// One change of a transaction: bytes for a place in one of the files, zeros
// for it, or a length the file must reach (JournalLayout::Kind).
struct JournalChange {
    unsigned file = JournalLayout::BlockFile;
    unsigned kind = JournalLayout::KindBytes;
    // The place in the file; for KindLength, the length.
    quint64 offset = 0;
    unsigned length = 0;
    // KindBytes only. append() copies them; the caller keeps them.
    const unsigned char* data = nullptr;
};

// A change as read back from a journal file, holding its own bytes.
struct JournalRecord {
    unsigned file = JournalLayout::BlockFile;
    unsigned kind = JournalLayout::KindBytes;
    quint64 offset = 0;
    unsigned length = 0;
    QByteArray bytes;
};

// The redo journal beside a block file (layout in persistent/journallayout.h).
// Blocks writes each transaction here before it writes the same bytes to the
// block file and its free list, so that a process stopped at any moment leaves
// either the whole transaction in the journal, for the next open to write
// again, or none of it anywhere.
//
// What each call guarantees depends on `synchronous`: without it a call has
// handed its bytes to the kernel, which is enough for them to survive the
// process; with it they are on the disk (fdatasync) before the call returns,
// and survive a power loss too.
//
// Failure: false, with a trace line at TraceAlways. One thread at a time.
class BREVI_EXPORT Journal
{
public:
    Journal();
    ~Journal();
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;

    // Opens the journal of the block file at `blockFilePath`; the file is made
    // by the first append(). What it holds stays until recover() or empty().
    bool open(const QString& blockFilePath);
    bool close();

    // Writes every complete transaction the journal holds into the block file
    // and its free list, in order, and then empties the journal; `replayed`
    // gets how many there were. With `synchronous` the files reach the disk
    // before the journal is emptied. False when a file could not be written:
    // the journal then keeps everything, for the next attempt.
    bool recover(bool synchronous, unsigned& replayed);
    // Appends one transaction. False when it could not be written whole; it
    // then does not count, and the next append takes its place.
    bool append(const std::vector<JournalChange>& changes, bool synchronous);
    // The next transaction goes to the start of the file again. Only for when
    // every transaction appended so far is in the files themselves.
    void restart() { mullPosition = 0; }
    // Leaves the journal holding no transaction (and waits for the disk when
    // asked).
    bool empty(bool synchronous);
    // Bytes appended since the last restart.
    quint64 size() const { return mullPosition; }

    // The changes of the complete transactions in the journal of the block
    // file at `blockFilePath`, in the order they are to be written; the
    // number of transactions, 0 when there is no journal. Read-only.
    static unsigned read(const QString& blockFilePath, std::vector<JournalRecord>& records);

private:
    RawFile moFile;
    QString msBlockFilePath;
    quint64 mullPosition = 0;
    quint64 mullSequence = 0;
    // The transaction being written; kept to spare an allocation per commit.
    std::vector<unsigned char> moBuffer;
};

} // namespace Brevi

#endif
