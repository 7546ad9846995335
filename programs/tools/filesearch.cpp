// filesearch: indexes the names and metadata of the files under directory
// trees through the search-index server, and answers searches from the
// command line. It attaches to the Hub, starts its own index server for the
// run, and stops it when done; the index stays in a directory of its own.

#include "toolcommon.h"

#include "core/configlocal.h"
#include "core/context.h"
#include "core/fixedpath.h"
#include "index/lucenecomm.h"
#include "index/spawnlucene.h"
#include "messaging/msgcondition.h"
#include "sockets/netaddress.h"
#include "sockets/tcpsocketlisten.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QTextStream>

using namespace Brevi;
using namespace Brevi::ToolCommon;

namespace {

const char* const Tool = "filesearch";
const char* const ConfigFile = "indexserver.cfg";

typedef LuceneComm::Options Options;
typedef LuceneComm::Command Command;

struct Settings {
    QString indexDirectory;
    QString java;
    QString classpath;
    bool indexing = false;
    QStringList arguments;
    QString larger, smaller, newer, older, sort;
    unsigned limit = 20;
} gSettings;

class Never : public MsgCondition
{};

// The fields of one file: its path as a whole and its name in words, the
// directory, the extension, the size and the modification time as numbers.
LuceneComm::FieldOptions fileFields()
{
    LuceneComm::FieldOptions fields("name");
    fields.add("path", Options(""));
    fields.add("name", Options("A7"));
    fields.add("directory", Options("U"));
    fields.add("extension", Options("A6"));
    fields.add("type", Options(""));
    fields.add("size", Options("V2N"));
    fields.add("modified", Options("V2N"));
    return fields;
}

// A loopback port that was free a moment ago, for the server of this run.
unsigned freePort()
{
    TCPSocketListen probe(QStringLiteral("Port probe"), NetAddress(QHostAddress::LocalHost, 0), 1);
    return probe.isValid() ? probe.localAddress().getPort() : 0;
}

bool indexTree(QTextStream& out, QTextStream& err, LuceneComm& link, const LuceneComm::FieldOptions& fields,
               const QString& tree)
{
    Never never;
    const QFileInfo top(tree);
    if (!top.isDir()) {
        err << Tool << ": not a directory: " << tree << '\n';
        return false;
    }
    const QString root = QDir::cleanPath(top.absoluteFilePath());
    // What was indexed under this tree before goes first: a file that has
    // gone since must not be found.
    Command forget(fields);
    // Every path under the tree sorts between "root/" and "root/" followed by
    // the last character there is.
    forget.copyRange("path", root + '/', root + '/' + QString::fromUcs4(U"\U0010FFFF"));
    if (!link.indexDeleteQuery(never, forget)) {
        err << Tool << ": the server refused to forget " << root << ": " << link.lastReason() << '\n';
        return false;
    }
    unsigned files = 0;
    QDirIterator entries(root, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                         QDirIterator::Subdirectories);
    while (entries.hasNext()) {
        entries.next();
        const QFileInfo info = entries.fileInfo();
        Command add(fields);
        add.addField("path", info.absoluteFilePath());
        add.addField("name", info.fileName());
        add.addField("directory", info.absolutePath());
        add.addField("extension", info.suffix());
        add.addField("type", info.isSymLink() ? "link" : info.isDir() ? "directory" : "file");
        add.addField("size", static_cast<unsigned long long>(info.isDir() ? 0 : info.size()));
        add.addField("modified",
                     static_cast<unsigned long long>(qMax<qint64>(0, info.lastModified().toSecsSinceEpoch())));
        if (!link.indexAddQueued(never, add)) {
            err << Tool << ": the link to the index server failed\n";
            return false;
        }
        ++files;
    }
    out << "Indexed " << files << " entries under " << root << '\n';
    return true;
}

bool number(const QString& text, unsigned long long& value)
{
    bool ok = false;
    const QString digits = text.trimmed().toLower();
    unsigned long long scale = 1;
    QString plain = digits;
    if (digits.endsWith('k') || digits.endsWith('m') || digits.endsWith('g')) {
        scale = digits.endsWith('k') ? 1024ull : digits.endsWith('m') ? 1024ull * 1024 : 1024ull * 1024 * 1024;
        plain.chop(1);
    }
    value = plain.toULongLong(&ok) * scale;
    return ok;
}

bool search(QTextStream& out, QTextStream& err, LuceneComm& link, const LuceneComm::FieldOptions& fields)
{
    Never never;
    Command query(fields);
    // Each word must match a word of the name; the server reads it as query
    // text, so "report*", "pdf OR txt" and the like work.
    for (const QString& word : gSettings.arguments)
        query.addField("name", word);
    unsigned long long low = 0;
    unsigned long long high = 0;
    const QDateTime now = QDateTime::currentDateTimeUtc();
    if (!gSettings.larger.isEmpty() || !gSettings.smaller.isEmpty()) {
        if ((!gSettings.larger.isEmpty() && !number(gSettings.larger, low)) ||
            (!gSettings.smaller.isEmpty() && !number(gSettings.smaller, high))) {
            err << Tool << ": a size is a number, with k, m or g if you like\n";
            return false;
        }
        query.addRange("size", gSettings.larger.isEmpty() ? QString() : QString::number(low),
                       gSettings.smaller.isEmpty() ? QString() : QString::number(high));
    }
    if (!gSettings.newer.isEmpty() || !gSettings.older.isEmpty()) {
        unsigned long long newer = 0;
        unsigned long long older = 0;
        if ((!gSettings.newer.isEmpty() && !number(gSettings.newer, newer)) ||
            (!gSettings.older.isEmpty() && !number(gSettings.older, older))) {
            err << Tool << ": an age is a number of days\n";
            return false;
        }
        const qint64 seconds = now.toSecsSinceEpoch();
        query.addRange("modified",
                       gSettings.newer.isEmpty() ? QString() : QString::number(seconds - qint64(newer) * 86400),
                       gSettings.older.isEmpty() ? QString() : QString::number(seconds - qint64(older) * 86400));
    }
    if (!gSettings.sort.isEmpty())
        query.addSort(QString(), gSettings.sort);
    query.addReturn(QStringList{"path", "size", "modified", "type"});
    query.maximumResults(gSettings.limit);
    query.resultsPerPage(qMin(gSettings.limit, 100u));

    LuceneComm::Reply found;
    if (!link.indexSearch(never, query, found)) {
        err << Tool << ": " << (link.lastReason().isEmpty() ? QString("the search failed") : link.lastReason()) << '\n';
        return false;
    }
    unsigned shown = 0;
    while (link.searchResultsLeft(never, found)) {
        QList<LuceneComm::Reply> page;
        if (!link.searchResultList(never, page, found, false)) {
            err << Tool << ": a page of results did not come\n";
            return false;
        }
        for (const LuceneComm::Reply& hit : page) {
            const QDateTime modified =
                QDateTime::fromSecsSinceEpoch(hit.field(nullptr, "modified").toLongLong()).toLocalTime();
            out << qSetFieldWidth(12) << hit.field(nullptr, "size") << qSetFieldWidth(0) << "  "
                << modified.toString("yyyy-MM-dd hh:mm") << "  " << hit.field(nullptr, "path")
                << (hit.field(nullptr, "type") == "directory" ? "/" : "") << '\n';
            ++shown;
        }
    }
    out << shown << " of " << found.matches() << " matches\n";
    return true;
}

// The server's jar where this library's data is, so that an installed tool
// and one in the build tree both find theirs; Lucene's jars are the system's.
QString defaultClasspath() { return FixedPath::data() + "/indexserver.jar:" LUCENE_CLASSPATH; }

int run()
{
    QTextStream out(stdout);
    QTextStream err(stderr);
    ConfigLocal config(ConfigFile);
    QString configured;
    if (!gSettings.java.isEmpty() || !gSettings.classpath.isEmpty() || !config.get(configured, "JavaExecutable")) {
        if (!SpawnLucene::configure(ConfigFile, gSettings.java.isEmpty() ? QString(INDEXSERVER_JAVA) : gSettings.java,
                                    gSettings.classpath.isEmpty() ? defaultClasspath() : gSettings.classpath)) {
            err << Tool << ": cannot write " << FixedPath::config() << '/' << ConfigFile << '\n';
            return eExitFailed;
        }
    }
    const unsigned port = freePort();
    SpawnLucene server;
    if (!server.spawn(ConfigFile, port, TraceNormal, FixedPath::runtime() + "/filesearch.alive", {}, {})) {
        err << Tool << ": the index server did not start (see the trace; is Java at the configured place?)\n";
        return eExitFailed;
    }
    Never never;
    const LuceneComm::FieldOptions fields = fileFields();
    LuceneComm link;
    if (!link.connect(never, fields, port, gSettings.indexing, 30000)) {
        err << Tool << ": the index server does not answer on port " << port << '\n';
        return eExitFailed;
    }
    Command open;
    open.addIndexList(QString(), {gSettings.indexDirectory});
    bool ok = link.indexSelect(never, open);
    if (!ok)
        err << Tool << ": cannot open the index " << gSettings.indexDirectory << ": " << link.lastReason() << '\n';
    if (ok && gSettings.indexing) {
        for (const QString& tree : gSettings.arguments)
            ok = indexTree(out, err, link, fields, tree) && ok;
        if (!link.indexCommit(never)) {
            err << Tool << ": the index was not committed: " << link.lastReason() << '\n';
            ok = false;
        }
    } else if (ok) {
        ok = search(out, err, link, fields);
    }
    link.disconnect(true);
    server.process().getOSHandle()->wait();
    return ok ? eExitOk : eExitFailed;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(Tool);
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Indexes the names and metadata of the files under directory trees, and searches them.\n"
        "  filesearch index TREE...      index (again) every file and directory under the trees\n"
        "  filesearch search [WORD...]   the files whose names hold every word (words of letters and\n"
        "                                digits; query syntax: report*, pdf OR txt, -draft)\n"
        "It attaches to the Hub and runs an index server of its own for the time it works.\n"
        "Exit status: 0 done, 1 failed (no Hub, no Java, a refused search), 2 bad command line.\n"
        "Example: filesearch index ~/docs && filesearch search report pdf --larger 1m --sort size");
    parser.addHelpOption();
    const QCommandLineOption port = portOption();
    const QCommandLineOption index("index", "The index directory (default: db/filesearch under BREVI_HOME).", "dir");
    const QCommandLineOption java("java", "The Java executable to run the server with.", "path");
    const QCommandLineOption classpath(
        "classpath", "The server's class path (default: indexserver.jar from the library's data, and Lucene's jars).",
        "paths");
    const QCommandLineOption larger("larger", "Only files of at least this size (k, m, g).", "size");
    const QCommandLineOption smaller("smaller", "Only files of at most this size.", "size");
    const QCommandLineOption newer("newer", "Only files changed within this many days.", "days");
    const QCommandLineOption older("older", "Only files not changed for this many days.", "days");
    const QCommandLineOption sort("sort", "Order by path, size or modified.", "field");
    const QCommandLineOption limit("limit", "At most this many results (default 20).", "n");
    parser.addOptions({port, index, java, classpath, larger, smaller, newer, older, sort, limit});
    parser.addPositionalArgument("command", "index or search");
    QTextStream err(stderr);
    const int parsed = parseCommandLine(parser, application.arguments(), Tool, err);
    if (parsed >= 0)
        return parsed;
    QStringList arguments = parser.positionalArguments();
    const QString command = arguments.isEmpty() ? QString() : arguments.takeFirst();
    bool limitOk = true;
    gSettings.limit = parser.isSet(limit) ? parser.value(limit).toUInt(&limitOk) : 20;
    const QString sortField = parser.value(sort);
    if ((command != "index" && command != "search") || (command == "index" && arguments.isEmpty()) || !limitOk ||
        gSettings.limit == 0 ||
        (!sortField.isEmpty() && sortField != "path" && sortField != "size" && sortField != "modified")) {
        err << Tool << ": give index TREE... or search [WORD...] (see --help)\n";
        return eExitUsage;
    }
    if (!applyPort(parser, port, Tool, err))
        return eExitUsage;
    gSettings.indexing = command == "index";
    gSettings.arguments = arguments;
    gSettings.java = parser.value(java);
    gSettings.classpath = parser.value(classpath);
    gSettings.larger = parser.value(larger);
    gSettings.smaller = parser.value(smaller);
    gSettings.newer = parser.value(newer);
    gSettings.older = parser.value(older);
    gSettings.sort = sortField;
    const QString home = QString::fromLocal8Bit(qgetenv("BREVI_HOME"));
    gSettings.indexDirectory =
        parser.isSet(index) ? QFileInfo(parser.value(index)).absoluteFilePath() : home + "/db/filesearch";
    return runAttached(Tool, run, err);
}
