#include "core/unpackbuffer.h"

#include <algorithm>

namespace Brevi {

UnpackBuffer::UnpackBuffer(unsigned capacity)
{
    allocateExactly(capacity);
    Buffer::size(0);
}

unsigned UnpackBuffer::size(unsigned n)
{
    Buffer::size(n);
    muiAvailable = n;
    return n;
}

template <typename T>
bool UnpackBuffer::takeFixed(T& value)
{
    if (muiAvailable < sizeof(T)) {
        value = T();
        return false;
    }
    value = ByteOrder::loadLittle<T>(at());
    muiAvailable -= sizeof(T);
    return true;
}

bool UnpackBuffer::takeItem(Extent& item)
{
    std::uint32_t length = 0;
    if (!takeFixed(length))
        return false;
    if (length > muiAvailable) {
        muiAvailable = 0;
        return false;
    }
    item = Extent(at(), length);
    muiAvailable -= length;
    return true;
}

bool UnpackBuffer::take(bool& value)
{
    unsigned char byte = 0;
    const bool ok = takeFixed(byte);
    value = byte != 0;
    return ok;
}

bool UnpackBuffer::take(int& value)
{
    std::uint32_t raw = 0;
    const bool ok = takeFixed(raw);
    value = int(raw);
    return ok;
}

bool UnpackBuffer::take(unsigned& value) { return takeFixed(value); }

bool UnpackBuffer::take(long long& value)
{
    std::uint64_t raw = 0;
    const bool ok = takeFixed(raw);
    value = static_cast<long long>(raw);
    return ok;
}

bool UnpackBuffer::take(unsigned long long& value) { return takeFixed(value); }

bool UnpackBuffer::take(QByteArray& value)
{
    Extent item;
    const bool ok = takeItem(item);
    value = ok ? QByteArray::fromRawData(reinterpret_cast<const char*>(item.data()), int(item.size())) : QByteArray();
    return ok;
}

bool UnpackBuffer::take(QString& value)
{
    Extent item;
    const bool ok = takeItem(item);
    value = ok ? item.toQString() : QString();
    return ok;
}

bool UnpackBuffer::take(Buffer& value)
{
    Extent item;
    const bool ok = takeItem(item);
    if (ok)
        value.copy(item);
    else
        value.copy(nullptr, 0);
    return ok;
}

bool UnpackBuffer::take(void* destination, unsigned max)
{
    Extent item;
    if (!takeItem(item))
        return false;
    item.get(destination, std::min(max, item.size()));
    return true;
}

#define BREVI_TAKE_RETURNING(Type, name)                                                                               \
    Type UnpackBuffer::name(bool* ok)                                                                                  \
    {                                                                                                                  \
        Type value;                                                                                                    \
        const bool result = take(value);                                                                               \
        if (ok)                                                                                                        \
            *ok = result;                                                                                              \
        return value;                                                                                                  \
    }

BREVI_TAKE_RETURNING(bool, takeBool)
BREVI_TAKE_RETURNING(int, takeInt32)
BREVI_TAKE_RETURNING(unsigned, takeUint32)
BREVI_TAKE_RETURNING(long long, takeInt64)
BREVI_TAKE_RETURNING(unsigned long long, takeUint64)
BREVI_TAKE_RETURNING(QByteArray, takeQByteArray)
BREVI_TAKE_RETURNING(QString, takeQString)

#undef BREVI_TAKE_RETURNING

} // namespace Brevi
