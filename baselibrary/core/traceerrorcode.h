#ifndef BASELIBRARY_CORE_TRACEERRORCODE_H
#define BASELIBRARY_CORE_TRACEERRORCODE_H

#include "core/trace.h"

#include <cerrno>

namespace Brevi {

// A system error number (errno) that traces as its text:
//     BTRACE(TraceAlways) << "Failed to open" << path << TraceErrorCode(errno);
class BREVI_EXPORT TraceErrorCode
{
public:
    explicit TraceErrorCode(int error = errno)
        : miError(error)
    {}

    int getErrorCode() const { return miError; }
    // ": (2) No such file or directory", or ": (n) Unknown error".
    QString getErrorText() const;

private:
    int miError;
};

} // namespace Brevi

#endif
