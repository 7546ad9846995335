#ifndef BASELIBRARY_MESSAGING_MSGCONDITION_H
#define BASELIBRARY_MESSAGING_MSGCONDITION_H

#include "brevi_export.h"
#include "messaging/msgresult.h"

namespace Brevi {

// What a wait (Msg::wait(MsgCondition&, seconds)) ends on: the wait asks
// `done` before it handles each message, and returns `result` once it is
// true. A subclass sets both, usually from a message handler it registered
// (Condition) or by looking at the world (Msg::HubDisconnected).
//
// A condition belongs to the thread that waits on it.
class BREVI_EXPORT MsgCondition
{
public:
    MsgCondition() = default;
    virtual ~MsgCondition();

    // Whether the wait is to end.
    virtual bool done() { return mbDone; }
    // Back to not done, result eMsgResultOk: ready for another wait.
    virtual void reset();

    // What the wait returns once `done` is true.
    MsgResult result() const { return meResult; }

protected:
    // The two halves of ending a wait: a subclass sets the result, then done.
    void setResult(MsgResult result) { meResult = result; }
    void setDone(bool done) { mbDone = done; }

    bool mbDone = false;
    MsgResult meResult = eMsgResultOk;
};

} // namespace Brevi

#endif
