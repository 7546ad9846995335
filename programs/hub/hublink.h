#ifndef PROGRAMS_HUB_HUBLINK_H
#define PROGRAMS_HUB_HUBLINK_H

#include "core/extent.h"
#include "messaging/ipcpacketreceive.h"
#include "messaging/ipcresult.h"

#include <boost/shared_ptr.hpp>

#include <deque>

namespace Brevi {

class IpcPacket;
class TCPSocketData;

// One process's TCP link as the Hub holds it: the socket, a receiver that
// frames the incoming packets, and a queue of packets to send with the sender
// that writes them.
//
// Nothing here blocks. `receive` takes one packet if a whole one is there;
// `enqueue` only queues; `flush` writes what the socket takes now and leaves
// the rest for when it is writable again. A process that reads slowly thus
// costs the Hub queue memory, never time, and the Hub holds that memory to
// the limits its owner checks (queuedBytes, stalledFor).
//
// `flush` hands the socket as many queued packets as it has in one gathered
// write: a stream of small messages to one process costs the Hub one system
// call per turn of its loop, not one per message.
//
// A link fails for good (`failed`) when the socket does: a read or write
// error, the peer's close, or a framing error (bad magic, a size out of
// bounds); or when its owner gives it up (`fail`). The owner then drops it.
//
// Threads: the Hub's one thread.
class HubLink
{
public:
    // `serial` is the Hub's number for the link, never reused.
    HubLink(unsigned serial, const boost::shared_ptr<TCPSocketData>& socket, unsigned long long now);
    ~HubLink();
    HubLink(const HubLink&) = delete;
    HubLink& operator=(const HubLink&) = delete;

    unsigned serial() const { return muiSerial; }
    const boost::shared_ptr<TCPSocketData>& socket() const { return mptSocket; }

    // Reads on until a packet is complete (eIpcResultOk, `packet` set) or the
    // socket has no more for now (eIpcResultAgain). Anything else is the
    // reason the link has failed.
    IpcResult receive(boost::shared_ptr<IpcPacket>& packet, unsigned packetId, unsigned long long now);
    // How long the process has sent nothing more of a packet it has begun;
    // 0 between packets. The Hub holds that packet's memory meanwhile.
    unsigned long long partialFor(unsigned long long now) const;
    // The Hub is not reading the link: its process cannot be waiting on
    // anybody but the Hub, so the time does not count against it.
    void holdReceive(unsigned long long now) { muiReceiveProgress = now; }

    // Bytes already read from the socket and not yet framed: a poll on the
    // socket does not show them, so a link with some is served without
    // waiting for it to be readable.
    unsigned buffered() const { return moReceive.buffered(); }

    // Appends a packet to the send queue; nothing is written here.
    void enqueue(const boost::shared_ptr<IpcPacket>& packet, unsigned long long now);
    // Writes queued packets until the queue is empty (eIpcResultOk) or the
    // socket is full (eIpcResultAgain); eIpcResultClosed when the link has
    // failed.
    IpcResult flush(unsigned long long now);
    bool wantsWrite() const { return !moQueue.empty(); }
    // The last flush left bytes the socket would not take: writing again is
    // for when a wait finds it writable.
    bool blocked() const { return mbBlocked; }
    // Bytes queued and not yet written.
    unsigned long long queuedBytes() const { return muiQueuedBytes; }
    // How long bytes have waited without the socket taking any; 0 with an
    // empty queue.
    unsigned long long stalledFor(unsigned long long now) const;

    // Before enable a link's packets may not exceed 65,536 bytes; afterwards
    // `maximum`.
    void enable(unsigned maximum);
    bool enabled() const { return mbEnabled; }

    // Packets from other processes for a link not yet enabled wait here, not
    // in the send queue: the process is still in its exchanges with the Hub
    // and takes nothing else. The owner queues them once the enable reply
    // has been queued.
    void hold(const boost::shared_ptr<IpcPacket>& packet);
    unsigned long long heldBytes() const { return muiHeldBytes; }
    std::deque<boost::shared_ptr<IpcPacket>> takeHeld();
    // The packets held and queued, for a link that is being dropped; the
    // link keeps none.
    std::deque<boost::shared_ptr<IpcPacket>> takeUnsent();

    // The link is leaving: nothing more is read or routed to it, and it is
    // closed once its queue has gone.
    void setClosing() { mbClosing = true; }
    bool closing() const { return mbClosing; }

    // Marks the link for removal; the owner sweeps it out and tells whoever
    // waits for its process.
    void fail(const char* reason);
    bool failed() const { return mpFailReason != nullptr; }
    const char* failReason() const { return mpFailReason; }

    // The process attached over this link, 0 before attach.
    unsigned processId() const { return muiProcessId; }
    void setProcessId(unsigned id) { muiProcessId = id; }
    unsigned long long createdAt() const { return muiCreatedAt; }

    // The link whose full queue holds this one back (0: none): the Hub reads
    // nothing from this link until that one has drained.
    unsigned pausedBy() const { return muiPausedBy; }
    void setPausedBy(unsigned serial) { muiPausedBy = serial; }

    // Closes the socket; the link is then useless.
    void close();

private:
    unsigned muiSerial;
    boost::shared_ptr<TCPSocketData> mptSocket;
    IpcPacketReceive moReceive;
    // A packet with its bytes as queued: a data packet forgets its size once
    // it has been sent, so neither the write nor the count of queued bytes
    // may ask it again.
    struct Queued {
        boost::shared_ptr<IpcPacket> packet;
        Extent bytes;
    };
    std::deque<Queued> moQueue;
    unsigned long long muiQueuedBytes = 0;
    std::deque<boost::shared_ptr<IpcPacket>> moHeld;
    unsigned long long muiHeldBytes = 0;
    // The bytes of the queue's first packet already written, and when the
    // socket last took some (or the queue last became busy).
    unsigned muiFrontWritten = 0;
    unsigned long long muiLastProgress = 0;
    // What the receiver still missed of a packet in progress when last
    // looked at, and when that last changed.
    unsigned muiMissing = 0;
    unsigned long long muiReceiveProgress = 0;
    unsigned long long muiCreatedAt = 0;
    unsigned muiProcessId = 0;
    unsigned muiPausedBy = 0;
    const char* mpFailReason = nullptr;
    bool mbEnabled = false;
    bool mbClosing = false;
    bool mbBlocked = false;
};

} // namespace Brevi

#endif
