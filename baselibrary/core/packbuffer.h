#ifndef BASELIBRARY_CORE_PACKBUFFER_H
#define BASELIBRARY_CORE_PACKBUFFER_H

#include "core/buffer.h"
#include "core/byteorder.h"

#include <boost/shared_ptr.hpp>

namespace Brevi {

// Builds the system's untagged wire encoding by appending values.
//
// Layout: a 4-byte little-endian count of the bytes that follow, then the items
// in the order appended. Integers have fixed widths (bool 1, int 4, long long 8),
// little-endian; byte strings and QStrings (as UTF-8) are a 4-byte length and
// the bytes, with no terminator. Reader and writer must agree on the sequence:
// nothing is tagged. The count is only stored by size() and extent().
//
// A PackBuffer sized well at construction never reallocates.
class BREVI_EXPORT PackBuffer : public Buffer
{
public:
    explicit PackBuffer(unsigned capacity = 64);

    // Back to only the size field, keeping the block.
    void reset();

    void append(bool value) { *extend(1) = value ? 1 : 0; }
    void append(int value) { ByteOrder::store32(extend(4), std::uint32_t(value)); }
    void append(unsigned value) { ByteOrder::store32(extend(4), value); }
    void append(long long value) { ByteOrder::store64(extend(8), std::uint64_t(value)); }
    void append(unsigned long long value) { ByteOrder::store64(extend(8), value); }
    void append(const QByteArray& value) { append(value.constData(), unsigned(value.size())); }
    // The Extent's whole view, whatever its cursor.
    void append(const Extent& value) { append(value.data(), value.size()); }
    void append(const void* bytes, unsigned n);
    void append(const QString& value) { append(value.toUtf8()); }
    void append(const char* value) = delete; // say QString or QByteArray
    // Bytes with no length, to splice in a run packed elsewhere.
    void appendPacked(const Extent& packed);

    unsigned char* data() const { return mpData; }
    // Store the item count at offset 0; the whole size including the field.
    unsigned size() const;
    Extent extent() const;
    // The items alone; the size field is not stored.
    Extent extentWithoutSize() const { return Extent(mpData + 4, muiSize - 4); }
    // A copy of the items, the form in which a body goes to a message; empty
    // when there are no items.
    boost::shared_ptr<Buffer> messageBuffer() const;

private:
    // Grows by n bytes and returns where they go.
    unsigned char* extend(unsigned n)
    {
        const unsigned start = muiSize;
        if (start + n < allocated()) {
            muiSize = start + n;
            mpData[muiSize] = 0;
        } else {
            Buffer::size(start + n);
        }
        muiAvailable = 0;
        return mpData + start;
    }
};

} // namespace Brevi

#endif
