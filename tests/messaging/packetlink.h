#ifndef TESTS_MESSAGING_PACKETLINK_H
#define TESTS_MESSAGING_PACKETLINK_H

// Helpers of the packet tests: waits that always end, and packets received
// from exact-size copies of their bytes.

#include "messaging/binaryaddress.h"
#include "messaging/ipcpacket.h"
#include "messaging/ipcpacketreceive.h"
#include "messaging/ipcpacketsend.h"
#include "sockets/tcpsocketdata.h"

#include "loopback.h"
#include "tracelines.h"

#include <QByteArray>
#include <QString>

#include <boost/shared_ptr.hpp>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>

#include <poll.h>

namespace BreviTest {

// Every wait of these tests ends by this time, in milliseconds.
const int WaitLimit = 5000;

// True when the socket became ready for `events` within `ms`.
inline bool waitFor(const Brevi::TCPSocket& socket, short events, int ms = WaitLimit)
{
    pollfd entry = {socket.socket(), events, 0};
    return ::poll(&entry, 1, ms) > 0;
}

inline int remainingOf(std::chrono::steady_clock::time_point deadline)
{
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return left.count() > 0 ? int(left.count()) : 0;
}

// Calls `step` (a machine's receive or send) until it gives something other
// than eIpcResultAgain, waiting for the socket in between;
// eIpcResultTimeout when `ms` pass first.
template <typename Step>
Brevi::IpcResult untilDone(Step step, const Brevi::TCPSocket& socket, short events, int ms)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    Brevi::IpcResult result;
    while ((result = step()) == Brevi::eIpcResultAgain)
        if (!waitFor(socket, events, remainingOf(deadline)))
            return Brevi::eIpcResultTimeout;
    return result;
}
inline Brevi::IpcResult receiveWithin(Brevi::IpcPacketReceive& receiver, int ms = WaitLimit)
{
    return untilDone([&] { return receiver.receive(); }, *receiver.socket(), POLLIN, ms);
}
inline Brevi::IpcResult sendWithin(Brevi::IpcPacketSend& sender, int ms = WaitLimit)
{
    return untilDone([&] { return sender.send(); }, *sender.socket(), POLLOUT, ms);
}

// Writes all of `bytes` on a raw socket, waiting while it is full.
inline bool writeAll(Brevi::TCPSocketData& socket, const QByteArray& bytes)
{
    unsigned at = 0;
    while (at < unsigned(bytes.size())) {
        const unsigned sent = socket.send(bytes.constData() + at, unsigned(bytes.size()) - at);
        if (!sent && !waitFor(socket, POLLOUT))
            return false;
        at += sent;
    }
    return true;
}

// A packet's bytes as a QByteArray of their own.
inline QByteArray bytesOf(const Brevi::IpcPacket& packet)
{
    const Brevi::Extent bytes = packet.buffer();
    return QByteArray(reinterpret_cast<const char*>(bytes.data()), int(bytes.size()));
}

// Delivers `bytes` to a new packet of class P the way IpcPacketReceive does,
// from a block of exactly their size.
template <typename P>
boost::shared_ptr<P> receivedFrom(const QByteArray& bytes)
{
    std::unique_ptr<unsigned char[]> copy(new unsigned char[size_t(bytes.size())]);
    std::memcpy(copy.get(), bytes.constData(), size_t(bytes.size()));
    boost::shared_ptr<P> packet(new P);
    const unsigned head = std::min(unsigned(bytes.size()), 8u);
    Brevi::Extent rest = packet->buffer(Brevi::Extent(copy.get(), head), unsigned(bytes.size()));
    rest.put(copy.get() + head, unsigned(bytes.size()) - head);
    packet->received();
    return packet;
}

inline Brevi::BinaryAddress address(const char* text) { return Brevi::BinaryAddress(Brevi::Extent(QByteArray(text))); }

// The messaging and packet modules at full detail.
using PacketTest = TraceTest<Brevi::TraceModuleMsg, Brevi::TraceModuleMsgPacket, Brevi::TraceModuleDataPacket>;

} // namespace BreviTest

#endif
