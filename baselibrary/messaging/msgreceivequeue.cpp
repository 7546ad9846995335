#include "messaging/msgreceivequeue.h"

#include "core/authorization.h"
#include "core/trace.h"
#include "messaging/datapacket.h"
#include "messaging/ipcpacket.h"

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleMsg;
}

MsgReceiveQueue::MsgReceiveQueue() = default;

MsgReceiveQueue::~MsgReceiveQueue() = default;

// ---------------------------------------------------------------------------
// Messages

bool MsgReceiveQueue::authorized(const Msg& message) const
{
    const auto it = moAuthorizations.constFind(message.name());
    if (it == moAuthorizations.constEnd())
        return true;
    for (const QByteArray& accepted : *it)
        if (Authorization::equal(accepted, message.authorization()))
            return true;
    return false;
}

bool MsgReceiveQueue::admit(const Msg& message) const
{
    if (!message) {
        BTRACE(TraceAlways) << "Invalid message, give it to the bit bucket";
        return false;
    }
    if (!authorized(message)) {
        BTRACE(TraceAlways) << "Not authorized, give it to the bit bucket" << message.name() << "from"
                            << message.source();
        return false;
    }
    return true;
}

bool MsgReceiveQueue::enqueue(const Msg& message)
{
    if (!admit(message))
        return false;
    moMessages.append(message);
    return true;
}

bool MsgReceiveQueue::prepend(const Msg& message)
{
    if (!admit(message))
        return false;
    moMessages.prepend(message);
    return true;
}

bool MsgReceiveQueue::enqueueOnce(const Msg& message)
{
    if (!admit(message))
        return false;
    for (const Msg& queued : qAsConst(moMessages)) {
        if (queued.name() == message.name() && queued.source() == message.source()) {
            BTRACE(TraceDebug) << "Message" << message.name() << "from" << message.source() << "on queue";
            return true;
        }
    }
    moMessages.append(message);
    return true;
}

bool MsgReceiveQueue::enqueue(const boost::shared_ptr<IpcPacket>& packet)
{
    if (!packet) {
        BTRACE(TraceAlways) << "Got unknown IPC packet, give it to the bit bucket";
        return false;
    }
    switch (packet->type()) {
    case eIpcTypeMessage:
    case eIpcTypeDataMessage:
        BTRACE(TraceDebug) << "Got a message, queue it";
        return enqueue(Msg(packet));
    case eIpcTypeData: {
        const unsigned id = static_cast<const DataPacket&>(*packet).channelId();
        const auto it = moChannels.find(id);
        if (it == moChannels.end()) {
            BTRACE(TraceNormal) << "Unknown datachannel" << id << "give data to the bit bucket";
            return false;
        }
        if (it->mbOverrun)
            return false;
        if (it->muiLimit && unsigned(it->moPackets.size()) >= it->muiLimit) {
            BTRACE(TraceAlways) << "Data beyond the window of datachannel" << id << ", close it";
            it->moPackets.clear();
            it->mbOverrun = true;
            return false;
        }
        BTRACE(TraceDebug) << "Got data, queue it" << id;
        it->moPackets.append(packet);
        return true;
    }
    default:
        BTRACE(TraceAlways) << "Got unknown IPC packet, give it to the bit bucket" << unsigned(packet->type());
        return false;
    }
}

bool MsgReceiveQueue::dequeue(Msg& message)
{
    if (moMessages.isEmpty())
        return false;
    message = moMessages.takeFirst();
    return true;
}

void MsgReceiveQueue::addAuthorization(const QString& name, const QByteArray& authorization)
{
    moAuthorizations[name].append(authorization);
}

void MsgReceiveQueue::removeAuthorization(const QString& name, const QByteArray& authorization)
{
    const auto it = moAuthorizations.find(name);
    if (it == moAuthorizations.end())
        return;
    it->removeOne(authorization);
    // A name whose last authorization went is open again.
    if (it->isEmpty())
        moAuthorizations.erase(it);
}

// ---------------------------------------------------------------------------
// Data channels

void MsgReceiveQueue::addDatachannel(unsigned id, Transport transport, unsigned limit)
{
    if (moChannels.contains(id))
        return;
    Channel channel;
    channel.meTransport = transport;
    channel.muiLimit = limit;
    moChannels.insert(id, channel);
    BTRACE(TraceNormal) << "Add a data packet queue, size" << unsigned(moChannels.size()) << "id" << id;
}

void MsgReceiveQueue::removeDatachannel(unsigned id)
{
    if (moChannels.remove(id))
        BTRACE(TraceNormal) << "Remove data packet queue, size" << unsigned(moChannels.size()) << "id" << id;
}

bool MsgReceiveQueue::dataTransportType(Transport& transport) const
{
    switch (transport) {
    case DatachannelTransport::Best:
        if (moChannels.isEmpty()) {
            transport = DatachannelTransport::Memory;
        } else {
            transport = moChannels.constBegin()->meTransport;
            if (transport == DatachannelTransport::Memory) {
                BTRACE(TraceAlways) << "Can only have one memory datachannel per thread";
                transport = DatachannelTransport::None;
            }
        }
        break;
    case DatachannelTransport::IPC:
    case DatachannelTransport::Memory:
    case DatachannelTransport::File:
        for (const Channel& channel : moChannels) {
            if (channel.meTransport != transport) {
                BTRACE(TraceAlways) << "Cannot mix IPC and Memory datachannels";
                transport = DatachannelTransport::None;
                return false;
            }
        }
        if (!moChannels.isEmpty() && transport == DatachannelTransport::Memory) {
            BTRACE(TraceAlways) << "Can only have one memory datachannel per thread";
            transport = DatachannelTransport::None;
        } else if (!moChannels.isEmpty() && transport == DatachannelTransport::File) {
            BTRACE(TraceAlways) << "Can only have one file datachannel per thread";
            transport = DatachannelTransport::None;
        }
        break;
    default:
        BTRACE(TraceAlways) << "Should not be given transport type" << unsigned(transport);
        transport = DatachannelTransport::None;
        break;
    }
    return transport != DatachannelTransport::None;
}

IpcResult MsgReceiveQueue::dataAvailable(unsigned id) const
{
    if (!moMessages.isEmpty())
        return eIpcResultMessagePending;
    const auto it = moChannels.constFind(id);
    if (it != moChannels.constEnd() && it->mbOverrun)
        return eIpcResultClosed;
    return it != moChannels.constEnd() && !it->moPackets.isEmpty() ? eIpcResultOk : eIpcResultAgain;
}

IpcResult MsgReceiveQueue::dataAvailable(const QList<unsigned>& ids) const
{
    if (!moMessages.isEmpty())
        return eIpcResultMessagePending;
    for (const unsigned id : ids) {
        const auto it = moChannels.constFind(id);
        if (it != moChannels.constEnd() && (!it->moPackets.isEmpty() || it->mbOverrun))
            return eIpcResultOk;
    }
    return eIpcResultAgain;
}

boost::shared_ptr<IpcPacket> MsgReceiveQueue::dequeueData(IpcResult& result, unsigned id)
{
    if (!moMessages.isEmpty()) {
        result = eIpcResultMessagePending;
        return boost::shared_ptr<IpcPacket>();
    }
    const auto it = moChannels.find(id);
    if (it == moChannels.end() || it->mbOverrun) {
        result = eIpcResultClosed;
        return boost::shared_ptr<IpcPacket>();
    }
    if (it->moPackets.isEmpty()) {
        result = eIpcResultAgain;
        return boost::shared_ptr<IpcPacket>();
    }
    result = eIpcResultOk;
    return it->moPackets.takeFirst();
}

unsigned MsgReceiveQueue::availableAcks(unsigned id)
{
    const auto it = moChannels.find(id);
    if (it == moChannels.end())
        return 0;
    const unsigned count = unsigned(it->moPackets.size());
    it->moPackets.clear();
    return count;
}

} // namespace Brevi
