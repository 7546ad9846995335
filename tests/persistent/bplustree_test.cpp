// The B+ tree: sequence numbers and their reuse, the retry path, splits and
// the anchor method's shifts and merges, the root's growth and collapse, a
// long run against an in-memory model with the file checker after each phase,
// and damaged files.

#include "core/byteorder.h"
#include "persistent/blocks.h"
#include "persistent/bplustree.h"
#include "persistent/bplustreecheck.h"
#include "persistent/bplustreelayout.h"

#include "persistenttest.h"
#include "treerecord.h"

#include <QFile>
#include <QRegExp>

#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <set>

using namespace Brevi;

namespace {

using PersistentTest::RecordKey;
using PersistentTest::sound;

class BPlusTreeTest : public PersistentTest::Fixture
{
protected:
    void SetUp() override { Trace::setLevel(TraceNormal, TraceModuleBPlusTree); }

    BPlusTreeReport check(const QString& name = "tree")
    {
        BPlusTreeReport report;
        BPlusTreeCheck::checkTreeFile(path(name), report);
        return report;
    }

    QByteArray readBlock(const QString& name, unsigned blockSize, quint64 id)
    {
        return fileBytes(path(name), qint64(id * blockSize), blockSize);
    }
    void writeBytes(const QString& name, quint64 offset, const void* bytes, unsigned count)
    {
        patch(path(name), qint64(offset), QByteArray(static_cast<const char*>(bytes), int(count)));
    }
};

} // namespace

TEST_F(BPlusTreeTest, AFreshTreeIsAHeaderAndAnEmptyRootLeaf)
{
    BPlusTree tree;
    ASSERT_TRUE(tree.create(path("tree"), 4096));
    EXPECT_TRUE(tree);
    EXPECT_EQ(tree.maximumKeySize(), 2032u - 16u);
    RecordKey key(7, 1, 20);
    key.setHash(KeyHash(7, 1));
    EXPECT_FALSE(tree.find(static_cast<const Key&>(key)));
    EXPECT_FALSE(tree.find(key));
    EXPECT_EQ(tree.lastError(), BPlusTree::eSuccess);
    ASSERT_TRUE(tree.close());

    const QByteArray header = readBlock("tree", 4096, 1);
    ASSERT_EQ(header.size(), 4096);
    EXPECT_EQ(ByteOrder::load64(header.constData()), 2u);
    const QByteArray root = readBlock("tree", 4096, 2);
    EXPECT_EQ(ByteOrder::load32(root.constData()), BPlusTreeLayout::FlagRoot | BPlusTreeLayout::FlagLeaf);
    EXPECT_EQ(ByteOrder::load32(root.constData() + 4), 0u);
    EXPECT_EQ(ByteOrder::load64(root.constData() + 8), 0u);
    EXPECT_EQ(ByteOrder::load32(root.constData() + 16 + 8), 4064u) << "the sentinel's data offset";

    const BPlusTreeReport report = check();
    EXPECT_TRUE(sound(report));
    EXPECT_EQ(report.depth, 1u);
    EXPECT_EQ(report.freeCount, report.totalBlockCount - 3);
}

TEST_F(BPlusTreeTest, OperationsOnAClosedTreeFailWithNotOpen)
{
    BPlusTree tree;
    RecordKey key(1, 1, 8);
    EXPECT_FALSE(tree);
    EXPECT_FALSE(tree.insert(key));
    EXPECT_EQ(tree.lastError(), BPlusTree::eNotOpen);
    EXPECT_FALSE(tree.find(key));
    EXPECT_FALSE(tree.find(static_cast<const Key&>(key)));
    EXPECT_FALSE(tree.update(key));
    EXPECT_FALSE(tree.remove(key));
    EXPECT_EQ(tree.lastError(), BPlusTree::eNotOpen);
    EXPECT_FALSE(tree.close());
    tree.display();

    EXPECT_FALSE(tree.open(path("missing")));
    EXPECT_EQ(tree.lastError(), BPlusTree::eFileError);
    ASSERT_TRUE(tree.create(path("tree"), 512));
    ASSERT_TRUE(tree.insert(key));
    ASSERT_TRUE(tree.close());
    EXPECT_FALSE(tree.find(key));
    EXPECT_EQ(tree.lastError(), BPlusTree::eNotOpen);
    ASSERT_TRUE(tree.open(path("tree")));
    EXPECT_TRUE(tree.find(key));
    EXPECT_GT(tree.cacheHits() + tree.cacheMisses(), 0u);
    EXPECT_EQ(tree.cacheSize(), 1024u);
}

TEST_F(BPlusTreeTest, KeysOfOneHashGetSequenceNumbersAndReuseHoles)
{
    BPlusTree tree;
    ASSERT_TRUE(tree.create(path("tree"), 512));
    RecordKey first(0x1234, 1, 24);
    RecordKey second(0x1234, 2, 24);
    RecordKey other(0x1235, 3, 24);
    ASSERT_TRUE(tree.insert(first));
    ASSERT_TRUE(tree.insert(other));
    ASSERT_TRUE(tree.insert(second));
    EXPECT_EQ(first.hash(), KeyHash(0x1234, 1));
    EXPECT_EQ(second.hash(), KeyHash(0x1234, 2));
    EXPECT_EQ(other.hash(), KeyHash(0x1235, 1));

    ASSERT_TRUE(tree.remove(first));
    newLines();
    RecordKey third(0x1234, 4, 24);
    ASSERT_TRUE(tree.insert(third));
    EXPECT_EQ(third.hash(), KeyHash(0x1234, 1)) << "the first record's number comes back";
    EXPECT_TRUE(traced("Found hole at"));
    EXPECT_TRUE(sound(check()));
}

// What the random run below does not do: each refusal with its result, and
// a refused insert that leaves the file as it was.
TEST_F(BPlusTreeTest, RefusedOperationsTellWhyAndChangeNothing)
{
    BPlusTree tree;
    ASSERT_TRUE(tree.create(path("tree"), 512));
    for (quint32 id = 0; id < 40; ++id) {
        RecordKey key(id % 5, id, 30);
        ASSERT_TRUE(tree.insert(key));
    }
    const QByteArray before = fileBytes(path("tree"));
    RecordKey again(17 % 5, 17, 30, 99);
    newLines();
    EXPECT_FALSE(tree.insert(again));
    EXPECT_EQ(tree.lastError(), BPlusTree::eDuplicate);
    EXPECT_TRUE(traced("Insert failed"));
    EXPECT_EQ(fileBytes(path("tree")), before);
    // lastError tells the last failure; a later success does not clear it.
    RecordKey fresh(3, 100, 30);
    EXPECT_TRUE(tree.insert(fresh));
    EXPECT_EQ(tree.lastError(), BPlusTree::eDuplicate);

    RecordKey tooLarge(1, 999, tree.maximumKeySize() + 1);
    EXPECT_FALSE(tree.insert(tooLarge));
    EXPECT_EQ(tree.lastError(), BPlusTree::eTooLarge);

    RecordKey nowhere(1, 1, 30);
    nowhere.setHash(KeyHash(1, 9));
    EXPECT_FALSE(tree.update(nowhere));
    EXPECT_EQ(tree.lastError(), BPlusTree::eNotFound);

    // A key that was never placed has no sequence number to remove by.
    RecordKey unplaced(1, 1, 30);
    newLines();
    EXPECT_FALSE(tree.remove(unplaced));
    EXPECT_EQ(tree.lastError(), BPlusTree::eNotFound);
    EXPECT_TRUE(traced("Entry not found"));
    EXPECT_TRUE(tree.find(unplaced));
    EXPECT_TRUE(tree.remove(unplaced));
    EXPECT_EQ(tree.lastError(), BPlusTree::eSuccess);
    EXPECT_TRUE(sound(check()));
}

TEST_F(BPlusTreeTest, RecordsOfOneHashAcrossLeavesGoThroughTheRetry)
{
    // 40-byte records take 56 bytes each: four to a 256-byte leaf.
    BPlusTree tree;
    ASSERT_TRUE(tree.create(path("tree"), 256));
    RecordKey low(1, 1000, 40);
    ASSERT_TRUE(tree.insert(low));
    for (quint32 id = 0; id < 12; ++id) {
        RecordKey key(5, id, 40);
        ASSERT_TRUE(tree.insert(key));
        EXPECT_EQ(key.hash().sequence(), id + 1);
    }
    const BPlusTreeReport report = check();
    ASSERT_TRUE(sound(report));
    ASSERT_GE(report.leafCount, 4u);

    newLines();
    RecordKey next(5, 12, 40);
    ASSERT_TRUE(tree.insert(next));
    EXPECT_TRUE(traced("#### will need to retry ####"));
    EXPECT_EQ(next.hash(), KeyHash(5, 13));

    // A hole in a later leaf is found on the way and used on the second pass.
    RecordKey tenth(5, 9, 40);
    tenth.setHash(KeyHash(5, 10));
    ASSERT_TRUE(tree.remove(tenth));
    RecordKey filler(5, 13, 40);
    ASSERT_TRUE(tree.insert(filler));
    EXPECT_EQ(filler.hash(), KeyHash(5, 10));
    EXPECT_TRUE(sound(check()));

    for (quint32 id = 0; id < 14; ++id) {
        RecordKey key(5, id, 0);
        EXPECT_EQ(tree.find(key), id != 9) << id;
    }
}

TEST_F(BPlusTreeTest, RootGrowsAndCollapsesBackToOneLeaf)
{
    BPlusTree tree;
    ASSERT_TRUE(tree.create(path("tree"), 256));
    std::vector<RecordKey> keys;
    quint64 firstRoot = 0;
    // Fill until the root is an internal node with two children.
    for (quint32 id = 0; firstRoot == 0; ++id) {
        keys.emplace_back(id, id, 40);
        ASSERT_TRUE(tree.insert(keys.back()));
        const BPlusTreeReport report = check();
        ASSERT_TRUE(sound(report));
        if (report.depth == 2)
            firstRoot = report.rootId;
    }
    // Take records from the right until the merge removes one child.
    quint64 collapsedTo = 0;
    while (!collapsedTo) {
        ASSERT_TRUE(tree.remove(keys.back()));
        keys.pop_back();
        const BPlusTreeReport report = check();
        ASSERT_TRUE(sound(report));
        if (report.depth == 1)
            collapsedTo = report.rootId;
    }
    EXPECT_NE(collapsedTo, firstRoot) << "a child became the root";
    const QByteArray oldRoot = readBlock("tree", 256, firstRoot);
    EXPECT_EQ(oldRoot, QByteArray(256, 0)) << "the old root's block was freed";
}

TEST_F(BPlusTreeTest, CopiesShareTheTreeAndFollowRootChanges)
{
    BPlusTree tree;
    ASSERT_TRUE(tree.create(path("tree"), 128));
    BPlusTree copy(tree);
    BPlusTree assigned;
    assigned = copy;
    std::vector<RecordKey> keys;
    for (quint32 id = 0; id < 200; ++id) {
        keys.emplace_back(id * 2654435761u, id, 4 + id % 20);
        ASSERT_TRUE((id % 2 ? tree : copy).insert(keys.back()));
    }
    for (const RecordKey& key : keys)
        ASSERT_TRUE(copy.find(key));
    for (const RecordKey& key : keys)
        ASSERT_TRUE((key.muiId % 3 ? assigned : tree).remove(key));
    EXPECT_TRUE(sound(check()));

    // Closing one copy leaves the others working.
    ASSERT_TRUE(tree.close());
    RecordKey late(77, 5000, 12);
    ASSERT_TRUE(copy.insert(late));
    EXPECT_TRUE(copy.find(late));
    EXPECT_FALSE(tree.find(late));
}

// ---------------------------------------------------------------------------
// A long random run against an in-memory model.

namespace {

struct ModelEntry {
    quint32 hash;
    quint32 sequence;
    unsigned size;
    quint32 version;
};

struct RunParameters {
    unsigned blockSize;
    unsigned seed;
};

class BPlusTreeModelTest : public BPlusTreeTest, public ::testing::WithParamInterface<RunParameters>
{
protected:
    // Many keys share a hash: one key in seven has a hot hash shared by 48
    // keys, enough to span leaves, and the rest are spread eight to a hash.
    static quint32 hashOf(quint32 id, quint32 idSpace)
    {
        if (id % 7 == 0)
            return 0x80000000u + id / 7 / 48;
        return (id % (idSpace / 8 + 1)) * 2654435761u;
    }

    static unsigned operations()
    {
        const char* longTests = std::getenv("BREVI_LONG_TESTS");
        return longTests && *longTests ? 400000 : 40000;
    }

    unsigned recordSize(std::mt19937& random, unsigned largest)
    {
        const unsigned pick = random() % 100;
        const unsigned small = qMin(largest, 64u);
        if (pick < 70)
            return 4 + random() % (small - 3);
        if (pick < 95)
            return 4 + random() % (qMax(largest / 4, 4u) - 3);
        return 4 + random() % (largest - 3);
    }

    static quint32 freeSequence(const std::set<quint32>& used)
    {
        quint32 sequence = 1;
        for (quint32 taken : used) {
            if (taken != sequence)
                break;
            ++sequence;
        }
        return sequence;
    }
};

} // namespace

TEST_P(BPlusTreeModelTest, RandomOperationsMatchTheModel)
{
    const RunParameters parameters = GetParam();
    const unsigned total = operations();
    const quint32 idSpace = qMax(total / 6, 64u);
    // A check reads every free block of the file, and large blocks make
    // that costly: they are checked half as often.
    const unsigned phaseLength = total / (parameters.blockSize >= 4096 ? 4 : 8);
    std::mt19937 random(parameters.seed);

    // A small cache, so that blocks leave it and come back from the file.
    BPlusTree tree(64);
    ASSERT_TRUE(tree.create(path("tree"), parameters.blockSize));
    const unsigned largest = tree.maximumKeySize();
    ASSERT_GE(largest, 4u);

    std::map<quint32, ModelEntry> model;
    std::map<quint32, std::set<quint32>> sequences;
    unsigned reopened = 0;
    unsigned maximumDepth = 0;

    for (unsigned done = 0; done < total; ++done) {
        // Inserts lead in the first half and removes in the second, so that
        // the tree grows deep and then shrinks through every kind of merge.
        const bool growing = (done / phaseLength) % 2 == 0 && done < total / 2;
        const unsigned insertShare = growing ? 45 : 20;
        const unsigned pick = random() % 100;
        const quint32 id = random() % idSpace;
        const quint32 hash = hashOf(id, idSpace);
        const auto found = model.find(id);
        const bool present = found != model.end();

        if (pick < insertShare) {
            const unsigned size = recordSize(random, largest);
            RecordKey key(hash, id, size);
            if (present) {
                ASSERT_FALSE(tree.insert(key)) << "op " << done;
                ASSERT_EQ(tree.lastError(), BPlusTree::eDuplicate);
            } else {
                const quint32 expected = freeSequence(sequences[hash]);
                ASSERT_TRUE(tree.insert(key)) << "op " << done << " error " << tree.lastError();
                ASSERT_EQ(key.hash(), KeyHash(hash, expected)) << "op " << done;
                model[id] = ModelEntry{hash, expected, size, 0};
                sequences[hash].insert(expected);
            }
        } else if (pick < insertShare + 20) {
            RecordKey key(hash, id, 0);
            ASSERT_EQ(tree.find(key), present) << "op " << done;
            if (present) {
                ASSERT_EQ(key.hash(), KeyHash(hash, found->second.sequence));
                ASSERT_EQ(key.moLoaded, RecordKey::content(id, found->second.version, found->second.size));
            }
        } else if (pick < insertShare + 30) {
            RecordKey key(hash, id, 0);
            if (present) {
                key.setHash(KeyHash(hash, found->second.sequence));
                ASSERT_TRUE(tree.find(static_cast<const Key&>(key))) << "op " << done;
            } else {
                key.setHash(KeyHash(hash, freeSequence(sequences[hash])));
                ASSERT_FALSE(tree.find(static_cast<const Key&>(key))) << "op " << done;
            }
        } else if (pick < insertShare + 40) {
            if (present) {
                ModelEntry& entry = found->second;
                const bool resize = random() % 5 == 0;
                RecordKey key(hash, id, resize ? entry.size % largest + 1 : entry.size, entry.version + 1);
                key.setHash(KeyHash(hash, entry.sequence));
                if (resize && key.size() != entry.size) {
                    ASSERT_FALSE(tree.update(key)) << "op " << done;
                    ASSERT_EQ(tree.lastError(), BPlusTree::eSizeMismatch);
                } else {
                    ASSERT_TRUE(tree.update(key)) << "op " << done;
                    ++entry.version;
                }
            }
        } else {
            RecordKey key(hash, id, 0);
            if (present) {
                key.setHash(KeyHash(hash, found->second.sequence));
                ASSERT_TRUE(tree.remove(key)) << "op " << done << " error " << tree.lastError();
                sequences[hash].erase(found->second.sequence);
                model.erase(found);
            } else {
                key.setHash(KeyHash(hash, freeSequence(sequences[hash])));
                ASSERT_FALSE(tree.remove(key)) << "op " << done;
                ASSERT_EQ(tree.lastError(), BPlusTree::eNotFound);
            }
        }

        if ((done + 1) % phaseLength == 0) {
            const BPlusTreeReport report = check();
            ASSERT_TRUE(sound(report)) << "after op " << done;
            ASSERT_EQ(report.recordCount, model.size());
            maximumDepth = qMax(maximumDepth, report.depth);
        }
        if (random() % 2000 == 0) {
            ASSERT_TRUE(tree.close());
            ASSERT_TRUE(tree.open(path("tree")));
            ++reopened;
        }
    }
    EXPECT_GT(reopened, 0u);
    EXPECT_GE(maximumDepth, parameters.blockSize <= 512 ? 3u : 2u) << "the run should reach internal levels";

    // Everything the model holds is in the file, also after a reopen.
    ASSERT_TRUE(tree.close());
    ASSERT_TRUE(tree.open(path("tree")));
    for (const auto& item : model) {
        RecordKey key(item.second.hash, item.first, 0);
        ASSERT_TRUE(tree.find(key)) << item.first;
        ASSERT_EQ(key.moLoaded, RecordKey::content(item.first, item.second.version, item.second.size));
    }
    for (const auto& item : model) {
        RecordKey key(item.second.hash, item.first, 0);
        key.setHash(KeyHash(item.second.hash, item.second.sequence));
        ASSERT_TRUE(tree.remove(key)) << item.first;
    }
    const BPlusTreeReport report = check();
    EXPECT_TRUE(sound(report));
    EXPECT_EQ(report.depth, 1u);
    EXPECT_EQ(report.freeCount, report.totalBlockCount - 3);
}

// 80 bytes is the smallest block whose records can hold a 4-byte id.
INSTANTIATE_TEST_SUITE_P(BlockSizes, BPlusTreeModelTest,
                         ::testing::Values(RunParameters{80, 1}, RunParameters{128, 2}, RunParameters{512, 3},
                                           RunParameters{4096, 4}),
                         [](const ::testing::TestParamInfo<RunParameters>& info) {
                             return "Block" + std::to_string(info.param.blockSize);
                         });

// The smallest block of all holds only empty records: the hash alone tells
// them apart.
TEST_F(BPlusTreeTest, SmallestBlockHoldsEmptyRecords)
{
    BPlusTree tree;
    EXPECT_FALSE(tree.create(path("small"), BPlusTreeLayout::MinimumBlockSize - 8));
    ASSERT_TRUE(tree.create(path("tree"), BPlusTreeLayout::MinimumBlockSize));
    EXPECT_EQ(tree.maximumKeySize(), 0u);
    for (quint32 id = 0; id < 300; ++id) {
        RecordKey key(id * 2654435761u, id, 0);
        ASSERT_TRUE(tree.insert(key));
    }
    ASSERT_TRUE(sound(check()));
    for (quint32 id = 0; id < 300; id += 2) {
        RecordKey key(id * 2654435761u, id, 0);
        key.setHash(KeyHash(key.hash().hash(), 1));
        ASSERT_TRUE(tree.remove(key));
    }
    const BPlusTreeReport report = check();
    EXPECT_TRUE(sound(report));
    EXPECT_EQ(report.recordCount, 150u);
}

// ---------------------------------------------------------------------------
// Damaged files.

TEST_F(BPlusTreeTest, DamagedNodesFailTheOperationNotTheProcess)
{
    std::vector<RecordKey> keys;
    quint64 rootId = 0;
    {
        BPlusTree tree;
        ASSERT_TRUE(tree.create(path("tree"), 256));
        for (quint32 id = 0; id < 60; ++id) {
            keys.emplace_back(id, id, 40);
            ASSERT_TRUE(tree.insert(keys.back()));
        }
        rootId = check().rootId;
    }
    const QByteArray pristine = fileBytes(path("tree"));

    // The root's first child with a count that runs past its block.
    const quint64 child = ByteOrder::load64(pristine.constData() + rootId * 256 + 16);
    const unsigned huge = 100000;
    writeBytes("tree", child * 256 + 4, &huge, sizeof huge);
    {
        BPlusTree tree;
        ASSERT_TRUE(tree.open(path("tree"))) << "the root is sound";
        newLines();
        EXPECT_FALSE(tree.find(keys.front()));
        EXPECT_EQ(tree.lastError(), BPlusTree::eFileError);
        EXPECT_TRUE(traced("Corrupt node"));
        RecordKey fresh(0, 5000, 40);
        const QByteArray damaged = fileBytes(path("tree"));
        EXPECT_FALSE(tree.insert(fresh));
        EXPECT_FALSE(tree.remove(keys.front()));
        EXPECT_EQ(tree.lastError(), BPlusTree::eFileError);
        EXPECT_EQ(fileBytes(path("tree")), damaged) << "what failed changed nothing";
        EXPECT_TRUE(tree.find(keys.back())) << "other leaves still answer";
    }
    EXPECT_FALSE(check().sound());

    // A root that points at itself, and a root that is not flagged as one.
    QFile::remove(path("tree"));
    QFile file(path("tree"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(pristine);
    file.close();
    writeBytes("tree", rootId * 256 + 16, &rootId, sizeof rootId);
    {
        BPlusTree tree;
        ASSERT_TRUE(tree.open(path("tree")));
        EXPECT_FALSE(tree.find(keys.front()));
        EXPECT_FALSE(tree.insert(keys.front()));
        EXPECT_FALSE(tree.remove(keys.front()));
        tree.display();
    }
    const unsigned leafFlags = BPlusTreeLayout::FlagLeaf;
    writeBytes("tree", rootId * 256, &leafFlags, sizeof leafFlags);
    BPlusTree tree;
    EXPECT_FALSE(tree.open(path("tree")));
    EXPECT_EQ(tree.lastError(), BPlusTree::eFileError);

    // A header without a root, and one whose root lies beyond the file.
    for (const quint64 root : {quint64(0), quint64(1) << 30}) {
        writeBytes("tree", 256, &root, sizeof root);
        newLines();
        EXPECT_FALSE(tree.open(path("tree")));
        EXPECT_FALSE(tree);
        EXPECT_TRUE(traced(root ? "not in file" : "No root node"));
        EXPECT_FALSE(check().sound());
    }
}

TEST_F(BPlusTreeTest, RandomDamageNeverCrashesOrHangs)
{
    const unsigned blockSize = 128;
    {
        BPlusTree tree;
        ASSERT_TRUE(tree.create(path("pristine"), blockSize));
        for (quint32 id = 0; id < 400; ++id) {
            RecordKey key(id % 50, id, 4 + id % 28);
            ASSERT_TRUE(tree.insert(key));
        }
    }
    const QByteArray pristine = fileBytes(path("pristine"));
    const QByteArray freeList = fileBytes(path("pristine.free"));
    const quint64 usedBlocks = 0x200;
    std::mt19937 random(11);
    const char* longTests = std::getenv("BREVI_LONG_TESTS");
    const unsigned rounds = longTests && *longTests ? 400 : 30;
    for (unsigned round = 0; round < rounds; ++round) {
        QByteArray damaged = pristine;
        for (unsigned flips = 1 + random() % 4; flips; --flips) {
            const quint64 block = 2 + random() % (usedBlocks - 2);
            const unsigned offset = random() % blockSize;
            damaged[int(block * blockSize + offset)] = char(random());
        }
        QFile tree(path("tree"));
        ASSERT_TRUE(tree.open(QIODevice::WriteOnly | QIODevice::Truncate));
        tree.write(damaged);
        tree.close();
        QFile list(path("tree.free"));
        ASSERT_TRUE(list.open(QIODevice::WriteOnly | QIODevice::Truncate));
        list.write(freeList);
        list.close();

        BPlusTree damagedTree(16);
        if (!damagedTree.open(path("tree")))
            continue;
        for (unsigned operation = 0; operation < 300; ++operation) {
            const quint32 id = random() % 500;
            RecordKey key(id % 50, id, 4 + id % 28);
            switch (random() % 4) {
            case 0:
                damagedTree.insert(key);
                break;
            case 1:
                damagedTree.find(key);
                break;
            case 2:
                key.setHash(KeyHash(id % 50, 1 + random() % 10));
                damagedTree.remove(key);
                break;
            default:
                key.setHash(KeyHash(id % 50, 1 + random() % 10));
                damagedTree.update(key);
                break;
            }
        }
        damagedTree.display();
        BPlusTreeReport report;
        BPlusTreeCheck::checkTreeFile(path("tree"), report);
    }
}

TEST_F(BPlusTreeTest, CheckerFindsANodeThatIsAlsoFree)
{
    {
        BPlusTree tree;
        ASSERT_TRUE(tree.create(path("tree"), 512));
        for (quint32 id = 0; id < 100; ++id) {
            RecordKey key(id * 977, id, 24);
            ASSERT_TRUE(tree.insert(key));
        }
    }
    BPlusTreeReport report = check();
    ASSERT_TRUE(sound(report));
    EXPECT_EQ(report.recordCount, 100u);
    EXPECT_GE(report.depth, 2u);

    // A leaf of the tree put on the free list as well.
    const quint64 leaf = ByteOrder::load64(readBlock("tree", 512, report.rootId).constData() + 16);
    QFile freeFile(path("tree.free"));
    ASSERT_TRUE(freeFile.open(QIODevice::ReadWrite));
    const QByteArray countBytes = freeFile.read(8);
    const quint64 count = ByteOrder::load64(countBytes.constData());
    unsigned char entry[8];
    ByteOrder::store64(entry, leaf);
    ASSERT_TRUE(freeFile.seek(qint64(4096 * ((count >> 9) + 1) + 8 * (count & 0x1ff))));
    freeFile.write(reinterpret_cast<char*>(entry), 8);
    ByteOrder::store64(entry, count + 1);
    freeFile.seek(0);
    freeFile.write(reinterpret_cast<char*>(entry), 8);
    freeFile.close();
    report = check();
    EXPECT_FALSE(report.sound());
    EXPECT_FALSE(report.problems.filter("in the tree and on the free list").isEmpty())
        << report.problems.join("; ").toStdString();
}
