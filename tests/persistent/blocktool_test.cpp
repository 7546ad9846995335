// The block file tool: its verdicts and exit codes on a sound, a damaged and
// an unreadable file, and its repair of trees that have lost blocks.

#include "core/byteorder.h"
#include "persistent/blocks.h"
#include "persistent/bplustree.h"
#include "persistent/bplustreecheck.h"

#include "persistenttest.h"
#include "treerecord.h"

#include <QFile>
#include <QProcess>

#include <cstring>

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
    ToolResult help = runTool({ "--help" });
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_TRUE(help.output.contains("check"));
}

// A tree whose process (of an older version) lost blocks: check finds them,
// repair puts them back on the free list and says so, and refuses, changing
// nothing, a file open elsewhere or damaged in other ways.
TEST_F(BlockToolTest, RepairReclaimsTheBlocksATreeHasLost)
{
    const QString file = path("lost.tree");
    {
        BPlusTree tree;
        ASSERT_TRUE(tree.create(file, 256));
        for (quint32 id = 0; id < 100; ++id) {
            PersistentTest::RecordKey key(id * 2654435761u, id, 40);
            ASSERT_TRUE(tree.insert(key));
        }
    }
    {
        Blocks blocks;
        ASSERT_TRUE(blocks.open(file, 0, RawFile::eReadWrite));
        for (int lost = 0; lost < 3; ++lost) {
            quint64 id = 0;
            void* block = blocks.newBlock(id);
            ASSERT_NE(block, nullptr);
            std::memset(block, 0x5a, 256);
            blocks.returnBlock(block, true);
        }
    }
    ToolResult check = runTool({"check", file});
    EXPECT_EQ(check.exitCode, 1);
    EXPECT_TRUE(check.output.contains("a B+ tree of 100 records")) << check.output.toStdString();
    EXPECT_EQ(check.output.count("neither in the tree nor free"), 3);

    {
        BPlusTree holder;
        ASSERT_TRUE(holder.open(file));
        ToolResult refused = runTool({"repair", file});
        EXPECT_EQ(refused.exitCode, 1);
        EXPECT_TRUE(refused.output.contains("open elsewhere")) << refused.output.toStdString();
    }
    ToolResult repair = runTool({"repair", file});
    EXPECT_EQ(repair.exitCode, 0);
    EXPECT_TRUE(repair.output.contains("reclaimed 3 lost blocks")) << repair.output.toStdString();
    EXPECT_EQ(runTool({"check", file}).exitCode, 0);
    EXPECT_TRUE(runTool({"repair", file}).output.contains("sound, no lost blocks"));

    // A leaf's records out of order: a block no node reaches might belong to
    // the damaged part, so nothing is reclaimed.
    {
        Blocks blocks;
        ASSERT_TRUE(blocks.open(file, 0, RawFile::eReadWrite));
        quint64 id = 0;
        blocks.returnBlock(blocks.newBlock(id), true);
    }
    BPlusTreeReport report;
    BPlusTreeCheck::checkTreeFile(file, report);
    quint64 leaf = report.rootId;
    while (!(ByteOrder::load32(fileBytes(file, qint64(leaf * 256), 4).constData()) & BPlusTreeLayout::FlagLeaf))
        leaf = ByteOrder::load64(fileBytes(file, qint64(leaf * 256 + 16), 8).constData());
    const QByteArray first = fileBytes(file, qint64(leaf * 256 + 32), 8);
    patch(file, qint64(leaf * 256 + 32), fileBytes(file, qint64(leaf * 256 + 48), 8));
    patch(file, qint64(leaf * 256 + 48), first);
    const QByteArray damaged = fileBytes(file);
    repair = runTool({"repair", file});
    EXPECT_EQ(repair.exitCode, 1);
    EXPECT_TRUE(repair.output.contains("nothing changed")) << repair.output.toStdString();
    EXPECT_TRUE(repair.output.contains("out of order")) << repair.output.toStdString();
    EXPECT_EQ(fileBytes(file), damaged);
    EXPECT_EQ(runTool({"repair", path("none")}).exitCode, 2);
}
