// Classifying the files of a backup: a million paths of a generated tree that
// looks like a Linux host with forty users (caches, projects with build
// output, downloads, logs, packages, service data) against 200 rules with
// patterns and recursion, beside `git check-ignore --stdin --no-index` given
// the same rules as ignore patterns and the same paths.
//
//   whole path      NotToBackup::fileOpType(path), the path as one text
//   parts           fileOpType(volume, directory, name), as a walker holds it
//   per directory   expressions() once a directory, then Expressions::opType
//                   for each name: the walker's fast path
//   git             git check-ignore reading the paths from a file and
//                   writing the ignored ones to another, run once; its CPU time
//                   is the "child_cpu_s" counter
//
// The counter "matched" is the number of paths each left out (or, for us,
// took live only); the rules are written so that both read them alike.
//
// Environment: BREVI_BENCH_PATHS (default 1000000).

#include "rules/expressions.h"
#include "rules/nottobackup.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include "benchsupport.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include <sys/resource.h>

using namespace Brevi;

namespace {

struct Rule {
    QString path;
    bool recursive;
    bool pattern;
    bool directory;
    QString git;
};

// The paths grouped by directory, in the order a walk meets them.
struct Tree {
    std::vector<QString> directories;    // "/home/user03/projects/p2/src"
    std::vector<QStringList> components; // {"/", "home", "user03", ...}
    std::vector<std::vector<QString>> names;
    std::vector<QString> paths;        // every file, whole
    std::vector<unsigned> directoryOf; // its directory's index
    std::vector<Rule> rules;
};

class TreeMaker
{
public:
    explicit TreeMaker(size_t target)
        : mTarget(target)
        , mRandom(20241122)
    {}

    Tree make()
    {
        while (mTree.paths.size() < mTarget) {
            const unsigned round = mRound++;
            systemFiles(round);
            for (unsigned user = 0; user < 40 && mTree.paths.size() < mTarget; ++user)
                home(round, user);
            services(round);
        }
        makeRules();
        return std::move(mTree);
    }

private:
    unsigned pick(unsigned n) { return unsigned(mRandom() % n); }

    void files(const QString& directory, unsigned count, const std::vector<const char*>& stems,
               const std::vector<const char*>& extensions)
    {
        if (mTree.paths.size() >= mTarget)
            return;
        const unsigned index = unsigned(mTree.directories.size());
        mTree.directories.push_back(directory);
        QStringList components = directory.split('/', Qt::SkipEmptyParts);
        components.prepend("/");
        mTree.components.push_back(components);
        mTree.names.emplace_back();
        for (unsigned i = 0; i < count && mTree.paths.size() < mTarget; ++i) {
            const QString name = QString("%1%2%3")
                                     .arg(stems[pick(unsigned(stems.size()))])
                                     .arg(pick(1000))
                                     .arg(extensions[pick(unsigned(extensions.size()))]);
            mTree.names.back().push_back(name);
            mTree.paths.push_back(directory + '/' + name);
            mTree.directoryOf.push_back(index);
        }
    }

    void systemFiles(unsigned round)
    {
        const QString r = QString::number(round);
        for (unsigned s = 0; s < 50; ++s)
            files(QString("/etc/svc%1").arg(s), 6, {"main", "local", "site"}, {".conf", ".old", ".bak", ".d"});
        for (unsigned p = 0; p < 60; ++p) {
            const QString package = QString("/usr/lib/python3/dist-packages/pkg%1r%2").arg(p).arg(r);
            files(package, 12, {"module", "util", "core", "__init__"}, {".py", ".pyi", ".so"});
            files(package + "/__pycache__", 6, {"module", "util", "core"}, {".cpython-311.pyc"});
            files(QString("/usr/share/doc/pkg%1r%2").arg(p).arg(r), 6, {"changelog", "copyright", "README"},
                  {".gz", "", ".md"});
        }
        files("/var/cache/apt/archives/r" + r, 20, {"libfoo", "python3-bar", "linux-image"}, {".deb"});
        for (unsigned s = 0; s < 20; ++s)
            files(QString("/var/log/svc%1/r%2").arg(s).arg(r), 10, {"access", "error", "syslog"},
                  {".log", ".log.1", ".log.2.gz"});
        files("/var/lib/postgresql/15/main/base/r" + r, 20, {"1", "2", "3"}, {"", "_fsm", "_vm"});
    }

    void home(unsigned round, unsigned user)
    {
        const QString base = QString("/home/user%1").arg(user, 2, 10, QChar('0'));
        const QString r = QString::number(round);
        for (const char* app : {"mozilla", "chromium", "pip", "thumbnails", "fontconfig", "npm"})
            files(QString("%1/.cache/%2/r%3").arg(base, app, r), 5, {"entry", "cache", "blob"}, {"", ".bin", ".json"});
        for (unsigned p = 0; p < 4; ++p) {
            const QString project = QString("%1/projects/p%2r%3").arg(base).arg(p).arg(r);
            for (unsigned m = 0; m < 6; ++m)
                files(QString("%1/src/mod%2").arg(project).arg(m), 12, {"main", "parser", "util", "test"},
                      {".c", ".h", ".cpp", ".h", ".c", ".py", ".txt", ".c~"});
            files(project + "/build", 8, {"main", "parser", "util"}, {".o", ".d", ".a"});
            files(project + "/build/obj", 6, {"main", "parser", "util"}, {".o"});
            files(project + "/.git/objects/a" + r, 6, {"3f2a", "9c1d", "e0b4"}, {""});
            files(project + "/docs", 10, {"guide", "notes", "design"}, {".md", ".rst", ".txt", ".md~"});
        }
        files(base + "/Documents/r" + r, 40, {"report", "letter", "budget", "notes"},
              {".odt", ".pdf", ".txt", ".xlsx", ".jpg", ".png", ".docx", ".tmp"});
        files(base + "/Downloads/r" + r, 6, {"setup", "archive", "video"}, {".iso", ".zip", ".part", ".mp4"});
        files(base + "/.local/share/Trash/files/r" + r, 4, {"old", "draft"}, {".txt", ".odt"});
        files(base + "/r" + r, 4, {".bash_history", ".xsession-errors", ".profile"}, {""});
    }

    void services(unsigned round)
    {
        for (unsigned p = 0; p < 20; ++p) {
            const QString project = QString("/srv/data/proj%1").arg(p);
            files(QString("%1/files/r%2").arg(project).arg(round), 40, {"record", "image", "export"},
                  {".dat", ".png", ".csv", ".json", ".bak"});
            files(QString("%1/scratch/r%2").arg(project).arg(round), 10, {"tmp", "work"}, {".dat", ".tmp"});
            files(QString("%1/tmp/r%2").arg(project).arg(round), 10, {"tmp", "work"}, {".dat"});
        }
        for (unsigned a = 0; a < 9; ++a)
            files(QString("/opt/app%1/cache/r%2").arg(a).arg(round), 20, {"c"}, {".bin"});
    }

    void add(const QString& path, bool recursive, bool pattern, bool directory, const QString& git)
    {
        mTree.rules.push_back({path, recursive, pattern, directory, git});
    }

    // 200 rules. A "*" of a pattern stands for exactly one component
    // wherever the tree has it, so that git's reading of a star and ours
    // agree.
    void makeRules()
    {
        for (const char* directory :
             {"/proc", "/sys", "/dev", "/run", "/tmp", "/var/tmp", "/var/cache/apt/archives", "/var/log/journal"})
            add(directory, true, false, true, QString(directory) + '/');
        for (unsigned user = 0; user < 40; ++user) {
            const QString base = QString("/home/user%1").arg(user, 2, 10, QChar('0'));
            add(base + "/Downloads", true, false, true, base + "/Downloads/");
            add(base + "/.xsession-errors", false, false, false, base + "/.xsession-errors");
        }
        for (unsigned p = 0; p < 20; ++p)
            add(QString("/srv/data/proj%1/scratch").arg(p), true, false, true,
                QString("/srv/data/proj%1/scratch/").arg(p));
        for (const char* app : {"mozilla", "chromium", "pip", "thumbnails", "npm"})
            add(QString("/home/*/.cache/%1").arg(app), true, true, true, QString("/home/*/.cache/%1/").arg(app));
        add("/home/*/projects/*/build", true, true, true, "/home/*/projects/*/build/");
        add("/home/*/.local/share/Trash", true, true, true, "/home/*/.local/share/Trash/");
        add("/home/*/projects/*/.git/objects", true, true, true, "/home/*/projects/*/.git/objects/");
        add("/srv/data/*/tmp", true, true, true, "/srv/data/*/tmp/");
        for (const char* name : {"*.tmp", "*~", "*.part"})
            add(QString("/home/%1").arg(name), true, false, false, QString("/home/**/%1").arg(name));
        for (const char* name : {"*.bak", "*.swp"})
            add(QString("/srv/%1").arg(name), true, false, false, QString("/srv/**/%1").arg(name));
        add("/usr/*.pyc", true, false, false, "/usr/**/*.pyc");
        add("/var/log/*.gz", true, false, false, "/var/log/**/*.gz");
        add("/*.swp", true, false, false, "*.swp");
        add("/swapfile", false, false, false, "/swapfile");
        for (unsigned s = 0; s < 50; ++s)
            add(QString("/etc/svc%1/*.old").arg(s), false, false, false, QString("/etc/svc%1/*.old").arg(s));
        for (unsigned p = 0; p < 13; ++p)
            add(QString("/usr/lib/python3/dist-packages/pkg%1r0/*.so").arg(p), false, false, false,
                QString("/usr/lib/python3/dist-packages/pkg%1r0/*.so").arg(p));
        for (unsigned a = 0; a < 9; ++a)
            add(QString("/opt/app%1/cache").arg(a), true, false, true, QString("/opt/app%1/cache/").arg(a));
        add("/var/lib/postgresql", true, false, true, "/var/lib/postgresql/");
        add("/var/lib/mysql", true, false, true, "/var/lib/mysql/");
    }

    size_t mTarget;
    std::mt19937 mRandom;
    unsigned mRound = 0;
    Tree mTree;
};

const Tree& tree()
{
    static const Tree made = [] {
        const char* count = std::getenv("BREVI_BENCH_PATHS");
        return TreeMaker(count && *count ? std::strtoul(count, nullptr, 10) : 1000000).make();
    }();
    return made;
}

const NotToBackup& rules()
{
    static const NotToBackup made = [] {
        XmlList entries;
        for (const Rule& rule : tree().rules) {
            XmlList entry;
            entry.set("Path", rule.path);
            entry.set("Recurse", rule.recursive);
            entry.set("Pattern", rule.pattern);
            entry.set("Directory", rule.directory);
            entry.set("Operation", rule.path.startsWith("/var/lib/") ? "LiveOnly" : "Exclude");
            entries.set("Entry", entry, XmlList::SetCreate);
        }
        XmlList details;
        details.set("OSType", "Linux");
        details.set("NotToBackup", entries);
        return NotToBackup(details);
    }();
    return made;
}

void finish(benchmark::State& state, size_t matched)
{
    state.SetItemsProcessed(int64_t(state.iterations() * tree().paths.size()));
    state.counters["rules"] = double(tree().rules.size());
    state.counters["matched"] = double(matched);
}

void wholePath(benchmark::State& state)
{
    const Tree& paths = tree();
    const NotToBackup& notToBackup = rules();
    size_t matched = 0;
    for (auto _ : state) {
        matched = 0;
        for (const QString& path : paths.paths)
            matched += notToBackup.fileOpType(path) != eNothing;
    }
    finish(state, matched);
}

void parts(benchmark::State& state)
{
    const Tree& paths = tree();
    const NotToBackup& notToBackup = rules();
    // What a walker holds: the volume, the directory below it, the name.
    std::vector<QString> below;
    for (const QString& directory : paths.directories)
        below.push_back(directory.mid(1) + '/');
    const QString volume("/");
    size_t matched = 0;
    for (auto _ : state) {
        matched = 0;
        for (size_t d = 0; d < paths.directories.size(); ++d)
            for (const QString& name : paths.names[d])
                matched += notToBackup.fileOpType(volume, below[d], name) != eNothing;
    }
    finish(state, matched);
}

void perDirectory(benchmark::State& state)
{
    const Tree& paths = tree();
    const NotToBackup& notToBackup = rules();
    size_t matched = 0;
    Expressions expressions;
    for (auto _ : state) {
        matched = 0;
        for (size_t d = 0; d < paths.directories.size(); ++d) {
            if (notToBackup.directoryOpType(paths.components[d]) == eExclude) {
                // A walker leaves the whole directory out without a look.
                matched += paths.names[d].size();
                continue;
            }
            notToBackup.expressions(expressions, paths.components[d]);
            for (const QString& name : paths.names[d])
                matched += expressions.opType(name) != eNothing;
        }
    }
    finish(state, matched);
}

void gitCheckIgnore(benchmark::State& state)
{
    const Tree& paths = tree();
    QTemporaryDir repository;
    if (QProcess::execute("git", {"init", "-q", repository.path()}) != 0) {
        state.SkipWithError("git init failed");
        return;
    }
    QFile ignore(repository.path() + "/.git/info/exclude");
    ignore.open(QIODevice::WriteOnly | QIODevice::Truncate);
    for (const Rule& rule : paths.rules)
        ignore.write(rule.git.toUtf8() + '\n');
    ignore.close();
    // Paths relative to the top of the work tree, which stands for "/".
    QFile input(repository.path() + "/paths.txt");
    input.open(QIODevice::WriteOnly | QIODevice::Truncate);
    for (const QString& path : paths.paths)
        input.write(path.midRef(1).toUtf8() + '\n');
    input.close();

    size_t matched = 0;
    double cpu = 0;
    for (auto _ : state) {
        QProcess git;
        git.setWorkingDirectory(repository.path());
        git.setStandardInputFile(input.fileName());
        git.setStandardOutputFile(repository.path() + "/ignored.txt");
        const double before = BreviBench::childCpuSeconds();
        git.start("git", {"check-ignore", "--stdin", "--no-index"});
        git.waitForFinished(-1);
        cpu += BreviBench::childCpuSeconds() - before;
        QFile output(repository.path() + "/ignored.txt");
        output.open(QIODevice::ReadOnly);
        matched = size_t(output.readAll().count('\n'));
    }
    finish(state, matched);
    state.counters["child_cpu_s"] = cpu / double(state.iterations());
}

} // namespace

#define BREVI_PASS(function) BENCHMARK(function)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime()
BREVI_PASS(wholePath);
BREVI_PASS(parts);
BREVI_PASS(perDirectory);
BREVI_PASS(gitCheckIgnore);

BENCHMARK_MAIN();
