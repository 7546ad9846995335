#include "core/traceerrorcode.h"

#include <cstring>

namespace Brevi {

QString TraceErrorCode::getErrorText() const
{
    char text[1024];
    // The GNU strerror_r returns its text, which may not be in `text`.
    const char* message = strerror_r(miError, text, sizeof text);
    QString body = message ? QString::fromLocal8Bit(message).simplified() : QString();
    if (body.isEmpty() || body.startsWith(QLatin1String("Unknown error")))
        body = QStringLiteral("Unknown error");
    return QStringLiteral(": (%1) %2").arg(miError).arg(body);
}

} // namespace Brevi
