// The block file tool: its verdicts and exit codes on a sound, a damaged and
// an unreadable file.

#include "persistent/blocks.h"

#include "persistenttest.h"

#include <QFile>
#include <QProcess>

using namespace Brevi;

namespace {

struct ToolResult {
    int exitCode = -1;
    QString output;
};

ToolResult runTool(const QStringList& arguments)
{
    ToolResult result;
    QProcess tool;
    tool.start(BLOCKTOOL, arguments);
    if (tool.waitForFinished(30000) && tool.exitStatus() == QProcess::NormalExit) {
        result.exitCode = tool.exitCode();
        result.output = QString::fromUtf8(tool.readAllStandardOutput());
    }
    return result;
}

} // namespace

using BlockToolTest = PersistentTest::Fixture;

TEST_F(BlockToolTest, StatAndCheckReportTheFileAndItsFaults)
{
    const QString file = path("tool.blocks");
    {
        Blocks blocks;
        ASSERT_TRUE(blocks.create(file, 256, 4, 256 * 32, RawFile::eReadWrite));
        quint64 id = 0;
        blocks.returnBlock(blocks.newBlock(id), true);
    }
    ToolResult stat = runTool({ "stat", file });
    EXPECT_EQ(stat.exitCode, 0);
    EXPECT_TRUE(stat.output.contains(QRegExp("total blocks +32\n"))) << stat.output.toStdString();
    EXPECT_TRUE(stat.output.contains(QRegExp("block size +256\n")));
    EXPECT_TRUE(stat.output.contains("0xfffffffffffffff (4 generation bits)"));
    EXPECT_TRUE(stat.output.contains(QRegExp("used blocks +2\n")));

    ToolResult check = runTool({ "check", file });
    EXPECT_EQ(check.exitCode, 0);
    EXPECT_TRUE(check.output.contains("sound"));

    // A freed block's bytes written over afterwards.
    {
        QFile out(file);
        ASSERT_TRUE(out.open(QIODevice::ReadWrite));
        out.seek(256 * 5);
        out.write("late write");
    }
    check = runTool({ "check", file });
    EXPECT_EQ(check.exitCode, 1);
    EXPECT_TRUE(check.output.contains("faulty"));
    EXPECT_TRUE(check.output.contains("free block 5 is not zero"));

    EXPECT_EQ(runTool({ "check", path("none") }).exitCode, 2);
    EXPECT_EQ(runTool({ "frobnicate", file }).exitCode, 2);
    EXPECT_EQ(runTool({ "--no-such-option", "stat", file }).exitCode, 2);
    ToolResult help = runTool({ "--help" });
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_TRUE(help.output.contains("check"));
}
