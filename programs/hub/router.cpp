#include "router.h"

#include "hubconstants.h"

#include "core/extent.h"
#include "messaging/binaryaddress.h"
#include "messaging/ipcpacket.h"
#include "messaging/msgaddress.h"
#include "messaging/msgroute.h"

namespace Brevi {

Router::Router(const MachineName& machine, const ProcessTable& processes)
    : moMachineText(machine.toUtf8())
    , moProcesses(processes)
{}

QByteArray Router::text(const BinaryAddress& address)
{
    const Extent view = address.text();
    return QByteArray(reinterpret_cast<const char*>(view.data()), int(view.size()));
}

Router::Result Router::local(unsigned id, const QString& name, const QString& group, bool needLink) const
{
    Result result;
    if (id == HubConstants::ManagerId) {
        result.kind = Result::eManager;
        return result;
    }
    if (id == HubConstants::RouterId) {
        result.kind = Result::eRouter;
        return result;
    }
    const ProcessPointer process = id ? moProcesses.byId(id) : moProcesses.byName(name, group);
    if (!process) {
        result.reason = id ? "No process with that id" : "No process with that name";
        return result;
    }
    if (needLink && !process->linkSerial) {
        result.reason = "The process has no link";
        return result;
    }
    result.kind = Result::eProcess;
    result.process = process;
    return result;
}

Router::Result Router::route(IpcPacket& packet) const
{
    const BinaryAddress& destination = packet.destination();
    const Extent self(moMachineText);
    Result result;
    switch (destination.type()) {
    case eMsgAddressHub:
        if (destination.id() == HubConstants::ManagerId || destination.id() == HubConstants::RouterId)
            return local(destination.id(), QString(), QString(), true);
        result.reason = "No such service of the Hub";
        return result;
    case eMsgAddressAttached:
        if (destination.machine() != self) {
            result.reason = "No link to that machine";
            return result;
        }
        break;
    case eMsgAddressRouted:
        // This machine as a hop on the way: step on, in the packet's bytes,
        // to the next machine, which the packet is then handed to.
        while (destination.hopMachine() == self && destination.currentHop() < destination.hopCount())
            packet.increaseHop();
        if (destination.hopMachine() != self) {
            result.reason = "No link to that machine";
            return result;
        }
        break;
    case eMsgAddressContext:
        result.reason = "A context address does not leave its process";
        return result;
    default:
        result.reason = "Invalid destination address";
        return result;
    }
    const unsigned id = destination.id();
    if (id)
        return local(id, QString(), QString(), true);
    return local(0, destination.name().toQString(), destination.group().toQString(), true);
}

Router::Result Router::resolve(const MsgAddress& address) const
{
    Result result;
    switch (address.type()) {
    case eMsgAddressHub:
        if (address.id() == HubConstants::ManagerId || address.id() == HubConstants::RouterId)
            return local(address.id(), QString(), QString(), false);
        result.reason = "No such service of the Hub";
        return result;
    case eMsgAddressAttached:
    case eMsgAddressRouted:
        if (address.machine().toUtf8() != moMachineText) {
            result.reason = "No link to that machine";
            return result;
        }
        return local(address.id(), address.name(), address.group(), false);
    default:
        result.reason = "Invalid address";
        return result;
    }
}

} // namespace Brevi
