#ifndef BASELIBRARY_MESSAGING_MSGROUTE_H
#define BASELIBRARY_MESSAGING_MSGROUTE_H

#include "brevi_export.h"
#include "core/machinename.h"
#include "core/operatorboolgenerator.h"

#include <QList>

namespace Brevi {

class Trace;
class XmlList;

// The ordered list of machines a packet crosses to reach a context on another
// machine: first hop first, destination last, at most 26 hops (the flat form
// numbers hops with the letters a to z).
//
// A route is never empty. The invalid route is one empty hop; a route is valid
// exactly when its last hop has a name. Every hop obeys the hop rules: the
// name is not empty, holds no "/" (the separator of the flat form) and does
// not already stand in the route, so a route never visits a machine twice.
// Operations that would break a rule refuse and leave the route as it was.
//
// The hash is the XOR of the hops' hashes, kept up to date by every change.
//
// A value type: the hop list is shared between copies until one changes, so
// copying is cheap, and a const route may be read from any thread.
class BREVI_EXPORT MsgRoute
{
public:
    static constexpr unsigned MaximumHops = 26;

    // The invalid route.
    MsgRoute();
    // One hop, or the invalid route if the name breaks the hop rules.
    explicit MsgRoute(const MachineName& machine);
    // From the form toXml() writes; the invalid route at the first thing out
    // of place (wrong object name, no hop, a hop that breaks the rules).
    explicit MsgRoute(const XmlList& xml);

    // Add a hop at the end (a new destination) or at the front (a new first
    // hop). False, and nothing changed, for a route of 26 hops or a name that
    // breaks the hop rules. On the invalid route the empty hop goes first.
    bool append(const MachineName& machine);
    bool prepend(const MachineName& machine);

    // The way back for a reply to a packet that came over this route as far as
    // hop `hops` (0: the whole way) from the machine `source`: the hops before
    // the receiver in reverse order, then `source`. [A, B, C] walked to its end
    // from S gives [B, A, S]. The invalid route, with a line at TraceAlways,
    // when this route is invalid ("Source route is invalid"), the source is no
    // valid name ("Invalid source machine name"), `hops` exceeds the length
    // ("Hop ... too large, max ..."), or the source already stands in the way back.
    MsgRoute returnRoute(const MachineName& source, unsigned hops) const;

    // 0 gives the destination, n from 1 the n-th hop from the first; an empty
    // name for n beyond the length.
    const MachineName& hopName(unsigned n) const;
    const MachineName& destination() const { return moHops.last(); }
    unsigned length() const { return unsigned(moHops.size()); }
    unsigned hash() const { return muiHash; }
    bool contains(const MachineName& machine) const;

    bool isValid() const { return !moHops.last().isEmpty(); }
    operator OperatorBoolGenerator<MsgRoute>::Result() const
    {
        return OperatorBoolGenerator<MsgRoute>::make(isValid());
    }

    // Same hops in the same order.
    bool operator==(const MsgRoute& other) const;
    bool operator!=(const MsgRoute& other) const { return !(*this == other); }

    // BreviObjectName "MsgRoute" and one string "Machine" per hop, first hop first.
    XmlList toXml() const;

    // A name that may stand in a route: not empty, no "/".
    static bool isValidHop(const MachineName& machine);
    // Machine names compare by their stored hashes first, by text only if those agree.
    static bool sameMachine(const MachineName& a, const MachineName& b)
    {
        return a.hash() == b.hash() && a.string() == b.string();
    }

private:
    bool mayAdd(const MachineName& machine) const;

    QList<MachineName> moHops;
    unsigned muiHash;
};

// The stored hash.
inline uint qHash(const MsgRoute& route) { return route.hash(); }
// "(invalid route)", or the number of hops, "hop to", the destination and the hash.
BREVI_EXPORT Trace& operator<<(Trace& trace, const MsgRoute& route);

} // namespace Brevi

#endif
