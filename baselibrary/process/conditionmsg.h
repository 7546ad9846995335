#ifndef BASELIBRARY_PROCESS_CONDITIONMSG_H
#define BASELIBRARY_PROCESS_CONDITIONMSG_H

#include "brevi_export.h"
#include "messaging/msg.h"
#include "messaging/msgcondition.h"
#include "messaging/msghandlerlistentry.h"

#include <QString>

namespace Brevi {

class ChildManager;

// Waits for one message of a name, unless the manager begins to stop first:
// the wait a supervised owner uses instead of Msg::wait for a name, so that a
// shutdown is never missed while it waits.
//
//     ConditionMsg next(manager, "JobRequest");
//     Msg::wait(next, -1);
//     if (!next.message())
//         return;             // stopping
//     ... next.message() ...
//     next.reset();           // ready for the next one
//
// The condition registers its own handler for the name on the calling
// thread, asked before the older ones; it takes the first message of the
// name (ConditionMsgWithCookie: with the cookie) and leaves every later one
// to the other handlers until reset(). The result is eMsgResultOk either way:
// message() is invalid when the wait ended on the stop. The manager must
// outlive the condition. Threads: the manager's.
class BREVI_EXPORT ConditionMsg : public MsgCondition
{
public:
    ConditionMsg(ChildManager& manager, const QString& name);
    ~ConditionMsg() override;

    bool done() override;
    // Forgets the message taken, ready to take another.
    void reset() override;

    // The message taken; invalid until then.
    const Msg& message() const { return moMessage; }
    const QString& name() const { return msName; }
    // Waits for another name from now on; what was taken is forgotten.
    void name(const QString& name);

protected:
    // Whether the message is the one waited for; a subclass narrows it.
    virtual bool wanted(const Msg& message) const;

private:
    MsgResult handle(const Msg& message);

    ChildManager& mrManager;
    QString msName;
    Msg moMessage;
    MsgHandlerPointer mptHandler;
};

} // namespace Brevi

#endif
