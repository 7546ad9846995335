#ifndef BASELIBRARY_MESSAGING_MSGPENDING_H
#define BASELIBRARY_MESSAGING_MSGPENDING_H

#include "brevi_export.h"
#include "core/operatorboolgenerator.h"
#include "messaging/msgresult.h"

#include <boost/shared_ptr.hpp>

namespace Brevi {

class Messaging;
class MsgCondition;
class TCPSocketSelect;

// For a thread that runs its own event loop (a user interface, a server on
// its own select): it asks whether messages wait and has them handled
// without ever blocking.
//
//     MsgPending pending;
//     while (running) {
//         if (pending && !pending.handle())
//             ... pending.lastError(): a handler's stop or a link failure
//         ... the thread's own work
//     }
//
// It takes the thread's Messaging on first use and keeps it; a copy starts
// afresh and takes it again. It belongs to the thread that made it.
class BREVI_EXPORT MsgPending
{
public:
    MsgPending();
    MsgPending(const MsgPending& other);
    MsgPending& operator=(const MsgPending& other);
    ~MsgPending();

    // Whether a message waits; false on a thread without messaging.
    bool isPending();
    operator OperatorBoolGenerator<MsgPending>::Result()
    {
        return OperatorBoolGenerator<MsgPending>::make(isPending());
    }

    // Handles everything pending (or until `condition` is done). True when
    // all of it was handled and the caller may go on: `lastError` is
    // eMsgResultTimeout. Otherwise `lastError` says why it stopped: the
    // condition's result, a handler's stop, eMsgResultIpcError, or
    // eMsgResultFailed without working messaging.
    bool handle();
    bool handle(MsgCondition& condition);

    // The Messaging's sockets for a caller's own TCPSocketSelect, and whether
    // the select's result concerns messaging; false without messaging.
    bool select(TCPSocketSelect& select);
    bool pending(const TCPSocketSelect& select);

    MsgResult lastError() const { return meLastError; }

private:
    const boost::shared_ptr<Messaging>& messaging();
    bool handle(MsgCondition* condition);

    boost::shared_ptr<Messaging> mptMessaging;
    MsgResult meLastError = eMsgResultOk;
};

} // namespace Brevi

#endif
