#include "hub.h"

#include "hubconstants.h"
#include "hublink.h"
#include "hubmanager.h"

#include "core/context.h"
#include "core/trace.h"
#include "messaging/datamsgpacket.h"
#include "messaging/ipcpacket.h"
#include "messaging/msgaddress.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msgpacket.h"
#include "sockets/tcpsocketdata.h"
#include "sockets/tcpsocketlisten.h"
#include "sockets/tcpsocketselect.h"

#include <QSet>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <chrono>
#include <vector>

#include <cerrno>
#include <csignal>
#include <poll.h>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleHub;
using namespace Catalogue;

// Packets taken from one link in one turn, so that a busy link cannot starve
// the others.
const unsigned PacketsPerTurn = 64;
// Links accepted in one turn.
const unsigned AcceptsPerTurn = 32;
// The longest wait of one turn: how late a timer may be noticed.
const unsigned IdleWaitMs = 500;
const unsigned BusyWaitMs = 50;
// How often the timers are looked at, at most.
const unsigned TimerCheckMs = 20;
// How often monitored processes without a link are looked at.
const unsigned MonitorCheckMs = 250;
// Before another attempt to listen after the listener failed.
const unsigned RelistenMs = 1000;
// Packets for a link gather until the end of the turn, so that they leave in
// one write; this many bytes are written at once.
const unsigned long long WriteAtBytes = 64 * 1024;

const char* failureText(IpcResult result)
{
    switch (result) {
    case eIpcResultClosed:
        return "the link has closed";
    case eIpcResultCorrupt:
        return "bad magic";
    case eIpcResultTooBig:
        return "packet too large";
    case eIpcResultTooSmall:
        return "packet too small";
    default:
        return "receive failed";
    }
}
} // namespace

volatile int Hub::miStopRequests = 0;

Hub::Hub(const HubOptions& options)
    : moOptions(options)
    , moMachine(options.machineName())
    , moProcesses(options.keepExited)
    , moRouter(moMachine, moProcesses)
    , moCreator(options.programsDirectory, options.port)
    , mpManager(new HubManager(*this))
    , mpSelect(new TCPSocketSelect)
{}

Hub::~Hub()
{
    moLinks.clear();
    moProcesses.releaseTraceBuffers();
}

unsigned long long Hub::now() const
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void Hub::requestStop() { miStopRequests = miStopRequests + 1; }

QByteArray Hub::serviceAddress(unsigned service) const
{
    return "1/" + QByteArray::number(service) + '/' + moMachine.toUtf8();
}

HubLink* Hub::link(unsigned serial) const
{
    const auto it = moLinks.find(serial);
    return it == moLinks.end() ? nullptr : it->second.get();
}

bool Hub::listen()
{
    const NetAddress address(QHostAddress::LocalHost, moOptions.port);
    std::unique_ptr<TCPSocketListen> listener(new TCPSocketListen("Hub", address, 64));
    if (!listener->isValid()) {
        BTRACE(TraceAlways) << "Failed to listen on" << address << listener->lastError();
        return false;
    }
    mpListener = std::move(listener);
    BTRACE(TraceAlways) << "Hub" << moMachine.fullName() << "listening on" << address;
    return true;
}

// --- sending ----------------------------------------------------------------------

void Hub::sendAs(HubLink& link, const QByteArray& source, const QByteArray& destination, const QString& name,
                 const QString& cookie, const XmlList& body)
{
    if (link.failed())
        return;
    const boost::shared_ptr<IpcPacket> packet =
        boost::make_shared<MsgPacket>(BinaryAddress(Extent(destination)), BinaryAddress(Extent(source)), QByteArray(),
                                      name, cookie, body, muiNextPacket++, false);
    if (!link.enabled() && packet->size() > HubConstants::UnenabledMaximumSize) {
        BTRACE(TraceAlways) << "Dropped" << name << "of" << packet->size() << "bytes to link" << link.serial()
                            << ": too large before enable";
        return;
    }
    BTRACE(TraceDebug) << "Send" << name << "to" << destination << "on link" << link.serial();
    queue(link, packet);
}

void Hub::send(HubLink& link, unsigned service, const QByteArray& destination, const QString& name,
               const QString& cookie, const XmlList& body)
{
    sendAs(link, serviceAddress(service), destination, name, cookie, body);
}

bool Hub::post(const ProcessEntry& process, unsigned service, const QString& name, const XmlList& body)
{
    HubLink* target = link(process.linkSerial);
    if (!target || target->failed() || target->closing())
        return false;
    send(*target, service, process.physicalText(moMachine), name, QString(), body);
    return true;
}

void Hub::deliverExit(const std::vector<Notifications::Post>& posts)
{
    for (const Notifications::Post& item : posts)
        if (const ProcessPointer watcher = moProcesses.byId(item.watcher)) {
            XmlList body;
            body.set(HubRtrProcessExitedPost::Address, item.address);
            post(*watcher, HubConstants::RouterId, HubRtrProcessExitedPost::Message, body);
        }
}

void Hub::deliverReady(const std::vector<Notifications::Post>& posts)
{
    for (const Notifications::Post& item : posts)
        if (const ProcessPointer watcher = moProcesses.byId(item.watcher)) {
            XmlList body;
            body.set(HubRtrProcessReadyPost::Address, item.address);
            body.set(HubRtrProcessReadyPost::Success, item.success);
            post(*watcher, HubConstants::RouterId, HubRtrProcessReadyPost::Message, body);
        }
}

void Hub::queue(HubLink& link, const boost::shared_ptr<IpcPacket>& packet)
{
    link.enqueue(packet, now());
    if (link.queuedBytes() > moOptions.maximumQueueBytes)
        link.fail("send queue over its maximum: the process does not read");
    else if (!link.blocked() && link.queuedBytes() >= WriteAtBytes)
        write(link);
}

void Hub::releaseHeld(HubLink& link)
{
    for (const boost::shared_ptr<IpcPacket>& packet : link.takeHeld())
        if (!link.failed())
            queue(link, packet);
}

void Hub::writeQueued()
{
    for (auto& item : moLinks) {
        HubLink& link = *item.second;
        if (link.wantsWrite() && !link.blocked())
            write(link);
    }
}

void Hub::write(HubLink& link)
{
    if (link.failed())
        return;
    if (link.flush(now()) == eIpcResultClosed)
        link.fail("write failed");
    else if (link.queuedBytes() > moOptions.maximumQueueBytes)
        link.fail("send queue over its maximum: the process does not read");
}

// --- routing ------------------------------------------------------------------------

void Hub::handlePacket(HubLink& link, const boost::shared_ptr<IpcPacket>& packet)
{
    if (!*packet) {
        // A packet that framed but whose fields do not parse: the receiver
        // has traced it; the link itself is sound.
        BTRACE(TraceAlways) << "Dropped a packet without its fields from link" << link.serial();
        return;
    }
    BTRACE(TraceDebug) << "Packet" << packet->id() << "type" << unsigned(packet->type()) << "size" << packet->size()
                       << "from link" << link.serial() << "to" << packet->destination();
    const Router::Result target = moRouter.route(*packet);
    const bool forHub = target.kind == Router::Result::eManager || target.kind == Router::Result::eRouter;
    if (!link.processId()) {
        // Until it has attached, a link has nobody to be answered as.
        if (forHub && packet->type() == eIpcTypeMessage)
            mpManager->handle(link, static_cast<const MsgPacket&>(*packet));
        else
            BTRACE(TraceAlways) << "Dropped a packet to" << packet->destination() << "from link" << link.serial()
                                << ": not attached";
        return;
    }
    if (forHub) {
        if (packet->type() == eIpcTypeMessage)
            mpManager->handle(link, static_cast<const MsgPacket&>(*packet));
        else
            undeliverable(link, packet, "the Hub takes no data");
        return;
    }
    if (target.kind != Router::Result::eProcess)
        return undeliverable(link, packet, target.reason);
    if (!link.enabled())
        return undeliverable(link, packet, "the connection is not enabled");
    forward(link, target.process, packet);
}

void Hub::forward(HubLink& from, const ProcessPointer& to, const boost::shared_ptr<IpcPacket>& packet)
{
    HubLink* target = link(to->linkSerial);
    if (!target || target->failed() || target->closing())
        return undeliverable(from, packet, "the process is leaving");
    if (!target->enabled()) {
        // Between attach and enable the process waits for the Hub's replies
        // and takes nothing else; what others send it waits for its enable,
        // up to the pause mark.
        if (target->heldBytes() + packet->size() > moOptions.pauseQueueBytes)
            return undeliverable(from, packet, "too much waiting for a connection not yet enabled");
        BTRACE(TraceDebug) << "Held packet" << packet->id() << "for link" << target->serial() << "until enable";
        target->hold(packet);
        return;
    }
    queue(*target, packet);
    if (!target->failed() && target->queuedBytes() > moOptions.pauseQueueBytes && target != &from) {
        BTRACE(TraceVerbose) << "Link" << from.serial() << "paused: link" << target->serial() << "holds"
                             << target->queuedBytes() << "bytes";
        from.setPausedBy(target->serial());
    }
}

void Hub::undeliverable(HubLink& from, const boost::shared_ptr<IpcPacket>& packet, const char* reason)
{
    BTRACE(TraceVerbose) << "Undeliverable to" << packet->destination() << "from link" << from.serial() << ":"
                         << reason;
    const ProcessPointer sender = moProcesses.byId(from.processId());
    const QByteArray destination = packet->source().type() != eMsgAddressInvalid ? Router::text(packet->source())
                                   : sender                                      ? sender->physicalText(moMachine)
                                                                                 : QByteArray();
    if (destination.isEmpty())
        return;
    XmlList body;
    body.set(HubRtrUndeliverableMessagePost::Destination, MsgAddress(packet->destination()).toXml());
    if (packet->type() == eIpcTypeData) {
        send(from, HubConstants::RouterId, destination, HubRtrUndeliverableDataPost::Message, QString(), body);
        return;
    }
    QString name;
    QString cookie;
    XmlList content;
    if (packet->type() == eIpcTypeMessage) {
        const MsgPacket& message = static_cast<const MsgPacket&>(*packet);
        name = message.name();
        cookie = message.cookie();
        content = message.xml();
    } else {
        const DataMsgPacket& message = static_cast<const DataMsgPacket&>(*packet);
        name = message.name();
        cookie = message.cookie();
        content = message.xml();
    }
    body.set(HubRtrUndeliverableMessagePost::Name, name);
    body.set(HubRtrUndeliverableMessagePost::Body, content.isValid() ? content : XmlList());
    body.set(HubRtrUndeliverableMessagePost::Cookie, cookie);
    send(from, HubConstants::RouterId, destination, HubRtrUndeliverableMessagePost::Message, QString(), body);
}

// --- links ------------------------------------------------------------------------

void Hub::accept()
{
    for (unsigned i = 0; i < AcceptsPerTurn && mpListener; ++i) {
        boost::shared_ptr<TCPSocketData> socket = mpListener->accept("Link", 0);
        if (!socket) {
            if (!mpListener->isValid()) {
                // Out of descriptors, for instance: listen afresh later.
                BTRACE(TraceAlways) << "Listener failed" << mpListener->lastError() << ", listen again later";
                mpListener.reset();
                muiRelistenAt = now() + RelistenMs;
            }
            return;
        }
        const unsigned serial = muiNextLink++;
        BTRACE(TraceNormal) << "Accepted link" << serial << "from" << socket->remoteAddress();
        moLinks[serial].reset(new HubLink(serial, socket, now()));
    }
}

bool Hub::paused(HubLink& link)
{
    // A link whose own replies pile up is not read either: it asks faster
    // than it takes the answers.
    if (link.queuedBytes() > moOptions.pauseQueueBytes)
        return true;
    if (!link.pausedBy())
        return false;
    const HubLink* target = this->link(link.pausedBy());
    // Resume at half the mark, so that a link does not flap at it.
    if (target && !target->failed() && target->queuedBytes() > moOptions.pauseQueueBytes / 2)
        return true;
    link.setPausedBy(0);
    return false;
}

void Hub::serve(HubLink& link)
{
    const unsigned long long time = now();
    for (unsigned i = 0; i < PacketsPerTurn && !link.failed() && !paused(link); ++i) {
        boost::shared_ptr<IpcPacket> packet;
        const IpcResult result = link.receive(packet, muiNextPacket++, time);
        if (result == eIpcResultAgain)
            return;
        if (result != eIpcResultOk) {
            link.fail(failureText(result));
            return;
        }
        if (link.closing())
            BTRACE(TraceDebug) << "Dropped a packet from leaving link" << link.serial();
        else
            handlePacket(link, packet);
    }
}

void Hub::processEnded(const ProcessPointer& process)
{
    if (!process->live())
        return;
    BTRACE(TraceNormal) << "Process" << process->processId << process->title << "has ended";
    if (HubLink* own = link(process->linkSerial))
        own->fail("the process has ended");
    moProcesses.remove(process->processId);
    std::vector<Notifications::Post> exits;
    std::vector<Notifications::Post> readies;
    moNotifications.exited(*process, exits, readies);
    deliverExit(exits);
    deliverReady(readies);
    mpManager->processEnded(*process);
}

void Hub::drop(HubLink& link)
{
    BTRACE(link.closing() && !link.failed() ? TraceNormal : TraceAlways)
        << "Link" << link.serial() << "of process" << link.processId()
        << "closed:" << (link.failed() ? link.failReason() : "it has left");
    returnData(link);
    link.close();
    const ProcessPointer process = link.processId() ? moProcesses.byId(link.processId()) : ProcessPointer();
    if (!process || process->linkSerial != link.serial())
        return;
    process->linkSerial = 0;
    if (process->kind == ProcessEntry::eMonitored && process->pidfd >= 0) {
        // A monitored process may run on without its link; it ends when its
        // operating-system process does.
        process->state = ProcessEntry::eStateDetached;
        mpManager->processChanged(*process);
        return;
    }
    processEnded(process);
}

void Hub::returnData(HubLink& gone)
{
    // A sender waiting for its receiver's acknowledgements would otherwise
    // wait on: what it sent is lost with the link.
    QSet<QByteArray> told;
    for (const boost::shared_ptr<IpcPacket>& packet : gone.takeUnsent()) {
        if (packet->type() != eIpcTypeData)
            continue;
        const QByteArray source = Router::text(packet->source());
        if (told.contains(source))
            continue;
        told.insert(source);
        const Router::Result sender = moRouter.resolve(MsgAddress(packet->source()));
        HubLink* from = sender.kind == Router::Result::eProcess ? link(sender.process->linkSerial) : nullptr;
        if (from && from != &gone && !from->failed())
            undeliverable(*from, packet, "its process has gone");
    }
}

void Hub::sweep()
{
    // Dropping a link can fail others (a post that overflows a queue), so
    // repeat until a pass finds none.
    for (bool again = true; again;) {
        again = false;
        for (auto it = moLinks.begin(); it != moLinks.end();) {
            HubLink& link = *it->second;
            if (link.failed() || (link.closing() && !link.wantsWrite())) {
                drop(link);
                it = moLinks.erase(it);
                again = true;
            } else {
                ++it;
            }
        }
    }
}

// --- time -----------------------------------------------------------------------

void Hub::checkMonitored()
{
    std::vector<ProcessPointer> watched;
    std::vector<pollfd> fds;
    for (const ProcessPointer& process : moProcesses.live())
        if (process->pidfd >= 0) {
            watched.push_back(process);
            fds.push_back(pollfd{process->pidfd, POLLIN, 0});
        }
    if (fds.empty() || ::poll(fds.data(), fds.size(), 0) <= 0)
        return;
    for (size_t i = 0; i < fds.size(); ++i)
        if (fds[i].revents)
            processEnded(watched[i]);
}

void Hub::checkTimers()
{
    const unsigned long long time = now();
    // A busy Hub turns thousands of times a second; its timers need not.
    if (time < muiNextTimerCheck)
        return;
    muiNextTimerCheck = time + TimerCheckMs;
    for (auto& item : moLinks) {
        HubLink& link = *item.second;
        if (link.failed())
            continue;
        if (paused(link))
            link.holdReceive(time);
        if (!link.processId() && !link.closing() && time - link.createdAt() > moOptions.attachTimeoutMs)
            link.fail("no attach in time");
        else if (link.stalledFor(time) > moOptions.stallTimeoutMs)
            link.fail("the process takes no bytes");
        else if (link.partialFor(time) > moOptions.stallTimeoutMs)
            link.fail("the process stopped in mid-packet");
    }
    for (const ProcessCreator::Pending& pending : moCreator.expired(time))
        mpManager->creationDone(pending, HubMgrCreateProcessReply::StatusAttachFailed);
    moCreator.reap();
    if (time >= muiNextMonitorCheck) {
        checkMonitored();
        muiNextMonitorCheck = time + MonitorCheckMs;
    }
    if (!mpListener && !mbShuttingDown && time >= muiRelistenAt) {
        if (!listen())
            muiRelistenAt = time + RelistenMs;
    }
}

// --- shutdown and the loop --------------------------------------------------------

void Hub::beginShutdown()
{
    if (mbShuttingDown)
        return;
    mbShuttingDown = true;
    muiShutdownDeadline = now() + moOptions.shutdownTimeoutMs;
    BTRACE(TraceAlways) << "Shutdown: telling" << unsigned(moProcesses.live().size()) << "processes";
    mpListener.reset();
    for (const ProcessCreator::Pending& pending : moCreator.takeAll())
        mpManager->creationDone(pending, HubMgrCreateProcessReply::StatusShutdown);
    for (const ProcessPointer& process : moProcesses.live())
        post(*process, HubConstants::RouterId, HubRtrShutdownPost::Message, XmlList());
    for (auto& item : moLinks)
        if (!item.second->processId())
            item.second->fail("shutdown");
}

int Hub::run()
{
    TCPSocketSelect& select = *mpSelect;
    std::vector<HubLink*> readable;
    std::vector<HubLink*> writable;
    for (;;) {
        if (miStopRequests > 1) {
            BTRACE(TraceAlways) << "Stopped at once";
            break;
        }
        if (miStopRequests == 1 && !mbShuttingDown)
            beginShutdown();
        sweep();
        if (mbShuttingDown && (moLinks.empty() || now() >= muiShutdownDeadline))
            break;

        select.zero();
        if (mpListener)
            select.set(*mpListener, TCPSocketSelect::Read);
        for (auto& item : moLinks) {
            HubLink& link = *item.second;
            if (!paused(link))
                select.set(*link.socket(), TCPSocketSelect::Read);
            if (link.wantsWrite())
                select.set(*link.socket(), TCPSocketSelect::Write);
        }
        const unsigned wait = mbShuttingDown || moCreator.waiting() ? BusyWaitMs : IdleWaitMs;
        if (!select.count()) {
            // Nothing to wait on (the listener is being set up again).
            Context::sleep(wait);
            checkTimers();
            continue;
        }
        // Packets already read ahead from a socket are served at once.
        bool backlog = false;
        for (auto& item : moLinks)
            backlog = backlog || (item.second->buffered() && !item.second->failed() && !paused(*item.second));
        const TCPError result = select.wait(backlog ? 0 : wait);
        readable.clear();
        writable.clear();
        bool listenerReady = false;
        if (result == eTCPErrorNone) {
            for (auto& item : moLinks) {
                HubLink& link = *item.second;
                if (select.isSet(*link.socket(), TCPSocketSelect::Read))
                    readable.push_back(&link);
                if (select.isSet(*link.socket(), TCPSocketSelect::Write))
                    writable.push_back(&link);
            }
            listenerReady = mpListener && select.isSet(*mpListener, TCPSocketSelect::Read);
        } else if (result != eTCPErrorTimeout && result != eTCPErrorInterrupted) {
            BTRACE(TraceAlways) << "Unexpected error waiting on select" << result;
            select.display();
            Context::sleep(BusyWaitMs);
        }
        if (backlog)
            for (auto& item : moLinks) {
                HubLink* link = item.second.get();
                if (link->buffered() && !paused(*link) &&
                    std::find(readable.begin(), readable.end(), link) == readable.end())
                    readable.push_back(link);
            }
        for (HubLink* link : writable)
            write(*link);
        for (HubLink* link : readable)
            serve(*link);
        if (listenerReady)
            accept();
        checkTimers();
        writeQueued();
    }

    BTRACE(TraceAlways) << "Hub stops with" << unsigned(moLinks.size()) << "links";
    for (auto& item : moLinks)
        item.second->fail("the Hub stops");
    sweep();
    moProcesses.releaseTraceBuffers();
    return 0;
}

} // namespace Brevi
