#include "persistent/rawfile.h"

#include "core/context.h"
#include "core/extent.h"
#include "core/trace.h"
#include "core/traceerrorcode.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleRawFile;

const char* const ModeNames[] = { "RawFile:eClosed", "RawFile:eReadOnly", "RawFile:eReadWrite",
    "RawFile:eReadOnlyRandom", "RawFile:eReadWriteRandom", "RawFile:eReadOnlySequential",
    "RawFile:eReadWriteSequential", "RawFile:eReadOnlyUnbuffered", "RawFile:eReadWriteUnbuffered" };

const char* const WhereNames[] = { "RawFile:eStart", "RawFile:eCurrent", "RawFile:eEnd" };

bool writable(RawFile::Mode mode)
{
    return mode == RawFile::eReadWrite || mode == RawFile::eReadWriteRandom || mode == RawFile::eReadWriteSequential
        || mode == RawFile::eReadWriteUnbuffered;
}

int openFlags(RawFile::Mode mode, bool create)
{
    int flags = (writable(mode) ? O_RDWR : O_RDONLY) | O_CLOEXEC;
    if (mode == RawFile::eReadOnlyUnbuffered || mode == RawFile::eReadWriteUnbuffered)
        flags |= O_DIRECT;
    if (create)
        flags |= O_CREAT;
    return flags;
}

// The read-ahead hint that stands for the random and sequential modes. The
// hint is advice: a refusal changes nothing the caller can see.
void adviseAccess(int handle, RawFile::Mode mode)
{
    if (mode == RawFile::eReadOnlyRandom || mode == RawFile::eReadWriteRandom)
        posix_fadvise(handle, 0, 0, POSIX_FADV_RANDOM);
    else if (mode == RawFile::eReadOnlySequential || mode == RawFile::eReadWriteSequential)
        posix_fadvise(handle, 0, 0, POSIX_FADV_SEQUENTIAL);
}

mode_t createMode()
{
    const SecurityAttributes* security = Context::security();
    return security && security->mode ? mode_t(security->mode) : mode_t(S_IRUSR | S_IWUSR);
}

int origin(RawFile::Where where)
{
    switch (where) {
    case RawFile::eCurrent:
        return SEEK_CUR;
    case RawFile::eEnd:
        return SEEK_END;
    default:
        return SEEK_SET;
    }
}

// A position whose low 32 bits are all ones has always counted as a failed
// seek, whatever the system said; callers never use such positions.
bool failedSeek(off_t result) { return result < 0 || (quint64(result) & 0xFFFFFFFFu) == 0xFFFFFFFFu; }

// Repeats pread or pwrite until all bytes moved, the end of the file, or a
// failure, whose errno is left in `error`.
template <typename Byte, typename Call>
size_t positioned(Call call, int handle, Byte* bytes, size_t count, quint64 position, int& error)
{
    size_t moved = 0;
    while (moved < count) {
        const ssize_t done = call(handle, bytes + moved, count - moved, off_t(position + moved));
        if (done < 0 && errno == EINTR)
            continue;
        if (done < 0) {
            error = errno;
            break;
        }
        if (done == 0)
            break;
        moved += size_t(done);
    }
    return moved;
}

} // namespace

Trace& operator<<(Trace& trace, RawFile::Mode mode)
{
    if (unsigned(mode) < sizeof(ModeNames) / sizeof(ModeNames[0]))
        trace << ModeNames[mode];
    return trace;
}

Trace& operator<<(Trace& trace, RawFile::Where where)
{
    if (unsigned(where) - 1 < sizeof(WhereNames) / sizeof(WhereNames[0]))
        trace << WhereNames[where - 1];
    return trace;
}

RawFile::RawFile() = default;

RawFile::RawFile(const QString& path, Mode mode) { doOpen(path, mode, false); }

RawFile::~RawFile() { doClose(); }

bool RawFile::create(const QString& path, Mode mode) { return doOpen(path, mode, true); }

bool RawFile::open(const QString& path, Mode mode) { return doOpen(path, mode, false); }

bool RawFile::close() { return doClose(); }

bool RawFile::doOpen(const QString& path, Mode mode, bool create)
{
    doClose();
    if (mode == eClosed)
        return false;
    const QByteArray name = QFile::encodeName(path);
    int handle;
    do
        handle = ::open(name.constData(), openFlags(mode, create), createMode());
    while (handle < 0 && errno == EINTR);
    if (handle < 0) {
        muiLastError = unsigned(errno);
        BTRACE(TraceAlways) << "Open of" << path << "failed" << TraceErrorCode(int(muiLastError));
        msPath = QString();
        return false;
    }
    adviseAccess(handle, mode);
    miHandle = handle;
    meMode = mode;
    msPath = path;
    return true;
}

bool RawFile::doClose()
{
    bool result = false;
    if (miHandle != -1) {
        // The descriptor is gone after close() even when it reports an error,
        // so there is nothing to retry.
        result = ::close(miHandle) == 0;
        if (!result) {
            muiLastError = unsigned(errno);
            BTRACE(TraceAlways) << "Close of" << msPath << "failed" << TraceErrorCode(int(muiLastError));
        }
        if (mbDeleteOnClose && !msPath.isEmpty() && ::unlink(QFile::encodeName(msPath).constData()) != 0) {
            muiLastError = unsigned(errno);
            BTRACE(TraceAlways) << "Open of" << msPath << "failed" << TraceErrorCode(int(muiLastError));
        }
        miHandle = -1;
        meMode = eClosed;
    }
    msPath = QString();
    mbDeleteOnClose = false;
    return result;
}

size_t RawFile::read(void* data, size_t count)
{
    ssize_t done;
    do
        done = ::read(miHandle, data, count);
    while (done < 0 && errno == EINTR);
    if (done < 0) {
        muiLastError = unsigned(errno);
        BTRACE(TraceAlways) << "Read from" << msPath << "failed" << TraceErrorCode(int(muiLastError));
        return 0;
    }
    return size_t(done);
}

size_t RawFile::write(const void* data, size_t count)
{
    ssize_t done;
    do
        done = ::write(miHandle, data, count);
    while (done < 0 && errno == EINTR);
    if (done < 0) {
        muiLastError = unsigned(errno);
        BTRACE(TraceAlways) << "Write to" << msPath << "failed" << TraceErrorCode(int(muiLastError));
        return 0;
    }
    return size_t(done);
}

size_t RawFile::readAt(quint64 position, void* data, size_t count)
{
    int error = 0;
    const size_t moved = positioned(::pread, miHandle, static_cast<char*>(data), count, position, error);
    if (error != 0) {
        muiLastError = unsigned(error);
        BTRACE(TraceAlways) << "Read from" << msPath << "failed" << TraceErrorCode(error);
    }
    return moved;
}

size_t RawFile::writeAt(quint64 position, const void* data, size_t count)
{
    int error = 0;
    const size_t moved = positioned(::pwrite, miHandle, static_cast<const char*>(data), count, position, error);
    if (error != 0) {
        muiLastError = unsigned(error);
        BTRACE(TraceAlways) << "Write to" << msPath << "failed" << TraceErrorCode(error);
    }
    return moved;
}

size_t RawFile::writeAt(quint64 position, const void* head, size_t headCount, const void* body, size_t bodyCount)
{
    iovec pieces[2] = {{const_cast<void*>(head), headCount}, {const_cast<void*>(body), bodyCount}};
    ssize_t done;
    do
        done = ::pwritev(miHandle, pieces, 2, off_t(position));
    while (done < 0 && errno == EINTR);
    if (done < 0) {
        muiLastError = unsigned(errno);
        BTRACE(TraceAlways) << "Write to" << msPath << "failed" << TraceErrorCode(int(muiLastError));
        return 0;
    }
    // A short write goes on piece by piece.
    size_t moved = size_t(done);
    if (moved < headCount)
        moved += writeAt(position + moved, static_cast<const char*>(head) + moved, headCount - moved);
    if (moved >= headCount && moved < headCount + bodyCount)
        moved += writeAt(position + moved, static_cast<const char*>(body) + (moved - headCount),
                         headCount + bodyCount - moved);
    return moved;
}

// The extent forms call this class's count forms directly: BufferedFile uses
// them for its own transfers and overrides the count forms on top of them.
bool RawFile::read(Extent& extent)
{
    while (extent.available() != 0) {
        const size_t done = RawFile::read(extent.at(), extent.available());
        if (done == 0)
            return muiLastError == 0;
        extent.used(unsigned(done));
    }
    return true;
}

bool RawFile::write(const Extent& extent)
{
    while (extent.available() != 0) {
        const size_t done = RawFile::write(extent.at(), extent.available());
        if (done == 0)
            return muiLastError == 0;
        extent.used(unsigned(done));
    }
    return true;
}

quint64 RawFile::getPosition() const
{
    const off_t result = ::lseek(miHandle, 0, SEEK_CUR);
    if (failedSeek(result)) {
        RawFile* self = const_cast<RawFile*>(this);
        self->muiLastError = result < 0 ? unsigned(errno) : 0;
        BTRACE(TraceAlways) << "getPosition on" << msPath << "failed" << TraceErrorCode(int(muiLastError));
        return 0;
    }
    return quint64(result);
}

bool RawFile::setPosition(qint64 offset, Where where)
{
    if (miHandle == -1)
        return false;
    const off_t result = ::lseek(miHandle, off_t(offset), origin(where));
    if (failedSeek(result)) {
        muiLastError = result < 0 ? unsigned(errno) : 0;
        BTRACE(TraceAlways) << "setPosition on" << msPath << "failed" << TraceErrorCode(int(muiLastError));
        return false;
    }
    return true;
}

bool RawFile::truncate(quint64 size, bool setValidData)
{
    if (!setPosition(qint64(size), eStart))
        return false;
    int result;
    do
        result = ::ftruncate(miHandle, off_t(size));
    while (result != 0 && errno == EINTR);
    if (result != 0) {
        muiLastError = unsigned(errno);
        BTRACE(TraceAlways) << "Truncate of" << msPath << "failed" << TraceErrorCode(int(muiLastError));
        return false;
    }
    // Reserving the space is only an attempt to spare later writes the
    // allocation; a file system that cannot do it still has a good file.
    if (setValidData && size != 0 && ::fallocate(miHandle, 0, 0, off_t(size)) != 0) {
        muiLastError = unsigned(errno);
        BTRACE(TraceAlways) << "SetFileValidData on" << msPath << "failed" << TraceErrorCode(int(muiLastError));
    }
    return true;
}

quint64 RawFile::size() const
{
    struct stat status;
    if (::fstat(miHandle, &status) != 0) {
        RawFile* self = const_cast<RawFile*>(this);
        self->muiLastError = unsigned(errno);
        BTRACE(TraceAlways) << "GetFileSize of" << msPath << "failed" << TraceErrorCode(int(muiLastError));
        return 0;
    }
    return quint64(status.st_size);
}

RawFile* RawFile::clone(Mode mode) { return new RawFile(msPath, mode); }

bool RawFile::deleteOnClose()
{
    mbDeleteOnClose = true;
    return true;
}

bool RawFile::lock(quint64 offset, quint64 length)
{
    struct flock range = {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    range.l_start = off_t(offset);
    range.l_len = off_t(length);
    if (::fcntl(miHandle, F_OFD_SETLK, &range) != 0) {
        muiLastError = unsigned(errno);
        BTRACE(TraceAlways) << "Lock of" << msPath << "failed" << TraceErrorCode(int(muiLastError));
        return false;
    }
    return true;
}

bool RawFile::unlock(quint64 offset, quint64 length)
{
    struct flock range = {};
    range.l_type = F_UNLCK;
    range.l_whence = SEEK_SET;
    range.l_start = off_t(offset);
    range.l_len = off_t(length);
    if (::fcntl(miHandle, F_OFD_SETLK, &range) != 0) {
        muiLastError = unsigned(errno);
        BTRACE(TraceAlways) << "Unlock of" << msPath << "failed" << TraceErrorCode(int(muiLastError));
        return false;
    }
    return true;
}

bool RawFile::sync()
{
    int result;
    do
        result = ::fdatasync(miHandle);
    while (result != 0 && errno == EINTR);
    if (result != 0) {
        muiLastError = unsigned(errno);
        BTRACE(TraceAlways) << "Sync of" << msPath << "failed" << TraceErrorCode(int(muiLastError));
        return false;
    }
    return true;
}

QString RawFile::volume(const QString& path)
{
    if (path.isEmpty())
        return QString();
    // The nearest existing ancestor decides the file system, as a path that
    // is about to be made lies on the volume of its directory.
    QString current = QDir::cleanPath(QFileInfo(path).absoluteFilePath());
    struct stat status;
    while (::stat(QFile::encodeName(current).constData(), &status) != 0) {
        if (current == "/")
            return QString();
        current = QFileInfo(current).path();
    }
    const dev_t device = status.st_dev;
    while (current != "/") {
        const QString parent = QFileInfo(current).path();
        struct stat parentStatus;
        if (::stat(QFile::encodeName(parent).constData(), &parentStatus) != 0)
            return QString();
        if (parentStatus.st_dev != device)
            break;
        current = parent;
    }
    return current == "/" ? current : current + "/";
}

} // namespace Brevi
