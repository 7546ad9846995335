#include "messaging/datamsgpacket.h"

#include "core/byteorder.h"
#include "core/trace.h"
#include "messaging/ipcpacket_p.h"
#include "messaging/msgaddress.h"

#include <boost/make_shared.hpp>

#include <cstring>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleMsgPacket;

class UnreadableBody : public XmlList
{
public:
    UnreadableBody() { setValid(false); }
};

const char* const MissingField[IpcPacketLayout::MessageFieldCount] = {
    "Message deserialize error: failed to get destination address",
    "Message deserialize error: failed to get source address",
    "Message deserialize error: failed to get authorization data",
    "Message deserialize error: failed to get message name", "Message deserialize error: failed to get message cookie"};

Extent viewOf(const boost::shared_ptr<Buffer>& data) { return data ? Extent(data->data(), data->size()) : Extent(); }
} // namespace

DataMsgPacket::DataMsgPacket() = default;

DataMsgPacket::DataMsgPacket(const BinaryAddress& destination, const BinaryAddress& source,
                             const QByteArray& authorization, const QString& name, const QString& cookie,
                             const XmlList& body, const boost::shared_ptr<Buffer>& data, unsigned id, bool compress)
{
    muiId = id;
    build(destination, source, authorization, name, cookie, body.toBinary(), viewOf(data), compress);
}

DataMsgPacket::DataMsgPacket(const BinaryAddress& destination, const BinaryAddress& source,
                             const QByteArray& authorization, const QString& name, const QString& cookie,
                             const QByteArray& bodyText, const Extent& data, unsigned id, bool compress)
{
    muiId = id;
    build(destination, source, authorization, name, cookie, bodyText, data, compress);
}

DataMsgPacket::DataMsgPacket(const MsgAddress& destination, const MsgAddress& source, const QByteArray& authorization,
                             const QString& name, const QString& cookie, const XmlList& body,
                             const boost::shared_ptr<Buffer>& data, unsigned id, bool compress)
{
    muiId = id;
    build(destination.binary(), source.binary(), authorization, name, cookie, body.toBinary(), viewOf(data), compress);
}

DataMsgPacket::~DataMsgPacket() = default;

void DataMsgPacket::build(const BinaryAddress& destination, const BinaryAddress& source,
                          const QByteArray& authorization, const QString& name, const QString& cookie,
                          const QByteArray& bodyText, const Extent& data, bool compress)
{
    IpcPacketFields fields(destination, source, authorization);
    fields.add(name);
    fields.add(cookie);
    if (const char* field = fields.withNul()) {
        BTRACE(TraceAlways) << "Message with data not built: its" << field << "holds a NUL byte";
        return;
    }

    const unsigned long long plain = (unsigned long long)data.size() + unsigned(bodyText.size());
    QByteArray block;
    if (compress && plain && plain <= IpcPacketLayout::EnabledMaximumSize) {
        // One block of both, so that the data's redundancy and the text's
        // share a dictionary; the join is the price of compressing at all.
        QByteArray joined;
        joined.reserve(int(plain));
        joined.append(reinterpret_cast<const char*>(data.data()), int(data.size()));
        joined.append(bodyText);
        block = qCompress(joined, -1);
        if (unsigned(block.size()) < plain) {
            BTRACE(TraceNormal) << "Compressed message with data," << unsigned(block.size()) << "from" << plain;
        } else {
            BTRACE(TraceNormal) << "Uncompressable data, send it uncompressed";
            block.clear();
        }
    }
    const bool compressed = !block.isEmpty();

    const unsigned long long size =
        IpcPacketLayout::DataMessageFieldsOffset + fields.bytes() + (compressed ? unsigned(block.size()) : plain);
    if (size > IpcPacketLayout::EnabledMaximumSize) {
        BTRACE(TraceAlways) << "Message with data not built: size" << size << "to big, max"
                            << IpcPacketLayout::EnabledMaximumSize;
        return;
    }
    allocate(compressed ? IpcPacketLayout::CompressedDataMessageMagic : IpcPacketLayout::DataMessageMagic,
             unsigned(size));
    muiDataSize = data.size();
    ByteOrder::store32(moBytes.data() + IpcPacketLayout::DataSizeOffset, muiDataSize);
    Extent views[IpcPacketLayout::MessageFieldCount];
    unsigned at = fields.write(moBytes.data(), IpcPacketLayout::DataMessageFieldsOffset, views);
    viewAddresses(views[0], views[1], views[2]);
    moName = views[3];
    moCookie = views[4];
    moRest = Extent(moBytes.data() + at, unsigned(size) - at);
    if (compressed) {
        std::memcpy(moBytes.data() + at, block.constData(), size_t(block.size()));
        return;
    }
    if (data.size())
        std::memcpy(moBytes.data() + at, data.data(), data.size());
    if (!bodyText.isEmpty())
        std::memcpy(moBytes.data() + at + data.size(), bodyText.constData(), size_t(bodyText.size()));
    moRawData = Extent(moRest.data(), muiDataSize);
    moXmlText = Extent(moRest.data() + muiDataSize, moRest.size() - muiDataSize);
    mbPrepared = true;
}

bool DataMsgPacket::parse()
{
    const unsigned size = moBytes.size();
    if (size < IpcPacketLayout::DataMessageFieldsOffset) {
        BTRACE(TraceAlways) << MissingField[0];
        return false;
    }
    muiDataSize = ByteOrder::load32(moBytes.data() + IpcPacketLayout::DataSizeOffset);
    Extent fields[IpcPacketLayout::MessageFieldCount];
    unsigned end = 0;
    const unsigned found = IpcPacketLayout::splitFields(moBytes.data(), size, IpcPacketLayout::DataMessageFieldsOffset,
                                                        fields, IpcPacketLayout::MessageFieldCount, end);
    if (found < IpcPacketLayout::MessageFieldCount) {
        BTRACE(TraceAlways) << MissingField[found];
        return false;
    }
    moRest = Extent(moBytes.data() + end, size - end);
    if (!isCompressed()) {
        if (muiDataSize > moRest.size()) {
            BTRACE(TraceAlways) << "Message deserialize error: raw data size beyond the packet," << muiDataSize << "of"
                                << moRest.size();
            return false;
        }
        moRawData = Extent(moRest.data(), muiDataSize);
        moXmlText = Extent(moRest.data() + muiDataSize, moRest.size() - muiDataSize);
        mbPrepared = true;
    }
    viewAddresses(fields[0], fields[1], fields[2]);
    moName = fields[3];
    moCookie = fields[4];
    return true;
}

void DataMsgPacket::empty()
{
    IpcPacket::empty();
    moName = Extent();
    moCookie = Extent();
    moRest = Extent();
    moRawData = Extent();
    moXmlText = Extent();
    moExpanded.clear();
    mptData.reset();
    mpXml.reset();
    muiDataSize = 0;
    mbPrepared = false;
    mbExpandFailed = false;
}

bool DataMsgPacket::prepareReceive() const
{
    if (!isValid())
        return false;
    if (mbPrepared)
        return !mbExpandFailed;
    mbPrepared = true;
    if (!IpcPacketLayout::expand(moRest.data(), moRest.size(), moExpanded) ||
        unsigned(moExpanded.size()) < muiDataSize) {
        BTRACE(TraceAlways) << "Failed to uncompress message data" << name() << "of" << moRest.size()
                            << "bytes, raw data" << muiDataSize;
        moExpanded.clear();
        mbExpandFailed = true;
        return false;
    }
    const unsigned char* expanded = reinterpret_cast<const unsigned char*>(moExpanded.constData());
    moRawData = Extent(expanded, muiDataSize);
    moXmlText = Extent(expanded + muiDataSize, unsigned(moExpanded.size()) - muiDataSize);
    return true;
}

Extent DataMsgPacket::rawData() const
{
    prepareReceive();
    return moRawData;
}

Extent DataMsgPacket::xmlText() const
{
    prepareReceive();
    return moXmlText;
}

boost::shared_ptr<Buffer> DataMsgPacket::data() const
{
    if (!mptData)
        mptData = boost::make_shared<Buffer>(rawData());
    return mptData;
}

XmlList DataMsgPacket::xml() const
{
    if (!mpXml) {
        if (!prepareReceive()) {
            mpXml.reset(new UnreadableBody);
        } else {
            mpXml.reset(new XmlList);
            mpXml->fromBinary(moXmlText.toQByteArray());
        }
    }
    return *mpXml;
}

} // namespace Brevi
