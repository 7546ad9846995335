// Raw and buffered files: modes, results, the position rules, delete on close,
// and the write-behind and read-ahead of the buffered layer.

#include "core/extent.h"
#include "persistent/bufferedfile.h"
#include "persistent/rawfile.h"

#include "persistenttest.h"

#include <QFile>

#include <cerrno>
#include <memory>
#include <random>

#include <sys/stat.h>

using namespace Brevi;

namespace {

class RawFileTest : public PersistentTest::Fixture
{
protected:
    void writeFile(const QString& name, const QByteArray& bytes) { patch(path(name), 0, bytes); }
    QByteArray readFile(const QString& name) { return fileBytes(path(name)); }
};

QByteArray pattern(int n)
{
    QByteArray bytes(n, 0);
    for (int i = 0; i < n; ++i)
        bytes[i] = char('a' + (i * 7) % 26);
    return bytes;
}

} // namespace

TEST_F(RawFileTest, OpenCreateAndCloseFollowTheirResultRules)
{
    RawFile file;
    EXPECT_FALSE(file.close()) << "nothing was open";
    EXPECT_FALSE(file.open(path("missing"), RawFile::eReadOnly));
    EXPECT_EQ(file.lastError(), unsigned(ENOENT));
    EXPECT_TRUE(file.path().isEmpty());
    EXPECT_TRUE(traced("Open of"));

    writeFile("kept", "contents");
    ASSERT_TRUE(file.create(path("kept"), RawFile::eReadWrite));
    EXPECT_EQ(file.size(), 8u) << "create keeps what is there";
    EXPECT_EQ(file.mode(), RawFile::eReadWrite);
    EXPECT_EQ(file.path(), path("kept"));

    EXPECT_FALSE(file.open(path("kept"), RawFile::eClosed)) << "eClosed only closes";
    EXPECT_FALSE(file);
    EXPECT_EQ(file.mode(), RawFile::eClosed);
    EXPECT_EQ(readFile("kept"), QByteArray("contents"));

    RawFile made;
    ASSERT_TRUE(made.create(path("made"), RawFile::eReadWriteRandom));
    EXPECT_TRUE(QFile::exists(path("made")));
    struct stat status;
    ASSERT_EQ(::stat(QFile::encodeName(path("made")).constData(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    EXPECT_TRUE(made.close());
}

TEST_F(RawFileTest, ExtentTransfersStopAtTheEndAndRememberFailures)
{
    writeFile("short", "abc");
    RawFile file(path("short"), RawFile::eReadOnly);
    char bytes[8] = {};
    Extent extent(bytes, 8);
    EXPECT_TRUE(file.read(extent)) << "the end of the file is not an error";
    EXPECT_EQ(extent.available(), 5u);
    EXPECT_EQ(QByteArray(bytes, 3), QByteArray("abc"));

    // After one failure in the object's life, every short transfer is false.
    EXPECT_EQ(file.write("x", 1), 0u);
    EXPECT_EQ(file.lastError(), unsigned(EBADF));
    EXPECT_TRUE(traced("Write to"));
    ASSERT_TRUE(file.setPosition(0, RawFile::eStart));
    Extent again(bytes, 8);
    EXPECT_FALSE(file.read(again));
    EXPECT_EQ(again.available(), 5u);

    RawFile out;
    ASSERT_TRUE(out.create(path("out"), RawFile::eReadWrite));
    const Extent source("written", 7);
    EXPECT_TRUE(out.write(source));
    EXPECT_EQ(source.available(), 0u) << "a const extent is consumed all the same";
    out.close();
    EXPECT_EQ(readFile("out"), QByteArray("written"));
}

TEST_F(RawFileTest, PositionedTransfersLeaveThePositionAlone)
{
    RawFile file;
    ASSERT_TRUE(file.create(path("at"), RawFile::eReadWrite));
    ASSERT_EQ(file.write("0123456789", 10), 10u);
    EXPECT_EQ(file.writeAt(2, "ab", 2), 2u);
    EXPECT_EQ(file.writeAt(12, "z", 1), 1u) << "past the end leaves a hole, as a seek and write would";
    char bytes[4] = {};
    EXPECT_EQ(file.readAt(8, bytes, 4), 4u);
    EXPECT_EQ(QByteArray(bytes, 4), QByteArray("89\0\0", 4));
    EXPECT_EQ(file.readAt(13, bytes, 4), 0u) << "at the end";
    EXPECT_EQ(file.writeAt(4, "cd", 2, "ef", 2), 4u) << "a header and a body";
    EXPECT_EQ(file.getPosition(), 10u);
    file.close();
    EXPECT_EQ(readFile("at"), QByteArray("01abcdef89\0\0z", 13));

    RawFile reading(path("at"), RawFile::eReadOnly);
    EXPECT_EQ(reading.writeAt(0, "x", 1), 0u);
    EXPECT_EQ(reading.lastError(), unsigned(EBADF));
    EXPECT_TRUE(traced("Write to"));
}

TEST_F(RawFileTest, PositionsAreSixtyFourBitAndTheAllOnesLowWordFails)
{
    RawFile closed;
    EXPECT_FALSE(closed.setPosition(0, RawFile::eStart));
    EXPECT_FALSE(traced("setPosition on")) << "a closed file fails quietly";

    RawFile file;
    ASSERT_TRUE(file.create(path("sparse"), RawFile::eReadWrite));
    ASSERT_TRUE(file.setPosition(qint64(0x100000000LL), RawFile::eStart));
    EXPECT_EQ(file.getPosition(), 0x100000000ull);
    EXPECT_EQ(file.write("z", 1), 1u);
    EXPECT_EQ(file.size(), 0x100000001ull);
    ASSERT_TRUE(file.setPosition(-1, RawFile::eEnd));
    EXPECT_EQ(file.getPosition(), 0x100000000ull);
    ASSERT_TRUE(file.setPosition(-2, RawFile::eCurrent));
    EXPECT_EQ(file.getPosition(), 0xFFFFFFFEull);

    EXPECT_FALSE(file.setPosition(qint64(0xFFFFFFFFLL), RawFile::eStart));
    EXPECT_TRUE(traced("setPosition on"));
    EXPECT_FALSE(file.setPosition(qint64(0x1FFFFFFFFLL), RawFile::eStart));
    EXPECT_TRUE(file.setPosition(qint64(0x1FFFFFFFELL), RawFile::eStart));
    EXPECT_FALSE(file.setPosition(-5, RawFile::eStart));
    EXPECT_EQ(file.lastError(), unsigned(EINVAL));
}

TEST_F(RawFileTest, TruncateSetsTheEndAndLeavesThePositionThere)
{
    RawFile file;
    ASSERT_TRUE(file.create(path("t"), RawFile::eReadWrite));
    ASSERT_EQ(file.write("0123456789", 10), 10u);
    ASSERT_TRUE(file.truncate(4, false));
    EXPECT_EQ(file.size(), 4u);
    EXPECT_EQ(file.getPosition(), 4u);
    ASSERT_TRUE(file.truncate(1 << 20, true));
    EXPECT_EQ(file.size(), quint64(1 << 20));
    EXPECT_EQ(file.getPosition(), quint64(1 << 20));

    // A buffered file writes its pending bytes first.
    BufferedFile buffered(64);
    ASSERT_TRUE(buffered.create(path("tr"), RawFile::eReadWrite));
    buffered.write("0123456789", 10);
    EXPECT_TRUE(buffered.truncate(4, false));
    EXPECT_EQ(readFile("tr"), QByteArray("0123"));
    EXPECT_EQ(buffered.getPosition(), 4u);
    buffered.write("x", 1);
    buffered.close();
    EXPECT_EQ(readFile("tr"), QByteArray("0123x"));
}

TEST_F(RawFileTest, DeleteOnCloseLastsForOneOpen)
{
    writeFile("first", "1");
    writeFile("second", "2");
    RawFile file(path("first"), RawFile::eReadOnly);
    EXPECT_TRUE(file.deleteOnClose());
    ASSERT_TRUE(file.open(path("second"), RawFile::eReadOnly));
    EXPECT_FALSE(QFile::exists(path("first"))) << "the close inside open deletes";
    EXPECT_TRUE(file.close());
    EXPECT_TRUE(QFile::exists(path("second"))) << "the flag went down with the first open";

    {
        RawFile scoped(path("second"), RawFile::eReadOnly);
        scoped.deleteOnClose();
    }
    EXPECT_FALSE(QFile::exists(path("second"))) << "destruction deletes too";
}

TEST_F(RawFileTest, CloneOpensThePathAgainAsAPlainFile)
{
    writeFile("c", "clone me");
    BufferedFile buffered(path("c"), RawFile::eReadOnly);
    std::unique_ptr<RawFile> clone(buffered.clone(RawFile::eReadWrite));
    ASSERT_TRUE(*clone);
    EXPECT_EQ(dynamic_cast<BufferedFile*>(clone.get()), nullptr) << "a buffered file clones unbuffered";
    EXPECT_EQ(clone->mode(), RawFile::eReadWrite);
    EXPECT_EQ(clone->path(), path("c"));
}

TEST_F(RawFileTest, LocksExcludeOtherOpensEvenInOneProcess)
{
    writeFile("lock", "x");
    RawFile first(path("lock"), RawFile::eReadWrite);
    RawFile second(path("lock"), RawFile::eReadWrite);
    ASSERT_TRUE(first.lock(0, 1));
    EXPECT_FALSE(second.lock(0, 1));
    EXPECT_TRUE(second.lock(1, 1)) << "other bytes are free";
    EXPECT_TRUE(first.unlock(0, 1));
    EXPECT_TRUE(second.lock(0, 1));
    second.close();
    EXPECT_TRUE(first.lock(0, 2)) << "closing releases";
}

TEST_F(RawFileTest, VolumeIsTheMountPointHoldingThePath)
{
    const QString volume = RawFile::volume(path("not/yet/there"));
    ASSERT_FALSE(volume.isEmpty());
    EXPECT_TRUE(volume.endsWith('/'));
    EXPECT_TRUE(path("x").startsWith(volume));
    EXPECT_EQ(RawFile::volume(moDir.path()), volume);
    EXPECT_EQ(RawFile::volume("/"), QString("/"));
    EXPECT_EQ(RawFile::volume("/proc/self/status"), QString("/proc/"));
    EXPECT_TRUE(RawFile::volume(QString()).isEmpty());
}

TEST_F(RawFileTest, BufferedWritesGoOutBehindAndTheBigOnesDirectly)
{
    BufferedFile file(16);
    ASSERT_TRUE(file.create(path("b"), RawFile::eReadWrite));
    const QByteArray bytes = pattern(100);
    EXPECT_EQ(file.write(bytes.constData(), 5), 5u);
    EXPECT_EQ(file.getPosition(), 5u);
    EXPECT_EQ(readFile("b").size(), 0) << "five bytes wait in the buffer";

    // 40 bytes: 11 fill the buffer, which is written; 29 do not fit in it
    // and go straight to the file.
    EXPECT_EQ(file.write(bytes.constData() + 5, 40), 40u);
    EXPECT_EQ(readFile("b"), bytes.left(45));
    EXPECT_EQ(file.write(bytes.constData() + 45, 20), 20u);
    EXPECT_EQ(file.size(), 65u);
    EXPECT_TRUE(file.close());
    EXPECT_EQ(readFile("b"), bytes.left(65));
}

TEST_F(RawFileTest, BufferedSeekIsDeferredAndMovesNoWrittenBytes)
{
    BufferedFile file(64);
    ASSERT_TRUE(file.create(path("s"), RawFile::eReadWrite));
    ASSERT_TRUE(file.setPosition(1000, RawFile::eStart));
    EXPECT_EQ(file.size(), 1000u) << "size answers with the deferred position";
    EXPECT_EQ(readFile("s").size(), 0) << "nothing happened to the file";

    ASSERT_TRUE(file.setPosition(0, RawFile::eStart));
    file.write("abc", 3);
    // A seek while the buffer holds written bytes: the next bytes follow them.
    ASSERT_TRUE(file.setPosition(10, RawFile::eStart));
    EXPECT_EQ(file.getPosition(), 10u);
    file.write("def", 3);
    file.close();
    EXPECT_EQ(readFile("s"), QByteArray("abcdef"));

    BufferedFile closed;
    EXPECT_FALSE(closed.setPosition(5, RawFile::eStart));
}

TEST_F(RawFileTest, BufferedReadAfterWriteDropsTheUnflushedBytes)
{
    writeFile("r", "0123456789");
    BufferedFile file(32);
    ASSERT_TRUE(file.open(path("r"), RawFile::eReadWrite));
    ASSERT_TRUE(file.setPosition(10, RawFile::eStart));
    EXPECT_EQ(file.write("tail", 4), 4u);
    ASSERT_TRUE(file.setPosition(8, RawFile::eStart));
    char bytes[8] = {};
    EXPECT_EQ(file.read(bytes, 8), 2u) << "the written tail never reached the file";
    EXPECT_EQ(QByteArray(bytes, 2), QByteArray("89"));
    file.close();
    EXPECT_EQ(readFile("r"), QByteArray("0123456789"));

    // Flushed by close, the same bytes are there to read.
    ASSERT_TRUE(file.open(path("r"), RawFile::eReadWrite));
    file.setPosition(0, RawFile::eEnd);
    file.write("tail", 4);
    file.close();
    EXPECT_EQ(readFile("r"), QByteArray("0123456789tail"));
}

TEST_F(RawFileTest, BufferedReadsMatchTheFileUnderRandomSeeks)
{
    const QByteArray content = pattern(5000);
    writeFile("random", content);
    std::mt19937 random(20240611);
    for (unsigned bufferSize : {1u, 7u, 64u, 4096u}) {
        BufferedFile file(path("random"), RawFile::eReadOnly, bufferSize);
        ASSERT_TRUE(file);
        quint64 position = 0;
        for (int step = 0; step < 400; ++step) {
            if (random() % 4 == 0) {
                position = random() % 5200;
                ASSERT_TRUE(file.setPosition(qint64(position), RawFile::eStart));
            }
            const unsigned want = random() % 300;
            QByteArray bytes(int(want), 0);
            Extent extent(bytes.data(), want);
            ASSERT_TRUE(file.read(extent));
            const quint64 expected = position >= 5000 ? 0 : std::min<quint64>(want, 5000 - position);
            ASSERT_EQ(want - extent.available(), expected) << "buffer " << bufferSize << " step " << step;
            ASSERT_EQ(bytes.left(int(expected)), content.mid(int(position), int(expected)));
            position += expected;
            ASSERT_EQ(file.getPosition(), position);
        }
    }
}
