// A B+ tree whose process is killed at any moment opens whole, with every
// change that returned true and, of the one under way, all or nothing; a
// change refused for want of room leaves the tree as it was; the journal is
// written again when whole and dropped when not; and one opener at a time.

#include "core/byteorder.h"
#include "persistent/bplustree.h"
#include "persistent/bplustreecheck.h"
#include "persistent/journal.h"

#include "persistenttest.h"
#include "treerecord.h"
#include "treewriter.h"

#include <QFile>
#include <QProcess>
#include <QTextStream>
#include <QThread>

#include <csignal>
#include <cstdlib>
#include <map>
#include <random>

#include <sys/resource.h>

using namespace Brevi;
using PersistentTest::RecordKey;

namespace {

typedef std::map<quint32, TreeWriter::Entry> Model;

// The change the writer announced and had not confirmed when it was killed.
struct Pending {
    char operation = 0;
    quint32 id = 0;
    unsigned size = 0;
    quint32 version = 0;
};

class BPlusTreeCrashTest : public PersistentTest::Fixture
{
protected:
    BPlusTreeReport check(const QString& file)
    {
        BPlusTreeReport report;
        BPlusTreeCheck::checkTreeFile(file, report);
        return report;
    }

    void writeModel(const QString& file, const Model& model)
    {
        QFile out(file);
        ASSERT_TRUE(out.open(QIODevice::WriteOnly | QIODevice::Truncate));
        QTextStream text(&out);
        for (const auto& item : model)
            text << item.first << ' ' << item.second.sequence << ' ' << item.second.size << ' ' << item.second.version
                 << '\n';
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
                model[pending.id] = TreeWriter::Entry{words[1].toUInt(), pending.size, 0};
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
        const quint32 hash = TreeWriter::hashOf(pending.id);
        RecordKey key(hash, pending.id, 0);
        const bool found = tree.find(key);
        switch (pending.operation) {
        case 'I':
            if (found)
                model[pending.id] = TreeWriter::Entry{key.hash().sequence(), pending.size, 0};
            break;
        case 'R':
            if (!found)
                model.erase(pending.id);
            break;
        case 'U': {
            const TreeWriter::Entry entry = model[pending.id];
            if (found && key.moLoaded == RecordKey::content(pending.id, pending.version, entry.size))
                model[pending.id].version = pending.version;
            break;
        }
        }
    }

    // Every record of the model is in the tree, at its place, with its bytes.
    static ::testing::AssertionResult holds(BPlusTree& tree, const Model& model)
    {
        for (const auto& item : model) {
            const quint32 hash = TreeWriter::hashOf(item.first);
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

::testing::AssertionResult sound(const BPlusTreeReport& report)
{
    if (report.sound())
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << report.problems.join("\n").toStdString();
}

unsigned rounds()
{
    const char* longTests = std::getenv("BREVI_LONG_TESTS");
    return longTests && *longTests ? 2000 : 200;
}

} // namespace

TEST_F(BPlusTreeCrashTest, KilledWriterLosesNothingItWasToldWasDone)
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
    const unsigned total = rounds();
    for (unsigned round = 0; round < total; ++round) {
        writeModel(path("model"), model);
        QStringList arguments{file, QString::number(round + 1), path("model")};
        // One round in four waits for the disk at every commit, and so keeps
        // many transactions in the journal.
        if (round % 4 == 3)
            arguments << "sync";
        QProcess writer;
        writer.start(TREE_WRITER, arguments);
        ASSERT_TRUE(writer.waitForStarted(10000));
        // Now and then the kill comes while the writer is still opening the
        // tree, and so may stop a replay half way.
        if (round % 10 == 9) {
            QThread::msleep(random() % 20);
        } else {
            ASSERT_TRUE(writer.waitForReadyRead(10000)) << "round " << round;
            QThread::msleep(random() % 40);
        }
        writer.kill();
        ASSERT_TRUE(writer.waitForFinished(10000));
        ASSERT_EQ(writer.exitStatus(), QProcess::CrashExit)
            << "the writer stopped by itself with " << writer.exitCode() << " in round " << round;

        Pending pending;
        readOutput(writer.readAllStandardOutput(), model, pending, confirmed);
        // Read as the next open will find it, before that open.
        const BPlusTreeReport before = check(file);
        ASSERT_TRUE(sound(before)) << "round " << round;
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
        ASSERT_EQ(before.recordCount, after.recordCount) << "round " << round;
    }
    EXPECT_GT(confirmed, 20 * total) << "the writer should get real work done between kills";
    EXPECT_GT(settled, total / 2) << "most kills should land inside a change";
    RecordProperty("confirmed", int(confirmed));
}

TEST_F(BPlusTreeCrashTest, AnInsertThatCannotGrowTheFileChangesNothing)
{
    const QString file = path("full.tree");
    BPlusTree tree(64);
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
    for (;; ++id) {
        ASSERT_LT(id, 100000u) << "the file should have filled up";
        // The bytes before each insert, once the free list runs short.
        const QByteArray freeCount = fileBytes(file + ".free", 0, 8);
        if (freeCount.size() == 8 && ByteOrder::load64(freeCount.constData()) < 16) {
            treeBefore = fileBytes(file);
            freeBefore = fileBytes(file + ".free");
        }
        RecordKey key(TreeWriter::hashOf(id), id, 60);
        if (!tree.insert(key)) {
            EXPECT_EQ(tree.lastError(), BPlusTree::eFileError);
            EXPECT_EQ(key.hash().sequence(), 0u) << "a key not placed keeps its KeyHash";
            break;
        }
        model[id] = TreeWriter::Entry{key.hash().sequence(), 60, 0};
    }
    EXPECT_FALSE(treeBefore.isEmpty());
    EXPECT_EQ(fileBytes(file), treeBefore);
    EXPECT_EQ(fileBytes(file + ".free"), freeBefore);
    EXPECT_TRUE(holds(tree, model));

    // The tree in memory is the tree before, too: it goes on working, and
    // takes the record once removals have made room.
    RecordKey refused(TreeWriter::hashOf(id), id, 60);
    EXPECT_FALSE(tree.insert(refused));
    for (quint32 gone = 0; gone < 200; ++gone) {
        RecordKey key(TreeWriter::hashOf(gone), gone, 60);
        key.setHash(KeyHash(TreeWriter::hashOf(gone), model[gone].sequence));
        ASSERT_TRUE(tree.remove(key)) << gone;
        model.erase(gone);
    }
    ASSERT_TRUE(tree.insert(refused));
    model[id] = TreeWriter::Entry{refused.hash().sequence(), 60, 0};

    // With no room for the journal, every change is refused, and undone
    // after it was made in memory.
    const QByteArray treeFull = fileBytes(file);
    limit.rlim_cur = 16;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    RecordKey unplaced(TreeWriter::hashOf(id + 1), id + 1, 60);
    EXPECT_FALSE(tree.insert(unplaced));
    RecordKey kept(TreeWriter::hashOf(id), id, 60);
    kept.setHash(refused.hash());
    EXPECT_FALSE(tree.remove(kept));
    EXPECT_EQ(fileBytes(file), treeFull);

    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &saved), 0);
    for (quint32 more = id + 1; more < id + 100; ++more) {
        RecordKey key(TreeWriter::hashOf(more), more, 60);
        ASSERT_TRUE(tree.insert(key));
        model[more] = TreeWriter::Entry{key.hash().sequence(), 60, 0};
    }
    EXPECT_TRUE(holds(tree, model));
    ASSERT_TRUE(tree.close());
    const BPlusTreeReport report = check(file);
    EXPECT_TRUE(sound(report));
    EXPECT_EQ(report.recordCount, model.size());
}

TEST_F(BPlusTreeCrashTest, TheJournalIsWrittenAgainWhenWholeAndDroppedWhenNot)
{
    const QString file = path("journal.tree");
    BPlusTree tree;
    ASSERT_TRUE(tree.create(file, 256));
    for (quint32 id = 0; id < 300; ++id) {
        RecordKey key(TreeWriter::hashOf(id), id, 20);
        ASSERT_TRUE(tree.insert(key));
    }
    // The files before one more insert, and the journal it leaves: as if the
    // process had stopped after committing it and before writing it through.
    const QByteArray treeBefore = fileBytes(file);
    const QByteArray freeBefore = fileBytes(file + ".free");
    RecordKey last(TreeWriter::hashOf(300), 300, 20);
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

    // Whole: the check already sees the insert, and the open writes it.
    restore(journal);
    BPlusTreeReport report = check(file);
    EXPECT_TRUE(sound(report));
    EXPECT_EQ(report.recordCount, 301u);
    ASSERT_TRUE(tree.open(file));
    EXPECT_TRUE(tree.find(last));
    ASSERT_TRUE(tree.close());
    EXPECT_EQ(fileBytes(file), treeAfter);
    std::vector<JournalRecord> records;
    EXPECT_EQ(Journal::read(file, records), 0u) << "emptied once written";

    // Cut short, or with one byte changed: dropped, and the tree is as before.
    // (What follows the transaction in the file is left from longer ones.)
    const int length = int(ByteOrder::load64(journal.constData() + JournalLayout::HeaderLengthOffset));
    ASSERT_LE(length, journal.size());
    QByteArray damaged = journal.left(length);
    damaged[length / 2] = char(damaged[length / 2] ^ 0x40);
    for (const QByteArray& bad : {journal.left(length - 1), damaged}) {
        restore(bad);
        report = check(file);
        EXPECT_TRUE(sound(report));
        EXPECT_EQ(report.recordCount, 300u);
        ASSERT_TRUE(tree.open(file));
        EXPECT_FALSE(tree.find(last));
        ASSERT_TRUE(tree.close());
        EXPECT_EQ(fileBytes(file), treeBefore);
    }
    EXPECT_EQ(JournalLayout::checksum("123456789", 9), 0xe3069283u) << "CRC-32C";
}

TEST_F(BPlusTreeCrashTest, ASecondOpenerIsRefusedInThisProcessOrAnother)
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
    EXPECT_EQ(QProcess::execute(TREE_WRITER, {file}), 2);

    ASSERT_TRUE(first.close());
    ASSERT_TRUE(second.open(file));
    EXPECT_TRUE(second.find(key));
    EXPECT_EQ(QProcess::execute(TREE_WRITER, {file}), 2);
    ASSERT_TRUE(second.close());
    EXPECT_EQ(QProcess::execute(TREE_WRITER, {file}), 0);
}
