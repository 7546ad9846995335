#ifndef BASELIBRARY_MESSAGING_IPCPACKETSEND_H
#define BASELIBRARY_MESSAGING_IPCPACKETSEND_H

#include "brevi_export.h"
#include "core/extent.h"
#include "core/operatorboolgenerator.h"
#include "messaging/ipcresult.h"

#include <boost/shared_ptr.hpp>

namespace Brevi {

class IpcPacket;
class TCPSocketData;

// Writes one packet at a time to a non-blocking socket, going on where the
// last call stopped.
//
//     IpcPacketSend sender(socket);
//     sender.set(packet);
//     IpcResult result = sender.send();
//     // eIpcResultOk: all of it has gone, packet->transmitted() was called.
//     // eIpcResultAgain: the socket is full; wait until it is writable and
//     //     call send() again: it goes on at the first unsent byte.
//     // eIpcResultClosed: the link is gone (the sender is failed).
//
// States: idle (no packet), sending (a packet held, bytes remain), failed.
// Only setSocket leads out of failed. A packet is never sent twice, and no
// byte of it is written twice.
//
// Failure: traced at TraceAlways unless said otherwise. "Socket has closed"
// (the peer reset the link) and "Error writing socket" with the error fail the
// sender: `send` gives eIpcResultClosed from then on ("Attempt to send on a
// failed connection").
//
// Threads: the thread that owns the link; nothing is locked.
class BREVI_EXPORT IpcPacketSend
{
public:
    // No socket: not valid.
    IpcPacketSend();
    explicit IpcPacketSend(const boost::shared_ptr<TCPSocketData>& socket);
    ~IpcPacketSend();
    IpcPacketSend(const IpcPacketSend&) = delete;
    IpcPacketSend& operator=(const IpcPacketSend&) = delete;

    // Drops any packet and takes `socket`; valid when the socket is.
    void setSocket(const boost::shared_ptr<TCPSocketData>& socket);
    const boost::shared_ptr<TCPSocketData>& socket() const { return mptSocket; }

    // Takes the next packet to send. False, with nothing changed, when one is
    // still being sent ("Already sending a packet") or when `packet` is null
    // or empty ("No packet provided").
    bool set(const boost::shared_ptr<IpcPacket>& packet);
    // Writes what the socket takes. eIpcResultOk when the packet has gone
    // whole (it is then dropped, after its transmitted()); eIpcResultAgain
    // when the socket would block, interrupted or short of buffers;
    // eIpcResultPending when no packet is held ("Attempt to send a message
    // when none is pending", TraceNormal); eIpcResultClosed on a failed
    // link.
    IpcResult send();
    // A packet is held: set() and not yet all sent.
    bool pending() const { return mptPacket.get() != nullptr; }
    // Bytes of the held packet still to go; 0 when idle.
    unsigned remaining() const { return moRemaining.available(); }
    // The result of the last send().
    IpcResult result() const { return meResult; }

    bool isValid() const { return mbValid; }
    operator OperatorBoolGenerator<IpcPacketSend>::Result() const
    {
        return OperatorBoolGenerator<IpcPacketSend>::make(mbValid);
    }

private:
    // One write of up to `size` bytes; the count taken, 0 with `meResult`
    // set when none was.
    unsigned sendData(const char* data, unsigned size);

    boost::shared_ptr<TCPSocketData> mptSocket;
    boost::shared_ptr<IpcPacket> mptPacket;
    // The held packet's bytes; the cursor stands at the first unsent one.
    Extent moRemaining;
    IpcResult meResult = eIpcResultOk;
    bool mbValid = false;
};

} // namespace Brevi

#endif
