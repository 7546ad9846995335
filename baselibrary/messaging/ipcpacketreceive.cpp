#include "messaging/ipcpacketreceive.h"

#include "core/byteorder.h"
#include "core/trace.h"
#include "messaging/datamsgpacket.h"
#include "messaging/datapacket.h"
#include "messaging/msgpacket.h"
#include "sockets/tcpsocketdata.h"

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cstring>
#include <new>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleMsgPacket;

bool isPassing(TCPError error)
{
    return error == eTCPErrorWouldBlock || error == eTCPErrorInterrupted || error == eTCPErrorResource ||
           error == eTCPErrorNoBuffers;
}

boost::shared_ptr<IpcPacket> packetFor(IpcTypeE type)
{
    switch (type) {
    case eIpcTypeMessage:
        return boost::make_shared<MsgPacket>();
    case eIpcTypeData:
        return boost::make_shared<DataPacket>();
    case eIpcTypeDataMessage:
        return boost::make_shared<DataMsgPacket>();
    default:
        return boost::shared_ptr<IpcPacket>();
    }
}
} // namespace

IpcPacketReceive::IpcPacketReceive() = default;

IpcPacketReceive::IpcPacketReceive(const boost::shared_ptr<TCPSocketData>& socket) { setSocket(socket); }

IpcPacketReceive::~IpcPacketReceive() = default;

void IpcPacketReceive::setSocket(const boost::shared_ptr<TCPSocketData>& socket)
{
    mptPacket.reset();
    moGathered.reset();
    moRemaining = Extent();
    muiHeaderFill = 0;
    muiAheadStart = muiAheadEnd = 0;
    muiMaximumSize = IpcPacketLayout::InitialMaximumSize;
    mptSocket = socket;
    mbValid = socket && socket->isValid();
}

bool IpcPacketReceive::available() const { return mptPacket && mptPacket->isReceived(); }

boost::shared_ptr<IpcPacket> IpcPacketReceive::get(unsigned id)
{
    boost::shared_ptr<IpcPacket> packet;
    if (!available())
        return packet;
    packet.swap(mptPacket);
    packet->setId(id);
    moRemaining = Extent();
    muiHeaderFill = 0;
    return packet;
}

IpcResult IpcPacketReceive::receive()
{
    if (!mbValid) {
        BTRACE(TraceNormal) << "Attempt to receive on a failed connection";
        return eIpcResultClosed;
    }
    if (available()) {
        BTRACE(TraceNormal) << "Attempt to receive a message when one is pending";
        return eIpcResultPending;
    }
    for (;;) {
        if (!mptPacket) {
            const unsigned got = read(mcHeader + muiHeaderFill, IpcPacketLayout::HeaderSize - muiHeaderFill);
            if (!got)
                return readFailed(false);
            muiHeaderFill += got;
            if (muiHeaderFill < IpcPacketLayout::HeaderSize)
                continue;
            const IpcResult result = startPacket();
            if (result != eIpcResultOk)
                return result;
        }
        // The minimum size leaves at least one byte behind the header, so a
        // packet is never complete before its body has been read.
        const unsigned got = read(moRemaining.at(), moRemaining.available());
        if (!got)
            return readFailed(true);
        if (moRemaining.used(got) != 0)
            continue;
        if (moGathered.size() != 0) {
            if (moGathered.size() < muiPacketSize) {
                if (!grow())
                    return eIpcResultTooBig;
                continue;
            }
            mptPacket->adopt(moGathered);
        }
        mptPacket->received();
        muiHeaderFill = 0;
        return eIpcResultOk;
    }
}

unsigned IpcPacketReceive::read(unsigned char* into, unsigned size)
{
    if (muiAheadStart == muiAheadEnd) {
        // Packets come through the read-ahead, so that one system call
        // brings many small ones; a body too large for it goes straight into
        // its packet.
        if (size >= ReadAheadSize)
            return mptSocket->recv(into, size);
        if (moAhead.size() == 0) {
            Buffer block(ReadAheadSize);
            moAhead.swap(block);
        }
        muiAheadStart = 0;
        muiAheadEnd = mptSocket->recv(moAhead.data(), ReadAheadSize);
        if (muiAheadEnd == 0)
            return 0;
    }
    const unsigned n = std::min(size, muiAheadEnd - muiAheadStart);
    std::memcpy(into, moAhead.data() + muiAheadStart, n);
    muiAheadStart += n;
    return n;
}

IpcResult IpcPacketReceive::startPacket()
{
    const unsigned magic = ByteOrder::load32(mcHeader + IpcPacketLayout::MagicOffset);
    const unsigned size = ByteOrder::load32(mcHeader + IpcPacketLayout::SizeOffset);
    const Extent header(mcHeader, IpcPacketLayout::HeaderSize);
    const IpcTypeE type = IpcPacketLayout::typeOf(magic);
    if (type == eIpcTypeNone) {
        BTRACE(TraceAlways) << "Bad magic" << hex << magic << header.hexDump();
        fail();
        return eIpcResultCorrupt;
    }
    if (size < IpcPacketLayout::MinimumSize) {
        BTRACE(TraceAlways) << "Size" << size << "to small, min" << IpcPacketLayout::MinimumSize;
        fail();
        return eIpcResultTooSmall;
    }
    if (size > muiMaximumSize) {
        BTRACE(TraceAlways) << "Size" << size << "to big, max" << muiMaximumSize;
        fail();
        return eIpcResultTooBig;
    }
    mptPacket = packetFor(type);
    muiPacketSize = size;
    try {
        if (size <= GrowthStep) {
            moRemaining = mptPacket->buffer(header, size);
        } else {
            // A size is only a claim: memory follows the bytes that come.
            Buffer first(GrowthStep);
            std::memcpy(first.data(), mcHeader, IpcPacketLayout::HeaderSize);
            moGathered.swap(first);
            moRemaining =
                Extent(moGathered.data() + IpcPacketLayout::HeaderSize, GrowthStep - IpcPacketLayout::HeaderSize);
        }
    } catch (const std::bad_alloc&) {
        BTRACE(TraceAlways) << "Size" << size << "to big, no memory for it";
        fail();
        return eIpcResultTooBig;
    }
    return eIpcResultOk;
}

bool IpcPacketReceive::grow()
{
    const unsigned filled = moGathered.size();
    // Doubling keeps the copying to about the packet's size in all, and what
    // is held to twice what has come; the last step ends at the exact size,
    // so that the packet has no slack.
    const unsigned long long wanted = std::max<unsigned long long>(2ull * filled, filled + GrowthStep);
    const unsigned room = unsigned(std::min<unsigned long long>(wanted, muiPacketSize));
    try {
        Buffer larger(room);
        std::memcpy(larger.data(), moGathered.data(), filled);
        moGathered.swap(larger);
    } catch (const std::bad_alloc&) {
        BTRACE(TraceAlways) << "Size" << muiPacketSize << "to big, no memory for it at" << filled;
        fail();
        return false;
    }
    moRemaining = Extent(moGathered.data() + filled, room - filled);
    return true;
}

IpcResult IpcPacketReceive::readFailed(bool inPacket)
{
    const TCPError error = mptSocket->lastError();
    // A socket disabled elsewhere answers 0 with its last error unchanged;
    // only a usable socket can be waited for.
    if (mptSocket->isValid() && isPassing(error))
        return eIpcResultAgain;
    if (error == eTCPErrorClosed)
        BREVI_TRACE(TraceModule, inPacket ? TraceAlways : TraceNormal) << "Socket has closed";
    else
        BTRACE(TraceAlways) << "Error reading socket" << error;
    fail();
    return eIpcResultClosed;
}

void IpcPacketReceive::fail()
{
    mbValid = false;
    mptPacket.reset();
    moGathered.reset();
    moRemaining = Extent();
    muiHeaderFill = 0;
    muiAheadStart = muiAheadEnd = 0;
}

} // namespace Brevi
