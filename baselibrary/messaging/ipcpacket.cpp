#include "messaging/ipcpacket.h"

#include "core/byteorder.h"

#include <algorithm>
#include <cstring>

namespace Brevi {

IpcPacket::~IpcPacket() = default;

unsigned IpcPacket::size() const { return moBytes.size(); }

bool IpcPacket::isValid() const { return moBytes.size() != 0; }

Extent IpcPacket::buffer(const Extent& header, unsigned size)
{
    empty();
    mbTransmitted = false;
    mbReceived = false;
    Buffer bytes(size);
    moBytes.swap(bytes);
    const unsigned head = std::min(header.size(), size);
    if (head)
        std::memcpy(moBytes.data(), header.data(), head);
    return Extent(moBytes.data() + head, size - head);
}

Extent IpcPacket::buffer() const { return Extent(moBytes.data(), size()); }

void IpcPacket::adopt(Buffer& bytes)
{
    empty();
    mbTransmitted = false;
    mbReceived = false;
    moBytes.swap(bytes);
    bytes.reset();
}

void IpcPacket::transmitted() { mbTransmitted = true; }

void IpcPacket::received()
{
    if (mbReceived)
        return;
    mbReceived = true;
    if (!parse())
        empty();
}

unsigned IpcPacket::magic() const
{
    return moBytes.size() >= IpcPacketLayout::HeaderSize ? ByteOrder::load32(moBytes.data()) : 0u;
}

bool IpcPacket::isCompressed() const { return IpcPacketLayout::isCompressed(magic()); }

void IpcPacket::empty()
{
    moBytes.reset();
    moDestination.fromRawData(nullptr, 0);
    moSource.fromRawData(nullptr, 0);
    moAuthorization.clear();
}

unsigned IpcPacket::allocate(unsigned magic, unsigned size)
{
    Buffer bytes(size);
    moBytes.swap(bytes);
    setMagic(magic);
    setSizeField(size);
    return IpcPacketLayout::HeaderSize;
}

void IpcPacket::viewAddresses(const Extent& destination, const Extent& source, const Extent& authorization)
{
    moDestination.fromRawData(destination);
    moSource.fromRawData(source);
    moAuthorization =
        QByteArray::fromRawData(reinterpret_cast<const char*>(authorization.data()), int(authorization.size()));
}

void IpcPacket::setMagic(unsigned magic) { ByteOrder::store32(moBytes.data() + IpcPacketLayout::MagicOffset, magic); }

void IpcPacket::setSizeField(unsigned size) { ByteOrder::store32(moBytes.data() + IpcPacketLayout::SizeOffset, size); }

} // namespace Brevi
