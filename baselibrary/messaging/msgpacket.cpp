#include "messaging/msgpacket.h"

#include "core/byteorder.h"
#include "core/trace.h"
#include "messaging/ipcpacket_p.h"
#include "messaging/msgaddress.h"

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleMsgPacket;

// An XmlList that tells its reader the body could not be had.
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
} // namespace

MsgPacket::MsgPacket() = default;

MsgPacket::MsgPacket(const BinaryAddress& destination, const BinaryAddress& source, const QByteArray& authorization,
                     const QString& name, const QString& cookie, const XmlList& body, unsigned id, bool compress)
{
    muiId = id;
    build(destination, source, authorization, name, cookie, body.toBinary(), compress);
}

MsgPacket::MsgPacket(const BinaryAddress& destination, const BinaryAddress& source, const QByteArray& authorization,
                     const QString& name, const QString& cookie, const QByteArray& bodyText, unsigned id, bool compress)
{
    muiId = id;
    build(destination, source, authorization, name, cookie, bodyText, compress);
}

MsgPacket::MsgPacket(const MsgAddress& destination, const MsgAddress& source, const QByteArray& authorization,
                     const QString& name, const QString& cookie, const XmlList& body, unsigned id, bool compress)
{
    muiId = id;
    build(destination.binary(), source.binary(), authorization, name, cookie, body.toBinary(), compress);
}

MsgPacket::~MsgPacket() = default;

void MsgPacket::build(const BinaryAddress& destination, const BinaryAddress& source, const QByteArray& authorization,
                      const QString& name, const QString& cookie, const QByteArray& bodyText, bool compress)
{
    IpcPacketFields fields(destination, source, authorization);
    fields.add(name);
    fields.add(cookie);
    if (const char* field = fields.withNul()) {
        BTRACE(TraceAlways) << "Message not built: its" << field << "holds a NUL byte";
        return;
    }

    const QByteArray* body = &bodyText;
    QByteArray compressed;
    unsigned magic = IpcPacketLayout::MessageMagic;
    if (compress && !bodyText.isEmpty()) {
        compressed = qCompress(bodyText, -1);
        if (compressed.size() < bodyText.size()) {
            body = &compressed;
            magic = IpcPacketLayout::CompressedMessageMagic;
        } else {
            BTRACE(TraceNormal) << "Uncompressable data, send it uncompressed";
        }
    }

    const unsigned long long size = IpcPacketLayout::HeaderSize + fields.bytes() + unsigned(body->size());
    if (size > IpcPacketLayout::EnabledMaximumSize) {
        BTRACE(TraceAlways) << "Message not built: size" << size << "to big, max"
                            << IpcPacketLayout::EnabledMaximumSize;
        return;
    }
    unsigned at = allocate(magic, unsigned(size));
    Extent views[IpcPacketLayout::MessageFieldCount];
    at = fields.write(moBytes.data(), at, views);
    viewAddresses(views[0], views[1], views[2]);
    moName = views[3];
    moCookie = views[4];
    if (!body->isEmpty())
        std::memcpy(moBytes.data() + at, body->constData(), size_t(body->size()));
    moBody = Extent(moBytes.data() + at, unsigned(body->size()));
}

bool MsgPacket::parse()
{
    Extent fields[IpcPacketLayout::MessageFieldCount];
    unsigned end = 0;
    const unsigned found =
        IpcPacketLayout::splitFields(moBytes.data(), moBytes.size(), IpcPacketLayout::MessageFieldsOffset, fields,
                                     IpcPacketLayout::MessageFieldCount, end);
    if (found < IpcPacketLayout::MessageFieldCount) {
        BTRACE(TraceAlways) << MissingField[found];
        return false;
    }
    viewAddresses(fields[0], fields[1], fields[2]);
    moName = fields[3];
    moCookie = fields[4];
    moBody = Extent(moBytes.data() + end, moBytes.size() - end);
    return true;
}

void MsgPacket::empty()
{
    IpcPacket::empty();
    moName = Extent();
    moCookie = Extent();
    moBody = Extent();
    moText.clear();
    mpXml.reset();
    mbExpanded = false;
    mbUnreadable = false;
}

void MsgPacket::expandBody() const
{
    if (mbExpanded)
        return;
    mbExpanded = true;
    if (!isCompressed()) {
        moText = QByteArray::fromRawData(reinterpret_cast<const char*>(moBody.data()), int(moBody.size()));
        return;
    }
    if (!IpcPacketLayout::expand(moBody.data(), moBody.size(), moText)) {
        mbUnreadable = true;
        BTRACE(TraceAlways) << "Failed to uncompress message body" << name() << "of" << moBody.size() << "bytes";
        return;
    }
    BTRACE(TraceNormal) << "Compressed message," << unsigned(moText.size()) << "from" << moBody.size();
}

QByteArray MsgPacket::bodyText() const
{
    expandBody();
    return moText;
}

XmlList MsgPacket::xml() const
{
    if (!mpXml) {
        expandBody();
        if (!isValid() || mbUnreadable) {
            mpXml.reset(new UnreadableBody);
        } else {
            mpXml.reset(new XmlList);
            mpXml->fromBinary(moText);
        }
    }
    return *mpXml;
}

} // namespace Brevi
