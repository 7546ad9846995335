// The paged list against an in-memory model: writing, reading and moving
// about in memory and in files, the three ways of sorting with the order of
// equal entries, finding, copies, and files that are not lists.

#include "core/byteorder.h"
#include "core/fixedpath.h"
#include "persistent/pagedlist.h"
#include "persistent/pagedlistlayout.h"

#include "testhome.h"
#include "tracelines.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QVector>

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>

using namespace Brevi;
using BreviTest::inContext;

namespace {

quint64 offsetOf(const QVector<QByteArray>& entries, int index)
{
    quint64 offset = 0;
    for (int i = 0; i < index; ++i)
        offset += PagedListLayout::footprint(unsigned(entries[i].size()));
    return offset;
}

QByteArray randomEntry(std::mt19937& random, int largest)
{
    QByteArray entry(int(random() % unsigned(largest + 1)), 0);
    for (char& c : entry)
        c = char(random());
    return entry;
}

// Random writes, reads and moves, each checked against the entries the list
// should hold and the position it should be at. A write cuts the list at the
// position, as in the model.
void exercise(PagedList& list, unsigned seed, int largest)
{
    std::mt19937 random(seed);
    QVector<QByteArray> model;
    int at = 0;
    for (int step = 0; step < 2500; ++step) {
        const unsigned op = random() % 10;
        if (op < 4) {
            const QByteArray entry = randomEntry(random, largest);
            ASSERT_TRUE(list.write(entry)) << "step " << step << ", error " << list.lastError();
            model.resize(at);
            model.append(entry);
            at = model.size();
        } else if (op < 7) {
            Extent view;
            const bool read = list.read(view);
            ASSERT_EQ(read, at < model.size()) << "step " << step;
            if (read)
                ASSERT_EQ(view.toQByteArray(), model[at++]) << "step " << step;
            else
                ASSERT_EQ(list.lastError(), PagedList::eEndOfList);
        } else if (op < 9) {
            at = int(random() % unsigned(model.size() + 1));
            ASSERT_TRUE(list.setPosition(offsetOf(model, at)));
        } else {
            at = random() % 2 ? model.size() : 0;
            ASSERT_TRUE(at == 0 ? list.setPositionStart() : list.setPositionEnd());
        }
        ASSERT_EQ(list.getPosition(), offsetOf(model, at)) << "step " << step;
    }
    ASSERT_TRUE(list.setPositionStart());
    QByteArray entry;
    for (const QByteArray& expected : model) {
        ASSERT_TRUE(list.read(entry));
        ASSERT_EQ(entry, expected);
    }
    EXPECT_FALSE(list.read(entry));
    EXPECT_TRUE(list) << "running off the end leaves the list valid";
}

// Entries of a 4-byte key and a 4-byte stamp (the input index); the order is
// the key's alone.
PagedList::CompareResult byKey(const Extent& first, const Extent& second)
{
    const quint32 a = ByteOrder::load32(first.data());
    const quint32 b = ByteOrder::load32(second.data());
    return a < b ? PagedList::eLess : a > b ? PagedList::eGreater : PagedList::eEqual;
}

QByteArray keyed(quint32 key, quint32 stamp)
{
    QByteArray entry(8, 0);
    ByteOrder::store32(entry.data(), key);
    ByteOrder::store32(entry.data() + 4, stamp);
    return entry;
}

quint32 keyOf(const QByteArray& entry) { return ByteOrder::load32(entry.constData()); }

// What the external sort gives for entries in runs of `perRun` with distinct
// keys within each run: each run ascending, then merges of eight runs at a
// time in passes, in which of equal entries the one whose way took its place
// in the order first comes first.
QVector<QByteArray> modelSort(const QVector<QByteArray>& input, int perRun)
{
    QVector<QVector<QByteArray>> segments;
    for (int i = 0; i < input.size(); i += perRun) {
        QVector<QByteArray> run = input.mid(i, perRun);
        std::sort(run.begin(), run.end(), [](const QByteArray& a, const QByteArray& b) { return keyOf(a) < keyOf(b); });
        segments.append(run);
    }
    while (segments.size() > 1) {
        QVector<QVector<QByteArray>> made;
        for (int first = 0; first < segments.size(); first += 8) {
            const int ways = std::min(8, segments.size() - first);
            QVector<int> next(ways, 0);
            QVector<quint64> placed(ways);
            quint64 clock = 0;
            for (int w = 0; w < ways; ++w)
                placed[w] = clock++;
            QVector<QByteArray> merged;
            for (;;) {
                int best = -1;
                for (int w = 0; w < ways; ++w) {
                    if (next[w] == segments[first + w].size())
                        continue;
                    const quint32 key = keyOf(segments[first + w][next[w]]);
                    if (best < 0 || key < keyOf(segments[first + best][next[best]]) ||
                        (key == keyOf(segments[first + best][next[best]]) && placed[w] < placed[best]))
                        best = w;
                }
                if (best < 0)
                    break;
                merged.append(segments[first + best][next[best]++]);
                placed[best] = clock++;
            }
            made.append(merged);
        }
        segments = made;
    }
    return segments.isEmpty() ? QVector<QByteArray>() : segments.first();
}

QVector<QByteArray> readAll(PagedList& list)
{
    QVector<QByteArray> entries;
    QByteArray entry;
    while (list.read(entry))
        entries.append(entry);
    return entries;
}

} // namespace

TEST(PagedList, WritesReadsAndMovesAsTheModelInMemoryAndInFiles)
{
    inContext([] {
        {
            // A whole page for one entry; a byte more is refused and nothing
            // changes.
            PagedList list(PagedList::CompareFunction(), PagedList::FindFunction(), 64);
            EXPECT_FALSE(list.write(QByteArray(57, 'y')));
            EXPECT_EQ(list.lastError(), PagedList::eEntryTooLarge);
            EXPECT_TRUE(list);
            ASSERT_TRUE(list.write(QByteArray(56, 'y')));
            EXPECT_TRUE(list.path().isEmpty());
            ASSERT_TRUE(list.write(QByteArray()));
            EXPECT_TRUE(list.path().startsWith(FixedPath::tmp())) << "the full page went to a temporary file";
        }
        EXPECT_TRUE(QDir(FixedPath::tmp()).isEmpty()) << "the temporary file went with the list";

        PagedList inMemory(PagedList::CompareFunction(), PagedList::FindFunction(), 1 << 20);
        exercise(inMemory, 11, 300);
        EXPECT_TRUE(inMemory.path().isEmpty());
        PagedList spilling(PagedList::CompareFunction(), PagedList::FindFunction(), 512);
        exercise(spilling, 12, 200);
        EXPECT_FALSE(spilling.path().isEmpty());

        QTemporaryDir directory;
        PagedList named(PagedList::CompareFunction(), PagedList::FindFunction(), 256, 0, directory.path() + "/a.list");
        exercise(named, 13, 100);
    });
}

TEST(PagedList, SortsInThePageInOneSortPageAndExternallyWithTheTieOrder)
{
    inContext([] {
        std::mt19937 random(21);
        PagedList empty(byKey);
        EXPECT_TRUE(empty.sort());
        EXPECT_TRUE(empty.isSorted());

        // In the page and in one sort page: ascending, nothing lost.
        for (unsigned pageSize : {4096u, 64u}) {
            PagedList list(byKey, PagedList::FindFunction(), pageSize, 4096);
            QVector<QByteArray> input;
            for (quint32 i = 0; i < 200; ++i)
                input.append(keyed(random() % 30, i));
            for (const QByteArray& entry : input)
                ASSERT_TRUE(list.write(entry));
            ASSERT_TRUE(list.sort());
            EXPECT_EQ(list.getPosition(), 0u);
            QVector<QByteArray> sorted = readAll(list);
            EXPECT_TRUE(std::is_sorted(sorted.begin(), sorted.end(),
                                       [](const QByteArray& a, const QByteArray& b) { return keyOf(a) < keyOf(b); }));
            std::sort(input.begin(), input.end());
            std::sort(sorted.begin(), sorted.end());
            EXPECT_EQ(sorted, input) << "page size " << pageSize;
            EXPECT_EQ(list.path().isEmpty(), pageSize == 4096);
        }

        // Externally: runs of 8 entries, keys distinct within a run and
        // repeated across runs. 1000 entries make 125 runs and three passes
        // (the result lands in the list's file), 400 make 50 runs and two
        // (it lands in the spare file and a named list takes it back).
        QTemporaryDir directory;
        for (int count : {1000, 400}) {
            const QString named = count == 400 ? directory.path() + "/sorted.list" : QString();
            PagedList list(byKey, PagedList::FindFunction(), 64, 128, named, true);
            QVector<QByteArray> input;
            for (int run = 0; run * 8 < count; ++run) {
                std::vector<quint32> keys(20);
                std::iota(keys.begin(), keys.end(), 0);
                std::shuffle(keys.begin(), keys.end(), random);
                for (int i = 0; i < 8; ++i)
                    input.append(keyed(keys[size_t(i)], quint32(input.size())));
            }
            for (const QByteArray& entry : input)
                ASSERT_TRUE(list.write(entry));
            ASSERT_TRUE(list.sort()) << list.lastError();
            EXPECT_TRUE(list.isSorted());
            EXPECT_EQ(readAll(list), modelSort(input, 8)) << count << " entries";
            if (!named.isEmpty()) {
                EXPECT_EQ(list.path(), named);
            }

            list.setPositionEnd();
            ASSERT_TRUE(list.write(keyed(0, 0)));
            EXPECT_FALSE(list.isSorted()) << "a write after the sort";
        }
    });
}

TEST(PagedList, FindsByFunctionOrCompareAndCopiesKeepTheEntries)
{
    inContext([] {
        int compared = 0;
        auto counting = [&compared](const Extent& a, const Extent& b) {
            ++compared;
            return byKey(a, b);
        };
        PagedList list(counting, PagedList::FindFunction(), 64);
        QVector<QByteArray> entries;
        for (quint32 key : {5, 1, 9, 3, 7, 3}) {
            entries.append(keyed(key, key));
            ASSERT_TRUE(list.write(entries.last()));
        }
        const quint64 entry = PagedListLayout::footprint(8);
        quint64 position = 0;
        list.setPositionStart();
        ASSERT_TRUE(list.find(position, keyed(3, 0)));
        EXPECT_EQ(position, 3 * entry) << "the first equal entry";
        EXPECT_EQ(list.getPosition(), 0u) << "the position is put back";
        list.setPosition(4 * entry);
        ASSERT_TRUE(list.find(position, keyed(3, 0))) << "from the current position on";
        EXPECT_EQ(position, 5 * entry);

        // Copies: of the list in its file into a temporary file, of that into
        // a named kept file, and of a list in memory by assignment.
        QTemporaryDir directory;
        const QString named = directory.path() + "/copy.list";
        PagedList copied(list);
        EXPECT_FALSE(copied.path().isEmpty());
        EXPECT_NE(copied.path(), list.path());
        PagedList(copied, named, true);
        EXPECT_EQ(readAll(copied), entries);
        PagedList reopened(byKey, PagedList::FindFunction(), 64, 0, named);
        EXPECT_EQ(readAll(reopened), entries);
        PagedList small(byKey);
        small.write(entries.first());
        PagedList assigned;
        assigned = small;
        EXPECT_TRUE(assigned.path().isEmpty());
        EXPECT_EQ(readAll(assigned), entries.mid(0, 1));

        ASSERT_TRUE(list.sort());
        compared = 0;
        EXPECT_FALSE(list.find(position, keyed(4, 0)));
        EXPECT_EQ(list.lastError(), PagedList::eNotFound);
        EXPECT_EQ(compared, 4) << "a sorted list stops at the first greater entry (1 3 3 5)";
        EXPECT_TRUE(PagedList(list).isSorted());

        PagedList byFunction(PagedList::CompareFunction(), [](const Extent& e, const Extent& t) {
            return e.toQByteArray().endsWith(t.toQByteArray());
        });
        for (const char* word : {"alpha", "beta", "gamma"})
            byFunction.write(QByteArray(word));
        byFunction.setPositionStart();
        ASSERT_TRUE(byFunction.find(position, QByteArray("mma")));
        EXPECT_EQ(position, PagedListLayout::footprint(5) + PagedListLayout::footprint(4));
        EXPECT_FALSE(byFunction.sort());
        EXPECT_EQ(byFunction.lastError(), PagedList::eNoCompareFunction);
        PagedList none;
        EXPECT_FALSE(none.find(position, QByteArray("x")));
        EXPECT_EQ(none.lastError(), PagedList::eNoFindFunction);
    });
}

// A file that is not a whole list: the list fails with a file error, is
// invalid from then on, and reads nothing outside its page.
TEST(PagedList, FilesThatAreNotListsMakeItInvalid)
{
    inContext([] {
        QTemporaryDir directory;
        const QByteArray good = QByteArray("\x08\0\0\0\0\0\0\0", 8) + keyed(1, 1);
        const QByteArray huge = QByteArray("\x30\0\0\0\0\0\0\0", 8) + QByteArray(48, 'h');
        const std::pair<const char*, QByteArray> cases[] = {
            {"ends inside an entry", good + QByteArray("\x08\0\0\0\0\0\0\0abc", 11)},
            {"a size past the end of the file", good + QByteArray("\x00\x10\0\0\0\0\0\0abcdefgh", 16)},
            {"an entry larger than the page", good + huge},
            {"a second word that is not zero", good + QByteArray("\x00\0\0\0\x01\0\0\0", 8)},
        };
        for (const auto& c : cases) {
            const QString path = directory.path() + "/" + c.first;
            QFile file(path);
            ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write(c.second) == c.second.size());
            file.close();
            BreviTest::TraceReader trace;
            PagedList list(byKey, PagedList::FindFunction(), 40, 0, path, true);
            QByteArray entry;
            EXPECT_TRUE(list.read(entry)) << c.first << ": the good entry first";
            EXPECT_FALSE(list.read(entry)) << c.first;
            EXPECT_EQ(list.lastError(), PagedList::eFileError) << c.first;
            EXPECT_FALSE(list) << c.first;
            EXPECT_TRUE(trace.saw("File is not valid")) << c.first;
            EXPECT_FALSE(list.write(QByteArray("x")));
            EXPECT_FALSE(list.setPositionStart());

            PagedList sorting(byKey, PagedList::FindFunction(), 40, 40, path, true);
            EXPECT_FALSE(sorting.sort()) << c.first;
            EXPECT_EQ(sorting.lastError(), PagedList::eFileError) << c.first;
        }
    });
}
