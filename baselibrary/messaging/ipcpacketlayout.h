#ifndef BASELIBRARY_MESSAGING_IPCPACKETLAYOUT_H
#define BASELIBRARY_MESSAGING_IPCPACKETLAYOUT_H

#include "brevi_export.h"

#include <QByteArray>

namespace Brevi {

class Extent;

// The bytes a process and its Hub write to each other on the TCP link. Every
// packet begins with a magic and its total size, so that a receiver frames the
// stream without knowing the packet kinds. All integers are unsigned 32-bit
// little-endian; text is UTF-8; addresses are the flat BinaryAddress text
// (binaryaddresslayout.h); "NUL" is one zero byte, the only terminator used.
//
// Magics (the integer, and its bytes on the wire):
//   0xDEC4EC8D  8D EC C4 DE  "Message packet"
//   0xDEECC48D  8D C4 EC DE  "Compressed Message packet"
//   0x8DECC4DE  DE C4 EC 8D  "Data packet"
//   0x8DC4ECDE  DE EC C4 8D  "Compressed Data packet"
//   0xEFD5FD9E  9E FD D5 EF  "Message packet with raw data"
//   0xEFFDD59E  9E D5 FD EF  "Compressed Message packet with raw data"
// The compressed magic of a pair is the plain one with its middle two bytes
// exchanged; first and last byte tell the kind.
//
// Message packet                       size = 13 + d + s + a + n + c + b
//   0   4    magic
//   4   4    size of the whole packet, these 8 bytes included
//   8   d+1  destination address, NUL
//       s+1  source address, NUL
//       a+1  authorization bytes, NUL (so they never hold a NUL themselves)
//       n+1  message name, NUL
//       c+1  cookie, NUL
//       b    body: the XmlList text, or that text through qCompress
//
// Message packet with raw data         size = 17 + d + s + a + n + c + r + b
//   0   4    magic
//   4   4    size
//   8   4    dataSize: the length of the raw data before any compression
//   12  ...  destination, source, authorization, name, cookie as above, then
//            plain:      dataSize bytes of raw data, then the XmlList text to
//                        the end (r = dataSize, b its length)
//            compressed: one qCompress block of raw data and XmlList text
//                        joined in that order (r + b is the block's length)
//
// Data packet                          size = 19 + d + s + a + p
//   0   4    magic
//   4   4    size
//   8   4    channelId
//   12  4    a second number of the channel layer, carried as it is
//   16  ...  destination, source, authorization as above, then the payload
//            (p bytes, or their qCompress block) to the end
//
// An empty field is its NUL alone. A qCompress block is a 4-byte big-endian
// length of the expanded bytes followed by a zlib stream. A sender compresses
// only when the block is strictly smaller than the plain bytes.
//
// Framing: a receiver accepts sizes from 9 up to its maximum, at first 65,536
// and raised to 0x7FFFFFFF once the Hub has enabled the connection. A magic it
// does not know, or a size outside those bounds, is fatal for the stream: no
// resynchronisation is tried. A well-framed packet whose fields do not parse
// (a missing NUL) is not: it becomes an empty packet that the layers above
// drop, and the link goes on.

// What a packet carries, from its magic.
enum IpcTypeE : unsigned { eIpcTypeNone = 0, eIpcTypeMessage = 1, eIpcTypeData = 2, eIpcTypeDataMessage = 3 };

namespace IpcPacketLayout {

const unsigned MessageMagic = 0xDEC4EC8D;
const unsigned CompressedMessageMagic = 0xDEECC48D;
const unsigned DataMagic = 0x8DECC4DE;
const unsigned CompressedDataMagic = 0x8DC4ECDE;
const unsigned DataMessageMagic = 0xEFD5FD9E;
const unsigned CompressedDataMessageMagic = 0xEFFDD59E;

const unsigned MagicOffset = 0;
const unsigned SizeOffset = 4;
const unsigned HeaderSize = 8;

const unsigned MessageFieldsOffset = 8;
const unsigned DataSizeOffset = 8;
const unsigned DataMessageFieldsOffset = 12;
const unsigned ChannelIdOffset = 8;
const unsigned DataIdOffset = 12;
const unsigned DataFieldsOffset = 16;
// The fixed part of a data packet, before its addresses.
const unsigned DataHeaderSize = DataFieldsOffset;

const char FieldEnd = '\0';
// Destination, source, authorization, name, cookie.
const unsigned MessageFieldCount = 5;
// Destination, source, authorization.
const unsigned DataFieldCount = 3;

const unsigned MinimumSize = 9;
const unsigned InitialMaximumSize = 65536;
const unsigned EnabledMaximumSize = 0x7FFFFFFF;

// Bytes besides the fields' own: header, fixed numbers, one NUL per field.
const unsigned MessageOverhead = HeaderSize + MessageFieldCount;
const unsigned DataMessageOverhead = DataMessageFieldsOffset + MessageFieldCount;
const unsigned DataOverhead = DataFieldsOffset + DataFieldCount;

// Exchanges the middle two bytes: plain to compressed and back.
inline unsigned flipCompression(unsigned magic)
{
    return (magic & 0xFF0000FFu) | ((magic & 0x00FF0000u) >> 8) | ((magic & 0x0000FF00u) << 8);
}
inline IpcTypeE typeOf(unsigned magic)
{
    switch (magic) {
    case MessageMagic:
    case CompressedMessageMagic:
        return eIpcTypeMessage;
    case DataMagic:
    case CompressedDataMagic:
        return eIpcTypeData;
    case DataMessageMagic:
    case CompressedDataMessageMagic:
        return eIpcTypeDataMessage;
    default:
        return eIpcTypeNone;
    }
}
inline bool isCompressed(unsigned magic)
{
    return magic == CompressedMessageMagic || magic == CompressedDataMagic || magic == CompressedDataMessageMagic;
}
// The plain magic of a kind; 0 for eIpcTypeNone.
inline unsigned plainMagic(IpcTypeE type)
{
    return type == eIpcTypeMessage       ? MessageMagic
           : type == eIpcTypeData        ? DataMagic
           : type == eIpcTypeDataMessage ? DataMessageMagic
                                         : 0u;
}
// "Message packet", "Compressed Data packet"...; null for an unknown magic.
BREVI_EXPORT const char* magicText(unsigned magic);

// Finds `count` NUL-ended fields from `offset` on, never looking at or past
// `size`. Each found field (its NUL left out) goes to `fields`; `end` is the
// offset behind the last NUL found. Returns how many were found: fewer than
// `count` when a NUL is missing.
BREVI_EXPORT unsigned splitFields(const unsigned char* packet, unsigned size, unsigned offset, Extent* fields,
                                  unsigned count, unsigned& end);

// Expands a qCompress block into `out`. False, with `out` empty, for a block
// that is not one: shorter than its length word, a length no zlib stream of
// that size can give, or a stream that does not expand to exactly that
// length. Nothing is allocated for a length that cannot be true, so a small
// packet cannot make the receiver reserve gigabytes.
BREVI_EXPORT bool expand(const unsigned char* block, unsigned size, QByteArray& out);

// What check() finds, in the order it looks.
enum CheckE {
    eCheckOk = 0,
    // Fewer bytes than the header, or than the size field says.
    eCheckTruncated,
    // More bytes than the size field says: a stream would read them as the
    // next packet's header.
    eCheckTrailingBytes,
    // Framing errors, fatal for a stream.
    eCheckBadMagic,
    eCheckTooSmall,
    eCheckTooBig,
    // Deserialisation errors: the receiver empties the packet. A packet too
    // short for its fixed numbers has no destination either.
    eCheckNoDestination,
    eCheckNoSource,
    eCheckNoAuthorization,
    eCheckNoName,
    eCheckNoCookie,
    eCheckBadDataSize,
    // Content errors, found only by a deep check: the packet is delivered
    // and its reader finds the fault.
    eCheckBadDestination,
    eCheckBadSource,
    eCheckBadCompression,
    eCheckBadBody
};

// A short English text for a result ("bad magic", "no source address"...).
BREVI_EXPORT const char* checkText(CheckE result);
// True for the results after which a receiver gives up the whole link.
inline bool isFramingError(CheckE result)
{
    return result == eCheckBadMagic || result == eCheckTooSmall || result == eCheckTooBig;
}
// True for the results after which a receiver hands on an empty packet.
inline bool isDeserializeError(CheckE result) { return result >= eCheckNoDestination && result <= eCheckBadDataSize; }

// Checks one whole packet in `packet`, exactly its bytes: framing as a
// receiver with `maximumSize` sees it, then the fields as a packet's reader
// parses them. With `deep` it also checks that non-empty addresses are
// complete flat forms (an empty one is normal: a message to the Hub has no
// source), that a compressed body expands, that a data message's raw data
// fits, and that a message body is XmlList text. It reads nothing outside
// `packet`, allocates at most what the packet's own bytes justify, and does
// not trace, except that a body that fails to parse as XML is traced by the
// XmlList reader.
//
// The Hub, the tests and a fuzz target call it; a receiver itself only frames
// and splits, and leaves the content to whoever reads it.
BREVI_EXPORT CheckE check(const Extent& packet, unsigned maximumSize = InitialMaximumSize, bool deep = true);

} // namespace IpcPacketLayout
} // namespace Brevi

#endif
