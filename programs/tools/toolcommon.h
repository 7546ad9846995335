#ifndef PROGRAMS_TOOLS_TOOLCOMMON_H
#define PROGRAMS_TOOLS_TOOLCOMMON_H

#include "core/trace.h"

#include <QString>
#include <QStringList>

#include <functional>

class QCommandLineOption;
class QCommandLineParser;
class QTextStream;

namespace Brevi {

class TraceDumpEntry;

// What the command-line tools around the Hub share: the words a person types
// for levels and modules, the --port option, and the frame that attaches the
// tool to the Hub as a process of its own.
//
// Exit statuses, the same for every tool: 0 done, 1 the work failed (no Hub,
// no such process, a buffer that cannot be read), 2 the command line is wrong.
namespace ToolCommon {

enum ExitStatus { eExitOk = 0, eExitFailed = 1, eExitUsage = 2 };

// "0" to "4", a level's short name ("always", "testing", "normal",
// "verbose", "debug", any case) or its full name ("TraceDebug").
bool parseLevel(const QString& text, TraceLevelE& level);
// "TraceDebug" and so on; "TraceLevelNone" above TraceDebug.
QString levelName(TraceLevelE level);
// A module by number (1 to 1024) or by its built-in name, any case.
bool parseModule(const QString& text, unsigned& module);
// The module's built-in name, or its number.
QString moduleName(unsigned module);

// Reads the command line as `parser` describes it (with its help option):
// -1 when the tool is to go on; otherwise the status to end with at once:
// eExitOk once --help has been printed on standard output, eExitUsage once an
// unknown option or a missing value has been told to `err`. (The parser's
// own process() would end the program itself, with status 1.)
int parseCommandLine(QCommandLineParser& parser, const QStringList& arguments, const QString& tool, QTextStream& err);

// The --port option: which Hub to ask. Without it the tool asks the one
// BREVI_HUB_PORT names, else the one on 30303.
QCommandLineOption portOption();
// Applies a --port given on the command line; false, after telling `err`,
// for a value that is not a port.
bool applyPort(const QCommandLineParser& parser, const QCommandLineOption& option, const QString& tool,
               QTextStream& err);
// The port the tool will ask, as text.
QString hubPort();

// Runs `body` inside a context attached to the Hub (one attempt, no
// waiting for a Hub that is still starting) and returns its status. When the
// tool cannot attach, tells `err` why (no BREVI_HOME, no Hub on the port)
// and returns eExitFailed without running `body`. A tool takes no trace
// buffer from the Hub: its runs, however many, never push out the kept trace
// of a process that has ended.
int runAttached(const QString& tool, const std::function<int()>& body, QTextStream& err);

// Whether a record passes the tools' --max-level and --module choices
// (module 0: any).
bool passes(const TraceDumpEntry& entry, TraceLevelE maxLevel, unsigned module);

} // namespace ToolCommon
} // namespace Brevi

#endif
