// The block cache and block files: references and the LRU list, write-through,
// growth and the free list, generations, and what bad files and bad pointers
// get.

#include "core/byteorder.h"
#include "persistent/blockcache.h"
#include "persistent/blockfilecheck.h"
#include "persistent/blocklayout.h"
#include "persistent/blocks.h"

#include "persistenttest.h"

#include <QFile>

#include <cstring>
#include <vector>

using namespace Brevi;

namespace {

class BlocksTest : public PersistentTest::Fixture
{
protected:
    QByteArray le64(quint64 value)
    {
        QByteArray bytes(8, 0);
        ByteOrder::store64(bytes.data(), value);
        return bytes;
    }
    bool sound(const QString& file)
    {
        BlockFileReport report;
        const bool result = BlockFileCheck::checkBlockFile(file, report);
        EXPECT_TRUE(result) << report.problems.join("\n").toStdString();
        return result;
    }
    // A block cache over a file of `blocks` blocks of 64 bytes, block b filled
    // with the byte b.
    void makeCacheFile(const QString& file, int blocks)
    {
        QFile out(file);
        ASSERT_TRUE(out.open(QIODevice::WriteOnly | QIODevice::Truncate));
        for (int b = 0; b < blocks; ++b)
            out.write(QByteArray(64, char(b)));
    }
};

const QByteArray Zero64(64, 0);

} // namespace

TEST_F(BlocksTest, TheFileGrowsInStepsAndListsNewIdsLowestFirst)
{
    Blocks blocks;
    EXPECT_FALSE(blocks.create(path("small"), 23, 0, 0, RawFile::eReadWrite));
    EXPECT_TRUE(traced("Invalid block size must be greater that"));
    ASSERT_TRUE(blocks.create(path("grown"), 24, 0, 0, RawFile::eReadWrite));
    EXPECT_EQ(blocks.totalBlockCount(), 10240u);
    EXPECT_EQ(blocks.usedBlockCount(), 1u) << "block 0 counts as used";
    EXPECT_EQ(QFile(path("grown")).size(), 10240 * 24);
    quint64 first = 0, second = 0;
    blocks.returnBlock(blocks.newBlock(first), false);
    blocks.returnBlock(blocks.newBlock(second), false);
    EXPECT_EQ(first, 1u);
    EXPECT_EQ(second, 2u);
    EXPECT_EQ(blocks.getBlock(0), nullptr) << "id 0 is no block";
    EXPECT_TRUE(blocks.close());
    EXPECT_TRUE(sound(path("grown")));

    // Less than two blocks' worth: one block at a time.
    ASSERT_TRUE(blocks.create(path("slow"), 64, 0, 100, RawFile::eReadWrite));
    EXPECT_EQ(blocks.totalBlockCount(), 1u);
    for (quint64 expected = 1; expected <= 3; ++expected) {
        quint64 id = 0;
        blocks.returnBlock(blocks.newBlock(id), false);
        EXPECT_EQ(id, expected);
        EXPECT_EQ(blocks.totalBlockCount(), expected + 1);
    }
    EXPECT_EQ(QFile(path("slow")).size(), 4 * 64);
    // Reopened, the default step is that of open, not of create.
    ASSERT_TRUE(blocks.open(path("slow"), 0, RawFile::eReadOnly));
    quint64 id = 0;
    blocks.returnBlock(blocks.newBlock(id), false);
    EXPECT_EQ(id, 4u);
    EXPECT_EQ(blocks.totalBlockCount(), 4u + 1024u);
    blocks.close();
    EXPECT_TRUE(sound(path("slow")));
}

TEST_F(BlocksTest, ContentsAndCountsSurviveReopening)
{
    quint64 ids[3] = {};
    {
        Blocks blocks;
        ASSERT_TRUE(blocks.create(path("keep"), 128, 8, 128 * 16, RawFile::eReadWrite));
        for (quint64& id : ids) {
            unsigned char* block = static_cast<unsigned char*>(blocks.newBlock(id));
            ASSERT_NE(block, nullptr);
            std::memset(block, int(id), 128);
            EXPECT_TRUE(blocks.returnBlock(block, true));
        }
        // Write-through: the bytes are on disk before any close.
        EXPECT_EQ(fileBytes(path("keep"), 128 * 2, 128), QByteArray(128, 2));
        const void* middle = blocks.getBlock(ids[1]);
        EXPECT_TRUE(blocks.freeBlock(middle));
        EXPECT_EQ(fileBytes(path("keep"), 128 * 2, 128), QByteArray(128, 0)) << "freed blocks are zeroed at once";
        EXPECT_EQ(blocks.getBlock(ids[1]), nullptr);
        EXPECT_TRUE(traced("Attempt to get a discarded block"));
    }
    Blocks blocks;
    ASSERT_TRUE(blocks.open(path("keep"), 0, RawFile::eReadWrite));
    EXPECT_EQ(blocks.idMask(), 0x00FFFFFFFFFFFFFFull);
    EXPECT_EQ(blocks.totalBlockCount(), 16u);
    EXPECT_EQ(blocks.usedBlockCount(), 3u);
    const unsigned char* third = static_cast<const unsigned char*>(blocks.getBlock(ids[2]));
    ASSERT_NE(third, nullptr);
    EXPECT_EQ(third[127], 3);
    blocks.returnBlock(third);

    quint64 reused = 0;
    const unsigned char* block = static_cast<const unsigned char*>(blocks.newBlock(reused));
    EXPECT_EQ(reused, ids[1] + 0x0100000000000000ull) << "a freed id comes back one generation on";
    EXPECT_EQ(block[0], 0);
    blocks.returnBlock(block, false);
    blocks.close();
    EXPECT_TRUE(sound(path("keep")));
}

TEST_F(BlocksTest, ATransactionReachesTheFileWholeOrNotAtAll)
{
    Blocks blocks;
    ASSERT_TRUE(blocks.create(path("tx"), 64, 0, 64 * 4, RawFile::eReadWrite));
    quint64 kept = 0;
    unsigned char* held = static_cast<unsigned char*>(blocks.newBlock(kept));
    ASSERT_NE(held, nullptr);
    std::memset(held, 0x11, 64);
    ASSERT_TRUE(blocks.updateBlock(held));
    const QByteArray before = fileBytes(path("tx"));
    const QByteArray freeBefore = fileBytes(path("tx.free"));
    const quint64 total = blocks.totalBlockCount();

    // Changes a held block and makes enough blocks to grow the file.
    auto change = [&]() {
        std::memset(held, 0x22, 64);
        blocks.updateBlock(held);
        for (int made = 0; made < 5; ++made) {
            quint64 id = 0;
            void* block = blocks.newBlock(id);
            ASSERT_NE(block, nullptr);
            std::memset(block, 0x33, 64);
            blocks.returnBlock(block, true);
        }
    };
    ASSERT_TRUE(blocks.begin());
    EXPECT_FALSE(blocks.begin()) << "one at a time";
    change();
    EXPECT_TRUE(blocks.hasChanges());
    EXPECT_EQ(fileBytes(path("tx")).left(before.size()), before) << "nothing is written before the commit";
    blocks.abort();
    EXPECT_EQ(held[0], 0x11) << "a block still referenced has the file's bytes again";
    EXPECT_EQ(blocks.totalBlockCount(), total);
    EXPECT_EQ(fileBytes(path("tx.free")), freeBefore);
    EXPECT_EQ(fileBytes(path("tx")).left(before.size()), before);

    ASSERT_TRUE(blocks.begin());
    change();
    ASSERT_TRUE(blocks.commit());
    EXPECT_EQ(fileBytes(path("tx"), qint64(kept * 64), 64), QByteArray(64, 0x22));
    EXPECT_GT(blocks.totalBlockCount(), total);
    blocks.returnBlock(held);
    blocks.close();
    EXPECT_TRUE(sound(path("tx")));
}

TEST_F(BlocksTest, TheIdSpaceEndsAtTheMask)
{
    Blocks blocks;
    ASSERT_TRUE(blocks.create(path("tiny"), 32, 60, 0, RawFile::eReadWrite));
    EXPECT_EQ(blocks.totalBlockCount(), 16u) << "the default step is cut to what the mask can place";
    for (quint64 expected = 1; expected < 16; ++expected) {
        quint64 id = 0;
        blocks.returnBlock(blocks.newBlock(id), false);
        ASSERT_EQ(id, expected);
    }
    quint64 id = 0;
    EXPECT_EQ(blocks.newBlock(id), nullptr);
    EXPECT_EQ(id, 0u);
    EXPECT_EQ(QFile(path("tiny")).size(), 16 * 32);
    blocks.close();
    EXPECT_TRUE(sound(path("tiny")));
}

TEST_F(BlocksTest, ReferencesKeepABlockOffTheList)
{
    makeCacheFile(path("cache"), 8);
    BlockCache cache(1, true);
    ASSERT_TRUE(cache.create(path("cache"), 64, ~quint64(0), RawFile::eReadWrite));
    EXPECT_FALSE(cache.setBlockSize(128, ~quint64(0))) << "once per open";
    EXPECT_EQ(cache.getBlockSize(), 64u);

    Trace::setLevel(TraceNormal, TraceModuleBlockCache);
    void* one = cache.getBlock(1);
    EXPECT_EQ(cache.getBlock(1), one);
    EXPECT_EQ(static_cast<unsigned char*>(one)[0], 1);
    EXPECT_TRUE(cache.returnBlock(one, false));

    // Still referenced once: a second block overflows the cache of one.
    void* two = cache.getBlock(2);
    ASSERT_NE(two, nullptr);
    EXPECT_TRUE(traced("All cache is busy, increase size"));
    EXPECT_EQ(cache.size(), 2u);
    cache.returnBlock(two, false);
    cache.returnBlock(one, false);

    // Both unreferenced now; a third takes the least recently used memory.
    void* three = cache.getBlock(3);
    EXPECT_EQ(three, two);
    EXPECT_EQ(cache.size(), 2u);
    EXPECT_EQ(cache.misses(), 3u);
    EXPECT_EQ(cache.hits(), 1u);
    cache.returnBlock(three, false);

    EXPECT_EQ(cache.getBlock(8), nullptr);
    EXPECT_TRUE(traced("not in file"));
}

TEST_F(BlocksTest, AFreedBlockWaitsAtTheHeadAndComesBackZeroed)
{
    makeCacheFile(path("cache"), 8);
    BlockCache cache(4, true);
    ASSERT_TRUE(cache.create(path("cache"), 64, ~quint64(0), RawFile::eReadWrite));
    void* a = cache.getBlock(1);
    void* b = cache.getBlock(2);
    cache.returnBlock(b, false);
    EXPECT_EQ(cache.freeBlock(a), 1u);
    EXPECT_EQ(fileBytes(path("cache"), 64, 64), Zero64);
    EXPECT_EQ(cache.getBlock(1), nullptr);
    EXPECT_TRUE(traced("Attempt to get a discarded block"));

    void* again = cache.newBlock(1);
    EXPECT_EQ(again, a) << "the same memory";
    EXPECT_EQ(QByteArray(static_cast<char*>(again), 64), Zero64);
    cache.returnBlock(again, false);

    // With room, a discarded block at the head is still taken before any
    // new memory.
    void* d = cache.getBlock(4);
    cache.discardBlock(d);
    void* e = cache.newBlock(6);
    EXPECT_EQ(e, d);
    EXPECT_EQ(cache.size(), 3u);
}

// Blocks coming and going by the hundred, all held at once past the cache's
// size, then evicted by ids that differ only in their generation: each get
// answers with its own place's bytes, and a generation is a block of its own.
TEST_F(BlocksTest, ManyBlocksComeAndGoUnderTheirOwnIds)
{
    makeCacheFile(path("cache"), 200);
    BlockCache cache(150, true);
    ASSERT_TRUE(cache.create(path("cache"), 64, 0xFFFF, RawFile::eReadWrite));
    for (const quint64 generation : {quint64(0), quint64(1) << 32, quint64(0)}) {
        std::vector<void*> held;
        const quint64 misses = cache.misses();
        for (quint64 i = 1; i < 200; ++i) {
            const quint64 place = i * 7 % 199 + 1;
            unsigned char* block = static_cast<unsigned char*>(cache.getBlock(generation | place));
            ASSERT_NE(block, nullptr) << place;
            ASSERT_EQ(unsigned(block[63]), unsigned(place & 0xFF)) << place;
            held.push_back(block);
        }
        EXPECT_EQ(cache.misses() - misses, 199u) << "the other generation's blocks are not these";
        for (void* block : held)
            ASSERT_TRUE(cache.returnBlock(block, false));
    }
    EXPECT_TRUE(cache.close());
}

TEST_F(BlocksTest, WriteBackCacheWritesOnFlushAndEviction)
{
    makeCacheFile(path("cache"), 8);
    BlockCache cache(2, false);
    ASSERT_TRUE(cache.create(path("cache"), 64, ~quint64(0), RawFile::eReadWrite));
    unsigned char* a = static_cast<unsigned char*>(cache.getBlock(1));
    a[0] = 0xAA;
    EXPECT_TRUE(cache.returnBlock(a, true));
    EXPECT_EQ(fileBytes(path("cache"), 64, 1), QByteArray(1, 1)) << "not written yet";
    EXPECT_TRUE(cache.flush());
    EXPECT_EQ(fileBytes(path("cache"), 64, 1), QByteArray(1, char(0xAA)));

    unsigned char* b = static_cast<unsigned char*>(cache.getBlock(2));
    b[0] = 0xBB;
    cache.returnBlock(b, true);
    cache.returnBlock(cache.getBlock(3), false);
    cache.returnBlock(cache.getBlock(4), false);
    EXPECT_EQ(fileBytes(path("cache"), 128, 1), QByteArray(1, char(0xBB))) << "written when evicted";

    unsigned char* d = static_cast<unsigned char*>(cache.getBlock(4));
    d[0] = 0xDD;
    cache.discardBlock(d);
    EXPECT_TRUE(cache.close());
    EXPECT_EQ(fileBytes(path("cache"), 256, 1), QByteArray(1, 4)) << "discarded changes vanish";
}

TEST_F(BlocksTest, BadPointersAndOverwrittenGuardsAreRefused)
{
    Blocks blocks;
    ASSERT_TRUE(blocks.create(path("guard"), 64, 0, 0, RawFile::eReadWrite));
    EXPECT_FALSE(blocks.returnBlock(nullptr, true) || blocks.freeBlock(nullptr) || blocks.updateBlock(nullptr));

    // Memory that is not a block: zeros where a header would be.
    std::vector<unsigned char> stray(256, 0);
    EXPECT_FALSE(blocks.returnBlock(stray.data() + 128, true));
    EXPECT_TRUE(traced("Invalid block at"));
    EXPECT_EQ(blocks.number(stray.data() + 128), 0u);

    quint64 id = 0;
    unsigned char* block = static_cast<unsigned char*>(blocks.newBlock(id));
    ASSERT_NE(block, nullptr);
    // An overrun of the block's data lands on its trailing guard word.
    block[64] ^= 0xFF;
    EXPECT_FALSE(blocks.returnBlock(block, true));
    EXPECT_TRUE(traced("Invalid block at"));
    EXPECT_FALSE(blocks.freeBlock(block));
    block[64] ^= 0xFF;
    EXPECT_TRUE(blocks.returnBlock(block, true));
    EXPECT_FALSE(blocks.returnBlock(block, true)) << "a return too many is refused";
    blocks.close();
    EXPECT_TRUE(sound(path("guard")));
}

TEST_F(BlocksTest, FilesThatAreNotBlockFilesAreRefused)
{
    const QString file = path("bad");
    Blocks blocks;

    patch(file, 0, QByteArray("this is a text file, not a block file at all\n"));
    EXPECT_FALSE(blocks.open(file, 0, RawFile::eReadWrite));
    EXPECT_TRUE(traced("Failed to get control block"));
    EXPECT_FALSE(blocks);

    QFile::resize(file, 10);
    EXPECT_FALSE(blocks.open(file, 0, RawFile::eReadWrite));
    EXPECT_TRUE(traced("Failed to read control record"));

    // Sound record, nonsense block sizes.
    ASSERT_TRUE(blocks.create(file, 64, 0, 0, RawFile::eReadWrite));
    blocks.close();
    const QByteArray original = fileBytes(file, 0, 24);
    for (unsigned size : {0u, 7u, 0xFFFFFFF0u}) {
        QByteArray word(4, 0);
        ByteOrder::store32(word.data(), size);
        patch(file, 8, word);
        EXPECT_FALSE(blocks.open(file, 0, RawFile::eReadWrite)) << size;
        EXPECT_TRUE(traced("Failed to get control block"));
        BlockFileReport report;
        EXPECT_FALSE(BlockFileCheck::checkBlockFile(file, report));
    }
    patch(file, 0, original);
    patch(file, 16, le64(0x00FF00FF));
    EXPECT_FALSE(blocks.open(file, 0, RawFile::eReadWrite)) << "a mask that is not low bits";

    patch(file, 0, original);
    QFile::remove(file + ".free");
    EXPECT_FALSE(blocks.open(file, 0, RawFile::eReadWrite));
    EXPECT_TRUE(traced("Failed to open freelist file for"));
    EXPECT_EQ(fileBytes(file, 0, 24), original) << "nothing was written";
}

TEST_F(BlocksTest, CheckerFindsBadFreeEntriesAndBlocksDropsThem)
{
    const QString file = path("listed");
    {
        Blocks blocks;
        ASSERT_TRUE(blocks.create(file, 64, 0, 64 * 8, RawFile::eReadWrite));
    }
    BlockFileReport report;
    ASSERT_TRUE(BlockFileCheck::checkBlockFile(file, report));
    EXPECT_EQ(report.totalBlockCount, 8u);
    EXPECT_EQ(report.freeEntryCount, 7u);
    EXPECT_EQ(report.usedBlockCount, 1u);

    // Entries 0 to 6 list blocks 7 down to 1. A block listed twice, a free
    // block written over:
    patch(file + ".free", 4096, le64(3));
    patch(file, 64 * 4 + 10, QByteArray("written after free"));
    EXPECT_FALSE(BlockFileCheck::checkBlockFile(file, report));
    EXPECT_TRUE(report.problems.join(" ").contains("block 3 is on the free list more than once"));
    EXPECT_TRUE(report.problems.join(" ").contains("free block 4 is not zero"));
    patch(file + ".free", 4096, le64(7));
    patch(file, 64 * 4, Zero64);

    // The top of the stack names block 0, the next a block beyond the count.
    patch(file + ".free", 4096 + 8 * 6, le64(0));
    patch(file + ".free", 4096 + 8 * 5, le64(500));
    EXPECT_FALSE(BlockFileCheck::checkBlockFile(file, report));
    EXPECT_EQ(report.problems.size(), 2);

    const QByteArray control = fileBytes(file, 0, 64);
    Blocks blocks;
    ASSERT_TRUE(blocks.open(file, 0, RawFile::eReadWrite));
    quint64 id = 0;
    void* block = blocks.newBlock(id);
    EXPECT_TRUE(traced("Invalid block id in free list"));
    EXPECT_EQ(id, 3u) << "the next sound entry";
    blocks.returnBlock(block, false);
    blocks.close();
    EXPECT_EQ(fileBytes(file, 0, 64), control) << "block 0 untouched";
    EXPECT_EQ(QFile(file).size(), 8 * 64) << "nothing written beyond the blocks";
    EXPECT_TRUE(sound(file));
}
