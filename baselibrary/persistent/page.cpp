#include "persistent/page.h"

#include "core/byteorder.h"
#include "persistent/pagedlistlayout.h"

#include <cstring>
#include <utility>

namespace Brevi {

Page::Page(unsigned capacity)
    : muiCapacity(capacity)
{}

unsigned char* Page::room()
{
    if (moBuffer.size() < muiCapacity) {
        // Exactly the capacity: the buffer's own growth would round a sort
        // page of some megabytes up to the next power of two.
        Buffer exact(muiCapacity);
        if (muiLength != 0)
            std::memcpy(exact.data(), moBuffer.data(), muiLength);
        moBuffer.swap(exact);
    }
    return moBuffer.data();
}

void Page::loaded(unsigned length)
{
    muiLength = length < muiCapacity ? length : muiCapacity;
    muiPosition = 0;
}

void Page::release()
{
    moBuffer.reset();
    clear();
}

void Page::cut(unsigned length)
{
    if (length < muiLength)
        muiLength = length;
    if (muiPosition > muiLength)
        muiPosition = muiLength;
}

Page::Result Page::put(const Extent& entry)
{
    const quint64 footprint = PagedListLayout::footprint(entry.size());
    if (footprint > muiCapacity)
        return eTooLarge;
    if (footprint > muiCapacity - muiLength)
        return eFull;
    unsigned char* at = room() + muiLength;
    ByteOrder::store32(at + PagedListLayout::EntrySizeOffset, entry.size());
    ByteOrder::store32(at + PagedListLayout::EntryZeroOffset, 0);
    if (entry.size() != 0)
        std::memcpy(at + PagedListLayout::EntryHeaderSize, entry.data(), entry.size());
    const unsigned padding = unsigned(footprint) - PagedListLayout::EntryHeaderSize - entry.size();
    if (padding != 0)
        std::memset(at + PagedListLayout::EntryHeaderSize + entry.size(), 0, padding);
    muiLength += unsigned(footprint);
    return eOk;
}

bool Page::holdsEntry() const
{
    const unsigned left = muiLength - muiPosition;
    if (left < PagedListLayout::EntryHeaderSize)
        return false;
    const unsigned char* at = moBuffer.data() + muiPosition;
    return ByteOrder::load32(at + PagedListLayout::EntryZeroOffset) == 0 &&
           PagedListLayout::footprint(ByteOrder::load32(at + PagedListLayout::EntrySizeOffset)) <= left;
}

Page::Result Page::get(Extent& entry)
{
    if (!holdsEntry())
        return eEmpty;
    const unsigned char* at = moBuffer.data() + muiPosition;
    const unsigned size = ByteOrder::load32(at + PagedListLayout::EntrySizeOffset);
    entry = Extent(at + PagedListLayout::EntryHeaderSize, size);
    muiPosition += unsigned(PagedListLayout::footprint(size));
    return eOk;
}

void Page::assign(const Page& other)
{
    muiCapacity = other.muiCapacity;
    muiLength = muiPosition = 0;
    if (other.muiLength != 0)
        std::memcpy(room(), other.data(), other.muiLength);
    muiLength = other.muiLength;
}

void Page::swap(Page& other)
{
    moBuffer.swap(other.moBuffer);
    std::swap(muiCapacity, other.muiCapacity);
    std::swap(muiLength, other.muiLength);
    std::swap(muiPosition, other.muiPosition);
}

} // namespace Brevi
