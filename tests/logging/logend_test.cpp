// Log messages end to end: a process attached to the real Hub logs, from its
// main context and from a thread that logs through it, and the real log
// daemon stores the text with every parameter put in. Without a log daemon the
// messages come back undeliverable and the process goes on unhindered.

#include "core/context.h"
#include "core/datasize.h"
#include "core/machinename.h"
#include "logging/html.h"
#include "logging/log.h"
#include "logging/logline.h"
#include "logging/plaintext.h"
#include "messaging/messaging.h"
#include "messaging/msg.h"
#include "messaging/msgcatalogue.h"
#include "messaging/threadcomms.h"

#include "hubtest.h"
#include "logrecord.h"

#include <QDate>
#include <QElapsedTimer>
#include <QFile>
#include <QThread>
#include <QTime>

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <thread>

using namespace Brevi;

namespace {

class LogEndToEnd : public HubTest::HubFixture
{
protected:
    void SetUp() override
    {
        startHub();
        ::setenv("BREVI_HUB_PORT", QByteArray::number(port()).constData(), 1);
    }
    void TearDown() override
    {
        HubFixture::TearDown();
        if (mpDaemon) {
            // The Hub's shutdown ends the daemon.
            int status = 0;
            EXPECT_TRUE(mpDaemon->waitExit(10000, &status)) << "the daemon outlived the Hub";
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
        }
    }

    QString storePath() const { return moHome.path() + "/runtime/log/logdaemon.log"; }

    // The records of the store, once at least `count` are there or 20 s
    // have passed.
    QList<LogRecord> records(int count) const
    {
        QList<LogRecord> result;
        QElapsedTimer timer;
        timer.start();
        do {
            result.clear();
            QFile file(storePath());
            if (file.open(QIODevice::ReadOnly))
                for (const QByteArray& line : file.readAll().split('\n')) {
                    LogRecord record;
                    if (LogRecord::fromLine(QString::fromUtf8(line), record))
                        result << record;
                }
            if (result.size() >= count)
                break;
            QThread::msleep(50);
        } while (timer.elapsed() < 20000);
        return result;
    }

    // Starts the daemon and waits until it has stored its own start, which
    // has gone through the Hub to its well-known address and back.
    void startDaemon()
    {
        mpDaemon.reset(new HubTest::ChildProcess(LOGDAEMON_PATH, {}));
        const QList<LogRecord> first = records(1);
        ASSERT_EQ(first.size(), 1) << "the log daemon did not come up";
        EXPECT_EQ(first.first().text, "Log Daemon has started");
        EXPECT_EQ(first.first().category, "LogDaemon");
        EXPECT_EQ(first.first().level, unsigned(Log::eLogInformation));
    }

    std::unique_ptr<HubTest::ChildProcess> mpDaemon;
};

const unsigned Attached = Context::FlagAttachOnce;

// Serves the context's messages for `ms` milliseconds, so that what threads
// hand it for the log daemon is passed on.
void serve(int ms) { Msg::wait(ms / 1000 > 0 ? ms / 1000 : 1); }

} // namespace

TEST_F(LogEndToEnd, EveryParameterReachesTheLogDaemonAndIsPutInItsPlace)
{
    startDaemon();
    const bool ran = Context::run(
        [] {
            ASSERT_TRUE(Context::messaging()->loggingAddress()) << "an attached context logs to the daemon";
            EXPECT_EQ(Context::messaging()->loggingAddress().id(), unsigned(eWellKnownLogDaemon));
            Context::logging()->initialiseStateLogging("Tests", "Log Sender", Log::eProcessStarted).sendMessage();
            BREVI_LOG("Tests", Log::eLogWarning)
                << "s=%1s i=%2i l=%3l b=%4b d=%5d t=%6t m=%7m h=%8h p=%9p c=%10c"
                << "a \"quoted\" word" << -3 << 9876543210LL << true << QDate(2024, 2, 29) << QTime(1, 2, 3)
                << MachineName("far@beef") << Html("<b>bold</b>") << PlainText("two\nlines")
                << DataSize(4096, DataSize::PrefixBytes);
            Msg::flush();
        },
        Context::TypeAttached, Attached, "Log Sender");
    ASSERT_TRUE(ran) << "the process did not attach";

    const QList<LogRecord> stored = records(3);
    ASSERT_EQ(stored.size(), 3);
    EXPECT_EQ(stored.at(1).text, "Log Sender has started");
    const LogRecord& line = stored.at(2);
    EXPECT_EQ(line.text, "s=a 'quoted' word i=-3 l=9876543210 b=true d=2024-02-29 t=01:02:03 m=far h=<b>bold</b> "
                         "p=two\nlines c=4,096 B");
    EXPECT_EQ(line.category, "Tests");
    EXPECT_EQ(line.level, unsigned(Log::eLogWarning));
    EXPECT_TRUE(line.source.startsWith("1/")) << "an attached sender: " << line.source.toStdString();
    EXPECT_TRUE(line.source.endsWith("/" + HubTest::machine())) << line.source.toStdString();
}

TEST_F(LogEndToEnd, AThreadLogsThroughItsProcesssAttachedContext)
{
    startDaemon();
    static ThreadComms* link = nullptr;
    const bool ran = Context::run(
        [] {
            ThreadComms comms("worker");
            link = &comms;
            std::thread worker([] {
                Context::run(
                    [] {
                        ThreadComms comms = *link;
                        ASSERT_TRUE(comms.connect(Log::eProxy));
                        EXPECT_EQ(Context::messaging()->loggingAddress(), comms.address())
                            << "the attached context is the thread's log proxy";
                        BREVI_LOG("Threads", Log::eLogError) << "Worker %1s found %2i"
                                                             << "w7" << 11;
                        comms.send("WorkerLoggedPost");
                        Msg::wait("ParentDonePost", 20);
                        comms.disconnect();
                    },
                    Context::TypeStandalone, 0, "Log Worker");
            });
            const Msg logged = Msg::wait("WorkerLoggedPost", 20);
            EXPECT_TRUE(logged);
            // The log message came before the post, and was passed on on the
            // way; serve a little longer so it is surely out.
            serve(500);
            Msg::flush();
            if (logged)
                Msg(logged.source(), "ParentDonePost").send();
            worker.join();
        },
        Context::TypeAttached, Attached, "Log Parent");
    ASSERT_TRUE(ran);

    const QList<LogRecord> stored = records(2);
    ASSERT_EQ(stored.size(), 2);
    EXPECT_EQ(stored.at(1).text, "Worker w7 found 11");
    EXPECT_EQ(stored.at(1).category, "Threads");
    EXPECT_TRUE(stored.at(1).source.startsWith("1/")) << "passed on in the attached context's name";
}

// No log daemon: each message goes to the Hub, which cannot deliver it and
// says so; the process neither waits for the daemon nor stops.
TEST_F(LogEndToEnd, WithoutADaemonMessagesAreDroppedAndTheProcessGoesOn)
{
    static int undeliverable = 0;
    static int other = 0;
    const bool ran = Context::run(
        [] {
            const int count = 200;
            for (int i = 0; i < count; ++i)
                BREVI_LOG("Nobody", Log::eLogInformation) << "Message %1i" << i;
            // A post to nobody behind them: the Hub answers in order on the
            // link, so when this one comes back undeliverable, so have they.
            Msg(MsgAddress(Context::machineName(), 999u), "MarkerPost").send(true);
            for (;;) {
                const Msg message = Msg::receive(20);
                if (!message)
                    break;
                const QString name = message.getString(Catalogue::HubRtrUndeliverableMessagePost::Name);
                if (message.name() != Catalogue::HubRtrUndeliverableMessagePost::Message)
                    ++other;
                else if (name == "MarkerPost")
                    break;
                else if (name == Catalogue::LogDaemonLocalWriteLog::Message)
                    ++undeliverable;
                else
                    ++other;
            }
        },
        Context::TypeAttached, Attached, "Lonely Logger");
    ASSERT_TRUE(ran);
    EXPECT_EQ(other, 0);
    EXPECT_EQ(undeliverable, 200) << "each message was tried, and dropped";
    EXPECT_FALSE(QFile::exists(storePath()));
}
