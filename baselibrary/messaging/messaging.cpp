#include "messaging/messaging.h"

#include "core/trace.h"
#include "messaging/ipcpacket.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msghandler.h"
#include "messaging/msghandlerattached.h"
#include "messaging/msghandlerstandalone.h"
#include "messaging/msgqueue.h"

#include <boost/make_shared.hpp>

#include <algorithm>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleMsg;

// Long waits go in pieces, so that a change of the system's clock is caught
// up with: at most this long while more than twice of it is left...
const qint64 LongWaitPieceMs = 300000;
const qint64 LongWaitThresholdMs = 600000;
// ...then half of what is left, until this little is left.
const qint64 ShortWaitThresholdMs = 2000;

// The time to sleep of a wait with `left` milliseconds to go.
qint64 waitPiece(qint64 left)
{
    if (left > LongWaitThresholdMs)
        return LongWaitPieceMs;
    if (left > ShortWaitThresholdMs)
        return left / 2;
    return left;
}

// Milliseconds until `deadline` (a systemTime), 0 when it has passed.
qint64 remainingUntil(unsigned long long deadline)
{
    const unsigned long long now = Context::systemTime();
    return now < deadline ? qint64(deadline - now) : 0;
}

QList<Msg> reversed(const QList<Msg>& messages)
{
    QList<Msg> result;
    result.reserve(messages.size());
    std::reverse_copy(messages.begin(), messages.end(), std::back_inserter(result));
    return result;
}
} // namespace

// ---------------------------------------------------------------------------
// Construction

Messaging::Messaging()
    : muiContextId(Context::id())
    , mptHandler(boost::make_shared<MsgHandler>(0))
{}

Messaging::Messaging(MachineName& machine, unsigned contextId, Context::Type type, unsigned flags, const QString& title,
                     const QString& group, const QString& name)
    : muiContextId(contextId)
{
    boost::shared_ptr<MsgHandler> handler = attachHandler(machine, type, flags, title, group, name);
    if (!handler || handler->linkState() == -1) {
        BTRACE(TraceAlways) << "Failed to attach to Hub";
        mptHandler = boost::make_shared<MsgHandler>(0);
        return;
    }
    mptHandler = handler;
    moMachine = machine;
    adoptAddresses();
    mbDisabled = false;
    if (type == Context::TypeAttached && moAddress) {
        moLoggingAddress = MsgAddress(moAddress.machine(), eWellKnownLogDaemon);
        BTRACE(TraceNormal) << "Logging address set to" << moLoggingAddress;
    }
}

Messaging::Messaging(unsigned contextId)
    : muiContextId(contextId)
    , moMachine(Context::machineName())
{
    if (contextId == 0) {
        BTRACE(TraceAlways) << "No context for standalone messaging";
        mptHandler = boost::make_shared<MsgHandler>(0);
        return;
    }
    mptHandler = boost::make_shared<MsgHandlerStandalone>(contextId, &moReceiveQueue);
    adoptAddresses();
    mbDisabled = mptHandler->linkState() == -1;
}

Messaging::~Messaging()
{
    if (!mbDisabled)
        release();
}

boost::shared_ptr<MsgHandler> Messaging::attachHandler(MachineName& machine, Context::Type type, unsigned flags,
                                                       const QString& title, const QString& group, const QString& name)
{
    return boost::make_shared<MsgHandlerAttached>(machine, muiContextId, type, flags, title, group, name,
                                                  &moReceiveQueue);
}

void Messaging::adoptAddresses()
{
    moAddress = mptHandler->address();
    moPhysicalAddress = mptHandler->physicalAddress();
    moParentAddress = mptHandler->parentAddress();
}

bool Messaging::foreign(const char* what) const
{
    const unsigned caller = Context::id();
    if (caller == muiContextId)
        return false;
    BTRACE(TraceAlways) << "Context" << caller << what << muiContextId;
    return true;
}

int Messaging::socket() { return mptHandler->socket(); }

bool Messaging::valid() const { return mptHandler->linkState() != -1; }

QByteArray Messaging::binary(const Authorization& authorization) const
{
    return authorization.binary(moMachine.fullName());
}

// ---------------------------------------------------------------------------
// Send

bool Messaging::sendToQueue(const Msg& message, bool once, bool& found)
{
    boost::mutex::scoped_lock lock(moMutex);
    const auto it = moQueues.find(message.destination().binary());
    found = it != moQueues.end();
    if (!found)
        return false;
    boost::any item(message);
    if (once ? (*it)->enqueueOnce(&item) : (*it)->enqueue(&item)) {
        BTRACE(TraceDebug) << message.name() << "enqueue to" << message.destination();
        return true;
    }
    // The other context has released its queue: it is gone, or going.
    BTRACE(TraceNormal) << "Failed to enqueue message, remove queue" << message.destination();
    (*it)->removeUser();
    moQueues.erase(it);
    return false;
}

// Whether a message may go out at all; says why not.
bool Messaging::sendable(const Msg& message) const
{
    if (!message) {
        BTRACE(TraceAlways) << "Invalid message" << int(message.lastError());
        return false;
    }
    if (mbDisabled) {
        BTRACE(TraceNormal) << "Messaging is disabled, cannot send" << message.name();
        return false;
    }
    return true;
}

bool Messaging::send(const Msg& message)
{
    if (!sendable(message))
        return false;
    if (message.destination() == moAddress) {
        BTRACE(TraceDebug) << "Loopback" << message.name();
        moReceiveQueue.enqueue(message);
        return true;
    }
    bool found = false;
    if (sendToQueue(message, false, found))
        return true;
    if (found)
        return false;
    return mptHandler->send(message);
}

bool Messaging::send(const Msg& message, bool flush)
{
    if (!send(message))
        return false;
    if (mbUI)
        return Msg::wait(0) == eMsgResultOk;
    if (flush) {
        IpcResult result = eIpcResultOk;
        return this->flush(result);
    }
    return true;
}

bool Messaging::sendOnce(const Msg& message)
{
    if (!sendable(message))
        return false;
    if (message.destination() == moAddress) {
        BTRACE(TraceDebug) << "Loopback" << message.name();
        return moReceiveQueue.enqueueOnce(message);
    }
    bool found = false;
    if (sendToQueue(message, true, found))
        return true;
    if (!found)
        BTRACE(TraceNormal) << "Not connected to" << message.destination() << "cannot send once" << message.name();
    return false;
}

bool Messaging::sendPacket(const boost::shared_ptr<IpcPacket>& packet)
{
    if (!packet || mbDisabled)
        return false;
    if (packet->destination() == moPhysicalAddress.binary()) {
        moReceiveQueue.enqueue(packet);
        return true;
    }
    {
        boost::mutex::scoped_lock lock(moMutex);
        if (moQueues.contains(packet->destination())) {
            // Data between threads of one process goes by other means.
            BTRACE(TraceAlways) << "Cannot send packets between threads" << packet->destination();
            return false;
        }
    }
    return mptHandler->enqueue(packet);
}

bool Messaging::flush(IpcResult& result)
{
    if (mbDisabled) {
        result = eIpcResultClosed;
        return false;
    }
    return mptHandler->flush(result);
}

// ---------------------------------------------------------------------------
// Receive

bool Messaging::proxyLog(const Msg& message)
{
    if (message.source().type() != eMsgAddressContext || message.name() != Catalogue::LogDaemonLocalWriteLog::Message)
        return false;
    // This context's own log message, come back to it because its logging
    // address is its own: it is for whoever reads here. Passing it on again
    // would send it round the loop for ever.
    if (message.source() == moAddress)
        return false;
    // A thread of this process logs through this context.
    if (moLoggingAddress) {
        BTRACE(TraceDebug) << "#### Proxy a log message ####" << message.source() << "to" << moLoggingAddress;
        send(Msg(moLoggingAddress, message.name(), message.body(), message.compression()));
    } else {
        BTRACE(TraceNormal) << "Give proxy log message to the bit bucket" << message.source();
    }
    return true;
}

Msg Messaging::receive(IpcResult& result, qint64 ms)
{
    result = eIpcResultOk;
    if (mbDisabled) {
        BTRACE(TraceNormal) << "Messaging is disabled, cannot receive";
        result = eIpcResultClosed;
        return Msg::invalid(eMsgResultIpcError);
    }
    const unsigned long long deadline = ms > 0 ? Context::systemTime() + quint64(ms) : 0;

    if (ms == 0 && moReceiveQueue.isEmpty()) {
        if (!mptHandler->wait(result, 0) && result != eIpcResultTimeout)
            return Msg::invalid(eMsgResultIpcError);
    }
    for (;;) {
        Msg message;
        if (moReceiveQueue.dequeue(message)) {
            if (proxyLog(message))
                continue;
            result = eIpcResultOk;
            return message;
        }
        qint64 piece = -1;
        if (ms == 0) {
            result = eIpcResultTimeout;
            return Msg::invalid(eMsgResultTimeout);
        } else if (ms < 0) {
            BTRACE(TraceDebug) << "Wait for message";
        } else {
            const qint64 left = remainingUntil(deadline);
            if (left <= 0) {
                result = eIpcResultTimeout;
                return Msg::invalid(eMsgResultTimeout);
            }
            piece = waitPiece(left);
            BTRACE(TraceDebug) << "Wait" << piece << "msec for message";
        }
        if (!mptHandler->wait(result, piece) && result != eIpcResultTimeout)
            return Msg::invalid(eMsgResultIpcError);
    }
}

void Messaging::requeue(const QList<Msg>& messages)
{
    for (const Msg& message : messages)
        moReceiveQueue.prepend(message);
}

IpcResult Messaging::nap(unsigned ms)
{
    if (!moReceiveQueue.isEmpty())
        return eIpcResultMessagePending;
    IpcResult result = eIpcResultOk;
    mptHandler->wait(result, qint64(ms));
    return result;
}

bool Messaging::pending()
{
    if (!moReceiveQueue.isEmpty())
        return true;
    IpcResult result = eIpcResultOk;
    mptHandler->wait(result, 0);
    return result != eIpcResultTimeout;
}

bool Messaging::pending(const TCPSocketSelect& select)
{
    return !moReceiveQueue.isEmpty() || mptHandler->pending(select);
}

bool Messaging::select(TCPSocketSelect& select) { return mptHandler->select(select); }

// ---------------------------------------------------------------------------
// Handlers and authorization

bool Messaging::addWaitHandler(const QString& name, const QByteArray& authorization, const MsgHandlerPointer& handler)
{
    if (!handler || name.isEmpty()) {
        BTRACE(TraceAlways) << "No handler or no name to add" << name;
        return false;
    }
    QList<MsgHandlerListEntry>& entries = moWaitHandlers[name];
    BTRACE(TraceDebug) << "Prepend" << name << "handler" << static_cast<const void*>(handler.get());
    entries.prepend(MsgHandlerListEntry(handler, authorization));
    if (!authorization.isEmpty())
        moReceiveQueue.addAuthorization(name, authorization);
    return true;
}

bool Messaging::removeWaitHandler(const QString& name, const MsgHandlerPointer& handler)
{
    const auto it = moWaitHandlers.find(name);
    if (it == moWaitHandlers.end())
        return false;
    QList<MsgHandlerListEntry>& entries = *it;
    for (int at = 0; at < entries.size(); ++at) {
        if (entries.at(at).mptFunction != handler)
            continue;
        BTRACE(TraceDebug) << "Remove" << name << "at" << at;
        if (!entries.at(at).moAuthorization.isEmpty())
            moReceiveQueue.removeAuthorization(name, entries.at(at).moAuthorization);
        entries.removeAt(at);
        if (entries.isEmpty())
            moWaitHandlers.erase(it);
        return true;
    }
    return false;
}

QList<MsgHandlerListEntry> Messaging::waitHandlers(const Msg& message) const
{
    return moWaitHandlers.value(message.name());
}

int Messaging::handlerCount() const
{
    int count = 0;
    for (const QList<MsgHandlerListEntry>& entries : moWaitHandlers)
        count += entries.size();
    return count;
}

bool Messaging::addAuthorization(const QString& name, const QByteArray& authorization)
{
    if (name.isEmpty() || authorization.isEmpty())
        return false;
    moReceiveQueue.addAuthorization(name, authorization);
    return true;
}

bool Messaging::removeAuthorization(const QString& name, const QByteArray& authorization)
{
    if (name.isEmpty() || authorization.isEmpty())
        return false;
    moReceiveQueue.removeAuthorization(name, authorization);
    return true;
}

bool Messaging::addAuthorization(const QString& name, const Authorization& authorization)
{
    return addAuthorization(name, binary(authorization));
}

bool Messaging::removeAuthorization(const QString& name, const Authorization& authorization)
{
    return removeAuthorization(name, binary(authorization));
}

// ---------------------------------------------------------------------------
// Connections

bool Messaging::haveStandaloneContexts() { return !mbDisabled && mptHandler->prepareQueue(); }

MsgAddress Messaging::connect(const boost::shared_ptr<Messaging>& other, const QString& cookie, Log::Proxy proxy)
{
    MsgAddress result;
    if (!other) {
        BTRACE(TraceAlways) << "No other context to connect to";
        return result;
    }
    if (other.get() == this) {
        BTRACE(TraceAlways) << "Cannot connect a context to itself";
    } else if (mbDisabled) {
        BTRACE(TraceAlways) << "Messaging is disabled, cannot connect";
    } else if (!mptHandler->prepareQueue()) {
        BTRACE(TraceAlways) << "Failed to prepare the queue for other contexts";
    } else if (!connectQueue(other.get())) {
        BTRACE(TraceAlways) << "Failed to connect to other context" << other->address();
    } else if (!other->connectQueue(this)) {
        BTRACE(TraceAlways) << "Failed to connect other context" << other->address();
        disconnectQueue(other->address());
    } else {
        Msg connected(other->address(), Catalogue::MsgConnectedPost::Message);
        connected.setCookie(cookie);
        if (send(connected)) {
            result = other->address();
        } else {
            BTRACE(TraceAlways) << "Failed to send connected post to" << other->address();
            disconnectQueue(other->address());
            other->disconnectQueue(moAddress);
        }
    }

    if (result && !moLoggingAddress && proxy == Log::eProxy && result.type() == eMsgAddressAttached) {
        moLoggingAddress = result;
        BTRACE(TraceNormal) << "Log to" << moLoggingAddress;
    }
    if (!result)
        other->failed(cookie);
    return result;
}

bool Messaging::connectQueue(Messaging* other)
{
    if (!other || other == this)
        return false;
    if (mbDisabled) {
        BTRACE(TraceNormal) << "Messaging is disabled, cannot take a queue";
        return false;
    }
    const boost::shared_ptr<MsgQueue> queue = other->mptHandler->queue();
    if (!queue || !queue->isValid()) {
        BTRACE(TraceAlways) << "The other context does not have a message queue" << other->address();
        return false;
    }
    boost::mutex::scoped_lock lock(moMutex);
    const BinaryAddress& key = other->address().binary();
    if (moQueues.contains(key)) {
        BTRACE(TraceAlways) << "Already connected to other context" << other->address();
        return false;
    }
    queue->addUser();
    moQueues.insert(key, queue);
    BTRACE(TraceNormal) << "Connected to" << other->address();
    return true;
}

bool Messaging::disconnect(const MsgAddress& address, const QString& cookie)
{
    if (!cookie.isEmpty()) {
        Msg disconnected(address, Catalogue::MsgDisconnectedPost::Message);
        disconnected.setCookie(cookie);
        send(disconnected);
    }
    if (moLoggingAddress && moLoggingAddress == address)
        moLoggingAddress.clear();
    return disconnectQueue(address);
}

bool Messaging::disconnectQueue(const MsgAddress& address)
{
    boost::mutex::scoped_lock lock(moMutex);
    const auto it = moQueues.find(address.binary());
    if (it == moQueues.end())
        return false;
    (*it)->removeUser();
    moQueues.erase(it);
    BTRACE(TraceNormal) << "Disconnected from" << address;
    return true;
}

bool Messaging::isConnected(const MsgAddress& address) const
{
    boost::mutex::scoped_lock lock(moMutex);
    return moQueues.contains(address.binary());
}

bool Messaging::failed(const QString& cookie)
{
    const boost::shared_ptr<MsgQueue> queue = mptHandler->queue();
    if (!queue) {
        BTRACE(TraceAlways) << "No queue to tell of a failed connection" << cookie;
        return false;
    }
    Msg disconnected(Authorization(), moAddress, moAddress, Catalogue::MsgDisconnectedPost::Message);
    disconnected.setCookie(cookie);
    boost::any item(disconnected);
    return queue->enqueue(&item);
}

bool Messaging::enableConnection()
{
    const MsgAddress hubManager(eMsgAddressHub, eWellKnownHubManager);
    if (!send(Msg(hubManager, Catalogue::HubMgrConnectionEnableRequest::Message))) {
        BTRACE(TraceAlways) << "Failed to send enable connection request to the Hub";
        return false;
    }
    const MsgAddress hubRouter(eWellKnownHubRouter);
    QList<Msg> setAside;
    for (;;) {
        IpcResult result = eIpcResultOk;
        const Msg reply = receive(result, -1);
        if (!reply) {
            BTRACE(TraceAlways) << "Failed to receive enable connection reply from the Hub" << int(reply.lastError());
            requeue(reversed(setAside));
            return false;
        }
        if (reply.name() == Catalogue::HubRtrConnectionEnableReply::Message && reply.source() == hubRouter) {
            BTRACE(TraceNormal) << "Connected";
            mptHandler->setMaximumSize(0x7FFFFFFF);
            // Back in front, in the order they came.
            requeue(reversed(setAside));
            return true;
        }
        BTRACE(TraceAlways) << "Incorrect reply, wanted" << Catalogue::HubRtrConnectionEnableReply::Message << "from"
                            << hubRouter << "got" << reply.name() << "from" << reply.source();
        setAside.append(reply);
    }
}

void Messaging::notifyIpcClosed() { mptHandler->notifyIpcClosed(); }

void Messaging::release()
{
    if (foreign("is not allowed to disable messaging for context"))
        return;
    if (mbDisabled)
        return;
    BTRACE(TraceNormal) << unsigned(moWaitHandlers.size()) << "message(s) still have handler(s)";
    moWaitHandlers.clear();
    mptHandler->release();
    {
        boost::mutex::scoped_lock lock(moMutex);
        for (const boost::shared_ptr<MsgQueue>& queue : qAsConst(moQueues))
            queue->removeUser();
        moQueues.clear();
    }
    mbDisabled = true;
}

// ---------------------------------------------------------------------------
// Data channels

bool Messaging::addDatachannel(unsigned id, Transport transport, unsigned limit)
{
    moReceiveQueue.addDatachannel(id, transport, limit);
    return true;
}

void Messaging::removeDatachannel(unsigned id) { moReceiveQueue.removeDatachannel(id); }

bool Messaging::dataTransportType(Transport& transport) const { return moReceiveQueue.dataTransportType(transport); }

IpcResult Messaging::dataAvailable(unsigned id) const { return moReceiveQueue.dataAvailable(id); }

IpcResult Messaging::dataAvailable(const QList<unsigned>& ids, qint64 ms)
{
    if (mbDisabled)
        return eIpcResultClosed;
    const unsigned long long deadline = ms > 0 ? Context::systemTime() + quint64(ms) : 0;
    IpcResult result = eIpcResultClosed;
    for (;;) {
        result = moReceiveQueue.dataAvailable(ids);
        if (result != eIpcResultAgain || ms == 0)
            return result;
        qint64 piece = -1;
        if (ms > 0) {
            piece = remainingUntil(deadline);
            if (piece <= 0)
                return eIpcResultTimeout;
        }
        BTRACE(TraceDebug) << "Wait for message";
        IpcResult waited = eIpcResultOk;
        if (!mptHandler->wait(waited, piece) && waited != eIpcResultTimeout)
            return waited;
    }
}

boost::shared_ptr<IpcPacket> Messaging::receiveData(IpcResult& result, unsigned id, qint64 ms)
{
    result = eIpcResultClosed;
    if (mbDisabled)
        return boost::shared_ptr<IpcPacket>();
    const unsigned long long deadline = ms > 0 ? Context::systemTime() + quint64(ms) : 0;
    for (;;) {
        boost::shared_ptr<IpcPacket> packet = moReceiveQueue.dequeueData(result, id);
        if (result != eIpcResultAgain || ms == 0)
            return packet;
        qint64 piece = -1;
        if (ms > 0) {
            piece = remainingUntil(deadline);
            if (piece <= 0) {
                result = eIpcResultTimeout;
                return packet;
            }
        }
        BTRACE(TraceDebug) << "Wait for data" << id;
        IpcResult waited = eIpcResultOk;
        if (!mptHandler->wait(waited, piece) && waited != eIpcResultTimeout) {
            result = waited;
            return packet;
        }
    }
}

bool Messaging::availableAcks(unsigned& count, unsigned id)
{
    if (mbDisabled || !moReceiveQueue.hasDatachannel(id))
        return count > 0;
    count += moReceiveQueue.availableAcks(id);
    while (count == 0 && moReceiveQueue.isEmpty()) {
        BTRACE(TraceDebug) << "Wait for Acks" << id;
        IpcResult waited = eIpcResultOk;
        if (!mptHandler->wait(waited, -1) && waited != eIpcResultTimeout)
            break;
        count += moReceiveQueue.availableAcks(id);
    }
    return count > 0;
}

bool Messaging::flushData(IpcResult& result)
{
    if (!moReceiveQueue.isEmpty()) {
        result = eIpcResultMessagePending;
        return false;
    }
    const bool flushed = flush(result);
    if (!moReceiveQueue.isEmpty()) {
        result = eIpcResultMessagePending;
        return false;
    }
    return flushed;
}

bool Messaging::flushData(IpcResult& result, const QString& machine, unsigned id)
{
    if (!moReceiveQueue.isEmpty()) {
        result = eIpcResultMessagePending;
        return false;
    }
    if (mbDisabled) {
        result = eIpcResultClosed;
        return false;
    }
    const bool flushed = mptHandler->flushData(result, machine, id);
    if (!moReceiveQueue.isEmpty()) {
        result = eIpcResultMessagePending;
        return false;
    }
    return flushed;
}

} // namespace Brevi
