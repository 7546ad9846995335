#include "process/childmanager.h"

#include "core/context.h"
#include "core/trace.h"
#include "messaging/messaging.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msgcondition.h"
#include "process/child.h"

#include <QStringList>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <functional>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleChildManager;
using namespace Catalogue;

const char* const StateNames[] = {"CMStarting", "CMRunning",  "CMFreezing", "CMFrozen",
                                  "CMThawing",  "CMStopping", "CMStopped"};

// A child whose record says it is in one of the states from `low` to `high`.
bool between(ChildManager::State state, ChildManager::State low, ChildManager::State high)
{
    return state >= low && state <= high;
}

// Messaging::requeue puts each message in front of the last; handed the list
// backwards, it leaves them in the order they came.
QList<Msg> reversed(const QList<Msg>& messages)
{
    QList<Msg> result;
    result.reserve(messages.size());
    for (int i = messages.size() - 1; i >= 0; --i)
        result.append(messages.at(i));
    return result;
}
} // namespace

unsigned ChildManager::muiNextId = 1;

const char* ChildManager::stateName(State state)
{
    return unsigned(state) <= CMStopped ? StateNames[state] : "CMUnknown";
}

Trace& operator<<(Trace& trace, ChildManager::State state) { return trace << ChildManager::stateName(state); }

// --- the conditions its waits end on ----------------------------------------

// Asks `test` whether a waiter is finished, and with what flag; keeps a true
// answer.
class ConditionFlag : public MsgCondition
{
public:
    explicit ConditionFlag(const std::function<bool(bool&)>& test)
        : moTest(test)
    {}
    bool done() override
    {
        if (!mbDone && moTest(mbSuccess))
            setDone(true);
        return mbDone;
    }
    bool success() const { return mbSuccess; }

    // Finished at once (the flag as it stands), or waited for without limit:
    // the flag counts when the wait ended on this condition.
    bool settle()
    {
        if (done())
            return mbSuccess;
        return Msg::wait(*this, -1) == eMsgResultOk && mbSuccess;
    }

private:
    std::function<bool(bool&)> moTest;
    bool mbSuccess = false;
};

class ConditionThawed : public ConditionFlag
{
public:
    explicit ConditionThawed(const ChildManager& manager)
        : ConditionFlag([&manager](bool& flag) { return manager.thawed(flag); })
    {}
};

class ConditionExited : public ConditionFlag
{
public:
    ConditionExited(const ChildManager& manager, const ChildManager::ChildPointer& child)
        : ConditionFlag([&manager, child](bool& flag) { return manager.exited(flag, child); })
    {}
};

class ConditionReady : public ConditionFlag
{
public:
    ConditionReady(const ChildManager& manager, const ChildManager::ChildPointer& child)
        : ConditionFlag([&manager, child](bool& flag) { return manager.ready(flag, child); })
    {}
};

class ConditionChildrenExited : public MsgCondition
{
public:
    explicit ConditionChildrenExited(const ChildManager& manager)
        : mrManager(manager)
    {}
    bool done() override
    {
        if (!mbDone && mrManager.moChildren.isEmpty())
            setDone(true);
        return mbDone;
    }

private:
    const ChildManager& mrManager;
};

// --- construction ---------------------------------------------------------------

ChildManager::ChildManager() = default;

// The handlers are bound to the object that registered them: a copy takes
// the records and the state, and registers nothing.
ChildManager::ChildManager(const ChildManager& other)
    : moChildren(other.moChildren)
    , meState(other.meState)
    , moFreezeMessage(other.moFreezeMessage)
    , moRouterAddress(other.moRouterAddress)
    , moDeferred(other.moDeferred)
    , mbFreezeSuccessful(other.mbFreezeSuccessful)
    , mbThawSuccessful(other.mbThawSuccessful)
    , meHonorHubShutdown(other.meHonorHubShutdown)
{}

ChildManager& ChildManager::operator=(const ChildManager& other)
{
    if (this == &other)
        return *this;
    moHandlers.removeAll();
    mbInitialized = false;
    moChildren = other.moChildren;
    meState = other.meState;
    moFreezeMessage = other.moFreezeMessage;
    moRouterAddress = other.moRouterAddress;
    moDeferred = other.moDeferred;
    mbFreezeSuccessful = other.mbFreezeSuccessful;
    mbThawSuccessful = other.mbThawSuccessful;
    meHonorHubShutdown = other.meHonorHubShutdown;
    return *this;
}

ChildManager::~ChildManager() = default;

ChildManager::HandlerPointer ChildManager::bound(MsgResult (ChildManager::*member)(const Msg&))
{
    return boost::make_shared<MsgHandlerFunction>(
        [this, member](const Msg& message) { return (this->*member)(message); });
}

bool ChildManager::isManagerMessage(const QString& name, HonorHubShutdown honor)
{
    static const QStringList names{ChildMgrShutdownPost::Message,    MsgConnectedPost::Message,
                                   MsgDisconnectedPost::Message,     HubRtrProcessReadyPost::Message,
                                   HubRtrProcessExitedPost::Message, MsgIpcClosedPost::Message,
                                   ChildMgrFreezeRequest::Message,   ChildMgrFreezeReply::Message,
                                   ChildMgrThawRequest::Message,     ChildMgrThawReply::Message};
    return names.contains(name) || (honor == eHonorHubShutdown && name == HubRtrShutdownPost::Message);
}

void ChildManager::initialize(State state, HonorHubShutdown honor)
{
    BTRACE(TraceNormal) << "IN:initialize" << state << int(honor);
    meState = state;
    meHonorHubShutdown = honor;
    // Only a context attached to the Hub knows its machine and can reach the
    // router; a thread's manager learns of its children's ends from them.
    if (!Context::machineName().isEmpty())
        moRouterAddress = MsgAddress(eWellKnownHubRouter);
    if (const boost::shared_ptr<Messaging> messaging = Context::messaging())
        messaging->notifyIpcClosed();

    moHandlers.add(ChildMgrShutdownPost::Message, bound(&ChildManager::handleShutdown));
    if (honor == eHonorHubShutdown)
        moHandlers.add(HubRtrShutdownPost::Message, bound(&ChildManager::handleShutdown));
    moHandlers.add(MsgConnectedPost::Message, bound(&ChildManager::handleThreadConnect));
    moHandlers.add(MsgDisconnectedPost::Message, bound(&ChildManager::handleThreadDisconnect));
    moHandlers.add(HubRtrProcessReadyPost::Message, bound(&ChildManager::handleProcessReady));
    moHandlers.add(HubRtrProcessExitedPost::Message, bound(&ChildManager::handleProcessExit));
    moHandlers.add(MsgIpcClosedPost::Message, bound(&ChildManager::handleIpcClosed));
    moHandlers.add(ChildMgrFreezeRequest::Message, bound(&ChildManager::handleFreezeRequest));
    moHandlers.add(ChildMgrFreezeReply::Message, bound(&ChildManager::handleFreezeReply));
    moHandlers.add(ChildMgrThawRequest::Message, bound(&ChildManager::handleThawRequest));
    moHandlers.add(ChildMgrThawReply::Message, bound(&ChildManager::handleThawReply));
    mbInitialized = true;
}

void ChildManager::release()
{
    if (!mbInitialized)
        return;
    BTRACE(TraceNormal) << "IN:release" << meState << childCount();
    // Freeze and thaw are over; what tells of starts and ends stays until
    // the last child has gone.
    QStringList keep{ChildMgrShutdownPost::Message,   MsgConnectedPost::Message,        MsgDisconnectedPost::Message,
                     HubRtrProcessReadyPost::Message, HubRtrProcessExitedPost::Message, MsgIpcClosedPost::Message};
    if (meHonorHubShutdown == eHonorHubShutdown)
        keep.append(HubRtrShutdownPost::Message);
    moHandlers.removeAllExcept(keep);

    for (const ChildPointer& child : QList<ChildPointer>(moChildren))
        if (child->waitForExit() != Child::eWaitForExit)
            forget(child);
    if (!moChildren.isEmpty()) {
        BTRACE(TraceNormal) << "Wait for" << childCount() << "children to exit";
        if (meState != CMStopping)
            Msg(Context::address(), ChildMgrShutdownPost::Message).send();
        ConditionChildrenExited exited(*this);
        // A handler's eMsgResultExit ends one wait, not this one: only a
        // messaging that can no longer deliver ends it early.
        MsgResult result = eMsgResultExit;
        while (!exited.done() && result == eMsgResultExit)
            result = Msg::wait(exited, -1);
        if (!moChildren.isEmpty())
            BTRACE(TraceAlways) << "Wait for children ended with" << int(result) << "," << childCount() << "left";
    }
    moHandlers.removeAll();
    moChildren.clear();
    mbInitialized = false;
}

bool ChildManager::notInitialized(const char* call) const
{
    if (mbInitialized)
        return false;
    BTRACE(TraceAlways) << "Error: `mbInitialized' failed.";
    BTRACE(TraceAlways) << "NOT INITIALIZED" << call;
    return true;
}

bool ChildManager::contextReady()
{
    if (notInitialized("contextReady"))
        return false;
    if (moRouterAddress && !Msg(MsgAddress(eWellKnownHubManager), HubMgrContextReadyPost::Message).send())
        BTRACE(TraceNormal) << "Failed to send" << HubMgrContextReadyPost::Message;
    return state(CMRunning);
}

// --- the states ---------------------------------------------------------------

bool ChildManager::state(State next)
{
    if (next == meState)
        return false;
    const State previous = meState;
    BTRACE(TraceNormal) << "State from" << previous << "to" << next;
    meState = next;
    switch (next) {
    case CMStarting:
    case CMStopped:
        break;
    case CMRunning:
        if (!moDeferred.isEmpty()) {
            BTRACE(TraceNormal) << "Requeue" << unsigned(moDeferred.size()) << "deferred messages";
            Msg::requeue(reversed(moDeferred));
            moDeferred.clear();
        }
        break;
    case CMFreezing: {
        if (previous != CMRunning) {
            BTRACE(TraceNormal) << "No freeze from" << previous;
            meState = previous;
            return false;
        }
        // A freeze waits for answers from every freezable child: one that is
        // still starting, or between states, could not give one.
        const bool unsettled = std::any_of(moChildren.begin(), moChildren.end(), [](const ChildPointer& child) {
            return child->freezeType() == Child::eFreezable && child->state() != CMRunning;
        });
        if (unsettled) {
            BTRACE(TraceNormal) << "A child is not running: no freeze";
            meState = CMRunning;
            return false;
        }
        for (const ChildPointer& child : QList<ChildPointer>(moChildren))
            child->freeze();
        mbFreezeSuccessful = false;
        mbThawSuccessful = false;
        break;
    }
    case CMFrozen:
        if (moFreezeMessage && !isOwnAddress(moFreezeMessage.source())) {
            XmlList body;
            body.set(ChildMgrFreezeReply::Success, true);
            if (!moFreezeMessage.reply(ChildMgrFreezeReply::Message, body))
                BTRACE(TraceAlways) << "Failed to send" << ChildMgrFreezeReply::Message << "to"
                                    << moFreezeMessage.source();
        }
        mbFreezeSuccessful = true;
        mbThawSuccessful = true;
        break;
    case CMThawing:
        if (previous != CMFreezing && previous != CMFrozen) {
            BTRACE(TraceNormal) << "No thaw from" << previous;
            meState = previous;
            return false;
        }
        // Children still freezing are thawed when their answer comes.
        for (const ChildPointer& child : QList<ChildPointer>(moChildren))
            if (child->state() == CMFrozen) {
                child->send(ChildMgrThawRequest::Message, XmlList(), QString());
                child->state(CMThawing);
            }
        break;
    case CMStopping:
        moDeferred.clear();
        for (const ChildPointer& child : QList<ChildPointer>(moChildren))
            if (child->shutdown())
                forget(child);
        break;
    }
    return true;
}

bool ChildManager::frozen()
{
    if (notInitialized("frozen"))
        return false;
    return state(CMFrozen);
}

bool ChildManager::thaw()
{
    if (notInitialized("thaw"))
        return false;
    return state(CMThawing);
}

bool ChildManager::thawed()
{
    if (notInitialized("thawed"))
        return false;
    if (moFreezeMessage && !isOwnAddress(moFreezeMessage.source())) {
        XmlList body;
        if (mbFreezeSuccessful) {
            body.set(ChildMgrThawReply::Success, mbThawSuccessful);
            moFreezeMessage.reply(ChildMgrThawReply::Message, body);
        } else {
            // The freeze never came about: its asker still waits for that
            // answer.
            body.set(ChildMgrFreezeReply::Success, false);
            moFreezeMessage.reply(ChildMgrFreezeReply::Message, body);
        }
        notifyRouter(HubRtrUnregisterNotifyOnExitPost::Message, moFreezeMessage.source());
    }
    moFreezeMessage = Msg();
    return state(CMRunning);
}

bool ChildManager::childrenFrozen() const
{
    if (notInitialized("childrenFrozen"))
        return false;
    return std::all_of(moChildren.begin(), moChildren.end(), [](const ChildPointer& child) {
        return child->peer() || child->freezeType() == Child::eNotFreezable || child->state() == CMFrozen;
    });
}

bool ChildManager::childrenThawed() const
{
    if (notInitialized("childrenThawed"))
        return false;
    return std::all_of(moChildren.begin(), moChildren.end(), [](const ChildPointer& child) {
        return child->peer() || child->freezeType() == Child::eNotFreezable || child->state() == CMRunning;
    });
}

// --- waits ----------------------------------------------------------------------

bool ChildManager::thawed(bool& flag) const
{
    switch (meState) {
    case CMRunning:
        flag = true;
        return true;
    case CMFrozen:
    case CMThawing:
        return false;
    default:
        return true;
    }
}

bool ChildManager::ready(bool& flag, const ChildPointer& child) const
{
    if (meState == CMStopping) {
        BTRACE(TraceNormal) << "Stopping";
        return true;
    }
    if (!contains(child)) {
        BTRACE(TraceNormal) << "Child is no longer available";
        return true;
    }
    if (child->state() == CMStarting)
        return false;
    flag = between(child->state(), CMRunning, CMThawing);
    return true;
}

bool ChildManager::exited(bool& flag, const ChildPointer& child) const
{
    if (contains(child))
        return false;
    BTRACE(TraceNormal) << "Thread no longer available";
    flag = true;
    return true;
}

bool ChildManager::waitForThaw()
{
    ConditionThawed condition(*this);
    return condition.settle();
}

bool ChildManager::waitForReady(ChildPointer child)
{
    if (!child)
        return false;
    ConditionReady condition(*this, child);
    return condition.settle();
}

bool ChildManager::waitForExit(ChildPointer child)
{
    if (!child)
        return false;
    ConditionExited condition(*this, child);
    return condition.settle();
}

// --- the list -------------------------------------------------------------------

bool ChildManager::contains(const ChildPointer& child) const { return moChildren.contains(child); }

void ChildManager::forget(const ChildPointer& child) { moChildren.removeAll(child); }

bool ChildManager::isOwnAddress(const MsgAddress& address) const { return address == Context::address(); }

void ChildManager::notifyRouter(const QString& name, const MsgAddress& address, bool flush) const
{
    if (!moRouterAddress) {
        BTRACE(TraceDebug) << "No Hub to send" << name << "for" << address;
        return;
    }
    Msg post(moRouterAddress, name);
    post.set(HubRtrRegisterNotifyOnExitPost::Address, address.toXml());
    if (!post.send(flush))
        BTRACE(TraceNormal) << "Failed to send" << name << "for" << address;
}

bool ChildManager::addChild(const ChildPointer& child)
{
    if (notInitialized("addChild") || !child)
        return false;
    if (!child->thread())
        notifyRouter(HubRtrRegisterNotifyOnReadyPost::Message, child->address());
    else
        child->address(MsgAddress());
    child->state(CMStarting);
    moChildren.append(child);
    BTRACE(TraceNormal) << "Child" << child->name() << child->address() << "added";
    return true;
}

bool ChildManager::addPeer(const ChildPointer& child, bool running)
{
    if (notInitialized("addPeer") || !child)
        return false;
    if (child->thread()) {
        BTRACE(TraceAlways) << "Failed to add a thread as a peer";
        return false;
    }
    child->mbPeer = true;
    if (running) {
        child->state(CMRunning);
        notifyRouter(HubRtrRegisterNotifyOnExitPost::Message, child->address());
    } else {
        child->state(CMStarting);
        notifyRouter(HubRtrRegisterNotifyOnReadyPost::Message, child->address());
    }
    moChildren.append(child);
    BTRACE(TraceNormal) << "Peer" << child->name() << child->address() << "added";
    return true;
}

bool ChildManager::removeChild(ChildPointer child)
{
    if (notInitialized("removeChild") || !child)
        return false;
    if (child->peer()) {
        BTRACE(TraceAlways) << "Attempt to remove peer with a call to removeChild";
        return false;
    }
    if (child->thread()) {
        BTRACE(TraceAlways) << "Attempt to remove a thread is an error";
        return false;
    }
    return unwatch(child, "Unknown child");
}

bool ChildManager::removePeer(ChildPointer child)
{
    if (notInitialized("removePeer") || !child)
        return false;
    if (!child->peer()) {
        BTRACE(TraceAlways) << "Attempt to remove non-peer with a call to removePeer";
        return false;
    }
    return unwatch(child, "Unknown peer");
}

bool ChildManager::unwatch(const ChildPointer& child, const char* unknown)
{
    if (!contains(child)) {
        BTRACE(TraceAlways) << unknown << child->name();
        return false;
    }
    // One still starting keeps its ready watch with the Hub, which answers it
    // into the void.
    if (between(child->state(), CMRunning, CMStopping))
        notifyRouter(HubRtrUnregisterNotifyOnExitPost::Message, child->address());
    forget(child);
    child->state(CMStopped);
    return true;
}

ChildManager::ChildPointer ChildManager::child(const QString& name) const
{
    for (const ChildPointer& child : moChildren)
        if (child->name() == name)
            return child;
    return ChildPointer();
}

ChildManager::ChildPointer ChildManager::child(const MsgAddress& address) const
{
    for (const ChildPointer& child : moChildren)
        if (child->address() == address)
            return child;
    return ChildPointer();
}

// --- shutdown, deferring, the owner's handlers ------------------------------------

bool ChildManager::shutdown()
{
    if (meState >= CMStopping)
        return false;
    // Through the loop, so that the state changes where the owner expects it.
    return Msg(Context::address(), ChildMgrShutdownPost::Message).send();
}

bool ChildManager::shutdownNow()
{
    if (meState >= CMStopping)
        return false;
    return state(CMStopping);
}

bool ChildManager::deferred(const Msg& message)
{
    if (notInitialized("deferred"))
        return false;
    switch (meState) {
    case CMRunning:
        return false;
    case CMStopping:
    case CMStopped:
        BTRACE(TraceNormal) << "Discard" << message.name() << "in state" << meState;
        return true;
    default:
        BTRACE(TraceNormal) << "Defer" << message.name() << "in state" << meState;
        moDeferred.append(message);
        return true;
    }
}

bool ChildManager::addMsgHandler(const QString& name, const HandlerPointer& handler)
{
    if (isManagerMessage(name, meHonorHubShutdown)) {
        BTRACE(TraceAlways) << "The child manager handles" << name << "itself";
        return false;
    }
    return moHandlers.add(name, handler);
}

void ChildManager::removeMsgHandler(const QString& name)
{
    if (!isManagerMessage(name, meHonorHubShutdown))
        moHandlers.remove(name);
}

QString ChildManager::nextId() { return QString::number(muiNextId++); }

// --- checking ----------------------------------------------------------------------

void ChildManager::checkState(bool& changed, MsgResult& result, const Msg&)
{
    const State entry = meState;
    if (meState == CMThawing && childrenThawed())
        thawed();
    if (meState == CMStopping && moChildren.isEmpty())
        result = eMsgResultExit;
    if (meState != entry)
        changed = true;
}

void ChildManager::simpleFreezeCheckState(bool& changed, MsgResult& result, const Msg&)
{
    if (meState != CMFreezing)
        return;
    if (childrenFrozen()) {
        frozen();
        waitForThaw();
        if (meState != CMRunning)
            result = eMsgResultExit;
    }
    if (meState != CMFreezing)
        changed = true;
}

bool ChildManager::checkForFreeze()
{
    if (meState != CMFreezing || !childrenFrozen())
        return true;
    frozen();
    return waitForThaw();
}

MsgResult ChildManager::finish(State entry, MsgResult result, const Msg& message)
{
    bool changed = meState != entry;
    checkState(changed, result, message);
    return result;
}

// --- the handlers ----------------------------------------------------------------

MsgResult ChildManager::handleShutdown(const Msg& message)
{
    const State entry = meState;
    BTRACE(TraceNormal) << "Shutdown:" << message;
    state(CMStopping);
    return finish(entry, eMsgResultHandled, message);
}

void ChildManager::joinIn(const ChildPointer& child, const char* event)
{
    switch (meState) {
    case CMFreezing:
        child->freeze();
        break;
    case CMFrozen:
    case CMThawing:
        // A freeze begins only once every child runs.
        BTRACE(TraceAlways) << "Should not get here:" << child->name() << event << "in" << meState;
        break;
    case CMStopping:
        if (child->shutdown())
            forget(child);
        break;
    default:
        break;
    }
}

MsgResult ChildManager::handleProcessReady(const Msg& message)
{
    const State entry = meState;
    MsgResult result = eMsgResultNotHandled;
    const MsgAddress address(message.getXmlList(HubRtrProcessReadyPost::Address));
    const ChildPointer child = this->child(address);
    if (child) {
        result = eMsgResultHandled;
        if (!message.get(HubRtrProcessReadyPost::Success, false)) {
            BTRACE(TraceAlways) << child->name() << "Has exited unexpectedly";
            if (!child->thread()) {
                forget(child);
                child->state(CMStopped);
            }
        } else if (child->state() != CMStopping) {
            if (!child->thread() || child->address().type() != eMsgAddressContext)
                notifyRouter(HubRtrRegisterNotifyOnExitPost::Message, child->address());
            child->state(CMRunning);
            joinIn(child, "ready");
        }
    }
    return finish(entry, result, message);
}

MsgResult ChildManager::handleProcessExit(const Msg& message)
{
    const State entry = meState;
    const MsgAddress address(message.getXmlList(HubRtrProcessExitedPost::Address));
    if (moFreezeMessage && address == moFreezeMessage.source()) {
        // The one who ordered the freeze has gone: nobody will thaw it.
        BTRACE(TraceNormal) << "The freezer" << address << "has exited";
        moFreezeMessage = Msg();
        switch (meState) {
        case CMFreezing:
        case CMFrozen:
            state(CMThawing);
            break;
        case CMThawing:
            break;
        default:
            BTRACE(TraceAlways) << "Should not get here: freezer gone in" << meState;
            break;
        }
    }
    bool shutdownNeeded = false;
    for (const ChildPointer& child : QList<ChildPointer>(moChildren)) {
        if (child->thread() || child->address() != address || child->state() == CMStarting)
            continue;
        BTRACE(TraceNormal) << "Child" << child->name() << address << "has exited";
        forget(child);
        child->state(CMStopped);
        shutdownNeeded = shutdownNeeded || child->shutdownOnExit() == Child::eShutdownOnExit;
    }
    if (shutdownNeeded)
        shutdown();
    // Others may watch the same process.
    return finish(entry, eMsgResultNotHandled, message);
}

MsgResult ChildManager::handleIpcClosed(const Msg& message)
{
    const State entry = meState;
    if (message.source() != Context::address())
        return finish(entry, eMsgResultNotHandled, message);
    BTRACE(TraceAlways) << "The Hub connection has gone";
    // The first context of a process cannot go on without the Hub.
    bool shutdownNeeded = Context::id() == 1;
    for (const ChildPointer& child : QList<ChildPointer>(moChildren)) {
        if (child->thread())
            continue;
        forget(child);
        child->state(CMStopped);
        shutdownNeeded = shutdownNeeded || child->shutdownOnExit() == Child::eShutdownOnExit;
    }
    if (shutdownNeeded)
        shutdown();
    return finish(entry, eMsgResultNotHandled, message);
}

MsgResult ChildManager::handleThreadConnect(const Msg& message)
{
    const State entry = meState;
    const ChildPointer child = this->child(message.getCookie());
    if (!child) {
        BTRACE(TraceNormal) << "Unknown thread" << message.getCookie();
        return finish(entry, eMsgResultNotHandled, message);
    }
    child->address(message.source());
    if (child->state() == CMStarting) {
        if (message.source().type() == eMsgAddressContext)
            child->state(CMRunning);
        else
            notifyRouter(HubRtrRegisterNotifyOnReadyPost::Message, message.source());
    } else if (child->state() == CMStopping) {
        child->send(ChildMgrShutdownPost::Message, XmlList(), QString());
    }
    joinIn(child, "connected");
    return finish(entry, eMsgResultHandled, message);
}

MsgResult ChildManager::handleThreadDisconnect(const Msg& message)
{
    const State entry = meState;
    ChildPointer child;
    for (const ChildPointer& candidate : moChildren)
        if (candidate->thread() && candidate->name() == message.getCookie()) {
            child = candidate;
            break;
        }
    if (!child)
        return finish(entry, eMsgResultNotHandled, message);
    BTRACE(TraceNormal) << "Thread" << child->name() << "has disconnected";
    forget(child);
    if (between(child->state(), CMRunning, CMStopping) && child->address().type() != eMsgAddressContext)
        notifyRouter(HubRtrUnregisterNotifyOnExitPost::Message, child->address(), true);
    child->state(CMStopped);
    if (child->shutdownOnExit() == Child::eShutdownOnExit)
        shutdown();
    child->join();
    return finish(entry, eMsgResultHandled, message);
}

void ChildManager::replyFailure(const Msg& message, const QString& name, const QString& reason) const
{
    BTRACE(TraceNormal) << name << reason << "to" << message.source();
    XmlList body;
    body.set(ChildMgrFreezeReply::Reason, reason);
    body.set(ChildMgrFreezeReply::Success, false);
    if (!message.reply(name, body))
        BTRACE(TraceAlways) << "Failed to send" << name << "to" << message.source();
}

MsgResult ChildManager::handleFreezeRequest(const Msg& message)
{
    const State entry = meState;
    BTRACE(TraceNormal) << "Freeze requested by" << message.source() << "in" << meState;
    switch (meState) {
    case CMRunning:
        if (state(CMFreezing)) {
            moFreezeMessage = message;
            // Should the asker end before it thaws us, the Hub says so.
            if (!isOwnAddress(message.source()))
                notifyRouter(HubRtrRegisterNotifyOnExitPost::Message, message.source());
        } else {
            replyFailure(message, ChildMgrFreezeReply::Message, ChildMgrStateFailed);
        }
        break;
    case CMStarting:
        replyFailure(message, ChildMgrFreezeReply::Message, ChildMgrStateStarting);
        break;
    case CMFreezing:
        replyFailure(message, ChildMgrFreezeReply::Message, ChildMgrStateFreezing);
        break;
    case CMFrozen:
        replyFailure(message, ChildMgrFreezeReply::Message, ChildMgrStateFrozen);
        break;
    case CMThawing:
        replyFailure(message, ChildMgrFreezeReply::Message, ChildMgrStateThawing);
        break;
    case CMStopping:
    case CMStopped:
        replyFailure(message, ChildMgrFreezeReply::Message, ChildMgrStateShutdown);
        break;
    }
    return finish(entry, eMsgResultHandled, message);
}

MsgResult ChildManager::handleFreezeReply(const Msg& message)
{
    const State entry = meState;
    if (meState == CMFrozen && !isOwnAddress(message.source()))
        BTRACE(TraceAlways) << "Should not get here: freeze reply from" << message.source() << "when frozen";
    if (meState == CMFreezing || meState == CMThawing) {
        const ChildPointer child = this->child(message.source());
        if (!child) {
            BTRACE(TraceAlways) << "Should not get here: freeze reply from" << message.source() << ", no child";
        } else if (child->state() != CMFreezing) {
            BTRACE(TraceAlways) << "Should not get here: freeze reply from" << child->name() << "in" << child->state();
        } else {
            const bool success = message.get(ChildMgrFreezeReply::Success, false);
            if (!success) {
                // One refusal undoes the whole freeze.
                BTRACE(TraceNormal) << child->name()
                                    << "refused the freeze:" << message.get(ChildMgrFreezeReply::Reason, QString());
                child->state(CMRunning);
                state(CMThawing);
            } else if (meState == CMFreezing) {
                child->state(CMFrozen);
            } else {
                child->send(ChildMgrThawRequest::Message, XmlList(), QString());
                child->state(CMThawing);
            }
        }
    }
    return finish(entry, eMsgResultHandled, message);
}

MsgResult ChildManager::handleThawRequest(const Msg& message)
{
    const State entry = meState;
    BTRACE(TraceNormal) << "Thaw requested by" << message.source() << "in" << meState;
    switch (meState) {
    case CMFreezing:
    case CMFrozen:
        if (!moFreezeMessage || message.source() != moFreezeMessage.source()) {
            replyFailure(message, ChildMgrThawReply::Message, ChildMgrStateDidNotFreeze);
        } else if (childrenThawed()) {
            if (!thawed())
                replyFailure(message, ChildMgrThawReply::Message, ChildMgrStateFailed);
        } else if (state(CMThawing)) {
            // The answer to this request goes up when the children run again.
            moFreezeMessage = message;
        } else {
            replyFailure(message, ChildMgrThawReply::Message, ChildMgrStateFailed);
        }
        break;
    default:
        replyFailure(message, ChildMgrThawReply::Message, ChildMgrStateNotFrozen);
        break;
    }
    return finish(entry, eMsgResultHandled, message);
}

MsgResult ChildManager::handleThawReply(const Msg& message)
{
    const State entry = meState;
    const ChildPointer child = this->child(message.source());
    if (!child) {
        BTRACE(TraceAlways) << "Should not get here: thaw reply from" << message.source() << ", no child";
    } else if (child->state() != CMThawing) {
        BTRACE(TraceAlways) << "Should not get here: thaw reply from" << child->name() << "in" << child->state();
    } else {
        child->state(CMRunning);
        if (!message.get(ChildMgrThawReply::Success, false))
            mbThawSuccessful = false;
    }
    return finish(entry, eMsgResultHandled, message);
}

} // namespace Brevi
