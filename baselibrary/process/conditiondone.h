#ifndef BASELIBRARY_PROCESS_CONDITIONDONE_H
#define BASELIBRARY_PROCESS_CONDITIONDONE_H

#include "brevi_export.h"
#include "messaging/msgcondition.h"

namespace Brevi {

class ChildManager;

// Ends a wait once the manager is stopping:
//
//     ConditionDone done(manager);
//     Msg::wait(done, -1);   // handlers run until a shutdown has begun
//
// The result is eMsgResultOk. Once true it stays true. The manager must
// outlive the condition. Threads: the manager's.
class BREVI_EXPORT ConditionDone : public MsgCondition
{
public:
    explicit ConditionDone(ChildManager& manager);
    ~ConditionDone() override;
    bool done() override;

private:
    ChildManager& mrManager;
};

} // namespace Brevi

#endif
