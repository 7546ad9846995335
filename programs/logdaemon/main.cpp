// logdaemon: the machine's log daemon. Run without query options it attaches
// to the Hub as "LogDaemonLocal" (id 8) and stores every log message the
// machine's processes send; with --show, --tail, --category or --level it
// prints what is stored and ends.

#include "logdaemon.h"
#include "logquery.h"
#include "logstore.h"

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

using namespace Brevi;

namespace {

const unsigned TraceModule = TraceModuleLog;
const char* const Category = "LogDaemon";

QString gStorePath;
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
    LogDaemon daemon(gStorePath.isEmpty() ? LogStore::defaultPath() : gStorePath);
    installSignals();
    const QString title = Context::object()->title();
    // The daemon's own start and stop go into its own store, by way of the
    // Hub and back, like any other process's.
    Context::logging()->initialiseStateLogging(Category, title, Log::eProcessStarted);
    Context::logging()->sendMessage();
    result = daemon.run(gStop);
    BTRACE(TraceAlways) << "Log daemon ends with" << result;
}

int query(const LogQuery& query, const QString& path)
{
    QStringList lines;
    QString error;
    int skipped = 0;
    if (!query.run(path, lines, error, &skipped)) {
        QTextStream(stderr) << "logdaemon: cannot read " << path << ": " << error << '\n';
        return 1;
    }
    QTextStream out(stdout);
    out.setCodec("UTF-8");
    for (const QString& line : lines)
        out << line << '\n';
    if (skipped > 0)
        QTextStream(stderr) << "logdaemon: " << skipped << " damaged line(s) skipped in " << path << '\n';
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName("logdaemon");
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "The machine's log daemon. Without query options it attaches to the Hub as \"LogDaemonLocal\"\n"
        "(well-known id 8) and stores every log message the machine's processes send, one line each:\n"
        "time, source address, category, level, and the text with its parameters put in. It ends when\n"
        "the Hub shuts down, or on SIGTERM or SIGINT.\n"
        "With --show, --tail, --category or --level it prints the stored messages that match and ends.\n"
        "Levels: Debug (0), Information (1), Warning (2), Error (3), Critical (4).\n"
        "Example: logdaemon --level warning --tail 20");
    parser.addHelpOption();
    QCommandLineOption show("show", "Print the stored messages (all of them unless other options narrow it).");
    QCommandLineOption tail("tail", "Print only the last <n> matching messages.", "n");
    QCommandLineOption category("category", "Only messages of this category (any case).", "category");
    QCommandLineOption level("level", "Only messages of this level or more serious (name or number).", "level");
    QCommandLineOption file("file", "The store to use instead of runtime/log/logdaemon.log under BREVI_HOME.", "path");
    parser.addOptions({show, tail, category, level, file});
    parser.process(application);

    QTextStream err(stderr);
    if (!parser.positionalArguments().isEmpty()) {
        err << "logdaemon: unexpected argument '" << parser.positionalArguments().first() << "' (see --help)\n";
        return 2;
    }
    gStorePath = parser.value(file);

    const bool querying = parser.isSet(show) || parser.isSet(tail) || parser.isSet(category) || parser.isSet(level);
    if (querying) {
        LogQuery request;
        if (parser.isSet(tail)) {
            bool ok = false;
            request.miTail = parser.value(tail).toInt(&ok);
            if (!ok || request.miTail < 0) {
                err << "logdaemon: --tail takes a number of messages\n";
                return 2;
            }
        }
        if (parser.isSet(category)) {
            request.mbCategory = true;
            request.msCategory = parser.value(category);
        }
        if (parser.isSet(level)) {
            request.mbLevel = true;
            if (!LogRecord::levelFromText(parser.value(level), request.muiLevel)) {
                err << "logdaemon: unknown level '" << parser.value(level) << "' (see --help)\n";
                return 2;
            }
        }
        if (gStorePath.isEmpty()) {
            FixedPath::initialize();
            if (FixedPath::home().isEmpty()) {
                err << "logdaemon: no home directory (set BREVI_HOME) and no --file\n";
                return 2;
            }
            gStorePath = LogStore::defaultPath();
        }
        return query(request, gStorePath);
    }

    int result = 1;
    if (!Context::run(daemonMain, result, argc, argv, Context::TypeAttached, Context::FlagUseEnvironment, "Log Daemon",
                      Catalogue::LogDaemonLocalService, QString())) {
        err << "logdaemon: cannot attach to the Hub (is it running? BREVI_HUB_PORT, BREVI_HOME)\n";
        return 1;
    }
    return result;
}
