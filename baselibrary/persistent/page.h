#ifndef BASELIBRARY_PERSISTENT_PAGE_H
#define BASELIBRARY_PERSISTENT_PAGE_H

#include "brevi_export.h"
#include "core/buffer.h"

namespace Brevi {

// One page of a paged list: a buffer of a fixed capacity holding whole
// entries in the list's format (persistent/pagedlistlayout.h), with a cursor
// for reading them back.
//
// The page has a length (the bytes it holds) and a position (the bytes handed
// out by get()). put() appends at the length, get() takes from the position;
// neither checks anything but the page's own bounds, which it always checks:
// a get() never reads past the length, whatever the bytes say. The bytes are
// allocated at the first put() or room() call, so an unused page costs
// nothing.
//
// One thread at a time.
class BREVI_EXPORT Page
{
public:
    // The numbers are those of PagedList::Error, which hands them on.
    enum Result {
        eOk = 0,
        // put(): the entry would not fit even in an empty page.
        eTooLarge = 2,
        // get(): no whole entry left between the position and the length.
        eEmpty = 6,
        // put(): the entry does not fit behind what the page holds.
        eFull = 7
    };

    explicit Page(unsigned capacity = 0);

    unsigned capacity() const { return muiCapacity; }
    unsigned length() const { return muiLength; }
    unsigned position() const { return muiPosition; }
    unsigned available() const { return muiLength - muiPosition; }
    bool isEmpty() const { return muiLength == 0; }

    // Appends an entry of the extent's whole view.
    Result put(const Extent& entry);
    // Points `entry` at the next entry's bytes, in the page and without a
    // copy, and moves the position past it. A size word that is not followed
    // by a zero word and the whole entry counts as no entry.
    Result get(Extent& entry);
    // Whether get() would find an entry.
    bool holdsEntry() const;

    // The position back or forth, up to the length.
    void setPosition(unsigned position) { muiPosition = position < muiLength ? position : muiLength; }
    // Drops what lies behind `length` (not beyond the current length); the
    // position follows if it was past it.
    void cut(unsigned length);
    // Empty: length and position 0. The bytes stay allocated.
    void clear() { muiLength = muiPosition = 0; }
    // Frees the bytes as well.
    void release();

    // The capacity's bytes, to load the page from a file; loaded() then says
    // how many came, and the position goes to 0.
    unsigned char* room();
    void loaded(unsigned length);
    // The bytes held, [0, length).
    const unsigned char* data() const { return moBuffer.data(); }

    // The other page's capacity and bytes held; the position goes to 0.
    void assign(const Page& other);
    void swap(Page& other);

private:
    Buffer moBuffer;
    unsigned muiCapacity;
    unsigned muiLength = 0;
    unsigned muiPosition = 0;
};

} // namespace Brevi

#endif
