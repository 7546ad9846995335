#include "messaging/ipcpacketlayout.h"

#include "core/byteorder.h"
#include "core/extent.h"
#include "core/xmllist.h"
#include "messaging/binaryaddresslayout.h"

#include <cstring>

namespace Brevi {
namespace IpcPacketLayout {

namespace {

// Deflate cannot shrink data by more than about 1032 to 1; a block whose
// length word claims more than that of its stream is not a qCompress block.
// The slack covers the stream's own header and the smallest inputs.
const unsigned long long MaximumExpansion = 1032;
const unsigned long long ExpansionSlack = 1024;
const unsigned LengthWordSize = 4;

// What check() reports for a field that is missing, by its place.
const CheckE MissingField[MessageFieldCount] = {eCheckNoDestination, eCheckNoSource, eCheckNoAuthorization,
                                                eCheckNoName, eCheckNoCookie};

bool addressIsBad(const Extent& text) { return text.size() != 0 && !BinaryAddressLayout::check(text); }

bool bodyIsBad(const QByteArray& text)
{
    XmlList list;
    return !list.fromBinary(text);
}

} // namespace

const char* magicText(unsigned magic)
{
    switch (magic) {
    case MessageMagic:
        return "Message packet";
    case CompressedMessageMagic:
        return "Compressed Message packet";
    case DataMagic:
        return "Data packet";
    case CompressedDataMagic:
        return "Compressed Data packet";
    case DataMessageMagic:
        return "Message packet with raw data";
    case CompressedDataMessageMagic:
        return "Compressed Message packet with raw data";
    default:
        return nullptr;
    }
}

unsigned splitFields(const unsigned char* packet, unsigned size, unsigned offset, Extent* fields, unsigned count,
                     unsigned& end)
{
    end = offset;
    for (unsigned found = 0; found < count; ++found) {
        const void* nul = end < size ? std::memchr(packet + end, FieldEnd, size - end) : nullptr;
        if (!nul)
            return found;
        const unsigned stop = unsigned(static_cast<const unsigned char*>(nul) - packet);
        fields[found] = Extent(packet + end, stop - end);
        end = stop + 1;
    }
    return count;
}

bool expand(const unsigned char* block, unsigned size, QByteArray& out)
{
    out.clear();
    if (size < LengthWordSize)
        return false;
    // qCompress writes the expanded length big-endian, unlike the packet's own
    // integers.
    const unsigned expected =
        (unsigned(block[0]) << 24) | (unsigned(block[1]) << 16) | (unsigned(block[2]) << 8) | unsigned(block[3]);
    const unsigned long long stream = size - LengthWordSize;
    if (expected > stream * MaximumExpansion + ExpansionSlack || expected >= unsigned(EnabledMaximumSize))
        return false;
    if (expected == 0)
        return stream == 0;
    out = qUncompress(block, int(size));
    if (unsigned(out.size()) != expected) {
        out.clear();
        return false;
    }
    return true;
}

const char* checkText(CheckE result)
{
    switch (result) {
    case eCheckOk:
        return "ok";
    case eCheckTruncated:
        return "fewer bytes than the size field says";
    case eCheckTrailingBytes:
        return "more bytes than the size field says";
    case eCheckBadMagic:
        return "bad magic";
    case eCheckTooSmall:
        return "size below the minimum";
    case eCheckTooBig:
        return "size above the maximum";
    case eCheckNoDestination:
        return "no destination address";
    case eCheckNoSource:
        return "no source address";
    case eCheckNoAuthorization:
        return "no authorization";
    case eCheckNoName:
        return "no message name";
    case eCheckNoCookie:
        return "no cookie";
    case eCheckBadDataSize:
        return "raw data size beyond the packet";
    case eCheckBadDestination:
        return "destination is no flat address";
    case eCheckBadSource:
        return "source is no flat address";
    case eCheckBadCompression:
        return "compressed bytes do not expand";
    case eCheckBadBody:
        return "body is no XmlList text";
    }
    return "unknown result";
}

CheckE check(const Extent& packet, unsigned maximumSize, bool deep)
{
    const unsigned char* bytes = packet.data();
    const unsigned length = packet.size();
    if (length < HeaderSize)
        return eCheckTruncated;
    const unsigned magic = ByteOrder::load32(bytes + MagicOffset);
    const unsigned size = ByteOrder::load32(bytes + SizeOffset);
    const IpcTypeE type = typeOf(magic);
    if (type == eIpcTypeNone)
        return eCheckBadMagic;
    if (size < MinimumSize)
        return eCheckTooSmall;
    if (size > maximumSize)
        return eCheckTooBig;
    if (length < size)
        return eCheckTruncated;
    if (length > size)
        return eCheckTrailingBytes;

    const unsigned fieldsOffset = type == eIpcTypeMessage ? MessageFieldsOffset
                                  : type == eIpcTypeData  ? DataFieldsOffset
                                                          : DataMessageFieldsOffset;
    const unsigned count = type == eIpcTypeData ? DataFieldCount : MessageFieldCount;
    if (size < fieldsOffset)
        return eCheckNoDestination;
    Extent fields[MessageFieldCount];
    unsigned end = 0;
    const unsigned found = splitFields(bytes, size, fieldsOffset, fields, count, end);
    if (found < count)
        return MissingField[found];
    const Extent rest(bytes + end, size - end);
    const bool compressed = isCompressed(magic);
    const unsigned dataSize = type == eIpcTypeDataMessage ? ByteOrder::load32(bytes + DataSizeOffset) : 0;
    if (type == eIpcTypeDataMessage && !compressed && dataSize > rest.size())
        return eCheckBadDataSize;
    if (!deep)
        return eCheckOk;

    if (addressIsBad(fields[0]))
        return eCheckBadDestination;
    if (addressIsBad(fields[1]))
        return eCheckBadSource;
    QByteArray expanded;
    if (compressed && !expand(rest.data(), rest.size(), expanded))
        return eCheckBadCompression;
    if (type == eIpcTypeData)
        return eCheckOk;
    if (!compressed)
        expanded = QByteArray::fromRawData(reinterpret_cast<const char*>(rest.data()), int(rest.size()));
    if (type == eIpcTypeDataMessage) {
        if (unsigned(expanded.size()) < dataSize)
            return eCheckBadCompression;
        expanded = expanded.mid(int(dataSize));
    }
    return bodyIsBad(expanded) ? eCheckBadBody : eCheckOk;
}

} // namespace IpcPacketLayout
} // namespace Brevi
