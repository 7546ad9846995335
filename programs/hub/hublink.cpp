#include "hublink.h"

#include "core/trace.h"
#include "core/traceerrorcode.h"
#include "messaging/ipcpacket.h"
#include "sockets/tcperrortable.h"
#include "sockets/tcpsocketdata.h"

#include <cerrno>

#include <sys/socket.h>
#include <sys/uio.h>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleHub;

// One gathered write takes at most this many packets, and stops adding
// packets once it holds this many bytes: about what a socket's send buffer
// takes at once.
const unsigned GatherPackets = 64;
const size_t GatherBytes = 256 * 1024;
} // namespace

HubLink::HubLink(unsigned serial, const boost::shared_ptr<TCPSocketData>& socket, unsigned long long now)
    : muiSerial(serial)
    , mptSocket(socket)
    , moReceive(socket)
    , muiLastProgress(now)
    , muiCreatedAt(now)
{}

HubLink::~HubLink() { close(); }

IpcResult HubLink::receive(boost::shared_ptr<IpcPacket>& packet, unsigned packetId, unsigned long long now)
{
    const IpcResult result = moReceive.receive();
    if (result == eIpcResultOk)
        packet = moReceive.get(packetId);
    const unsigned missing = moReceive.missing();
    if (missing != muiMissing) {
        muiMissing = missing;
        muiReceiveProgress = now;
    }
    return result;
}

unsigned long long HubLink::partialFor(unsigned long long now) const
{
    return !muiMissing || now < muiReceiveProgress ? 0 : now - muiReceiveProgress;
}

void HubLink::enqueue(const boost::shared_ptr<IpcPacket>& packet, unsigned long long now)
{
    const Extent bytes = packet->buffer();
    if (!bytes.size())
        // An empty packet never gets here; if one did, it must not block the
        // queue behind it.
        return;
    if (moQueue.empty()) {
        // The wait for the socket starts now, not when it last took bytes.
        muiLastProgress = now;
        muiFrontWritten = 0;
    }
    moQueue.push_back(Queued{packet, bytes});
    muiQueuedBytes += bytes.size();
}

IpcResult HubLink::flush(unsigned long long now)
{
    mbBlocked = false;
    if (failed() || !mptSocket || !mptSocket->isValid())
        return moQueue.empty() ? eIpcResultOk : eIpcResultClosed;
    while (!moQueue.empty()) {
        iovec parts[GatherPackets];
        unsigned count = 0;
        size_t total = 0;
        for (auto it = moQueue.begin(); it != moQueue.end() && count < GatherPackets && total < GatherBytes; ++it) {
            const unsigned skip = count ? 0 : muiFrontWritten;
            parts[count].iov_base = it->bytes.data() + skip;
            parts[count].iov_len = it->bytes.size() - skip;
            total += parts[count].iov_len;
            ++count;
        }
        msghdr message = {};
        message.msg_iov = parts;
        message.msg_iovlen = count;
        // MSG_NOSIGNAL: a process that has gone is a failed write, never a
        // SIGPIPE that ends the Hub.
        const ssize_t sent = ::sendmsg(mptSocket->socket(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0) {
            const int error = errno;
            const TCPErrorTable::Effect effect = TCPErrorTable::send(error);
            if (error == EINTR)
                continue;
            if (!effect.fatal) {
                mbBlocked = true;
                return eIpcResultAgain;
            }
            BTRACE(TraceNormal) << "Write to link" << muiSerial << "failed" << TraceErrorCode(error);
            return eIpcResultClosed;
        }
        if (sent == 0)
            return eIpcResultClosed;
        muiLastProgress = now;
        muiQueuedBytes -= size_t(sent);
        for (size_t left = size_t(sent); left;) {
            Queued& front = moQueue.front();
            const size_t rest = front.bytes.size() - muiFrontWritten;
            if (left < rest) {
                muiFrontWritten += unsigned(left);
                break;
            }
            left -= rest;
            front.packet->transmitted();
            moQueue.pop_front();
            muiFrontWritten = 0;
        }
        if (size_t(sent) < total) {
            mbBlocked = true;
            return eIpcResultAgain;
        }
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

void HubLink::hold(const boost::shared_ptr<IpcPacket>& packet)
{
    moHeld.push_back(packet);
    muiHeldBytes += packet->size();
}

std::deque<boost::shared_ptr<IpcPacket>> HubLink::takeHeld()
{
    std::deque<boost::shared_ptr<IpcPacket>> held;
    held.swap(moHeld);
    muiHeldBytes = 0;
    return held;
}

std::deque<boost::shared_ptr<IpcPacket>> HubLink::takeUnsent()
{
    std::deque<boost::shared_ptr<IpcPacket>> unsent = takeHeld();
    for (const Queued& queued : moQueue)
        unsent.push_back(queued.packet);
    moQueue.clear();
    muiQueuedBytes = 0;
    muiFrontWritten = 0;
    return unsent;
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
