#ifndef BASELIBRARY_PERSISTENT_PAGEDLISTLAYOUT_H
#define BASELIBRARY_PERSISTENT_PAGEDLISTLAYOUT_H

#include <QtGlobal>

// The bytes of a paged list (PagedList), the same in its memory page and in its
// file. The file is nothing but entries one after another: no header, no
// count, no checksum. A position in the list is the byte offset of an entry.
//
// Entry
//     0   4  size of the entry's bytes, unsigned little-endian
//     4   4  zero
//     8   size  the entry's bytes
//     8 + size  (-size) & 7 zero bytes, so that every entry starts on a
//               multiple of 8
//
// So an entry takes size + 8 + ((-size) & 7) bytes, and an empty entry takes 8.
// A page holds whole entries only; when a page read from the file ends inside
// an entry, that entry is read again at the start of the next page. A file
// that ends inside an entry, or an entry longer than the reader's page, is not
// a valid list.
namespace Brevi {
namespace PagedListLayout {

const unsigned EntryHeaderSize = 8;
const unsigned EntrySizeOffset = 0;
const unsigned EntryZeroOffset = 4;
const unsigned EntryAlignment = 8;

// The bytes an entry of `size` bytes takes, header and padding included. In 64
// bits, since a size near 4 GiB does not fit in 32 once the header is added.
inline quint64 footprint(quint64 size) { return size + EntryHeaderSize + ((0 - size) & (EntryAlignment - 1)); }

} // namespace PagedListLayout
} // namespace Brevi

#endif
