#ifndef BASELIBRARY_RULES_FILTERCONFIG_H
#define BASELIBRARY_RULES_FILTERCONFIG_H

#include "brevi_export.h"
#include "core/operatorboolgenerator.h"

#include <QString>

namespace Brevi {

// The control file of the product's file-system filter driver: reads the two
// paths the driver is told, and changes its three trace settings while every
// other line stays byte for byte as it was.
//
// The control file is UTF-8 text, one "Key=value" a line. The keys known here
// are "LogDirectory=", "RulesFile=", "DbgDirectory=", "DebugLevel=" and
// "DebugToFile="; the file belongs to the driver, and any other line is its
// business.
//
// Where the control file is: the driver names it in the configuration file
// "zorbeck.cfg" in this machine's configuration directory
// (FixedPath::config()), which stands in for the driver's service key of the
// same name: the string items "ControlDir" and "ControlFile" give the
// directory and the file's name in it. Without that file, or without either
// item, the object is not valid.
//
// The setters only note a new line; nothing reaches the file until save(),
// which writes the whole file anew beside the old one (".new" added to the
// name) and renames it over the old one, so that the control file is always
// either the old one or the new one. The file keeps its permissions.
//
// Results are bool; there are no trace lines. Since small command-line tools
// use this class, what it has to say goes to the standard error stream:
// "Setting filter trace level to ...", "Changing filter trace level from ...
// to ...", "Unknown trace level: ...", and the same for trace_to_file. One
// object belongs to one thread.
class BREVI_EXPORT FilterConfig
{
public:
    // Finds the control file as above and reads it.
    FilterConfig();
    // Reads the control file at `controlFile`.
    explicit FilterConfig(const QString& controlFile);

    // The values of "LogDirectory=" and "RulesFile=" as read; empty when the
    // file has no such line.
    const QString& logDirectory() const { return msLogDirectory; }
    const QString& rulesFile() const { return msRulesFile; }
    // The control file's path; empty when it could not be found.
    const QString& path() const { return msPath; }

    // Notes "DbgDirectory=" and `path` with every "/" turned into "\", the
    // separator the driver reads. False for an empty path.
    bool setTraceDirectory(const QString& path);
    // "TraceAlways", "TraceTesting", "TraceNormal" (any case) note
    // "DebugLevel=NORMAL"; "TraceVerbose", "TraceDebug" note
    // "DebugLevel=INFORM". Any other text is refused: false, and the line
    // already noted (if any) stays.
    bool setTraceLevel(const QString& level);
    // "True", "Yes" (any case) note "DebugToFile=TRUE"; "False", "No" note
    // "DebugToFile=FALSE". Any other text is refused.
    bool setTraceToFile(const QString& value);

    // Rewrites the control file: each "DebugLevel=", "DebugToFile=" and
    // "DbgDirectory=" line replaced by the noted line for its key, if one was
    // noted; noted lines without a line to replace appended at the end; every
    // other line copied as it is. False when the object is not valid or a file
    // cannot be read, written or renamed; the control file is then unchanged.
    bool save();

    // True when the control file was found and read.
    bool isValid() const { return mbValid; }
    operator OperatorBoolGenerator<FilterConfig>::Result() const
    {
        return OperatorBoolGenerator<FilterConfig>::make(mbValid);
    }

private:
    bool getPath();
    bool load();

    QString msPath;
    QString msLogDirectory;
    QString msRulesFile;
    QString msDebugLevel;
    QString msDebugToFile;
    QString msDbgDirectory;
    bool mbValid = false;
};

} // namespace Brevi

#endif
