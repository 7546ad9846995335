#include "rules/expressions.h"

#include "core/trace.h"

#include <algorithm>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleBackup;
} // namespace

OpType Expressions::opType(const QString& name) const
{
    OpType result = eNothing;
    for (const ExpressionPtr& expression : moList) {
        // Every rule here already reaches this directory; only the name
        // decides.
        if (expression->opType() > result && expression->matches(name)) {
            result = expression->opType();
            if (result == eLiveOnly)
                break;
        }
    }
    return result;
}

void Expressions::display() const
{
    BTRACE(TraceNormal) << "Start Expressions" << moList.size();
    for (const ExpressionPtr& expression : moList)
        expression->display();
    BTRACE(TraceNormal) << "End Expressions";
}

} // namespace Brevi
