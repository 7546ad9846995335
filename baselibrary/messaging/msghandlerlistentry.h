#ifndef BASELIBRARY_MESSAGING_MSGHANDLERLISTENTRY_H
#define BASELIBRARY_MESSAGING_MSGHANDLERLISTENTRY_H

#include "messaging/msgresult.h"

#include <QByteArray>

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>

namespace Brevi {

class Msg;

// A message handler: called with a received message on the thread that
// waits, it answers eMsgResultHandled (taken), eMsgResultNotHandled (let the
// next one see it) or anything else to end the wait with that result.
typedef boost::function1<MsgResult, const Msg&> MsgHandlerFunction;
// Handlers are registered and removed by this pointer: the same function
// registered twice is two handlers, told apart by their pointers.
typedef boost::shared_ptr<MsgHandlerFunction> MsgHandlerPointer;

// One registered handler of a message name, as the handler table of
// Messaging keeps it. An empty authorization accepts any message; a non-empty
// one only messages whose binary authorization equals it.
struct MsgHandlerListEntry {
    MsgHandlerListEntry() = default;
    MsgHandlerListEntry(const MsgHandlerPointer& pFunction, const QByteArray& rAuthorization)
        : mptFunction(pFunction)
        , moAuthorization(rAuthorization)
    {}

    MsgHandlerPointer mptFunction;
    QByteArray moAuthorization;
};

} // namespace Brevi

#endif
