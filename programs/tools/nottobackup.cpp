// nottobackup: what the backup rules make of paths on this machine.
//
//   nottobackup --details             the rules gathered here, as the list that travels
//   nottobackup PATH...               one result a line: Nothing, Exclude or LiveOnly
//   nottobackup < paths               the same for each line of standard input
//   nottobackup --walk DIR            what a backup of the tree would leave out or take
//                                     live only, and a summary
//   --rules FILE                      rules from FILE instead: a list printed by --details
//                                     (from any host), or a rule file like nottobackup.cfg
//
// The walk reads names as the file system gives them, bytes and all: a name
// that is not UTF-8 is classified by its readable part and printed as it is.

#include "toolcommon.h"

#include "core/config.h"
#include "core/fixedpath.h"
#include "rules/expressions.h"
#include "rules/nottobackup.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QTextStream>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Brevi;
using namespace Brevi::ToolCommon;

namespace {

QByteArray resultWord(OpType op) { return opTypeText(op).toLatin1().leftJustified(9, ' '); }

void printLine(OpType op, const QByteArray& path, const char* suffix = "")
{
    const QByteArray line = resultWord(op) + path + suffix + '\n';
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
}

struct Counts {
    quint64 directories = 0;
    quint64 files = 0;
    quint64 excludedDirectories = 0;
    quint64 excludedFiles = 0;
    quint64 excludedBytes = 0;
    quint64 liveDirectories = 0;
    quint64 liveFiles = 0;
    quint64 liveBytes = 0;
    quint64 unreadable = 0;
    quint64 notUtf8 = 0;
};

// A directory being read: its descriptor stays open while its
// subdirectories are walked, which are opened relative to it.
struct Frame {
    DIR* dir;
    QByteArray path;
    QString text;
    OpType own;
    Expressions rules;
};

class Walker
{
public:
    Walker(const NotToBackup& rules, QTextStream& err)
        : mrRules(rules)
        , mrErr(err)
    {}

    bool walk(const QByteArray& root);
    void summary(QTextStream& out, const QByteArray& root) const;

private:
    bool enter(int fd, const QByteArray& path, const QString& text, OpType own);
    QString decode(const QByteArray& name, const QByteArray& path);

    const NotToBackup& mrRules;
    QTextStream& mrErr;
    std::vector<Frame> moStack;
    Counts moCounts;
};

QString Walker::decode(const QByteArray& name, const QByteArray& path)
{
    const QString text = QString::fromUtf8(name);
    if (text.toUtf8() != name) {
        ++moCounts.notUtf8;
        mrErr << "nottobackup: name not in UTF-8, classified as " << text << ": ";
        mrErr.flush();
        std::fwrite(path.constData(), 1, size_t(path.size()), stderr);
        std::fputc('\n', stderr);
    }
    return text;
}

bool Walker::enter(int fd, const QByteArray& path, const QString& text, OpType own)
{
    DIR* dir = fdopendir(fd);
    if (!dir) {
        close(fd);
        return false;
    }
    Frame frame{dir, path, text, own, Expressions()};
    QStringList components = text.split('/', Qt::SkipEmptyParts);
    components.prepend(QStringLiteral("/"));
    mrRules.expressions(frame.rules, components);
    moStack.push_back(std::move(frame));
    ++moCounts.directories;
    return true;
}

bool Walker::walk(const QByteArray& root)
{
    const QString rootText = QString::fromUtf8(root);
    const OpType rootOp = mrRules.directoryOpType(rootText);
    if (rootOp != eNothing)
        printLine(rootOp, root, root.endsWith('/') ? "" : "/");
    if (rootOp == eExclude) {
        ++moCounts.excludedDirectories;
        return true;
    }
    if (rootOp == eLiveOnly)
        ++moCounts.liveDirectories;
    const int rootFd = open(root.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (rootFd < 0 || !enter(rootFd, root, rootText, rootOp)) {
        mrErr << "nottobackup: cannot read " << rootText << ": " << QString::fromLocal8Bit(strerror(errno)) << '\n';
        return false;
    }

    while (!moStack.empty()) {
        Frame& top = moStack.back();
        errno = 0;
        const dirent* entry = readdir(top.dir);
        if (!entry) {
            if (errno != 0) {
                ++moCounts.unreadable;
                mrErr << "nottobackup: reading " << top.text << " stopped: " << strerror(errno) << '\n';
            }
            closedir(top.dir);
            moStack.pop_back();
            continue;
        }
        const QByteArray name(entry->d_name);
        if (name == "." || name == "..")
            continue;
        const QByteArray path = top.path + (top.path.endsWith('/') ? "" : "/") + name;
        const int dirFd = dirfd(top.dir);
        bool directory = entry->d_type == DT_DIR;
        struct stat status;
        bool stated = false;
        if (entry->d_type == DT_UNKNOWN) {
            stated = fstatat(dirFd, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0;
            directory = stated && S_ISDIR(status.st_mode);
        }
        const QString nameText = decode(name, path);
        const QString text = top.text + (top.text.endsWith('/') ? "" : "/") + nameText;

        if (!directory) {
            ++moCounts.files;
            const OpType op = top.rules.opType(nameText);
            if (op == eNothing)
                continue;
            if (!stated)
                stated = fstatat(dirFd, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0;
            const quint64 size = stated ? quint64(status.st_size) : 0;
            if (op == eExclude) {
                ++moCounts.excludedFiles;
                moCounts.excludedBytes += size;
            } else {
                ++moCounts.liveFiles;
                moCounts.liveBytes += size;
            }
            // Inside a directory taken live only, its files need no line each.
            if (op != top.own)
                printLine(op, path);
            continue;
        }

        const OpType op = mrRules.directoryOpType(text);
        if (op != eNothing && op != top.own)
            printLine(op, path, "/");
        if (op == eExclude) {
            // Left out whole: nothing below it is looked at.
            ++moCounts.excludedDirectories;
            continue;
        }
        if (op == eLiveOnly)
            ++moCounts.liveDirectories;
        const OpType own = op;
        const int fd = openat(dirFd, entry->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        // `top` may move when the stack grows; nothing below uses it.
        if (fd < 0 || !enter(fd, path, text, own)) {
            ++moCounts.unreadable;
            mrErr << "nottobackup: cannot read " << text << ": " << strerror(errno) << '\n';
        }
    }
    return true;
}

void Walker::summary(QTextStream& out, const QByteArray& root) const
{
    const Counts& c = moCounts;
    out << "Walked " << c.directories << " directories and " << c.files << " files under " << QString::fromUtf8(root)
        << '\n';
    out << "Excluded: " << c.excludedDirectories << " directories (not walked), " << c.excludedFiles << " files of "
        << c.excludedBytes << " bytes\n";
    out << "Live only: " << c.liveDirectories << " directories, " << c.liveFiles << " files of " << c.liveBytes
        << " bytes\n";
    if (c.unreadable)
        out << "Unreadable: " << c.unreadable << " directories\n";
    if (c.notUtf8)
        out << "Names not in UTF-8: " << c.notUtf8 << '\n';
}

OpType classify(const NotToBackup& rules, const QString& path, bool asDirectory)
{
    const bool directory =
        asDirectory || path.endsWith(rules.delimiter()) || (rules.delimiter() == '/' && QFileInfo(path).isDir());
    return directory ? rules.directoryOpType(path) : rules.fileOpType(path);
}

// The rules to use: this machine's, or those of --rules.
bool loadRules(const QString& file, XmlList& details, QTextStream& err)
{
    if (file.isEmpty()) {
        // The local rule file lives under BREVI_HOME; without one, only the
        // rules installed with the library count.
        FixedPath::initialize();
        details = NotToBackup::details();
        return true;
    }
    if (!QFileInfo(file).isFile()) {
        err << "nottobackup: cannot read " << file << '\n';
        return false;
    }
    const Config probe(file);
    if (!probe.isValid()) {
        err << "nottobackup: " << file << " is not a rule file (not XML)\n";
        return false;
    }
    if (!probe.first(QStringLiteral("OSType")).isNull()) {
        details = probe.clone();
        return true;
    }
    FixedPath::initialize();
    details = NotToBackup::detailsFromFile(file);
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName("nottobackup");
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "What the backup rules make of paths on this machine: Nothing (taken), Exclude (left out) or\n"
        "LiveOnly (taken from the live file system, not a snapshot), one result a line. Paths come from\n"
        "the arguments, else from standard input, one a line. A path ending in the delimiter, or an\n"
        "existing directory, is classified as a directory.\n"
        "The rules are this machine's: those installed with the library and db/config/nottobackup.cfg\n"
        "under $BREVI_HOME.\n"
        "Exit status: 0 done, 1 the rules or the tree could not be read, 2 bad usage.");
    parser.addHelpOption();
    parser.addPositionalArgument("paths", "Paths to classify.", "[PATH...]");
    const QCommandLineOption details("details", "Print the rules gathered, as the list that travels, and stop.");
    const QCommandLineOption rules("rules",
                                   "Use the rules in FILE: a list printed by --details (from any host), or a "
                                   "rule file in the form of nottobackup.cfg, read in place of the local one.",
                                   "file");
    const QCommandLineOption walk("walk",
                                  "Walk the tree under DIR, print what would be excluded or taken live only, "
                                  "and a summary.",
                                  "dir");
    const QCommandLineOption directory("directory", "Classify every path given as a directory.");
    parser.addOption(details);
    parser.addOption(rules);
    parser.addOption(walk);
    parser.addOption(directory);

    QTextStream out(stdout);
    QTextStream err(stderr);
    const int parsed = parseCommandLine(parser, QCoreApplication::arguments(), "nottobackup", err);
    if (parsed >= 0)
        return parsed;
    const QStringList paths = parser.positionalArguments();
    if (parser.isSet(walk) && (!paths.isEmpty() || parser.isSet(details))) {
        err << "nottobackup: --walk takes no paths and no --details (see --help)\n";
        return eExitUsage;
    }

    XmlList list;
    if (!loadRules(parser.value(rules), list, err))
        return eExitFailed;
    if (parser.isSet(details)) {
        out << QString::fromUtf8(list.toBinary());
        return eExitOk;
    }
    const NotToBackup notToBackup(list);

    if (parser.isSet(walk)) {
        // Each directory of the path being walked holds a descriptor.
        rlimit limit;
        if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
            limit.rlim_cur = limit.rlim_max;
            setrlimit(RLIMIT_NOFILE, &limit);
        }
        QByteArray root = QFile::encodeName(QFileInfo(parser.value(walk)).absoluteFilePath());
        Walker walker(notToBackup, err);
        const bool walked = walker.walk(root);
        std::fflush(stdout);
        err.flush();
        if (walked)
            walker.summary(out, root);
        return walked ? eExitOk : eExitFailed;
    }

    const bool asDirectory = parser.isSet(directory);
    if (!paths.isEmpty()) {
        for (const QString& path : paths)
            printLine(classify(notToBackup, path, asDirectory), path.toUtf8());
        return eExitOk;
    }
    QFile input;
    if (!input.open(stdin, QIODevice::ReadOnly))
        return eExitFailed;
    while (!input.atEnd()) {
        QByteArray line = input.readLine();
        while (line.endsWith('\n') || line.endsWith('\r'))
            line.chop(1);
        if (!line.isEmpty())
            printLine(classify(notToBackup, QString::fromUtf8(line), asDirectory), line);
    }
    return eExitOk;
}
