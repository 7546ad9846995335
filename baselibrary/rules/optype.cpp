#include "rules/optype.h"

#include "core/trace.h"

namespace Brevi {

OpType opTypeFromText(const QString& text)
{
    if (text == QLatin1String("Exclude"))
        return eExclude;
    if (text == QLatin1String("LiveOnly"))
        return eLiveOnly;
    return eNothing;
}

QString opTypeText(OpType op)
{
    switch (op) {
    case eExclude:
        return QStringLiteral("Exclude");
    case eLiveOnly:
        return QStringLiteral("LiveOnly");
    default:
        return QStringLiteral("Nothing");
    }
}

Trace& operator<<(Trace& trace, OpType op)
{
    switch (op) {
    case eIgnore:
        return trace << "eIgnore";
    case eNothing:
        return trace << "eNothing";
    case eExclude:
        return trace << "eExclude";
    case eLiveOnly:
        return trace << "eLiveOnly";
    }
    return trace << int(op);
}

} // namespace Brevi
