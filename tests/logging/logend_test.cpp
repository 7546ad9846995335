// Log messages end to end, with the real Hub and the real log daemon: a
// process logs every kind of parameter from its attached context and from a
// thread that logs through it, and reads them back through the daemon's
// command line; a flood fills several files without losing or splitting a
// line; another machine's messages keep their addresses; without a daemon a
// process's messages come back undeliverable and it goes on.

#include "core/context.h"
#include "core/datasize.h"
#include "logging/html.h"
#include "logging/logline.h"
#include "logging/plaintext.h"
#include "messaging/binaryaddress.h"
#include "messaging/messaging.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msgpacket.h"
#include "messaging/threadcomms.h"

#include "hubtest.h"
#include "logquery.h"
#include "logstore.h"

#include <QDate>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QThread>
#include <QTime>

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

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

    // The daemon is up once it has stored its own start, sent to its
    // well-known address through the Hub like anyone's.
    void startDaemon(const QStringList& arguments = {})
    {
        mpDaemon.reset(new HubTest::ChildProcess(LOGDAEMON_PATH, arguments));
        ASSERT_EQ(records(1).size(), 1) << "the log daemon did not come up";
    }

    // The stored records, in every file of the store, once there are `count`
    // of them or 20 s have passed.
    QList<LogRecord> records(int count, int* skipped = nullptr) const
    {
        QList<LogRecord> result;
        QString error;
        QElapsedTimer timer;
        for (timer.start(); result.size() < count && timer.elapsed() < 20000; QThread::msleep(50))
            EXPECT_TRUE(LogQuery().run(storePath(), result, error, skipped)) << error.toStdString();
        return result;
    }

    // What the daemon's command line prints for the store, and its status.
    static QString shown(const QStringList& arguments, int* code = nullptr)
    {
        QProcess process;
        process.start(LOGDAEMON_PATH, arguments);
        EXPECT_TRUE(process.waitForFinished(30000));
        if (code)
            *code = process.exitCode();
        return QString::fromUtf8(process.readAllStandardOutput() + process.readAllStandardError());
    }

    std::unique_ptr<HubTest::ChildProcess> mpDaemon;
};

ThreadComms* gLink = nullptr;
QString gPage;

} // namespace

TEST_F(LogEndToEnd, EveryParameterReachesTheDaemonAndComesBackThroughItsCommandLine)
{
    startDaemon();
    {
        QFile page(moHome.path() + "/report.html");
        ASSERT_TRUE(page.open(QIODevice::WriteOnly));
        page.write("<p onclick=\"steal()\">Saved <b>3</b> files<script>steal()</script></p>");
    }
    gPage = moHome.path();
    const bool ran = Context::run(
        [] {
            EXPECT_EQ(Context::messaging()->loggingAddress().id(), unsigned(eWellKnownLogDaemon));
            BREVI_LOG("Tests", Log::eLogWarning)
                << "s=%1s i=%2i l=%3l b=%4b d=%5d t=%6t m=%7m h=%8h p=%9p c=%10c"
                << "a \"quoted\" word" << -3 << 9876543210LL << true << QDate(2024, 2, 29) << QTime(1, 2, 3)
                << MachineName("far@beef") << Html(gPage, "report.html") << PlainText("two\nlines")
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
    EXPECT_EQ(stored.at(0).process, "Log Daemon");
    EXPECT_EQ(stored.at(1).text, "s=a 'quoted' word i=-3 l=9876543210 b=true d=2024-02-29 t=01:02:03 m=far "
                                 "h=Saved 3 files p=two\nlines c=4,096 B");
    EXPECT_EQ(stored.at(1).category, "Tests");
    EXPECT_EQ(stored.at(1).level, unsigned(Log::eLogWarning));
    EXPECT_TRUE(stored.at(1).source.startsWith("1/") && stored.at(1).source.endsWith(HubTest::machine()))
        << "an attached sender: " << stored.at(1).source.toStdString();
    EXPECT_EQ(stored.at(1).process, "Log Sender");
    EXPECT_EQ(stored.at(2).text, "Worker w7 found 11");
    EXPECT_EQ(stored.at(2).source, stored.at(1).source) << "passed on in the attached context's name";
    EXPECT_FALSE(BreviTest::TestHome::readFile(storePath()).contains("<")) << "no markup stands in the file";

    int code = -1;
    const QString lines = shown({"--process", "log sender", "--level", "warning"}, &code);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(lines.count('\n'), 2) << lines.toStdString();
    EXPECT_TRUE(lines.contains("\tLog Sender\tTests\tWarning\ts=a 'quoted' word")) << lines.toStdString();
    const QString page = shown({"--html", "--category", "tests"});
    EXPECT_TRUE(page.contains("h=<p>Saved <b>3</b> files</p> p=two<br>lines")) << page.toStdString();
    EXPECT_FALSE(page.contains("steal")) << "neither the script nor the handler";
}

TEST_F(LogEndToEnd, AFloodFillsFileAfterFileWithoutLosingOrSplittingALine)
{
    const int count = 4000;
    startDaemon({"--max-size", "16k", "--keep", "100"});
    ASSERT_TRUE(Context::run(
        [] {
            for (int i = 0; i < count; ++i)
                BREVI_LOG("Flood", Log::eLogInformation) << "Flood message %1i of a long run of lines" << i;
            Msg::flush();
        },
        Context::TypeAttached, Context::FlagAttachOnce, "Log Flood"));
    int skipped = -1;
    const QList<LogRecord> stored = records(count + 1, &skipped);
    ASSERT_EQ(stored.size(), count + 1);
    EXPECT_EQ(skipped, 0) << "every line whole";
    for (int i = 0; i < count; ++i)
        ASSERT_EQ(stored.at(i + 1).text, QString("Flood message %1 of a long run of lines").arg(i));
    const QStringList files = LogStore::files(storePath());
    EXPECT_GT(files.size(), 10);
    for (const QString& file : files)
        EXPECT_LE(QFile(file).size(), 16 << 10) << file.toStdString();
}

// The far machine is played by a link that sends what its Hub would pass on:
// a process's message with that process's address as its source, and one a
// program there passes on with the process named in the body.
TEST_F(LogEndToEnd, OtherMachinesMessagesKeepTheirAddresses)
{
    startDaemon();
    const std::unique_ptr<HubTest::HubClient> far = started("Far Link");
    ASSERT_TRUE(far);
    const QByteArray daemon = "1/8/" + HubTest::machine().toUtf8();
    Log log;
    log.initialiseMessage("Far", Log::eLogError) << "Disk %1s is full" << QString("D:");
    ASSERT_TRUE(far->sendPacket(boost::make_shared<MsgPacket>(
        BinaryAddress(Extent(daemon)), BinaryAddress(Extent(QByteArray("1/12/far@beef"))), QByteArray(),
        Catalogue::LogDaemonWriteLog::Message, QString(), log.body(), 0, false)));
    XmlList passedOn = log.body().clone();
    passedOn.set(Catalogue::LogKey::Source, MsgAddress(MachineName("far@beef"), 13u).toXml());
    passedOn.set(Catalogue::LogAttachment::ProcessName, QString("Far Backup"));
    ASSERT_TRUE(far->send(daemon, Catalogue::LogDaemonWriteLog::Message, passedOn));

    const QList<LogRecord> stored = records(3);
    ASSERT_EQ(stored.size(), 3);
    EXPECT_EQ(stored.at(1).source, "1/12/far@beef");
    EXPECT_EQ(stored.at(1).process, "") << "no title known for it here";
    EXPECT_EQ(stored.at(2).source, "1/13/far@beef");
    EXPECT_EQ(stored.at(2).process, "Far Backup");
    EXPECT_EQ(stored.at(2).text, "Disk D: is full");
    EXPECT_EQ(stored.at(2).category, "Far");
    EXPECT_EQ(shown({"--process", "1/12/far@beef"}).section('\t', 5), "Disk D: is full\n");

    // A second daemon hears who holds the name.
    int code = -1;
    const QString refused = shown({}, &code);
    EXPECT_EQ(code, 1);
    EXPECT_TRUE(refused.contains("another log daemon holds the name LogDaemonLocal on this machine (process 8, pid " +
                                 QString::number(mpDaemon->pid())))
        << refused.toStdString();
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
