#include "core/machinename.h"

namespace Brevi {

QString MachineName::nodeName() const
{
    const int at = msString.indexOf(QLatin1Char('@'));
    return at < 0 ? msString : msString.left(at);
}

QString MachineName::machineId() const
{
    const int at = msString.indexOf(QLatin1Char('@'));
    return at < 0 ? msString : msString.mid(at + 1);
}

} // namespace Brevi
