// A process killed while it changes a block file leaves a file that opens and
// checks sound, with every block either zero or written whole at its place.

#include "core/byteorder.h"
#include "persistent/blockfilecheck.h"
#include "persistent/blocklayout.h"
#include "persistent/blocks.h"

#include "persistenttest.h"

#include <QFile>
#include <QProcess>
#include <QSet>
#include <QThread>

#include <csignal>
#include <random>

using namespace Brevi;

namespace {

class BlocksCrashTest : public PersistentTest::Fixture
{
protected:
    // Blocks not on the free list hold zeros (new, or lost at the kill) or
    // their own full id in every word, and that id places them here.
    void expectBlocksWhole(const QString& file, const BlockFileReport& report)
    {
        QFile in(file + BlockLayout::FreeListSuffix);
        ASSERT_TRUE(in.open(QIODevice::ReadOnly));
        const QByteArray list = in.readAll();
        QSet<quint64> free;
        for (quint64 i = 0; i < report.freeEntryCount; ++i)
            free.insert(ByteOrder::load64(list.constData() + BlockLayout::freeListEntryOffset(i)) & report.idMask);

        QFile blocks(file);
        ASSERT_TRUE(blocks.open(QIODevice::ReadOnly));
        int written = 0;
        for (quint64 place = 1; place < report.totalBlockCount; ++place) {
            if (free.contains(place))
                continue;
            blocks.seek(qint64(place * report.blockSize));
            const QByteArray data = blocks.read(report.blockSize);
            if (data.isEmpty() || data.count('\0') == data.size())
                continue;
            ASSERT_EQ(data.size(), int(report.blockSize)) << "block " << place;
            const quint64 id = ByteOrder::load64(data.constData());
            ASSERT_EQ(id & report.idMask, place) << "block " << place << " holds another block's data";
            for (unsigned offset = 8; offset + 8 <= report.blockSize; offset += 8)
                ASSERT_EQ(ByteOrder::load64(data.constData() + offset), id) << "block " << place << " torn";
            ++written;
        }
        EXPECT_GT(written, 0);
    }
};

} // namespace

TEST_F(BlocksCrashTest, KilledWriterLeavesASoundFile)
{
    const QString file = path("crash.blocks");
    {
        Blocks blocks;
        ASSERT_TRUE(blocks.create(file, 64, 8, 16 * 64, RawFile::eReadWrite));
    }
    std::mt19937 random(424242);
    for (int round = 0; round < 8; ++round) {
        QProcess writer;
        writer.start(BLOCKS_WRITER, { file, QString::number(round + 1) });
        ASSERT_TRUE(writer.waitForStarted(10000));
        ASSERT_TRUE(writer.waitForReadyRead(10000)) << "round " << round;
        ASSERT_EQ(writer.readLine().trimmed(), QByteArray("running"));
        QThread::msleep(20 + random() % 200);
        writer.kill();
        ASSERT_TRUE(writer.waitForFinished(10000));
        ASSERT_EQ(writer.exitStatus(), QProcess::CrashExit)
            << "the writer stopped by itself with " << writer.exitCode() << " in round " << round;

        BlockFileReport report;
        ASSERT_TRUE(BlockFileCheck::checkBlockFile(file, report)) << "round " << round << ":\n"
                                                                  << report.problems.join("\n").toStdString();
        expectBlocksWhole(file, report);

        Blocks blocks;
        ASSERT_TRUE(blocks.open(file, 0, RawFile::eReadWrite)) << "round " << round;
        EXPECT_EQ(blocks.totalBlockCount(), report.totalBlockCount);
        EXPECT_EQ(blocks.usedBlockCount(), report.usedBlockCount);
    }
}
