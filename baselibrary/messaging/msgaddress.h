#ifndef BASELIBRARY_MESSAGING_MSGADDRESS_H
#define BASELIBRARY_MESSAGING_MSGADDRESS_H

#include "brevi_export.h"
#include "core/operatorboolgenerator.h"
#include "messaging/binaryaddress.h"
#include "messaging/msgaddresstype.h"
#include "messaging/msgroute.h"

#include <QString>

#include <boost/shared_ptr.hpp>
#include <boost/thread/once.hpp>

namespace Brevi {

class Extent;
class MachineName;
class MsgAddressData;
class Trace;
class XmlList;

// Where a context lives: on which machine, by which way through the network,
// and by which number (numeric address, id above 0) or by which name and group
// (logical address, id 0) it is found there. Every message and data packet
// names its source and destination with one.
//
// The type of an address over a route is derived, never given: routed for two
// hops or more, attached for one. Context and Hub addresses have no machine.
//
// Rules a name and group obey: the name is not empty, neither holds "/". With
// the hop rules of MsgRoute this means every valid address can be flattened
// into its BinaryAddress.
//
// Failure: a constructor whose arguments break a rule gives the invalid
// address and writes "Error: `*this' failed." at TraceAlways. All invalid
// addresses share one body, made once for the process on first use and never
// freed; `if (address)` tells them apart.
//
// A value type, cheap to copy: every copy shares one immutable body, and
// assignment only re-points the handle. Flat form and hash are computed once
// when the body is made. Copies may be made and read on any thread.
class BREVI_EXPORT MsgAddress
{
public:
    // The invalid address.
    MsgAddress();
    // A numeric address on this machine (the name the Hub gave this process);
    // invalid for 0 or before the machine is known.
    explicit MsgAddress(WellKnownE id);
    explicit MsgAddress(unsigned id);
    // A numeric address on `machine`; invalid for 0 or a machine that is no
    // valid hop.
    MsgAddress(const MachineName& machine, WellKnownE id);
    MsgAddress(const MachineName& machine, unsigned id);
    // A logical address on this machine or on `machine`.
    MsgAddress(const QString& name, const QString& group);
    MsgAddress(const MachineName& machine, const QString& name, const QString& group);
    // Over a route: attached for one hop, routed for more; invalid for an
    // invalid route.
    MsgAddress(const MsgRoute& route, unsigned id);
    MsgAddress(const MsgRoute& route, const QString& name, const QString& group);
    // A context of this process (eMsgAddressContext) or the Hub's end of this
    // process's link (eMsgAddressHub); any other type, or id 0, is invalid.
    MsgAddress(MsgAddressType type, unsigned id);
    // From the flat form, as it came in a packet.
    explicit MsgAddress(const BinaryAddress& binary);
    // From the form toXml() writes; invalid at the first thing out of place.
    explicit MsgAddress(const XmlList& xml);

    MsgAddressType type() const;
    // 0 for a logical address.
    unsigned id() const;
    const MsgRoute& route() const;
    // The destination hop; empty for context, Hub and invalid addresses.
    const MachineName& machine() const;
    const QString& name() const;
    const QString& group() const;
    // The flat form, built when the address was made. Empty when invalid.
    const BinaryAddress& binary() const;
    // id (or qHash(name) ^ qHash(group)) ^ the destination's hash for attached
    // and routed addresses; the id for context and Hub; 0 when invalid.
    unsigned hash() const;

    // Back to the invalid address.
    void clear();

    // BreviObjectName "MsgAddress", Type, Id; Machine (attached) or Route
    // (routed); Name and Group where set.
    XmlList toXml() const;

    // Called on the address a packet was sent to (this context's own, as the
    // sender saw it) with the packet's source: the address to answer to. A
    // source that reached a routed address is turned into a routed address
    // back over the reversed hops. `hops` above 1 cannot have reached an
    // attached address: that gives the invalid address. Otherwise the source
    // itself.
    MsgAddress returnAddress(const MsgAddress& source, unsigned hops) const;

    bool isValid() const;
    operator OperatorBoolGenerator<MsgAddress>::Result() const
    {
        return OperatorBoolGenerator<MsgAddress>::make(isValid());
    }

    // Attached and routed addresses are equal when id and destination match
    // (name, group and destination for id 0): the hops before the destination
    // do not count, so a reply that came the long way round is still from the
    // same context. Other types must match in type and id.
    bool operator==(const MsgAddress& other) const;
    bool operator!=(const MsgAddress& other) const { return !(*this == other); }
    // By type, then destination text and id; for two logical addresses true if
    // the group is below or, failing that, the name is below. That last step
    // is not a strict order, and an attached and a routed address that == calls
    // equal are still ordered by type: sort containers keyed on this with care.
    bool operator<(const MsgAddress& other) const;

private:
    friend class BinaryAddress;

    // Take over the flat text they were parsed from.
    MsgAddress(const Extent& flat, MsgAddressType type, unsigned id);
    MsgAddress(const Extent& flat, const MsgRoute& route, unsigned id);
    MsgAddress(const Extent& flat, const MsgRoute& route, const QString& name, const QString& group);

    static void initialize();
    static const boost::shared_ptr<const MsgAddressData>& invalidData();
    // Leaves this address invalid and says so.
    void fail();

    static boost::once_flag moOnce;
    static boost::shared_ptr<const MsgAddressData>* mpoInvalid;

    boost::shared_ptr<const MsgAddressData> mptData;
};

// The stored hash.
BREVI_EXPORT uint qHash(const MsgAddress& address);
// The flat form, or "(invalid address)".
BREVI_EXPORT Trace& operator<<(Trace& trace, const MsgAddress& address);

} // namespace Brevi

#endif
