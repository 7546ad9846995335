#include "datachannel/datachannelimplshm.h"

#include "core/context.h"
#include "core/extent.h"
#include "core/trace.h"
#include "datachannel/datachannellayout.h"
#include "messaging/messaging.h"
#include "messaging/msgcatalogue.h"

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cstring>

#include <unistd.h>

namespace Brevi {

using namespace Catalogue;
namespace Layout = DatachannelShmLayout;

namespace {
const unsigned TraceModule = TraceModuleDatachannel;

boost::shared_ptr<DatachannelImpl> makeReceiver(const DatachannelImpl::Setup& setup)
{
    return boost::make_shared<DatachannelImplShm>(setup);
}

boost::shared_ptr<DatachannelImpl> makeSender(const DatachannelImpl::Setup& setup)
{
    return boost::make_shared<DatachannelImplShm>(setup, setup.connected);
}

[[maybe_unused]] const bool registered = DatachannelImpl::registerTransport(
    DatachannelTransport::Memory, DatachannelImpl::Builders{makeReceiver, makeSender, nullptr});

bool present(const XmlList& details, const QString& key) { return !details.first(key).isNull(); }
} // namespace

// ---------------------------------------------------------------------------
// Construction

DatachannelImplShm::DatachannelImplShm(const Setup& setup)
    : DatachannelImpl(setup, false)
{
    using namespace DatachannelKey;
    const XmlList& details = setup.details.list;
    muiId = setup.id;
    muiBufferSize = unsigned(std::min<unsigned long long>(detailNumber(details, ShmBufferSize), ~0u));
    muiBufferCount = unsigned(std::min<unsigned long long>(detailNumber(details, ShmBufferCount), ~0u));
    if (muiBufferSize == 0) {
        BTRACE(TraceAlways) << "Invalid buffer size supplied";
        return;
    }
    if (muiBufferCount == 0) {
        BTRACE(TraceAlways) << "Invalid buffer count supplied";
        return;
    }
    const unsigned long long size = Layout::areaSize(muiBufferSize, muiBufferCount);
    if (size > Layout::MaximumAreaSize || !moProvider.allocate(unsigned(size))) {
        BTRACE(TraceAlways) << "Failed to allocate shared memory" << size;
        return;
    }
    moMemoryId = moProvider.id();
    moMemory = SharedMemoryUser(moMemoryId);
    if (!moMemory || moMemory.size() < size) {
        BTRACE(TraceAlways) << "Failed to attach to shared memory";
        return;
    }
    unsigned char* area = moMemory.address();
    unsigned char* sync = area + Layout::syncOffset(muiBufferSize, muiBufferCount);
    if (!moSend.create(sync + Layout::SendSemaphoreOffset, muiBufferCount)) {
        BTRACE(TraceAlways) << "Failed to initialize send semaphore";
        return;
    }
    if (!moReceive.create(sync + Layout::ReceiveSemaphoreOffset, 0)) {
        BTRACE(TraceAlways) << "Failed to initialize receive semaphore";
        return;
    }
    ByteOrder::store32(sync + Layout::ReceiverPidOffset, unsigned(::getpid()));
    ByteOrder::store32(sync + Layout::SenderPidOffset, 0);
    mptMessaging = Context::messaging();
    if (!mptMessaging) {
        BTRACE(TraceAlways) << "No messaging subsystem";
        return;
    }
    mptMessaging->addDatachannel(muiId, DatachannelTransport::Memory);
    mbRegistered = true;
    Layout::writeTable(area, muiBufferSize, muiBufferCount);
    moReceive.heartbeat(muiHeartbeatMs);
    mbConnected = true;
    meTransport = DatachannelTransport::Memory;
    mbValid = true;
    BTRACE(TraceNormal) << "Memory receive channel" << muiId << "from" << moPeer << "buffers" << muiBufferSize << "by"
                        << muiBufferCount;
}

DatachannelImplShm::DatachannelImplShm(const Setup& setup, bool connected)
    : DatachannelImpl(setup, true)
{
    if (connected && attach(setup.details) != Datachannel::eOk)
        return;
    meTransport = DatachannelTransport::Memory;
    mbValid = true;
}

DatachannelImplShm::~DatachannelImplShm()
{
    // The receiver made the semaphores; the sender's process may still be
    // in a wait on one, but the channel's owners end a channel only once both
    // are done with it.
    if (!mbSend) {
        moSend.destroy();
        moReceive.destroy();
    }
    moMemory = SharedMemoryUser();
    moProvider.release();
    if (mbRegistered && Context::isValid() && Context::messaging() == mptMessaging)
        mptMessaging->removeDatachannel(muiId);
}

Datachannel::Result DatachannelImplShm::attach(const Details& details)
{
    using namespace DatachannelKey;
    const XmlList& list = details.list;
    if (!present(list, ProcessId)) {
        BTRACE(TraceAlways) << "No process id supplied";
        return Datachannel::eInvalidArgument;
    }
    if (!present(list, SendHandle)) {
        BTRACE(TraceAlways) << "No send handle supplied";
        return Datachannel::eInvalidArgument;
    }
    if (!present(list, ReceiveHandle)) {
        BTRACE(TraceAlways) << "No receive handle supplied";
        return Datachannel::eInvalidArgument;
    }
    const unsigned long long size = detailNumber(list, ShmBufferSize);
    const unsigned long long count = detailNumber(list, ShmBufferCount);
    if (size == 0 || size > ~0u) {
        BTRACE(TraceAlways) << "Invalid send channel buffer size supplied";
        return Datachannel::eInvalidArgument;
    }
    if (count == 0 || count > ~0u) {
        BTRACE(TraceAlways) << "Invalid send channel count size supplied";
        return Datachannel::eInvalidArgument;
    }
    const SharedMemoryId id(list, MemoryId);
    SharedMemoryUser memory;
    if (id)
        memory = SharedMemoryUser(id);
    if (!memory) {
        BTRACE(TraceAlways) << "Failed to attach to shared memory";
        return Datachannel::eInternalError;
    }
    QString problem;
    if (!Layout::check(memory.address(), memory.size(), unsigned(size), unsigned(count), detailNumber(list, SendHandle),
                       detailNumber(list, ReceiveHandle), problem)) {
        BTRACE(TraceAlways) << "Failed to attach to shared memory:" << problem;
        return Datachannel::eInternalError;
    }
    unsigned char* sync = memory.address() + Layout::syncOffset(unsigned(size), unsigned(count));
    const unsigned pid = unsigned(detailNumber(list, ProcessId));
    if (pid != ByteOrder::load32(sync + Layout::ReceiverPidOffset) || !DatachannelSemaphore::processAlive(pid)) {
        BTRACE(TraceAlways) << "Failed to get handle to other process" << pid;
        return Datachannel::eInternalError;
    }
    moSend.attach(sync + Layout::SendSemaphoreOffset);
    moReceive.attach(sync + Layout::ReceiveSemaphoreOffset);
    ByteOrder::store32(sync + Layout::SenderPidOffset, unsigned(::getpid()));
    // Both ends have it mapped now; the name is no longer needed.
    SharedMemoryProvider::remove(id);
    moMemory = memory;
    moMemoryId = id;
    muiBufferSize = unsigned(size);
    muiBufferCount = unsigned(count);
    muiId = details.receiveId;
    moPeer = details.peer;
    moSend.heartbeat(muiHeartbeatMs);
    mbConnected = true;
    BTRACE(TraceNormal) << "Memory send channel to" << moPeer << "channel" << muiId << "buffers" << muiBufferSize
                        << "by" << muiBufferCount;
    return Datachannel::eOk;
}

Datachannel::Result DatachannelImplShm::connect(const Details& details) { return attach(details); }

XmlList DatachannelImplShm::receiveDetails() const
{
    using namespace DatachannelKey;
    const unsigned long long sync = Layout::syncOffset(muiBufferSize, muiBufferCount);
    XmlList details;
    details.set(Type, TypeReceive);
    details.set(DatachannelKey::Transport, Datachannel::transportText(DatachannelTransport::Memory));
    details.set(PeerAddress, mptMessaging->physicalAddress().toXml());
    details.set(ReceiveId, muiId);
    details.set(ShmBufferSize, muiBufferSize);
    details.set(ShmBufferCount, muiBufferCount);
    details.set(MemoryId, moMemoryId.toXml());
    details.set(ProcessId, unsigned(::getpid()));
    // Offsets in an area of at most MaximumAreaSize.
    details.set(SendHandle, unsigned(sync + Layout::SendSemaphoreOffset));
    details.set(ReceiveHandle, unsigned(sync + Layout::ReceiveSemaphoreOffset));
    return details;
}

void DatachannelImplShm::peerGone(bool)
{
    // The semaphores tell: pending() checks the peer's process at each
    // heartbeat, and a receiver first reads what was handed over.
}

// ---------------------------------------------------------------------------
// Buffers

unsigned char* DatachannelImplShm::buffer() const
{
    unsigned char* area = moMemory.address();
    return area + ByteOrder::load32(Layout::entry(area, muiIndex) + Layout::EntryOffsetOffset);
}

Datachannel::Result DatachannelImplShm::pending()
{
    unsigned char* sync = moMemory.address() + Layout::syncOffset(muiBufferSize, muiBufferCount);
    const unsigned pid = ByteOrder::load32(sync + (mbSend ? Layout::ReceiverPidOffset : Layout::SenderPidOffset));
    if (pid != 0 && !DatachannelSemaphore::processAlive(pid)) {
        // A unit posted just before the peer went is still the peer's data.
        if (!mbSend && moReceive.tryTake())
            return Datachannel::eOk;
        BTRACE(TraceAlways) << (mbSend ? "The peer has ended" : "The sending process has ended") << pid << "channel"
                            << muiId;
        fail();
        return Datachannel::eDown;
    }
    (mbSend ? moSend : moReceive).heartbeat(muiHeartbeatMs);
    return Datachannel::eMessagePending;
}

Datachannel::Result DatachannelImplShm::take()
{
    if (mbBufferHeld)
        return Datachannel::eOk;
    if (!mbConnected) {
        BTRACE(TraceAlways) << (mbSend ? "Attempt to get a send buffer on an unconnected channel"
                                       : "Attempt to get available data on an unconnected channel");
        return Datachannel::eNotConnected;
    }
    Result result = (mbSend ? moSend : moReceive).wait();
    if (result == Datachannel::eMessagePending)
        result = pending();
    if (result != Datachannel::eOk)
        return result;
    mpBuffer = buffer();
    if (mbSend) {
        muiCurrentSize = muiBufferSize;
    } else {
        muiCurrentSize = ByteOrder::load32(Layout::entry(moMemory.address(), muiIndex) + Layout::EntrySizeOffset);
        if (muiCurrentSize == 0) {
            BTRACE(TraceAlways) << "Failed to receive an empty data buffer";
            fail();
            return Datachannel::eReceiveError;
        }
        if (muiCurrentSize > muiBufferSize) {
            BTRACE(TraceAlways) << "Error: `muiBufferSize >= rtBlock.uiSize' failed." << muiCurrentSize;
            fail();
            return Datachannel::eReceiveError;
        }
    }
    muiLeft = muiCurrentSize;
    mbBufferHeld = true;
    return Datachannel::eOk;
}

Datachannel::Result DatachannelImplShm::handOver(unsigned size)
{
    if (mbSend) {
        if (size == 0) {
            BTRACE(TraceAlways) << "Error: `0 < moBuffer.offset()' failed.";
            return Datachannel::eInvalidRequest;
        }
        ByteOrder::store32(Layout::entry(moMemory.address(), muiIndex) + Layout::EntrySizeOffset, size);
    }
    if (!(mbSend ? moReceive : moSend).post()) {
        BTRACE(TraceAlways) << (mbSend ? "Failed to add data buffer to receive queue"
                                       : "Failed to release receive buffer back to send queue");
        fail();
        return Datachannel::eSendError;
    }
    muiIndex = (muiIndex + 1) % muiBufferCount;
    mbBufferHeld = false;
    mpBuffer = nullptr;
    muiLeft = 0;
    return Datachannel::eOk;
}

Datachannel::Result DatachannelImplShm::send(const Extent& data, bool flushAfter)
{
    while (data.available()) {
        const Result result = take();
        if (result != Datachannel::eOk)
            return result;
        const unsigned n = std::min(muiLeft, data.available());
        std::memcpy(mpBuffer + (muiCurrentSize - muiLeft), data.at(), n);
        data.used(n);
        muiLeft -= n;
        if (muiLeft == 0) {
            const Result passed = handOver(muiCurrentSize);
            if (passed != Datachannel::eOk)
                return passed;
        }
    }
    return flushAfter ? flush() : Datachannel::eOk;
}

Datachannel::Result DatachannelImplShm::receive(Extent& data)
{
    while (data.available()) {
        const Result result = take();
        if (result != Datachannel::eOk)
            return result;
        const unsigned n = std::min(muiLeft, data.available());
        std::memcpy(data.at(), mpBuffer + (muiCurrentSize - muiLeft), n);
        data.used(n);
        muiLeft -= n;
        if (muiLeft == 0) {
            const Result released = handOver(0);
            if (released != Datachannel::eOk)
                return released;
        }
    }
    return Datachannel::eOk;
}

Datachannel::Result DatachannelImplShm::available(Extent& rest)
{
    const Result result = take();
    if (result == Datachannel::eOk)
        rest = Extent(mpBuffer + (muiCurrentSize - muiLeft), muiLeft);
    return result;
}

Datachannel::Result DatachannelImplShm::available(unsigned& count)
{
    count = mbBufferHeld ? muiLeft : 0;
    return Datachannel::eOk;
}

Datachannel::Result DatachannelImplShm::flush()
{
    if (!mbBufferHeld || muiLeft == muiCurrentSize)
        return Datachannel::eOk;
    return handOver(muiCurrentSize - muiLeft);
}

Datachannel::Result DatachannelImplShm::getSendBuffer(Extent& rest) { return available(rest); }

Datachannel::Result DatachannelImplShm::getReceiveBuffer(Extent& rest) { return available(rest); }

Datachannel::Result DatachannelImplShm::sendBuffer(unsigned size)
{
    if (!mbBufferHeld) {
        BTRACE(TraceAlways) << "Attempt to use a buffer when no buffer is present";
        return Datachannel::eInvalidRequest;
    }
    if (size > muiLeft) {
        BTRACE(TraceAlways) << "Attempt to send" << size << "bytes of a buffer with" << muiLeft << "left";
        return Datachannel::eInvalidArgument;
    }
    return handOver(muiCurrentSize - muiLeft + size);
}

Datachannel::Result DatachannelImplShm::releaseBuffer()
{
    if (!mbBufferHeld) {
        BTRACE(TraceAlways) << "Attempt to use a buffer when no buffer is present";
        return Datachannel::eInvalidRequest;
    }
    return handOver(0);
}

Datachannel::Result DatachannelImplShm::used(unsigned size)
{
    if (!mbBufferHeld) {
        BTRACE(TraceAlways) << "Attempt to use a buffer when no buffer is present";
        return Datachannel::eInvalidRequest;
    }
    if (size > muiLeft) {
        BTRACE(TraceAlways) << "Attempt to use" << size << "bytes of a buffer with" << muiLeft << "left";
        return Datachannel::eInvalidArgument;
    }
    muiLeft -= size;
    return muiLeft ? Datachannel::eOk : handOver(mbSend ? muiCurrentSize : 0);
}

} // namespace Brevi
