#include "messaging/threadcomms.h"

#include "core/context.h"
#include "core/trace.h"
#include "messaging/messaging.h"
#include "messaging/msg.h"

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleMsg;
}

ThreadComms::ThreadComms(const QString& name)
    : msName(name)
    , mptMessaging(Context::messaging())
{
    if (!mptMessaging) {
        BTRACE(TraceNormal) << "No messaging to hand to another thread" << name;
        return;
    }
    // Whoever connects later comes in through this queue: make it ready now,
    // on the thread that owns it.
    if (!mptMessaging->haveStandaloneContexts())
        BTRACE(TraceAlways) << "Cannot prepare the queue for other threads" << name;
}

ThreadComms::ThreadComms(const ThreadComms& other) = default;

ThreadComms& ThreadComms::operator=(const ThreadComms& other)
{
    BTRACE(TraceDebug) << "Assignment operator" << other.msName;
    if (this != &other) {
        msName = other.msName;
        mptMessaging = other.mptMessaging;
        moAddress = other.moAddress;
    }
    return *this;
}

ThreadComms::~ThreadComms() = default;

bool ThreadComms::send(const QString& name, const XmlList& body) const
{
    if (!moAddress) {
        BTRACE(TraceAlways) << "Not connected, cannot send" << name << "for" << msName;
        return false;
    }
    Msg message(moAddress, name, body);
    message.setCookie(msName);
    return message.send();
}

bool ThreadComms::sameThread()
{
    if (!mptMessaging || mptMessaging != Context::messaging())
        return false;
    BTRACE(TraceDebug) << "This is the same thread" << msName;
    moAddress = Context::address();
    return true;
}

bool ThreadComms::connect(Log::Proxy proxy)
{
    if (!mptMessaging) {
        BTRACE(TraceAlways) << "Other thread data is invalid" << msName;
        return false;
    }
    if (sameThread()) {
        BTRACE(TraceNormal) << "Trying to connect to the local thread, be happy" << msName;
        return true;
    }
    if (moAddress) {
        BTRACE(TraceNormal) << "Already connected" << msName << "to" << moAddress;
        return true;
    }
    const boost::shared_ptr<Messaging> here = Context::messaging();
    if (!here) {
        BTRACE(TraceAlways) << "No messaging" << msName;
        return false;
    }
    const MsgAddress result = here->connect(mptMessaging, msName, proxy);
    if (!result) {
        BTRACE(TraceAlways) << "Failed to connect to other thread" << msName;
        return false;
    }
    moAddress = result;
    return true;
}

bool ThreadComms::disconnect()
{
    if (!moAddress) {
        BTRACE(TraceAlways) << "Not connected" << msName;
        return false;
    }
    if (!mptMessaging) {
        BTRACE(TraceAlways) << "Other thread data is invalid" << msName;
        return false;
    }
    if (sameThread()) {
        // Nothing was joined, so nothing is taken apart.
        BTRACE(TraceNormal) << "Trying to disconnect from local thread" << msName;
        moAddress.clear();
        return true;
    }
    const boost::shared_ptr<Messaging> here = Context::messaging();
    if (!here) {
        BTRACE(TraceAlways) << "No messaging" << msName;
        return false;
    }
    // Both ends as Messaging::disconnect does them, the far one first: it
    // tells this thread MsgDisconnectedPost with the link's name and stops
    // logging here; then this end tells the far one and forgets its queue.
    mptMessaging->disconnect(Context::address(), msName);
    here->disconnect(moAddress, msName);
    moAddress.clear();
    return true;
}

bool ThreadComms::failed()
{
    if (!mptMessaging) {
        BTRACE(TraceAlways) << "Other thread data is invalid" << msName;
        return false;
    }
    return mptMessaging->failed(msName);
}

} // namespace Brevi
