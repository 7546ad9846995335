#include "core/buffer.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Brevi {

unsigned Buffer::allocationFor(unsigned n)
{
    const unsigned m = n + 1;
    if (m < 64)
        return (m & ~7u) + 8;
    unsigned value = m < 4096 ? 64 : 4096;
    while (value < n)
        value *= 2;
    return value + 1;
}

Buffer::Buffer(unsigned n) { allocateExactly(n); }

void Buffer::allocateExactly(unsigned n)
{
    adopt(new unsigned char[n + 1], n + 1);
    muiSize = muiAvailable = n;
    mpData[n] = 0;
}

Buffer::Buffer(const void* source, unsigned n) { copyView(Extent(source, n), n); }
Buffer::Buffer(const QByteArray& source) { copyView(Extent(source), unsigned(source.size())); }
Buffer::Buffer(const Extent& source) { copyView(source, source.size()); }
Buffer::Buffer(const Buffer& other)
    : Extent()
{
    copyView(other, other.available());
}

Buffer::Buffer(Buffer&& other) noexcept
    : Extent()
{
    std::swap(mpData, other.mpData);
    std::swap(muiSize, other.muiSize);
    std::swap(muiAvailable, other.muiAvailable);
    std::swap(muiAllocated, other.muiAllocated);
}

Buffer::~Buffer()
{
    if (muiAllocated)
        delete[] mpData;
}

Buffer& Buffer::operator=(const Buffer& other)
{
    if (this != &other)
        copyView(other, other.available());
    return *this;
}

Buffer& Buffer::operator=(const Extent& other)
{
    if (this != &other)
        copyView(other, other.available());
    return *this;
}

Buffer& Buffer::operator=(const QByteArray& other)
{
    copy(other);
    return *this;
}

// Replaces this buffer by an exact-size owned copy of the source's view.
void Buffer::copyView(const Extent& source, unsigned available)
{
    const unsigned n = source.size();
    unsigned char* block = new unsigned char[n + 1];
    if (n)
        std::memcpy(block, source.data(), n);
    block[n] = 0;
    adopt(block, n + 1);
    muiSize = n;
    muiAvailable = available;
}

void Buffer::adopt(unsigned char* block, unsigned allocated)
{
    if (muiAllocated)
        delete[] mpData;
    mpData = block;
    muiAllocated = allocated;
}

void Buffer::fromRawData(const void* source, unsigned n)
{
    adopt(static_cast<unsigned char*>(const_cast<void*>(source)), 0);
    muiSize = muiAvailable = n;
}

void Buffer::fromRawData(const QByteArray& source) { fromRawData(source.constData(), unsigned(source.size())); }

unsigned Buffer::size(unsigned n)
{
    if (n >= muiAllocated) {
        const unsigned allocated = allocationFor(n);
        unsigned char* block = new unsigned char[allocated];
        if (muiSize)
            std::memcpy(block, mpData, std::min(muiSize, n));
        adopt(block, allocated);
    }
    const unsigned currentOffset = offset();
    if (currentOffset <= n)
        muiAvailable += n - muiSize;
    else
        muiAvailable = 0;
    muiSize = n;
    mpData[n] = 0;
    return n;
}

void Buffer::reset()
{
    adopt(nullptr, 0);
    muiSize = muiAvailable = 0;
}

void Buffer::copy(const void* source, unsigned n)
{
    if (n >= muiAllocated) {
        // The source may lie in the block being replaced: copy before freeing it.
        const unsigned allocated = allocationFor(n);
        unsigned char* block = new unsigned char[allocated];
        if (n)
            std::memcpy(block, source, n);
        adopt(block, allocated);
    } else if (n) {
        std::memmove(mpData, source, n);
    }
    muiSize = muiAvailable = n;
    mpData[n] = 0;
}

void Buffer::swap(Buffer& other)
{
    std::swap(mpData, other.mpData);
    std::swap(muiSize, other.muiSize);
    std::swap(muiAllocated, other.muiAllocated);
    muiAvailable = muiSize;
    other.muiAvailable = other.muiSize;
}

void Buffer::flip()
{
    size(offset());
    muiAvailable = muiSize;
}

void Buffer::clear()
{
    muiAvailable = muiSize;
    size(reserved());
}

void Buffer::compact()
{
    const unsigned unread = muiAvailable;
    if (unread && offset())
        std::memmove(mpData, at(), unread);
    muiSize = unread;
    muiAvailable = 0;
    size(reserved());
}

} // namespace Brevi
