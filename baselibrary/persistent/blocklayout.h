#ifndef BASELIBRARY_PERSISTENT_BLOCKLAYOUT_H
#define BASELIBRARY_PERSISTENT_BLOCKLAYOUT_H

#include <QtGlobal>

// The bytes of the block files. All integers are raw little-endian; no file
// has a version field, a header on its blocks or a checksum. Changes reach a
// block file and its free list through the journal beside them
// (persistent/journallayout.h), which has both.
//
// Block file (Blocks)
//   The file is an array of blocks of one size; block id b lies at file offset
//   (b & IdMask) * block size. The bits of an id above IdMask are its
//   generation and have no part in its place.
//   Block 0 is reserved. Its first 24 bytes are the control record; the rest of
//   block 0 is never written:
//     0   8  total block count, block 0 included
//     8   4  block size in bytes, at least 24
//     12  4  reserved, 0
//     16  8  IdMask: all ones shifted right by the number of generation bits
//   The file is extended in steps and may stand longer than the blocks in use;
//   blocks never used read as zeros. A freed block is zeroed on disk.
//
// Free list (the block file's path + ".free"), blocks of 4096 bytes
//   Block 0: entry count, 8 bytes at offset 0; the rest of block 0 is unused.
//   Entry i (from 0), an id of 8 bytes, lies in block (i >> 9) + 1 at slot
//   i & 0x1ff, so at offset 4096 * ((i >> 9) + 1) + 8 * (i & 0x1ff). Entries at
//   and above the count are stale. The stack's top is entry count - 1.
//
// Reference counts, blocks of 4096 bytes, no control record
//   Entry of id k = id & mask at offset 4096 * (k >> 8) + 16 * (k & 0xff):
//     0   8  id as the caller gave it; 0 means the entry is empty
//     8   4  count; all ones sticks
//     12  4  reserved, 0
//
// Indirect blocks, blocks of 4096 bytes, no control record
//   The 8-byte value of id k = id & mask lies at offset 8 * k.
namespace Brevi {
namespace BlockLayout {

// Block file control record.
const unsigned ControlSize = 24;
const unsigned ControlTotalCountOffset = 0;
const unsigned ControlBlockSizeOffset = 8;
const unsigned ControlReservedOffset = 12;
const unsigned ControlIdMaskOffset = 16;
// The control record must fit in block 0.
const unsigned MinimumBlockSize = ControlSize;
// Not a limit of the format: a control record above this is taken for
// garbage rather than trusted with an allocation of that size.
const unsigned MaximumBlockSize = 64u * 1024 * 1024;
const quint64 FirstBlock = 1;
// Blocks added at once when the caller gives no grow size.
const quint64 CreateGrowBlocks = 0x2800;
const quint64 OpenGrowBlocks = 0x400;

// Companion file of the free list.
const char* const FreeListSuffix = ".free";
const unsigned FreeListBlockSize = 4096;
const unsigned FreeListCountOffset = 0;
const unsigned FreeListEntrySize = 8;
const unsigned FreeListEntryShift = 9;
const unsigned FreeListEntriesPerBlock = 1u << FreeListEntryShift;
const unsigned FreeListSlotMask = FreeListEntriesPerBlock - 1;

inline quint64 freeListEntryBlock(quint64 entry) { return (entry >> FreeListEntryShift) + 1; }
inline unsigned freeListEntrySlot(quint64 entry) { return unsigned(entry & FreeListSlotMask); }
inline quint64 freeListEntryOffset(quint64 entry)
{
    return FreeListBlockSize * freeListEntryBlock(entry) + FreeListEntrySize * freeListEntrySlot(entry);
}

// Reference count file.
const unsigned ReferenceCountBlockSize = 4096;
const unsigned ReferenceCountEntrySize = 16;
const unsigned ReferenceCountEntryShift = 8;
const unsigned ReferenceCountSlotMask = (1u << ReferenceCountEntryShift) - 1;
const unsigned ReferenceCountIdOffset = 0;
const unsigned ReferenceCountCountOffset = 8;
const unsigned ReferenceCountReservedOffset = 12;

inline quint64 referenceCountBlock(quint64 k) { return k >> ReferenceCountEntryShift; }
inline unsigned referenceCountSlot(quint64 k) { return unsigned(k & ReferenceCountSlotMask); }

// Indirect block file.
const unsigned IndirectBlockSize = 4096;
const unsigned IndirectValueSize = 8;
const unsigned IndirectEntryShift = 9;
const unsigned IndirectSlotMask = (1u << IndirectEntryShift) - 1;

inline quint64 indirectBlock(quint64 k) { return k >> IndirectEntryShift; }
inline unsigned indirectSlot(quint64 k) { return unsigned(k & IndirectSlotMask); }

// All ones shifted right by `generationBits`; 0 from 64 on.
inline quint64 idMaskFor(unsigned generationBits) { return generationBits >= 64 ? 0 : (~quint64(0) >> generationBits); }

// A mask of low bits only, as idMaskFor makes them, and not empty.
inline bool plausibleIdMask(quint64 mask) { return mask != 0 && (mask & (mask + 1)) == 0; }

} // namespace BlockLayout
} // namespace Brevi

#endif
