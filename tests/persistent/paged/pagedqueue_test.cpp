// The paged queue against an in-memory model, between two threads, and on
// damaged files.

#include "core/byteorder.h"
#include "messaging/msg.h"
#include "persistent/pagedqueue.h"
#include "persistent/spoolcheck.h"

#include "persistenttest.h"
#include "testhome.h"

#include <QDir>
#include <QFile>
#include <QVector>

#include <boost/make_shared.hpp>

#include <chrono>
#include <memory>
#include <random>
#include <thread>

using namespace Brevi;

namespace {

class PagedQueueTest : public PersistentTest::Fixture
{
protected:
    QStringList queueFiles() const { return QDir(moDir.path()).entryList({"queue.*"}, QDir::Files, QDir::Name); }

    ::testing::AssertionResult sound(const QString& queue, quint64 records)
    {
        SpoolReport report;
        if (!SpoolCheck::check(queue, report))
            return ::testing::AssertionFailure() << report.problems.join("\n").toStdString();
        if (report.records != records)
            return ::testing::AssertionFailure() << report.records << " records on disk, not " << records;
        return ::testing::AssertionSuccess();
    }
};

QByteArray randomRecord(std::mt19937& random, unsigned largest)
{
    QByteArray bytes(int(1 + random() % largest), 0);
    for (char& c : bytes)
        c = char(random());
    return bytes;
}

} // namespace

// Random sends, receives, releases, give-backs and reopens. What has been
// sent and not released is what the queue holds; a record held when the
// queue is reopened comes again.
TEST_F(PagedQueueTest, FollowsTheModelThroughReceivesReleasesAndReopens)
{
    const QString queue = path("queue");
    std::mt19937 random(31);
    QVector<QByteArray> pending;
    bool held = false;
    auto open = [&] { return std::unique_ptr<PagedQueue>(new PagedQueue(queue, 2048)); };
    std::unique_ptr<PagedQueue> q = open();
    ASSERT_TRUE(*q);
    for (int step = 0; step < 4000; ++step) {
        const unsigned op = random() % 20;
        Extent data;
        if (op < 7) {
            const QByteArray record = randomRecord(random, 700);
            ASSERT_EQ(q->send(Extent(record)), PagedQueue::eOk) << "step " << step;
            pending.append(record);
        } else if (op < 12) {
            const PagedQueue::Result result = q->receive(data);
            if (held) {
                ASSERT_EQ(result, PagedQueue::eInvalidRequest) << "step " << step;
            } else if (pending.isEmpty()) {
                ASSERT_EQ(result, PagedQueue::eEndOfData) << "step " << step;
            } else {
                ASSERT_EQ(result, PagedQueue::eOk) << "step " << step;
                ASSERT_EQ(data.toQByteArray(), pending.first()) << "step " << step;
                held = true;
            }
        } else if (op < 16) {
            ASSERT_EQ(q->release(), held ? PagedQueue::eOk : PagedQueue::eInvalidRequest) << "step " << step;
            if (held)
                pending.removeFirst();
            held = false;
        } else if (op < 18) {
            ASSERT_EQ(q->relinquish(), held ? PagedQueue::eOk : PagedQueue::eInvalidRequest) << "step " << step;
            held = false;
        } else if (op == 18) {
            quint64 count = 0;
            ASSERT_EQ(q->available(count), pending.isEmpty() ? PagedQueue::eEndOfData : PagedQueue::eOk);
            ASSERT_EQ(count, quint64(pending.size())) << "step " << step;
        } else {
            q.reset();
            ASSERT_TRUE(sound(queue, quint64(pending.size()))) << "step " << step;
            q = open();
            ASSERT_TRUE(*q) << "step " << step;
            held = false;
        }
    }
    Extent data;
    while (!pending.isEmpty()) {
        if (!held) {
            ASSERT_EQ(q->receive(data), PagedQueue::eOk);
            ASSERT_EQ(data.toQByteArray(), pending.first());
        }
        ASSERT_EQ(q->release(), PagedQueue::eOk);
        pending.removeFirst();
        held = false;
    }
    EXPECT_EQ(q->receive(data), PagedQueue::eEndOfData);
    q.reset();
    EXPECT_TRUE(sound(queue, 0));
    EXPECT_EQ(queueFiles().size(), 2) << "the reader removed every file it finished: "
                                      << queueFiles().join(' ').toStdString();
    PagedQueue::discard(queue);
    EXPECT_TRUE(queueFiles().isEmpty());
}

// A sender thread and a receiver thread that waits with a poll interval: every
// record comes, in order, across many files.
TEST_F(PagedQueueTest, HandsRecordsOverBetweenThreadsInOrder)
{
    PagedQueue queue(path("queue"), 4096, 50);
    ASSERT_TRUE(queue);
    const int total = 20000;
    std::thread sender([&queue] {
        std::mt19937 random(41);
        for (quint32 i = 0; i < total; ++i) {
            QByteArray record = randomRecord(random, 300);
            record.prepend(reinterpret_cast<const char*>(&i), 4);
            ASSERT_EQ(queue.send(Extent(record)), PagedQueue::eOk);
        }
    });
    int received = 0;
    int waits = 0;
    while (received < total && waits < 100) {
        Extent data;
        const PagedQueue::Result result = queue.receive(data);
        if (result == PagedQueue::eTryAgain) {
            ++waits;
            continue;
        }
        ASSERT_EQ(result, PagedQueue::eOk);
        ASSERT_EQ(ByteOrder::load32(data.data()), quint32(received));
        ASSERT_EQ(queue.release(), PagedQueue::eOk);
        ++received;
    }
    sender.join();
    EXPECT_EQ(received, total);
    EXPECT_LE(queueFiles().size(), 3);
}

// Damage to the files: a queue whose state cannot be trusted does not open;
// a damaged record stops the receiver with eReceiveError after every record
// before it, and the queue is dead from then on. Nothing is skipped.
TEST_F(PagedQueueTest, DamagedFilesRefuseOrStopTheReceiverAtTheDamage)
{
    struct Case {
        const char* name;
        quint64 file; // 0 for the state file
        qint64 size;  // what the file is cut to; -1 kept as it is, -2 removed
        qint64 offset;
        QByteArray bytes;
        bool opens;
        const char* traced;
    };
    const Case cases[] = {
        {"a truncated state file", 0, 30, 0, {}, false, "Failed to read file states"},
        {"a write state past the end of its file", 3, 10, 0, {}, false, "Failed to position write file"},
        {"a read state ahead of the write state", 0, -1, SpoolLayout::ReadStateOffset, QByteArray("\x09\0\0\0", 4),
         false, "Failed to read file states"},
        {"a data file missing from the middle", 2, -2, 0, {}, true, "Failed to open next file"},
        {"a record length beyond the file", 2, -1, 8, QByteArray("\xff\xff\0\0", 4), true, "byte record"},
        {"a record of 0 bytes", 2, -1, 8, QByteArray(4, 0), true, "Invalid zero length record"},
        {"a header length that is no header's", 2, -1, 0, QByteArray("\x40\0\0\0", 4), true,
         "Failed to read record header"},
    };
    for (const Case& c : cases) {
        // Records of 1000 bytes, three to a file, in three files.
        const QString queue = path(c.name);
        {
            PagedQueue writer(queue, 3000);
            for (quint32 i = 0; i < 8; ++i)
                ASSERT_EQ(writer.send(QByteArray(1000, char('a' + i)).constData(), 1000), PagedQueue::eOk);
        }
        const QString file = c.file ? SpoolLayout::dataPath(queue, c.file) : SpoolLayout::statePath(queue);
        ASSERT_TRUE(QFile::exists(file)) << c.name;
        if (c.size == -2)
            QFile::remove(file);
        else if (c.size >= 0)
            QFile(file).resize(c.size);
        if (!c.bytes.isEmpty())
            patch(file, c.offset, c.bytes);
        newLines();
        PagedQueue reader(queue, 3000);
        ASSERT_EQ(bool(reader), c.opens) << c.name;
        if (c.opens) {
            Extent data;
            for (int i = 0; i < 3; ++i) {
                ASSERT_EQ(reader.receive(data), PagedQueue::eOk) << c.name;
                EXPECT_EQ(data.toQByteArray(), QByteArray(1000, char('a' + i))) << c.name;
                ASSERT_EQ(reader.release(), PagedQueue::eOk) << c.name;
            }
            EXPECT_EQ(reader.receive(data), PagedQueue::eReceiveError) << c.name;
            EXPECT_FALSE(reader) << c.name;
            EXPECT_EQ(reader.receive(data), PagedQueue::eDown) << c.name;
        }
        EXPECT_TRUE(traced(c.traced)) << c.name;
    }
}

// A new queue, the waits of receive() and receivePolled(): the latter handles
// the thread's messages whenever the poll interval runs out and waits on,
// until a record comes or a handler ends the loop.
TEST(PagedQueueWaits, ReceivePolledHandlesMessagesUntilARecordComesOrAHandlerStopsIt)
{
    BreviTest::inContext(
        [] {
            Extent data;
            EXPECT_EQ(PagedQueue().send(data), PagedQueue::eDown);
            QTemporaryDir directory;
            PagedQueue queue(directory.path() + "/queue", 4096, 20);
            quint64 count = 99;
            EXPECT_EQ(queue.available(count), PagedQueue::eEndOfData);
            EXPECT_EQ(count, 0u);
            EXPECT_EQ(queue.receive(data), PagedQueue::eTryAgain) << "without receiver(): the wait ran out";
            ASSERT_EQ(queue.receiver(), PagedQueue::eOk);
            EXPECT_EQ(queue.receiver(), PagedQueue::eInvalidRequest);
            EXPECT_EQ(queue.receive(data), PagedQueue::eMessagePending);

            static int handled = 0;
            Msg::addHandler("KeepPost", boost::make_shared<MsgHandlerFunction>([](const Msg&) {
                                ++handled;
                                return eMsgResultHandled;
                            }));
            Msg::addHandler("StopPost",
                            boost::make_shared<MsgHandlerFunction>([](const Msg&) { return eMsgResultExit; }));
            ASSERT_TRUE(Msg(Context::address(), "KeepPost").send());
            std::thread sender([&queue] {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
                queue.send("late", 4);
            });
            EXPECT_EQ(queue.receivePolled(data), PagedQueue::eOk);
            sender.join();
            EXPECT_EQ(data.toQByteArray(), QByteArray("late"));
            EXPECT_EQ(handled, 1);
            PagedQueue copy(queue);
            ASSERT_EQ(copy.release(), PagedQueue::eOk) << "a copy is the same queue";
            EXPECT_EQ(queue.release(), PagedQueue::eInvalidRequest);
            ASSERT_TRUE(Msg(Context::address(), "StopPost").send());
            EXPECT_EQ(queue.receivePolled(data), PagedQueue::eMessagePending);
            EXPECT_EQ(queue.pollResult(), eMsgResultExit);
        },
        Context::TypeStandalone);
}
