#ifndef BASELIBRARY_PERSISTENT_RAWFILE_H
#define BASELIBRARY_PERSISTENT_RAWFILE_H

#include "brevi_export.h"
#include "core/operatorboolgenerator.h"

#include <QString>

#include <cstddef>

namespace Brevi {

class Extent;
class Trace;

// The one way the library touches a file: a thin class over one file
// descriptor with 64-bit positions, an explicit open mode and a remembered
// last error.
//
// Failure is told by the result (false, 0) and by a trace line at TraceAlways:
// "Open of", "Read from", "Write to", "Truncate of", "SetFileValidData on",
// "setPosition on", "getPosition on" or "GetFileSize of", then the path,
// "failed" and the error. lastError() keeps the errno of the last failure; a
// later success does not clear it.
//
// Files are created with the mode Context::security() gives (0600), opened for
// sharing, and never inherited by child processes. One object belongs to one
// thread at a time; nothing here locks.
//
// BufferedFile derives from this class and overrides every virtual operation
// except clone().
class BREVI_EXPORT RawFile
{
public:
    // How a file is opened. Random and sequential tell the kernel what
    // read-ahead to do; unbuffered bypasses the page cache and leaves the
    // alignment of buffers, offsets and lengths to the caller.
    enum Mode {
        eClosed = 0,
        eReadOnly = 1,
        eReadWrite = 2,
        eReadOnlyRandom = 3,
        eReadWriteRandom = 4,
        eReadOnlySequential = 5,
        eReadWriteSequential = 6,
        eReadOnlyUnbuffered = 7,
        eReadWriteUnbuffered = 8
    };

    // Origin of setPosition. A value outside the three counts from the start.
    enum Where { eStart = 1, eCurrent = 2, eEnd = 3 };

    // Closed.
    RawFile();
    // Calls open(); a failure shows only in the object testing false.
    RawFile(const QString& path, Mode mode);
    // Closes (and deletes, if asked) through this class's own close path.
    virtual ~RawFile();

    RawFile(const RawFile&) = delete;
    RawFile& operator=(const RawFile&) = delete;

    // Opens the file, making it if it is not there; an existing file keeps its
    // contents. Whatever was open is closed first.
    virtual bool create(const QString& path, Mode mode);
    // Opens an existing file. Whatever was open is closed first, so open with
    // eClosed closes and returns false. On failure the path is empty and the
    // mode is left as it was.
    virtual bool open(const QString& path, Mode mode);
    // False if nothing was open. Deletes the file if deleteOnClose() was called
    // during this open.
    virtual bool close();

    // Fills the extent's available part from the current position. True when it
    // was filled; at the end of the file true with part of it still available
    // (look at Extent::available), unless a failure has ever been recorded on
    // this object: then every transfer that stops short answers false.
    virtual bool read(Extent& extent);
    // One read call: the bytes read, 0 at the end of the file or on failure.
    virtual size_t read(void* data, size_t count);
    // Writes the extent's available part and consumes it, although the
    // reference is constant. The result follows read(Extent&).
    virtual bool write(const Extent& extent);
    // One write call: the bytes written, 0 on failure.
    virtual size_t write(const void* data, size_t count);

    // A transfer at `position` that neither uses nor moves the file position,
    // so that two threads may use one open file at different places at once
    // (a state record written by one side while the other reads it). Goes on
    // until all `count` bytes moved: fewer means the end of the file (read)
    // or a failure, traced as "Read from" or "Write to". They go straight to
    // the file, around any buffer of a derived class.
    size_t readAt(quint64 position, void* data, size_t count);
    size_t writeAt(quint64 position, const void* data, size_t count);
    // Two pieces written one after the other at `position` in one call: a
    // header and what follows it. The bytes moved, as above.
    size_t writeAt(quint64 position, const void* head, size_t headCount, const void* body, size_t bodyCount);

    // The current position; 0 on failure.
    virtual quint64 getPosition() const;
    // False without a trace on a closed file. A position whose low 32 bits are
    // all ones is refused, as it always has been.
    virtual bool setPosition(qint64 offset, Where where);
    // Sets the end of the file to `size` and leaves the position there. With
    // `setValidData` the space is also reserved (fallocate); a refusal of that
    // is traced and kept in lastError, and the result is still true.
    virtual bool truncate(quint64 size, bool setValidData);
    // The size of the open file; 0 on failure.
    virtual quint64 size() const;
    // A new, plain RawFile opened on the same path in `mode`, owned by the
    // caller. It tests false if that open failed.
    virtual RawFile* clone(Mode mode);

    unsigned lastError() const { return muiLastError; }
    // The empty string while closed.
    const QString& path() const { return msPath; }
    Mode mode() const { return meMode; }
    // Deletes the file when this open ends (close, a new open, destruction).
    // The flag lasts for one open only. Always true.
    bool deleteOnClose();

    // Exclusive lock on a byte range, failing at once if anyone holds it, even
    // another open of the same file in this process. Released by unlock() or
    // when the file is closed.
    bool lock(quint64 offset, quint64 length);
    bool unlock(quint64 offset, quint64 length);

    // Returns once the file's data, and its size, are on the disk itself
    // (fdatasync): what was written before then survives a power loss. False,
    // with "Sync of" path "failed", when the file is closed or the disk
    // refused.
    bool sync();

    // The file descriptor, -1 while closed: for callers that need a call this
    // class does not wrap. The object keeps owning it.
    int handle() const { return miHandle; }

    // True while a file is open.
    operator OperatorBoolGenerator<RawFile>::Result() const
    {
        return OperatorBoolGenerator<RawFile>::make(miHandle != -1);
    }

    // The mount point of the file system that holds `path`, with a trailing
    // "/" ("/" for the root). `path` need not exist; its nearest existing
    // ancestor decides. The empty string on failure.
    static QString volume(const QString& path);

protected:
    bool doOpen(const QString& path, Mode mode, bool create);
    bool doClose();

    int miHandle = -1;
    unsigned muiLastError = 0;
    QString msPath;
    bool mbDeleteOnClose = false;
    Mode meMode = eClosed;
};

// "RawFile:eReadOnly" and so on; a value out of range writes nothing.
BREVI_EXPORT Trace& operator<<(Trace& trace, RawFile::Mode mode);
BREVI_EXPORT Trace& operator<<(Trace& trace, RawFile::Where where);

} // namespace Brevi

#endif
