#ifndef PROGRAMS_HUB_HUBCONSTANTS_H
#define PROGRAMS_HUB_HUBCONSTANTS_H

#include "messaging/msgaddresstype.h"

#include <QString>

// What the Hub decides for itself, in one place: the words and numbers that
// its peers, its tools and its tests rely on.
//
// Identity. The Hub is the process manager (id 1) and the router (id 2) of
// its machine. Messages reach it at "3/1" and "3/2" (the Hub at the other end
// of a process's link) or at "1/1/<machine>" and "1/2/<machine>"; its own
// messages leave from the latter two. The machine name is "node@machineid".
//
// Process ids. A process that attaches gets a ProcessId that is never given
// twice while the Hub runs, counted from FirstProcessId on, so that a stale
// numeric address never reaches a newcomer. The exception is a well-known
// name: a process that attaches with the log daemon's name and no group gets
// eWellKnownLogDaemon (8), so that every process reaches it at (machine, 8)
// without asking; since two live processes never share a name, two never
// share id 8.
//
// Link rules. Until the Hub has answered HubMgrConnectionEnableRequest a link
// may speak only to the Hub, and a packet above 65,536 bytes from it ends the
// link (the receiver's framing limit); afterwards the limit is the Hub's
// maximum packet size. The Hub never sends a link that is not yet enabled a
// packet above 65,536 bytes either: the process's receiver would drop the
// link. Nor does it pass such a link what other processes send it: between
// attach and enable the process waits for the Hub's replies (trace buffer,
// enable) and fails its start on anything else. Those packets are held and
// follow the enable reply, in their order; beyond the pause mark they go
// back to their senders as undeliverable. A link that does not attach within
// the attach time is dropped.
//
// Monitor replies. HubMgrMonitorReply carries EntryCount and then one nested
// list per process under the key "Entry" (as HubMgrNamedProcessListReply
// does), each with Id (the Hub's registration number), ProcessId, OSPid,
// ContextId, State (one of the state words below), Title, TraceId (the trace
// buffer's SharedMemoryId as a nested list, absent without a buffer),
// StartTime (milliseconds since 1970, uint64), Group and Name, and for a
// process the Hub started on request ParentAddress, the address of the
// process that asked (as in the attach reply), so that a tool can show and
// follow a tree of processes. Processes that
// have ended and whose trace buffers the Hub still keeps are listed with the
// state "Exited", so that a tool can read their trace after death. A link
// that asks for the list is also sent HubMgrMonitorProcessNewPost,
// HubMgrMonitorProcessChangePost and HubMgrMonitorProcessEndPost from then on.
namespace Brevi {
namespace HubConstants {

const unsigned DefaultPort = 30303;
// The environment variable that moves the Hub, and every process that
// attaches to it, to another port.
const char* const PortVariable = "BREVI_HUB_PORT";

const unsigned ManagerId = eWellKnownHubManager;
const unsigned RouterId = eWellKnownHubRouter;
// Ids below this one are kept for well-known processes.
const unsigned FirstProcessId = 16;

// The log daemon's well-known name: the local log service's own word.
inline const QString LogDaemonName = QStringLiteral("LogDaemonLocal");

// The limit of a link before it is enabled, both ways.
const unsigned UnenabledMaximumSize = 65536;

// State words of the monitor messages.
inline const QString StateAttached = QStringLiteral("Attached");
inline const QString StateEnabled = QStringLiteral("Enabled");
inline const QString StateReady = QStringLiteral("Ready");
inline const QString StateDetached = QStringLiteral("Detached");
inline const QString StateExited = QStringLiteral("Exited");

// The key of each process's nested list in the monitor reply.
inline const QString MonitorEntry = QStringLiteral("Entry");
// The starter's address in a monitor entry: the attach reply's key.
inline const QString MonitorParentAddress = QStringLiteral("ParentAddress");

} // namespace HubConstants
} // namespace Brevi

#endif
