#ifndef BASELIBRARY_PERSISTENT_BPLUSTREELAYOUT_H
#define BASELIBRARY_PERSISTENT_BPLUSTREELAYOUT_H

#include "core/byteorder.h"

#include <QtGlobal>

// The bytes of a B+ tree in a block file (persistent/blocklayout.h). All
// integers are raw little-endian. Block 0 is the block file's control record.
//
// Block 1, the tree header: the block id of the root node in its first 8
// bytes; the rest is unused.
//
// Every other block in use is a node. B is the block size, D = B - 32.
//
// KeyHash, 8 bytes: the 32-bit hash, then the 32-bit sequence number. Keys are
// ordered by hash, then by sequence, both unsigned. Sequence 0 is never stored:
// it searches for the place before every record of its hash.
//
// Leaf
//   0          4   flags: bit 0 root, bit 1 leaf (set); other bits 0
//   4          4   n: number of the last slot = number of records
//   8          8   block id of the next leaf to the right, 0 at the right edge
//   16         16  slot 0, the sentinel: KeyHash 0, data offset D, size 0
//   16(i+1)    16  slot i, 1 <= i <= n: KeyHash (8), data offset (4), record
//                  size in bytes (4)
//   ...            free space
//   32 + off   ... the records, packed from the end of the block downwards in
//                  slot order: off(i) = off(i - 1) - size(i) rounded up to 8
//   Data offsets count from byte 32. freeSpace(n) = off(n) - 16n; the footprint
//   of record i, slot included, is off(i - 1) - off(i) + 16.
//
// Internal node
//   0          4   flags: bit 0 root, bit 1 clear
//   4          4   n: number of the last entry; there are n + 1 children
//   8 + 16i    8   KeyHash of entry i: the lowest KeyHash below child i
//   16 + 16i   8   block id of child i
//   Entry 0's KeyHash takes no part in searches.
//
// Parameters, from the block size alone (for B = 4096):
//   Factor          (B - 8) >> 5                              127
//   MaximumEntries  2 Factor - 1: an internal node is full    253
//   DataSize        B - 32                                    4064
//   MaximumKeySize  (((D >> 1) - 16) & ~7) + 16               2032
// MaximumKeySize is the largest footprint of one record (slot included), the
// byte count at which a leaf splits, and the most free space a leaf may keep
// after a deletion without rebalancing.
//
// Balance: a non-root internal node has from Factor - 1 to MaximumEntries
// entries beyond entry 0, an internal root at least 1. A leaf other than the
// root holds at least one record; leaves are balanced by bytes, loosely, since
// a merge that would not fit is not made.
namespace Brevi {
namespace BPlusTreeLayout {

const quint64 HeaderBlock = 1;
const unsigned HeaderRootOffset = 0;

const unsigned FlagsOffset = 0;
const unsigned CountOffset = 4;
const unsigned NextOffset = 8;
const unsigned FlagRoot = 0x1;
const unsigned FlagLeaf = 0x2;
const unsigned FlagMask = FlagRoot | FlagLeaf;

const unsigned KeyHashSize = 8;
const unsigned KeyHashSequenceOffset = 4;

// Leaf slots.
const unsigned SlotSize = 16;
const unsigned SlotHashOffset = 0;
const unsigned SlotDataOffset = 8;
const unsigned SlotRecordSizeOffset = 12;
const unsigned DataAreaOffset = 32;
const unsigned RecordAlignment = 8;

// Internal entries.
const unsigned EntrySize = 16;
const unsigned EntryHashOffset = 8;
const unsigned EntryChildOffset = 16;

// Below this an internal node would have a single child after a split, and the
// deletion could no longer find a sibling to merge with. A block of this size
// holds only empty records; 128 bytes hold records of up to 32.
const unsigned MinimumBlockSize = 72;

// Deeper than any tree whose nodes have at least two children can be in a
// 64-bit block space: a descent that goes further is walking a cycle.
const unsigned MaximumDepth = 64;

struct Parameters {
    unsigned factor = 0;
    unsigned maximumEntries = 0;
    unsigned dataSize = 0;
    unsigned maximumKeySize = 0;
};

inline Parameters parametersFor(unsigned blockSize)
{
    Parameters p;
    p.factor = (blockSize - 8) >> 5;
    p.maximumEntries = 2 * p.factor - 1;
    p.dataSize = blockSize - 32;
    p.maximumKeySize = ((((blockSize - 32) >> 1) - 16) & ~7u) + 16;
    return p;
}

inline unsigned roundRecord(unsigned size) { return (size + RecordAlignment - 1) & ~(RecordAlignment - 1); }
inline unsigned slotOffset(unsigned slot) { return SlotSize * (slot + 1); }
inline unsigned entryHashOffset(unsigned entry) { return EntryHashOffset + EntrySize * entry; }
inline unsigned entryChildOffset(unsigned entry) { return EntryChildOffset + EntrySize * entry; }

// A KeyHash as one number in its order: hash above, sequence below.
inline quint64 orderValue(const unsigned char* keyHash)
{
    return (quint64(ByteOrder::load32(keyHash)) << 32) | ByteOrder::load32(keyHash + KeyHashSequenceOffset);
}

} // namespace BPlusTreeLayout
} // namespace Brevi

#endif
