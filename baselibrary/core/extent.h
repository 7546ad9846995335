#ifndef BASELIBRARY_CORE_EXTENT_H
#define BASELIBRARY_CORE_EXTENT_H

#include "brevi_export.h"

#include <QByteArray>
#include <QString>

namespace Brevi {

// A view on bytes that the Extent does not own, with a cursor.
//
// The cursor is not stored: offset() is size() - available(). Operations that
// move the cursor return the bytes still available behind it, which is what
// callers loop on. Nothing here checks a bound: these are the bytes of packets,
// blocks and channels, and the caller has already worked out the sizes.
//
// A copy starts with its cursor at the front, not where the source's cursor was:
// extents are passed by value and read again from the start. `available` is
// mutable, so reading through a const Extent still moves its cursor.
//
// Buffer derives from Extent and relies on these three fields coming first.
class BREVI_EXPORT Extent
{
public:
    Extent() = default;
    Extent(const void* data, unsigned size)
        : mpData(static_cast<unsigned char*>(const_cast<void*>(data)))
        , muiSize(size)
        , muiAvailable(size)
    {}
    Extent(const QByteArray& array);
    Extent(const Extent& other)
        : mpData(other.mpData)
        , muiSize(other.muiSize)
        , muiAvailable(other.muiSize)
    {}
    Extent& operator=(const Extent& other);
    Extent& operator=(const QByteArray& array);

    unsigned char* data() const { return mpData; }
    unsigned size() const { return muiSize; }
    unsigned offset() const { return muiSize - muiAvailable; }
    unsigned available() const { return muiAvailable; }

    unsigned offset(unsigned n) const { return muiAvailable = muiSize - n; }
    unsigned available(unsigned n) const { return muiAvailable = n; }
    unsigned used(unsigned n) const { return muiAvailable -= n; }
    // Changes the size and keeps the offset. A size below the offset leaves
    // `available` wrapped around: callers must not do that.
    unsigned truncate(unsigned n);

    unsigned char* at() const { return mpData + offset(); }
    unsigned char* at(unsigned n) const
    {
        offset(n);
        return mpData + n;
    }
    unsigned char& operator[](unsigned n) const { return mpData[n]; }

    // Same size and same bytes; the cursors are not compared.
    bool operator==(const Extent& other) const;
    bool operator!=(const Extent& other) const { return !(*this == other); }

    // Does not copy and ignores the cursor: the array is valid while the bytes are.
    QByteArray toQByteArray() const;
    QString toQString() const;
    Extent availableExtent() const { return Extent(at(), muiAvailable); }
    Extent usedExtent() const { return Extent(mpData, offset()); }
    void swap(Extent& other);

    QByteArray hexDump() const;
    QByteArray hexDumpAvailable() const;
    QByteArray hexDumpToOffset() const;

    // Copy in at the cursor and move it. An Extent source gives its whole view.
    unsigned put(char c) const;
    unsigned put(const void* source, unsigned n) const;
    unsigned put(const QByteArray& source) const { return put(source.constData(), unsigned(source.size())); }
    unsigned put(const Extent& source) const { return put(source.mpData, source.muiSize); }
    unsigned putAt(unsigned at, char c) const { return offset(at), put(c); }
    unsigned putAt(unsigned at, const void* source, unsigned n) const { return offset(at), put(source, n); }
    unsigned putAt(unsigned at, const Extent& source) const { return offset(at), put(source); }
    unsigned putAt(unsigned at, const QByteArray& source) const { return offset(at), put(source); }
    // Copies what both cursors allow, and moves both.
    unsigned putAvailable(const Extent& source) const;
    unsigned putAvailableAt(unsigned at, const Extent& source) const { return offset(at), putAvailable(source); }
    unsigned pad(unsigned n, char c) const;
    unsigned padAt(unsigned at, unsigned n, char c) const { return offset(at), pad(n, c); }

    // Copy out from the cursor and move it. An Extent destination takes as many
    // bytes as its size, at its front, and its own cursor does not move.
    unsigned get(char& c) const;
    unsigned get(void* destination, unsigned n) const;
    unsigned get(const Extent& destination) const { return get(destination.mpData, destination.muiSize); }
    unsigned getAt(unsigned at, char& c) const { return offset(at), get(c); }
    unsigned getAt(unsigned at, void* destination, unsigned n) const { return offset(at), get(destination, n); }
    unsigned getAt(unsigned at, const Extent& destination) const { return offset(at), get(destination); }
    unsigned getAvailable(const Extent& destination) const { return destination.putAvailable(*this), muiAvailable; }
    unsigned getAvailableAt(unsigned at, const Extent& destination) const
    {
        return offset(at), getAvailable(destination);
    }

    // Deletes n bytes at the cursor, moving the rest down; size and available fall by n.
    unsigned remove(unsigned n);
    unsigned removeAt(unsigned at, unsigned n) { return offset(at), remove(n); }

    // Bytes from the cursor up to and including the first `terminator`, 0 if none.
    unsigned elementSize(char terminator) const;
    unsigned elementSize(unsigned at, char terminator) const { return offset(at), elementSize(terminator); }

protected:
    unsigned char* mpData = nullptr;
    unsigned muiSize = 0;
    mutable unsigned muiAvailable = 0;
};

} // namespace Brevi

#endif
