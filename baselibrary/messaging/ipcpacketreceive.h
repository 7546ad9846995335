#ifndef BASELIBRARY_MESSAGING_IPCPACKETRECEIVE_H
#define BASELIBRARY_MESSAGING_IPCPACKETRECEIVE_H

#include "brevi_export.h"
#include "core/buffer.h"
#include "core/extent.h"
#include "core/operatorboolgenerator.h"
#include "messaging/ipcpacketlayout.h"
#include "messaging/ipcresult.h"

#include <boost/shared_ptr.hpp>

namespace Brevi {

class IpcPacket;
class TCPSocketData;

// Reads packets from a non-blocking socket, one at a time, going on where the
// last call stopped: header (magic and size), then body, then complete.
//
//     IpcPacketReceive receiver(socket);
//     for (;;) {
//         IpcResult result = receiver.receive();
//         if (result == eIpcResultOk)
//             queue(receiver.get(nextId++));      // then read on
//         else if (result == eIpcResultAgain)
//             break;                              // wait until readable
//         else
//             ... the link is gone: eIpcResultClosed, eIpcResultCorrupt,
//                 eIpcResultTooSmall, eIpcResultTooBig
//     }
//
// Reading: the stream is read ahead, up to ReadAheadSize bytes a system call,
// and packets are cut out of that; only a body of that size or more is read
// straight into its packet. What has been read ahead is invisible to a poll on the
// socket, so call receive() until it gives eIpcResultAgain (or a failure)
// before waiting for the socket again, as above.
//
// Memory: a packet's size is a claim of the peer, and memory follows the bytes
// that arrive, not the claim. A packet of up to GrowthStep bytes gets its
// buffer at once; a larger one is gathered in a buffer that starts at
// GrowthStep and doubles as it fills, its last step ending at the exact size.
// A header that claims 2 GiB and sends nothing more costs 64 KiB.
//
// Framing: the magic chooses the class (MsgPacket, DataPacket, DataMsgPacket);
// the size must be from 9 to maximumSize(), which starts at 65,536 and which
// the owner raises once the Hub has enabled the connection. A framing error
// is fatal: no resynchronisation is tried, the receiver is failed, and only
// setSocket leads out of that. A packet whose fields do not parse is not: it
// comes out empty (tests false) and the layers above drop it.
//
// Failure: traced at TraceAlways unless said otherwise: "Bad magic" with the
// value and a hex dump, "Size" n "to small, min 9", "Size" n "to big, max" m,
// "Socket has closed" (TraceNormal between packets, TraceAlways in mid-packet,
// when the packet is lost), "Error reading socket" with the error.
//
// Threads: the thread that owns the link; nothing is locked.
class BREVI_EXPORT IpcPacketReceive
{
public:
    // No socket: not valid.
    IpcPacketReceive();
    explicit IpcPacketReceive(const boost::shared_ptr<TCPSocketData>& socket);
    ~IpcPacketReceive();
    IpcPacketReceive(const IpcPacketReceive&) = delete;
    IpcPacketReceive& operator=(const IpcPacketReceive&) = delete;

    // Drops any packet, takes `socket`, goes back to the header state and
    // sets the maximum back to 65,536; valid when the socket is.
    void setSocket(const boost::shared_ptr<TCPSocketData>& socket);
    const boost::shared_ptr<TCPSocketData>& socket() const { return mptSocket; }

    // Reads until a packet is complete or the socket has nothing more.
    // eIpcResultOk: a packet is complete (take it with get). eIpcResultAgain:
    // nothing more to read now. eIpcResultPending: a complete packet has not
    // been taken; nothing was read ("Attempt to receive a message when one
    // is pending", TraceNormal). eIpcResultClosed: the peer ended the stream
    // or it failed (a packet in progress is lost). eIpcResultCorrupt,
    // eIpcResultTooSmall, eIpcResultTooBig: framing errors. After any of the
    // last four the receiver is failed.
    IpcResult receive();
    // A complete packet is held.
    bool available() const;
    // Hands over the complete packet with `id` stored in it, and goes back to
    // the header state; null when none is available.
    boost::shared_ptr<IpcPacket> get(unsigned id);

    // The largest packet accepted, its header included.
    void setMaximumSize(unsigned size) { muiMaximumSize = size; }
    unsigned maximumSize() const { return muiMaximumSize; }

    // Bytes still to come of the packet in progress (of its header while that
    // is incomplete); 0 between packets and once a packet is complete. A
    // value that stays put while the peer sends nothing is a peer stopped
    // in mid-packet.
    unsigned missing() const
    {
        if (!mptPacket)
            return muiHeaderFill ? IpcPacketLayout::HeaderSize - muiHeaderFill : 0;
        if (moGathered.size() != 0)
            return muiPacketSize - (moGathered.size() - moRemaining.available());
        return moRemaining.available();
    }

    // Bytes read from the socket ahead of the packet in hand. A poll on the
    // socket cannot see them, which is why receive() is to be called until
    // it gives something other than eIpcResultOk.
    unsigned buffered() const { return muiAheadEnd - muiAheadStart; }

    bool isValid() const { return mbValid; }
    operator OperatorBoolGenerator<IpcPacketReceive>::Result() const
    {
        return OperatorBoolGenerator<IpcPacketReceive>::make(mbValid);
    }

    // The read-ahead of one link, allocated on the first receive: a system
    // call brings this much at most, so that small packets do not cost a call
    // each and a channel's 16 KiB buffers come several to a call.
    static const unsigned ReadAheadSize = 65536;
    // The most a packet is given before its bytes have come, and the least a
    // gathering buffer grows by.
    static const unsigned GrowthStep = 65536;

private:
    // Up to `size` bytes into `into`, from the read-ahead or the socket; 0
    // when none came, with the reason in the socket's lastError.
    unsigned read(unsigned char* into, unsigned size);
    // After a recv of nothing: the result, and whether the link failed.
    IpcResult readFailed(bool inPacket);
    // A full header: checks magic and size and makes the packet; a framing
    // error fails the receiver.
    IpcResult startPacket();
    // More room in the gathering buffer, up to the packet's size; false, with
    // the receiver failed, when the memory is not there.
    bool grow();
    void fail();

    boost::shared_ptr<TCPSocketData> mptSocket;
    boost::shared_ptr<IpcPacket> mptPacket;
    // What is still to come of the packet's body, or of the room gathered so
    // far; its cursor is the fill.
    Extent moRemaining;
    // A large packet's bytes as they come, header included; empty otherwise.
    Buffer moGathered;
    unsigned muiPacketSize = 0;
    unsigned char mcHeader[IpcPacketLayout::HeaderSize] = {};
    unsigned muiHeaderFill = 0;
    // Bytes read past the current packet: moAhead from start to end.
    Buffer moAhead;
    unsigned muiAheadStart = 0;
    unsigned muiAheadEnd = 0;
    unsigned muiMaximumSize = IpcPacketLayout::InitialMaximumSize;
    bool mbValid = false;
};

} // namespace Brevi

#endif
