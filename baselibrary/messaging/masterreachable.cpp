#include "messaging/masterreachable.h"

#include "core/context.h"
#include "core/trace.h"
#include "messaging/msg.h"
#include "messaging/msgcatalogue.h"

#include <boost/make_shared.hpp>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleMsg;
using namespace Catalogue;
} // namespace

MasterReachable::MasterReachable() = default;

MasterReachable::MasterReachable(const Callback& callback) { this->callback(callback); }

MasterReachable::~MasterReachable() { cleanup(); }

// A copy follows nothing: the handler is bound to the original, and a second
// callback for the same change would surprise whoever gave it.
MasterReachable::MasterReachable(const MasterReachable& other)
    : moSource(other.moSource)
    , mbReachable(other.mbReachable)
    , moMaster(other.moMaster)
    , msState(other.msState)
{}

MasterReachable& MasterReachable::operator=(const MasterReachable& other)
{
    if (this != &other) {
        cleanup();
        moSource = other.moSource;
        mbReachable = other.mbReachable;
        moMaster = other.moMaster;
        msState = other.msState;
    }
    return *this;
}

MsgAddress MasterReachable::nodeManager() { return MsgAddress(NodeManagerService, NodeManagerService); }

void MasterReachable::callback(const Callback& callback)
{
    mptCallback = callback;
    if (mptHandler)
        return;
    subscribe();
}

void MasterReachable::subscribe()
{
    const MsgHandlerPointer handler =
        boost::make_shared<MsgHandlerFunction>([this](const Msg& message) { return handleMasterState(message); });
    if (!Msg::addHandler(NodeMgrMasterStatePost::Message, handler)) {
        BTRACE(TraceAlways) << "Cannot register for the master state: no messaging";
        return;
    }
    mptHandler = handler;
    const Msg subscription(nodeManager(), NodeMgrRegisterNotifyMasterStatePost::Message);
    if (!subscription.send())
        BTRACE(TraceAlways) << "Cannot ask the node manager for the master state" << subscription;
}

void MasterReachable::cleanup()
{
    if (mptHandler && Context::isValid()) {
        Msg::removeHandler(NodeMgrMasterStatePost::Message, mptHandler);
        Msg(nodeManager(), NodeMgrUnregisterNotifyMasterStatePost::Message).send();
    }
    mptCallback.reset();
    mptHandler.reset();
}

bool MasterReachable::processMasterState(const Msg& message)
{
    BTRACE(TraceVerbose) << "Got master state message";
    msState = message.getString(NodeMgrMasterStatePost::State);
    BTRACE(TraceNormal) << "master machine state is: " << msState;

    if (msState == HubMpxMachineStatePost::StateAuthorized || msState == HubMpxMachineStatePost::StateConnected) {
        const QString master = message.getString(NodeMgrMasterStatePost::Master);
        if (master.isEmpty()) {
            BTRACE(TraceNormal) << "master has no name yet";
            return false;
        }
        moMaster = MachineName(master);
        if (message.getBool(NodeMgrMasterStatePost::Authorized)) {
            BTRACE(TraceNormal) << "master" << master << "is reachable";
            if (!mbReachable) {
                mbReachable = true;
                return true;
            }
        }
        return false;
    }
    if (msState == HubMpxMachineStatePost::StateUnavailable || msState == HubMpxMachineStatePost::StateUnauthorized ||
        msState == HubMpxMachineStatePost::StateUnknown) {
        BTRACE(TraceAlways) << "master not reachable";
        if (mbReachable) {
            mbReachable = false;
            return true;
        }
    }
    return false;
}

MsgResult MasterReachable::handleMasterState(const Msg& message)
{
    // Keep the callback alive through the call: it may replace itself.
    const Callback callback = mptCallback;
    if (processMasterState(message) && callback && *callback) {
        BTRACE(TraceNormal) << "Calling master state callback";
        (*callback)();
    }
    // Others on this thread may follow the master too.
    return eMsgResultNotHandled;
}

bool MasterReachable::wait(int seconds)
{
    const bool limited = seconds >= 0;
    const unsigned long long deadline =
        Context::systemTime() + (limited ? static_cast<unsigned long long>(seconds) * 1000 : 0);
    // The posts this wait takes in are answered by its result, not by the
    // callback.
    const MsgHandlerPointer standing = mptHandler;
    if (standing)
        Msg::removeHandler(NodeMgrMasterStatePost::Message, standing);

    bool failed = false;
    while (!mbReachable && !failed) {
        int remaining = -1;
        if (limited) {
            const unsigned long long now = Context::systemTime();
            if (now >= deadline) {
                failed = true;
                break;
            }
            // Whole seconds, rounded up, so that the last part of a second is
            // waited for too.
            remaining = int((deadline - now + 999) / 1000);
        }
        const Msg message = Msg::wait(NodeMgrMasterStatePost::Message, moSource, remaining);
        if (message)
            processMasterState(message);
        else
            failed = true;
    }

    if (standing && Context::isValid())
        Msg::addHandler(NodeMgrMasterStatePost::Message, standing);
    return !failed;
}

} // namespace Brevi
