#ifndef BASELIBRARY_LOGGING_LOGLINE_H
#define BASELIBRARY_LOGGING_LOGLINE_H

#include "brevi_export.h"
#include "logging/log.h"

namespace Brevi {

// One log message in one statement: starts the message on the context's Log,
// takes the format and the values by <<, and sends at the end of the
// statement:
//
//     BREVI_LOG("Backup", Log::eLogError) << "Cannot read %1s" << path;
//
// On a thread without a context it does nothing. Whatever the message built
// before on the same Log is dropped. Belongs to the thread that makes it, like
// the Log it writes to.
class BREVI_EXPORT LogLine
{
public:
    LogLine(const QString& category, Log::LogLevelE level, const Log::TagList& tags = Log::TagList());
    ~LogLine();
    LogLine(const LogLine&) = delete;
    LogLine& operator=(const LogLine&) = delete;

    template <typename T>
    LogLine& operator<<(const T& value)
    {
        if (mpLog)
            *mpLog << value;
        return *this;
    }

private:
    Log* mpLog;
};

} // namespace Brevi

// `BREVI_LOG(category, level) << format << values...;` sends at the semicolon.
#define BREVI_LOG(category, level) ::Brevi::LogLine((category), (level))

#endif
