// The nottobackup tool as a person runs it: classifying paths, walking a real
// tree with a name that is not UTF-8, printing the rules, and its exit codes.

#include "rulestest.h"
#include "testhome.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

namespace {

struct ToolRun {
    int exitCode;
    QByteArray out;
    QString err;
};

ToolRun nottobackup(const QStringList& arguments, const QByteArray& input = QByteArray())
{
    QProcess process;
    process.start(NOTTOBACKUP, arguments);
    process.write(input);
    process.closeWriteChannel();
    process.waitForFinished(60000);
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1, process.readAllStandardOutput(),
            QString::fromUtf8(process.readAllStandardError())};
}

class NotToBackupTool : public ::testing::Test
{
protected:
    void SetUp() override
    {
        t = QFile::encodeName(tree.path());
        for (const QByteArray& file :
             {QByteArray("keep.txt"), QByteArray("a.tmp"), QByteArray("sub/b.tmp"), QByteArray("cache/x/y.dat"),
              QByteArray("db/data.db"), QByteArray("db/more/z"), QByteArray("bad\xff.tmp")}) {
            const QByteArray path = t + '/' + file;
            QDir().mkpath(QFile::decodeName(path.left(path.lastIndexOf('/'))));
            FILE* made = std::fopen(path.constData(), "w");
            ASSERT_TRUE(made);
            std::fputs("1234", made);
            std::fclose(made);
        }
        rules = home.path() + "/rules.cfg";
        const QString root = QFile::decodeName(t);
        BreviTest::writeRuleFile(rules,
                                 {{root + "/cache", "Exclude", true, false, true},
                                  {root + "/*.tmp", "Exclude", true},
                                  {root + "/db", "LiveOnly", true, false, true}},
                                 true);
    }

    // QDir cannot remove a name that is not UTF-8.
    void TearDown() override { std::remove((t + "/bad\xff.tmp").constData()); }

    BreviTest::TestHome home;
    QTemporaryDir tree;
    QByteArray t;
    QString rules;
};

} // namespace

TEST_F(NotToBackupTool, WalksATreeAndSumsUp)
{
    const ToolRun run = nottobackup({"--rules", rules, "--walk", QFile::decodeName(t)});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    QList<QByteArray> lines = run.out.split('\n');
    std::sort(lines.begin(), lines.end());
    lines.removeAll(QByteArray());
    const QList<QByteArray> expected = {"Exclude  " + t + "/a.tmp",
                                        "Exclude  " + t + "/bad\xff.tmp",
                                        "Exclude  " + t + "/cache/",
                                        "Exclude  " + t + "/sub/b.tmp",
                                        "Excluded: 1 directories (not walked), 3 files of 12 bytes",
                                        "Live only: 2 directories, 2 files of 8 bytes",
                                        "LiveOnly " + t + "/db/",
                                        "Names not in UTF-8: 1",
                                        "Walked 4 directories and 6 files under " + t};
    EXPECT_EQ(lines, expected) << run.out.toStdString();
    EXPECT_TRUE(run.err.contains("name not in UTF-8")) << run.err.toStdString();
}

TEST_F(NotToBackupTool, ClassifiesArgumentsAndStandardInput)
{
    const QString root = QFile::decodeName(t);
    const ToolRun arguments = nottobackup({"--rules", rules, root + "/a.tmp", root + "/db", root + "/keep.txt"});
    EXPECT_EQ(arguments.exitCode, 0);
    EXPECT_EQ(arguments.out, "Exclude  " + t + "/a.tmp\nLiveOnly " + t + "/db\nNothing  " + t + "/keep.txt\n");

    const ToolRun input = nottobackup({"--rules", rules}, t + "/cache/\r\n" + t + "/sub/c.txt\n\n");
    EXPECT_EQ(input.exitCode, 0);
    EXPECT_EQ(input.out, "Exclude  " + t + "/cache/\nNothing  " + t + "/sub/c.txt\n");

    // This machine's rules: those installed with the library.
    const ToolRun system = nottobackup({"/proc/self/status", "/etc/hostname"});
    EXPECT_EQ(system.out, "Exclude  /proc/self/status\nNothing  /etc/hostname\n") << system.err.toStdString();
    const ToolRun details = nottobackup({"--details"});
    EXPECT_EQ(details.exitCode, 0);
    EXPECT_TRUE(details.out.contains(">Linux</value>") && details.out.contains(">/proc</value>"));
}

TEST_F(NotToBackupTool, ExitCodesTellUsageFromFailure)
{
    EXPECT_EQ(nottobackup({"--help"}).exitCode, 0);
    EXPECT_EQ(nottobackup({"--no-such-option"}).exitCode, 2);
    EXPECT_EQ(nottobackup({"--walk", "/", "/etc"}).exitCode, 2);
    EXPECT_EQ(nottobackup({"--rules", home.path() + "/missing.cfg", "/etc"}).exitCode, 1);
    QFile garbage(home.path() + "/garbage.cfg");
    ASSERT_TRUE(garbage.open(QIODevice::WriteOnly));
    garbage.write("not xml at all <");
    garbage.close();
    const ToolRun notXml = nottobackup({"--rules", garbage.fileName(), "/etc"});
    EXPECT_EQ(notXml.exitCode, 1);
    EXPECT_TRUE(notXml.err.contains("not XML"));
    EXPECT_EQ(nottobackup({"--rules", rules, "--walk", home.path() + "/none"}).exitCode, 1);
}
