#ifndef BASELIBRARY_MESSAGING_BINARYADDRESSLAYOUT_H
#define BASELIBRARY_MESSAGING_BINARYADDRESSLAYOUT_H

#include "brevi_export.h"

namespace Brevi {

class Extent;

// The flat text of an address, as it stands in every packet header and as the
// key of the in-process queue table. UTF-8, numbers in plain decimal digits,
// pieces separated by "/", no terminator of its own (a packet puts a NUL
// behind it):
//
//   Attached, numeric   "1/" id "/" machine
//   Attached, logical   "1/0/" machine "/" name [ "/" group ]
//   Context             "2/" id
//   Hub                 "3/" id
//   Routed, numeric     "4/" id "/" count "/" current "/" hop(n) "/" ... "/" hop(1)
//   Routed, logical     "4/0/" count "/" current "/" hop(n) "/" ... "/" hop(1) "/" name [ "/" group ]
//
// The first character is the address type. In the routed forms `count` and
// `current` are single letters, 'a' for 1 up to 'z' for 26 (the character code
// less that of '`'); `current` is the hop a packet has reached, it starts at
// 'a' and a router steps it in place in the received bytes. The hops stand in
// reverse order: the destination first, the first hop last, so the machine of
// hop k is piece number count - k of the hop list.
//
// No piece is empty, and no piece holds "/": the hop, name and group rules of
// MsgRoute and MsgAddress guarantee both for every address they accept. A group
// is only written behind a name, and only an id of 0 carries name and group.
namespace BinaryAddressLayout {

const char Separator = '/';
// The letter before 'a': hop letter = LetterBase + hop number.
const char LetterBase = '`';
const char FirstHopLetter = 'a';
const char LastHopLetter = 'z';
const unsigned MaximumHops = 26;
// The shortest text that can name a type: a digit, "/" and one more byte.
const unsigned MinimumSize = 3;
// Offset of the type digit and of the "/" behind it.
const unsigned TypeOffset = 0;
const unsigned TypeSeparatorOffset = 1;
const unsigned IdOffset = 2;
// An id has at most this many digits (4294967295).
const unsigned MaximumIdDigits = 10;

inline char hopLetter(unsigned hop) { return char(LetterBase + hop); }
// 0 for anything but 'a' to 'z'.
inline unsigned hopNumber(unsigned char letter)
{
    return letter >= FirstHopLetter && letter <= LastHopLetter ? unsigned(letter - LetterBase) : 0u;
}

// True when `text` is a complete flat address by the rules above; the check is
// the one a BinaryAddress makes on its first use, so a tool that reads packets
// from a capture sees what the receiver would have seen.
BREVI_EXPORT bool check(const Extent& text);

} // namespace BinaryAddressLayout
} // namespace Brevi

#endif
