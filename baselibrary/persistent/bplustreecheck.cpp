#include "persistent/bplustreecheck.h"

#include "core/byteorder.h"
#include "persistent/blockfilecheck.h"
#include "persistent/blocklayout.h"
#include "persistent/journaledfile.h"

#include <QByteArray>

#include <vector>

namespace Brevi {

using namespace BPlusTreeLayout;

namespace {

// A damaged file can yield a fault per block; past this many the rest are
// counted, not listed.
const int MaximumProblems = 100;

enum BlockState : unsigned char { BlockUnseen = 0, BlockFree = 1, BlockInTree = 2 };

// A node to visit, with the range of KeyHashes its separators allow:
// [low, high), or [low, end) when `bounded` is false.
struct Visit {
    quint64 id;
    quint64 low;
    quint64 high;
    bool bounded;
};

class Checker
{
public:
    Checker(BPlusTreeReport& report)
        : mrReport(report)
    {}

    void problem(const QString& text)
    {
        ++miProblems;
        if (miProblems <= MaximumProblems)
            mrReport.problems.append(text);
        else if (miProblems == MaximumProblems + 1)
            mrReport.problems.append(QStringLiteral("more problems follow"));
    }

    bool readBlock(JournaledFile& file, quint64 id, QByteArray& block)
    {
        block.resize(int(muiBlockSize));
        return file.read((id & mullIdMask) * muiBlockSize, block.data(), muiBlockSize);
    }

    bool readFreeList(const QString& path, quint64 treeBlocks)
    {
        JournaledFile file(path, JournalLayout::FreeListFile);
        if (!file.isOpen())
            return false;
        unsigned char count[8];
        if (!file.read(BlockLayout::FreeListCountOffset, count, sizeof count))
            return false;
        const quint64 entries = ByteOrder::load64(count);
        const quint64 fileBlocks = file.size() / BlockLayout::FreeListBlockSize;
        const quint64 available = fileBlocks ? (fileBlocks - 1) * BlockLayout::FreeListEntriesPerBlock : 0;
        if (entries > available) {
            problem(
                QStringLiteral("free list claims %1 entries, its file holds at most %2").arg(entries).arg(available));
            return false;
        }
        QByteArray entryBlock;
        for (quint64 i = 0; i < entries; ++i) {
            // The entries are read a block at a time.
            if (i % BlockLayout::FreeListEntriesPerBlock == 0) {
                const quint64 block = BlockLayout::freeListEntryBlock(i);
                entryBlock.resize(int(BlockLayout::FreeListBlockSize));
                entryBlock.fill(0);
                if (!file.read(block * BlockLayout::FreeListBlockSize, entryBlock.data(),
                               BlockLayout::FreeListBlockSize)) {
                    problem(QStringLiteral("free list block %1 cannot be read").arg(block));
                    return false;
                }
            }
            const unsigned char* entry = reinterpret_cast<const unsigned char*>(entryBlock.constData()) +
                                         BlockLayout::FreeListEntrySize * BlockLayout::freeListEntrySlot(i);
            const quint64 id = ByteOrder::load64(entry) & mullIdMask;
            if (id <= HeaderBlock || id >= treeBlocks) {
                problem(QStringLiteral("free list entry %1 names block %2").arg(i).arg(id));
                continue;
            }
            if (moState[id] == BlockFree) {
                problem(QStringLiteral("block %1 is on the free list twice").arg(id));
                continue;
            }
            moState[id] = BlockFree;
            ++mrReport.freeCount;
        }
        return true;
    }

    void checkLeaf(const unsigned char* block, const Visit& visit, bool isRoot)
    {
        const unsigned n = ByteOrder::load32(block + CountOffset);
        ++mrReport.leafCount;
        mrReport.recordCount += n;
        if (!n && !isRoot)
            problem(QStringLiteral("leaf %1 holds no record").arg(visit.id));
        quint64 previous = 0;
        for (unsigned i = 1; i <= n; ++i) {
            const quint64 key = orderValue(block + slotOffset(i) + SlotHashOffset);
            if (!(key & 0xffffffffu))
                problem(QStringLiteral("leaf %1 slot %2 has sequence 0").arg(visit.id).arg(i));
            if (i > 1 && key <= previous)
                problem(QStringLiteral("leaf %1 slot %2 is out of order").arg(visit.id).arg(i));
            if (key < visit.low || (visit.bounded && key >= visit.high))
                problem(QStringLiteral("leaf %1 slot %2 lies outside its parent's range").arg(visit.id).arg(i));
            previous = key;
        }
        mLeaves.append(visit.id);
        mNexts.append(ByteOrder::load64(block + NextOffset));
    }

    void checkInternal(const unsigned char* block, const Visit& visit, bool isRoot, QList<Visit>& next)
    {
        const unsigned n = ByteOrder::load32(block + CountOffset);
        ++mrReport.internalCount;
        if (isRoot ? n < 1 : (n + 1 < moParameters.factor || n > moParameters.maximumEntries))
            problem(QStringLiteral("internal node %1 has %2 entries").arg(visit.id).arg(n));
        quint64 previous = visit.low;
        for (unsigned i = 0; i <= n; ++i) {
            const quint64 key = i ? orderValue(block + entryHashOffset(i)) : visit.low;
            if (i) {
                if (key <= previous && i > 1)
                    problem(QStringLiteral("internal node %1 entry %2 is out of order").arg(visit.id).arg(i));
                if (key < visit.low || (visit.bounded && key >= visit.high))
                    problem(QStringLiteral("internal node %1 entry %2 lies outside its parent's range")
                                .arg(visit.id)
                                .arg(i));
            }
            previous = key;
            Visit child;
            child.id = ByteOrder::load64(block + entryChildOffset(i));
            child.low = key;
            if (i < n) {
                child.high = orderValue(block + entryHashOffset(i + 1));
                child.bounded = true;
            } else {
                child.high = visit.high;
                child.bounded = visit.bounded;
            }
            if (!child.id)
                problem(QStringLiteral("internal node %1 child %2 is 0").arg(visit.id).arg(i));
            else
                next.append(child);
        }
    }

    bool run(const QString& path)
    {
        BlockFileReport blocks;
        BlockFileCheck::checkBlockFile(path, blocks);
        for (const QString& text : blocks.problems)
            problem(text);
        if (!blocks.controlRead)
            return false;
        muiBlockSize = blocks.blockSize;
        mullIdMask = blocks.idMask;
        mrReport.blockSize = blocks.blockSize;
        mrReport.totalBlockCount = blocks.totalBlockCount;
        if (muiBlockSize < MinimumBlockSize) {
            problem(QStringLiteral("block size %1 is below %2").arg(muiBlockSize).arg(MinimumBlockSize));
            return false;
        }
        moParameters = parametersFor(muiBlockSize);

        JournaledFile file(path, JournalLayout::BlockFile);
        if (!file.isOpen())
            return false;
        const quint64 fileBlocks = qMin(blocks.totalBlockCount, file.size() / muiBlockSize);
        if (fileBlocks < blocks.totalBlockCount)
            problem(QStringLiteral("the file holds %1 of %2 blocks").arg(fileBlocks).arg(blocks.totalBlockCount));
        if (fileBlocks <= HeaderBlock) {
            problem(QStringLiteral("the file has no header block"));
            return false;
        }
        moState.assign(fileBlocks, BlockUnseen);

        QByteArray block;
        if (!readBlock(file, HeaderBlock, block))
            return false;
        const quint64 rootId = ByteOrder::load64(block.constData() + HeaderRootOffset);
        mrReport.rootId = rootId;
        if (!readFreeList(path, fileBlocks))
            return false;
        mrReport.fileRead = true;

        if (rootId <= HeaderBlock || rootId >= fileBlocks) {
            problem(QStringLiteral("the root id %1 is not a node of the file").arg(rootId));
            return false;
        }

        QList<Visit> level;
        level.append(Visit{rootId, 0, 0, false});
        bool leafLevel = false;
        while (!level.isEmpty() && !leafLevel) {
            if (mrReport.depth >= MaximumDepth) {
                problem(QStringLiteral("the tree is deeper than %1 levels").arg(MaximumDepth));
                break;
            }
            ++mrReport.depth;
            QList<Visit> next;
            int leaves = 0;
            for (const Visit& visit : level) {
                const bool isRoot = visit.id == rootId && mrReport.depth == 1;
                if (visit.id <= HeaderBlock || visit.id >= fileBlocks) {
                    problem(QStringLiteral("node id %1 is outside the file").arg(visit.id));
                    continue;
                }
                if (moState[visit.id] == BlockInTree) {
                    problem(QStringLiteral("block %1 is reached twice").arg(visit.id));
                    continue;
                }
                if (moState[visit.id] == BlockFree)
                    problem(QStringLiteral("block %1 is in the tree and on the free list").arg(visit.id));
                moState[visit.id] = BlockInTree;
                if (!readBlock(file, visit.id, block)) {
                    problem(QStringLiteral("block %1 cannot be read").arg(visit.id));
                    continue;
                }
                const unsigned char* bytes = reinterpret_cast<const unsigned char*>(block.constData());
                if (const char* what = BPlusTreeCheck::nodeProblem(bytes, moParameters)) {
                    problem(QStringLiteral("node %1: %2").arg(visit.id).arg(QString::fromLatin1(what)));
                    continue;
                }
                const unsigned flags = ByteOrder::load32(bytes + FlagsOffset);
                if (isRoot && (flags & FlagRoot))
                    mrReport.treeFound = true;
                if (bool(flags & FlagRoot) != isRoot)
                    problem(QStringLiteral("node %1 has the root flag %2").arg(visit.id).arg(isRoot ? "clear" : "set"));
                if (flags & FlagLeaf) {
                    ++leaves;
                    checkLeaf(bytes, visit, isRoot);
                } else {
                    checkInternal(bytes, visit, isRoot, next);
                }
            }
            if (leaves && leaves != level.size())
                problem(QStringLiteral("level %1 mixes leaves and internal nodes").arg(mrReport.depth));
            leafLevel = leaves > 0;
            if (leafLevel && !next.isEmpty())
                problem(QStringLiteral("leaves at level %1 have internal siblings").arg(mrReport.depth));
            level = next;
        }

        for (int i = 0; i < mLeaves.size(); ++i) {
            const quint64 expected = i + 1 < mLeaves.size() ? mLeaves[i + 1] : 0;
            if (mNexts[i] != expected)
                problem(
                    QStringLiteral("leaf %1 chains to %2 instead of %3").arg(mLeaves[i]).arg(mNexts[i]).arg(expected));
        }
        for (quint64 id = HeaderBlock + 1; id < fileBlocks; ++id) {
            if (moState[id] == BlockUnseen) {
                problem(QStringLiteral("block %1 is neither in the tree nor free").arg(id));
                mrReport.unreachedBlocks.push_back(id);
            }
        }
        return true;
    }

private:
    BPlusTreeReport& mrReport;
    int miProblems = 0;
    unsigned muiBlockSize = 0;
    quint64 mullIdMask = 0;
    Parameters moParameters;
    std::vector<unsigned char> moState;
    QList<quint64> mLeaves;
    QList<quint64> mNexts;
};

} // namespace

const char* BPlusTreeCheck::nodeProblem(const unsigned char* block, const Parameters& parameters)
{
    const unsigned flags = ByteOrder::load32(block + FlagsOffset);
    if (flags & ~FlagMask)
        return "unknown flags";
    const unsigned n = ByteOrder::load32(block + CountOffset);
    if (!(flags & FlagLeaf))
        return n > parameters.maximumEntries ? "entry count above the maximum" : nullptr;
    const unsigned dataSize = parameters.dataSize;
    if (n > dataSize / SlotSize)
        return "entry count beyond the block";
    if (ByteOrder::load32(block + slotOffset(0) + SlotDataOffset) != dataSize ||
        ByteOrder::load32(block + slotOffset(0) + SlotRecordSizeOffset))
        return "sentinel damaged";
    unsigned previous = dataSize;
    for (unsigned i = 1; i <= n; ++i) {
        const unsigned char* slot = block + slotOffset(i);
        const unsigned offset = ByteOrder::load32(slot + SlotDataOffset);
        const unsigned size = ByteOrder::load32(slot + SlotRecordSizeOffset);
        if (size > dataSize || offset > previous || previous - offset != roundRecord(size))
            return "records not packed";
        previous = offset;
    }
    if (previous < SlotSize * n)
        return "records overlap the slots";
    return nullptr;
}

bool BPlusTreeCheck::checkTreeFile(const QString& path, BPlusTreeReport& report)
{
    report = BPlusTreeReport();
    Checker checker(report);
    checker.run(path);
    return report.sound();
}

} // namespace Brevi
