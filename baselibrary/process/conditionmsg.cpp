#include "process/conditionmsg.h"

#include "process/childmanager.h"

#include <boost/make_shared.hpp>

namespace Brevi {

ConditionMsg::ConditionMsg(ChildManager& manager, const QString& name)
    : mrManager(manager)
    , msName(name)
    , mptHandler(boost::make_shared<MsgHandlerFunction>([this](const Msg& message) { return handle(message); }))
{
    Msg::addHandler(msName, mptHandler);
}

ConditionMsg::~ConditionMsg() { Msg::removeHandler(msName, mptHandler); }

bool ConditionMsg::done()
{
    if (!mbDone && mrManager.state() == ChildManager::CMStopping)
        setDone(true);
    return mbDone;
}

void ConditionMsg::reset()
{
    MsgCondition::reset();
    moMessage = Msg();
}

void ConditionMsg::name(const QString& name)
{
    Msg::removeHandler(msName, mptHandler);
    msName = name;
    reset();
    Msg::addHandler(msName, mptHandler);
}

bool ConditionMsg::wanted(const Msg&) const { return true; }

MsgResult ConditionMsg::handle(const Msg& message)
{
    if (moMessage || !wanted(message))
        return eMsgResultNotHandled;
    moMessage = message;
    setDone(true);
    return eMsgResultHandled;
}

} // namespace Brevi
