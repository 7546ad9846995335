#include "datachannel/datachannel.h"

#include "core/config.h"
#include "core/context.h"
#include "core/extent.h"
#include "core/fixedpath.h"
#include "core/trace.h"
#include "datachannel/datachannelimpl.h"
#include "messaging/messaging.h"
#include "messaging/msg.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msgcondition.h"

#include <boost/make_shared.hpp>

#include <mutex>

namespace Brevi {

using namespace Catalogue;

namespace {
const unsigned TraceModule = TraceModuleDatachannel;

typedef Datachannel::Synchronization Synchronization;
typedef Datachannel::Compression Compression;
typedef DatachannelImpl::Details Details;
typedef DatachannelImpl::Setup Setup;

// The defaults of the two transports that take a buffer size and count: what
// stands when neither the configuration nor the caller says otherwise.
struct BufferDefaults {
    const QString& sizeKey;
    const QString& countKey;
    unsigned size;
    unsigned count;
};
const BufferDefaults IpcBuffers = {DatachannelKey::IpcBufferSize, DatachannelKey::IpcBufferCount, 0x4400, 160};
const BufferDefaults ShmBuffers = {DatachannelKey::ShmBufferSize, DatachannelKey::ShmBufferCount, 0x10400, 10};

// The list "Default" of the machine's datachannel.cfg; empty without one.
XmlList configured()
{
    const Config config(FixedPath::config() + '/' + DatachannelKey::ConfigFile);
    XmlList defaults;
    if (!config.first(DatachannelKey::ConfigDefault).isNull())
        config.get(defaults, DatachannelKey::ConfigDefault);
    return defaults;
}

unsigned configuredNumber(const XmlList& defaults, const QString& key)
{
    unsigned value = 0;
    if (!defaults.first(key).isNull())
        defaults.get(value, key);
    return value;
}

// Size and count from the defaults, the configuration and the arguments, in
// that order: with one of a pair given, the other is the total divided by it.
void bufferShape(const BufferDefaults& base, const XmlList& defaults, unsigned size, unsigned count, unsigned& outSize,
                 unsigned& outCount)
{
    outSize = base.size;
    outCount = base.count;
    unsigned long long total = (unsigned long long)base.size * base.count;
    const unsigned configuredSize = configuredNumber(defaults, base.sizeKey);
    const unsigned configuredCount = configuredNumber(defaults, base.countKey);
    if (configuredSize && configuredCount) {
        outSize = configuredSize;
        outCount = configuredCount;
        total = (unsigned long long)configuredSize * configuredCount;
    } else if (configuredSize) {
        outSize = configuredSize;
        outCount = unsigned(total / configuredSize);
    } else if (configuredCount) {
        outCount = configuredCount;
        outSize = unsigned(total / configuredCount);
    }
    if (size && count) {
        outSize = size;
        outCount = count;
    } else if (size) {
        outSize = size;
        outCount = unsigned(total / size);
    } else if (count) {
        outCount = count;
        outSize = unsigned(total / count);
    }
}

// The IPC keys of a sender's details.
void ipcKeys(XmlList& details, const XmlList& defaults, Synchronization synchronization, unsigned size, unsigned count,
             Compression compression)
{
    using namespace DatachannelKey;
    Synchronization chosenSynchronization = Synchronization::Windowed;
    Compression chosenCompression = Compression::None;
    QString text;
    if (!defaults.first(IpcSynchronization).isNull() && defaults.get(text, IpcSynchronization))
        chosenSynchronization = text == QLatin1String("None") ? Synchronization::None : Synchronization::Windowed;
    if (!defaults.first(IpcCompression).isNull() && defaults.get(text, IpcCompression))
        chosenCompression = text == QLatin1String("None") ? Compression::None : Compression::OnSend;
    unsigned chosenSize = 0;
    unsigned chosenCount = 0;
    bufferShape(IpcBuffers, defaults, size, count, chosenSize, chosenCount);
    if (synchronization != Synchronization::Default)
        chosenSynchronization = synchronization;
    if (compression != Compression::Default)
        chosenCompression = compression;

    details.set(IpcSynchronization, Datachannel::synchronizationText(chosenSynchronization));
    if (chosenSynchronization == Synchronization::Windowed)
        details.set(IpcAckId, Context::uniqueId());
    details.set(IpcCompression, Datachannel::compressionText(chosenCompression));
    details.set(IpcBufferSize, chosenSize);
    details.set(IpcBufferCount, chosenCount);
}

void shmKeys(XmlList& details, const XmlList& defaults, unsigned size, unsigned count)
{
    unsigned chosenSize = 0;
    unsigned chosenCount = 0;
    bufferShape(ShmBuffers, defaults, size, count, chosenSize, chosenCount);
    details.set(DatachannelKey::ShmBufferSize, chosenSize);
    details.set(DatachannelKey::ShmBufferCount, chosenCount);
}

// The address by which others reach this context's link.
MsgAddress physicalAddress()
{
    const boost::shared_ptr<Messaging> messaging = Context::messaging();
    return messaging ? messaging->physicalAddress() : Context::address();
}

bool attached()
{
    if (Context::type() == Context::TypeAttached)
        return true;
    BTRACE(TraceAlways) << "Can only setup IPC datachannels on attached contexts";
    return false;
}

const boost::shared_ptr<DatachannelImpl>& invalidImpl()
{
    // One invalid channel for the process, never freed: nothing changes an
    // invalid channel, and handles may outlive every other static.
    static std::once_flag once;
    static boost::shared_ptr<DatachannelImpl>* invalid = nullptr;
    std::call_once(once, [] { invalid = new boost::shared_ptr<DatachannelImpl>(new DatachannelImpl); });
    return *invalid;
}

boost::shared_ptr<DatachannelImpl> build(const Setup& setup, bool send)
{
    const DatachannelImpl::Builders* builders = DatachannelImpl::builders(setup.details.transport);
    if (!builders) {
        BTRACE(TraceAlways) << "No" << Datachannel::transportText(setup.details.transport)
                            << "transport in this library";
        return boost::shared_ptr<DatachannelImpl>();
    }
    boost::shared_ptr<DatachannelImpl> impl = send ? builders->sender(setup) : builders->receiver(setup);
    return impl && impl->isValid() ? impl : boost::shared_ptr<DatachannelImpl>();
}

// The receiving end of send details from another context.
boost::shared_ptr<DatachannelImpl> buildReceiver(Setup& setup)
{
    const boost::shared_ptr<Messaging> messaging = Context::messaging();
    if (!messaging) {
        BTRACE(TraceAlways) << "No messaging subsystem";
        return boost::shared_ptr<DatachannelImpl>();
    }
    const DatachannelTransport::Transport named = setup.details.transport;
    DatachannelTransport::Transport transport = named;
    if (transport == DatachannelTransport::Best && setup.details.peer.machine() != Context::machineName())
        transport = DatachannelTransport::IPC;
    messaging->dataTransportType(transport);
    switch (transport) {
    case DatachannelTransport::None:
        BTRACE(TraceAlways) << "Cannot use different datachannel typesin the same thread";
        return boost::shared_ptr<DatachannelImpl>();
    case DatachannelTransport::Best:
        BTRACE(TraceAlways) << "Should not get this back from the messaging subsystem";
        return boost::shared_ptr<DatachannelImpl>();
    case DatachannelTransport::Memory: {
        setup.id = Context::uniqueId();
        setup.details.transport = DatachannelTransport::Memory;
        boost::shared_ptr<DatachannelImpl> impl;
        if (DatachannelImpl::builders(DatachannelTransport::Memory))
            impl = build(setup, false);
        else if (named == DatachannelTransport::Best)
            BTRACE(TraceNormal) << "No shared memory transport, use IPC";
        if (!impl && named == DatachannelTransport::Best) {
            setup.details.transport = DatachannelTransport::IPC;
            impl = build(setup, false);
            if (!impl)
                BTRACE(TraceAlways) << "Failed to setup either a shared memory or IPC datachannel";
        } else if (!impl) {
            BTRACE(TraceAlways) << "Failed to setup a shared memory datachannel";
        }
        return impl;
    }
    default:
        setup.id = Context::uniqueId();
        setup.details.transport = transport;
        return build(setup, false);
    }
}

// The setup of an IPC channel with a peer known without details: unwindowed,
// buffers of the machine's default size.
bool knownPeer(const boost::shared_ptr<MsgCondition>& condition, const MsgAddress& peer,
               const Authorization& authorization, Compression compression, Setup& setup)
{
    if (!attached())
        return false;
    if (!peer) {
        BTRACE(TraceAlways) << "Invalid peer address supplied";
        return false;
    }
    setup.condition = condition;
    setup.authorization = authorization;
    setup.details.transport = DatachannelTransport::IPC;
    setup.details.peer = peer;
    ipcKeys(setup.details.list, configured(), Synchronization::None, 0, 0,
            compression == Compression::Default ? Compression::None : compression);
    return true;
}

bool validExtent(const Extent& data) { return data.data() && data.size(); }

// The texts of the details by value; value 0 has none.
const char* const TransportTexts[] = {"", "Best", "IPC", "Memory", "File"};
const char* const SynchronizationTexts[] = {"", "None", "Windowed"};
const char* const CompressionTexts[] = {"", "None", "OnSend"};

template <size_t N>
QString textOf(const char* const (&texts)[N], unsigned value)
{
    return value < N ? QString::fromLatin1(texts[value]) : QString();
}

// 0 for a text of none of the values.
template <size_t N>
unsigned valueOf(const char* const (&texts)[N], const QString& text)
{
    for (unsigned value = 1; value < N; ++value)
        if (text == QLatin1String(texts[value]))
            return value;
    return 0;
}
} // namespace

// ---------------------------------------------------------------------------
// Texts

const char* Datachannel::resultName(Result result)
{
    static const char* const names[] = {
        "eOk",          "eSendError",      "eReceiveError", "eEOD",           "eInvalidArgument",    "eMessagePending",
        "eDown",        "eInvalidRequest", "eNoBuffer",     "eInternalError", "eAuthorizationError", "eTryAgain",
        "eFlushFailed", "eNotConnected"};
    return unsigned(result) <= unsigned(eNotConnected) ? names[result] : "unknown";
}

QString Datachannel::transportText(Transport transport) { return textOf(TransportTexts, transport); }

QString Datachannel::synchronizationText(Synchronization synchronization)
{
    return textOf(SynchronizationTexts, unsigned(synchronization));
}

QString Datachannel::compressionText(Compression compression)
{
    return textOf(CompressionTexts, unsigned(compression));
}

Datachannel::Transport Datachannel::transportFromText(const QString& text)
{
    return Transport(valueOf(TransportTexts, text));
}

Datachannel::Synchronization Datachannel::synchronizationFromText(const QString& text)
{
    return Synchronization(valueOf(SynchronizationTexts, text));
}

Datachannel::Compression Datachannel::compressionFromText(const QString& text)
{
    return Compression(valueOf(CompressionTexts, text));
}

// ---------------------------------------------------------------------------
// Details

XmlList Datachannel::sendDetails(Transport transport, const MsgAddress& peer, Synchronization synchronization,
                                 unsigned bufferSize, unsigned bufferCount, Compression compression)
{
    using namespace DatachannelKey;
    if ((transport == Best || transport == IPC) && !attached())
        return XmlList();
    if (transport != Best && transport != IPC && transport != Memory) {
        BTRACE(TraceAlways) << "Invalid transport type" << unsigned(transport);
        return XmlList();
    }
    XmlList details;
    details.set(DatachannelKey::Transport, transportText(transport));
    const XmlList defaults = configured();
    details.set(Type, TypeSend);
    const MsgAddress self = physicalAddress();
    details.set(PeerAddress, (peer ? peer.returnAddress(self, 0) : self).toXml());
    if (transport == Best || transport == Memory)
        shmKeys(details, defaults, bufferSize, bufferCount);
    if (transport == Best || transport == IPC)
        ipcKeys(details, defaults, synchronization, bufferSize, bufferCount, compression);
    return details;
}

XmlList Datachannel::sendDetails(const QString& basePath, unsigned long long pageSize, unsigned bufferSize)
{
    using namespace DatachannelKey;
    if (basePath.isEmpty()) {
        BTRACE(TraceAlways) << "No base path supplied";
        return XmlList();
    }
    XmlList details;
    details.set(DatachannelKey::Transport, transportText(File));
    details.set(Type, TypeSend);
    details.set(PeerAddress, physicalAddress().toXml());
    details.set(FileBasePath, basePath);
    details.set(FileBufferSize, bufferSize);
    details.set(FilePageSize, pageSize);
    return details;
}

void Datachannel::discard(const XmlList& details)
{
    QString text;
    if (!details.isValid() || !details.get(text, DatachannelKey::Transport))
        return;
    const DatachannelImpl::Builders* builders = DatachannelImpl::builders(transportFromText(text));
    if (builders && builders->discard)
        builders->discard(details);
}

// ---------------------------------------------------------------------------
// Construction

Datachannel::Datachannel()
    : mptImpl(invalidImpl())
{}

Datachannel::Datachannel(const boost::shared_ptr<MsgCondition>& condition, const XmlList& details,
                         const Authorization& authorization)
    : mptImpl(invalidImpl())
{
    Setup setup;
    setup.condition = condition;
    setup.authorization = authorization;
    if (!DatachannelImpl::parse(details, setup.details)) {
        BTRACE(TraceAlways) << "Invalid details";
        return;
    }
    const Transport transport = setup.details.transport;
    if ((transport == Best || transport == IPC) && !attached())
        return;
    const MsgAddress self = physicalAddress();
    if ((transport == Memory || transport == File) && self.type() != eMsgAddressContext &&
        setup.details.peer.type() != eMsgAddressContext && setup.details.peer.machine() != Context::machineName()) {
        BTRACE(TraceAlways) << "Can only setup Memory of File datachannels on local machine";
        return;
    }

    boost::shared_ptr<DatachannelImpl> impl;
    if (!setup.details.send) {
        if (transport == Best || transport == None) {
            BTRACE(TraceAlways) << "Invalid transport type" << transportText(transport);
            return;
        }
        setup.connected = true;
        impl = build(setup, true);
    } else if (setup.details.peer == self) {
        BTRACE(TraceNormal) << "an attempt to create an unconnected send channel";
        if (transport == Best) {
            BTRACE(TraceAlways) << "Must know the transport type";
            return;
        }
        impl = build(setup, true);
    } else {
        impl = buildReceiver(setup);
    }
    if (impl)
        mptImpl = impl;
}

Datachannel::Datachannel(const boost::shared_ptr<MsgCondition>& condition, const MsgAddress& peer, unsigned id,
                         Compression compression, const Authorization& authorization)
    : mptImpl(invalidImpl())
{
    // The receive details the peer would have given.
    Setup setup;
    setup.connected = true;
    setup.details.receiveId = id;
    if (knownPeer(condition, peer, authorization, compression, setup))
        if (const boost::shared_ptr<DatachannelImpl> impl = build(setup, true))
            mptImpl = impl;
}

Datachannel::Datachannel(const boost::shared_ptr<MsgCondition>& condition, const MsgAddress& peer,
                         const Authorization& authorization)
    : mptImpl(invalidImpl())
{
    // As if `peer` had sent details for channel 0.
    Setup setup;
    setup.details.send = true;
    setup.id = 0;
    if (knownPeer(condition, peer, authorization, Compression::None, setup))
        if (const boost::shared_ptr<DatachannelImpl> impl = build(setup, false))
            mptImpl = impl;
}

Datachannel::Datachannel(const Datachannel& other) = default;

Datachannel& Datachannel::operator=(const Datachannel& other) = default;

Datachannel::~Datachannel() = default;

void Datachannel::close() { mptImpl = invalidImpl(); }

// ---------------------------------------------------------------------------
// Moving bytes

Datachannel::Result Datachannel::role(bool send, const char* refusal) const
{
    if (!mptImpl->isValid())
        return eDown;
    if (mptImpl->isSend() == send)
        return eOk;
    BTRACE(TraceAlways) << refusal;
    return eInvalidRequest;
}

Datachannel::Result Datachannel::send(const Extent& data, bool flush)
{
    const Result result = role(true, "Attempt to send a receive channel");
    if (result != eOk)
        return result;
    return validExtent(data) ? mptImpl->send(data, flush) : eInvalidArgument;
}

Datachannel::Result Datachannel::send(unsigned& sent, const void* data, unsigned size, bool flush)
{
    sent = 0;
    const Result result = role(true, "Attempt to send a receive channel");
    if (result != eOk)
        return result;
    return data && size ? mptImpl->send(sent, data, size, flush) : eInvalidArgument;
}

Datachannel::Result Datachannel::getSendBuffer(Extent& buffer)
{
    const Result result = role(true, "Attempt to get a send buffer on a receive channel");
    return result == eOk ? mptImpl->getSendBuffer(buffer) : result;
}

Datachannel::Result Datachannel::getSendBuffer(void*& buffer, unsigned& size)
{
    Extent extent;
    const Result result = getSendBuffer(extent);
    buffer = extent.data();
    size = extent.size();
    return result;
}

Datachannel::Result Datachannel::sendBuffer(unsigned size)
{
    const Result result = role(true, "Attempt to send a receive channel");
    return result == eOk ? mptImpl->sendBuffer(size) : result;
}

Datachannel::Result Datachannel::flush()
{
    const Result result = role(true, "Attempt to flush a channel");
    return result == eOk ? mptImpl->flush() : result;
}

Datachannel::Result Datachannel::receive(Extent& data)
{
    const Result result = role(false, "Attempt to receive on send channel");
    if (result != eOk)
        return result;
    return validExtent(data) ? mptImpl->receive(data) : eInvalidArgument;
}

Datachannel::Result Datachannel::receive(unsigned& got, void* data, unsigned size)
{
    got = 0;
    const Result result = role(false, "Attempt to receive on send channel");
    if (result != eOk)
        return result;
    return data && size ? mptImpl->receive(got, data, size) : eInvalidArgument;
}

Datachannel::Result Datachannel::getReceiveBuffer(Extent& buffer)
{
    const Result result = role(false, "Attempt to get a receive buffer on a send channel");
    return result == eOk ? mptImpl->getReceiveBuffer(buffer) : result;
}

Datachannel::Result Datachannel::getReceiveBuffer(const void*& buffer, unsigned& size)
{
    Extent extent;
    const Result result = getReceiveBuffer(extent);
    buffer = extent.data();
    size = extent.size();
    return result;
}

Datachannel::Result Datachannel::releaseBuffer()
{
    const Result result = role(false, "Attempt to release a buffer on a send channel");
    return result == eOk ? mptImpl->releaseBuffer() : result;
}

Datachannel::Result Datachannel::available(Extent& buffer)
{
    return mptImpl->isValid() ? mptImpl->available(buffer) : eDown;
}

Datachannel::Result Datachannel::used(unsigned size) { return mptImpl->isValid() ? mptImpl->used(size) : eDown; }

Datachannel::Result Datachannel::available(unsigned& count)
{
    count = 0;
    return mptImpl->isValid() ? mptImpl->available(count) : eDown;
}

Datachannel::Result Datachannel::connect(const XmlList& receiveDetails)
{
    const Result result = role(true, "Attempt to connect a receive channel");
    if (result != eOk)
        return result;
    if (mptImpl->connected()) {
        BTRACE(TraceAlways) << "Attempt to connect a connected channel";
        return eInvalidRequest;
    }
    Details details;
    if (!DatachannelImpl::parse(receiveDetails, details)) {
        BTRACE(TraceAlways) << "Invalid details";
        return eInvalidArgument;
    }
    if (details.send) {
        BTRACE(TraceAlways) << "Send details, not receive details";
        return eInvalidArgument;
    }
    if (details.transport != mptImpl->transport()) {
        BTRACE(TraceAlways) << "Mismatching transport type" << transportText(details.transport) << "for"
                            << transportText(mptImpl->transport());
        return eInvalidArgument;
    }
    return mptImpl->connect(details);
}

// ---------------------------------------------------------------------------
// Polled forms

template <typename Operation>
Datachannel::Result Datachannel::poll(Operation operation, const char* words)
{
    for (;;) {
        const Result result = operation();
        if (result == eOk)
            return eOk;
        if (result != eMessagePending) {
            BTRACE(TraceAlways) << words << resultName(result);
            return result;
        }
        // A null condition is one that never ends the wait.
        MsgCondition never;
        MsgCondition& condition = mptImpl->condition() ? *mptImpl->condition() : never;
        const MsgResult polled = Msg::wait(condition, 0);
        mptImpl->setLastPollResult(polled);
        if (polled == eMsgResultTimeout)
            continue;
        if (polled == eMsgResultIpcError)
            BTRACE(TraceAlways) << "Msg::wait returned error";
        return eMessagePending;
    }
}

Datachannel::Result Datachannel::sendPolled(const Extent& data)
{
    return poll(
        [&] {
            const Result result = send(data);
            return result == eMessagePending && data.available() == 0 && data.size() ? eOk : result;
        },
        "send returned error");
}

Datachannel::Result Datachannel::sendPolled(const void* data, unsigned size) { return sendPolled(Extent(data, size)); }

Datachannel::Result Datachannel::receivePolled(Extent& data)
{
    return poll(
        [&] {
            const Result result = receive(data);
            return result == eMessagePending && data.available() == 0 && data.size() ? eOk : result;
        },
        "receive returned error");
}

Datachannel::Result Datachannel::receivePolled(void* data, unsigned size)
{
    Extent extent(data, size);
    return receivePolled(extent);
}

Datachannel::Result Datachannel::flushPolled()
{
    return poll([&] { return flush(); }, "flush returned error");
}

Datachannel::Result Datachannel::getSendBufferPolled(Extent& buffer)
{
    return poll([&] { return getSendBuffer(buffer); }, "getSendBuffer returned error");
}

Datachannel::Result Datachannel::sendBufferPolled(unsigned size)
{
    return poll([&] { return sendBuffer(size); }, "sendBuffer returned error");
}

Datachannel::Result Datachannel::getReceiveBufferPolled(Extent& buffer)
{
    return poll([&] { return getReceiveBuffer(buffer); }, "getReceiveBuffer returned error");
}

Datachannel::Result Datachannel::releaseBufferPolled()
{
    return poll([&] { return releaseBuffer(); }, "releaseBuffer returned error");
}

Datachannel::Result Datachannel::availablePolled(Extent& buffer)
{
    return poll([&] { return available(buffer); }, "getSendBuffer returned error");
}

Datachannel::Result Datachannel::usedPolled(unsigned size)
{
    return poll([&] { return used(size); }, "sendBuffer returned error");
}

MsgResult Datachannel::lastPollResult() const { return mptImpl->lastPollResult(); }

// ---------------------------------------------------------------------------
// State

XmlList Datachannel::receiveDetails() const
{
    return mptImpl->isValid() && !mptImpl->isSend() ? mptImpl->receiveDetails() : XmlList();
}

void Datachannel::flushAcks(bool flush)
{
    if (mptImpl->isValid())
        mptImpl->setFlushAcks(flush);
}

void Datachannel::throttle(unsigned bytesPerSecond)
{
    if (mptImpl->isValid())
        mptImpl->setThrottle(bytesPerSecond);
}

unsigned Datachannel::throttle() const { return mptImpl->throttle(); }

Datachannel::Compression Datachannel::compression() const { return mptImpl->compression(); }

void Datachannel::compression(Compression compression)
{
    if (mptImpl->isValid())
        mptImpl->compression(compression);
}

unsigned Datachannel::id() const { return mptImpl->id(); }

Datachannel::Transport Datachannel::transport() const { return mptImpl->transport(); }

bool Datachannel::connected() const { return mptImpl->connected(); }

bool Datachannel::isValid() const { return mptImpl->isValid(); }

unsigned Datachannel::bufferSize() const { return mptImpl->bufferSize(); }

Datachannel::Result Datachannel::availableBufferCount(unsigned long long& count)
{
    count = 0;
    return mptImpl->isValid() ? mptImpl->availableBufferCount(count) : eDown;
}

} // namespace Brevi
