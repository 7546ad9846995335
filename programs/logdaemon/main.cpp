// logdaemon: the machine's log daemon. Run without query options it attaches
// to the Hub as "LogDaemonLocal" (id 8) and stores every log message the
// machine's processes (and other machines') send; with --show, --tail,
// --process, --category, --level or --html it prints what is stored and ends.

#include "htmltext.h"
#include "hubquery.h"
#include "logdaemon.h"
#include "logquery.h"
#include "logstore.h"
#include "toolcommon.h"

#include "core/context.h"
#include "core/fixedpath.h"
#include "core/trace.h"
#include "logging/log.h"
#include "messaging/msgcatalogue.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTextStream>

#include <atomic>
#include <csignal>
#include <cstdio>

#include <malloc.h>

using namespace Brevi;

namespace {

const unsigned TraceModule = TraceModuleLog;
const char* const Category = "LogDaemon";
const char* const Program = "logdaemon";

QString gStorePath;
qint64 gMaxBytes = LogStore::DefaultMaxBytes;
int gKeep = LogStore::DefaultKeep;
std::atomic<bool> gStop{false};

void onSignal(int) { gStop = true; }

void installSignals()
{
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

void daemonMain(int& result, int, char** const)
{
    LogDaemon daemon(gStorePath.isEmpty() ? LogStore::defaultPath() : gStorePath, gMaxBytes, gKeep);
    installSignals();
    const QString title = Context::object()->title();
    // The daemon's own start and stop go into its own store, by way of the
    // Hub and back, like any other process's.
    Context::logging()->initialiseStateLogging(Category, title, Log::eProcessStarted);
    Context::logging()->sendMessage();
    result = daemon.run(gStop);
    BTRACE(TraceAlways) << "Log daemon ends with" << result;
}

// Why the attach failed, for the operator: the Hub refuses a second process
// under the daemon's name without saying so, so ask it who has the name.
int notAttached(QTextStream& err)
{
    QString holder;
    const int status = ToolCommon::runAttached(
        Program,
        [&holder, &err] {
            HubQuery query;
            if (!query.refresh()) {
                err << Program << ": cannot attach to the Hub, and it does not list its processes: " << query.error()
                    << '\n';
                return int(ToolCommon::eExitFailed);
            }
            for (const MonitorEntry& entry : query.entries())
                if (entry.live() && entry.name == Catalogue::LogDaemonLocalService)
                    holder = QStringLiteral("process %1, pid %2, \"%3\"")
                                 .arg(entry.processId)
                                 .arg(entry.osPid)
                                 .arg(entry.title);
            return int(ToolCommon::eExitOk);
        },
        err);
    if (status != ToolCommon::eExitOk)
        return ToolCommon::eExitFailed;
    if (!holder.isEmpty())
        err << Program << ": another log daemon holds the name " << Catalogue::LogDaemonLocalService
            << " on this machine (" << holder << "); only one may run\n";
    else
        err << Program << ": the Hub refused to attach the log daemon (its trace says why)\n";
    return ToolCommon::eExitFailed;
}

int query(const LogQuery& query, const QString& path, bool html)
{
    QList<LogRecord> records;
    QString error;
    int skipped = 0;
    if (!query.run(path, records, error, &skipped)) {
        QTextStream(stderr) << Program << ": cannot read " << error << '\n';
        return ToolCommon::eExitFailed;
    }
    QTextStream out(stdout);
    out.setCodec("UTF-8");
    if (html) {
        out << "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>Log</title></head><body>\n<table>\n"
               "<tr><th>Time</th><th>Source</th><th>Process</th><th>Category</th><th>Level</th><th>Message</th></tr>\n";
        for (const LogRecord& record : records)
            out << "<tr><td>" << record.time.toString(Qt::ISODateWithMs) << "</td><td>"
                << HtmlText::escape(record.source) << "</td><td>" << HtmlText::escape(record.process) << "</td><td>"
                << HtmlText::escape(record.category) << "</td><td>" << LogRecord::levelName(record.level) << "</td><td>"
                << record.toHtml() << "</td></tr>\n";
        out << "</table>\n</body></html>\n";
    } else {
        for (const LogRecord& record : records)
            out << record.toLine(false) << '\n';
    }
    if (skipped > 0)
        QTextStream(stderr) << Program << ": " << skipped << " damaged line(s) skipped in " << path << '\n';
    return ToolCommon::eExitOk;
}

// A number of bytes, with an optional k, M or G (powers of 1024).
bool parseSize(QString text, qint64& bytes)
{
    qint64 unit = 1;
    const QChar last = text.isEmpty() ? QChar() : text.at(text.size() - 1).toLower();
    if (last == QLatin1Char('k') || last == QLatin1Char('m') || last == QLatin1Char('g')) {
        unit = last == QLatin1Char('k') ? 1 << 10 : last == QLatin1Char('m') ? 1 << 20 : 1 << 30;
        text.chop(1);
    }
    bool ok = false;
    const qint64 value = text.toLongLong(&ok);
    if (!ok || value <= 0 || value > (qint64(1) << 50) / unit)
        return false;
    bytes = value * unit;
    return true;
}

int usage(QTextStream& err, const QString& text)
{
    err << Program << ": " << text << " (see --help)\n";
    return ToolCommon::eExitUsage;
}

} // namespace

int main(int argc, char** argv)
{
    // Every message is a document of small nodes made and freed at once. With
    // glibc's fast bins on, each free that reaches the top of the heap sweeps
    // them all (malloc_consolidate), which cost the daemon a fifth of its time
    // per message; the per-thread cache serves these sizes as well without it.
    mallopt(M_MXFAST, 0);
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(Program);
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "The machine's log daemon. Without query options it attaches to the Hub as \"LogDaemonLocal\"\n"
        "(well-known id 8) and stores every log message the machine's processes send, and those that\n"
        "other machines' processes send it, one line each: time, source address, process title,\n"
        "category, level, and the text with its parameters put in (HTML as its words; the message with\n"
        "its markup kept, encoded, in a last field). A file that reaches --max-size is renamed .1 (the\n"
        "one before .2, and so on) and a new one begins; --keep old files are kept. It ends when the\n"
        "Hub shuts down, or on SIGTERM or SIGINT.\n"
        "With --show, --tail, --process, --category, --level or --html it prints the stored messages\n"
        "that match, oldest first, and ends; --html prints them as a page, with their HTML shown as\n"
        "markup (formatting only: no scripts, no attributes).\n"
        "Levels: Debug (0), Information (1), Warning (2), Error (3), Critical (4).\n"
        "Exit status: 0 done, 1 failed (no Hub, another log daemon, a store that cannot be read), 2 usage.\n"
        "Example: logdaemon --process \"Backup Worker\" --level warning --tail 20");
    const QCommandLineOption help = parser.addHelpOption();
    QCommandLineOption show("show", "Print the stored messages (all of them unless other options narrow it).");
    QCommandLineOption tail("tail", "Print only the last <n> matching messages.", "n");
    QCommandLineOption process(
        "process", "Only messages of this process: its title (any case), its address, or its ProcessId.", "process");
    QCommandLineOption category("category", "Only messages of this category (any case).", "category");
    QCommandLineOption level("level", "Only messages of this level or more serious (name or number).", "level");
    QCommandLineOption html("html", "Print the matching messages as an HTML page.");
    QCommandLineOption file("file", "The store to use instead of runtime/log/logdaemon.log under BREVI_HOME.", "path");
    QCommandLineOption maxSize("max-size", "Start a new file past this size: bytes, or with k, M or G (default 10M).",
                               "size");
    QCommandLineOption keep("keep", "How many full files to keep beside the current one (default 5).", "n");
    parser.addOptions({show, tail, process, category, level, html, file, maxSize, keep});

    // Parsed here rather than by QCommandLineParser::process, which ends the
    // program with 1 on a word it does not know: a wrong command line is 2.
    QTextStream err(stderr);
    if (!parser.parse(QCoreApplication::arguments()))
        return usage(err, parser.errorText());
    if (parser.isSet(help))
        parser.showHelp(ToolCommon::eExitOk);
    if (!parser.positionalArguments().isEmpty())
        return usage(err, "unexpected argument '" + parser.positionalArguments().first() + "'");
    gStorePath = parser.value(file);

    const bool querying = parser.isSet(show) || parser.isSet(tail) || parser.isSet(process) || parser.isSet(category) ||
                          parser.isSet(level) || parser.isSet(html);
    if (querying) {
        LogQuery request;
        if (parser.isSet(tail)) {
            bool ok = false;
            request.miTail = parser.value(tail).toInt(&ok);
            if (!ok || request.miTail < 0)
                return usage(err, "--tail takes a number of messages");
        }
        request.mbProcess = parser.isSet(process);
        request.msProcess = parser.value(process);
        request.mbCategory = parser.isSet(category);
        request.msCategory = parser.value(category);
        request.mbLevel = parser.isSet(level);
        if (request.mbLevel && !LogRecord::levelFromText(parser.value(level), request.muiLevel))
            return usage(err, "unknown level '" + parser.value(level) + "'");
        if (gStorePath.isEmpty()) {
            FixedPath::initialize();
            if (FixedPath::home().isEmpty()) {
                err << Program << ": no home directory (set BREVI_HOME) and no --file\n";
                return ToolCommon::eExitUsage;
            }
            gStorePath = LogStore::defaultPath();
        }
        return query(request, gStorePath, parser.isSet(html));
    }

    if (parser.isSet(maxSize) && !parseSize(parser.value(maxSize), gMaxBytes))
        return usage(err, "--max-size takes a size in bytes, with k, M or G if wanted");
    if (parser.isSet(keep)) {
        bool ok = false;
        gKeep = parser.value(keep).toInt(&ok);
        if (!ok || gKeep < 0)
            return usage(err, "--keep takes a number of files");
    }

    int result = 1;
    if (!Context::run(daemonMain, result, argc, argv, Context::TypeAttached, Context::FlagUseEnvironment, "Log Daemon",
                      Catalogue::LogDaemonLocalService, QString()))
        return notAttached(err);
    return result;
}
