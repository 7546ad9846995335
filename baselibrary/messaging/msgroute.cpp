#include "messaging/msgroute.h"

#include "core/trace.h"
#include "core/xmllist.h"

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleMsg;

const char* const KeyObjectName = "BreviObjectName";
const char* const KeyMachine = "Machine";
const char* const ObjectName = "MsgRoute";

const MachineName& emptyMachine()
{
    static const MachineName empty;
    return empty;
}
} // namespace

MsgRoute::MsgRoute()
    : muiHash(0)
{
    moHops.append(MachineName());
    muiHash = moHops.first().hash();
}

MsgRoute::MsgRoute(const MachineName& machine)
    : MsgRoute()
{
    append(machine);
}

MsgRoute::MsgRoute(const XmlList& xml)
    : MsgRoute()
{
    QString object;
    if (!xml.get(object, KeyObjectName) || object != ObjectName) {
        BTRACE(TraceDebug) << "Invalid route, object name is" << object;
        return;
    }
    for (XmlListIterator item = xml.first(); !item.isNull(); item.next()) {
        if (item.type() != XmlList::ValueString || item.name() != KeyMachine)
            continue;
        const MachineName machine(item.getString());
        if (!append(machine)) {
            BTRACE(TraceDebug) << "Invalid route, refused hop" << machine.string();
            *this = MsgRoute();
            return;
        }
    }
    if (!isValid())
        BTRACE(TraceDebug) << "Invalid route, no hops";
}

bool MsgRoute::isValidHop(const MachineName& machine)
{
    return !machine.isEmpty() && !machine.string().contains(QLatin1Char('/'));
}

bool MsgRoute::contains(const MachineName& machine) const
{
    for (const MachineName& hop : moHops) {
        if (sameMachine(hop, machine))
            return true;
    }
    return false;
}

// The count is tested before the empty hop of an invalid route goes, which
// makes no difference: the invalid route has one hop.
bool MsgRoute::mayAdd(const MachineName& machine) const
{
    return length() < MaximumHops && isValidHop(machine) && !contains(machine);
}

bool MsgRoute::append(const MachineName& machine)
{
    if (!mayAdd(machine))
        return false;
    if (!isValid()) {
        moHops.clear();
        muiHash = 0;
    }
    moHops.append(machine);
    muiHash ^= machine.hash();
    return true;
}

bool MsgRoute::prepend(const MachineName& machine)
{
    if (!mayAdd(machine))
        return false;
    if (!isValid()) {
        moHops.clear();
        muiHash = 0;
    }
    moHops.prepend(machine);
    muiHash ^= machine.hash();
    return true;
}

MsgRoute MsgRoute::returnRoute(const MachineName& source, unsigned hops) const
{
    if (!isValid()) {
        BTRACE(TraceAlways) << "Source route is invalid";
        return MsgRoute();
    }
    if (!isValidHop(source)) {
        BTRACE(TraceAlways) << "Invalid source machine name" << source.string();
        return MsgRoute();
    }
    if (hops > length()) {
        BTRACE(TraceAlways) << "Hop" << hops << "too large, max" << length();
        return MsgRoute();
    }
    // The hop reached is the receiver itself and stays out; the hops before it
    // go back in reverse order, then the source.
    const unsigned reached = hops ? hops : length();
    MsgRoute result;
    for (unsigned n = 1; n < reached; ++n)
        result.prepend(moHops.at(int(n) - 1));
    if (!result.append(source)) {
        BTRACE(TraceAlways) << "Source" << source.string() << "already stands in the return route";
        return MsgRoute();
    }
    return result;
}

const MachineName& MsgRoute::hopName(unsigned n) const
{
    if (n == 0)
        return moHops.last();
    if (n > length())
        return emptyMachine();
    return moHops.at(int(n) - 1);
}

bool MsgRoute::operator==(const MsgRoute& other) const
{
    if (muiHash != other.muiHash || moHops.size() != other.moHops.size())
        return false;
    for (int i = 0; i < moHops.size(); ++i) {
        if (!sameMachine(moHops.at(i), other.moHops.at(i)))
            return false;
    }
    return true;
}

XmlList MsgRoute::toXml() const
{
    XmlList xml;
    xml.set(KeyObjectName, QString(ObjectName), XmlList::SetModify);
    if (isValid()) {
        for (const MachineName& hop : moHops)
            xml.set(KeyMachine, hop.string(), XmlList::SetCreate);
    }
    return xml;
}

Trace& operator<<(Trace& trace, const MsgRoute& route)
{
    if (!route)
        return trace << "(invalid route)";
    trace << route.length() << "hop to" << route.destination().string();
    trace.hex();
    return trace << route.hash();
}

} // namespace Brevi
