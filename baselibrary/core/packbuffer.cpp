#include "core/packbuffer.h"

#include <boost/make_shared.hpp>

namespace Brevi {

namespace {
const unsigned SizeField = 4;
}

PackBuffer::PackBuffer(unsigned capacity)
{
    // One block for the field and the items, so that appending up to the
    // capacity never reallocates.
    Buffer::size(capacity + SizeField);
    reset();
}

void PackBuffer::reset()
{
    muiSize = SizeField;
    muiAvailable = 0;
    mpData[SizeField] = 0;
}

void PackBuffer::append(const void* bytes, unsigned n)
{
    unsigned char* at = extend(SizeField + n);
    ByteOrder::store32(at, n);
    if (n)
        std::memcpy(at + SizeField, bytes, n);
}

void PackBuffer::appendPacked(const Extent& packed)
{
    if (packed.size())
        std::memcpy(extend(packed.size()), packed.data(), packed.size());
}

unsigned PackBuffer::size() const
{
    ByteOrder::store32(mpData, muiSize - SizeField);
    return muiSize;
}

Extent PackBuffer::extent() const { return Extent(mpData, size()); }

boost::shared_ptr<Buffer> PackBuffer::messageBuffer() const
{
    if (muiSize <= SizeField)
        return boost::shared_ptr<Buffer>();
    return boost::make_shared<Buffer>(extentWithoutSize());
}

} // namespace Brevi
