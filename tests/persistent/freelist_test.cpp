// Free lists, reference counts and indirect blocks: their edges, and long
// random runs against an in-memory model with reopening at random points.

#include "core/byteorder.h"
#include "persistent/blockfilecheck.h"
#include "persistent/blocklayout.h"
#include "persistent/freelist.h"
#include "persistent/indirectblock.h"
#include "persistent/referencecount.h"

#include "persistenttest.h"

#include <QFile>

#include <map>
#include <memory>
#include <random>
#include <vector>

using namespace Brevi;

namespace {

class FreeListTest : public PersistentTest::Fixture
{
protected:
    // The stack as the file holds it, bottom first.
    std::vector<quint64> stackOnDisk(const QString& file)
    {
        const QByteArray bytes = fileBytes(file);
        std::vector<quint64> entries;
        if (bytes.size() < 8)
            return entries;
        const quint64 count = ByteOrder::load64(bytes.constData());
        for (quint64 i = 0; i < count; ++i) {
            const quint64 offset = BlockLayout::freeListEntryOffset(i);
            if (offset + 8 > quint64(bytes.size()))
                break;
            entries.push_back(ByteOrder::load64(bytes.constData() + offset));
        }
        return entries;
    }
};

} // namespace

TEST_F(FreeListTest, StackEdges)
{
    FreeList list;
    ASSERT_TRUE(list.create(path("list.free"), 0x0000FFFFFFFFFFFFull));
    quint64 id = 77;
    EXPECT_FALSE(list.get(id));
    EXPECT_EQ(id, 77u) << "untouched on an empty list";

    ASSERT_TRUE(list.put(5));
    ASSERT_TRUE(list.get(id));
    EXPECT_EQ(id, 0x0001000000000005ull) << "one generation on";

    ASSERT_TRUE(list.grow(1, 3));
    for (quint64 expected = 1; expected <= 3; ++expected) {
        ASSERT_TRUE(list.get(id));
        EXPECT_EQ(id, expected);
    }
    EXPECT_TRUE(list.grow(9, 0));
    EXPECT_EQ(list.entryCount(), 0u);
    list.close();

    FreeList full;
    ASSERT_TRUE(full.create(path("full.free"), ~quint64(0)));
    for (quint64 i = 0; i < 512; ++i)
        ASSERT_TRUE(full.put(i + 100));
    EXPECT_EQ(QFile(path("full.free")).size(), 2 * 4096);
    ASSERT_TRUE(full.put(1));
    EXPECT_EQ(QFile(path("full.free")).size(), 3 * 4096) << "the 513th entry makes block 2";
    EXPECT_EQ(stackOnDisk(path("full.free")).back(), 1u) << "no generation with a mask of all ones";
}

TEST_F(FreeListTest, FreeListFollowsAModelAcrossReopens)
{
    const QString file = path("model.free");
    const quint64 mask = 0x00FFFFFFFFFFFFFFull;
    std::mt19937_64 random(1234567);
    std::vector<quint64> model;
    auto list = std::make_unique<FreeList>();
    ASSERT_TRUE(list->create(file, mask));
    for (int phase = 0; phase < 12; ++phase) {
        for (int step = 0; step < 400; ++step) {
            const unsigned op = unsigned(random() % 10);
            if (op < 4) {
                const quint64 id = random() % 100000;
                ASSERT_TRUE(list->put(id));
                model.push_back(id + mask + 1);
            } else if (op < 5) {
                const quint64 first = random() % 100000 + 1;
                const quint64 count = random() % 700;
                ASSERT_TRUE(list->grow(first, count));
                for (quint64 n = count; n != 0; --n)
                    model.push_back(first + n - 1);
            } else {
                quint64 id = 0;
                ASSERT_EQ(list->get(id), !model.empty());
                if (!model.empty()) {
                    ASSERT_EQ(id, model.back()) << "phase " << phase << " step " << step;
                    model.pop_back();
                }
            }
            ASSERT_EQ(list->entryCount(), quint64(model.size()));
        }
        // The file is right at every moment, not only after close.
        ASSERT_EQ(stackOnDisk(file), model) << "phase " << phase;
        if (random() % 2) {
            list->close();
            list = std::make_unique<FreeList>();
            ASSERT_TRUE(list->open(file, mask));
            ASSERT_EQ(list->entryCount(), quint64(model.size()));
        }
    }
}

TEST_F(FreeListTest, ReferenceCountEdges)
{
    ReferenceCount counts;
    ASSERT_TRUE(counts.create(path("refs"), ~quint64(0), 0));
    EXPECT_EQ(counts.growEntries(), 0x500000u);
    unsigned value = 0;
    ASSERT_TRUE(counts.newId(7));
    EXPECT_FALSE(counts.increment(value, 42)) << "never entered";
    EXPECT_TRUE(traced("Error: `ptEntry->ulId == ulId' failed."));

    EXPECT_EQ(QFile(path("refs")).size(), 0x500000 * 16) << "grown by a whole stretch";
    EXPECT_FALSE(counts.newId(7));
    EXPECT_TRUE(traced("Error: `!ptEntry->ulId' failed."));
    EXPECT_FALSE(counts.releaseId(7));
    EXPECT_TRUE(traced("Count is"));
    ASSERT_TRUE(counts.decrement(value, 7));
    EXPECT_FALSE(counts.decrement(value, 7));
    EXPECT_TRUE(traced("Error: `ptEntry->uiCount' failed."));
    ASSERT_TRUE(counts.newId(42));
    counts.close();

    // A counter at its top sticks, up and down.
    patch(path("refs"), 16 * 42 + 8, QByteArray("\xfe\xff\xff\xff", 4));
    ASSERT_TRUE(counts.open(path("refs"), ~quint64(0), 0));
    ASSERT_TRUE(counts.increment(value, 42));
    EXPECT_EQ(value, 0xFFFFFFFFu);
    ASSERT_TRUE(counts.increment(value, 42));
    EXPECT_EQ(value, 0xFFFFFFFFu);
    ASSERT_TRUE(counts.decrement(value, 42));
    EXPECT_EQ(value, 0xFFFFFFFFu);
    EXPECT_FALSE(counts.newId(0));
    counts.close();
    QStringList problems;
    EXPECT_TRUE(BlockFileCheck::checkReferenceCountFile(path("refs"), ~quint64(0), problems))
        << problems.join("\n").toStdString();
}

TEST_F(FreeListTest, ReferenceCountFollowsAModelAcrossReopens)
{
    const QString file = path("model.refs");
    const quint64 mask = (quint64(1) << 40) - 1;
    std::mt19937_64 random(987654321);
    // Entry number k to (id, count). Ids that differ above the mask share an
    // entry, so a call with the wrong one must fail.
    std::map<quint64, std::pair<quint64, unsigned>> model;
    auto counts = std::make_unique<ReferenceCount>(16);
    ASSERT_TRUE(counts->create(file, mask, 0));
    for (int phase = 0; phase < 10; ++phase) {
        for (int step = 0; step < 600; ++step) {
            const quint64 k = random() % 4000;
            const quint64 id = k | ((random() % 3 == 0) ? (quint64(1) << 40) : 0);
            if (id == 0)
                continue;
            const auto found = model.find(k);
            const bool mine = found != model.end() && found->second.first == id;
            unsigned value = 12345;
            switch (random() % 5) {
            case 0:
                ASSERT_EQ(counts->newId(id), found == model.end()) << step;
                if (found == model.end())
                    model[k] = { id, 1 };
                break;
            case 1: {
                const bool expected = mine && found->second.second == 0;
                ASSERT_EQ(counts->releaseId(id), expected);
                if (expected)
                    model.erase(found);
                break;
            }
            case 2:
                ASSERT_EQ(counts->increment(value, id), mine);
                if (mine) {
                    ASSERT_EQ(value, ++found->second.second);
                }
                break;
            case 3: {
                const bool expected = mine && found->second.second != 0;
                ASSERT_EQ(counts->decrement(value, id), expected);
                if (expected) {
                    ASSERT_EQ(value, --found->second.second);
                }
                break;
            }
            default:
                ASSERT_EQ(counts->count(value, id), mine);
                if (mine) {
                    ASSERT_EQ(value, found->second.second);
                }
                break;
            }
        }
        if (random() % 2) {
            counts->close();
            QStringList problems;
            ASSERT_TRUE(BlockFileCheck::checkReferenceCountFile(file, mask, problems))
                << problems.join("\n").toStdString();
            counts = std::make_unique<ReferenceCount>(16);
            ASSERT_TRUE(counts->open(file, mask, 0));
            for (const auto& entry : model) {
                unsigned value = 0;
                ASSERT_TRUE(counts->count(value, entry.second.first));
                ASSERT_EQ(value, entry.second.second);
            }
        }
    }
    EXPECT_GT(counts->cacheHits(), 0u);
}

TEST_F(FreeListTest, IndirectBlockEdgesAndPinning)
{
    IndirectBlock values(2);
    ASSERT_TRUE(values.create(path("ind"), ~quint64(0)));
    quint64 value = 99;
    ASSERT_TRUE(values.set(3 * 512 + 7, 0xFEEDull));

    // Blocks made by set stay referenced: the cache of two holds all five.
    for (quint64 block = 10; block < 15; ++block)
        ASSERT_TRUE(values.set(block * 512, block));
    EXPECT_GE(values.cachedBlocks(), 6u);
    ASSERT_TRUE(values.snapshot(path("ind.copy")));
    values.close();

    IndirectBlock copy(2);
    ASSERT_TRUE(copy.open(path("ind.copy"), ~quint64(0)));
    ASSERT_TRUE(copy.get(value, 12 * 512));
    EXPECT_EQ(value, 12u);
    ASSERT_TRUE(copy.get(value, 3 * 512 + 7));
    EXPECT_EQ(value, 0xFEEDu);
    EXPECT_LE(copy.cachedBlocks(), 2u) << "blocks only read are not pinned";
    QStringList problems;
    EXPECT_TRUE(BlockFileCheck::checkIndirectBlockFile(path("ind"), problems));
}

TEST_F(FreeListTest, IndirectBlockFollowsAModelAcrossReopens)
{
    const QString file = path("model.ind");
    const quint64 mask = (quint64(1) << 32) - 1;
    std::mt19937_64 random(55555);
    std::map<quint64, quint64> model;
    qint64 highestBlock = -1;
    auto values = std::make_unique<IndirectBlock>(8);
    ASSERT_TRUE(values->create(file, mask));
    for (int phase = 0; phase < 10; ++phase) {
        for (int step = 0; step < 800; ++step) {
            const quint64 k = random() % 20000;
            const quint64 id = k | (random() % 2 ? (quint64(7) << 32) : 0);
            if (random() % 3 == 0) {
                const quint64 value = random();
                ASSERT_TRUE(values->set(id, value));
                model[k] = value;
                highestBlock = std::max(highestBlock, qint64(k >> 9));
            } else {
                quint64 value = 1;
                const bool there = qint64(k >> 9) <= highestBlock;
                ASSERT_EQ(values->get(value, id), there) << k;
                if (there) {
                    const auto found = model.find(k);
                    ASSERT_EQ(value, found == model.end() ? 0 : found->second);
                }
            }
        }
        QStringList problems;
        ASSERT_TRUE(BlockFileCheck::checkIndirectBlockFile(file, problems)) << problems.join("\n").toStdString();
        if (random() % 2) {
            values->close();
            values = std::make_unique<IndirectBlock>(8);
            ASSERT_TRUE(values->open(file, mask));
        }
    }
}
