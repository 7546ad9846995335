#ifndef PROGRAMS_HUB_HUB_H
#define PROGRAMS_HUB_HUB_H

#include "huboptions.h"
#include "notifications.h"
#include "processcreator.h"
#include "processtable.h"
#include "router.h"

#include "core/machinename.h"
#include "core/xmllist.h"

#include <QByteArray>
#include <QString>

#include <boost/shared_ptr.hpp>

#include <map>
#include <memory>

namespace Brevi {

class HubLink;
class HubManager;
class IpcPacket;
class MsgPacket;
class TCPSocketListen;
class TCPSocketSelect;

// The Hub of one machine: one thread, one wait on all its sockets.
//
//     Hub hub(options);
//     if (!hub.listen())
//         return 1;            // the port is taken, or not ours to bind
//     return hub.run();        // until HubMgrShutdownPost or requestStop()
//
// Each turn of the loop waits for the listener and every link (reading, and
// writing where packets wait), accepts new links, takes the packets that have
// come whole, and routes each at once: to the Hub's manager and router
// (HubManager), or into the queue of the destination's link. At the end of
// the turn each link's queue is written as far as its socket takes it, all
// its packets in one write (sooner once 64 KiB have gathered). Whatever
// cannot be delivered goes back to its sender as
// HubRtrUndeliverableMessagePost or HubRtrUndeliverableDataPost.
//
// A link that misbehaves costs only itself: a framing error, a close in
// mid-packet, a packet too large, a link that does not attach in time, one
// that takes no bytes for the stall time or lets its queue pass the maximum,
// one that stops in mid-packet for the stall time, all end that link, and the Hub tells the watchers of its process and
// goes on. A sender to a link whose queue is above the pause mark is not read from until that queue drains, so a fast
// sender cannot make a slow reader's queue grow without bound.
//
// Threads: everything runs on the thread that calls run(); requestStop() may
// be called from a signal handler.
class Hub
{
public:
    explicit Hub(const HubOptions& options);
    ~Hub();
    Hub(const Hub&) = delete;
    Hub& operator=(const Hub&) = delete;

    // Binds 127.0.0.1 at the configured port and listens. False, traced,
    // when the port cannot be had.
    bool listen();
    // Serves until shutdown; the process's exit status.
    int run();
    // Begins shutdown as HubMgrShutdownPost would; a second call ends the
    // loop at once. Safe in a signal handler: it only sets a flag.
    static void requestStop();

    // --- what the manager and router services use --------------------------
    const HubOptions& options() const { return moOptions; }
    const MachineName& machine() const { return moMachine; }
    ProcessTable& processes() { return moProcesses; }
    const Router& router() const { return moRouter; }
    Notifications& notifications() { return moNotifications; }
    ProcessCreator& creator() { return moCreator; }
    unsigned long long now() const;
    bool shuttingDown() const { return mbShuttingDown; }

    // The Hub's own address for a service (1 manager, 2 router):
    // "1/<id>/<machine>".
    QByteArray serviceAddress(unsigned service) const;
    HubLink* link(unsigned serial) const;
    // Sends a message from a Hub service to the end of `link`, addressed to
    // `destination`. A packet too large for a link not yet enabled is
    // dropped and traced.
    void send(HubLink& link, unsigned service, const QByteArray& destination, const QString& name,
              const QString& cookie, const XmlList& body);
    // The same from any source address (a broadcast goes out in its
    // sender's name).
    void sendAs(HubLink& link, const QByteArray& source, const QByteArray& destination, const QString& name,
                const QString& cookie, const XmlList& body);
    // The same to a live process with a link; false when it has none.
    bool post(const ProcessEntry& process, unsigned service, const QString& name, const XmlList& body);
    // Queues what other processes sent a link before it was enabled; called
    // once the enable reply is queued, so that it comes first.
    void releaseHeld(HubLink& link);
    // Sends HubRtrProcessExitedPost and HubRtrProcessReadyPost.
    void deliverExit(const std::vector<Notifications::Post>& posts);
    void deliverReady(const std::vector<Notifications::Post>& posts);
    // The process has ended (its link closed, or a monitored process's
    // operating-system process ended): exit posts, failed ready posts, end
    // of monitor rows; the process's trace buffer is kept.
    void processEnded(const ProcessPointer& process);
    // Sends HubRtrShutdownPost to every process, stops listening, and ends
    // the loop once every link has gone or the shutdown time is up.
    void beginShutdown();

private:
    static volatile int miStopRequests;

    void accept();
    void serve(HubLink& link);
    void handlePacket(HubLink& link, const boost::shared_ptr<IpcPacket>& packet);
    void forward(HubLink& from, const ProcessPointer& to, const boost::shared_ptr<IpcPacket>& packet);
    void undeliverable(HubLink& from, const boost::shared_ptr<IpcPacket>& packet, const char* reason);
    // Queues a packet on a link; a queue over the maximum fails the link.
    void queue(HubLink& link, const boost::shared_ptr<IpcPacket>& packet);
    void write(HubLink& link);
    // Writes every queue that has packets and a socket not known to be full.
    void writeQueued();
    void checkTimers();
    void checkMonitored();
    void sweep();
    void drop(HubLink& link);
    // The data packets a dropped link had not yet taken go back to their
    // senders as undeliverable, one post per sender.
    void returnData(HubLink& link);
    // True while the Hub reads nothing from the link (see the class note).
    bool paused(HubLink& link);

    HubOptions moOptions;
    MachineName moMachine;
    ProcessTable moProcesses;
    Router moRouter;
    Notifications moNotifications;
    ProcessCreator moCreator;
    std::unique_ptr<HubManager> mpManager;
    std::unique_ptr<TCPSocketListen> mpListener;
    // Made once: its sets are large, and each turn only refills them.
    std::unique_ptr<TCPSocketSelect> mpSelect;
    std::map<unsigned, std::unique_ptr<HubLink>> moLinks;
    unsigned muiNextLink = 1;
    unsigned muiNextPacket = 1;
    unsigned long long muiShutdownDeadline = 0;
    unsigned long long muiNextTimerCheck = 0;
    unsigned long long muiNextMonitorCheck = 0;
    unsigned long long muiRelistenAt = 0;
    bool mbShuttingDown = false;
};

} // namespace Brevi

#endif
