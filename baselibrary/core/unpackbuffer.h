#ifndef BASELIBRARY_CORE_UNPACKBUFFER_H
#define BASELIBRARY_CORE_UNPACKBUFFER_H

#include "core/buffer.h"
#include "core/byteorder.h"

namespace Brevi {

// Takes values of the packed encoding (see PackBuffer) off the front.
//
// A take that fails gives 0, false or empty and reports false. A fixed-size
// take with too few bytes leaves the cursor where it was. A length-prefixed
// item whose length runs past the end poisons the buffer: available() drops
// to 0 and every later take fails, so a reader stops at the first corruption
// instead of resynchronising on garbage.
//
// Byte arrays taken here point into this buffer's bytes and are valid only as
// long as they are; QStrings and Buffers taken here own their copy.
class BREVI_EXPORT UnpackBuffer : public Buffer
{
public:
    UnpackBuffer() = default;
    explicit UnpackBuffer(unsigned capacity);

    // View the bytes without copying; they must outlive this buffer.
    void fromRawData(const QByteArray& bytes) { Buffer::fromRawData(bytes); }
    void fromRawData(const Extent& bytes) { Buffer::fromRawData(bytes); }
    void reset(const QByteArray& bytes) { copy(bytes); }
    void reset(const Extent& bytes) { copy(bytes); }

    // Resizes and puts the cursor at the front.
    unsigned size(unsigned n);
    using Buffer::available;
    using Buffer::size;

    Extent extent()
    {
        muiAvailable = muiSize;
        return Extent(mpData, muiSize);
    }
    Extent extent() const { return Extent(mpData, muiSize); }

    bool takeBool(bool* ok = nullptr);
    int takeInt32(bool* ok = nullptr);
    unsigned takeUint32(bool* ok = nullptr);
    long long takeInt64(bool* ok = nullptr);
    unsigned long long takeUint64(bool* ok = nullptr);
    QByteArray takeQByteArray(bool* ok = nullptr);
    QString takeQString(bool* ok = nullptr);

    bool take(bool& value);
    bool take(int& value);
    bool take(unsigned& value);
    bool take(long long& value);
    bool take(unsigned long long& value);
    bool take(QByteArray& value);
    bool take(QString& value);
    bool take(Buffer& value);
    // Copies at most `max` bytes of a length-prefixed item; consumes it whole.
    bool take(void* destination, unsigned max);

private:
    template <typename T>
    bool takeFixed(T& value);
    // Moves past a length-prefixed item and gives its bytes, or poisons.
    bool takeItem(Extent& item);
};

} // namespace Brevi

#endif
