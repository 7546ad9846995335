// Log messages end to end, with the real Hub and the real log daemon: a
// process logs every kind of parameter from its attached context and from a
// thread that logs through it; without a daemon its messages come back
// undeliverable and it goes on.

#include "core/context.h"
#include "core/datasize.h"
#include "logging/html.h"
#include "logging/logline.h"
#include "logging/plaintext.h"
#include "messaging/messaging.h"
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
        int status = 0;
        if (mpDaemon) {
            EXPECT_TRUE(mpDaemon->waitExit(10000, &status) && WIFEXITED(status) && WEXITSTATUS(status) == 0)
                << "the Hub's shutdown ends the daemon cleanly; status " << status;
        }
    }
    QString storePath() const { return moHome.path() + "/runtime/log/logdaemon.log"; }

    // The stored records, once there are `count` of them or 20 s have passed.
    QList<LogRecord> records(int count) const
    {
        QList<LogRecord> result;
        QElapsedTimer timer;
        for (timer.start(); result.size() < count && timer.elapsed() < 20000; QThread::msleep(50)) {
            result.clear();
            QFile file(storePath());
            file.open(QIODevice::ReadOnly);
            for (const QByteArray& line : file.readAll().split('\n')) {
                LogRecord record;
                if (LogRecord::fromLine(QString::fromUtf8(line), record))
                    result << record;
            }
        }
        return result;
    }

    std::unique_ptr<HubTest::ChildProcess> mpDaemon;
};

ThreadComms* gLink = nullptr;

} // namespace

TEST_F(LogEndToEnd, EveryParameterReachesTheDaemonFromTheProcessAndFromItsThread)
{
    // The daemon is up once it has stored its own start, sent to its
    // well-known address through the Hub like anyone's.
    mpDaemon.reset(new HubTest::ChildProcess(LOGDAEMON_PATH, {}));
    ASSERT_EQ(records(1).size(), 1) << "the log daemon did not come up";

    const bool ran = Context::run(
        [] {
            EXPECT_EQ(Context::messaging()->loggingAddress().id(), unsigned(eWellKnownLogDaemon));
            BREVI_LOG("Tests", Log::eLogWarning)
                << "s=%1s i=%2i l=%3l b=%4b d=%5d t=%6t m=%7m h=%8h p=%9p c=%10c"
                << "a \"quoted\" word" << -3 << 9876543210LL << true << QDate(2024, 2, 29) << QTime(1, 2, 3)
                << MachineName("far@beef") << Html("<b>bold</b>") << PlainText("two\nlines")
                << DataSize(4096, DataSize::PrefixBytes);

            ThreadComms comms("worker");
            gLink = &comms;
            std::thread worker([] {
                Context::run(
                    [] {
                        ThreadComms comms = *gLink;
                        ASSERT_TRUE(comms.connect(Log::eProxy));
                        EXPECT_EQ(Context::messaging()->loggingAddress(), comms.address()) << "the proxy";
                        BREVI_LOG("Threads", Log::eLogError) << "Worker %1s found %2i" << QString("w7") << 11;
                        comms.send("WorkerLoggedPost");
                        Msg::wait("ParentDonePost", 20);
                        comms.disconnect();
                    },
                    Context::TypeStandalone, 0, "Log Worker");
            });
            // The worker's log message comes before its post, and is passed
            // on to the daemon while this context waits for the post.
            const Msg logged = Msg::wait("WorkerLoggedPost", 20);
            EXPECT_TRUE(logged);
            Msg::flush();
            Msg(logged.source(), "ParentDonePost").send();
            worker.join();
        },
        Context::TypeAttached, Context::FlagAttachOnce, "Log Sender");
    ASSERT_TRUE(ran) << "the process did not attach";

    const QList<LogRecord> stored = records(3);
    ASSERT_EQ(stored.size(), 3);
    EXPECT_EQ(stored.at(0).text, "Log Daemon has started");
    EXPECT_EQ(stored.at(1).text, "s=a 'quoted' word i=-3 l=9876543210 b=true d=2024-02-29 t=01:02:03 m=far "
                                 "h=<b>bold</b> p=two\nlines c=4,096 B");
    EXPECT_EQ(stored.at(1).category, "Tests");
    EXPECT_EQ(stored.at(1).level, unsigned(Log::eLogWarning));
    EXPECT_TRUE(stored.at(1).source.startsWith("1/") && stored.at(1).source.endsWith(HubTest::machine()))
        << "an attached sender: " << stored.at(1).source.toStdString();
    EXPECT_EQ(stored.at(2).text, "Worker w7 found 11");
    EXPECT_EQ(stored.at(2).source, stored.at(1).source) << "passed on in the attached context's name";
}

TEST_F(LogEndToEnd, WithoutADaemonMessagesAreDroppedAndTheProcessGoesOn)
{
    static int undeliverable = 0;
    static int other = 0;
    const bool ran = Context::run(
        [] {
            for (int i = 0; i < 200; ++i)
                BREVI_LOG("Nobody", Log::eLogInformation) << "Message %1i" << i;
            // A post to nobody behind them: the Hub answers in order, so
            // when this one comes back undeliverable, so have they.
            Msg(MsgAddress(Context::machineName(), 999u), "MarkerPost").send(true);
            for (Msg message = Msg::receive(20); message; message = Msg::receive(20)) {
                const QString name = message.getString(Catalogue::HubRtrUndeliverableMessagePost::Name);
                if (message.name() != Catalogue::HubRtrUndeliverableMessagePost::Message)
                    ++other;
                else if (name == "MarkerPost")
                    break;
                else if (name == Catalogue::LogDaemonLocalWriteLog::Message)
                    ++undeliverable;
            }
        },
        Context::TypeAttached, Context::FlagAttachOnce, "Lonely Logger");
    ASSERT_TRUE(ran);
    EXPECT_EQ(other, 0);
    EXPECT_EQ(undeliverable, 200) << "each message was tried, and dropped";
    EXPECT_FALSE(QFile::exists(storePath()));
}
