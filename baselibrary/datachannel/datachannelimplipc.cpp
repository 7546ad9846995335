#include "datachannel/datachannelimplipc.h"

#include "core/context.h"
#include "core/extent.h"
#include "core/trace.h"
#include "messaging/datapacket.h"
#include "messaging/ipcpacketlayout.h"
#include "messaging/messaging.h"
#include "messaging/msgcatalogue.h"

#include <boost/make_shared.hpp>

namespace Brevi {

using namespace Catalogue;

namespace {
const unsigned TraceModule = TraceModuleDatachannel;

// Beyond the window, a receiver's queue has room for what a closing sender
// sends without waiting for it: its last buffer and the end mark.
const unsigned ClosingAllowance = 2;

// The largest buffer a packet can carry, with room for two long addresses
// and an authorization.
const unsigned MaximumBufferSize = IpcPacketLayout::EnabledMaximumSize - 0x10000;

const qint64 ThrottlePeriodMs = 1000;

boost::shared_ptr<DatachannelImpl> makeReceiver(const DatachannelImpl::Setup& setup)
{
    return boost::make_shared<DatachannelImplIPC>(setup);
}

boost::shared_ptr<DatachannelImpl> makeSender(const DatachannelImpl::Setup& setup)
{
    return boost::make_shared<DatachannelImplIPC>(setup, setup.connected);
}

[[maybe_unused]] const bool registered = DatachannelImpl::registerTransport(
    DatachannelTransport::IPC, DatachannelImpl::Builders{makeReceiver, makeSender, nullptr});

// A number of the details; 0 when absent or of another type.
unsigned number(const XmlList& details, const QString& key)
{
    unsigned value = 0;
    if (!details.first(key).isNull())
        details.get(value, key);
    return value;
}
} // namespace

const unsigned DatachannelImplIPC::DataMark;
const unsigned DatachannelImplIPC::EndMark;
const unsigned DatachannelImplIPC::AckMark;

// ---------------------------------------------------------------------------
// Construction

DatachannelImplIPC::DatachannelImplIPC(const Setup& setup)
    : DatachannelImpl(setup, false)
{
    using namespace DatachannelKey;
    const XmlList& details = setup.details.list;
    muiId = setup.id;
    muiBufferSize = number(details, IpcBufferSize);
    muiBufferCount = number(details, IpcBufferCount);
    muiAckId = number(details, IpcAckId);
    if (!readModes(details))
        return;
    if (muiBufferSize == 0 || muiBufferSize > MaximumBufferSize) {
        BTRACE(TraceAlways) << "Invalid buffer size supplied" << muiBufferSize;
        return;
    }
    if (windowed() && muiAckId == 0) {
        BTRACE(TraceAlways) << "Invalid send channel id supplied";
        return;
    }
    if (windowed() && muiBufferCount == 0) {
        BTRACE(TraceAlways) << "Invalid buffer count supplied";
        return;
    }
    if (!takeMessaging())
        return;
    Transport transport = DatachannelTransport::IPC;
    if (!mptMessaging->dataTransportType(transport) || transport != DatachannelTransport::IPC) {
        BTRACE(TraceAlways) << "Cannot create a IPC datachannel";
        return;
    }
    const unsigned limit = windowed() ? muiBufferCount + ClosingAllowance : 0;
    mptMessaging->addDatachannel(muiId, DatachannelTransport::IPC, limit);
    mbChannelRegistered = true;
    muiAvailableAcks = muiBufferCount;
    mbConnected = true;
    meTransport = DatachannelTransport::IPC;
    mbValid = true;
    BTRACE(TraceNormal) << "IPC receive channel" << muiId << "from" << moPeer << "buffers" << muiBufferSize << "by"
                        << muiBufferCount << Datachannel::synchronizationText(meSynchronization);
    watchPeer();
}

DatachannelImplIPC::DatachannelImplIPC(const Setup& setup, bool connected)
    : DatachannelImpl(setup, true)
{
    if (!takeMessaging())
        return;
    if (connected && !attach(setup.details))
        return;
    meTransport = DatachannelTransport::IPC;
    mbValid = true;
    if (connected)
        watchPeer();
}

DatachannelImplIPC::~DatachannelImplIPC()
{
    const bool live = Context::isValid() && mptMessaging && Context::messaging() == mptMessaging;
    if (!live)
        return;
    if (mbSend && mbValid && mbConnected)
        close();
    if (mbChannelRegistered)
        mptMessaging->removeDatachannel(muiId);
    if (mbAckRegistered)
        mptMessaging->removeDatachannel(muiAckId);
}

bool DatachannelImplIPC::takeMessaging()
{
    mptMessaging = Context::messaging();
    if (!mptMessaging) {
        BTRACE(TraceAlways) << "No messaging subsystem";
        return false;
    }
    if (!mptMessaging->valid()) {
        BTRACE(TraceAlways) << "Invalid messaging subsystem";
        mptMessaging.reset();
        return false;
    }
    moReturnAddress = moPeer.returnAddress(mptMessaging->physicalAddress(), 0);
    return true;
}

bool DatachannelImplIPC::readModes(const XmlList& details)
{
    QString text;
    details.get(text, DatachannelKey::IpcSynchronization);
    meSynchronization = Datachannel::synchronizationFromText(text);
    if (meSynchronization == Datachannel::Synchronization::Default) {
        BTRACE(TraceAlways) << "Invalid synchronization supplied," << text;
        return false;
    }
    text.clear();
    details.get(text, DatachannelKey::IpcCompression);
    const Compression compression = Datachannel::compressionFromText(text);
    if (compression == Compression::Default) {
        BTRACE(TraceAlways) << "Invalid compression supplied," << text;
        return false;
    }
    mbCompress = compression == Compression::OnSend;
    return true;
}

bool DatachannelImplIPC::attach(const Details& details)
{
    using namespace DatachannelKey;
    const unsigned size = number(details.list, IpcBufferSize);
    if (size == 0 || size > MaximumBufferSize) {
        BTRACE(TraceAlways) << "Invalid send channel buffer size supplied" << size;
        return false;
    }
    if (!readModes(details.list))
        return false;
    unsigned count = number(details.list, IpcBufferCount);
    const unsigned ackId = number(details.list, IpcAckId);
    if (windowed()) {
        if (count == 0) {
            BTRACE(TraceAlways) << "Invalid send channel buffer count supplied";
            return false;
        }
        if (ackId == 0) {
            BTRACE(TraceAlways) << "Invalid send channel id supplied";
            return false;
        }
        mptMessaging->addDatachannel(ackId, DatachannelTransport::IPC);
        mbAckRegistered = true;
    }
    // Unwindowed, the count still bounds the packets kept for reuse.
    muiBufferCount = count ? count : 1;
    muiAckId = windowed() ? ackId : 0;
    muiId = details.receiveId;
    muiBufferSize = size;
    muiAvailableAcks = muiBufferCount;
    moPeer = details.peer;
    moAuthorizationBinary = moAuthorization.binary(moPeer.machine().fullName());
    moReturnAddress = moPeer.returnAddress(mptMessaging->physicalAddress(), 0);
    mbConnected = true;
    BTRACE(TraceNormal) << "IPC send channel to" << moPeer << "channel" << muiId << "buffers" << muiBufferSize << "by"
                        << muiBufferCount << Datachannel::synchronizationText(meSynchronization);
    return true;
}

Datachannel::Result DatachannelImplIPC::connect(const Details& details)
{
    if (!attach(details))
        return Datachannel::eInvalidArgument;
    watchPeer();
    return Datachannel::eOk;
}

XmlList DatachannelImplIPC::receiveDetails() const
{
    using namespace DatachannelKey;
    XmlList details;
    details.set(Type, TypeReceive);
    details.set(DatachannelKey::Transport, Datachannel::transportText(DatachannelTransport::IPC));
    if (muiAckId)
        details.set(IpcAckId, muiAckId);
    details.set(ReceiveId, muiId);
    details.set(PeerAddress, moReturnAddress.toXml());
    details.set(IpcBufferSize, muiBufferSize);
    details.set(IpcBufferCount, muiBufferCount);
    details.set(IpcSynchronization, Datachannel::synchronizationText(meSynchronization));
    details.set(IpcCompression, Datachannel::compressionText(compression()));
    return details;
}

Datachannel::Compression DatachannelImplIPC::compression() const
{
    return mbCompress ? Compression::OnSend : Compression::None;
}

void DatachannelImplIPC::compression(Compression compression) { mbCompress = compression == Compression::OnSend; }

void DatachannelImplIPC::peerGone(bool undeliverable)
{
    if (mbSend) {
        DatachannelImpl::peerGone(undeliverable);
        return;
    }
    // What the sender sent before it went is read first: the Hub passed it on
    // ahead of the news.
    BTRACE(TraceAlways) << (undeliverable ? "Acknowledgement for the sender could not be delivered"
                                          : "The sending process has ended")
                        << moPeer << "channel" << muiId << ", read what has come";
    mbPeerGone = true;
}

// ---------------------------------------------------------------------------
// The sending end

boost::shared_ptr<DataPacket> DatachannelImplIPC::recycled(unsigned payload, unsigned channel, unsigned mark)
{
    if (!moPackets.isEmpty() && moPackets.first()->isTransmitted() && moPackets.first()->room() == payload &&
        moPackets.first()->channelId() == channel && moPackets.first()->dataId() == mark)
        return moPackets.takeFirst();
    return boost::make_shared<DataPacket>(moPeer.binary(), moReturnAddress.binary(),
                                          mark == AckMark ? QByteArray() : moAuthorizationBinary, payload, channel,
                                          mark);
}

Datachannel::Result DatachannelImplIPC::acquire()
{
    if (windowed() && muiAvailableAcks == 0) {
        mptMessaging->availableAcks(muiAvailableAcks, muiAckId);
        if (muiAvailableAcks > muiBufferCount) {
            // More acknowledgements than buffers in flight: the window stays
            // what was agreed.
            BTRACE(TraceAlways) << "Acknowledgement for a buffer never sent, channel" << muiId << "acks"
                                << muiAvailableAcks << "window" << muiBufferCount;
            muiAvailableAcks = muiBufferCount;
        }
        if (muiAvailableAcks == 0)
            return Datachannel::eMessagePending;
    }
    if (!moPackets.isEmpty() && !moPackets.first()->isTransmitted() && moPackets.size() >= int(muiBufferCount)) {
        // Every packet kept is still in the link's queue: wait for the first.
        IpcResult result = eIpcResultOk;
        if (!mptMessaging->flushData(result, moPeer.machine().fullName(), moPeer.id())) {
            if (result == eIpcResultMessagePending)
                return Datachannel::eMessagePending;
            BTRACE(TraceAlways) << "Failed to flush data buffer," << unsigned(result);
            fail();
            return Datachannel::eSendError;
        }
        if (!moPackets.first()->isTransmitted())
            return Datachannel::eMessagePending;
    }
    mptCurrent = recycled(muiBufferSize, muiId, DataMark);
    if (!mptCurrent->isValid()) {
        BTRACE(TraceAlways) << "Failed to make a data buffer of" << muiBufferSize << "bytes";
        mptCurrent.reset();
        fail();
        return Datachannel::eInternalError;
    }
    if (windowed())
        --muiAvailableAcks;
    return Datachannel::eOk;
}

void DatachannelImplIPC::throttleChanged()
{
    muiBytesLeft = muiThrottle;
    if (muiThrottle)
        miTick = ThrottlePeriodMs;
    moTimer.restart();
}

Datachannel::Result DatachannelImplIPC::transmit()
{
    if (muiThrottle) {
        qint64 elapsed = moTimer.isValid() ? moTimer.elapsed() : miTick;
        if (miTick <= elapsed) {
            muiBytesLeft = muiThrottle;
            miTick = ThrottlePeriodMs;
            moTimer.restart();
            elapsed = 0;
        }
        if (muiBytesLeft == 0) {
            const IpcResult napped = mptMessaging->nap(unsigned(miTick - elapsed));
            if (napped == eIpcResultOk || napped == eIpcResultTimeout || napped == eIpcResultMessagePending)
                return Datachannel::eMessagePending;
            BTRACE(TraceAlways) << "Failed to wait for the throttle," << unsigned(napped);
            fail();
            return Datachannel::eInternalError;
        }
        const unsigned size = mptCurrent->size();
        if (size < muiBytesLeft) {
            muiBytesLeft -= size;
        } else {
            // The packet goes now; the ones after it wait until it is paid off.
            const unsigned excess = size - muiBytesLeft;
            BTRACE(TraceVerbose) << "Have exhausted allowed data transfer" << excess;
            muiBytesLeft = 0;
            miTick += qint64(excess) * ThrottlePeriodMs / muiThrottle;
        }
    }
    if (!mptMessaging->sendPacket(mptCurrent)) {
        BTRACE(TraceAlways) << "Failed to send data buffer";
        mptCurrent.reset();
        fail();
        return Datachannel::eSendError;
    }
    // A packet for this very context went into its own queue: it is the
    // receiver's now.
    if (mptCurrent->destination() != mptMessaging->physicalAddress().binary())
        moPackets.append(mptCurrent);
    mptCurrent.reset();
    IpcResult result = eIpcResultOk;
    if (mptMessaging->flushData(result))
        return Datachannel::eOk;
    if (result == eIpcResultMessagePending)
        return Datachannel::eFlushFailed;
    BTRACE(TraceAlways) << "Failed to flush data buffer," << unsigned(result);
    fail();
    return Datachannel::eSendError;
}

Datachannel::Result DatachannelImplIPC::transmitFilled(unsigned size)
{
    if (!mptCurrent->prepared() && !mptCurrent->prepareSend(size, mbCompress)) {
        BTRACE(TraceAlways) << "Unable to prepare a buffer to send" << size;
        return Datachannel::eInvalidRequest;
    }
    return transmit();
}

Datachannel::Result DatachannelImplIPC::send(const Extent& data, bool flush)
{
    if (!mbConnected) {
        BTRACE(TraceAlways) << "Attempt to get a send buffer on an unconnected channel";
        return Datachannel::eNotConnected;
    }
    while (data.available()) {
        if (!mptCurrent) {
            const Result result = acquire();
            if (result != Datachannel::eOk)
                return result;
        }
        if (mptCurrent->prepared()) {
            BTRACE(TraceDebug) << "Attempt to resend the packet on a throttle channel";
        } else if (mptCurrent->append(data) != 0) {
            continue;
        }
        const Result result = transmitFilled(muiBufferSize);
        // A buffer queued behind a message is sent all the same: what is
        // left waits for the caller to handle the message.
        if (result != Datachannel::eOk)
            return result == Datachannel::eFlushFailed ? Datachannel::eMessagePending : result;
    }
    return flush ? this->flush() : Datachannel::eOk;
}

Datachannel::Result DatachannelImplIPC::getSendBuffer(Extent& buffer)
{
    if (!mbConnected) {
        BTRACE(TraceAlways) << "Attempt to get a send buffer on an unconnected channel";
        return Datachannel::eNotConnected;
    }
    if (mptCurrent) {
        BTRACE(TraceAlways) << "Attempt to get a send buffer when a buffer is present";
        return Datachannel::eInvalidRequest;
    }
    const Result result = acquire();
    if (result == Datachannel::eOk)
        buffer = mptCurrent->availableExtent();
    return result;
}

Datachannel::Result DatachannelImplIPC::sendBuffer(unsigned size)
{
    if (!mptCurrent) {
        BTRACE(TraceAlways) << "Attempt to send a buffer when no buffer is present";
        return Datachannel::eInvalidRequest;
    }
    return transmitFilled(size);
}

Datachannel::Result DatachannelImplIPC::flush()
{
    if (!mptCurrent || (!mptCurrent->prepared() && mptCurrent->filled() == 0))
        return Datachannel::eOk;
    return transmitFilled(mptCurrent->filled());
}

void DatachannelImplIPC::close()
{
    // Without waiting for the window or the throttle: the receiver's queue
    // has room for these two beyond its window.
    if (mptCurrent && (mptCurrent->prepared() || mptCurrent->prepareSend(mptCurrent->filled(), mbCompress)))
        mptMessaging->sendPacket(mptCurrent);
    mptCurrent.reset();
    const boost::shared_ptr<DataPacket> end = recycled(0, muiId, EndMark);
    if (end->prepareSend(0, false) && mptMessaging->sendPacket(end))
        BTRACE(TraceNormal) << "End of data on channel" << muiId << "to" << moPeer;
}

// ---------------------------------------------------------------------------
// The receiving end

void DatachannelImplIPC::acknowledge()
{
    const boost::shared_ptr<DataPacket> ack = recycled(0, muiAckId, AckMark);
    if (moPackets.size() < int(muiBufferCount))
        moPackets.append(ack);
    if (!ack->prepareSend(0, false) || !mptMessaging->sendPacket(ack)) {
        BTRACE(TraceAlways) << "Failed to send an acknowledgement on channel" << muiId;
        return;
    }
    if (mbFlushAcks) {
        IpcResult result = eIpcResultOk;
        mptMessaging->flushData(result);
    }
}

Datachannel::Result DatachannelImplIPC::fetch()
{
    IpcResult result = eIpcResultOk;
    // Once the sender has gone, only what is queued is still to come.
    const boost::shared_ptr<IpcPacket> packet = mptMessaging->receiveData(result, muiId, mbPeerGone ? 0 : -1);
    if (!packet) {
        if (result == eIpcResultMessagePending)
            return Datachannel::eMessagePending;
        if (mbPeerGone) {
            BTRACE(TraceAlways) << "No more data from" << moPeer << "on channel" << muiId;
            fail();
            return Datachannel::eDown;
        }
        BTRACE(TraceAlways) << "Failed to receive data buffer," << unsigned(result);
        fail();
        return Datachannel::eReceiveError;
    }
    const boost::shared_ptr<DataPacket> data = boost::static_pointer_cast<DataPacket>(packet);
    if (data->dataId() == EndMark) {
        BTRACE(TraceNormal) << "End of data on channel" << muiId << "from" << moPeer;
        fail();
        return Datachannel::eEOD;
    }
    if (data->dataId() != DataMark) {
        BTRACE(TraceAlways) << "Unknown mark" << data->dataId() << "on a data buffer of channel" << muiId;
        fail();
        return Datachannel::eReceiveError;
    }
    if (windowed())
        acknowledge();
    if (!moAuthorizationBinary.isEmpty() && !Authorization::equal(moAuthorizationBinary, data->authorization())) {
        BTRACE(TraceAlways) << "Authorization of the data buffer failed";
        fail();
        return Datachannel::eAuthorizationError;
    }
    if (!data->prepareReceive()) {
        BTRACE(TraceAlways) << "Failed to prepare the data buffer";
        fail();
        return Datachannel::eReceiveError;
    }
    if (data->available() == 0 || (muiBufferSize && data->available() > muiBufferSize)) {
        BTRACE(TraceAlways) << "Data buffer of" << data->available() << "bytes on channel" << muiId
                            << "does not fit its buffer size" << muiBufferSize;
        fail();
        return Datachannel::eReceiveError;
    }
    mptCurrent = data;
    return Datachannel::eOk;
}

Datachannel::Result DatachannelImplIPC::receive(Extent& data)
{
    while (data.available()) {
        if (!mptCurrent) {
            const Result result = fetch();
            if (result != Datachannel::eOk)
                return result;
        }
        if (mptCurrent->take(data) == 0)
            mptCurrent.reset();
    }
    return Datachannel::eOk;
}

Datachannel::Result DatachannelImplIPC::getReceiveBuffer(Extent& buffer)
{
    if (mptCurrent) {
        BTRACE(TraceAlways) << "Attempt to get a receive buffer when a buffer is present";
        return Datachannel::eInvalidRequest;
    }
    const Result result = fetch();
    if (result == Datachannel::eOk)
        buffer = mptCurrent->availableExtent();
    return result;
}

Datachannel::Result DatachannelImplIPC::releaseBuffer()
{
    if (!mptCurrent) {
        BTRACE(TraceAlways) << "Attempt to release a receive buffer when no buffer is present";
        return Datachannel::eInvalidRequest;
    }
    mptCurrent.reset();
    return Datachannel::eOk;
}

// ---------------------------------------------------------------------------
// Either end

Datachannel::Result DatachannelImplIPC::available(Extent& buffer)
{
    if (!mptCurrent) {
        const Result result = mbSend ? (mbConnected ? acquire() : Datachannel::eNotConnected) : fetch();
        if (result != Datachannel::eOk) {
            if (result == Datachannel::eNotConnected)
                BTRACE(TraceAlways) << "Attempt to get a send buffer on an unconnected channel";
            return result;
        }
    } else if (mbSend && mptCurrent->prepared()) {
        // A throttle wait left a full packet behind: it goes first.
        const Result result = transmit();
        if (result != Datachannel::eOk)
            return result == Datachannel::eFlushFailed ? Datachannel::eMessagePending : result;
        return available(buffer);
    }
    buffer = mptCurrent->availableExtent();
    return Datachannel::eOk;
}

Datachannel::Result DatachannelImplIPC::available(unsigned& count)
{
    count = mptCurrent && !mptCurrent->prepared() ? mptCurrent->available() : 0;
    if (count || mbSend || !mbPeerGone)
        return Datachannel::eOk;
    // A receiver whose sender has gone and that has read all that came is
    // done: say so here too, for those that look before they read.
    const IpcResult result = mptMessaging->dataAvailable(muiId);
    if (result == eIpcResultOk || result == eIpcResultMessagePending)
        return Datachannel::eOk;
    BTRACE(TraceAlways) << "No more data from" << moPeer << "on channel" << muiId;
    fail();
    return Datachannel::eDown;
}

Datachannel::Result DatachannelImplIPC::used(unsigned size)
{
    if (!mbConnected) {
        BTRACE(TraceAlways) << "Attempt to use an unconnected channel";
        return Datachannel::eNotConnected;
    }
    if (!mptCurrent) {
        BTRACE(TraceAlways) << "Attempt to use a buffer when no buffer is present";
        return Datachannel::eInvalidRequest;
    }
    if (mbSend && mptCurrent->prepared())
        return transmit();
    if (size > mptCurrent->available()) {
        BTRACE(TraceAlways) << "Attempt to use" << size << "bytes of a buffer with" << mptCurrent->available();
        return Datachannel::eInvalidArgument;
    }
    if (mptCurrent->used(size) != 0)
        return Datachannel::eOk;
    if (!mbSend) {
        mptCurrent.reset();
        return Datachannel::eOk;
    }
    return transmitFilled(muiBufferSize);
}

} // namespace Brevi
