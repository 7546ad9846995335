#include "messaging/msgcondition.h"

namespace Brevi {

MsgCondition::~MsgCondition() = default;

void MsgCondition::reset()
{
    mbDone = false;
    meResult = eMsgResultOk;
}

} // namespace Brevi
