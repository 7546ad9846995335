#ifndef BASELIBRARY_PERSISTENT_SPOOLLAYOUT_H
#define BASELIBRARY_PERSISTENT_SPOOLLAYOUT_H

#include "core/byteorder.h"

#include <QString>

// The bytes of a spool: a stream of records that survives restarts, written by
// one side and read by the other, kept in a chain of numbered data files and
// one state file. PagedQueue keeps its records so, and so does the file
// transport of data channels. All integers are raw little-endian; there is no
// version field and no checksum.
//
// Files, for a base path P
//   P.state                  the state file, 48 bytes
//   P.0000000000000001 ...   the data files: a point and the file number in
//                            16 lower-case hexadecimal digits; numbers start
//                            at 1 and go up by one
//
// State file
//     0   8  write state: number of the file being written
//     8   8  write state: offset in it, always between records
//     16  8  write state: records written, ever
//     24  8  read state: number of the file being read
//     32  8  read state: offset in it, always between records
//     40  8  read state: records released, ever
//   Each half is written by its own side only, as one 24-byte write. A record
//   counts as written once the write state points past it: bytes behind the
//   write state's offset are a record whose state never got written, and the
//   next writer cuts them away. A new spool has both states at file 1, offset
//   0, count 0. The read state is never ahead of the write state.
//
// Data file: records one after another, each a header packed as PackBuffer
// packs (core/packbuffer.h): 4 bytes holding the length of the packed values,
// then the values.
//   data record
//     0   4  header length: 8
//     4   4  type: 1
//     8   4  data size, not 0
//     12  size  the data
//   next-file record, the last record of its file
//     0   4  header length: 12
//     4   4  type: 2
//     8   8  number of the next file: this file's number + 1
//   A file ends with its next-file record once its length has reached the
//   spool's largest file size, so a record is never split between files. The
//   reader deletes a file when it moves on from it: the files before the read
//   state's are gone, and the write state's is the last.
namespace Brevi {

// One side's state: where it is and how many records it has done.
struct SpoolState {
    quint64 file = 1;
    quint64 offset = 0;
    quint64 count = 0;

    bool samePlace(const SpoolState& other) const { return file == other.file && offset == other.offset; }
    bool operator==(const SpoolState& other) const { return samePlace(other) && count == other.count; }
    bool operator!=(const SpoolState& other) const { return !(*this == other); }
};

namespace SpoolLayout {

const char* const StateFileSuffix = ".state";
const unsigned StateFileSize = 48;
const unsigned StateSize = 24;
const unsigned WriteStateOffset = 0;
const unsigned ReadStateOffset = 24;
const unsigned StateFileNumberOffset = 0;
const unsigned StateOffsetOffset = 8;
const unsigned StateCountOffset = 16;
const quint64 FirstFileNumber = 1;

const unsigned HeaderLengthSize = 4;
const unsigned DataRecordType = 1;
const unsigned NextFileRecordType = 2;
const unsigned DataHeaderLength = 8;
const unsigned NextFileHeaderLength = 12;
// Bytes of a data record before its data, and of a whole next-file record.
const unsigned DataRecordOverhead = HeaderLengthSize + DataHeaderLength;
const unsigned NextFileRecordSize = HeaderLengthSize + NextFileHeaderLength;
// The header lengths a reader accepts; anything else is not a record.
const unsigned MinimumHeaderLength = DataHeaderLength;
const unsigned MaximumHeaderLength = NextFileHeaderLength;

inline QString statePath(const QString& base) { return base + QLatin1String(StateFileSuffix); }
inline QString dataPath(const QString& base, quint64 number)
{
    return base + QStringLiteral(".%1").arg(number, 16, 16, QChar('0'));
}

inline void storeState(unsigned char* at, const SpoolState& state)
{
    ByteOrder::store64(at + StateFileNumberOffset, state.file);
    ByteOrder::store64(at + StateOffsetOffset, state.offset);
    ByteOrder::store64(at + StateCountOffset, state.count);
}

inline SpoolState loadState(const unsigned char* at)
{
    SpoolState state;
    state.file = ByteOrder::load64(at + StateFileNumberOffset);
    state.offset = ByteOrder::load64(at + StateOffsetOffset);
    state.count = ByteOrder::load64(at + StateCountOffset);
    return state;
}

// The read state is not ahead of the write state.
inline bool statesInOrder(const SpoolState& write, const SpoolState& read)
{
    return read.file >= FirstFileNumber &&
           (read.file < write.file || (read.file == write.file && read.offset <= write.offset)) &&
           read.count <= write.count;
}

} // namespace SpoolLayout
} // namespace Brevi

#endif
