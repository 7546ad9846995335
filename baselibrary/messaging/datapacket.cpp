#include "messaging/datapacket.h"

#include "core/byteorder.h"
#include "core/trace.h"
#include "messaging/ipcpacket_p.h"

#include <cstring>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleDataPacket;

const char* const MissingField[IpcPacketLayout::DataFieldCount] = {
    "Data deserialize error: failed to get destination address", "Data deserialize error: failed to get source address",
    "Data deserialize error: failed to get authorization data"};
} // namespace

DataPacket::DataPacket() = default;

DataPacket::DataPacket(const BinaryAddress& destination, const BinaryAddress& source, const QByteArray& authorization,
                       unsigned maximumPayload, unsigned channelId, unsigned dataId)
    : muiChannelId(channelId)
    , muiDataId(dataId)
{
    IpcPacketFields fields(destination, source, authorization);
    if (const char* field = fields.withNul()) {
        BTRACE(TraceAlways) << "Data packet not built: its" << field << "holds a NUL byte";
        return;
    }
    const unsigned long long size = IpcPacketLayout::DataHeaderSize + fields.bytes() + maximumPayload;
    if (size > IpcPacketLayout::EnabledMaximumSize) {
        BTRACE(TraceAlways) << "Data packet not built: size" << size << "to big, max"
                            << IpcPacketLayout::EnabledMaximumSize;
        return;
    }
    allocate(IpcPacketLayout::DataMagic, unsigned(size));
    ByteOrder::store32(moBytes.data() + IpcPacketLayout::ChannelIdOffset, channelId);
    ByteOrder::store32(moBytes.data() + IpcPacketLayout::DataIdOffset, dataId);
    Extent views[IpcPacketLayout::DataFieldCount];
    muiPayloadOffset = fields.write(moBytes.data(), IpcPacketLayout::DataFieldsOffset, views);
    viewAddresses(views[0], views[1], views[2]);
    muiRoom = maximumPayload;
    muiSize = unsigned(size);
    moPayload = Extent(moBytes.data() + muiPayloadOffset, muiRoom);
}

DataPacket::~DataPacket() = default;

Extent DataPacket::buffer(const Extent& header, unsigned size)
{
    const Extent rest = IpcPacket::buffer(header, size);
    muiSize = size;
    return rest;
}

Extent DataPacket::buffer() const { return Extent(moBytes.data(), muiSize); }

void DataPacket::transmitted()
{
    IpcPacket::transmitted();
    if (!isValid())
        return;
    mbPrepared = false;
    muiSize = muiPayloadOffset + muiRoom;
    moPayload = Extent(moBytes.data() + muiPayloadOffset, muiRoom);
    // The bytes stay a whole packet of the whole room, as after construction,
    // so that what buffer() shows always frames.
    setMagic(IpcPacketLayout::DataMagic);
    setSizeField(muiSize);
}

unsigned DataPacket::append(const Extent& source) { return moPayload.putAvailable(source); }

unsigned DataPacket::take(Extent& destination) { return moPayload.getAvailable(destination); }

bool DataPacket::prepareSend(unsigned size, bool compress)
{
    if (!isValid() || mbPrepared || (size == 0 && muiDataId == 0) || size > muiRoom)
        return false;
    unsigned char* payload = moBytes.data() + muiPayloadOffset;
    unsigned length = size;
    unsigned magic = IpcPacketLayout::DataMagic;
    if (compress && size) {
        const QByteArray block = qCompress(payload, int(size), -1);
        if (unsigned(block.size()) < size) {
            std::memcpy(payload, block.constData(), size_t(block.size()));
            length = unsigned(block.size());
            magic = IpcPacketLayout::CompressedDataMagic;
        }
    }
    muiSize = muiPayloadOffset + length;
    setMagic(magic);
    setSizeField(muiSize);
    mbTransmitted = false;
    mbPrepared = true;
    moPayload = Extent(payload, length);
    moPayload.available(0);
    return true;
}

bool DataPacket::prepareReceive()
{
    if (!isValid())
        return false;
    if (isCompressed() && !mbExpanded) {
        const Extent block(moBytes.data() + muiPayloadOffset, muiSize - muiPayloadOffset);
        if (!IpcPacketLayout::expand(block.data(), block.size(), moExpanded)) {
            BTRACE(TraceAlways) << "Failed to uncompress data packet, channel" << muiChannelId << "size" << muiSize;
            return false;
        }
        mbExpanded = true;
        moPayload = Extent(moExpanded.constData(), unsigned(moExpanded.size()));
    }
    moPayload.available(moPayload.size());
    return true;
}

unsigned DataPacket::crc() const
{
    const unsigned words = moPayload.size() / 4;
    unsigned value = 0;
    for (unsigned i = 0; i < words; ++i)
        value ^= ByteOrder::load32(moPayload.data() + 4 * i);
    return value;
}

void DataPacket::display() const
{
    if (!isValid()) {
        BTRACE(TraceAlways) << "Empty data packet";
        return;
    }
    BTRACE(TraceAlways) << IpcPacketLayout::magicText(magic()) << "channel" << muiChannelId << "id" << muiDataId
                        << "size" << muiSize << "payload" << moPayload.size() << "crc" << hex << crc();
}

bool DataPacket::parse()
{
    const unsigned size = moBytes.size();
    if (size < IpcPacketLayout::DataHeaderSize) {
        BTRACE(TraceAlways) << MissingField[0];
        return false;
    }
    muiChannelId = ByteOrder::load32(moBytes.data() + IpcPacketLayout::ChannelIdOffset);
    muiDataId = ByteOrder::load32(moBytes.data() + IpcPacketLayout::DataIdOffset);
    Extent fields[IpcPacketLayout::DataFieldCount];
    unsigned end = 0;
    const unsigned found = IpcPacketLayout::splitFields(moBytes.data(), size, IpcPacketLayout::DataFieldsOffset, fields,
                                                        IpcPacketLayout::DataFieldCount, end);
    if (found < IpcPacketLayout::DataFieldCount) {
        BTRACE(TraceAlways) << MissingField[found];
        return false;
    }
    viewAddresses(fields[0], fields[1], fields[2]);
    muiPayloadOffset = end;
    muiRoom = size - end;
    muiSize = size;
    moPayload = Extent(moBytes.data() + end, muiRoom);
    return true;
}

void DataPacket::empty()
{
    IpcPacket::empty();
    moPayload = Extent();
    moExpanded.clear();
    muiSize = 0;
    muiRoom = 0;
    muiPayloadOffset = 0;
    muiChannelId = 0;
    muiDataId = 0;
    mbPrepared = false;
    mbExpanded = false;
}

} // namespace Brevi
