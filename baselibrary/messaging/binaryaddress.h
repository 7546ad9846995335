#ifndef BASELIBRARY_MESSAGING_BINARYADDRESS_H
#define BASELIBRARY_MESSAGING_BINARYADDRESS_H

#include "brevi_export.h"
#include "core/buffer.h"
#include "messaging/msgaddresstype.h"

#include <QtGlobal>

namespace Brevi {

class MsgAddress;
class MsgAddressData;
class MsgRoute;
class Trace;

// The flat text form of an address (layout in binaryaddresslayout.h): what a
// packet header carries, and the key of the in-process queue table.
//
// A router reads it and steps its hop counter without ever building a
// MsgAddress. The text is left as it came until a field is asked for; the
// first accessor then checks it once and keeps views (offsets) on its pieces.
// Text that fails the check is traced ("Invalid binary address", debug level)
// and dropped: the object becomes empty, type() gives eMsgAddressInvalid, and
// every view is empty. Nothing here reads outside the text.
//
// Two ways in, on purpose different:
//  - BinaryAddress(const Extent&) copies the text and starts its journey over:
//    a routed form's current hop letter is reset to 'a' in the copy;
//  - fromRawData() borrows received bytes (a packet's buffer) and keeps the
//    letter as it came; increaseHop() then changes that very byte, which is
//    the byte that will be forwarded. The bytes must outlive the object.
//
// Thread use: the one-time check writes to the object's own fields, so an
// address whose fields have not yet been read must not be shared between
// threads. The binary form held by a MsgAddress is checked when it is made and
// can be read from any thread.
class BREVI_EXPORT BinaryAddress
{
public:
    BinaryAddress() = default;
    explicit BinaryAddress(const Extent& text);
    BinaryAddress(const BinaryAddress& other);
    BinaryAddress(BinaryAddress&& other) noexcept;
    BinaryAddress& operator=(const BinaryAddress& other);
    BinaryAddress& operator=(BinaryAddress&& other) noexcept;
    ~BinaryAddress() = default;

    // Borrows `n` bytes of received text; nothing is copied or checked yet.
    void fromRawData(const void* data, unsigned n);
    void fromRawData(const Extent& text);

    // eMsgAddressInvalid unless the text is a complete flat form.
    MsgAddressType type() const;
    // 0 for a logical address and for anything invalid.
    unsigned id() const;
    // Of the raw bytes: id, or qHash(name) ^ qHash(group) for a logical
    // address, XOR qHash(destination machine) for forms 1 and 4; the id for
    // forms 2 and 3. Not the MsgAddress hash: never mix the two in one table.
    unsigned hash() const;

    // Views on the text, valid while this object and its bytes are unchanged.
    // Empty where the form has no such piece.
    Extent text() const;
    Extent machine() const;
    Extent hops() const;
    Extent name() const;
    Extent group() const;
    // The machine a router hands the packet to next: the hop at `current` in a
    // routed form, the machine in an attached one.
    Extent hopMachine() const;

    bool isEmpty() const { return text().size() == 0; }

    // Routed forms only: the hop reached, 1 to 26; 0 for anything else.
    unsigned currentHop() const;
    // The number of hops of a routed form; 1 for an attached one, 0 otherwise.
    unsigned hopCount() const;
    // Steps the current hop in place; false, and nothing changed, at the end
    // of the route or for any form but a routed one.
    bool increaseHop();
    bool decreaseHop();

    // An empty form equals only an empty one. Attached and routed forms match
    // on id and machine, or on name, group and machine when an id is 0; the
    // hops before the destination and the current hop do not count.
    bool operator==(const BinaryAddress& other) const;
    bool operator!=(const BinaryAddress& other) const { return !(*this == other); }

private:
    friend class MsgAddress;
    friend class MsgAddressData;

    // A view of the text, by offset so that copies carry it over unchanged.
    struct Piece {
        unsigned offset = 0;
        unsigned size = 0;
    };

    // The flat form of an address's fields, checked, with the first hop as
    // the current one.
    static BinaryAddress build(
        MsgAddressType type, unsigned id, const MsgRoute& route, const QString& name, const QString& group);
    // Builds the MsgAddress the text names: the invalid address for text
    // that fails the check or names no valid address.
    void address(MsgAddress& result) const;

    void setup() const
    {
        if (!mbSetup)
            parse();
    }
    void parse() const;
    bool parsePieces() const;
    void forget() const;
    Extent view(const Piece& piece) const { return Extent(moText.data() + piece.offset, piece.size); }
    // Piece number `index` of the hop list, destination first.
    Piece hop(unsigned index) const;
    void resetHopLetter();

    mutable Buffer moText;
    mutable Piece moMachine;
    mutable Piece moHops;
    mutable Piece moName;
    mutable Piece moGroup;
    mutable Piece moHopMachine;
    mutable unsigned muiId = 0;
    mutable unsigned muiHash = 0;
    // Offset of the current hop letter in a routed form, 0 otherwise.
    mutable unsigned muiCurrentOffset = 0;
    mutable unsigned muiCount = 0;
    mutable MsgAddressType meType = eMsgAddressInvalid;
    mutable bool mbSetup = true;
};

BREVI_EXPORT uint qHash(const BinaryAddress& address);
// The text as it stands, or "(empty binary address)".
BREVI_EXPORT Trace& operator<<(Trace& trace, const BinaryAddress& address);

} // namespace Brevi

#endif
