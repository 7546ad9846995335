#ifndef PROGRAMS_HUB_HUBMANAGER_H
#define PROGRAMS_HUB_HUBMANAGER_H

#include "processcreator.h"
#include "processtable.h"

#include <QByteArray>
#include <QString>

#include <set>

namespace Brevi {

class Hub;
class HubLink;
class MsgPacket;
class XmlList;

// The messages addressed to the Hub itself, its process manager (id 1) and
// its router (id 2). Each is recognised by its name, whichever of the two ids
// it was sent to; replies carry the request's cookie and leave from the
// service that the vocabulary names as their source (attach, trace buffer,
// monitor and creation replies from the manager; the enable reply and every
// notification from the router).
//
// Attach. HubMgrAttachRequest is the only message a new link may send. Its
// Type must be "Attached" or "Monitored". The reply carries ProcessId,
// MachineName, and ParentAddress when the Hub started the process. A refused
// attach (a live process holds the name and group, an unknown type, the Hub
// is shutting down) is answered with MachineName alone, which the process
// takes as a failed attach, and the link is closed.
//
// Readiness. A process that attached with NotifyReady is ready when it sends
// HubMgrContextReadyPost; any other is ready once its connection is enabled.
//
// Bodies are XmlList text and are parsed here, and only here: the Hub never
// parses a body it forwards. A body that does not parse is traced and the
// message dropped.
//
// Threads: the Hub's one thread.
class HubManager
{
public:
    explicit HubManager(Hub& hub);

    // A message from `link` addressed to the Hub.
    void handle(HubLink& link, const MsgPacket& packet);

    // A process has ended: its monitor subscription and its creation
    // requests go, the monitors are told.
    void processEnded(const ProcessEntry& process);
    // A process's state or title has changed: the monitors are told.
    void processChanged(const ProcessEntry& process);
    // Answers a creation request that has failed (or succeeded) in the end.
    void creationDone(const ProcessCreator::Pending& pending, const QString& status,
                      const ProcessPointer& process = ProcessPointer());
    // Makes the process ready and tells its ready watchers.
    void becomeReady(ProcessEntry& process);

private:
    // The address a reply to `packet` goes to: its source, else the
    // physical address of the process on `link`.
    QByteArray replyTo(const HubLink& link, const MsgPacket& packet) const;
    ProcessPointer processOf(const HubLink& link) const;
    void reply(HubLink& link, const MsgPacket& request, unsigned service, const QString& name, const XmlList& body);

    void attach(HubLink& link, const MsgPacket& packet, const XmlList& body);
    void refuseAttach(HubLink& link, const MsgPacket& packet, const char* reason);
    void traceBuffer(HubLink& link, const MsgPacket& packet);
    void enable(HubLink& link, const MsgPacket& packet);
    void contextReady(HubLink& link);
    void setTitle(HubLink& link, const XmlList& body);
    void monitor(HubLink& link, const MsgPacket& packet);
    void namedProcessList(HubLink& link, const MsgPacket& packet);
    void persistentProcessList(HubLink& link, const MsgPacket& packet);
    void createProcess(HubLink& link, const MsgPacket& packet, const XmlList& body);
    void globalTraceLevel(const XmlList& body);
    void registerExit(HubLink& link, const XmlList& body, bool on);
    void registerReady(HubLink& link, const XmlList& body, bool on);
    void broadcast(HubLink& link, const MsgPacket& packet, const XmlList& body);

    XmlList monitorEntry(const ProcessEntry& process) const;
    void tellMonitors(const QString& name, const XmlList& body);

    Hub& moHub;
    // Processes that asked for the monitor list and are sent its changes.
    std::set<unsigned> moMonitors;
};

} // namespace Brevi

#endif
