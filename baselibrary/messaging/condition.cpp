#include "messaging/condition.h"

#include "core/trace.h"

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleMsg;
}

Condition::Condition(const MsgAddress& source)
    : moSource(source)
{}

Condition::~Condition() = default;

MsgResult Condition::handle(const Msg& message)
{
    if (mbDone)
        return eMsgResultNotHandled;
    if (moSource && moSource != message.source())
        return eMsgResultNotHandled;
    moMessage = message;
    setResult(eMsgResultOk);
    setDone(true);
    BTRACE(TraceDebug) << "Got desired message" << message.name() << "from" << message.source();
    return eMsgResultHandled;
}

void Condition::reset()
{
    MsgCondition::reset();
    moMessage = Msg();
}

} // namespace Brevi
