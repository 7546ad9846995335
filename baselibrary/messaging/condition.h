#ifndef BASELIBRARY_MESSAGING_CONDITION_H
#define BASELIBRARY_MESSAGING_CONDITION_H

#include "brevi_export.h"
#include "messaging/msg.h"
#include "messaging/msgaddress.h"
#include "messaging/msgcondition.h"

namespace Brevi {

// Waits for one message: `handle`, registered as the handler of the wanted
// names, takes the first message from the wanted source (any source when the
// source is invalid) and declines everything else, so that older handlers of
// the same names still see it. What Msg::wait for names is built on.
class BREVI_EXPORT Condition : public MsgCondition
{
public:
    explicit Condition(const MsgAddress& source = MsgAddress());
    ~Condition() override;

    // eMsgResultHandled for the wanted message, which is kept; afterwards,
    // and for other sources, eMsgResultNotHandled.
    MsgResult handle(const Msg& message);
    void reset() override;

    // The message taken; invalid until then.
    const Msg& message() const { return moMessage; }
    const MsgAddress& source() const { return moSource; }

private:
    MsgAddress moSource;
    Msg moMessage;
};

} // namespace Brevi

#endif
