#include "messaging/binaryaddress.h"

#include "core/trace.h"
#include "messaging/binaryaddresslayout.h"
#include "messaging/msgaddress.h"
#include "messaging/msgroute.h"

#include <QHash>

#include <cstring>
#include <utility>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleMsg;

using namespace BinaryAddressLayout;

// The raw-bytes hash: what qHash(QByteArray) gives for the same bytes, without
// making the array.
inline unsigned hashBytes(const unsigned char* data, unsigned size) { return qHashBits(data, size, 0); }

// Decimal digits only; anything else, or a number beyond 32 bits, gives 0.
unsigned parseId(const unsigned char* digits, unsigned size)
{
    if (size > MaximumIdDigits)
        return 0;
    unsigned long long value = 0;
    for (unsigned i = 0; i < size; ++i) {
        const unsigned digit = unsigned(digits[i]) - '0';
        if (digit > 9)
            return 0;
        value = value * 10 + digit;
    }
    return value > 0xFFFFFFFFull ? 0u : unsigned(value);
}

// Offset of the next separator at or behind `from`, or `size` if there is none.
inline unsigned nextSeparator(const unsigned char* text, unsigned from, unsigned size)
{
    const void* found = from < size ? std::memchr(text + from, Separator, size - from) : nullptr;
    return found ? unsigned(static_cast<const unsigned char*>(found) - text) : size;
}
} // namespace

BinaryAddress::BinaryAddress(const Extent& text)
    : moText(text)
    , mbSetup(text.size() == 0)
{
    resetHopLetter();
}

BinaryAddress::BinaryAddress(const BinaryAddress& other)
    : moText(other.moText.size() ? Buffer(other.moText.data(), other.moText.size()) : Buffer())
    , moMachine(other.moMachine)
    , moHops(other.moHops)
    , moName(other.moName)
    , moGroup(other.moGroup)
    , moHopMachine(other.moHopMachine)
    , muiId(other.muiId)
    , muiHash(other.muiHash)
    , muiCurrentOffset(other.muiCurrentOffset)
    , muiCount(other.muiCount)
    , meType(other.meType)
    , mbSetup(other.mbSetup)
{ }

BinaryAddress::BinaryAddress(BinaryAddress&& other) noexcept
    : moText(std::move(other.moText))
    , moMachine(other.moMachine)
    , moHops(other.moHops)
    , moName(other.moName)
    , moGroup(other.moGroup)
    , moHopMachine(other.moHopMachine)
    , muiId(other.muiId)
    , muiHash(other.muiHash)
    , muiCurrentOffset(other.muiCurrentOffset)
    , muiCount(other.muiCount)
    , meType(other.meType)
    , mbSetup(other.mbSetup)
{
    other.forget();
    other.mbSetup = true;
}

BinaryAddress& BinaryAddress::operator=(const BinaryAddress& other)
{
    if (this != &other) {
        BinaryAddress copy(other);
        *this = std::move(copy);
    }
    return *this;
}

BinaryAddress& BinaryAddress::operator=(BinaryAddress&& other) noexcept
{
    if (this != &other) {
        moText.swap(other.moText);
        std::swap(moMachine, other.moMachine);
        std::swap(moHops, other.moHops);
        std::swap(moName, other.moName);
        std::swap(moGroup, other.moGroup);
        std::swap(moHopMachine, other.moHopMachine);
        std::swap(muiId, other.muiId);
        std::swap(muiHash, other.muiHash);
        std::swap(muiCurrentOffset, other.muiCurrentOffset);
        std::swap(muiCount, other.muiCount);
        std::swap(meType, other.meType);
        std::swap(mbSetup, other.mbSetup);
    }
    return *this;
}

void BinaryAddress::fromRawData(const void* data, unsigned n)
{
    forget();
    moText.fromRawData(data, n);
    mbSetup = n == 0;
}

void BinaryAddress::fromRawData(const Extent& text) { fromRawData(text.data(), text.size()); }

// A copy starts its journey at the first hop. Only a letter is replaced by a
// letter, so text that is not a routed form is never made into one here; the
// check on first use judges the rest.
void BinaryAddress::resetHopLetter()
{
    const unsigned size = moText.size();
    const unsigned char* text = moText.data();
    if (size < MinimumSize || text[TypeOffset] != '0' + eMsgAddressRouted || text[TypeSeparatorOffset] != Separator)
        return;
    const unsigned countAt = nextSeparator(text, IdOffset, size) + 1;
    const unsigned currentAt = countAt + 2;
    if (currentAt >= size || text[countAt + 1] != Separator || !hopNumber(text[currentAt]))
        return;
    if (currentAt + 1 == size || text[currentAt + 1] == Separator)
        moText[currentAt] = FirstHopLetter;
}

void BinaryAddress::forget() const
{
    moMachine = moHops = moName = moGroup = moHopMachine = Piece();
    muiId = muiHash = muiCurrentOffset = muiCount = 0;
    meType = eMsgAddressInvalid;
}

void BinaryAddress::parse() const
{
    mbSetup = true;
    if (parsePieces())
        return;
    BTRACE(TraceDebug) << "Invalid binary address" << Extent(moText.data(), moText.size());
    forget();
    moText.reset();
}

// The one-time check of the text, filling the views as it goes. Each piece is
// found with one scan for its separator, so a router pays one pass over the
// text and one hash of the destination's bytes.
bool BinaryAddress::parsePieces() const
{
    // The fields are clear here: text only arrives through fromRawData() and
    // the constructors, which start from nothing.
    const unsigned size = moText.size();
    const unsigned char* text = moText.data();
    if (size < MinimumSize || text[TypeSeparatorOffset] != Separator)
        return false;
    const unsigned type = unsigned(text[TypeOffset]) - '0';
    if (type < eMsgAddressAttached || type > eMsgAddressRouted)
        return false;

    const unsigned idEnd = nextSeparator(text, IdOffset, size);
    if (idEnd == IdOffset)
        return false;
    const unsigned id = parseId(text + IdOffset, idEnd - IdOffset);

    if (type == eMsgAddressContext || type == eMsgAddressHub) {
        if (idEnd != size)
            return false;
        muiId = muiHash = id;
        meType = MsgAddressType(type);
        return true;
    }
    if (idEnd == size)
        return false;

    unsigned at = idEnd + 1;
    unsigned count = 1;
    unsigned current = 1;
    if (type == eMsgAddressRouted) {
        // Two one-letter pieces: the count, then the current hop.
        if (at + 3 >= size || text[at + 1] != Separator || text[at + 3] != Separator)
            return false;
        count = hopNumber(text[at]);
        current = hopNumber(text[at + 2]);
        if (!count || !current || current > count)
            return false;
        muiCurrentOffset = at + 2;
        at += 4;
    }

    // Then `count` hops, destination first, and for id 0 a name and perhaps a
    // group; the last piece ends at the end of the text.
    const unsigned minimum = id ? count : count + 1;
    const unsigned maximum = id ? count : count + 2;
    Piece pieces[2];
    unsigned n = 0;
    for (;;) {
        const unsigned end = nextSeparator(text, at, size);
        if (end == at || n == maximum)
            return false;
        const Piece piece { at, end - at };
        if (n == 0)
            moMachine = piece;
        if (n == count - current)
            moHopMachine = piece;
        if (n + 1 == count)
            moHops = Piece { moMachine.offset, end - moMachine.offset };
        if (n >= count)
            pieces[n - count] = piece;
        ++n;
        if (end == size)
            break;
        at = end + 1;
    }
    if (n < minimum)
        return false;
    if (!id) {
        moName = pieces[0];
        if (n == count + 2)
            moGroup = pieces[1];
    }

    muiId = id;
    muiCount = count;
    meType = MsgAddressType(type);
    const unsigned base
        = id ? id : hashBytes(text + moName.offset, moName.size) ^ hashBytes(text + moGroup.offset, moGroup.size);
    muiHash = base ^ hashBytes(text + moMachine.offset, moMachine.size);
    return true;
}

MsgAddressType BinaryAddress::type() const
{
    setup();
    return meType;
}

unsigned BinaryAddress::id() const
{
    setup();
    return muiId;
}

unsigned BinaryAddress::hash() const
{
    setup();
    return muiHash;
}

Extent BinaryAddress::text() const
{
    setup();
    return Extent(moText.data(), moText.size());
}

Extent BinaryAddress::machine() const
{
    setup();
    return view(moMachine);
}

Extent BinaryAddress::hops() const
{
    setup();
    return view(moHops);
}

Extent BinaryAddress::name() const
{
    setup();
    return view(moName);
}

Extent BinaryAddress::group() const
{
    setup();
    return view(moGroup);
}

Extent BinaryAddress::hopMachine() const
{
    setup();
    return view(moHopMachine);
}

unsigned BinaryAddress::hopCount() const
{
    setup();
    return muiCount;
}

unsigned BinaryAddress::currentHop() const
{
    setup();
    return meType == eMsgAddressRouted ? hopNumber(moText[muiCurrentOffset]) : 0u;
}

BinaryAddress::Piece BinaryAddress::hop(unsigned index) const
{
    const unsigned char* text = moText.data();
    const unsigned end = moHops.offset + moHops.size;
    unsigned at = moHops.offset;
    for (unsigned i = 0; i < index; ++i)
        at = nextSeparator(text, at, end) + 1;
    return Piece { at, nextSeparator(text, at, end) - at };
}

bool BinaryAddress::increaseHop()
{
    const unsigned current = currentHop();
    if (!current || current >= muiCount)
        return false;
    moText[muiCurrentOffset] = hopLetter(current + 1);
    moHopMachine = hop(muiCount - current - 1);
    return true;
}

bool BinaryAddress::decreaseHop()
{
    const unsigned current = currentHop();
    if (current < 2 || current > muiCount)
        return false;
    moText[muiCurrentOffset] = hopLetter(current - 1);
    moHopMachine = hop(muiCount - current + 1);
    return true;
}

bool BinaryAddress::operator==(const BinaryAddress& other) const
{
    setup();
    other.setup();
    if (meType == eMsgAddressInvalid || other.meType == eMsgAddressInvalid)
        return meType == other.meType;
    const bool placed = meType == eMsgAddressAttached || meType == eMsgAddressRouted;
    const bool otherPlaced = other.meType == eMsgAddressAttached || other.meType == eMsgAddressRouted;
    if (placed && otherPlaced) {
        if (muiId && other.muiId)
            return muiId == other.muiId && view(moMachine) == other.view(other.moMachine);
        return view(moGroup) == other.view(other.moGroup) && view(moName) == other.view(other.moName)
            && view(moMachine) == other.view(other.moMachine);
    }
    return meType == other.meType && muiId == other.muiId;
}

BinaryAddress BinaryAddress::build(
    MsgAddressType type, unsigned id, const MsgRoute& route, const QString& name, const QString& group)
{
    const QByteArray idText = QByteArray::number(id);
    // A group is only written behind a name, and only an id of 0 writes them.
    const QByteArray nameText = id ? QByteArray() : name.toUtf8();
    const QByteArray groupText = nameText.isEmpty() ? QByteArray() : group.toUtf8();

    QList<QByteArray> pieces;
    pieces.reserve(int(route.length()) + 4);
    pieces.append(QByteArray(1, char('0' + type)));
    pieces.append(idText);
    if (type == eMsgAddressAttached) {
        pieces.append(route.destination().toUtf8());
    } else if (type == eMsgAddressRouted) {
        pieces.append(QByteArray(1, hopLetter(route.length())));
        pieces.append(QByteArray(1, FirstHopLetter));
        for (unsigned k = route.length(); k >= 1; --k)
            pieces.append(route.hopName(k).toUtf8());
    }
    if (type == eMsgAddressAttached || type == eMsgAddressRouted) {
        if (!nameText.isEmpty())
            pieces.append(nameText);
        if (!groupText.isEmpty())
            pieces.append(groupText);
    }

    unsigned size = unsigned(pieces.size()) - 1;
    for (const QByteArray& piece : pieces)
        size += unsigned(piece.size());
    BinaryAddress result;
    result.moText = Buffer(size);
    for (int i = 0; i < pieces.size(); ++i) {
        if (i)
            result.moText.put(Separator);
        result.moText.put(pieces.at(i));
    }
    result.moText.offset(0);
    result.parse();
    return result;
}

void BinaryAddress::address(MsgAddress& result) const
{
    setup();
    const Extent flat = text();
    switch (meType) {
    case eMsgAddressContext:
    case eMsgAddressHub:
        result = MsgAddress(flat, meType, muiId);
        return;
    case eMsgAddressAttached:
    case eMsgAddressRouted: {
        // The route is built hop by hop, first hop first, under the hop rules:
        // a text that names a machine twice gives no address.
        MsgRoute route;
        for (unsigned index = 0; index < muiCount; ++index) {
            const Piece piece = meType == eMsgAddressAttached ? moMachine : hop(index);
            if (!route.prepend(MachineName(view(piece).toQString()))) {
                BTRACE(TraceAlways) << "Invalid hop in binary address" << flat;
                route = MsgRoute();
                break;
            }
        }
        if (muiId)
            result = MsgAddress(flat, route, muiId);
        else
            result = MsgAddress(flat, route, view(moName).toQString(), view(moGroup).toQString());
        return;
    }
    default:
        result.fail();
        return;
    }
}

uint qHash(const BinaryAddress& address) { return address.hash(); }

Trace& operator<<(Trace& trace, const BinaryAddress& address)
{
    const Extent text = address.text();
    if (!text.size())
        return trace << "(empty binary address)";
    return trace << text;
}

namespace BinaryAddressLayout {
bool check(const Extent& text)
{
    BinaryAddress address;
    address.fromRawData(text);
    return address.type() != eMsgAddressInvalid;
}
} // namespace BinaryAddressLayout

} // namespace Brevi
