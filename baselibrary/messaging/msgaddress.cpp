#include "messaging/msgaddress.h"

#include "core/trace.h"
#include "core/xmllist.h"
#include "messaging/localmachine_p.h"
#include "messaging/msgaddressdata_p.h"

#include <QHash>

#include <boost/make_shared.hpp>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleMsg;

const char* const KeyObjectName = "BreviObjectName";
const char* const KeyType = "Type";
const char* const KeyId = "Id";
const char* const KeyMachine = "Machine";
const char* const KeyRoute = "Route";
const char* const KeyName = "Name";
const char* const KeyGroup = "Group";
const char* const ObjectName = "MsgAddress";

// "/" separates the pieces of the flat form: a name or group holding one
// could not be flattened.
bool isValidName(const QString& name) { return !name.isEmpty() && !name.contains(QLatin1Char('/')); }
bool isValidGroup(const QString& group) { return !group.contains(QLatin1Char('/')); }

bool isPlaced(MsgAddressType type) { return type == eMsgAddressAttached || type == eMsgAddressRouted; }
bool isLocal(MsgAddressType type) { return type == eMsgAddressContext || type == eMsgAddressHub; }

MsgAddressType typeOver(const MsgRoute& route) { return route.length() > 1 ? eMsgAddressRouted : eMsgAddressAttached; }
} // namespace

// ---------------------------------------------------------------------------
// MsgAddressData

MsgAddressData::MsgAddressData()
    : meType(eMsgAddressInvalid)
    , muiId(0)
    , muiHash(0)
{ }

MsgAddressData::MsgAddressData(
    MsgAddressType type, unsigned id, const MsgRoute& route, const QString& name, const QString& group)
    : meType(type)
    , muiId(id)
    , moRoute(route)
    , msGroup(group)
    , msName(name)
    , moBinary(BinaryAddress::build(type, id, route, name, group))
    , muiHash(computeHash(type, id, route, name, group))
{
    if (moBinary.type() != type)
        BTRACE(TraceAlways) << "Error: `moBinary.type() == type' failed." << moBinary;
}

MsgAddressData::MsgAddressData(MsgAddressType type, unsigned id, const MsgRoute& route, const QString& name,
    const QString& group, const Extent& flat)
    : meType(type)
    , muiId(id)
    , moRoute(route)
    , msGroup(group)
    , msName(name)
    , moBinary(flat)
    , muiHash(computeHash(type, id, route, name, group))
{
    // Check the copied text now, while the body is still private to this
    // thread: afterwards it is only read.
    if (moBinary.type() != type)
        BTRACE(TraceAlways) << "Error: `moBinary.type() == type' failed." << moBinary;
}

unsigned MsgAddressData::computeHash(
    MsgAddressType type, unsigned id, const MsgRoute& route, const QString& name, const QString& group)
{
    if (isPlaced(type))
        return (id ? id : qHash(name) ^ qHash(group)) ^ route.destination().hash();
    if (isLocal(type))
        return id;
    return 0;
}

// ---------------------------------------------------------------------------
// The invalid address

boost::once_flag MsgAddress::moOnce = BOOST_ONCE_INIT;
boost::shared_ptr<const MsgAddressData>* MsgAddress::mpoInvalid = nullptr;

// Made once, on first use, and never freed: every invalid address of every
// thread points here, up to the last static destructor of the process.
void MsgAddress::initialize()
{
    mpoInvalid = new boost::shared_ptr<const MsgAddressData>(boost::make_shared<const MsgAddressData>());
}

const boost::shared_ptr<const MsgAddressData>& MsgAddress::invalidData()
{
    boost::call_once(moOnce, &MsgAddress::initialize);
    return *mpoInvalid;
}

void MsgAddress::fail()
{
    mptData = invalidData();
    BTRACE(TraceAlways) << "Error: `*this' failed.";
}

void MsgAddress::clear() { mptData = invalidData(); }

// ---------------------------------------------------------------------------
// Constructors

MsgAddress::MsgAddress()
    : mptData(invalidData())
{ }

MsgAddress::MsgAddress(WellKnownE id)
    : MsgAddress(localMachineName(), unsigned(id))
{ }

MsgAddress::MsgAddress(unsigned id)
    : MsgAddress(localMachineName(), id)
{ }

MsgAddress::MsgAddress(const MachineName& machine, WellKnownE id)
    : MsgAddress(MsgRoute(machine), unsigned(id))
{ }

MsgAddress::MsgAddress(const MachineName& machine, unsigned id)
    : MsgAddress(MsgRoute(machine), id)
{ }

MsgAddress::MsgAddress(const QString& name, const QString& group)
    : MsgAddress(localMachineName(), name, group)
{ }

MsgAddress::MsgAddress(const MachineName& machine, const QString& name, const QString& group)
    : MsgAddress(MsgRoute(machine), name, group)
{ }

MsgAddress::MsgAddress(const MsgRoute& route, unsigned id)
{
    if (route && id)
        mptData = boost::make_shared<const MsgAddressData>(typeOver(route), id, route, QString(), QString());
    else
        fail();
}

MsgAddress::MsgAddress(const MsgRoute& route, const QString& name, const QString& group)
{
    if (route && isValidName(name) && isValidGroup(group))
        mptData = boost::make_shared<const MsgAddressData>(typeOver(route), 0u, route, name, group);
    else
        fail();
}

MsgAddress::MsgAddress(MsgAddressType type, unsigned id)
{
    if (isLocal(type) && id)
        mptData = boost::make_shared<const MsgAddressData>(type, id, MsgRoute(), QString(), QString());
    else
        fail();
}

MsgAddress::MsgAddress(const BinaryAddress& binary) { binary.address(*this); }

MsgAddress::MsgAddress(const Extent& flat, MsgAddressType type, unsigned id)
{
    if (isLocal(type) && id)
        mptData = boost::make_shared<const MsgAddressData>(type, id, MsgRoute(), QString(), QString(), flat);
    else
        fail();
}

MsgAddress::MsgAddress(const Extent& flat, const MsgRoute& route, unsigned id)
{
    if (route && id)
        mptData = boost::make_shared<const MsgAddressData>(typeOver(route), id, route, QString(), QString(), flat);
    else
        fail();
}

MsgAddress::MsgAddress(const Extent& flat, const MsgRoute& route, const QString& name, const QString& group)
{
    if (route && isValidName(name) && isValidGroup(group))
        mptData = boost::make_shared<const MsgAddressData>(typeOver(route), 0u, route, name, group, flat);
    else
        fail();
}

// Reads what toXml() writes and gives up at the first thing out of place. A
// name, where there is one, is kept even beside an id: such an address is
// still numeric (flat form, hash and == go by the id).
MsgAddress::MsgAddress(const XmlList& xml)
{
    QString object;
    unsigned type = 0;
    unsigned id = 0;
    if (!xml.get(object, KeyObjectName) || object != ObjectName || !xml.get(type, KeyType) || type < eMsgAddressAttached
        || type > eMsgAddressRouted) {
        fail();
        return;
    }
    xml.get(id, KeyId);

    if (isLocal(MsgAddressType(type))) {
        if (id)
            mptData
                = boost::make_shared<const MsgAddressData>(MsgAddressType(type), id, MsgRoute(), QString(), QString());
        else
            fail();
        return;
    }

    MsgRoute route;
    if (type == eMsgAddressAttached) {
        MachineName machine;
        xml.get(machine, KeyMachine);
        route = MsgRoute(machine);
    } else {
        XmlList routeXml;
        if (xml.get(routeXml, KeyRoute))
            route = MsgRoute(routeXml);
    }
    if (!route) {
        fail();
        return;
    }

    QString name;
    QString group;
    if (!xml.first(KeyName).isNull()) {
        if (!xml.get(name, KeyName) || !isValidName(name)
            || (!xml.first(KeyGroup).isNull() && (!xml.get(group, KeyGroup) || !isValidGroup(group)))) {
            fail();
            return;
        }
    } else if (!id) {
        fail();
        return;
    }
    mptData = boost::make_shared<const MsgAddressData>(typeOver(route), id, route, name, group);
}

// ---------------------------------------------------------------------------
// Fields

MsgAddressType MsgAddress::type() const { return mptData->meType; }
unsigned MsgAddress::id() const { return mptData->muiId; }
const MsgRoute& MsgAddress::route() const { return mptData->moRoute; }
const MachineName& MsgAddress::machine() const { return mptData->moRoute.destination(); }
const QString& MsgAddress::name() const { return mptData->msName; }
const QString& MsgAddress::group() const { return mptData->msGroup; }
const BinaryAddress& MsgAddress::binary() const { return mptData->moBinary; }
unsigned MsgAddress::hash() const { return mptData->muiHash; }
bool MsgAddress::isValid() const { return mptData->meType != eMsgAddressInvalid; }

XmlList MsgAddress::toXml() const
{
    const MsgAddressData& data = *mptData;
    XmlList xml;
    xml.set(KeyObjectName, QString(ObjectName));
    xml.set(KeyType, unsigned(data.meType));
    xml.set(KeyId, data.muiId);
    if (data.meType == eMsgAddressAttached)
        xml.set(KeyMachine, data.moRoute.destination().string());
    else if (data.meType == eMsgAddressRouted)
        xml.set(KeyRoute, data.moRoute.toXml());
    if (isPlaced(data.meType) && !data.msName.isEmpty()) {
        xml.set(KeyName, data.msName);
        if (!data.msGroup.isEmpty())
            xml.set(KeyGroup, data.msGroup);
    }
    return xml;
}

MsgAddress MsgAddress::returnAddress(const MsgAddress& source, unsigned hops) const
{
    if (!source)
        return source;
    if (type() == eMsgAddressRouted) {
        // The second argument is 0 whatever `hops` says: the reply goes back
        // over the whole of the way this address describes.
        const MsgRoute back = route().returnRoute(source.machine(), 0);
        if (source.id())
            return MsgAddress(back, source.id());
        return MsgAddress(back, source.name(), source.group());
    }
    if (hops > 1) {
        BTRACE(TraceAlways) << "An attached address cannot be reached over" << hops << "hops, source" << source;
        return MsgAddress();
    }
    return source;
}

// ---------------------------------------------------------------------------
// Comparison

bool MsgAddress::operator==(const MsgAddress& other) const
{
    const MsgAddressData* a = mptData.get();
    const MsgAddressData* b = other.mptData.get();
    if (a == b)
        return true;
    // Addresses equal by the rules below always have equal hashes.
    if (a->muiHash != b->muiHash)
        return false;
    if (isPlaced(a->meType) && isPlaced(b->meType)) {
        if (a->muiId != b->muiId)
            return false;
        if (a->muiId)
            return MsgRoute::sameMachine(a->moRoute.destination(), b->moRoute.destination());
        return a->msGroup == b->msGroup && a->msName == b->msName
            && MsgRoute::sameMachine(a->moRoute.destination(), b->moRoute.destination());
    }
    return a->meType == b->meType && a->muiId == b->muiId;
}

// Kept as the system has always sorted addresses: for two logical addresses
// the name decides whenever the group is not below, even when it is above.
bool MsgAddress::operator<(const MsgAddress& other) const
{
    const MsgAddressData* a = mptData.get();
    const MsgAddressData* b = other.mptData.get();
    if (a->meType != b->meType)
        return a->meType < b->meType;
    if (isPlaced(a->meType)) {
        const int machine = a->moRoute.destination().string().compare(b->moRoute.destination().string());
        if (machine)
            return machine < 0;
        if (a->muiId != b->muiId)
            return a->muiId < b->muiId;
        if (a->muiId)
            return false;
        return a->msGroup < b->msGroup || a->msName < b->msName;
    }
    if (isLocal(a->meType))
        return a->muiId < b->muiId;
    return false;
}

uint qHash(const MsgAddress& address) { return address.hash(); }

Trace& operator<<(Trace& trace, const MsgAddress& address)
{
    if (!address)
        return trace << "(invalid address)";
    return trace << address.binary();
}

} // namespace Brevi
