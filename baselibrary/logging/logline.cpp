#include "logging/logline.h"

#include "core/context.h"

namespace Brevi {

LogLine::LogLine(const QString& category, Log::LogLevelE level, const Log::TagList& tags)
    : mpLog(Context::logging())
{
    if (mpLog)
        mpLog->initialiseMessage(category, level, tags);
}

LogLine::~LogLine()
{
    if (mpLog)
        mpLog->sendMessage();
}

} // namespace Brevi
