#ifndef PROGRAMS_HUB_ROUTER_H
#define PROGRAMS_HUB_ROUTER_H

#include "processtable.h"

#include "core/machinename.h"

#include <QByteArray>

namespace Brevi {

class BinaryAddress;
class IpcPacket;
class MsgAddress;

// Where a packet goes, decided on the flat text of its destination alone: a
// router never builds a MsgAddress, and never looks at a body it forwards.
//
//   "3/1", "3/2"                  the Hub's manager and router
//   "1/<id>/<this machine>"       ids 1 and 2 are the Hub's; any other id is
//                                 an attached process's ProcessId
//   "1/0/<this machine>/n[/g]"    the live process with name n and group g
//   "4/..."                       routed: if the current hop is this machine
//                                 the hop is stepped on; at the last hop it is
//                                 delivered here as above
//   another machine               through the link to that machine; there is
//                                 none yet, so such a packet is undeliverable
//   "2/<id>", anything else       undeliverable: a context address never
//                                 leaves its process
//
// Threads: the Hub's one thread.
class Router
{
public:
    struct Result {
        enum Kind { eManager, eRouter, eProcess, eUndeliverable } kind = eUndeliverable;
        // For eProcess.
        ProcessPointer process;
        // For eUndeliverable: why, for the trace.
        const char* reason = nullptr;
    };

    Router(const MachineName& machine, const ProcessTable& processes);

    // Decides for the packet's destination: a routed form's hop letter is
    // stepped in the packet's own bytes when this machine is the current hop
    // and not the last.
    Result route(IpcPacket& packet) const;

    // Resolves a structured address the same way, for registrations made
    // by address (exit and ready notifications); a live process is found
    // also when it has no link.
    Result resolve(const MsgAddress& address) const;

    // The flat text of an address, copied: the views of a packet's fields
    // die with the packet.
    static QByteArray text(const BinaryAddress& address);

    // This machine's name as it stands in flat addresses.
    const QByteArray& machineText() const { return moMachineText; }

private:
    Result local(unsigned id, const QString& name, const QString& group, bool needLink) const;

    QByteArray moMachineText;
    const ProcessTable& moProcesses;
};

} // namespace Brevi

#endif
