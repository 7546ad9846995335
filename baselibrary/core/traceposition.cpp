#include "core/traceposition.h"

namespace Brevi {

TracePosition::TracePosition(bool current)
{
    const Trace* trace = current ? Trace::object() : nullptr;
    if (trace) {
        muiInstance = trace->getInstance();
        muiSequence = trace->getSequence();
    }
}

QString TracePosition::toString() const
{
    if (muiInstance == 0)
        return QStringLiteral("(Unknown)");
    return QStringLiteral("(%1:%2)").arg(muiInstance).arg(muiSequence);
}

Trace& operator<<(Trace& trace, const TracePosition& position) { return trace << position.toString(); }

} // namespace Brevi
