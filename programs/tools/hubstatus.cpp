// hubstatus: lists the processes the Hub of this machine knows, live and
// ended, with their state, title, operating-system pid, name and group.

#include "hubquery.h"
#include "toolcommon.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QTextStream>

using namespace Brevi;
using namespace Brevi::ToolCommon;

namespace {

bool gLiveOnly = false;

QString started(unsigned long long ms)
{
    if (ms == 0)
        return QStringLiteral("-");
    return QDateTime::fromMSecsSinceEpoch(qint64(ms)).toString("yyyy-MM-dd hh:mm:ss");
}

void print(QTextStream& out, const QList<MonitorEntry>& entries)
{
    int live = 0;
    for (const MonitorEntry& entry : entries)
        live += entry.live() ? 1 : 0;
    out << "Hub on port " << hubPort() << ": " << live << " live " << (live == 1 ? "process" : "processes");
    if (!gLiveOnly)
        out << ", " << entries.size() - live << " ended";
    out << '\n';

    out << qSetFieldWidth(5) << "Id" << qSetFieldWidth(0) << ' ' << qSetFieldWidth(8) << "Process" << qSetFieldWidth(0)
        << ' ' << qSetFieldWidth(8) << "OS pid" << qSetFieldWidth(0) << "  " << Qt::left << qSetFieldWidth(9) << "State"
        << qSetFieldWidth(20) << "Started" << qSetFieldWidth(24) << "Name/Group" << qSetFieldWidth(0) << ' ' << "Title"
        << Qt::right << '\n';
    for (const MonitorEntry& entry : entries) {
        if (gLiveOnly && !entry.live())
            continue;
        const QString name = entry.name.isEmpty() ? QStringLiteral("-") : entry.nameAndGroup();
        out << qSetFieldWidth(5) << entry.id << qSetFieldWidth(0) << ' ' << qSetFieldWidth(8) << entry.processId
            << qSetFieldWidth(0) << ' ' << qSetFieldWidth(8) << entry.osPid << qSetFieldWidth(0) << "  " << Qt::left
            << qSetFieldWidth(9) << entry.state << qSetFieldWidth(20) << started(entry.startTime) << qSetFieldWidth(24)
            << name << qSetFieldWidth(0) << ' ' << entry.title << Qt::right << '\n';
    }
}

int status()
{
    QTextStream out(stdout);
    QTextStream err(stderr);
    HubQuery hub;
    if (!hub.refresh()) {
        err << "hubstatus: " << hub.error() << '\n';
        return eExitFailed;
    }
    print(out, hub.entries());
    return eExitOk;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName("hubstatus");
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Lists the processes the Hub knows: its registration number (Id), the ProcessId it gave,\n"
        "the OS pid, the state (Attached, Enabled, Ready, Detached; Exited for a process that has\n"
        "ended and whose trace the Hub still keeps), the start time, name/group and title.\n"
        "This tool attaches to the Hub itself, and leaves itself out of the list.\n"
        "Exit status: 0 listed, 1 no Hub or no answer, 2 bad command line.\n"
        "Example: hubstatus --port 30303 --live");
    parser.addHelpOption();
    const QCommandLineOption port = portOption();
    const QCommandLineOption live("live", "Only the processes that are still running.");
    parser.addOption(port);
    parser.addOption(live);
    QTextStream err(stderr);
    const int parsed = parseCommandLine(parser, application.arguments(), "hubstatus", err);
    if (parsed >= 0)
        return parsed;

    if (!parser.positionalArguments().isEmpty()) {
        err << "hubstatus: takes no arguments (see --help)\n";
        return eExitUsage;
    }
    if (!applyPort(parser, port, "hubstatus", err))
        return eExitUsage;
    gLiveOnly = parser.isSet(live);
    return runAttached("hubstatus", status, err);
}
