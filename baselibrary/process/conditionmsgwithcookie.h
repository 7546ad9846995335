#ifndef BASELIBRARY_PROCESS_CONDITIONMSGWITHCOOKIE_H
#define BASELIBRARY_PROCESS_CONDITIONMSGWITHCOOKIE_H

#include "brevi_export.h"
#include "process/conditionmsg.h"

#include <QString>

namespace Brevi {

// ConditionMsg for the one message of the name that carries `cookie`: the
// answer to a request of the owner's own, among others of the same name.
class BREVI_EXPORT ConditionMsgWithCookie : public ConditionMsg
{
public:
    ConditionMsgWithCookie(ChildManager& manager, const QString& name, const QString& cookie);
    ~ConditionMsgWithCookie() override;

    const QString& cookie() const { return msCookie; }

protected:
    bool wanted(const Msg& message) const override;

private:
    QString msCookie;
};

} // namespace Brevi

#endif
