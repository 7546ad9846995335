#include "datachannel/datachannelimpl.h"

#include "core/context.h"
#include "core/extent.h"
#include "core/trace.h"
#include "messaging/messaging.h"
#include "messaging/msg.h"
#include "messaging/msgcatalogue.h"

#include <QList>

#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>

namespace Brevi {

using namespace Catalogue;

namespace {
const unsigned TraceModule = TraceModuleDatachannel;

DatachannelImpl::Builders* registry()
{
    // Indexed by Transport; filled by the transports' static initializers,
    // which may run before any other static of this file.
    static DatachannelImpl::Builders transports[DatachannelTransport::File + 1];
    return transports;
}
} // namespace

// ---------------------------------------------------------------------------
// The peer watches of one thread's channels.
//
// One registration with the Hub per peer, however many channels of the
// thread talk to it, and one pair of message handlers for all of them: the
// Hub answers a watch on the peer's address once, and an unregister drops all
// of the thread's watches on that address.
class DatachannelWatch
{
public:
    static void add(DatachannelImpl* channel);
    static void remove(DatachannelImpl* channel);

private:
    static MsgResult exited(const Msg& message);
    static MsgResult undeliverable(const Msg& message);
    static MsgResult tell(const MsgAddress& peer, bool undeliverable);
    static void post(const QString& name, const MsgAddress& peer);
    bool watched(const MsgAddress& peer) const;

    boost::weak_ptr<Messaging> mptMessaging;
    QList<DatachannelImpl*> moChannels;
    MsgHandlerPointer mptExited;
    MsgHandlerPointer mptUndeliverable;
};

namespace {
thread_local DatachannelWatch* tpWatch = nullptr;
} // namespace

bool DatachannelWatch::watched(const MsgAddress& peer) const
{
    for (const DatachannelImpl* channel : moChannels)
        if (channel->moPeer == peer)
            return true;
    return false;
}

void DatachannelWatch::post(const QString& name, const MsgAddress& peer)
{
    XmlList body;
    body.set(HubRtrRegisterNotifyOnExitPost::Address, peer.toXml());
    if (!Msg(MsgAddress(eWellKnownHubRouter), name, body).send())
        BTRACE(TraceAlways) << "Failed to send" << name << "for" << peer;
}

void DatachannelWatch::add(DatachannelImpl* channel)
{
    const boost::shared_ptr<Messaging> messaging = Context::messaging();
    if (!messaging)
        return;
    if (tpWatch && tpWatch->mptMessaging.lock() != messaging) {
        // Channels of an earlier context of this thread outlived it: their
        // handlers went with its messaging.
        tpWatch->mptExited.reset();
        tpWatch->mptUndeliverable.reset();
        tpWatch->mptMessaging.reset();
    }
    if (!tpWatch)
        tpWatch = new DatachannelWatch;
    if (!tpWatch->mptExited) {
        tpWatch->mptMessaging = messaging;
        tpWatch->mptExited = boost::make_shared<MsgHandlerFunction>(&DatachannelWatch::exited);
        tpWatch->mptUndeliverable = boost::make_shared<MsgHandlerFunction>(&DatachannelWatch::undeliverable);
        messaging->addWaitHandler(HubRtrProcessExitedPost::Message, QByteArray(), tpWatch->mptExited);
        messaging->addWaitHandler(HubRtrUndeliverableDataPost::Message, QByteArray(), tpWatch->mptUndeliverable);
    }
    if (!tpWatch->watched(channel->moPeer)) {
        BTRACE(TraceNormal) << "Watch the exit of" << channel->moPeer;
        post(HubRtrRegisterNotifyOnExitPost::Message, channel->moPeer);
    }
    tpWatch->moChannels.append(channel);
    channel->mbWatching = true;
}

void DatachannelWatch::remove(DatachannelImpl* channel)
{
    if (!tpWatch || !tpWatch->moChannels.removeOne(channel))
        return;
    channel->mbWatching = false;
    const boost::shared_ptr<Messaging> messaging = tpWatch->mptMessaging.lock();
    const bool live = messaging && Context::isValid() && Context::messaging() == messaging;
    if (live && !tpWatch->watched(channel->moPeer))
        post(HubRtrUnregisterNotifyOnExitPost::Message, channel->moPeer);
    if (!tpWatch->moChannels.isEmpty())
        return;
    if (live) {
        messaging->removeWaitHandler(HubRtrProcessExitedPost::Message, tpWatch->mptExited);
        messaging->removeWaitHandler(HubRtrUndeliverableDataPost::Message, tpWatch->mptUndeliverable);
    }
    delete tpWatch;
    tpWatch = nullptr;
}

MsgResult DatachannelWatch::tell(const MsgAddress& peer, bool undeliverable)
{
    if (!tpWatch || !peer)
        return eMsgResultNotHandled;
    bool told = false;
    // A copy: a channel told may be let go of by whoever reacts.
    const QList<DatachannelImpl*> channels = tpWatch->moChannels;
    for (DatachannelImpl* channel : channels) {
        if (channel->moPeer != peer || !channel->mbWatching)
            continue;
        told = true;
        if (channel->mbValid)
            channel->peerGone(undeliverable);
    }
    // Another watcher of the same process has its own post from the Hub; data
    // for a peer of none of these channels is somebody else's.
    return told ? eMsgResultHandled : eMsgResultNotHandled;
}

MsgResult DatachannelWatch::exited(const Msg& message)
{
    return tell(MsgAddress(message.getXmlList(HubRtrProcessExitedPost::Address)), false);
}

MsgResult DatachannelWatch::undeliverable(const Msg& message)
{
    return tell(MsgAddress(message.getXmlList(HubRtrUndeliverableDataPost::Destination)), true);
}

// ---------------------------------------------------------------------------
// Transports

bool DatachannelImpl::registerTransport(Transport transport, const Builders& builders)
{
    if (transport <= DatachannelTransport::Best || transport > DatachannelTransport::File ||
        registry()[transport].receiver) {
        BTRACE(TraceAlways) << "Cannot register the transport" << unsigned(transport);
        return false;
    }
    registry()[transport] = builders;
    return true;
}

const DatachannelImpl::Builders* DatachannelImpl::builders(Transport transport)
{
    if (transport <= DatachannelTransport::Best || transport > DatachannelTransport::File ||
        !registry()[transport].receiver)
        return nullptr;
    return &registry()[transport];
}

bool DatachannelImpl::parse(const XmlList& list, Details& details)
{
    using namespace DatachannelKey;
    details.list = list;
    QString text;
    if (!list.isValid() || !list.get(text, Type) || (text != TypeSend && text != TypeReceive)) {
        BTRACE(TraceAlways) << "No valid details type supplied," << text;
        return false;
    }
    details.send = text == TypeSend;
    text.clear();
    list.get(text, DatachannelKey::Transport);
    details.transport = Datachannel::transportFromText(text);
    if (details.transport == DatachannelTransport::None ||
        (details.transport == DatachannelTransport::Best && !details.send)) {
        BTRACE(TraceAlways) << "No valid transport type supplied," << text;
        return false;
    }
    XmlList peer;
    if (list.first(PeerAddress).isNull() || !list.get(peer, PeerAddress)) {
        BTRACE(TraceAlways) << "No peer address supplied";
        return false;
    }
    details.peer = MsgAddress(peer);
    if (!details.peer) {
        BTRACE(TraceAlways) << "Invalid peer address supplied";
        return false;
    }
    details.receiveId = 0;
    if (!list.first(ReceiveId).isNull())
        list.get(details.receiveId, ReceiveId);
    if (!details.send && details.transport != DatachannelTransport::File && details.receiveId == 0) {
        BTRACE(TraceAlways) << "Invalid receive channel id supplied";
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------
// The invalid channel

DatachannelImpl::DatachannelImpl() = default;

DatachannelImpl::DatachannelImpl(const Setup& setup, bool send)
    : moPeer(setup.details.peer)
    , moAuthorization(setup.authorization)
    , moAuthorizationBinary(setup.authorization.binary(setup.details.peer.machine().fullName()))
    , mbSend(send)
    , mptCondition(setup.condition)
{}

DatachannelImpl::~DatachannelImpl()
{
    if (mbWatching)
        DatachannelWatch::remove(this);
}

void DatachannelImpl::watchPeer()
{
    if (mbWatching || !moPeer || moPeer.type() != eMsgAddressAttached || moPeer.machine() != Context::machineName())
        return;
    const boost::shared_ptr<Messaging> messaging = Context::messaging();
    if (!messaging || moPeer == messaging->physicalAddress())
        return;
    DatachannelWatch::add(this);
}

void DatachannelImpl::peerGone(bool undeliverable)
{
    BTRACE(TraceAlways) << (undeliverable ? "Data for the peer could not be delivered" : "The peer has ended") << moPeer
                        << "channel" << muiId;
    fail();
}

void DatachannelImpl::setThrottle(unsigned bytesPerSecond)
{
    muiThrottle = bytesPerSecond;
    throttleChanged();
}

Datachannel::Result DatachannelImpl::send(const Extent&, bool) { return Datachannel::eInvalidRequest; }

Datachannel::Result DatachannelImpl::send(unsigned& sent, const void* data, unsigned size, bool flush)
{
    const Extent extent(data, size);
    const Result result = send(extent, flush);
    sent = extent.offset();
    return result;
}

Datachannel::Result DatachannelImpl::receive(Extent&) { return Datachannel::eInvalidRequest; }

Datachannel::Result DatachannelImpl::receive(unsigned& got, void* data, unsigned size)
{
    Extent extent(data, size);
    const Result result = receive(extent);
    got = extent.offset();
    return result;
}

Datachannel::Result DatachannelImpl::available(Extent&) { return Datachannel::eInvalidRequest; }

Datachannel::Result DatachannelImpl::available(unsigned& count)
{
    count = 0;
    return Datachannel::eInvalidRequest;
}

Datachannel::Result DatachannelImpl::flush() { return Datachannel::eInvalidRequest; }

Datachannel::Result DatachannelImpl::getReceiveBuffer(Extent&) { return Datachannel::eInvalidRequest; }

Datachannel::Result DatachannelImpl::releaseBuffer() { return Datachannel::eInvalidRequest; }

Datachannel::Result DatachannelImpl::getSendBuffer(Extent&) { return Datachannel::eInvalidRequest; }

Datachannel::Result DatachannelImpl::sendBuffer(unsigned) { return Datachannel::eInvalidRequest; }

Datachannel::Result DatachannelImpl::used(unsigned) { return Datachannel::eInvalidRequest; }

void DatachannelImpl::throttleChanged() {}

XmlList DatachannelImpl::receiveDetails() const { return XmlList(); }

Datachannel::Result DatachannelImpl::connect(const Details&) { return Datachannel::eInvalidRequest; }

Datachannel::Compression DatachannelImpl::compression() const { return Datachannel::Compression::None; }

void DatachannelImpl::compression(Compression) {}

Datachannel::Result DatachannelImpl::availableBufferCount(unsigned long long& count)
{
    count = 0;
    return Datachannel::eInvalidRequest;
}

} // namespace Brevi
