// A block file or a B+ tree whose process is killed at any moment opens
// whole: every block written whole at its place, every change to the tree that
// returned true there and, of the one under way, all or nothing. A change
// refused for want of room leaves the tree as it was; the journal is written
// again when whole and dropped when not; and one opener at a time.

#include "core/byteorder.h"
#include "persistent/blockfilecheck.h"
#include "persistent/blocklayout.h"
#include "persistent/blocks.h"
#include "persistent/bplustree.h"
#include "persistent/bplustreecheck.h"
#include "persistent/journal.h"

#include "persistenttest.h"
#include "treerecord.h"

#include <QElapsedTimer>
#include <QFile>
#include <QSet>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <random>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Brevi;
using PersistentTest::RecordKey;
using PersistentTest::sound;

namespace {

const quint32 IdSpace = 2000;

// One key in five shares a hash with 39 others, enough for the records of
// one hash to span leaves; the rest share theirs with five or six.
quint32 hashOf(quint32 id) { return id % 5 == 0 ? 0x80000000u + id / 200 : (id % 331) * 2654435761u; }

struct Entry {
    quint32 sequence;
    unsigned size;
    quint32 version;
};
typedef std::map<quint32, Entry> Model;

// The change the writer announced and had not confirmed when it was killed.
struct Pending {
    char operation = 0;
    quint32 id = 0;
    unsigned size = 0;
    quint32 version = 0;
};

// The writer, in a child process of the test: changes the tree that `model`
// describes, at random and without end, every change being one that must
// succeed. Before each change it writes what it is about to do, and after it
// returns true, that it did, one line each, so that the test that kills it
// knows every change that was committed and the one that may have been:
//   "? I id size" then "I seq"   insert of key id, a record of `size` bytes
//   "? U id version" then "U"    update of key id to `version`
//   "? R id" then "R"            remove of key id
// The result is an exit code: 3 the open failed, 4 a change failed.
int runWriter(const QString& file, unsigned seed, Model model, bool synchronous, int output)
{
    auto say = [output](const char* format, unsigned a = 0, unsigned b = 0) {
        char line[64];
        const int length = std::snprintf(line, sizeof line, format, a, b);
        // One write a line: a kill cuts the output between lines, or leaves
        // a line without its end, which the reader drops.
        return ::write(output, line, size_t(length)) == length;
    };
    BPlusTree tree(32);
    if (synchronous)
        tree.setDurability(Blocks::eSynchronous);
    if (!tree.open(file))
        return 3;
    std::mt19937 random(seed);
    say("running\n");
    for (;;) {
        const quint32 id = random() % IdSpace;
        const quint32 hash = hashOf(id);
        const auto found = model.find(id);
        if (found == model.end()) {
            // Mostly small records, some of a quarter of a block.
            const unsigned pick = random();
            const unsigned size = pick % 8 ? 4 + pick % 28 : 4 + pick % 56;
            say("? I %u %u\n", id, size);
            RecordKey key(hash, id, size);
            if (!tree.insert(key))
                return 4;
            say("I %u\n", key.hash().sequence());
            model[id] = Entry{key.hash().sequence(), size, 0};
            continue;
        }
        Entry& entry = found->second;
        RecordKey key(hash, id, entry.size, entry.version + 1);
        key.setHash(KeyHash(hash, entry.sequence));
        if (random() % 10 < 3) {
            say("? U %u %u\n", id, entry.version + 1);
            if (!tree.update(key))
                return 4;
            say("U\n");
            ++entry.version;
        } else {
            say("? R %u\n", id);
            if (!tree.remove(key))
                return 4;
            say("R\n");
            model.erase(found);
        }
    }
}

// Changes a block file without end: makes, rewrites and frees blocks, each
// written whole with its own full id in every word, so that after a kill a
// block's bytes tell whether they are whole and at their place. The result is
// an exit code: 3 a call failed.
int runBlocksWriter(const QString& file, unsigned seed, int output)
{
    Blocks blocks(8);
    if (!blocks.open(file, 16 * 64, RawFile::eReadWrite) || ::write(output, "running\n", 8) != 8)
        return 3;
    auto fill = [&blocks](void* block, quint64 id) {
        for (unsigned offset = 0; offset + 8 <= blocks.blockSize(); offset += 8)
            ByteOrder::store64(static_cast<unsigned char*>(block) + offset, id);
    };
    std::mt19937_64 random(seed);
    std::vector<quint64> held;
    for (;;) {
        const unsigned op = unsigned(random() % 10);
        if (held.empty() || (op < 5 && held.size() < 3000)) {
            quint64 id = 0;
            void* block = blocks.newBlock(id);
            if (!block || id == 0)
                return 3;
            fill(block, id);
            if (!blocks.returnBlock(block, true))
                return 3;
            held.push_back(id);
            continue;
        }
        const size_t index = size_t(random() % held.size());
        void* block = blocks.getBlock(held[index]);
        if (!block)
            return 3;
        if (op < 8 || held.size() >= 3000) {
            if (!blocks.freeBlock(block))
                return 3;
            held[index] = held.back();
            held.pop_back();
        } else {
            fill(block, held[index]);
            if (!blocks.updateBlock(block) || !blocks.returnBlock(block, false))
                return 3;
        }
    }
}

// Reads what the writer says into `output` until `milliseconds` have passed,
// or with `running`, until it says it is running.
void listen(int fd, QByteArray& output, int milliseconds, bool running)
{
    QElapsedTimer clock;
    clock.start();
    for (;;) {
        const qint64 left = milliseconds - clock.elapsed();
        if (left <= 0 || (running && output.contains("running\n")))
            return;
        pollfd wait = {fd, POLLIN, 0};
        if (::poll(&wait, 1, int(left)) <= 0)
            continue;
        char buffer[4096];
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got <= 0)
            return;
        output.append(buffer, int(got));
    }
}

// Runs `writer` in a fork of this process, which starts at once and knows
// what this process knows, and kills it `milliseconds` after it says it is
// running, or with `early`, without waiting for that. The writer's output;
// false if it stopped by itself.
::testing::AssertionResult runAndKill(const std::function<int(int)>& writer, bool early, int milliseconds,
                                      QByteArray& output)
{
    int pipe[2];
    if (::pipe2(pipe, O_CLOEXEC) != 0)
        return ::testing::AssertionFailure() << "no pipe";
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(pipe[0]);
        ::_exit(writer(pipe[1]));
    }
    ::close(pipe[1]);
    if (child < 0) {
        ::close(pipe[0]);
        return ::testing::AssertionFailure() << "no fork";
    }
    if (!early)
        listen(pipe[0], output, 10000, true);
    listen(pipe[0], output, milliseconds, false);
    ::kill(child, SIGKILL);
    int status = 0;
    const bool reaped = ::waitpid(child, &status, 0) == child;
    listen(pipe[0], output, 10000, false);
    ::close(pipe[0]);
    if (!reaped || !WIFSIGNALED(status))
        return ::testing::AssertionFailure() << "the writer stopped by itself with " << WEXITSTATUS(status);
    if (!early && !output.startsWith("running\n"))
        return ::testing::AssertionFailure() << "the writer did not start";
    return ::testing::AssertionSuccess();
}

class CrashTest : public PersistentTest::Fixture
{
protected:
    BPlusTreeReport check(const QString& file)
    {
        BPlusTreeReport report;
        BPlusTreeCheck::checkTreeFile(file, report);
        return report;
    }

    // Opens the tree in another process: 0 opened, 2 refused as open
    // elsewhere, 3 another failure.
    static int openElsewhere(const QString& file)
    {
        const pid_t opener = ::fork();
        if (opener == 0) {
            BPlusTree tree;
            ::_exit(tree.open(file) ? 0 : tree.lastError() == BPlusTree::eInUse ? 2 : 3);
        }
        int status = 0;
        return opener > 0 && ::waitpid(opener, &status, 0) == opener && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    // Blocks not on the free list hold zeros (new, or lost at the kill) or
    // their own full id in every word, and that id places them here.
    void expectBlocksWhole(const QString& file, const BlockFileReport& report)
    {
        const QByteArray list = fileBytes(file + BlockLayout::FreeListSuffix);
        QSet<quint64> free;
        for (quint64 i = 0; i < report.freeEntryCount; ++i)
            free.insert(ByteOrder::load64(list.constData() + BlockLayout::freeListEntryOffset(i)) & report.idMask);
        const QByteArray blocks = fileBytes(file);
        int written = 0;
        for (quint64 place = 1; place < report.totalBlockCount; ++place) {
            const QByteArray data = blocks.mid(int(place * report.blockSize), int(report.blockSize));
            if (free.contains(place) || data.count('\0') == data.size())
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

    // Applies the writer's confirmed changes to the model; the last one
    // announced and not confirmed goes to `pending`. A line the kill cut
    // short counts as not written.
    static void readOutput(const QByteArray& output, Model& model, Pending& pending, unsigned& confirmed)
    {
        QList<QByteArray> lines = output.split('\n');
        lines.removeLast();
        for (const QByteArray& line : lines) {
            const QList<QByteArray> words = line.split(' ');
            if (line == "running")
                continue;
            if (words[0] == "?") {
                pending.operation = words[1][0];
                pending.id = words[2].toUInt();
                pending.size = pending.version = words.size() > 3 ? words[3].toUInt() : 0;
                continue;
            }
            ++confirmed;
            if (words[0] == "I")
                model[pending.id] = Entry{words[1].toUInt(), pending.size, 0};
            else if (words[0] == "U")
                model[pending.id].version = pending.version;
            else
                model.erase(pending.id);
            pending = Pending();
        }
    }

    // Whether the change under way at the kill is in the tree: the model
    // follows what the tree says, which must be one of the two.
    static void settle(BPlusTree& tree, Model& model, const Pending& pending)
    {
        if (!pending.operation)
            return;
        const quint32 hash = hashOf(pending.id);
        RecordKey key(hash, pending.id, 0);
        const bool found = tree.find(key);
        if (pending.operation == 'I' && found)
            model[pending.id] = Entry{key.hash().sequence(), pending.size, 0};
        else if (pending.operation == 'R' && !found)
            model.erase(pending.id);
        else if (pending.operation == 'U' && found &&
                 key.moLoaded == RecordKey::content(pending.id, pending.version, model[pending.id].size))
            model[pending.id].version = pending.version;
    }

    // Every record of the model is in the tree, at its place, with its bytes.
    static ::testing::AssertionResult holds(BPlusTree& tree, const Model& model)
    {
        for (const auto& item : model) {
            const quint32 hash = hashOf(item.first);
            RecordKey key(hash, item.first, 0);
            if (!tree.find(key))
                return ::testing::AssertionFailure() << "record " << item.first << " is lost";
            if (key.hash() != KeyHash(hash, item.second.sequence) ||
                key.moLoaded != RecordKey::content(item.first, item.second.version, item.second.size))
                return ::testing::AssertionFailure() << "record " << item.first << " is not as committed";
        }
        return ::testing::AssertionSuccess();
    }
};

} // namespace

TEST_F(CrashTest, KilledBlockWriterLeavesEveryBlockWhole)
{
    const QString file = path("crash.blocks");
    {
        Blocks blocks;
        ASSERT_TRUE(blocks.create(file, 64, 8, 16 * 64, RawFile::eReadWrite));
    }
    std::mt19937 random(424242);
    for (unsigned round = 0; round < 20; ++round) {
        QByteArray output;
        ASSERT_TRUE(runAndKill([&](int fd) { return runBlocksWriter(file, round + 1, fd); }, false,
                               20 + int(random() % 100), output))
            << "round " << round;
        BlockFileReport report;
        ASSERT_TRUE(BlockFileCheck::checkBlockFile(file, report)) << "round " << round << ":\n"
                                                                  << report.problems.join("\n").toStdString();
        Blocks blocks;
        ASSERT_TRUE(blocks.open(file, 0, RawFile::eReadWrite)) << "round " << round;
        EXPECT_EQ(blocks.usedBlockCount(), report.usedBlockCount);
        ASSERT_TRUE(blocks.close());
        expectBlocksWhole(file, report);
    }
}

TEST_F(CrashTest, KilledTreeWriterLosesNothingItWasToldWasDone)
{
    const QString file = path("crash.tree");
    {
        BPlusTree tree;
        ASSERT_TRUE(tree.create(file, 256));
    }
    Model model;
    std::mt19937 random(20240613);
    unsigned confirmed = 0;
    unsigned settled = 0;
    const char* longTests = std::getenv("BREVI_LONG_TESTS");
    const unsigned total = longTests && *longTests ? 2000 : 200;
    for (unsigned round = 0; round < total; ++round) {
        // One round in four waits for the disk at every commit, and so keeps
        // many transactions in the journal. Now and then the kill comes while
        // the writer is still opening the tree, and may stop a replay.
        QByteArray output;
        ASSERT_TRUE(runAndKill([&](int fd) { return runWriter(file, round + 1, model, round % 4 == 3, fd); },
                               round % 10 == 9, int(random() % 40), output))
            << "round " << round;

        Pending pending;
        readOutput(output, model, pending, confirmed);
        // Now and then read as the next open will find it, before that open.
        BPlusTreeReport before;
        if (round % 8 == 0) {
            before = check(file);
            ASSERT_TRUE(sound(before)) << "round " << round;
        }
        {
            BPlusTree tree;
            ASSERT_TRUE(tree.open(file)) << "round " << round;
            settle(tree, model, pending);
            settled += pending.operation != 0;
            ASSERT_TRUE(holds(tree, model)) << "round " << round;
        }
        const BPlusTreeReport after = check(file);
        ASSERT_TRUE(sound(after)) << "round " << round;
        ASSERT_EQ(after.recordCount, model.size()) << "round " << round;
        if (round % 8 == 0)
            ASSERT_EQ(before.recordCount, after.recordCount) << "round " << round;
    }
    EXPECT_GT(confirmed, 20 * total) << "the writer should get real work done between kills";
    EXPECT_GT(settled, total / 4) << "many kills should land inside a change";
    RecordProperty("confirmed", int(confirmed));
}

TEST_F(CrashTest, AnInsertThatCannotGrowTheFileChangesNothing)
{
    const QString file = path("full.tree");
    BPlusTree tree(4096);
    ASSERT_TRUE(tree.create(file, 256));
    // The file may grow no further than it is; a process past the limit gets
    // EFBIG rather than SIGXFSZ.
    struct rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
    struct rlimit limit = saved;
    limit.rlim_cur = rlim_t(QFile(file).size());
    std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);

    Model model;
    QByteArray treeBefore;
    QByteArray freeBefore;
    quint32 id = 0;
    quint64 freeCount = ~quint64(0);
    for (;; ++id) {
        ASSERT_LT(id, 100000u) << "the file should have filled up";
        // The bytes before each insert, once the free list runs short. An
        // insert takes a block a level at most: looking every 8 inserts is
        // enough while many are free.
        if (freeCount < 64 || id % 8 == 0)
            freeCount = ByteOrder::load64(fileBytes(file + ".free", 0, 8).constData());
        if (freeCount < 16) {
            treeBefore = fileBytes(file);
            freeBefore = fileBytes(file + ".free");
        }
        RecordKey key(hashOf(id), id, 60);
        if (!tree.insert(key)) {
            EXPECT_EQ(tree.lastError(), BPlusTree::eFileError);
            EXPECT_EQ(key.hash().sequence(), 0u) << "a key not placed keeps its KeyHash";
            break;
        }
        model[id] = Entry{key.hash().sequence(), 60, 0};
    }
    EXPECT_FALSE(treeBefore.isEmpty());
    EXPECT_EQ(fileBytes(file), treeBefore);
    EXPECT_EQ(fileBytes(file + ".free"), freeBefore);

    // The tree in memory is the tree before, too: it goes on working, and
    // takes the record once removals have made room.
    RecordKey refused(hashOf(id), id, 60);
    EXPECT_FALSE(tree.insert(refused));
    for (quint32 gone = 0; gone < 200; ++gone) {
        RecordKey key(hashOf(gone), gone, 60);
        key.setHash(KeyHash(hashOf(gone), model[gone].sequence));
        ASSERT_TRUE(tree.remove(key)) << gone;
        model.erase(gone);
    }
    ASSERT_TRUE(tree.insert(refused));
    model[id] = Entry{refused.hash().sequence(), 60, 0};

    // With no room for the journal, every change is refused, and undone
    // after it was made in memory.
    const QByteArray treeFull = fileBytes(file);
    limit.rlim_cur = 16;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    RecordKey unplaced(hashOf(id + 1), id + 1, 60);
    EXPECT_FALSE(tree.insert(unplaced));
    EXPECT_FALSE(tree.remove(refused));
    EXPECT_EQ(fileBytes(file), treeFull);

    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &saved), 0);
    for (quint32 more = id + 1; more < id + 100; ++more) {
        RecordKey key(hashOf(more), more, 60);
        ASSERT_TRUE(tree.insert(key));
        model[more] = Entry{key.hash().sequence(), 60, 0};
    }
    EXPECT_TRUE(holds(tree, model));
    ASSERT_TRUE(tree.close());
    const BPlusTreeReport report = check(file);
    EXPECT_TRUE(sound(report));
    EXPECT_EQ(report.recordCount, model.size());
}

TEST_F(CrashTest, TheJournalIsWrittenAgainWhenWholeAndDroppedWhenNot)
{
    const QString file = path("journal.tree");
    BPlusTree tree;
    ASSERT_TRUE(tree.create(file, 256));
    for (quint32 id = 0; id < 300; ++id) {
        RecordKey key(hashOf(id), id, 20);
        ASSERT_TRUE(tree.insert(key));
    }
    // The files before one more insert, and the journal it leaves: as if the
    // process had stopped after committing it and before writing it through.
    const QByteArray treeBefore = fileBytes(file);
    const QByteArray freeBefore = fileBytes(file + ".free");
    RecordKey last(hashOf(300), 300, 20);
    ASSERT_TRUE(tree.insert(last));
    const QByteArray journal = fileBytes(file + JournalLayout::Suffix);
    const QByteArray treeAfter = fileBytes(file);
    ASSERT_TRUE(tree.close());
    ASSERT_GT(journal.size(), 0);
    ASSERT_NE(treeAfter, treeBefore);

    auto restore = [&](const QByteArray& journalBytes) {
        QFile::remove(file);
        QFile::remove(file + ".free");
        QFile::remove(file + JournalLayout::Suffix);
        patch(file, 0, treeBefore);
        patch(file + ".free", 0, freeBefore);
        patch(file + JournalLayout::Suffix, 0, journalBytes);
    };

    // Whole, the check already sees the insert and the open writes it; cut
    // short, or with one byte changed, it is dropped and the tree is as
    // before. (What follows the transaction in the file is left from longer
    // ones.)
    const int length = int(ByteOrder::load64(journal.constData() + JournalLayout::HeaderLengthOffset));
    ASSERT_LE(length, journal.size());
    QByteArray damaged = journal.left(length);
    damaged[length / 2] = char(damaged[length / 2] ^ 0x40);
    const std::pair<QByteArray, bool> cases[] = {{journal, true}, {journal.left(length - 1), false}, {damaged, false}};
    for (const auto& item : cases) {
        restore(item.first);
        const BPlusTreeReport report = check(file);
        EXPECT_TRUE(sound(report));
        EXPECT_EQ(report.recordCount, item.second ? 301u : 300u);
        ASSERT_TRUE(tree.open(file));
        EXPECT_EQ(tree.find(last), item.second);
        ASSERT_TRUE(tree.close());
        EXPECT_EQ(fileBytes(file), item.second ? treeAfter : treeBefore);
        std::vector<JournalRecord> records;
        EXPECT_EQ(Journal::read(file, records), 0u) << "emptied once open";
    }
    EXPECT_EQ(JournalLayout::checksum("123456789", 9), 0xe3069283u) << "CRC-32C";
}

TEST_F(CrashTest, ASecondOpenerIsRefusedInThisProcessOrAnother)
{
    const QString file = path("shared.tree");
    BPlusTree first;
    ASSERT_TRUE(first.create(file, 256));
    RecordKey key(1, 1, 20);
    ASSERT_TRUE(first.insert(key));

    BPlusTree second;
    newLines();
    EXPECT_FALSE(second.open(file));
    EXPECT_EQ(second.lastError(), BPlusTree::eInUse);
    EXPECT_TRUE(traced("Block file is open elsewhere"));
    EXPECT_FALSE(second.create(file, 256));
    EXPECT_EQ(second.lastError(), BPlusTree::eInUse);
    EXPECT_TRUE(first.find(key)) << "the refused create changed nothing";
    EXPECT_EQ(openElsewhere(file), 2);

    ASSERT_TRUE(first.close());
    ASSERT_TRUE(second.open(file));
    EXPECT_TRUE(second.find(key));
    EXPECT_EQ(openElsewhere(file), 2);
    ASSERT_TRUE(second.close());
    EXPECT_EQ(openElsewhere(file), 0);
}
