#include "hublink.h"

#include "core/trace.h"
#include "messaging/ipcpacket.h"
#include "sockets/tcpsocketdata.h"

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleHub;
} // namespace

HubLink::HubLink(unsigned serial, const boost::shared_ptr<TCPSocketData>& socket, unsigned long long now)
    : muiSerial(serial)
    , mptSocket(socket)
    , moReceive(socket)
    , moSend(socket)
    , muiLastProgress(now)
    , muiCreatedAt(now)
{}

HubLink::~HubLink() { close(); }

IpcResult HubLink::receive(boost::shared_ptr<IpcPacket>& packet, unsigned packetId)
{
    const IpcResult result = moReceive.receive();
    if (result == eIpcResultOk)
        packet = moReceive.get(packetId);
    return result;
}

void HubLink::enqueue(const boost::shared_ptr<IpcPacket>& packet, unsigned long long now)
{
    if (moQueue.empty()) {
        // The wait for the socket starts now, not when it last took bytes.
        muiLastProgress = now;
        muiFrontRemaining = packet->size();
    }
    moQueue.push_back(Queued{packet, packet->size()});
    muiQueuedBytes += packet->size();
}

IpcResult HubLink::flush(unsigned long long now)
{
    while (!moQueue.empty()) {
        if (!moSend.pending()) {
            if (!moSend.set(moQueue.front().packet)) {
                // An empty packet never gets here; if one did, it must not
                // block the queue behind it.
                muiQueuedBytes -= moQueue.front().size;
                moQueue.pop_front();
                continue;
            }
            muiFrontRemaining = moSend.remaining();
        }
        const IpcResult result = moSend.send();
        const unsigned remaining = moSend.pending() ? moSend.remaining() : 0;
        if (remaining < muiFrontRemaining)
            muiLastProgress = now;
        if (result == eIpcResultAgain) {
            muiFrontRemaining = remaining;
            return result;
        }
        if (result != eIpcResultOk)
            return eIpcResultClosed;
        muiQueuedBytes -= moQueue.front().size;
        moQueue.pop_front();
        muiFrontRemaining = moQueue.empty() ? 0 : moQueue.front().size;
    }
    return eIpcResultOk;
}

unsigned long long HubLink::stalledFor(unsigned long long now) const
{
    return moQueue.empty() || now < muiLastProgress ? 0 : now - muiLastProgress;
}

void HubLink::enable(unsigned maximum)
{
    mbEnabled = true;
    moReceive.setMaximumSize(maximum);
}

void HubLink::fail(const char* reason)
{
    if (!mpFailReason) {
        BTRACE(TraceVerbose) << "Link" << muiSerial << "fails:" << reason;
        mpFailReason = reason;
    }
}

void HubLink::close()
{
    if (mptSocket)
        mptSocket->close();
}

} // namespace Brevi
