#include "messaging/msghandlerattached.h"

#include "core/authorization.h"
#include "core/trace.h"
#include "core/xmllist.h"
#include "messaging/datamsgpacket.h"
#include "messaging/ipcpacket.h"
#include "messaging/ipcpacketlayout.h"
#include "messaging/msg.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msgpacket.h"
#include "messaging/msgqueueattached.h"
#include "messaging/msgreceivequeue.h"
#include "sockets/netaddress.h"
#include "sockets/tcpsocketdata.h"

#include <QHostAddress>

#include <boost/any.hpp>
#include <boost/make_shared.hpp>

#include <algorithm>
#include <chrono>
#include <cstdlib>

namespace Brevi {

using namespace Catalogue;

namespace {
const unsigned TraceModule = TraceModuleMsg;

// Relative waits do not follow changes of the system's clock.
qint64 steadyMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool isEnableReply(const IpcPacket& packet)
{
    return packet.type() == eIpcTypeMessage &&
           static_cast<const MsgPacket&>(packet).name() == HubRtrConnectionEnableReply::Message;
}

// Milliseconds left until `deadline` (a steadyMs), never below 0.
qint64 leftUntil(qint64 deadline) { return std::max<qint64>(0, deadline - steadyMs()); }
} // namespace

const unsigned MsgHandlerAttached::DefaultPort;
const unsigned MsgHandlerAttached::SocketBufferSize;
const unsigned MsgHandlerAttached::AttemptLimit;
const qint64 MsgHandlerAttached::ConnectLimitMs;
const qint64 MsgHandlerAttached::CompleteLimitMs;
const unsigned MsgHandlerAttached::RetryPauseMs;
const qint64 MsgHandlerAttached::AttachReplyLimitMs;
const qint64 MsgHandlerAttached::DetachLimitMs;

MsgHandlerAttached::MsgHandlerAttached(MachineName& machine, unsigned contextId, Context::Type type, unsigned flags,
                                       const QString& title, const QString& group, const QString& name,
                                       MsgReceiveQueue* receiveQueue)
    : MsgHandler(contextId)
    , mpoReceiveQueue(receiveQueue)
{
    if (contextId != 0)
        mptQueue = boost::make_shared<MsgQueueAttached>(contextId);
    if (!connectToHub(flags) || !attach(machine, type, flags, title, group, name)) {
        BREVI_TRACE(TraceModuleContext, TraceAlways) << "Failed to attach to Hub";
        disable();
    }
}

MsgHandlerAttached::~MsgHandlerAttached()
{
    if (mptSocket)
        mptSocket->close();
    // Producers keep their pointers to the queue: make their next send fail
    // rather than wait for an owner that is gone.
    if (mptQueue && Context::id() == muiContextId)
        mptQueue->release();
}

unsigned MsgHandlerAttached::hubPort()
{
    const char* text = std::getenv("BREVI_HUB_PORT");
    if (!text || !*text)
        return DefaultPort;
    bool ok = false;
    const unsigned port = QString::fromLocal8Bit(text).trimmed().toUInt(&ok);
    return ok && port > 0 && port <= 65535 ? port : DefaultPort;
}

// ---------------------------------------------------------------------------
// Attaching

bool MsgHandlerAttached::connectToHub(unsigned flags)
{
    const NetAddress hub(QHostAddress::LocalHost, hubPort());
    const qint64 deadline = steadyMs() + ConnectLimitMs;
    // A Hub that is still starting has two minutes to appear; a process that
    // asked for one attempt makes exactly one.
    for (unsigned attempt = (flags & Context::FlagAttachOnce) ? AttemptLimit - 1 : 1; attempt < AttemptLimit;
         ++attempt) {
        const boost::shared_ptr<TCPSocketData> socket = boost::make_shared<TCPSocketData>(QStringLiteral("IPC"), hub);
        if (!*socket) {
            BTRACE(TraceAlways) << "Failed to connect to the Hub" << hub << socket->lastError();
        } else if (socket->complete(std::min(CompleteLimitMs, std::max<qint64>(leftUntil(deadline), 1)))) {
            mptSocket = socket;
            break;
        } else {
            BTRACE(TraceAlways) << "Failed to complete connection to the Hub" << hub << socket->lastError();
            BTRACE(TraceNormal) << "disable IPC socket";
            socket->close();
        }
        const qint64 left = leftUntil(deadline);
        if (attempt + 1 >= AttemptLimit || left == 0)
            break;
        const qint64 pause = std::min<qint64>(RetryPauseMs, left);
        BTRACE(TraceNormal) << "Wait" << pause << "msec";
        Context::sleep(static_cast<unsigned long long>(pause));
    }
    if (!mptSocket)
        return false;

    moSelect.set(*mptSocket, TCPSocketSelect::Read);
    mptSocket->setSendBufferSize(SocketBufferSize);
    mptSocket->setRecvBufferSize(SocketBufferSize);
    moPacketSend.setSocket(mptSocket);
    moPacketReceive.setSocket(mptSocket);
    BTRACE(TraceNormal) << "Connected to the Hub" << *mptSocket;
    return true;
}

bool MsgHandlerAttached::attach(MachineName& machine, Context::Type type, unsigned flags, const QString& title,
                                const QString& group, const QString& name)
{
    XmlList body;
    if (type == Context::TypeAttached)
        body.set(HubMgrAttachRequest::Type, HubMgrAttachRequest::TypeAttached);
    else if (type == Context::TypeMonitored)
        body.set(HubMgrAttachRequest::Type, HubMgrAttachRequest::TypeMonitored);
    else
        BTRACE(TraceAlways) << "Should not get here with type" << int(type);
    body.set(HubMgrAttachRequest::Title, title);
    body.set(HubMgrAttachRequest::OSPid, Context::OSPid());
    body.set(HubMgrAttachRequest::ContextId, muiContextId);
    if (!name.isEmpty()) {
        if (!group.isEmpty()) {
            BTRACE(TraceDebug) << "Add Group" << group;
            body.set(HubMgrAttachRequest::Group, group);
        }
        BTRACE(TraceDebug) << "Add Name" << name;
        body.set(HubMgrAttachRequest::Name, name);
    }
    if (flags & Context::FlagNotifyReady)
        body.set(HubMgrAttachRequest::NotifyReady, true);
    if (flags & Context::FlagWaitForDisconnect)
        body.set(HubMgrAttachRequest::WaitForDisconnect, true);
    if (flags & Context::FlagDoNotWaitAtStartOfDay)
        body.set(HubMgrAttachRequest::DoNotWaitAtStartOfDay, true);
    if (flags & Context::FlagWaitForEndOfDay)
        body.set(HubMgrAttachRequest::WaitForEndOfDay, true);
    if (flags & Context::FlagPersistent)
        body.set(HubMgrAttachRequest::Persistent, true);

    // To the Hub at the other end of the link, with no source: the Hub knows
    // who is there.
    if (!send(Msg(MsgAddress(eMsgAddressHub, eWellKnownHubManager), HubMgrAttachRequest::Message, body))) {
        BTRACE(TraceAlways) << "Failed to send attach request to Hub";
        return false;
    }
    return awaitAttachReply(machine, group, name);
}

bool MsgHandlerAttached::awaitAttachReply(MachineName& machine, const QString& group, const QString& name)
{
    const qint64 deadline = steadyMs() + AttachReplyLimitMs;
    // What else comes before the reply is kept and put back afterwards in
    // front of anything later, in the order it came.
    QList<Msg> setAside;
    bool attached = false;
    for (;;) {
        Msg message;
        if (!mpoReceiveQueue->dequeue(message)) {
            IpcResult result = eIpcResultTimeout;
            const qint64 left = leftUntil(deadline);
            if (left == 0 || !wait(result, left)) {
                BTRACE(TraceAlways) << "Failed to get reply message" << int(result);
                break;
            }
            continue;
        }
        if (message.name() != HubMgrAttachReply::Message) {
            BTRACE(TraceNormal) << "Got" << message.name() << "wanted" << HubMgrAttachReply::Message << "queue it";
            setAside.append(message);
            continue;
        }
        if (message.source().id() != eWellKnownHubManager) {
            BTRACE(TraceAlways) << "Incorrect message received, wanted message from" << unsigned(eWellKnownHubManager)
                                << "got message from" << message.source().id();
            break;
        }
        BTRACE(TraceNormal) << "Hub manager has accepted attach request";
        bool found = true;
        const unsigned processId = message.getUint32(HubMgrAttachReply::ProcessId, &found);
        const QString machineName = message.getString(HubMgrAttachReply::MachineName, &found);
        const MsgAddress physical =
            found && processId != 0 ? MsgAddress(MachineName(machineName), processId) : MsgAddress();
        if (!physical) {
            BTRACE(TraceAlways) << "Failed to get required" << HubMgrAttachReply::ProcessId
                                << HubMgrAttachReply::MachineName << "data" << message.body().toBinary();
            break;
        }
        // Only a process the Hub started for another has a parent; asking for
        // the list without looking first would trace its absence as an error.
        if (!message.body().first(HubMgrAttachReply::ParentAddress).isNull())
            moParentAddress = MsgAddress(message.getXmlList(HubMgrAttachReply::ParentAddress));

        machine = MachineName(machineName);
        BTRACE(TraceNormal) << "Local machine name set to" << machine.fullName();
        moPhysicalAddress = physical;
        moAddress = name.isEmpty() ? moPhysicalAddress : MsgAddress(machine, name, group);
        attached = true;
        break;
    }
    for (int at = setAside.size() - 1; at >= 0; --at)
        mpoReceiveQueue->prepend(setAside.at(at));
    return attached;
}

// ---------------------------------------------------------------------------
// Sending

bool MsgHandlerAttached::send(const Msg& message)
{
    if (!message) {
        BTRACE(TraceAlways) << "Invalid message" << int(message.lastError());
        return false;
    }
    if (!linkUp()) {
        BTRACE(TraceNormal) << "No link to the Hub for" << message.name() << "to" << message.destination();
        return false;
    }
    const bool compress = message.compression() == eMsgCompressOnSend;
    boost::shared_ptr<IpcPacket> packet;
    if (message.rawData())
        packet = boost::make_shared<DataMsgPacket>(message.destination(), message.source(), message.authorization(),
                                                   message.name(), message.getCookie(), message.body(),
                                                   message.rawData(), muiNextSendId++, compress);
    else
        packet = boost::make_shared<MsgPacket>(message.destination(), message.source(), message.authorization(),
                                               message.name(), message.getCookie(), message.body(), muiNextSendId++,
                                               compress);
    return enqueue(packet);
}

bool MsgHandlerAttached::enqueue(const boost::shared_ptr<IpcPacket>& packet)
{
    if (!packet || !linkUp())
        return false;
    moSendQueue.append(packet);
    // Bytes leave only in emptySendQueue, from the waits: a send never blocks.
    if (moSendQueue.size() == 1) {
        moPacketSend.set(packet);
        moSelect.set(*mptSocket, TCPSocketSelect::Write);
    }
    return true;
}

void MsgHandlerAttached::emptySendQueue(const TCPSocketSelect* selected)
{
    if (!linkUp() || moSendQueue.isEmpty())
        return;
    if (selected && !selected->isSet(*mptSocket, TCPSocketSelect::Write))
        return;
    for (;;) {
        const IpcResult result = moPacketSend.send();
        BTRACE(TraceDebug) << "After send" << int(result);
        if (result == eIpcResultOk || result == eIpcResultPending) {
            moSendQueue.removeFirst();
            if (moSendQueue.isEmpty()) {
                BTRACE(TraceDebug) << "Send queue is empty";
                moSelect.clear(*mptSocket, TCPSocketSelect::Write);
                return;
            }
            BTRACE(TraceDebug) << "Send queue has" << moSendQueue.size() << "entries";
            moPacketSend.set(moSendQueue.first());
            continue;
        }
        if (result == eIpcResultAgain)
            return; // writing stays set: the next wait goes on
        if (!mbDetaching)
            BTRACE(TraceAlways) << "Unexpected error sending packet" << int(result);
        mePendingResult = result;
        linkLost("disable IPC socket");
        return;
    }
}

// ---------------------------------------------------------------------------
// Receiving

void MsgHandlerAttached::take(const boost::shared_ptr<IpcPacket>& packet)
{
    if (mbDetaching) {
        BTRACE(TraceDebug) << "Detaching, give it to the bit bucket";
        return;
    }
    mpoReceiveQueue->enqueue(packet);
}

bool MsgHandlerAttached::fillReceiveQueue(const TCPSocketSelect* selected)
{
    bool nothing = true;
    QList<boost::any> items;
    if (mptQueue && mptQueue->dequeueAll(items, selected)) {
        for (const boost::any& item : qAsConst(items)) {
            if (mbDetaching) {
                BTRACE(TraceDebug) << "Detaching, give it to the bit bucket";
            } else if (const Msg* message = boost::any_cast<Msg>(&item)) {
                if (mpoReceiveQueue->enqueue(*message))
                    nothing = false;
            } else if (const boost::shared_ptr<IpcPacket>* packet =
                           boost::any_cast<boost::shared_ptr<IpcPacket>>(&item)) {
                if (mpoReceiveQueue->enqueue(*packet))
                    nothing = false;
            } else {
                BTRACE(TraceAlways) << "Unknown item on queue, give it to the bit bucket";
            }
        }
    }

    if (!readable(selected))
        return nothing;
    // The receiver reads ahead of the packet in hand: read until it says
    // the socket is dry, or what it holds would wait for a poll that never
    // sees it.
    IpcResult result = eIpcResultAgain;
    for (;;) {
        result = moPacketReceive.receive();
        if (result != eIpcResultOk && result != eIpcResultPending)
            break;
        const boost::shared_ptr<IpcPacket> packet = moPacketReceive.get(muiNextReceiveId++);
        if (!packet)
            continue;
        if (!mbDetaching)
            nothing = false;
        // Behind the Hub's leave to talk to others may come, in the same
        // read, what only an enabled link takes: the limit rises here, as
        // enableConnection raises it when it sees the reply, and reading
        // goes on.
        if (isEnableReply(*packet))
            moPacketReceive.setMaximumSize(IpcPacketLayout::EnabledMaximumSize);
        take(packet);
    }
    if (result == eIpcResultAgain)
        return nothing;

    if (!mbDetaching)
        BTRACE(TraceAlways) << "Unexpected error receiving packet" << int(result);
    mePendingResult = result;
    const bool told = mbNotifyIpcClosed && !mbDetaching;
    linkLost("close IPC socket");
    return nothing && !told;
}

void MsgHandlerAttached::linkLost(const char* how)
{
    moSelect.clear(*mptSocket, TCPSocketSelect::All);
    BTRACE(TraceNormal) << how << *mptSocket;
    mptSocket->close();
    mptSocket.reset();
    // What waited for the link is lost with it.
    moSendQueue.clear();
    moPacketSend.setSocket(boost::shared_ptr<TCPSocketData>());
    moPacketReceive.setSocket(boost::shared_ptr<TCPSocketData>());
    if (mbDetaching)
        return;
    if (mbNotifyIpcClosed) {
        // From this context to itself: the owner's handler decides what the
        // loss of the Hub means.
        mpoReceiveQueue->enqueue(Msg(Authorization(), moAddress, moAddress, MsgIpcClosedPost::Message));
        return;
    }
    // The other threads learn that the process is coming down: their sends
    // fail from now on.
    BTRACE(TraceNormal) << "Release standalone queue";
    if (mptQueue)
        mptQueue->release();
    moSelect.zero();
}

// ---------------------------------------------------------------------------
// Waiting

bool MsgHandlerAttached::linkUp() const { return mptSocket && mptSocket->isValid(); }

bool MsgHandlerAttached::readable(const TCPSocketSelect* selected) const
{
    return linkUp() && (!selected || selected->isSet(*mptSocket, TCPSocketSelect::Read) || moPacketReceive.buffered());
}

bool MsgHandlerAttached::nothingLeft() const
{
    if (linkUp())
        return false;
    // A process that has lost the Hub lives on while its threads talk to it.
    return !mptQueue || !mptQueue->isValid() || mptQueue->users() == 0;
}

bool MsgHandlerAttached::selectWait(IpcResult& result, qint64 ms, const char* where)
{
    moSelect.clone(moSelectClone);
    const TCPError error = moSelectClone.wait(linkUp() && moPacketReceive.buffered() ? 0 : ms);
    switch (error) {
    case eTCPErrorNone:
        return true;
    case eTCPErrorTimeout:
        if (ms != 0 && linkUp() && moPacketReceive.buffered())
            return true; // the receiver has bytes: fillReceiveQueue reads them
        result = eIpcResultTimeout;
        return false;
    case eTCPErrorInterrupted:
        // The clone's sets are empty now: look at everything again.
        moSelect.clone(moSelectClone);
        return true;
    default:
        moSelect.debug(TraceAlways, QStringLiteral("%1 moSelect").arg(QLatin1String(where)));
        moSelectClone.debug(TraceAlways, QStringLiteral("%1 moClone").arg(QLatin1String(where)));
        BTRACE(TraceAlways) << "Unexpected error waiting on select" << error;
        result = disable();
        return false;
    }
}

bool MsgHandlerAttached::wait(IpcResult& result, qint64 ms)
{
    result = eIpcResultOk;
    const qint64 deadline = ms > 0 ? steadyMs() + ms : 0;
    const TCPSocketSelect* selected = nullptr;
    for (;;) {
        const bool nothing = fillReceiveQueue(selected);
        emptySendQueue(selected);
        // What came is given out first, even the news that the link is gone.
        if (!nothing)
            return true;
        if (nothingLeft()) {
            BTRACE(TraceNormal) << "No standalone queues and IPC socket closed";
            result = eIpcResultClosed;
            return false;
        }
        if (ms == 0) {
            result = eIpcResultTimeout;
            return false;
        }
        qint64 left = -1;
        if (ms > 0) {
            left = leftUntil(deadline);
            if (left == 0) {
                result = eIpcResultTimeout;
                return false;
            }
        }
        if (!selectWait(result, left, "MsgHandlerAttached::wait"))
            return false;
        selected = &moSelectClone;
    }
}

bool MsgHandlerAttached::nap(IpcResult& result, unsigned ms)
{
    result = eIpcResultOk;
    bool nothing = fillReceiveQueue(nullptr);
    emptySendQueue(nullptr);
    if (!nothing)
        return true;
    if (nothingLeft()) {
        BTRACE(TraceNormal) << "No standalone queues and IPC socket closed";
        result = eIpcResultClosed;
        return false;
    }
    if (ms == 0 || !selectWait(result, qint64(ms), "MsgHandlerAttached::nap")) {
        if (ms == 0)
            result = eIpcResultTimeout;
        return false;
    }
    nothing = fillReceiveQueue(&moSelectClone);
    emptySendQueue(&moSelectClone);
    if (nothing)
        result = eIpcResultTimeout;
    return !nothing;
}

bool MsgHandlerAttached::flush(IpcResult& result)
{
    result = eIpcResultOk;
    const TCPSocketSelect* selected = nullptr;
    while (!moSendQueue.isEmpty()) {
        // Reading goes on too: a Hub that cannot write to this process may
        // stop reading from it.
        fillReceiveQueue(selected);
        emptySendQueue(selected);
        if (!linkUp()) {
            // What was queued went with the link.
            result = eIpcResultClosed;
            return false;
        }
        if (moSendQueue.isEmpty())
            break;
        if (!selectWait(result, -1, "MsgHandlerAttached::flush"))
            return false;
        selected = &moSelectClone;
    }
    return true;
}

bool MsgHandlerAttached::flushData(IpcResult& result, const QString& machine, unsigned id)
{
    const MsgAddress destination(MachineName(machine), id);
    const auto waiting = [this, &destination]() {
        for (const boost::shared_ptr<IpcPacket>& packet : qAsConst(moSendQueue))
            if (packet->type() == eIpcTypeData && MsgAddress(packet->destination()) == destination)
                return true;
        return false;
    };
    result = eIpcResultOk;
    const TCPSocketSelect* selected = nullptr;
    while (waiting()) {
        fillReceiveQueue(selected);
        emptySendQueue(selected);
        if (!linkUp()) {
            result = eIpcResultClosed;
            return false;
        }
        if (!waiting())
            break;
        if (!selectWait(result, -1, "MsgHandlerAttached::flushData"))
            return false;
        selected = &moSelectClone;
    }
    return true;
}

// ---------------------------------------------------------------------------
// The rest of the handler's slots

boost::shared_ptr<MsgQueue> MsgHandlerAttached::queue() { return mptQueue; }

bool MsgHandlerAttached::setMaximumSize(unsigned size)
{
    moPacketReceive.setMaximumSize(size);
    return true;
}

int MsgHandlerAttached::socket() { return mptSocket ? mptSocket->socket() : -1; }

bool MsgHandlerAttached::select(TCPSocketSelect& select)
{
    if (!linkUp()) {
        select.zero();
        return false;
    }
    moSelect.clone(select);
    if (moPacketReceive.buffered() || !mpoReceiveQueue->isEmpty())
        select.set(*mptSocket, TCPSocketSelect::Write);
    return true;
}

bool MsgHandlerAttached::pending(const TCPSocketSelect& select)
{
    if (mptSocket && (select.isSet(*mptSocket, TCPSocketSelect::ReadWrite) || moPacketReceive.buffered()))
        return true;
    return mptQueue && mptQueue->pending(select);
}

bool MsgHandlerAttached::prepareQueue() { return mptQueue && mptQueue->setup(moSelect); }

void MsgHandlerAttached::notifyIpcClosed() { mbNotifyIpcClosed = true; }

int MsgHandlerAttached::linkState() const { return linkUp() ? 0 : -1; }

IpcResult MsgHandlerAttached::disable()
{
    BTRACE(TraceNormal) << "disable handler";
    if (mptSocket) {
        moSelect.clear(*mptSocket, TCPSocketSelect::All);
        BTRACE(TraceNormal) << "disable IPC socket" << *mptSocket;
        mptSocket->close();
        mptSocket.reset();
    }
    moSendQueue.clear();
    moPacketSend.setSocket(boost::shared_ptr<TCPSocketData>());
    moPacketReceive.setSocket(boost::shared_ptr<TCPSocketData>());
    if (mptQueue) {
        BTRACE(TraceNormal) << "Release StandaloneQueue";
        mptQueue->release();
    }
    moSelect.zero();
    mbDisabled = true;
    mePendingResult = eIpcResultClosed;
    return eIpcResultClosed;
}

void MsgHandlerAttached::drain(qint64 ms)
{
    const qint64 deadline = steadyMs() + ms;
    bool shut = false;
    const TCPSocketSelect* selected = nullptr;
    while (linkUp()) {
        emptySendQueue(selected);
        if (!linkUp())
            break;
        // The Hub sees the end of this side's stream only after all that
        // was queued.
        if (!shut && moSendQueue.isEmpty()) {
            mptSocket->shutdown(eTCPShutdownSend);
            shut = true;
        }
        // Dropped while detaching; the Hub's close ends the loop.
        fillReceiveQueue(selected);
        if (!linkUp())
            break;
        const qint64 left = leftUntil(deadline);
        if (left == 0) {
            BTRACE(TraceAlways) << "The Hub did not close the link in" << ms << "msec, close it";
            break;
        }
        IpcResult result = eIpcResultOk;
        if (!selectWait(result, left, "MsgHandlerAttached::release")) {
            if (result == eIpcResultTimeout)
                continue;
            break;
        }
        selected = &moSelectClone;
    }
}

void MsgHandlerAttached::release()
{
    const unsigned caller = Context::id();
    if (caller != muiContextId) {
        BTRACE(TraceAlways) << "Context" << caller << "is not allowed to release messaging for context" << muiContextId;
        return;
    }
    mbDetaching = true;
    if (Context::isValid() && linkUp()) {
        // Straight to the Hub's router, ahead of nothing: what was queued
        // before still goes first.
        const MsgAddress router(moPhysicalAddress.machine(), eWellKnownHubRouter);
        enqueue(boost::make_shared<MsgPacket>(router, moPhysicalAddress, QByteArray(),
                                              HubRtrConnectionDetachPost::Message, QString(), XmlList(), 0u, false));
    }
    if (linkUp())
        drain(DetachLimitMs);
    if (mptSocket) {
        moSelect.clear(*mptSocket, TCPSocketSelect::All);
        BTRACE(TraceNormal) << "close IPC socket" << *mptSocket;
        mptSocket->close();
        mptSocket.reset();
    }
    moSendQueue.clear();
    moPacketSend.setSocket(boost::shared_ptr<TCPSocketData>());
    moPacketReceive.setSocket(boost::shared_ptr<TCPSocketData>());
    if (mptQueue)
        mptQueue->release();
    moSelect.zero();
    mbDisabled = true;
}

} // namespace Brevi
