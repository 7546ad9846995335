// Sending log messages inside one process: each context's Log, where a
// message may go and where it may not, a thread that logs through the context
// it is connected to, and the names of files that go with a message.

#include "core/context.h"
#include "core/datasize.h"
#include "core/fixedpath.h"
#include "core/machinename.h"
#include "logging/html.h"
#include "logging/log.h"
#include "logging/logline.h"
#include "logging/plaintext.h"
#include "messaging/messaging.h"
#include "messaging/msg.h"
#include "messaging/msgcatalogue.h"
#include "messaging/threadcomms.h"

#include "logtrace.h"
#include "testhome.h"

#include <QDate>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTime>

#include <gtest/gtest.h>

#include <thread>

using namespace Brevi;
using BreviTest::LogLines;
using BreviTest::TestHome;

namespace Brevi {
// Reaches the name a Log gives a file that goes with its message.
struct LogFileNameProbe {
    static QString fileName(const Log& log, const QString& extension) { return log.getFileName(extension); }
};
} // namespace Brevi

namespace {

namespace Key = Catalogue::LogKey;
const QString WriteLog = Catalogue::LogDaemonLocalWriteLog::Message;

QString value(const XmlList& body, const QString& key)
{
    QString text;
    return body.get(text, key) ? text : QStringLiteral("<missing>");
}

// Runs `body` in a context of `type` on the calling thread, with module LOG
// and messaging traced in full.
bool runIn(Context::Type type, void (*body)())
{
    static thread_local void (*current)() = nullptr;
    current = body;
    return Context::run(
        [] {
            Trace::setLevel(TraceDebug, TraceModuleLog);
            Trace::setLevel(TraceDebug, TraceModuleMsg);
            current();
        },
        type, 0, "Log Sender");
}

// The next message of the thread's context, waiting up to 5 s.
Msg nextMessage() { return Msg::receive(5); }

} // namespace

TEST(LogSend, EveryContextHasALogOfItsOwn)
{
    TestHome home;
    EXPECT_EQ(Context::logging(), nullptr) << "a thread without a context has none";
    static Log* mainLog = nullptr;
    static Log* threadLog = nullptr;
    ASSERT_TRUE(runIn(Context::Type(7), [] {
        mainLog = Context::logging();
        ASSERT_NE(mainLog, nullptr);
        std::thread worker([] {
            runIn(Context::Type(7), [] { threadLog = Context::logging(); });
            EXPECT_EQ(Context::logging(), nullptr) << "gone with its context";
        });
        worker.join();
        EXPECT_NE(threadLog, nullptr);
        EXPECT_NE(threadLog, mainLog) << "another context, another Log";
        EXPECT_EQ(Context::logging(), mainLog);
    }));
    EXPECT_EQ(Context::logging(), nullptr);
}

// A message that cannot go stays as it was, so the refusals can be told
// apart, and nothing is sent.
TEST(LogSend, NoMessagingNoAddressOrNoFormatSendNothing)
{
    TestHome home;
    ASSERT_TRUE(runIn(Context::Type(7), [] {
        LogLines lines;
        Log& log = *Context::logging();
        log.initialiseMessage("Nowhere", Log::eLogError) << "Lost %1s"
                                                         << "x";
        log.sendMessage();
        EXPECT_EQ(lines.with("No messaging").size(), 1) << lines.all().join('\n').toStdString();
        EXPECT_EQ(value(log.body(), "%1s"), "x");
    }));
    ASSERT_TRUE(runIn(Context::TypeStandalone, [] {
        LogLines lines;
        EXPECT_FALSE(Context::messaging()->loggingAddress()) << "a standalone context has none of its own";
        Log& log = *Context::logging();
        log.initialiseMessage("Nowhere", Log::eLogError) << "Lost %1s"
                                                         << "x";
        log.sendMessage();
        EXPECT_EQ(lines.with("No logging address").size(), 1) << lines.all().join('\n').toStdString();
        EXPECT_EQ(value(log.body(), Key::Arg), "Lost %1s");
        EXPECT_EQ(log.counter(), 2u);

        // With an address, a message without a format still does not go.
        Context::messaging()->setLoggingAddress(Context::address());
        log.initialiseMessage("Empty", Log::eLogError);
        log.sendMessage();
        log.initialiseMessage("Empty", Log::eLogError) << "";
        log.sendMessage();
        EXPECT_EQ(lines.with("Log: malformed log message not sent").size(), 2);
        const Msg none = Msg::receive(0);
        EXPECT_FALSE(none) << "nothing was sent, got " << none.name().toStdString();
    }));
}

// With its own address as the logging address a context gets its messages
// back, which shows exactly what the log daemon would get.
TEST(LogSend, AMessageArrivesWithItsWholeBodyAndTheLogStartsAfresh)
{
    TestHome home;
    ASSERT_TRUE(runIn(Context::TypeStandalone, [] {
        Context::messaging()->setLoggingAddress(Context::address());
        Log& log = *Context::logging();
        Log::TagList tags;
        Log::addTagToList(tags, "Job", "7");
        log.initialiseMessage("Backup", Log::eLogWarning, tags)
            << "%1s %2i %3l %4b %5d %6t %7m %8h %9p %10c"
            << "name\"q" << 12 << 1234567890123LL << false << QDate(2023, 12, 31) << QTime(23, 59, 58)
            << MachineName("alpha@99") << Html("<p>h</p>") << PlainText("p1\np2")
            << DataSize(2048, DataSize::PrefixAuto);
        log.sendMessage();
        EXPECT_TRUE(log.body().isEmpty());
        EXPECT_EQ(log.counter(), 0u);

        const Msg message = nextMessage();
        ASSERT_TRUE(message) << int(message.lastError());
        EXPECT_EQ(message.name(), WriteLog);
        const XmlList& body = message.body();
        EXPECT_EQ(value(body, Key::Category), "Backup");
        EXPECT_EQ(message.getUint32(Key::Level), unsigned(Log::eLogWarning));
        EXPECT_EQ(value(body, Key::BuildNumber), "002.02.11698 RC0610");
        EXPECT_EQ(value(body, "LogTagJob"), "7");
        EXPECT_EQ(value(body, Key::Arg), "%1s %2i %3l %4b %5d %6t %7m %8h %9p %10c");
        EXPECT_EQ(value(body, "%1s"), "name'q");
        EXPECT_EQ(value(body, "%2i"), "12");
        EXPECT_EQ(value(body, "%3l"), "1234567890123");
        EXPECT_EQ(value(body, "%4b"), "false");
        EXPECT_EQ(value(body, "%5d"), "2023-12-31");
        EXPECT_EQ(value(body, "%6t"), "23:59:58");
        EXPECT_EQ(value(body, "%7m"), "alpha");
        EXPECT_EQ(value(body, "%8h"), "<p>h</p>");
        EXPECT_EQ(value(body, "%9p"), "p1\np2");
        EXPECT_EQ(message.getUint64(Key::DataSize), 2048u);
        EXPECT_EQ(message.getInt32(Key::DataSizePrfix), int(DataSize::PrefixAuto));

        // The next message is built on a fresh body: the one sent is not
        // touched by it.
        log << "Second %1s"
            << "two";
        log.sendMessage();
        EXPECT_EQ(value(body, "%1s"), "name'q");
        const Msg second = nextMessage();
        ASSERT_TRUE(second);
        EXPECT_EQ(value(second.body(), Key::Arg), "Second %1s");
        EXPECT_EQ(value(second.body(), Key::Category), "<missing>") << "no initialiseMessage, no category";
    }));
}

TEST(LogSend, ALogLineSendsAtTheEndOfItsStatement)
{
    TestHome home;
    {
        // Without a context it does nothing, and does not crash.
        BREVI_LOG("Nowhere", Log::eLogError) << "%1s"
                                             << "x";
    }
    ASSERT_TRUE(runIn(Context::TypeStandalone, [] {
        Context::messaging()->setLoggingAddress(Context::address());
        Context::logging()->initialiseMessage("Old", Log::eLogDebug) << "dropped %1s";
        BREVI_LOG("Disks", Log::eLogCritical) << "Disk %1s has %2l bytes left"
                                              << "sda" << 17LL;
        const Msg message = nextMessage();
        ASSERT_TRUE(message);
        EXPECT_EQ(value(message.body(), Key::Category), "Disks");
        EXPECT_EQ(value(message.body(), "%1s"), "sda");
        EXPECT_EQ(value(message.body(), "%2l"), "17");
        EXPECT_FALSE(Msg::receive(0)) << "one statement, one message";
    }));
}

// A thread has no link of its own: its log messages go to the context it is
// connected to, which passes them on to its own logging address. Here the
// parent's logging address is the parent itself, so that the test can read
// what it passed on.
TEST(LogProxy, AThreadLogsThroughTheContextItIsConnectedTo)
{
    TestHome home;
    static ThreadComms* link = nullptr;
    ASSERT_TRUE(runIn(Context::TypeStandalone, [] {
        Context::messaging()->setLoggingAddress(Context::address());
        ThreadComms comms("logger");
        link = &comms;
        std::thread worker([] {
            runIn(Context::TypeStandalone, [] {
                ThreadComms comms = *link;
                ASSERT_TRUE(comms.connect(Log::eProxy));
                LogLines lines;
                EXPECT_FALSE(Context::messaging()->loggingAddress())
                    << "a standalone parent is not made a log proxy by connecting";
                BREVI_LOG("Thread", Log::eLogInformation) << "Not sent %1s"
                                                          << "a";
                EXPECT_EQ(lines.with("No logging address").size(), 1);

                Context::messaging()->setLoggingAddress(comms.address());
                BREVI_LOG("Thread", Log::eLogInformation) << "Worker %1s counted %2i on %3d"
                                                          << "w1" << 3 << QDate(2022, 6, 1);
                comms.send("WorkerDonePost");
                Msg::wait("ParentDonePost", 10);
                comms.disconnect();
            });
        });
        ASSERT_TRUE(Msg::wait(Catalogue::MsgConnectedPost::Message, 10));

        // The worker's log message, passed on to this context, and the
        // worker's post, in whichever order they come.
        const TracePosition start(true);
        Msg passedOn;
        MsgAddress workerAddress;
        for (int i = 0; i < 4 && (!passedOn || !workerAddress); ++i) {
            const Msg message = nextMessage();
            if (message.name() == WriteLog)
                passedOn = message;
            else if (message.name() == "WorkerDonePost")
                workerAddress = message.source();
        }
        ASSERT_TRUE(workerAddress);
        ASSERT_TRUE(passedOn);
        EXPECT_EQ(passedOn.source(), Context::address()) << "passed on in the proxy's name";
        EXPECT_EQ(value(passedOn.body(), Key::Category), "Thread");
        EXPECT_EQ(value(passedOn.body(), "%1s"), "w1");
        EXPECT_EQ(value(passedOn.body(), "%2i"), "3");
        EXPECT_EQ(value(passedOn.body(), "%3d"), "2022-06-01");
        EXPECT_EQ(BreviTest::tracedSince(start, TraceModuleMsg).filter("#### Proxy a log message ####").size(), 1);
        EXPECT_FALSE(Msg::receive(0)) << "the worker's first message never went";

        Msg done(workerAddress, "ParentDonePost");
        done.send();
        worker.join();
    }));
}

TEST(LogFiles, AFileThatGoesWithAMessageIsNamedByMachineAndTimeAndNeverReused)
{
    TestHome home;
    ASSERT_TRUE(runIn(Context::TypeStandalone, [] {
        const Log& log = *Context::logging();
        const QString directory = FixedPath::runtime() + "/logdaemon";
        const QRegularExpression form("^" + QRegularExpression::escape(directory) + "/_(\\d+)(_\\d+)?\\.txt$");
        const unsigned long long before = Context::systemTime();
        const QString first = LogFileNameProbe::fileName(log, "txt");
        const QRegularExpressionMatch match = form.match(first);
        ASSERT_TRUE(match.hasMatch()) << first.toStdString();
        EXPECT_GE(match.captured(1).toULongLong(), before);
        EXPECT_LE(match.captured(1).toULongLong(), Context::systemTime());
        EXPECT_FALSE(QFileInfo::exists(directory)) << "naming makes no file";

        // Two names in the same millisecond: the second gets "_1", the third
        // "_2". Tried until the clock obliges.
        ASSERT_TRUE(QDir().mkpath(directory));
        bool sameMillisecond = false;
        for (int attempt = 0; attempt < 1000 && !sameMillisecond; ++attempt) {
            const QString a = LogFileNameProbe::fileName(log, "xml");
            QFile(a).open(QIODevice::WriteOnly);
            const QString b = LogFileNameProbe::fileName(log, "xml");
            QFile(b).open(QIODevice::WriteOnly);
            const QString c = LogFileNameProbe::fileName(log, "xml");
            const QString stem = a.left(a.size() - 4);
            if (!b.startsWith(stem) || !c.startsWith(stem))
                continue;
            sameMillisecond = true;
            EXPECT_EQ(b, stem + "_1.xml");
            EXPECT_EQ(c, stem + "_2.xml");
        }
        EXPECT_TRUE(sameMillisecond) << "no two names in one millisecond in 1000 tries";
    }));
}
