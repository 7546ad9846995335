#ifndef BASELIBRARY_MESSAGING_DATAPACKET_H
#define BASELIBRARY_MESSAGING_DATAPACKET_H

#include "brevi_export.h"
#include "core/buffer.h"
#include "core/extent.h"
#include "messaging/ipcpacket.h"

#include <QByteArray>

namespace Brevi {

// One buffer of a data channel on the link: channel id, a second number of
// the channel layer, destination, source, authorization, then the payload,
// plain or through qCompress (ipcpacketlayout.h). No name, cookie or body.
//
// A sending channel keeps its packets for its whole life and refills them:
//
//     DataPacket packet(peer, self, authorization, 16384, channelId, 0);
//     packet.append(bytes);                 // or write into availableExtent()
//                                           // and call used(n)
//     packet.prepareSend(packet.filled(), compress);
//     ... IpcPacketSend sends it; transmitted() makes it empty and ready
//         to be filled again, in the same buffer.
//
// A received packet is filled by IpcPacketReceive; prepareReceive() expands a
// compressed payload, and take() or data() with used() read it.
//
// The cursor of the payload: while filling, available() is the room left;
// after prepareReceive() it is the bytes not yet taken. Nothing here checks a
// bound the caller has not been told about: append and take move only what
// both sides allow.
//
// Failure: prepareSend and prepareReceive return false (see each). A received
// packet whose fields do not parse is traced ("Data deserialize error: ...",
// TraceAlways) and emptied. A compressed payload that does not expand is
// traced ("Failed to uncompress data packet") and prepareReceive is false.
//
// Threads: one at a time, as for IpcPacket.
class BREVI_EXPORT DataPacket : public IpcPacket
{
public:
    // An empty packet, to be filled by IpcPacketReceive.
    DataPacket();
    // A packet for up to `maximumPayload` bytes, to `destination` on the
    // channel `channelId`; `dataId` is the channel layer's second number.
    // The buffer is allocated here once, for the largest packet.
    DataPacket(const BinaryAddress& destination, const BinaryAddress& source, const QByteArray& authorization,
               unsigned maximumPayload, unsigned channelId, unsigned dataId);
    ~DataPacket() override;

    IpcTypeE type() const override { return eIpcTypeData; }
    // The bytes that go: fixed header, addresses and authorization, and the
    // payload as prepared (before prepareSend, the whole room).
    unsigned size() const override { return muiSize; }
    Extent buffer(const Extent& header, unsigned size) override;
    Extent buffer() const override;
    // Makes the packet empty and ready to be filled again: not prepared, the
    // payload the whole room, cursor at the front.
    void transmitted() override;

    unsigned channelId() const { return muiChannelId; }
    // The second number of the header, the channel layer's own.
    unsigned dataId() const { return muiDataId; }
    // The payload's room: what the constructor was given; for a received
    // packet, its payload as it came.
    unsigned room() const { return muiRoom; }

    // Copies what fits from `source`'s cursor to the payload's, moving both.
    // Returns the room still left.
    unsigned append(const Extent& source);
    // Copies what fits from the payload's cursor to `destination`'s, moving
    // both. Returns the bytes still left in the packet.
    unsigned take(Extent& destination);
    // Room left while filling; bytes not yet taken after prepareReceive.
    unsigned available() const { return moPayload.available(); }
    // The bytes behind the cursor: where to write, or what is left to read.
    Extent availableExtent() const { return moPayload.availableExtent(); }
    // Moves the cursor by `n` (bytes written into, or read from,
    // availableExtent()); returns available(). `n` must not exceed it.
    unsigned used(unsigned n) { return moPayload.used(n); }
    // Bytes filled so far (the cursor's offset).
    unsigned filled() const { return moPayload.offset(); }
    // The payload, cursor at the front: the room while filling, the bytes as
    // prepared after prepareSend, the expanded bytes after prepareReceive.
    Extent data() const { return Extent(moPayload.data(), moPayload.size()); }

    // Fixes the payload at its first `size` bytes and makes the packet ready
    // to go: with `compress`, a qCompress block strictly smaller than `size`
    // replaces them in place and the compressed magic is written; size field
    // and magic are rewritten, transmitted() is cleared. False, nothing
    // changed, if the packet is prepared already, if `size` is 0 while the
    // second number is also 0 (a bare mark needs a number), if `size` exceeds
    // the room, or for an empty packet.
    bool prepareSend(unsigned size, bool compress);
    bool prepared() const { return mbPrepared; }
    // For a received packet: expands a compressed payload (once) and puts the
    // cursor at the front of the whole payload. False for an empty packet or
    // a payload that does not expand.
    bool prepareReceive();

    // A debugging aid, never sent: the XOR of the payload's 32-bit
    // little-endian words, a tail of fewer than four bytes left out; 0 for a
    // payload below four bytes.
    unsigned crc() const;
    // Traces the packet in one line at TraceAlways: magic text, channel id,
    // second number, size, payload length and crc.
    void display() const;

private:
    bool parse() override;
    void empty() override;

    // The payload: a view on moBytes, or on moExpanded after expansion.
    Extent moPayload;
    QByteArray moExpanded;
    unsigned muiSize = 0;
    unsigned muiRoom = 0;
    // Offset of the payload in moBytes.
    unsigned muiPayloadOffset = 0;
    unsigned muiChannelId = 0;
    unsigned muiDataId = 0;
    bool mbPrepared = false;
    bool mbExpanded = false;
};

} // namespace Brevi

#endif
