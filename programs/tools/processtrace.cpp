// processtrace: prints the trace of a process of this machine, running or
// ended, from the trace buffer the Hub keeps for it; with --follow, goes on
// printing what the process traces until it ends.

#include "hubquery.h"
#include "toolcommon.h"

#include "core/tracedump.h"
#include "messaging/msg.h"
#include "messaging/msgcatalogue.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTextStream>

using namespace Brevi;
using namespace Brevi::ToolCommon;

namespace {

struct Request {
    QString process;
    TraceLevelE maxLevel = TraceDebug;
    unsigned module = 0;
    // 0: all.
    unsigned last = 0;
    bool follow = false;
};
Request gRequest;

// Prints what `dump` read that passes the choices, the last `last` of them
// if that is not 0.
void print(QTextStream& out, TraceDump& dump, unsigned last)
{
    QList<boost::shared_ptr<TraceDumpEntry>> lines;
    while (const auto entry = dump.popEntry())
        if (passes(*entry, gRequest.maxLevel, gRequest.module))
            lines << entry;
    const int from = last && int(last) < lines.size() ? lines.size() - int(last) : 0;
    for (int i = from; i < lines.size(); ++i)
        lines[i]->writeToStream(out);
    out.flush();
}

// True when the Hub says that the process with registration number `id`
// has ended; waits up to a second for that news.
bool ended(unsigned id)
{
    const QString& endPost = Catalogue::HubMgrMonitorProcessEndPost::Message;
    const Msg news = Msg::wait(endPost, 1);
    if (news)
        return news.get(Catalogue::HubMgrMonitorProcessEndPost::Id, 0u) == id;
    // Anything but the time running out means the link is gone.
    return news.lastError() != eMsgResultTimeout;
}

int printTrace()
{
    QTextStream out(stdout);
    QTextStream err(stderr);
    HubQuery hub;
    if (!hub.refresh()) {
        err << "processtrace: " << hub.error() << '\n';
        return eExitFailed;
    }
    QString error;
    const MonitorEntry* found = hub.select(gRequest.process, error);
    if (!found) {
        err << "processtrace: " << error << '\n';
        return eExitFailed;
    }
    const MonitorEntry entry = *found;
    const SharedMemoryUser buffer = entry.traceBuffer(error);
    if (!buffer) {
        err << "processtrace: " << error << '\n';
        return eExitFailed;
    }
    err << "processtrace: process " << entry.processId << " (" << entry.title << "), OS pid " << entry.osPid << ", "
        << entry.state << '\n';
    err.flush();

    TraceDump dump(buffer.address(), buffer.size(), nullptr, nullptr, nullptr);
    if (!dump && !gRequest.follow) {
        err << "processtrace: the buffer holds no record\n";
        return eExitFailed;
    }
    print(out, dump, gRequest.last);
    if (!gRequest.follow || !entry.live())
        return eExitOk;

    // Each round reads only what came after the newest record printed.
    // The process is done when the Hub says so, or when its trace is no
    // longer active (its context has ended).
    TracePosition next = dump.next();
    for (;;) {
        const bool done = ended(entry.id) || !Trace::active(buffer.address());
        dump.update(nullptr, next.getInstance() ? &next : nullptr, nullptr);
        if (dump)
            next = dump.next();
        print(out, dump, 0);
        if (done)
            break;
    }
    err << "processtrace: process " << entry.processId << " has ended\n";
    return eExitOk;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName("processtrace");
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Prints the trace of a process, running or ended, from the trace buffer the Hub keeps for it,\n"
        "oldest record first, one line per record: time, level, module, id, source:line, message.\n"
        "The Hub keeps the buffers of ended processes for a while (hubstatus lists them as Exited).\n"
        "PROCESS is a ProcessId, pid:<OS pid>, #<Hub Id>, name, name/group or title; a running\n"
        "process is preferred, then the latest that ended.\n"
        "Exit status: 0 printed, 1 no Hub, no such process or no trace, 2 bad command line.\n"
        "Example: processtrace --max-level 2 --follow NodeManager");
    parser.addHelpOption();
    parser.addPositionalArgument("process", "The process whose trace to print.", "PROCESS");
    const QCommandLineOption port = portOption();
    const QCommandLineOption maxLevel("max-level", "Only records of this level or below (0 always .. 4 debug).",
                                      "level");
    const QCommandLineOption module("module", "Only records of this module (name or number).", "module");
    const QCommandLineOption last("last", "Only the last n records (of those the other options let through).", "n");
    const QCommandLineOption follow("follow", "Go on printing new records until the process ends.");
    parser.addOption(port);
    parser.addOption(maxLevel);
    parser.addOption(module);
    parser.addOption(last);
    parser.addOption(follow);
    QTextStream err(stderr);
    const int parsed = parseCommandLine(parser, application.arguments(), "processtrace", err);
    if (parsed >= 0)
        return parsed;

    const QStringList arguments = parser.positionalArguments();
    if (arguments.size() != 1) {
        err << "processtrace: give one PROCESS (see --help)\n";
        return eExitUsage;
    }
    gRequest.process = arguments[0];
    if (parser.isSet(maxLevel) && !parseLevel(parser.value(maxLevel), gRequest.maxLevel)) {
        err << "processtrace: --max-level takes 0 to 4, or always .. debug\n";
        return eExitUsage;
    }
    if (parser.isSet(module) && !parseModule(parser.value(module), gRequest.module)) {
        err << "processtrace: unknown module '" << parser.value(module) << "'\n";
        return eExitUsage;
    }
    if (parser.isSet(last)) {
        bool ok = false;
        gRequest.last = parser.value(last).toUInt(&ok);
        if (!ok || gRequest.last == 0) {
            err << "processtrace: --last takes a number above 0\n";
            return eExitUsage;
        }
    }
    gRequest.follow = parser.isSet(follow);
    if (!applyPort(parser, port, "processtrace", err))
        return eExitUsage;
    return runAttached("processtrace", printTrace, err);
}
