#include "messaging/msgpending.h"

#include "core/context.h"
#include "core/trace.h"
#include "messaging/messaging.h"
#include "messaging/msg.h"
#include "messaging/msgcondition.h"

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleMsg;
}

MsgPending::MsgPending() = default;

// A copy may live on another thread or after another Messaging came up: it
// looks for its own.
MsgPending::MsgPending(const MsgPending&) {}

MsgPending& MsgPending::operator=(const MsgPending& other)
{
    if (this != &other) {
        mptMessaging.reset();
        meLastError = eMsgResultOk;
    }
    return *this;
}

MsgPending::~MsgPending() = default;

const boost::shared_ptr<Messaging>& MsgPending::messaging()
{
    if (!mptMessaging)
        mptMessaging = Context::messaging();
    return mptMessaging;
}

bool MsgPending::isPending()
{
    const boost::shared_ptr<Messaging>& current = messaging();
    return current && current->pending();
}

bool MsgPending::handle() { return handle(nullptr); }

bool MsgPending::handle(MsgCondition& condition) { return handle(&condition); }

bool MsgPending::handle(MsgCondition* condition)
{
    const boost::shared_ptr<Messaging>& current = messaging();
    if (!current || !current->valid()) {
        meLastError = eMsgResultFailed;
        return false;
    }
    for (;;) {
        if (condition && condition->done()) {
            BTRACE(TraceDebug) << "MsgCondition.done() returned true";
            meLastError = condition->result();
            break;
        }
        MsgResult result = eMsgResultUnknown;
        if (!Msg::handle(result, current, 0)) {
            meLastError = result;
            break;
        }
    }
    return meLastError == eMsgResultTimeout;
}

bool MsgPending::select(TCPSocketSelect& select)
{
    const boost::shared_ptr<Messaging>& current = messaging();
    return current && current->select(select);
}

bool MsgPending::pending(const TCPSocketSelect& select)
{
    const boost::shared_ptr<Messaging>& current = messaging();
    return current && current->pending(select);
}

} // namespace Brevi
