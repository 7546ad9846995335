#include "datachannel/datachannelimplfile.h"

#include "core/context.h"
#include "core/extent.h"
#include "core/trace.h"
#include "messaging/messaging.h"
#include "messaging/msgcatalogue.h"

#include <QFile>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cstring>

#include <unistd.h>

namespace Brevi {

using namespace Catalogue;
namespace Layout = DatachannelFileLayout;
namespace Spool = SpoolLayout;

namespace {
const unsigned TraceModule = TraceModuleDatachannel;

// How often a receiver with no sender attached looks at the state file.
const unsigned long long FollowMs = 50;
const unsigned ReadAheadSize = 65536;

boost::shared_ptr<DatachannelImpl> makeReceiver(const DatachannelImpl::Setup& setup)
{
    return boost::make_shared<DatachannelImplFile>(setup);
}

boost::shared_ptr<DatachannelImpl> makeSender(const DatachannelImpl::Setup& setup)
{
    return boost::make_shared<DatachannelImplFile>(setup, setup.connected);
}

[[maybe_unused]] const bool registered = DatachannelImpl::registerTransport(
    DatachannelTransport::File, DatachannelImpl::Builders{makeReceiver, makeSender, DatachannelImplFile::discard});

bool present(const XmlList& details, const QString& key) { return !details.first(key).isNull(); }
} // namespace

// ---------------------------------------------------------------------------
// Construction

bool DatachannelImplFile::readKeys(const XmlList& details)
{
    using namespace DatachannelKey;
    details.get(msBasePath, FileBasePath);
    const unsigned long long size = detailNumber(details, FileBufferSize);
    mullPageSize = detailNumber(details, FilePageSize);
    if (mbSend && msBasePath.isEmpty()) {
        BTRACE(TraceAlways) << "No base path supplied";
        return false;
    }
    if (size == 0 || size > ~0u) {
        BTRACE(TraceAlways) << (mbSend ? "Invalid send channel buffer size supplied" : "Invalid buffer size supplied");
        return false;
    }
    if (!mbSend && msBasePath.isEmpty()) {
        BTRACE(TraceAlways) << "Invalid base path supplied";
        return false;
    }
    if (mbSend ? mullPageSize == 0 : unsigned(mullPageSize) < size && (mullPageSize >> 32) == 0) {
        BTRACE(TraceAlways) << (mbSend ? "No page size supplied" : "Invalid page size supplied");
        return false;
    }
    muiBufferSize = unsigned(size);
    moData.assign(muiBufferSize, 0);
    return true;
}

DatachannelImplFile::DatachannelImplFile(const Setup& setup)
    : DatachannelImpl(setup, false)
{
    muiId = setup.id;
    if (!readKeys(setup.details.list))
        return;
    if (!moProvider.allocate(Layout::AreaSize)) {
        BTRACE(TraceAlways) << "Failed to allocate shared memory";
        return;
    }
    moMemoryId = moProvider.id();
    moMemory = SharedMemoryUser(moMemoryId);
    if (!moMemory || moMemory.size() < Layout::AreaSize) {
        BTRACE(TraceAlways) << "Failed to attach to shared memory";
        return;
    }
    unsigned char* area = moMemory.address();
    std::memset(area, 0, Layout::AreaSize);
    if (!moCondition.create(area)) {
        BTRACE(TraceAlways) << "Failed to initialize condition";
        return;
    }
    mpArea = area;
    ByteOrder::store32(area + Layout::ReceiverPidOffset, unsigned(::getpid()));
    mptMessaging = Context::messaging();
    if (!mptMessaging) {
        BTRACE(TraceAlways) << "No messaging subsystem";
        return;
    }
    mptMessaging->addDatachannel(muiId, DatachannelTransport::File);
    mbRegistered = true;
    if (!openReceiveSpool())
        return;
    moCondition.heartbeat(muiHeartbeatMs);
    mbConnected = true;
    meTransport = DatachannelTransport::File;
    mbValid = true;
    BTRACE(TraceNormal) << "File receive channel" << muiId << msBasePath << "at file" << moLocal.file << "offset"
                        << moLocal.offset;
}

bool DatachannelImplFile::openStates(SpoolState& write, SpoolState& read)
{
    bool fresh = false;
    if (moStateFile.open(msBasePath)) {
        BTRACE(TraceNormal) << "Opening existing file channel" << msBasePath;
    } else {
        // The other end, should it start at the same moment, makes the same
        // first data file; neither cuts it, since only a sender cuts, and
        // only at a write state.
        RawFile first;
        if (!first.create(Spool::dataPath(msBasePath, Spool::FirstFileNumber), RawFile::eReadWrite)) {
            BTRACE(TraceAlways) << "Failed to create data file";
            return false;
        }
        bool existed = false;
        if (!moStateFile.create(msBasePath, existed)) {
            BTRACE(TraceAlways) << "Failed to open state file" << msBasePath;
            return false;
        }
        fresh = !existed;
        BTRACE(TraceNormal) << (fresh ? "Opening new file channel" : "Opening existing file channel") << msBasePath;
    }
    if (!moStateFile.readStates(write, read) || !Spool::statesInOrder(write, read)) {
        BTRACE(TraceAlways) << (fresh    ? "Failed to initialize state file"
                                : mbSend ? "Failed to read send file state"
                                         : "Failed to read receive file state")
                            << msBasePath << "read state" << read.file << read.offset << "write state" << write.file
                            << write.offset;
        return false;
    }
    storeAreaState(Layout::WriteStateOffset, write);
    storeAreaState(Layout::ReadStateOffset, read);
    return true;
}

bool DatachannelImplFile::openReceiveSpool()
{
    SpoolState write, read;
    if (!openStates(write, read))
        return false;
    if (!moReadFile.open(Spool::dataPath(msBasePath, read.file), RawFile::eReadOnly)) {
        BTRACE(TraceAlways) << "Failed to open receive data file" << read.file;
        return false;
    }
    if (moReadFile.size() < read.offset) {
        BTRACE(TraceAlways) << "Failed to position receive data file" << read.file << read.offset;
        return false;
    }
    moLocal = read;
    return true;
}

DatachannelImplFile::DatachannelImplFile(const Setup& setup, bool connected)
    : DatachannelImpl(setup, true)
{
    if (!readKeys(setup.details.list))
        return;
    if (connected && attach(setup.details) != Datachannel::eOk)
        return;
    if (!connected && !openSendSpool())
        return;
    meTransport = DatachannelTransport::File;
    mbValid = true;
}

bool DatachannelImplFile::openSendSpool()
{
    if (moStateFile)
        return true;
    SpoolState write, read;
    if (!openStates(write, read))
        return false;
    // What a crash left behind the last complete record goes.
    if (!moWriteFile.open(Spool::dataPath(msBasePath, write.file), RawFile::eReadWrite)) {
        BTRACE(TraceAlways) << "Failed to open write file" << write.file;
        return false;
    }
    if (moWriteFile.size() < write.offset) {
        BTRACE(TraceAlways) << "Failed to position write file" << write.file << write.offset;
        return false;
    }
    if (!moWriteFile.truncate(write.offset, false)) {
        BTRACE(TraceAlways) << "Failed to truncate write file";
        return false;
    }
    moLocal = write;
    return true;
}

Datachannel::Result DatachannelImplFile::attach(const Details& details)
{
    using namespace DatachannelKey;
    const XmlList& list = details.list;
    const char* missing = !present(list, ProcessId)     ? "No process id supplied"
                          : !present(list, MutexHandle) ? "No mutex handle supplied"
                          : !present(list, GateHandle)  ? "No gate handle supplied"
                          : !present(list, QueueHandle) ? "No queue handle supplied"
                                                        : nullptr;
    if (missing) {
        BTRACE(TraceAlways) << missing;
        return Datachannel::eInvalidArgument;
    }
    const SharedMemoryId id(list, MemoryId);
    SharedMemoryUser memory;
    if (id)
        memory = SharedMemoryUser(id);
    if (!memory || memory.size() < Layout::AreaSize ||
        !Layout::handlesInPlace(detailNumber(list, MutexHandle), detailNumber(list, GateHandle),
                                detailNumber(list, QueueHandle))) {
        BTRACE(TraceAlways) << "Failed to attach to shared memory";
        return Datachannel::eInternalError;
    }
    unsigned char* area = memory.address();
    const unsigned pid = unsigned(detailNumber(list, ProcessId));
    if (pid != ByteOrder::load32(area + Layout::ReceiverPidOffset) || !DatachannelSemaphore::processAlive(pid)) {
        BTRACE(TraceAlways) << "Failed to get handle to other process" << pid;
        return Datachannel::eInternalError;
    }
    QString base;
    list.get(base, FileBasePath);
    if (base != msBasePath) {
        BTRACE(TraceAlways) << "Mismatching base path" << base << "for" << msBasePath;
        return Datachannel::eInvalidArgument;
    }
    if (!openSendSpool())
        return Datachannel::eInternalError;
    SharedMemoryProvider::remove(id);
    moCondition.attach(area);
    if (!moCondition.lock())
        return Datachannel::eInternalError;
    // The receiver took the write state from the file; this end's is newer
    // if it wrote before connecting.
    mpArea = area;
    moMemory = memory;
    moMemoryId = id;
    storeAreaState(Layout::WriteStateOffset, moLocal);
    area[Layout::ConnectedOffset] = 1;
    ByteOrder::store32(area + Layout::SenderPidOffset, unsigned(::getpid()));
    moCondition.notify();
    moCondition.unlock();
    moPeer = details.peer;
    mbConnected = true;
    BTRACE(TraceNormal) << "File send channel to" << moPeer << msBasePath << "at file" << moLocal.file << "offset"
                        << moLocal.offset;
    return Datachannel::eOk;
}

Datachannel::Result DatachannelImplFile::connect(const Details& details) { return attach(details); }

DatachannelImplFile::~DatachannelImplFile()
{
    if (mbSend && mbConnected && moCondition.isValid() && moCondition.lock()) {
        mpArea[Layout::ConnectedOffset] = 0;
        ByteOrder::store32(mpArea + Layout::SenderPidOffset, 0);
        moCondition.notify();
        moCondition.unlock();
    }
    moMemory = SharedMemoryUser();
    moProvider.release();
    if (mbRegistered && Context::isValid() && Context::messaging() == mptMessaging)
        mptMessaging->removeDatachannel(muiId);
}

XmlList DatachannelImplFile::receiveDetails() const
{
    using namespace DatachannelKey;
    XmlList details;
    details.set(Type, TypeReceive);
    details.set(DatachannelKey::Transport, Datachannel::transportText(DatachannelTransport::File));
    details.set(PeerAddress, mptMessaging->physicalAddress().toXml());
    details.set(FileBasePath, msBasePath);
    details.set(FileBufferSize, muiBufferSize);
    details.set(FilePageSize, mullPageSize);
    details.set(MemoryId, moMemoryId.toXml());
    details.set(ProcessId, unsigned(::getpid()));
    details.set(MutexHandle, Layout::MutexOffset);
    details.set(GateHandle, Layout::GateOffset);
    details.set(QueueHandle, Layout::QueueOffset);
    return details;
}

void DatachannelImplFile::discard(const XmlList& details)
{
    QString base;
    details.get(base, DatachannelKey::FileBasePath);
    SpoolStateFile state;
    if (base.isEmpty() || !state.open(base))
        return;
    state.deleteOnClose();
    SpoolState write, read;
    if (!state.readStates(write, read) || !Spool::statesInOrder(write, read))
        return;
    for (quint64 file = read.file; file <= write.file; ++file)
        QFile::remove(Spool::dataPath(base, file));
}

SpoolState DatachannelImplFile::areaState(unsigned offset) const { return Spool::loadState(mpArea + offset); }

void DatachannelImplFile::storeAreaState(unsigned offset, const SpoolState& state)
{
    Spool::storeState(mpArea + offset, state);
}

Datachannel::Result DatachannelImplFile::availableBufferCount(unsigned long long& count)
{
    count = 0;
    const bool shared = mpArea != mabPrivate;
    if (shared && !moCondition.lock())
        return Datachannel::eInternalError;
    SpoolState write = areaState(Layout::WriteStateOffset);
    SpoolState read = areaState(Layout::ReadStateOffset);
    if (shared)
        moCondition.unlock();
    // Alone, each end learns the other's progress from the state file.
    if (!shared || (!mbSend && !mpArea[Layout::ConnectedOffset]))
        mbSend ? moStateFile.readReadState(read) : moStateFile.readWriteState(write);
    count = write.count > read.count ? write.count - read.count : 0;
    return Datachannel::eOk;
}

// ---------------------------------------------------------------------------
// Sending

Datachannel::Result DatachannelImplFile::writeRecord(unsigned size)
{
    if (size == 0)
        return Datachannel::eOk;
    unsigned char header[Spool::DataRecordOverhead];
    ByteOrder::store32(header, Spool::DataHeaderLength);
    ByteOrder::store32(header + 4, Spool::DataRecordType);
    ByteOrder::store32(header + 8, size);
    const size_t written = moWriteFile.writeAt(moLocal.offset, header, sizeof header, moData.data(), size);
    if (written != sizeof header + size) {
        BTRACE(TraceAlways) << (written < sizeof header ? "Failed to write record size" : "Failed to write") << size
                            << "byte record";
        fail();
        return Datachannel::eSendError;
    }
    mbBufferHeld = false;
    muiFilled = 0;
    if (!updateWriteState(unsigned(written))) {
        BTRACE(TraceAlways) << "Failed to notify receive data is available";
        fail();
        return Datachannel::eSendError;
    }
    return Datachannel::eOk;
}

bool DatachannelImplFile::updateWriteState(unsigned recordSize)
{
    moLocal.offset += recordSize;
    ++moLocal.count;
    bool newFile = false;
    if (moLocal.offset >= mullPageSize) {
        const quint64 next = moLocal.file + 1;
        unsigned char record[Spool::NextFileRecordSize];
        ByteOrder::store32(record, Spool::NextFileHeaderLength);
        ByteOrder::store32(record + 4, Spool::NextFileRecordType);
        ByteOrder::store64(record + 8, next);
        if (moWriteFile.writeAt(moLocal.offset, record, sizeof record) != sizeof record) {
            BTRACE(TraceAlways) << "Failed to write next file record";
            return false;
        }
        if (!moWriteFile.create(Spool::dataPath(msBasePath, next), RawFile::eReadWrite)) {
            BTRACE(TraceAlways) << "Failed to open next file" << next;
            return false;
        }
        if (!moWriteFile.truncate(0, false)) {
            BTRACE(TraceAlways) << "Failed to truncate next file" << next;
            return false;
        }
        moLocal.file = next;
        moLocal.offset = 0;
        newFile = true;
    }
    if (!moStateFile.writeWriteState(moLocal)) {
        BTRACE(TraceAlways) << "Failed to update write state";
        return false;
    }
    if (mpArea == mabPrivate || !mbConnected) {
        storeAreaState(Layout::WriteStateOffset, moLocal);
        return true;
    }
    if (!moCondition.lock())
        return false;
    if (areaState(Layout::WriteStateOffset).samePlace(areaState(Layout::ReadStateOffset)) || newFile)
        moCondition.notify();
    storeAreaState(Layout::WriteStateOffset, moLocal);
    return moCondition.unlock();
}

Datachannel::Result DatachannelImplFile::getSendBuffer(Extent& buffer)
{
    mbBufferHeld = true;
    buffer = Extent(moData.data() + muiFilled, muiBufferSize - muiFilled);
    return Datachannel::eOk;
}

Datachannel::Result DatachannelImplFile::send(const Extent& data, bool flushAfter)
{
    while (data.available()) {
        mbBufferHeld = true;
        const unsigned n = std::min(muiBufferSize - muiFilled, data.available());
        std::memcpy(moData.data() + muiFilled, data.at(), n);
        data.used(n);
        muiFilled += n;
        if (muiFilled == muiBufferSize) {
            const Result result = writeRecord(muiFilled);
            if (result != Datachannel::eOk)
                return result;
        }
    }
    return flushAfter ? flush() : Datachannel::eOk;
}

Datachannel::Result DatachannelImplFile::flush() { return writeRecord(muiFilled); }

Datachannel::Result DatachannelImplFile::sendBuffer(unsigned size)
{
    if (!mbBufferHeld) {
        BTRACE(TraceAlways) << "Attempt to use a buffer when no buffer is present";
        return Datachannel::eInvalidRequest;
    }
    if (size > muiBufferSize - muiFilled) {
        BTRACE(TraceAlways) << "Attempt to send" << size << "bytes of a buffer with" << muiBufferSize - muiFilled
                            << "left";
        return Datachannel::eInvalidArgument;
    }
    const unsigned total = muiFilled + size;
    if (total == 0) {
        BTRACE(TraceAlways) << "Error: `0 < moBuffer.offset()' failed.";
        return Datachannel::eInvalidRequest;
    }
    return writeRecord(total);
}

// ---------------------------------------------------------------------------
// Receiving

bool DatachannelImplFile::readBytes(quint64 position, void* into, unsigned count)
{
    // Nothing past the write state is read, not even ahead: a sender that
    // comes back cuts what its crash left there and writes anew.
    if (position > mullReadLimit || count > mullReadLimit - position)
        return false;
    if (position >= mullAheadStart && position + count <= mullAheadStart + muiAheadSize) {
        std::memcpy(into, moReadAhead.data() + (position - mullAheadStart), count);
        return true;
    }
    if (count >= ReadAheadSize / 2)
        return moReadFile.readAt(position, into, count) == count;
    moReadAhead.resize(ReadAheadSize);
    mullAheadStart = position;
    muiAheadSize = unsigned(moReadFile.readAt(position, moReadAhead.data(),
                                              size_t(std::min<quint64>(ReadAheadSize, mullReadLimit - position))));
    if (muiAheadSize < count)
        return false;
    std::memcpy(into, moReadAhead.data(), count);
    return true;
}

Datachannel::Result DatachannelImplFile::waitForData()
{
    if (!moCondition.lock()) {
        fail();
        return Datachannel::eInternalError;
    }
    for (;;) {
        const bool connected = mpArea[Layout::ConnectedOffset] != 0;
        if (!connected) {
            // No sender to tell: the state file does.
            SpoolState write;
            if (moStateFile.readWriteState(write) && Spool::statesInOrder(write, moLocal))
                storeAreaState(Layout::WriteStateOffset, write);
        }
        const SpoolState write = areaState(Layout::WriteStateOffset);
        if (!write.samePlace(moLocal)) {
            mullReadLimit = write.file == moLocal.file ? write.offset : ~quint64(0);
            moCondition.unlock();
            return Datachannel::eOk;
        }
        const Result result = moCondition.wait(connected ? 0 : FollowMs);
        if (result == Datachannel::eOk)
            continue;
        if (result == Datachannel::eMessagePending) {
            const unsigned pid = ByteOrder::load32(mpArea + Layout::SenderPidOffset);
            if (connected && !DatachannelSemaphore::processAlive(pid)) {
                BTRACE(TraceAlways) << "The sending process has ended" << pid << ", read from the state file";
                mpArea[Layout::ConnectedOffset] = 0;
                ByteOrder::store32(mpArea + Layout::SenderPidOffset, 0);
                continue;
            }
            moCondition.unlock();
            moCondition.heartbeat(muiHeartbeatMs);
            return result;
        }
        fail();
        return result;
    }
}

Datachannel::Result DatachannelImplFile::readRecord()
{
    unsigned char header[Spool::HeaderLengthSize + Spool::MaximumHeaderLength];
    if (!readBytes(moLocal.offset, header, Spool::HeaderLengthSize)) {
        BTRACE(TraceAlways) << "Failed to read record size" << moLocal.file << moLocal.offset;
        fail();
        return Datachannel::eReceiveError;
    }
    const unsigned length = ByteOrder::load32(header);
    if (length < Spool::MinimumHeaderLength || length > Spool::MaximumHeaderLength) {
        BTRACE(TraceAlways) << "reading record header" << moLocal.file << moLocal.offset << "Invalid header size"
                            << length;
        fail();
        return Datachannel::eReceiveError;
    }
    if (!readBytes(moLocal.offset, header, Spool::HeaderLengthSize + length)) {
        BTRACE(TraceAlways) << "Failed to read record header" << moLocal.file << moLocal.offset;
        fail();
        return Datachannel::eReceiveError;
    }
    const unsigned type = ByteOrder::load32(header + 4);
    if (type == Spool::DataRecordType && length == Spool::DataHeaderLength) {
        const unsigned size = ByteOrder::load32(header + 8);
        if (size == 0) {
            BTRACE(TraceAlways) << "Invalid zero length record" << moLocal.file << moLocal.offset;
            fail();
            return Datachannel::eReceiveError;
        }
        if (size > muiBufferSize) {
            BTRACE(TraceAlways) << "reading data record" << moLocal.file << moLocal.offset << "Invalid data size"
                                << size;
            fail();
            return Datachannel::eReceiveError;
        }
        if (!readBytes(moLocal.offset + Spool::DataRecordOverhead, moData.data(), size)) {
            BTRACE(TraceAlways) << "Failed to read" << size << "byte record" << moLocal.file << moLocal.offset;
            fail();
            return Datachannel::eReceiveError;
        }
        mullRecordEnd = moLocal.offset + Spool::DataRecordOverhead + size;
        muiRecordSize = size;
        muiLeft = size;
        mbBufferHeld = true;
        return Datachannel::eOk;
    }
    if (type == Spool::NextFileRecordType && length == Spool::NextFileHeaderLength) {
        const quint64 next = ByteOrder::load64(header + 8);
        if (next != moLocal.file + 1) {
            BTRACE(TraceAlways) << "Invalid next file number" << next << "after" << moLocal.file;
            fail();
            return Datachannel::eReceiveError;
        }
        const QString finished = Spool::dataPath(msBasePath, moLocal.file);
        if (!moReadFile.open(Spool::dataPath(msBasePath, next), RawFile::eReadOnly)) {
            BTRACE(TraceAlways) << "Failed to open next file" << next << "for reading";
            fail();
            return Datachannel::eReceiveError;
        }
        muiAheadSize = 0;
        moLocal.file = next;
        moLocal.offset = 0;
        const Result result = release();
        if (result != Datachannel::eOk)
            return result;
        QFile::remove(finished);
        return Datachannel::eTryAgain;
    }
    BTRACE(TraceAlways) << "Invalid record type" << type << "length" << length << "at" << moLocal.file
                        << moLocal.offset;
    fail();
    return Datachannel::eReceiveError;
}

Datachannel::Result DatachannelImplFile::fetch()
{
    if (mbBufferHeld)
        return Datachannel::eOk;
    for (;;) {
        Result result = waitForData();
        if (result == Datachannel::eOk)
            result = readRecord();
        if (result != Datachannel::eTryAgain)
            return result;
    }
}

Datachannel::Result DatachannelImplFile::release()
{
    if (mbBufferHeld) {
        moLocal.offset = mullRecordEnd;
        ++moLocal.count;
        mbBufferHeld = false;
        muiLeft = 0;
    }
    if (!moCondition.lock()) {
        fail();
        return Datachannel::eInternalError;
    }
    storeAreaState(Layout::ReadStateOffset, moLocal);
    moCondition.unlock();
    if (!moStateFile.writeReadState(moLocal)) {
        BTRACE(TraceAlways) << "Failed to update read position";
        fail();
        return Datachannel::eSendError;
    }
    return Datachannel::eOk;
}

Datachannel::Result DatachannelImplFile::receive(Extent& data)
{
    while (data.available()) {
        const Result result = fetch();
        if (result != Datachannel::eOk)
            return result;
        const unsigned n = std::min(muiLeft, data.available());
        std::memcpy(data.at(), moData.data() + (muiRecordSize - muiLeft), n);
        data.used(n);
        muiLeft -= n;
        if (muiLeft == 0) {
            const Result released = release();
            if (released != Datachannel::eOk)
                return released;
        }
    }
    return Datachannel::eOk;
}

Datachannel::Result DatachannelImplFile::getReceiveBuffer(Extent& buffer)
{
    const Result result = fetch();
    if (result == Datachannel::eOk)
        buffer = Extent(moData.data() + (muiRecordSize - muiLeft), muiLeft);
    return result;
}

Datachannel::Result DatachannelImplFile::releaseBuffer()
{
    if (!mbBufferHeld) {
        BTRACE(TraceAlways) << "Attempt to use a buffer when no buffer is present";
        return Datachannel::eInvalidRequest;
    }
    return release();
}

// ---------------------------------------------------------------------------
// Both ends

Datachannel::Result DatachannelImplFile::available(Extent& buffer)
{
    return mbSend ? getSendBuffer(buffer) : getReceiveBuffer(buffer);
}

Datachannel::Result DatachannelImplFile::available(unsigned& count)
{
    count = !mbBufferHeld ? 0 : mbSend ? muiBufferSize - muiFilled : muiLeft;
    return Datachannel::eOk;
}

Datachannel::Result DatachannelImplFile::used(unsigned size)
{
    if (!mbBufferHeld) {
        BTRACE(TraceAlways) << "Attempt to use a buffer when no buffer is present";
        return Datachannel::eInvalidRequest;
    }
    if (mbSend) {
        if (size > muiBufferSize - muiFilled)
            return Datachannel::eInvalidArgument;
        muiFilled += size;
        return muiFilled == muiBufferSize ? writeRecord(muiFilled) : Datachannel::eOk;
    }
    if (size > muiLeft)
        return Datachannel::eInvalidArgument;
    muiLeft -= size;
    return muiLeft ? Datachannel::eOk : release();
}

} // namespace Brevi
