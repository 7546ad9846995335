#ifndef BASELIBRARY_MESSAGING_IPCPACKET_H
#define BASELIBRARY_MESSAGING_IPCPACKET_H

#include "brevi_export.h"
#include "core/buffer.h"
#include "core/operatorboolgenerator.h"
#include "messaging/binaryaddress.h"
#include "messaging/ipcpacketlayout.h"

#include <QByteArray>

namespace Brevi {

// One unit on the link between a process and its Hub: the base of MsgPacket,
// DataMsgPacket and DataPacket. The bytes are in ipcpacketlayout.h.
//
// A packet holds its bytes in one buffer, allocated once, and every field is
// a view on that buffer: destination and source are BinaryAddress views (so a
// router steps the hop letter in the very bytes it forwards), the
// authorization a QByteArray without a copy of its own. A packet to send is
// built whole by its class's constructor. A packet to receive is
// default-constructed; IpcPacketReceive then calls buffer(header, size), fills
// the view it returns, and calls received(), which finds the fields.
//
// Failure: a received packet whose fields do not parse is traced at
// TraceAlways ("Message deserialize error: ..." or "Data deserialize error:
// ...") and emptied: it tests false, size() is 0 and every field is empty.
// The layers above drop such a packet; the link stays up.
//
// Threads: a packet belongs to one thread at a time. It is handed between the
// owners of one link through boost::shared_ptr; nothing is locked.
class BREVI_EXPORT IpcPacket
{
public:
    typedef Brevi::IpcTypeE IpcTypeE;

    virtual ~IpcPacket();
    IpcPacket(const IpcPacket&) = delete;
    IpcPacket& operator=(const IpcPacket&) = delete;

    // What the packet carries: eIpcTypeMessage, eIpcTypeData or
    // eIpcTypeDataMessage, by class (a received packet's class is chosen by
    // its magic).
    virtual IpcTypeE type() const = 0;
    // The bytes of the whole packet as they go on the wire, header included;
    // 0 for an empty packet.
    virtual unsigned size() const;
    // True for a packet with content: built, or received and parsed.
    virtual bool isValid() const;
    // Allocates the buffer for a packet of `size` bytes, copies `header` (the
    // magic and size as they came) to its front, and returns a view of the
    // rest, for the receiver to fill. `size` must not be below the header's
    // size. Throws std::bad_alloc when the memory is not there.
    virtual Extent buffer(const Extent& header, unsigned size);
    // A view of the whole packet, size() bytes.
    virtual Extent buffer() const;
    // For a receiver that gathered the packet itself: takes `bytes`, the
    // whole packet from its magic on, as its buffer, leaving `bytes` empty;
    // as buffer(header, size) and a fill would have left it.
    void adopt(Buffer& bytes);
    // Called by the sender when the last byte has gone.
    virtual void transmitted();
    // Called by the receiver when the last byte has arrived: finds the fields.
    // Once only; a second call changes nothing.
    virtual void received();

    operator OperatorBoolGenerator<IpcPacket>::Result() const
    {
        return OperatorBoolGenerator<IpcPacket>::make(isValid());
    }

    // The sequence number the handler or the receiver gave the packet.
    unsigned id() const { return muiId; }
    void setId(unsigned id) { muiId = id; }
    // The magic as it stands in the buffer; 0 for an empty packet.
    unsigned magic() const;
    // True when the magic is the compressed one of its pair.
    bool isCompressed() const;

    // Views on the buffer, valid while the packet lives. Empty for an empty
    // packet. An address text that is no flat form is kept as it came; the
    // BinaryAddress then tells eMsgAddressInvalid on first use.
    const BinaryAddress& destination() const { return moDestination; }
    const BinaryAddress& source() const { return moSource; }
    const QByteArray& authorization() const { return moAuthorization; }

    // Of the destination (see BinaryAddress): the hop reached, the machine a
    // router hands the packet to next, and the destination machine. Stepping
    // changes the letter in the packet's own bytes.
    unsigned currentHop() const { return moDestination.currentHop(); }
    bool increaseHop() { return moDestination.increaseHop(); }
    bool decreaseHop() { return moDestination.decreaseHop(); }
    Extent hopMachine() const { return moDestination.hopMachine(); }
    Extent machine() const { return moDestination.machine(); }

    bool isTransmitted() const { return mbTransmitted; }
    bool isReceived() const { return mbReceived; }

protected:
    IpcPacket() = default;

    // Finds the fields of a received packet; false to have it emptied. The
    // deserialisation error is traced by the class, which knows its words.
    virtual bool parse() = 0;
    // Drops the bytes and every view on them.
    virtual void empty();

    // Allocates exactly `size` bytes (no slack, so an overrun shows under the
    // sanitizer) and writes magic and size. Returns the offset behind them.
    unsigned allocate(unsigned magic, unsigned size);
    // Points destination, source and authorization at the three fields.
    void viewAddresses(const Extent& destination, const Extent& source, const Extent& authorization);
    void setMagic(unsigned magic);
    void setSizeField(unsigned size);

    Buffer moBytes;
    BinaryAddress moDestination;
    BinaryAddress moSource;
    QByteArray moAuthorization;
    unsigned muiId = 0;
    bool mbTransmitted = false;
    bool mbReceived = false;
};

} // namespace Brevi

#endif
