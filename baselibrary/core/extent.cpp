#include "core/extent.h"

#include <algorithm>
#include <cstring>

namespace Brevi {

Extent::Extent(const QByteArray& array)
    : mpData(reinterpret_cast<unsigned char*>(const_cast<char*>(array.constData())))
    , muiSize(unsigned(array.size()))
    , muiAvailable(unsigned(array.size()))
{}

Extent& Extent::operator=(const Extent& other)
{
    mpData = other.mpData;
    muiSize = other.muiSize;
    muiAvailable = other.muiSize;
    return *this;
}

Extent& Extent::operator=(const QByteArray& array)
{
    if (array.isEmpty()) {
        mpData = nullptr;
        muiSize = muiAvailable = 0;
        return *this;
    }
    return *this = Extent(array);
}

unsigned Extent::truncate(unsigned n)
{
    if (n != muiSize) {
        muiAvailable += n - muiSize;
        muiSize = n;
    }
    return muiAvailable;
}

bool Extent::operator==(const Extent& other) const
{
    return muiSize == other.muiSize && (muiSize == 0 || std::memcmp(mpData, other.mpData, muiSize) == 0);
}

QByteArray Extent::toQByteArray() const
{
    return QByteArray::fromRawData(reinterpret_cast<const char*>(mpData), int(muiSize));
}

QString Extent::toQString() const { return QString::fromUtf8(reinterpret_cast<const char*>(mpData), int(muiSize)); }

void Extent::swap(Extent& other)
{
    std::swap(mpData, other.mpData);
    std::swap(muiSize, other.muiSize);
    muiAvailable = muiSize;
    other.muiAvailable = other.muiSize;
}

QByteArray Extent::hexDump() const { return toQByteArray().toHex(); }
QByteArray Extent::hexDumpAvailable() const { return availableExtent().toQByteArray().toHex(); }
QByteArray Extent::hexDumpToOffset() const { return usedExtent().toQByteArray().toHex(); }

unsigned Extent::put(char c) const
{
    *at() = static_cast<unsigned char>(c);
    return --muiAvailable;
}

unsigned Extent::put(const void* source, unsigned n) const
{
    if (n != 0) {
        std::memcpy(at(), source, n);
        muiAvailable -= n;
    }
    return muiAvailable;
}

unsigned Extent::putAvailable(const Extent& source) const
{
    const unsigned n = std::min(source.muiAvailable, muiAvailable);
    if (n != 0) {
        std::memcpy(at(), source.at(), n);
        muiAvailable -= n;
        source.muiAvailable -= n;
    }
    return muiAvailable;
}

unsigned Extent::pad(unsigned n, char c) const
{
    if (n != 0) {
        std::memset(at(), static_cast<unsigned char>(c), n);
        muiAvailable -= n;
    }
    return muiAvailable;
}

unsigned Extent::get(char& c) const
{
    c = static_cast<char>(*at());
    return --muiAvailable;
}

unsigned Extent::get(void* destination, unsigned n) const
{
    if (n != 0) {
        std::memcpy(destination, at(), n);
        muiAvailable -= n;
    }
    return muiAvailable;
}

unsigned Extent::remove(unsigned n)
{
    if (n != 0) {
        std::memmove(at(), at() + n, muiAvailable - n);
        muiSize -= n;
        muiAvailable -= n;
    }
    return muiAvailable;
}

unsigned Extent::elementSize(char terminator) const
{
    const void* found =
        muiAvailable ? std::memchr(at(), static_cast<unsigned char>(terminator), muiAvailable) : nullptr;
    return found ? unsigned(static_cast<const unsigned char*>(found) - at()) + 1 : 0;
}

} // namespace Brevi
