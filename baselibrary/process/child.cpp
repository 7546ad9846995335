#include "process/child.h"

#include "core/trace.h"
#include "messaging/msg.h"
#include "messaging/msgcatalogue.h"

#include <boost/thread/thread.hpp>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleChildManager;
using namespace Catalogue;
} // namespace

Child::Child()
    : meState(ChildManager::CMStopped)
{}

Child::Child(const boost::shared_ptr<boost::thread>& thread, const QString& name, Freeze freeze,
             ShutdownOnExit shutdownOnExit)
    : mptThread(thread)
    , msName(name)
    , meState(ChildManager::CMStarting)
    , meFreeze(freeze)
    , meShutdownOnExit(shutdownOnExit)
{}

Child::Child(const QString& name, const MsgAddress& address, WaitForExit waitForExit, Freeze freeze,
             ShutdownOnExit shutdownOnExit)
    : msName(name)
    , moAddress(address)
    , meState(ChildManager::CMStarting)
    , meWaitForExit(waitForExit)
    , meFreeze(freeze)
    , meShutdownOnExit(shutdownOnExit)
{}

Child::Child(const Child& other) = default;
Child& Child::operator=(const Child& other) = default;
Child::~Child() = default;

void Child::state(State state)
{
    if (state != meState)
        BTRACE(TraceVerbose) << "Child" << msName << moAddress << "from" << meState << "to" << state;
    meState = state;
}

bool Child::freeze()
{
    if (meState != ChildManager::CMRunning || meFreeze != eFreezable)
        return false;
    if (!send(ChildMgrFreezeRequest::Message, XmlList(), QString()))
        BTRACE(TraceAlways) << "Failed to send" << ChildMgrFreezeRequest::Message << "to" << msName;
    state(ChildManager::CMFreezing);
    return true;
}

bool Child::shutdown()
{
    if (meState < ChildManager::CMStopping) {
        if (!mbPeer && !send(ChildMgrShutdownPost::Message, XmlList(), QString()))
            BTRACE(TraceNormal) << "Failed to send" << ChildMgrShutdownPost::Message << "to" << msName;
        state(meWaitForExit == eWaitForExit ? ChildManager::CMStopping : ChildManager::CMStopped);
    }
    return meWaitForExit == eNoWaitForExit;
}

void Child::join()
{
    if (mptThread && mptThread->joinable())
        mptThread->join();
}

bool Child::send(const QString& name, const XmlList& body, const QString& cookie) const
{
    return send(name, body, cookie, false);
}

bool Child::sendFlushed(const QString& name, const XmlList& body, const QString& cookie) const
{
    return send(name, body, cookie, true);
}

bool Child::send(const QString& name, const XmlList& body, const QString& cookie, bool flush) const
{
    if (!moAddress) {
        BTRACE(TraceNormal) << "No address for" << msName << ", not sent:" << name;
        return false;
    }
    Msg message(moAddress, name, body);
    message.setCookie(cookie);
    return message.send(flush);
}

} // namespace Brevi
