// tracelevel: changes how much the processes of this machine trace, while they
// run: every module of every process through the Hub, or one process, or one
// module, by writing the level nibbles of their trace buffers. Also shows the
// levels a process runs with.

#include "hubquery.h"
#include "toolcommon.h"

#include "core/tracelayout.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTextStream>

#include <algorithm>

using namespace Brevi;
using namespace Brevi::ToolCommon;

namespace {

struct Request {
    TraceLevelE level = TraceNormal;
    // 0: all modules.
    unsigned module = 0;
    // Empty: every live process.
    QString process;
    bool show = false;
};
Request gRequest;

QString describe(const MonitorEntry& entry)
{
    QString text = QStringLiteral("process %1 (%2").arg(entry.processId).arg(entry.title);
    if (!entry.name.isEmpty())
        text += ", " + entry.nameAndGroup();
    return text + ')';
}

QString modules() { return gRequest.module ? "module " + moduleName(gRequest.module) : QStringLiteral("all modules"); }

// The levels of the named modules, and of any other module that differs from
// the level most modules have.
void show(QTextStream& out, const MonitorEntry& entry, const unsigned char* buffer)
{
    unsigned count[TraceDebug + 2] = {};
    for (unsigned module = 1; module <= TraceLayout::ModuleCount; ++module)
        ++count[std::min<unsigned>(Trace::getLevel(buffer, module), TraceLevelNone)];
    const unsigned common = unsigned(std::max_element(count, count + TraceDebug + 1) - count);

    out << describe(entry) << (Trace::active(buffer) ? "" : ", no longer tracing") << '\n';
    out << "  most modules: " << levelName(TraceLevelE(common)) << '\n';
    const QHash<unsigned, QString>& names = Trace::defaultModuleNames();
    for (unsigned module = 1; module <= TraceLayout::ModuleCount; ++module) {
        const TraceLevelE level = Trace::getLevel(buffer, module);
        if (!names.contains(module) && unsigned(level) == common)
            continue;
        out << "  " << qSetFieldWidth(14) << Qt::left << moduleName(module) << qSetFieldWidth(0) << Qt::right
            << unsigned(level) << ' ' << levelName(level) << '\n';
    }
}

int change()
{
    QTextStream out(stdout);
    QTextStream err(stderr);
    HubQuery hub;

    // Every module of every process: the Hub's own post, which also reaches
    // the Hub itself.
    if (gRequest.process.isEmpty() && gRequest.module == 0 && !gRequest.show) {
        if (!hub.postGlobalLevel(gRequest.level)) {
            err << "tracelevel: " << hub.error() << '\n';
            return eExitFailed;
        }
        int count = 0;
        for (const MonitorEntry& entry : hub.entries()) {
            QString ignored;
            const SharedMemoryUser buffer = entry.live() ? entry.traceBuffer(ignored) : SharedMemoryUser();
            if (buffer && Trace::getLevel(buffer.address(), TraceLayout::ModuleCount) == gRequest.level)
                ++count;
        }
        out << levelName(gRequest.level) << " set on all modules of the Hub and of " << count << " live "
            << (count == 1 ? "process" : "processes") << '\n';
        return eExitOk;
    }

    if (!hub.refresh()) {
        err << "tracelevel: " << hub.error() << '\n';
        return eExitFailed;
    }
    QList<MonitorEntry> targets;
    if (gRequest.process.isEmpty()) {
        for (const MonitorEntry& entry : hub.entries())
            if (entry.live() && entry.traceId)
                targets << entry;
    } else {
        QString error;
        const MonitorEntry* entry = hub.select(gRequest.process, error);
        if (!entry) {
            err << "tracelevel: " << error << '\n';
            return eExitFailed;
        }
        if (!entry->live() && !gRequest.show) {
            err << "tracelevel: " << describe(*entry) << " has ended; its levels no longer matter\n";
            return eExitFailed;
        }
        targets << *entry;
    }

    int status = eExitOk;
    for (const MonitorEntry& entry : targets) {
        QString error;
        const SharedMemoryUser buffer = entry.traceBuffer(error);
        if (!buffer) {
            err << "tracelevel: " << error << '\n';
            status = eExitFailed;
            continue;
        }
        if (gRequest.show) {
            show(out, entry, buffer.address());
            continue;
        }
        // The owner reads these nibbles at every trace call, without a lock:
        // a whole byte written at once is what it sees next.
        Trace::setLevel(buffer.address(), gRequest.level, gRequest.module);
        out << levelName(gRequest.level) << " set on " << modules() << " of " << describe(entry) << '\n';
    }
    if (targets.isEmpty())
        out << "no live process with a trace buffer\n";
    return status;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName("tracelevel");
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Sets the trace level of running processes, in the trace buffers the Hub keeps for them.\n"
        "  tracelevel LEVEL              all modules of every process (and the Hub), through the Hub\n"
        "  tracelevel LEVEL PROCESS      all modules of one process\n"
        "  tracelevel --module M LEVEL [PROCESS]   one module, of one process or of every process\n"
        "  tracelevel --show PROCESS     print the levels a process runs with\n"
        "LEVEL is 0 to 4 or always, testing, normal, verbose, debug. A line is traced when its\n"
        "module's level is not below the line's. PROCESS is a ProcessId, pid:<OS pid>, #<Hub Id>,\n"
        "name, name/group or title, as hubstatus lists them.\n"
        "Exit status: 0 set, 1 no Hub, no such process or no buffer, 2 bad command line.\n"
        "Example: tracelevel --module MSG debug NodeManager");
    parser.addHelpOption();
    parser.addPositionalArgument("level", "The level to set: 0 to 4, or its name.", "LEVEL");
    parser.addPositionalArgument("process", "The process; every live one if not given.", "[PROCESS]");
    const QCommandLineOption port = portOption();
    const QCommandLineOption module("module", "Only this module (name such as MSG, or number 1 to 1024).", "module");
    const QCommandLineOption showOption("show", "Print the levels of PROCESS instead of setting one.");
    parser.addOption(port);
    parser.addOption(module);
    parser.addOption(showOption);
    QTextStream err(stderr);
    const int parsed = parseCommandLine(parser, application.arguments(), "tracelevel", err);
    if (parsed >= 0)
        return parsed;

    const QStringList arguments = parser.positionalArguments();
    gRequest.show = parser.isSet(showOption);
    if (gRequest.show) {
        if (arguments.size() != 1 || parser.isSet(module)) {
            err << "tracelevel: --show takes one PROCESS and nothing else (see --help)\n";
            return eExitUsage;
        }
        gRequest.process = arguments[0];
    } else {
        if (arguments.isEmpty() || arguments.size() > 2) {
            err << "tracelevel: give a LEVEL and at most one PROCESS (see --help)\n";
            return eExitUsage;
        }
        if (!parseLevel(arguments[0], gRequest.level)) {
            err << "tracelevel: '" << arguments[0] << "' is no level: 0 to 4, or always .. debug\n";
            return eExitUsage;
        }
        if (arguments.size() == 2)
            gRequest.process = arguments[1];
    }
    if (parser.isSet(module) && !parseModule(parser.value(module), gRequest.module)) {
        err << "tracelevel: unknown module '" << parser.value(module) << "'\n";
        return eExitUsage;
    }
    if (!applyPort(parser, port, "tracelevel", err))
        return eExitUsage;
    return runAttached("tracelevel", change, err);
}
