// Targets of messaging: the packet receiver and the flat address form.

#include "fuzztargets.h"

#include "core/xmllist.h"
#include "messaging/binaryaddress.h"
#include "messaging/datamsgpacket.h"
#include "messaging/datapacket.h"
#include "messaging/ipcpacketlayout.h"
#include "messaging/ipcpacketreceive.h"
#include "messaging/msgaddress.h"
#include "messaging/msgpacket.h"
#include "sockets/tcpsocketdata.h"

#include <boost/make_shared.hpp>

#include <cstring>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

using namespace Brevi;

namespace BreviFuzz {

namespace {

// Reads a packet as the layers above would, and checks it against the
// layout's own checker: the receiver framed and split it, so the checker
// must find no framing or field fault in it.
void readPacket(const boost::shared_ptr<IpcPacket>& packet, unsigned maximumSize)
{
    if (!packet || !*packet)
        return;
    const Extent bytes = packet->buffer();
    BREVI_FUZZ_EXPECT(bytes.size() == packet->size());
    BREVI_FUZZ_EXPECT(IpcPacketLayout::check(bytes, maximumSize, false) == IpcPacketLayout::eCheckOk);
    packet->destination().type();
    packet->source().hash();
    packet->hopMachine();
    switch (packet->type()) {
    case eIpcTypeMessage: {
        const MsgPacket& message = static_cast<const MsgPacket&>(*packet);
        message.name();
        message.cookie();
        message.xml().size();
        break;
    }
    case eIpcTypeDataMessage: {
        const DataMsgPacket& message = static_cast<const DataMsgPacket&>(*packet);
        message.name();
        message.rawData();
        message.xml().size();
        if (message.prepareReceive())
            BREVI_FUZZ_EXPECT(message.rawData().size() == message.dataSize());
        break;
    }
    case eIpcTypeData: {
        DataPacket& data = static_cast<DataPacket&>(*packet);
        if (data.prepareReceive()) {
            unsigned char piece[100];
            for (int i = 0; i < 1000 && data.available(); ++i) {
                Extent into(piece, sizeof piece);
                data.take(into);
            }
            data.crc();
        }
        break;
    }
    default:
        BREVI_FUZZ_EXPECT(!"a packet of no kind");
    }
}

} // namespace

int packets(const std::uint8_t* data, std::size_t size)
{
    if (size < 1)
        return 0;
    const unsigned control = data[0];
    ++data;
    --size;
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0)
        return 0;
    const boost::shared_ptr<TCPSocketData> socket = boost::make_shared<TCPSocketData>("fuzz", ends[0]);
    IpcPacketReceive receiver(socket);
    const unsigned maximumSize =
        (control & 1) ? IpcPacketLayout::EnabledMaximumSize : IpcPacketLayout::InitialMaximumSize;
    receiver.setMaximumSize(maximumSize);

    // Reads until the socket is dry: the receiver must then hold nothing it
    // read ahead, since a poll cannot see such bytes.
    unsigned nextId = 1;
    const auto drain = [&]() {
        IpcResult result;
        while ((result = receiver.receive()) == eIpcResultOk)
            readPacket(receiver.get(nextId++), maximumSize);
        BREVI_FUZZ_EXPECT(result != eIpcResultPending);
        if (result == eIpcResultAgain)
            BREVI_FUZZ_EXPECT(receiver.buffered() == 0);
        return result;
    };

    // Pieces from 1 byte up to 2^(control bits) bytes, in a sequence the
    // control byte seeds.
    unsigned random = control * 2654435761u + 1;
    const unsigned largest = 1u << ((control >> 1) % 17);
    std::size_t at = 0;
    IpcResult result = eIpcResultAgain;
    while (at < size && result == eIpcResultAgain) {
        random = random * 1103515245u + 12345u;
        const std::size_t piece = std::min<std::size_t>(size - at, 1 + (random >> 8) % largest);
        const ssize_t sent = ::send(ends[1], data + at, piece, MSG_NOSIGNAL);
        if (sent > 0)
            at += std::size_t(sent);
        result = drain();
    }
    if (result == eIpcResultAgain) {
        // The end of the stream is seen, whatever was in progress.
        ::shutdown(ends[1], SHUT_WR);
        BREVI_FUZZ_EXPECT(drain() != eIpcResultAgain);
    }
    ::close(ends[1]);
    return 0;
}

int binaryAddress(const std::uint8_t* data, std::size_t size)
{
    // A copy the hop steps may write to, as a received packet's are.
    std::vector<unsigned char> bytes(data, data + size);
    BinaryAddress received;
    received.fromRawData(bytes.data(), unsigned(bytes.size()));
    const MsgAddressType type = received.type();
    received.id();
    received.machine();
    received.hops();
    received.name();
    received.group();
    received.hopMachine();

    // A copy starts its journey again at hop "a", which may make a form
    // whose letter was out of range a good one; never the other way round.
    const BinaryAddress copied(Extent(data, unsigned(size)));
    if (type == eMsgAddressInvalid)
        return 0;
    BREVI_FUZZ_EXPECT(copied.type() == type);
    BREVI_FUZZ_EXPECT(copied == received);
    BREVI_FUZZ_EXPECT(copied.hash() == received.hash());

    // Steps there and back leave the bytes as they were.
    const unsigned start = received.currentHop();
    unsigned steps = 0;
    while (received.increaseHop())
        BREVI_FUZZ_EXPECT(++steps <= 26);
    BREVI_FUZZ_EXPECT(received.currentHop() == start + steps);
    while (received.decreaseHop())
        received.hopMachine();
    if (type == eMsgAddressRouted) {
        BREVI_FUZZ_EXPECT(received.currentHop() == 1);
        while (received.currentHop() < start && received.increaseHop()) {
        }
        BREVI_FUZZ_EXPECT(std::memcmp(bytes.data(), data, size) == 0);
    }

    // The address it makes flattens back to an equal form.
    const MsgAddress address(copied);
    if (address)
        BREVI_FUZZ_EXPECT(address.binary() == copied);
    return 0;
}

} // namespace BreviFuzz
