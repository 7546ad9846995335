#include "process/conditionmsgwithcookie.h"

namespace Brevi {

ConditionMsgWithCookie::ConditionMsgWithCookie(ChildManager& manager, const QString& name, const QString& cookie)
    : ConditionMsg(manager, name)
    , msCookie(cookie)
{}

ConditionMsgWithCookie::~ConditionMsgWithCookie() = default;

bool ConditionMsgWithCookie::wanted(const Msg& message) const { return message.getCookie() == msCookie; }

} // namespace Brevi
