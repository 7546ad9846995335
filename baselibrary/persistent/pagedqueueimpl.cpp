#include "persistent/pagedqueueimpl.h"

#include "core/trace.h"
#include "messaging/msgpending.h"

#include <QFileInfo>

#include <cstring>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModulePagedQueue;

// The receiver reads through a buffer of this size.
const unsigned ReadBufferSize = 65536;
// How long receivePolled() waits at a time on a queue without a poll
// interval, before it looks at the state file for a sender in another
// process.
const quint64 DefaultPollInterval = 100;
// Opens of a queue whose receiver in another process keeps moving on.
const int OpenAttempts = 5;

QString dataPath(const QString& path, quint64 number) { return SpoolLayout::dataPath(path, number); }
} // namespace

PagedQueueImpl::PagedQueueImpl(const QString& path, quint64 maximumFileSize, quint64 pollInterval)
    : mullPollInterval(pollInterval)
    , moHeader(SpoolLayout::MaximumHeaderLength)
    , moPack(SpoolLayout::NextFileRecordSize)
    , msPath(path)
    , mullMaximumFileSize(maximumFileSize)
    , moReadFile(ReadBufferSize)
    , moDeadline(Clock::now() + boost::chrono::milliseconds(pollInterval))
{
    BTRACE(TraceNormal) << "IN:PagedQueueImpl" << path << maximumFileSize << pollInterval;
    const bool exists = QFileInfo::exists(SpoolLayout::statePath(path));
    bool opened;
    if (exists && !moStateFile.open(path)) {
        BTRACE(TraceAlways) << "Failed to open state file" << SpoolLayout::statePath(path);
        opened = false;
    } else {
        opened = exists ? openExisting() : openNew();
    }
    mbValid = opened;
    BTRACE(TraceNormal) << "OUT:PagedQueueImpl ," << opened;
}

bool PagedQueueImpl::openExisting()
{
    BTRACE(TraceNormal) << "Opening existing file channel" << msPath;
    // A receiver in another process may move on, and remove the file it has
    // finished, between the reading of the states and the opening of that
    // file: then the states are read again.
    for (int attempt = 1;; ++attempt) {
        if (!moStateFile.readStates(moWrite, moRead)) {
            BTRACE(TraceAlways) << "Failed to read file states" << SpoolLayout::statePath(msPath);
            return false;
        }
        if (!SpoolLayout::statesInOrder(moWrite, moRead)) {
            BTRACE(TraceAlways) << "Failed to read file states" << SpoolLayout::statePath(msPath) << "read state"
                                << moRead.file << moRead.offset << moRead.count << "is ahead of write state"
                                << moWrite.file << moWrite.offset << moWrite.count;
            return false;
        }
        if (openFiles())
            return true;
        SpoolState now;
        if (attempt == OpenAttempts || !moStateFile.readReadState(now) || now == moRead)
            return false;
    }
}

bool PagedQueueImpl::openNew()
{
    BTRACE(TraceNormal) << "Opening new file channel" << msPath;
    // The first data file is there before the state file that leads to it. It
    // is not cut here: the first send cuts it to the write state.
    RawFile first;
    if (!first.create(dataPath(msPath, SpoolLayout::FirstFileNumber), RawFile::eReadWrite)) {
        BTRACE(TraceAlways) << "Failed to create data file" << dataPath(msPath, SpoolLayout::FirstFileNumber);
        return false;
    }
    first.close();
    bool existed = false;
    if (!moStateFile.create(msPath, existed)) {
        BTRACE(TraceAlways) << "Failed to initialize state file" << SpoolLayout::statePath(msPath);
        return false;
    }
    if (existed)
        return openExisting();
    moWrite = moRead = SpoolState();
    return openFiles();
}

bool PagedQueueImpl::openFiles()
{
    const QString writePath = dataPath(msPath, moWrite.file);
    if (!moWriteFile.open(writePath, RawFile::eReadWrite)) {
        BTRACE(TraceAlways) << "Failed to open write file" << writePath;
        return false;
    }
    // Records the state file counts as written are missing from the file.
    const quint64 writeSize = moWriteFile.size();
    if (writeSize < moWrite.offset) {
        BTRACE(TraceAlways) << "Failed to position write file" << writePath << moWrite.offset << "beyond its end"
                            << writeSize;
        return false;
    }
    moWriteCopy = moWrite;

    const QString readPath = dataPath(msPath, moRead.file);
    if (!moReadFile.open(readPath, RawFile::eReadOnlySequential)) {
        BTRACE(TraceAlways) << "Failed to open receive data file" << readPath;
        return false;
    }
    const quint64 readEnd = moRead.file == moWrite.file ? moWrite.offset : moReadFile.size();
    if (moRead.offset > readEnd || !moReadFile.setPosition(qint64(moRead.offset), RawFile::eStart)) {
        BTRACE(TraceAlways) << "Failed to position receive data file" << readPath << moRead.offset << readEnd;
        return false;
    }
    return true;
}

// What a sender killed after writing a record and before its state is cut
// away before anything follows it.
bool PagedQueueImpl::startWriting()
{
    if (!moWriteFile.truncate(moWrite.offset, false)) {
        BTRACE(TraceAlways) << "Failed to truncate write file" << moWriteFile.path() << moWrite.offset;
        return false;
    }
    mbWriting = true;
    return true;
}

PagedQueue::Result PagedQueueImpl::sendFailed()
{
    mbValid = false;
    return PagedQueue::eSendError;
}

PagedQueue::Result PagedQueueImpl::send(const void* data, unsigned size)
{
    BTRACE(TraceDebug) << "IN:send" << size;
    if (!mbValid)
        return PagedQueue::eDown;
    if (!mbWriting && !startWriting())
        return sendFailed();

    moPack.reset();
    moPack.append(SpoolLayout::DataRecordType);
    moPack.append(size);
    const Extent header = moPack.extent();
    const quint64 offset = moWrite.offset;
    const size_t written = moWriteFile.writeAt(offset, header.data(), header.size(), data, size);
    if (written < header.size()) {
        BTRACE(TraceAlways) << "Failed to write record size" << moWriteFile.path() << offset;
        return sendFailed();
    }
    if (written != header.size() + size) {
        BTRACE(TraceAlways) << "Failed to write" << size << "byte record" << moWriteFile.path() << offset;
        return sendFailed();
    }

    SpoolState next = moWrite;
    next.count += 1;
    next.offset = offset + header.size() + size;
    const bool newFile = next.offset >= mullMaximumFileSize;
    if (newFile) {
        const quint64 number = next.file + 1;
        moPack.reset();
        moPack.append(SpoolLayout::NextFileRecordType);
        moPack.append(static_cast<unsigned long long>(number));
        const Extent record = moPack.extent();
        if (moWriteFile.writeAt(next.offset, record.data(), record.size()) != record.size()) {
            BTRACE(TraceAlways) << "Failed to write next file record" << moWriteFile.path() << next.offset;
            return sendFailed();
        }
        moWriteFile.close();
        // A file of this number may be left from a sender that died before it
        // could write the state that leads to it.
        if (!moWriteFile.create(dataPath(msPath, number), RawFile::eReadWrite)) {
            BTRACE(TraceAlways) << "Failed to open next file" << dataPath(msPath, number);
            return sendFailed();
        }
        if (!moWriteFile.truncate(0, false)) {
            BTRACE(TraceAlways) << "Failed to truncate new data file" << moWriteFile.path();
            return sendFailed();
        }
        next.file = number;
        next.offset = 0;
    }
    // The record is in the queue from here on.
    if (!moStateFile.writeWriteState(next)) {
        BTRACE(TraceAlways) << "Failed to update write state" << SpoolLayout::statePath(msPath);
        return sendFailed();
    }
    moWrite = next;

    bool wake;
    {
        boost::lock_guard<boost::mutex> lock(moMutex);
        wake = newFile || moRead.samePlace(moWriteCopy);
        moWriteCopy = moWrite;
    }
    if (wake)
        moCondition.notify_one();
    return PagedQueue::eOk;
}

bool PagedQueueImpl::refreshWriteState()
{
    SpoolState stored;
    if (!moStateFile.readWriteState(stored) || stored.count <= moWriteCopy.count)
        return false;
    moWriteCopy = stored;
    mbResync = true;
    return true;
}

PagedQueue::Result PagedQueueImpl::waitForData(quint64 interval, SpoolState& committed, bool& resync)
{
    boost::unique_lock<boost::mutex> lock(moMutex);
    while (moRead.samePlace(moWriteCopy)) {
        if (interval == 0) {
            if (refreshWriteState())
                break;
            BTRACE(TraceDebug) << "Not polling and at end of data";
            return PagedQueue::eEndOfData;
        }
        if (moCondition.wait_until(lock, moDeadline) == boost::cv_status::timeout) {
            const Clock::time_point now = Clock::now();
            moDeadline += boost::chrono::milliseconds(interval);
            if (moDeadline <= now)
                moDeadline = now + boost::chrono::milliseconds(interval);
            if (refreshWriteState())
                break;
            return mptPending ? PagedQueue::eMessagePending : PagedQueue::eTryAgain;
        }
    }
    committed = moWriteCopy;
    resync = mbResync;
    mbResync = false;
    return PagedQueue::eOk;
}

PagedQueue::Result PagedQueueImpl::getData(quint64 interval)
{
    for (;;) {
        SpoolState committed;
        bool resync = false;
        const PagedQueue::Result waited = waitForData(interval, committed, resync);
        if (waited != PagedQueue::eOk)
            return waited;
        // Bytes the buffer took beyond the last record then written may have
        // been written again since by a sender in another process.
        if (resync)
            moReadFile.setPosition(qint64(moRead.offset), RawFile::eStart);
        bool record = false;
        if (!readRecord(committed, record))
            return receiveFailed();
        if (record)
            return PagedQueue::eOk;
    }
}

PagedQueue::Result PagedQueueImpl::receiveFailed()
{
    mbValid = false;
    return PagedQueue::eReceiveError;
}

// Reads the record at the read state. Every length is checked against what
// the sender has written for good, so that neither a damaged file nor a record
// still being written is read past its end.
bool PagedQueueImpl::readRecord(const SpoolState& committed, bool& record)
{
    const quint64 start = moRead.offset;
    quint64 end;
    if (committed.file == moRead.file) {
        end = committed.offset;
    } else {
        if (mullReadFileEnd == 0)
            mullReadFileEnd = moReadFile.size();
        end = mullReadFileEnd;
    }
    const quint64 left = end > start ? end - start : 0;

    unsigned char lengthBytes[SpoolLayout::HeaderLengthSize];
    if (left < sizeof lengthBytes || moReadFile.read(lengthBytes, sizeof lengthBytes) != sizeof lengthBytes) {
        BTRACE(TraceAlways) << "Failed to read record size" << moReadFile.path() << start << left;
        return false;
    }
    const unsigned headerLength = ByteOrder::load32(lengthBytes);
    if (headerLength < SpoolLayout::MinimumHeaderLength || headerLength > SpoolLayout::MaximumHeaderLength ||
        headerLength > left - sizeof lengthBytes) {
        BTRACE(TraceAlways) << "Failed to read record header" << moReadFile.path() << start << headerLength;
        return false;
    }
    moHeader.size(headerLength);
    if (moReadFile.read(moHeader.data(), headerLength) != headerLength) {
        BTRACE(TraceAlways) << "Failed to read record header" << moReadFile.path() << start;
        return false;
    }
    bool ok = true;
    const unsigned type = moHeader.takeUint32(&ok);
    if (ok && type == SpoolLayout::DataRecordType) {
        const unsigned size = moHeader.takeUint32(&ok);
        if (!ok) {
            BTRACE(TraceAlways) << "Failed to read record header" << moReadFile.path() << start;
            return false;
        }
        if (size == 0) {
            BTRACE(TraceAlways) << "Invalid zero length record" << moReadFile.path() << start;
            return false;
        }
        if (size > left - sizeof lengthBytes - headerLength) {
            BTRACE(TraceAlways) << "Failed to read" << size << "byte record" << moReadFile.path() << start
                                << "beyond the end" << end;
            return false;
        }
        moData.size(size);
        Extent into(moData.data(), size);
        if (!moReadFile.read(into) || into.available() != 0) {
            BTRACE(TraceAlways) << "Failed to read" << size << "byte record" << moReadFile.path() << start;
            return false;
        }
        mbHeld = true;
        record = true;
        return true;
    }
    if (ok && type == SpoolLayout::NextFileRecordType) {
        const quint64 number = moHeader.takeUint64(&ok);
        if (!ok || number != moRead.file + 1) {
            BTRACE(TraceAlways) << "Invalid next file number" << number << moReadFile.path() << start;
            return false;
        }
        return nextReadFile(number);
    }
    BTRACE(TraceAlways) << "Invalid record type" << type << moReadFile.path() << start;
    return false;
}

bool PagedQueueImpl::nextReadFile(quint64 number)
{
    const QString path = dataPath(msPath, number);
    if (!RawFile(path, RawFile::eReadOnly)) {
        BTRACE(TraceAlways) << "Failed to open next file" << path << "for reading";
        return false;
    }
    SpoolState moved = moRead;
    moved.file = number;
    moved.offset = 0;
    // The state leads to the next file before the finished one goes, so that
    // a receiver killed in between does not look for a file that is gone.
    if (!moStateFile.writeReadState(moved)) {
        BTRACE(TraceAlways) << "Failed to update read position" << SpoolLayout::statePath(msPath);
        return false;
    }
    moReadFile.deleteOnClose();
    if (!moReadFile.open(path, RawFile::eReadOnlySequential)) {
        BTRACE(TraceAlways) << "Failed to open next file" << path << "for reading";
        return false;
    }
    if (!moReadFile.setPosition(0, RawFile::eStart)) {
        BTRACE(TraceAlways) << "Failed to position next file" << path << "for reading";
        return false;
    }
    mullReadFileEnd = 0;
    boost::lock_guard<boost::mutex> lock(moMutex);
    moRead = moved;
    return true;
}

PagedQueue::Result PagedQueueImpl::receive(Extent& data)
{
    if (!mbValid)
        return PagedQueue::eDown;
    if (mbHeld)
        return PagedQueue::eInvalidRequest;
    const PagedQueue::Result result = getData(mullPollInterval);
    if (result == PagedQueue::eOk)
        data = Extent(moData.data(), moData.size());
    return result;
}

PagedQueue::Result PagedQueueImpl::receivePolled(Extent& data)
{
    const quint64 interval = mullPollInterval != 0 ? mullPollInterval : DefaultPollInterval;
    for (;;) {
        if (!mbValid)
            return PagedQueue::eDown;
        if (mbHeld)
            return PagedQueue::eInvalidRequest;
        const PagedQueue::Result result = getData(interval);
        if (result == PagedQueue::eOk) {
            data = Extent(moData.data(), moData.size());
            return result;
        }
        if (result == PagedQueue::eMessagePending) {
            if (mptPending->handle())
                continue;
            BTRACE(TraceAlways) << "Handling of messages stopped with" << int(mptPending->lastError());
            return result;
        }
        // A queue without a poll interval has no points at which to give up
        // waiting: it waits on, as it would at the end of the data.
        if (result == PagedQueue::eTryAgain && mullPollInterval == 0)
            continue;
        return result;
    }
}

PagedQueue::Result PagedQueueImpl::release()
{
    if (!mbValid)
        return PagedQueue::eDown;
    if (!mbHeld)
        return PagedQueue::eInvalidRequest;
    SpoolState done = moRead;
    done.count += 1;
    done.offset = moReadFile.getPosition();
    if (!moStateFile.writeReadState(done)) {
        BTRACE(TraceAlways) << "Failed to update read position" << SpoolLayout::statePath(msPath);
        return receiveFailed();
    }
    {
        boost::lock_guard<boost::mutex> lock(moMutex);
        moRead = done;
    }
    mbHeld = false;
    moData.size(0);
    return PagedQueue::eOk;
}

PagedQueue::Result PagedQueueImpl::relinquish()
{
    if (!mbValid)
        return PagedQueue::eDown;
    if (!mbHeld)
        return PagedQueue::eInvalidRequest;
    mbHeld = false;
    moReadFile.setPosition(qint64(moRead.offset), RawFile::eStart);
    moData.size(0);
    return PagedQueue::eOk;
}

PagedQueue::Result PagedQueueImpl::available(quint64& count)
{
    if (!mbValid)
        return PagedQueue::eDown;
    boost::lock_guard<boost::mutex> lock(moMutex);
    refreshWriteState();
    count = quint32(quint32(moWriteCopy.count) - quint32(moRead.count));
    return moRead.samePlace(moWriteCopy) ? PagedQueue::eEndOfData : PagedQueue::eOk;
}

PagedQueue::Result PagedQueueImpl::receiver()
{
    if (mptPending)
        return PagedQueue::eInvalidRequest;
    mptPending.reset(new MsgPending);
    return PagedQueue::eOk;
}

MsgResult PagedQueueImpl::pollResult() const { return mptPending ? mptPending->lastError() : eMsgResultFailed; }

void PagedQueueImpl::discard(const QString& path)
{
    BTRACE(TraceNormal) << "IN:discard" << path;
    SpoolStateFile state;
    if (!state.open(path))
        return;
    state.deleteOnClose();
    SpoolState write;
    SpoolState read;
    if (!state.readWriteState(write)) {
        BTRACE(TraceAlways) << "Failed get to write state" << SpoolLayout::statePath(path);
        return;
    }
    if (!state.readReadState(read)) {
        BTRACE(TraceAlways) << "Failed to get read state" << SpoolLayout::statePath(path);
        return;
    }
    // The files from the read state's to the write state's are all there in a
    // sound queue; a gap ends the walk, so that a damaged state cannot send it
    // through numbers that never were.
    for (quint64 number = read.file; number <= write.file; ++number) {
        RawFile file(dataPath(path, number), RawFile::eReadWrite);
        if (!file)
            break;
        file.deleteOnClose();
    }
}

} // namespace Brevi
