#include "process/conditiondone.h"

#include "process/childmanager.h"

namespace Brevi {

ConditionDone::ConditionDone(ChildManager& manager)
    : mrManager(manager)
{}

ConditionDone::~ConditionDone() = default;

bool ConditionDone::done()
{
    if (!mbDone && mrManager.state() == ChildManager::CMStopping)
        setDone(true);
    return mbDone;
}

} // namespace Brevi
