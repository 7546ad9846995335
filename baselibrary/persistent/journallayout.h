#ifndef BASELIBRARY_PERSISTENT_JOURNALLAYOUT_H
#define BASELIBRARY_PERSISTENT_JOURNALLAYOUT_H

#include "brevi_export.h"
#include "core/byteorder.h"

#include <QtGlobal>

#include <cstddef>

// The bytes of the journal beside a block file: the block file's path +
// ".journal". All integers are raw little-endian.
//
// The journal is a redo log. Everything one transaction changes in the block
// file and its free list (persistent/blocklayout.h) is written here first, as
// one transaction; only then are the same bytes written to their places. So at
// every moment either the journal holds the transaction whole, and opening the
// file writes it again, or the files still hold what they held before it.
//
// The file is a run of transactions from offset 0. Each one's sequence number
// is one above the one before it; the run ends at the first transaction that is
// not complete: short, without its magic words, with another sequence number or
// with a checksum that does not match. What follows that point is left from
// earlier runs and is never read. Replaying a transaction twice does no harm,
// as it holds whole images, not differences.
//
// Transaction header, 32 bytes
//   0   4  magic "BJTX" (0x58544a42)
//   4   4  number of records
//   8   8  sequence number
//   16  8  length of the whole transaction, header and commit record included;
//          a multiple of 8
//   24  8  reserved, 0
// Records, one after the other, each a 24-byte head and its bytes:
//   0   4  file: 0 the block file, 1 its free list
//   4   4  kind: 1 bytes follow; 2 zeros, no bytes follow; 3 the file is to be
//          at least `offset` bytes long, no bytes follow
//   8   8  file offset (for kind 3, the length)
//   16  4  number of bytes (0 for kind 3)
//   20  4  reserved, 0
//   24     for kind 1, the bytes, padded with zeros to a multiple of 8
// Commit record, 16 bytes:
//   0   4  magic "BJCM" (0x4d434a42)
//   4   4  CRC-32C (Castagnoli) of every byte of the transaction before this
//          field, from the header's magic to the commit record's magic
//   8   8  the sequence number again
namespace Brevi {
namespace JournalLayout {

const char* const Suffix = ".journal";

const quint32 TransactionMagic = 0x58544a42; // "BJTX"
const quint32 CommitMagic = 0x4d434a42;      // "BJCM"

const unsigned HeaderSize = 32;
const unsigned HeaderMagicOffset = 0;
const unsigned HeaderCountOffset = 4;
const unsigned HeaderSequenceOffset = 8;
const unsigned HeaderLengthOffset = 16;

const unsigned RecordSize = 24;
const unsigned RecordFileOffset = 0;
const unsigned RecordKindOffset = 4;
const unsigned RecordPlaceOffset = 8;
const unsigned RecordLengthOffset = 16;

const unsigned CommitSize = 16;
const unsigned CommitMagicOffset = 0;
const unsigned CommitChecksumOffset = 4;
const unsigned CommitSequenceOffset = 8;

enum File { BlockFile = 0, FreeListFile = 1, FileCount = 2 };
enum Kind { KindBytes = 1, KindZeros = 2, KindLength = 3 };

// Not a limit of the format: a record longer than this is taken for garbage.
const unsigned MaximumRecordLength = 64u * 1024 * 1024;

inline unsigned padded(unsigned length) { return (length + 7) & ~7u; }

// CRC-32C of `length` bytes, continuing from `crc` (0 to start).
BREVI_EXPORT quint32 checksum(const void* data, size_t length, quint32 crc = 0);

} // namespace JournalLayout
} // namespace Brevi

#endif
