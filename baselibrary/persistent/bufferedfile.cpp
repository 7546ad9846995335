#include "persistent/bufferedfile.h"

#include "core/trace.h"

#include <algorithm>
#include <climits>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleBufferedFile;
}

BufferedFile::BufferedFile(unsigned bufferSize)
    : muiBufferSize(bufferSize)
{ }

BufferedFile::BufferedFile(const QString& path, Mode mode, unsigned bufferSize)
    : muiBufferSize(bufferSize)
{
    open(path, mode);
}

BufferedFile::~BufferedFile() { close(); }

void BufferedFile::reset()
{
    moBuffer.size(0);
    mullBufferOffset = 0;
    mbDirty = false;
    mbSeekPending = false;
    mullDeferredPosition = 0;
}

bool BufferedFile::create(const QString& path, Mode mode)
{
    // What the previous file still had in the buffer goes to that file before
    // it is closed by the new open.
    if (*this && mbDirty)
        flush();
    reset();
    return RawFile::create(path, mode);
}

bool BufferedFile::open(const QString& path, Mode mode)
{
    if (*this && mbDirty)
        flush();
    reset();
    return RawFile::open(path, mode);
}

bool BufferedFile::close()
{
    if (*this && mbDirty)
        flush();
    reset();
    return RawFile::close();
}

quint64 BufferedFile::getPosition() const
{
    return mbSeekPending ? mullDeferredPosition : mullBufferOffset + moBuffer.offset();
}

bool BufferedFile::setPosition(qint64 offset, Where where)
{
    if (!*this)
        return false;
    quint64 position = quint64(offset);
    if (where == eCurrent)
        position += getPosition();
    else if (where == eEnd)
        position += size();
    mullDeferredPosition = position;
    mbSeekPending = true;
    return true;
}

quint64 BufferedFile::size() const
{
    const quint64 position = getPosition();
    if (!*this)
        return position;
    return std::max(position, RawFile::size());
}

void BufferedFile::syncronize()
{
    moBuffer.size(0);
    mullBufferOffset = mullDeferredPosition;
}

// Writes what the buffer holds when it is in write use, and leaves it empty for
// writing at its start. The dirty flag stays as it is: read() lowers it first
// on purpose, so that a read after writes drops the unwritten bytes.
void BufferedFile::flush()
{
    if (mbDirty) {
        moBuffer.flip();
        const unsigned length = moBuffer.size();
        if (length != 0) {
            if (!RawFile::setPosition(qint64(mullBufferOffset), eStart)) {
                BTRACE(TraceAlways) << "Failed to position for write" << msPath << mullBufferOffset;
            } else if (!RawFile::write(static_cast<const Extent&>(moBuffer)) || moBuffer.available() != 0) {
                BTRACE(TraceAlways) << "Failed to write data to file" << msPath << length;
            } else {
                mullBufferOffset += length;
            }
        }
    }
    moBuffer.available(moBuffer.size());
    moBuffer.size(muiBufferSize);
}

bool BufferedFile::load()
{
    mullBufferOffset += moBuffer.offset();
    moBuffer.size(0);
    if (!RawFile::setPosition(qint64(mullBufferOffset), eStart))
        BTRACE(TraceAlways) << "Failed to position for read" << msPath << mullBufferOffset;
    const quint64 fileSize = size();
    if (fileSize > mullBufferOffset) {
        const unsigned want = unsigned(std::min<quint64>(fileSize - mullBufferOffset, muiBufferSize));
        moBuffer.size(want);
        if (!RawFile::read(static_cast<Extent&>(moBuffer)))
            BTRACE(TraceAlways) << "Failed to read data from file" << msPath << mullBufferOffset;
        // Only what came is there to hand out.
        moBuffer.size(want - moBuffer.available());
        moBuffer.available(moBuffer.size());
    }
    return bool(*this);
}

bool BufferedFile::read(Extent& extent)
{
    if (!*this)
        return false;
    if (mbDirty) {
        mbDirty = false;
        flush();
    }
    if (mbSeekPending) {
        syncronize();
        mbSeekPending = false;
    }
    extent.putAvailable(moBuffer);
    if (extent.available() != 0) {
        mullBufferOffset += moBuffer.size();
        moBuffer.size(0);
        if (muiBufferSize >= extent.available()) {
            load();
            extent.putAvailable(moBuffer);
        } else {
            // Larger than the buffer: straight into the caller's bytes.
            if (RawFile::setPosition(qint64(mullBufferOffset), eStart))
                RawFile::read(extent);
            mullBufferOffset = RawFile::getPosition();
        }
    }
    return true;
}

bool BufferedFile::write(const Extent& extent)
{
    if (!*this)
        return false;
    if (!mbDirty) {
        if (mbSeekPending) {
            syncronize();
            mbSeekPending = false;
        }
        moBuffer.size(muiBufferSize);
        mbDirty = true;
    }
    moBuffer.putAvailable(extent);
    if (extent.available() != 0) {
        flush();
        if (extent.available() <= moBuffer.available()) {
            moBuffer.putAvailable(extent);
        } else {
            // Larger than the buffer: straight from the caller's bytes, at the
            // position the flush left.
            RawFile::write(extent);
            mullBufferOffset = RawFile::getPosition();
        }
    }
    return true;
}

size_t BufferedFile::read(void* data, size_t count)
{
    Extent extent(data, unsigned(std::min<size_t>(count, UINT_MAX)));
    if (!read(extent))
        return 0;
    return extent.size() - extent.available();
}

size_t BufferedFile::write(const void* data, size_t count)
{
    Extent extent(data, unsigned(std::min<size_t>(count, UINT_MAX)));
    if (!write(static_cast<const Extent&>(extent)))
        return 0;
    return extent.size() - extent.available();
}

bool BufferedFile::truncate(quint64 size, bool setValidData)
{
    if (!*this)
        return false;
    if (mbDirty) {
        flush();
        mbDirty = false;
    }
    RawFile::truncate(size, setValidData);
    return true;
}

} // namespace Brevi
