#ifndef BASELIBRARY_CORE_TRACEPROFILE_H
#define BASELIBRARY_CORE_TRACEPROFILE_H

#include "core/trace.h"

namespace Brevi {

// The trace settings of a process, from "profile.cfg" in the configuration
// directory.
//
// The file is scanned a line at a time, not parsed as XML: a line holding a key
// (case-sensitive, anywhere in it) takes the next line as its value, the text
// between its first '>' and the following '<'. The last occurrence wins. A
// missing or unreadable file gives the defaults: trace to a file, no rotation,
// no level set.
struct BREVI_EXPORT TraceProfile {
    TraceLevelE level = TraceLevelNone;
    bool traceToFile = true;
    unsigned linesPerFile = 0;
    unsigned filesToKeep = 0;

    static TraceProfile read(const QString& path);
    // The exact level names, "TraceAlways" to "TraceDebug"; anything else is none.
    static TraceLevelE levelFromName(const QString& name);
};

} // namespace Brevi

#endif
