#ifndef BASELIBRARY_CORE_BUFFER_H
#define BASELIBRARY_CORE_BUFFER_H

#include "core/extent.h"

namespace Brevi {

// An Extent that owns its bytes, or borrows them through fromRawData().
//
// An owning Buffer always allocates one byte more than it can hold and keeps a
// 0 at data()[size()] after every sizing or copying operation, so text in it can
// be handed on as a zero-ended string. Like Extent, nothing checks a bound.
//
// Blocks grow by one rule: below 64 bytes to the next multiple of 8 above
// need + 1, otherwise by doubling from 64 (or 4096 for large needs) until the
// need fits, plus the terminator's byte. A borrowing Buffer becomes owning on
// its first size() call.
//
// Unlike an Extent, a copy of a Buffer keeps the source's cursor.
class BREVI_EXPORT Buffer : public Extent
{
public:
    Buffer() = default;
    explicit Buffer(unsigned n);
    Buffer(const void* source, unsigned n);
    explicit Buffer(const QByteArray& source);
    explicit Buffer(const Extent& source);
    Buffer(const Buffer& other);
    Buffer(Buffer&& other) noexcept;
    ~Buffer();

    Buffer& operator=(const Buffer& other);
    Buffer& operator=(const Extent& other);
    Buffer& operator=(const QByteArray& other);

    void fromRawData(const void* source, unsigned n);
    void fromRawData(const QByteArray& source);
    void fromRawData(const Extent& source) { fromRawData(source.data(), source.size()); }

    using Extent::size;
    unsigned size(unsigned n);
    unsigned allocated() const { return muiAllocated; }
    unsigned reserved() const { return muiAllocated ? muiAllocated - 1 : 0; }
    unsigned grow() { return size(muiAllocated); }
    void reset();

    void copy(const void* source, unsigned n);
    void copy(const QByteArray& source) { copy(source.constData(), unsigned(source.size())); }
    void copy(const Extent& source) { copy(source.data(), source.size()); }

    void swap(Buffer& other);
    // After writing: what has been written becomes what can be read.
    void flip();
    // An empty page as large as the block, cursor at the front.
    void clear();
    // Moves the unread bytes to the front and sizes to the block, with the
    // cursor behind them, so that writing goes on after what is still unread.
    void compact();

    // Bytes a block must have to hold n bytes and the terminator.
    static unsigned allocationFor(unsigned n);

protected:
    // Frees what it owns and allocates exactly n + 1 bytes; size and available n.
    void allocateExactly(unsigned n);

private:
    void adopt(unsigned char* block, unsigned allocated);
    void copyView(const Extent& source, unsigned available);

    unsigned muiAllocated = 0;
};

} // namespace Brevi

#endif
