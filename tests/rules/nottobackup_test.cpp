// Not-to-back-up rules: Windows rules classifying Windows paths here, the
// same rules after travelling as text, Linux rules from the rule files on a
// real tree, the rule file installed with the library, and bad input.

#include "core/fixedpath.h"
#include "core/systeminfo.h"
#include "rules/expressions.h"
#include "rules/nottobackup.h"

#include "rulestest.h"
#include "testhome.h"
#include "tracelines.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <string>

using namespace Brevi;
using BreviTest::detailsOf;
using BreviTest::Rule;
using BreviTest::traces;

namespace {

class RulesTest : public BreviTest::TraceTest<TraceModuleBackup>
{
protected:
    // A fresh home whose local rule file holds `rules`; details() then reads it.
    void localRules(const std::vector<Rule>& rules, bool ignoreRegistry = false)
    {
        QDir().mkpath(moHome.config());
        BreviTest::writeRuleFile(moHome.config() + "/nottobackup.cfg", rules, ignoreRegistry);
        FixedPath::resetForTesting();
        ASSERT_TRUE(FixedPath::initialize());
    }

    BreviTest::TestHome moHome;
};

struct Case {
    const char* path;
    bool directory;
    OpType expected;
};

OpType classify(const NotToBackup& rules, const Case& c)
{
    return c.directory ? rules.directoryOpType(QString(c.path)) : rules.fileOpType(QString(c.path));
}

void expectAll(const NotToBackup& rules, const std::vector<Case>& cases, const char* what)
{
    for (const Case& c : cases)
        EXPECT_EQ(classify(rules, c), c.expected) << what << ": " << c.path;
}

// Rules as a Windows host gathers them: its registry values, then entries of
// its rule file.
XmlList windowsDetails()
{
    XmlList registry;
    registry.set("1", "\\System Volume Information\\* /s", XmlList::SetCreate);
    registry.set("2", "C:\\Temp\\*.tmp /S", XmlList::SetCreate);
    registry.set("3", "\\\\?\\C:\\hiberfil.sys", XmlList::SetCreate);
    registry.set("4", "\\Pagefile.sys", XmlList::SetCreate);
    XmlList details = NotToBackup::otherDetails(registry);

    XmlList entries;
    details.get(entries, "NotToBackup");
    const std::vector<Rule> file = {
        {"C:\\Users\\*\\AppData\\Local\\Temp", "Exclude", true, true, true},
        {"C:\\Data\\Db", "LiveOnly", true, false, true},
        {"C:\\Data\\Db\\*.log", "Exclude", true},
        {"C:\\Data\\*.*", "Exclude"},
        {"?:\\Logs\\*.log", "Exclude", true},
        {"C:\\Build*\\obj", "Exclude", true, true, true},
        {"C:\\Temp\\keep.tmp", "Nothing"},
    };
    for (const Rule& rule : file)
        entries.set("Entry", BreviTest::entryOf(rule, false), XmlList::SetCreate);
    details.set("NotToBackup", entries);
    return details;
}

const std::vector<Case> WindowsCases = {
    // " /s" and any case: recursive, on volume C: only.
    {"C:\\Temp\\a.TMP", false, eExclude},
    {"c:\\temp\\sub\\deeper\\b.tmp", false, eExclude},
    {"D:\\Temp\\a.tmp", false, eNothing},
    {"C:\\Temp\\a.txt", false, eNothing},
    // A rule of "Nothing" lowers nothing.
    {"C:\\Temp\\keep.tmp", false, eExclude},
    // "\" and "?:\" reach every volume; without " /s" only the top.
    {"E:\\PAGEFILE.SYS", false, eExclude},
    {"C:\\dir\\pagefile.sys", false, eNothing},
    {"F:\\Logs\\old\\x.Log", false, eExclude},
    {"\\\\?\\C:\\hiberfil.sys", false, eExclude},
    {"D:\\hiberfil.sys", false, eNothing},
    {"D:\\System Volume Information\\x\\y", false, eExclude},
    // A pattern: a lone "*" is any run of characters, a "*" in a component
    // at most one.
    {"C:\\Users\\Ann\\AppData\\Local\\Temp", true, eExclude},
    {"C:\\Users\\Ann\\AppData\\Local\\Temp\\x\\y", true, eExclude},
    {"C:\\Users\\Ann\\AppData\\Local\\Temp\\f.txt", false, eExclude},
    {"C:\\Users\\Ann\\AppData\\Local", true, eNothing},
    {"C:\\Build1\\obj\\a.o", false, eExclude},
    {"C:\\Build\\obj", true, eExclude},
    {"C:\\Builds12\\obj", true, eNothing},
    // A directory rule covers its files; the greatest operation wins;
    // "*.*" without " /s" stays in its directory.
    {"C:\\Data\\Db", true, eLiveOnly},
    {"C:\\Data\\Db\\x.log", false, eLiveOnly},
    {"C:\\Data\\x.bin", false, eExclude},
    {"C:\\Data\\Other\\x.bin", false, eNothing},
    // No delimiter: nothing to go by.
    {"C:", true, eNothing},
};

} // namespace

TEST_F(RulesTest, WindowsRulesClassifyWindowsPathsHereAndAfterTravelling)
{
    const XmlList details = windowsDetails();
    const NotToBackup rules(details);
    EXPECT_EQ(rules.delimiter(), QChar('\\'));
    EXPECT_FALSE(rules.isCaseSensitive());
    expectAll(rules, WindowsCases, "built here");

    XmlList travelled;
    ASSERT_TRUE(travelled.fromBinary(details.toBinary()));
    NotToBackup copy;
    copy = NotToBackup(travelled);
    expectAll(copy, WindowsCases, "after travelling");
    EXPECT_EQ(copy.currentDetails().toBinary(), details.toBinary());

    // The registry's "\*" ending with " /s" gave a directory rule and a file
    // rule, both recursive.
    int directoryRules = 0;
    int fileRules = 0;
    for (XmlListIterator entry = details.first("NotToBackup").listIterator("Entry"); !entry.isNull();
         entry.next("Entry")) {
        if (entry.getString("Path") != "\\System Volume Information\\*")
            continue;
        EXPECT_TRUE(entry.getBool("Recurse"));
        ++(entry.getBool("Directory") ? directoryRules : fileRules);
    }
    EXPECT_EQ(directoryRules, 1);
    EXPECT_EQ(fileRules, 1);
    EXPECT_TRUE(traces([&] { rules.fileOpType(QString("C:")); }, TraceNormal, "No delimiter"));
}

TEST_F(RulesTest, ProfileAndTempVariablesExpandForEachDirectoryOfTheSystem)
{
    SystemInfo::setForTesting(SystemInfo::eWindows, 256);
    setenv("WINDIR", "C:\\Windows", 1);
    setenv("SystemDrive", "C:", 1);
    setenv("BREVI_TEST_APP", "Example", 1);
    localRules({{"%UserProfile%\\AppData\\Local\\%BREVI_TEST_APP%\\Cache", "Exclude", true, false, true, "Vista"},
                {"%TEMP%\\*.tmp", "Exclude", true},
                {"C:\\OnlyOnXp", "Exclude", true, false, true, "XP"}});

    XmlList details;
    EXPECT_TRUE(traces([&] { details = NotToBackup::details(); }, TraceAlways, "FilesNotToBackup"));
    QString osType;
    details.get(osType, "OSType");
    EXPECT_EQ(osType, "Windows");
    const NotToBackup rules(details);
    const std::vector<Case> cases = {
        {"C:\\Windows\\System32\\config\\systemprofile\\AppData\\Local\\Example\\Cache\\x", false, eExclude},
        {"C:\\Users\\ann\\AppData\\Local\\Example\\Cache", true, eExclude},
        {"C:\\Users\\ann\\AppData\\Local\\Other\\Cache", true, eNothing},
        {"C:\\Windows\\Temp\\a.tmp", false, eExclude},
        {"C:\\Users\\ann\\AppData\\Local\\Temp\\sub\\b.TMP", false, eExclude},
        {"C:\\OnlyOnXp", true, eNothing},
    };
    expectAll(rules, cases, "Vista");

    // Another host's values expand by this host's lists while this is Windows.
    XmlList values;
    values.set("1", "%UserProfile%\\NTUSER.DAT", XmlList::SetCreate);
    const NotToBackup other(NotToBackup::otherDetails(values));
    EXPECT_EQ(other.fileOpType(QString("C:\\Users\\bob\\ntuser.dat")), eExclude);

    // A Linux host cannot know where a Windows host keeps its profiles.
    SystemInfo::setForTesting(SystemInfo::eLinux, 0);
    XmlList dropped;
    EXPECT_TRUE(traces([&] { dropped = NotToBackup::otherDetails(values); }, TraceAlways, "Rule dropped"));
    EXPECT_EQ(NotToBackup(dropped).fileOpType(QString("C:\\Users\\bob\\ntuser.dat")), eNothing);
}

TEST_F(RulesTest, PosixListGivesNothingEverywhere)
{
    const NotToBackup rules(detailsOf("Posix", {{"/tmp", "Exclude", true, false, true}, {"/a/*.o", "Exclude", true}}));
    expectAll(rules, {{"/tmp", true, eNothing}, {"/tmp/x", false, eNothing}, {"/a/b.o", false, eNothing}}, "Posix");
    Expressions out;
    EXPECT_FALSE(rules.expressions(out, {"/", "a"}));
}

TEST_F(RulesTest, LinuxRulesFromTheRuleFileClassifyARealTree)
{
    QTemporaryDir tree;
    const QString t = tree.path();
    for (const char* file : {"keep.txt", "a.tmp", "sub/b.tmp", "sub/c.txt", "cache/x/y.dat", "db/data.db", "db/db.lock",
                             "[odd](dir)+/z"}) {
        const QString path = t + '/' + file;
        QDir().mkpath(QFileInfo(path).path());
        QFile(path).open(QIODevice::WriteOnly);
    }
    const std::vector<Rule> rules = {
        {t + "/cache", "Exclude", true, false, true},
        {t + "/*.tmp", "Exclude", true},
        {t + "/db", "LiveOnly", true, false, true, "Linux"},
        {t + "/db/*.lock", "Exclude"},
        // Brackets and the like are characters like any other.
        {t + "/[odd]*(dir)+", "Exclude", true, true, true},
        {t + "/sub/c.txt", "Exclude", false, false, false, "Windows"},
        {t + "/keep.txt", "Nothing"},
    };
    // The tree is under /tmp, which the installed rules leave out.
    localRules(rules, true);
    NotToBackup notToBackup;
    ASSERT_TRUE(traces([&] { notToBackup.details(NotToBackup::details()); }, TraceAlways, "Entry dropped"));
    EXPECT_EQ(notToBackup.delimiter(), QChar('/'));

    std::set<std::string> seen;
    QDirIterator it(t, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const OpType op = it.fileInfo().isDir() ? notToBackup.directoryOpType(path) : notToBackup.fileOpType(path);
        if (op != eNothing)
            seen.insert(opTypeText(op).toStdString() + " " + path.mid(t.size()).toStdString());
    }
    const std::set<std::string> expected = {"Exclude /a.tmp",        "Exclude /sub/b.tmp",     "Exclude /cache",
                                            "Exclude /cache/x",      "Exclude /cache/x/y.dat", "LiveOnly /db",
                                            "LiveOnly /db/data.db",  "LiveOnly /db/db.lock",   "Exclude /[odd](dir)+",
                                            "Exclude /[odd](dir)+/z"};
    EXPECT_EQ(seen, expected);
    // Case matters here.
    EXPECT_EQ(notToBackup.fileOpType(t + "/A.TMP"), eNothing);
}

TEST_F(RulesTest, InstalledRuleFileLeavesOutWhatALinuxHostShouldNotBackUp)
{
    ASSERT_FALSE(FixedPath::data().isEmpty());
    ASSERT_TRUE(QFile::exists("/proc/self/status"));
    localRules({});
    const NotToBackup rules(NotToBackup::details());
    expectAll(rules,
              {{"/proc/self/status", false, eExclude},
               {"/etc/hostname", false, eNothing},
               {"/etc", true, eNothing},
               {"/proc", true, eExclude},
               {"/sys/kernel", true, eExclude},
               {"/tmp/x", false, eExclude},
               {"/swapfile", false, eExclude},
               {"/home/ann/swapfile", false, eNothing},
               {"/var/cache/apt/pkgcache.bin", false, eExclude},
               {"/var/cache/apt/archives/partial", true, eExclude},
               {"/home/ann/.cache/mozilla/firefox/x", false, eExclude},
               {"/root/.cache/thumbnails/large/a.png", false, eExclude},
               {"/home/ann/.cache/fontconfig/x", false, eNothing},
               {"/home/ann/documents/report.odt", false, eNothing},
               {"/var/lib/postgresql/15/main/base/1/112", false, eLiveOnly}},
              "installed rules");
    // The real system's own configuration stays in.
    for (const QString& name : QDir("/etc").entryList(QDir::Files))
        EXPECT_EQ(rules.fileOpType("/etc/" + name), eNothing) << name.toStdString();

    // "IgnoreRegistry" in the local file drops them.
    localRules({{"/srv/scratch", "Exclude", true, false, true}}, true);
    const NotToBackup local(NotToBackup::details());
    EXPECT_EQ(local.fileOpType(QString("/proc/self/status")), eNothing);
    EXPECT_EQ(local.directoryOpType(QString("/srv/scratch")), eExclude);
}

TEST_F(RulesTest, BadRulesAreSkippedAndNeverExclude)
{
    QDir().mkpath(moHome.config());
    QFile garbage(moHome.config() + "/nottobackup.cfg");
    ASSERT_TRUE(garbage.open(QIODevice::WriteOnly));
    garbage.write("<brevixmllist><item name=\"Entry\" argtype=\"list\">/home</brevixmllist");
    garbage.close();
    ASSERT_TRUE(FixedPath::initialize());
    XmlList details;
    EXPECT_TRUE(traces([&] { details = NotToBackup::details(); }, TraceAlways, "Failed to open"));
    const NotToBackup fromGarbage(details);
    EXPECT_EQ(fromGarbage.directoryOpType(QString("/home")), eNothing);
    EXPECT_EQ(fromGarbage.directoryOpType(QString("/proc")), eExclude) << "the installed rules still count";

    XmlList notXml;
    EXPECT_FALSE(notXml.fromBinary("not xml"));
    EXPECT_EQ(NotToBackup(notXml).fileOpType(QString("/a/b")), eNothing);

    XmlList entries;
    XmlList noPath;
    noPath.set("Recurse", true);
    entries.set("Entry", noPath, XmlList::SetCreate);
    XmlList wrongType;
    wrongType.set("Path", 7u);
    entries.set("Entry", wrongType, XmlList::SetCreate);
    entries.set("Entry", "/single/item", XmlList::SetCreate);
    XmlList list;
    list.set("OSType", "Linux");
    list.set("NotToBackup", entries);
    NotToBackup rules;
    EXPECT_TRUE(traces([&] { rules.details(list); }, TraceAlways, "Rule path without delimiter skipped"));
    EXPECT_EQ(rules.directoryOpType(QString("/single/item")), eNothing);

    NotToBackup windows;
    EXPECT_TRUE(traces([&] { windows.details(detailsOf("Windows", {{"Temp\\x"}})); }, TraceAlways,
                       "neither absolute nor on a volume"));
    EXPECT_EQ(windows.fileOpType(QString("C:\\Temp\\x")), eNothing);
}

TEST_F(RulesTest, PathsAreTakenLexically)
{
    const NotToBackup rules(detailsOf("Linux", {{"/tmp", "Exclude", true, false, true}, {"/etc/shadow", "Exclude"}}));
    QString deep = "/home";
    for (int i = 0; i < 20000; ++i)
        deep += "/d";
    expectAll(rules,
              {{"/tmp/../etc/hostname", false, eNothing},
               {"/etc/../tmp/x", false, eExclude},
               {"/../../tmp", true, eExclude},
               {"//tmp///x//", true, eExclude},
               {"/./etc/./shadow", false, eExclude},
               {"/etc/shadow/", false, eExclude},
               {"/", true, eNothing},
               {"/", false, eNothing},
               {"", false, eNothing},
               {"tmp", true, eNothing}},
              "lexical");
    EXPECT_EQ(rules.fileOpType(deep + "/name"), eNothing);
    EXPECT_EQ(rules.fileOpType("/tmp" + deep + "/name"), eExclude);
    EXPECT_EQ(rules.directoryOpType(QStringList{"", "tmp", "x"}), eExclude);
    EXPECT_EQ(rules.directoryOpType(QString("/"), QString("/tmp/")), eExclude);
    EXPECT_EQ(rules.fileOpType(QString("/etc"), QString("shadow")), eExclude);
}

TEST_F(RulesTest, ExpressionsOfADirectoryGiveWhatFileLookupsGive)
{
    const NotToBackup linux(detailsOf("Linux", {{"/home/*/.cache", "Exclude", true, true, true},
                                                {"/home/ann/*.o", "Exclude", true},
                                                {"/home/ann/src/core", "Exclude"},
                                                {"/home/ann/src/*.log*", "LiveOnly"},
                                                {"/home/ann/src", "LiveOnly", false, false, true},
                                                {"/*.swp", "Exclude", true},
                                                {"/home/ann/src/deep/*", "Exclude"}}));
    const NotToBackup windows(windowsDetails());
    const QStringList names = {"a.o", "core", "x.log", "x.log.1", "b.swp", "keep", "A.TMP", "pagefile.sys", "q.bin"};
    const std::vector<QStringList> linuxDirectories = {{"/"},
                                                       {"/", "home"},
                                                       {"/", "home", "ann"},
                                                       {"/", "home", "ann", "src"},
                                                       {"/", "home", "ann", "src", "deep"},
                                                       {"/", "home", "bob", ".cache", "x"}};
    const std::vector<QStringList> windowsDirectories = {{"C:"},         {"c:\\", "Temp"},     {"D:", "Temp", "sub"},
                                                         {"C:", "Data"}, {"C:", "Data", "Db"}, {"E:", "Logs", "x"}};

    const auto check = [&](const NotToBackup& rules, const std::vector<QStringList>& directories) {
        for (const QStringList& directory : directories) {
            Expressions expressions;
            const bool any = rules.expressions(expressions, directory);
            EXPECT_EQ(any, !expressions.isEmpty());
            const QString volume = directory[0];
            const QString below = directory.mid(1).join(rules.delimiter());
            bool excludedAny = false;
            for (const QString& name : names) {
                const OpType expected = rules.fileOpType(volume, below, name);
                excludedAny = excludedAny || expected != eNothing;
                EXPECT_EQ(expressions.opType(name), expected)
                    << directory.join('|').toStdString() << " " << name.toStdString();
            }
            EXPECT_TRUE(any || !excludedAny) << directory.join('|').toStdString();
        }
    };
    check(linux, linuxDirectories);
    check(windows, windowsDirectories);
}
