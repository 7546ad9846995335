#ifndef BASELIBRARY_PERSISTENT_BUFFEREDFILE_H
#define BASELIBRARY_PERSISTENT_BUFFEREDFILE_H

#include "core/buffer.h"
#include "persistent/rawfile.h"

namespace Brevi {

// A RawFile with one buffer that is used either for writing behind or for
// reading ahead, and a seek that is only remembered until the next transfer.
//
// Made for streams: a spool or queue file written from front to back, or read
// from front to back. Mixing the two directions on one object has rules that
// callers rely on and that are kept as they are:
//
// - A read that follows writes drops the bytes still in the buffer: flush them
//   first by close() (there is no public flush).
// - A setPosition while the buffer holds written bytes does not move the
//   writing: the next bytes follow the earlier ones, while getPosition already
//   answers with the new position.
// - setPosition makes no system call; size() is the greater of the file's size
//   and the position, so a seek past the end shows in size() at once while the
//   file is untouched.
//
// read(Extent&), write(const Extent&) and truncate() answer whether the file is
// open; a short read shows in Extent::available. Write failures are traced
// ("Failed to position for write", "Failed to write data to file") and the
// buffer's bytes are lost. clone() gives a plain, unbuffered RawFile.
//
// One thread at a time; nothing locks.
class BREVI_EXPORT BufferedFile : public RawFile
{
public:
    static const unsigned DefaultBufferSize = 32768;

    explicit BufferedFile(unsigned bufferSize = DefaultBufferSize);
    BufferedFile(const QString& path, Mode mode, unsigned bufferSize = DefaultBufferSize);
    // Writes what is buffered, then closes.
    ~BufferedFile() override;

    // Both write what is buffered for the file open before, then open anew
    // with an empty buffer and no pending seek.
    bool create(const QString& path, Mode mode) override;
    bool open(const QString& path, Mode mode) override;
    // Writes what is buffered, then closes.
    bool close() override;

    bool read(Extent& extent) override;
    size_t read(void* data, size_t count) override;
    bool write(const Extent& extent) override;
    size_t write(const void* data, size_t count) override;

    quint64 getPosition() const override;
    bool setPosition(qint64 offset, Where where) override;
    bool truncate(quint64 size, bool setValidData) override;
    quint64 size() const override;

    unsigned bufferSize() const { return muiBufferSize; }

private:
    void reset();
    void flush();
    void syncronize();
    bool load();

    Buffer moBuffer;
    const unsigned muiBufferSize;
    // File offset of the buffer's first byte.
    quint64 mullBufferOffset = 0;
    // The buffer holds written bytes.
    bool mbDirty = false;
    bool mbSeekPending = false;
    quint64 mullDeferredPosition = 0;
};

} // namespace Brevi

#endif
