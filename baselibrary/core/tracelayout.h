#ifndef BASELIBRARY_CORE_TRACELAYOUT_H
#define BASELIBRARY_CORE_TRACELAYOUT_H

// The bytes of a trace buffer, the one structure that crosses processes without
// a lock: the owner writes records while the Hub reads them and writes level
// nibbles. All integers are little-endian.
//
// Buffer
//   0     4    0xDEADBEEF while active, else 0
//   4     4    0xBEEFDEAD while active, else 0
//   8     4    offset of the trailer, where the next record will start
//   12    512  levels: one nibble per module 1..1024; module m in byte
//              12 + ((m - 1) >> 1), odd m in the low nibble, even m in the high
//   524   ...  the ring; the byte after offset size - 1 is offset 524
//
// Record (any field may wrap)
//   0  1  0x01            9  4  sequence            13 4  length of previous record
//   17 10 "ddhhmmss.z"    27 1  0                   28 1  level
//   29 2  module id       31 2  id field (0)        33 4  source line
//   37 2  n = characters of the source base name    39 2n the name, 16 bits each
//   then values: type byte, format word (2), payload; then 0xFE
//
// Trailer: 17 bytes shaped like a header: 0xFF, magic, next sequence number,
// length of the newest record. It stands right behind the newest record, and
// offset 8 points at it.
//
// Value types: 2 bool (1 byte), 3 string of bytes (2-byte length, then bytes),
// 4 string of 16-bit characters (2-byte length in characters), 5 int32,
// 6 uint32, 7 int64, 8 uint64, 9 pointer 32, 10 pointer 64.

namespace Brevi {
namespace TraceLayout {

const unsigned MarkOffset1 = 0;
const unsigned MarkOffset2 = 4;
const unsigned Mark1 = 0xDEADBEEF;
const unsigned Mark2 = 0xBEEFDEAD;
const unsigned TrailerPositionOffset = 8;
const unsigned LevelsOffset = 12;
const unsigned LevelsSize = 512;
const unsigned RingOffset = 524;
const unsigned ModuleCount = 1024;

// A buffer below this is refused and the private one used instead. The bound
// is smaller than the header: it is kept as it has always been.
const unsigned MinimumBufferSize = 490;
const unsigned PrivateBufferSize = 8192;
// Header, one record header and one trailer.
const unsigned RecordOverhead = 558;

const unsigned HeaderSize = 17;
const unsigned char HeaderStart = 0x01;
const unsigned char TrailerStart = 0xFF;
const unsigned char RecordEnd = 0xFE;
const unsigned RecordMagic1 = 0xBEEFBEEF;
const unsigned RecordMagic2 = 0xDEADDEAD;

const unsigned SequenceOffset = 9;
const unsigned PreviousLengthOffset = 13;
const unsigned TimeOffset = 17;
const unsigned TimeLength = 10;
const unsigned LevelOffset = 28;
const unsigned ModuleOffset = 29;
const unsigned IdOffset = 31;
const unsigned SourceLineOffset = 33;
const unsigned SourceLengthOffset = 37;
const unsigned SourceNameOffset = 39;
// Fixed fields behind the header, up to the source name.
const unsigned FixedFieldsSize = SourceNameOffset - HeaderSize;

enum ValueType : unsigned char {
    ValueBool = 2,
    ValueString8 = 3,
    ValueString16 = 4,
    ValueInt32 = 5,
    ValueUint32 = 6,
    ValueInt64 = 7,
    ValueUint64 = 8,
    ValuePointer32 = 9,
    ValuePointer64 = 10
};

// Format word of a value.
const unsigned FormatWidthMask = 0x0FFF;
const unsigned FormatHex = 0x1000;
const unsigned FormatOctal = 0x2000;
const unsigned FormatLeft = 0x4000;
const unsigned FormatBlank = 0x8000;

inline unsigned levelNibble(const unsigned char* levels, unsigned module)
{
    const unsigned char byte = levels[(module - 1) >> 1];
    return (module & 1) ? (byte & 0x0F) : (byte >> 4);
}

inline void setLevelNibble(unsigned char* levels, unsigned module, unsigned level)
{
    unsigned char& byte = levels[(module - 1) >> 1];
    byte = (module & 1) ? static_cast<unsigned char>((byte & 0xF0) | (level & 0x0F))
                        : static_cast<unsigned char>((byte & 0x0F) | ((level & 0x0F) << 4));
}

} // namespace TraceLayout
} // namespace Brevi

#endif
