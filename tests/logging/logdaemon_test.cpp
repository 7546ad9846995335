// The log daemon without a Hub: how a message's text is put together from its
// format and parameters, the one-line records of its store, the queries that
// show them, what it does with each message it gets, and its command line.

#include "core/convertabledatasize.h"
#include "core/datasize.h"
#include "core/machinename.h"
#include "logging/html.h"
#include "logging/log.h"
#include "logging/plaintext.h"
#include "messaging/msg.h"
#include "messaging/msgaddress.h"
#include "messaging/msgcatalogue.h"

#include "logdaemon.h"
#include "logquery.h"
#include "logrecord.h"
#include "logstore.h"
#include "logtrace.h"
#include "testhome.h"

#include <QDate>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTime>

#include <gtest/gtest.h>

using namespace Brevi;

namespace {

namespace Key = Catalogue::LogKey;

const QDateTime When(QDate(2024, 5, 2), QTime(13, 7, 55, 120));

LogRecord record(const QString& category, unsigned level, const QString& text)
{
    LogRecord r;
    r.time = When;
    r.source = "1/12/node@id";
    r.category = category;
    r.level = level;
    r.text = text;
    return r;
}

// A store in a scratch folder with the given records.
class StoreTest : public ::testing::Test
{
protected:
    QString path() const { return moDir.path() + "/log/logdaemon.log"; }
    void add(const LogRecord& r)
    {
        LogStore store(path());
        ASSERT_TRUE(store.append(r)) << store.errorString().toStdString();
    }
    QStringList query(const LogQuery& q, int* skipped = nullptr) const
    {
        QStringList lines;
        QString error;
        EXPECT_TRUE(q.run(path(), lines, error, skipped)) << error.toStdString();
        return lines;
    }
    static QString categoryOf(const QString& line)
    {
        LogRecord r;
        return LogRecord::fromLine(line, r) ? r.category : "<bad>";
    }

    QTemporaryDir moDir;
};

} // namespace

// ---------------------------------------------------------------------------
// The text of a message

TEST(LogText, EveryParameterIsPutInItsPlace)
{
    BreviTest::LogLines none;
    Log log;
    log.initialiseMessage("Types", Log::eLogInformation)
        << "%1s|%2i|%3l|%4b|%5d|%6t|%7m|%8h|%9p|%10c"
        << "a\"b" << 7 << -8LL << true << QDate(2024, 1, 2) << QTime(3, 4, 5) << MachineName("node@id")
        << Html("<b>x</b>") << PlainText("l1\nl2") << DataSize(1234567, DataSize::PrefixBytes);
    EXPECT_EQ(LogRecord::render(log.body()), "a'b|7|-8|true|2024-01-02|03:04:05|node|<b>x</b>|l1\nl2|1,234,567 B");
}

TEST(LogText, ASizeIsShownAsItsPrefixAsks)
{
    const auto shown = [](unsigned long long bytes, DataSize::SizePrefixE prefix) {
        Log log;
        log << "%1c" << DataSize(bytes, prefix);
        return LogRecord::render(log.body());
    };
    EXPECT_EQ(shown(1536, DataSize::PrefixAuto), ConvertableDataSize::normalised(1536));
    EXPECT_EQ(shown(999, DataSize::PrefixBytes), "999 B");
    ConvertableDataSize mega(double(3u << 20), ConvertableDataSize::ScaleBytes);
    mega.convertUnits(ConvertableDataSize::ScaleMega);
    EXPECT_EQ(shown(3u << 20, DataSize::PrefixMega), mega.toString());
    ConvertableDataSize kilo(double(3u << 20), ConvertableDataSize::ScaleBytes);
    kilo.convertUnits(ConvertableDataSize::ScaleKilo);
    EXPECT_EQ(shown(3u << 20, DataSize::PrefixKilo), kilo.toString()) << "a fixed unit, even when another fits";
}

TEST(LogText, WhatIsNotAParameterStaysAsWritten)
{
    XmlList body;
    body.set(Key::Arg, "100% of %1s, %2s missing, %1x, %%1s, 5%, %12 and %");
    body.set("%1s", "disk");
    EXPECT_EQ(LogRecord::render(body), "100% of disk, %2s missing, %1x, %disk, 5%, %12 and %");
    body.set(Key::Arg, "size %1c");
    EXPECT_EQ(LogRecord::render(body), "size %1c") << "no DataSize in the body";
    EXPECT_EQ(LogRecord::render(XmlList()), "");
}

// ---------------------------------------------------------------------------
// Records and the store

TEST(LogRecordLine, ALineHoldsFiveFieldsAndReadsBack)
{
    const LogRecord original = record("Cat\tegory", 3, "line 1\nline 2\r\ttab \\ back\\n");
    const QString line = original.toLine();
    EXPECT_FALSE(line.contains('\n'));
    EXPECT_EQ(line.count('\t'), 4);
    EXPECT_TRUE(line.startsWith("2024-05-02 13:07:55.120\t1/12/node@id\tCat\\tegory\tError\t")) << line.toStdString();
    LogRecord back;
    ASSERT_TRUE(LogRecord::fromLine(line, back));
    EXPECT_EQ(back.time, original.time);
    EXPECT_EQ(back.source, original.source);
    EXPECT_EQ(back.category, original.category);
    EXPECT_EQ(back.level, 3u);
    EXPECT_EQ(back.text, original.text);

    EXPECT_EQ(record("c", 42, "t").toLine().section('\t', 3, 3), "42") << "a level without a name";
    LogRecord untouched = original;
    EXPECT_FALSE(LogRecord::fromLine("", untouched));
    EXPECT_FALSE(LogRecord::fromLine("2024-05-02 13:07:55.120\tsource\tcategory\tError", untouched));
    EXPECT_FALSE(LogRecord::fromLine("yesterday\ts\tc\tError\tt", untouched));
    EXPECT_FALSE(LogRecord::fromLine("2024-05-02 13:07:55.120\ts\tc\tLoud\tt", untouched));
    EXPECT_EQ(untouched.text, original.text);
}

TEST(LogRecordLine, LevelsReadByNameOrNumber)
{
    unsigned level = 99;
    EXPECT_TRUE(LogRecord::levelFromText("warning", level));
    EXPECT_EQ(level, unsigned(Log::eLogWarning));
    EXPECT_TRUE(LogRecord::levelFromText("CRITICAL", level));
    EXPECT_EQ(level, unsigned(Log::eLogCritical));
    EXPECT_TRUE(LogRecord::levelFromText("1", level));
    EXPECT_EQ(level, unsigned(Log::eLogInformation));
    EXPECT_FALSE(LogRecord::levelFromText("loud", level));
    EXPECT_FALSE(LogRecord::levelFromText("-1", level));
    EXPECT_EQ(level, 1u);
    EXPECT_EQ(LogRecord::levelName(Log::eLogDebug), "Debug");
    EXPECT_EQ(LogRecord::levelName(Log::eLogInformation), "Information");
}

TEST_F(StoreTest, RecordsAreAppendedOneLineEachAndKeptPrivate)
{
    add(record("A", 1, "first"));
    add(record("B", 2, "second\nwith a break"));
    const QList<QByteArray> lines = BreviTest::TestHome::readFile(path()).split('\n');
    ASSERT_EQ(lines.size(), 3) << "two lines and the end";
    EXPECT_TRUE(lines.at(0).endsWith("\tA\tInformation\tfirst"));
    EXPECT_TRUE(lines.at(1).endsWith("\tB\tWarning\tsecond\\nwith a break"));
    EXPECT_EQ(QFile(path()).permissions() & (QFileDevice::ReadOther | QFileDevice::ReadGroup), 0);
}

TEST_F(StoreTest, AStoreThatCannotBeWrittenSaysSo)
{
    QFile blocker(moDir.path() + "/log");
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly)) << "a file where the folder should be";
    LogStore store(path());
    EXPECT_FALSE(store.open());
    EXPECT_FALSE(store.append(record("A", 1, "lost")));
    EXPECT_FALSE(store.errorString().isEmpty());
}

TEST_F(StoreTest, QueriesNarrowByCategoryLevelAndTail)
{
    add(record("Backup", 0, "b0"));
    add(record("Backup", 3, "b3"));
    add(record("Restore", 2, "r2"));
    add(record("backup", 4, "b4"));
    add(record("Restore", 1, "r1"));

    LogQuery all;
    EXPECT_EQ(query(all).size(), 5);

    LogQuery byCategory;
    byCategory.mbCategory = true;
    byCategory.msCategory = "BACKUP";
    QStringList lines = query(byCategory);
    ASSERT_EQ(lines.size(), 3);
    EXPECT_TRUE(lines.at(2).endsWith("\tb4"));

    LogQuery byLevel;
    byLevel.mbLevel = true;
    byLevel.muiLevel = Log::eLogWarning;
    lines = query(byLevel);
    ASSERT_EQ(lines.size(), 3) << "warning and more serious";
    EXPECT_EQ(categoryOf(lines.at(0)), "Backup");
    EXPECT_EQ(categoryOf(lines.at(1)), "Restore");

    LogQuery tail;
    tail.miTail = 2;
    lines = query(tail);
    ASSERT_EQ(lines.size(), 2);
    EXPECT_TRUE(lines.at(0).endsWith("\tb4"));
    EXPECT_TRUE(lines.at(1).endsWith("\tr1"));

    LogQuery combined = byCategory;
    combined.mbLevel = true;
    combined.muiLevel = Log::eLogError;
    combined.miTail = 1;
    lines = query(combined);
    ASSERT_EQ(lines.size(), 1) << "the tail is taken of what matched";
    EXPECT_TRUE(lines.at(0).endsWith("\tb4"));

    LogQuery nothing;
    nothing.miTail = 0;
    EXPECT_TRUE(query(nothing).isEmpty());
}

TEST_F(StoreTest, DamagedLinesAreSkippedAndAMissingStoreIsEmpty)
{
    int skipped = -1;
    EXPECT_TRUE(query(LogQuery(), &skipped).isEmpty()) << "no file yet";
    EXPECT_EQ(skipped, 0);

    add(record("A", 1, "whole"));
    {
        QFile file(path());
        ASSERT_TRUE(file.open(QIODevice::Append));
        file.write("2024-05-02 13:07:55.120\t1/12/no");
    }
    add(record("B", 1, "after"));
    const QStringList lines = query(LogQuery(), &skipped);
    EXPECT_EQ(skipped, 1);
    ASSERT_EQ(lines.size(), 1) << "the cut line swallowed the record written behind it";
    EXPECT_TRUE(lines.at(0).endsWith("\twhole"));
}

// ---------------------------------------------------------------------------
// Messages

TEST_F(StoreTest, TheDaemonStoresLogMessagesAndEndsOnTheHubsShutdown)
{
    Trace trace;
    LogDaemon daemon(path());
    const MsgAddress source(MachineName("node@id"), 12u);
    const MsgAddress self(MachineName("node@id"), eWellKnownLogDaemon);

    Log log;
    log.initialiseMessage("Jobs", Log::eLogError) << "Job %1s failed after %2i tries"
                                                  << "nightly" << 3;
    const Msg write(Authorization(), source, self, Catalogue::LogDaemonLocalWriteLog::Message, log.body());
    EXPECT_EQ(daemon.handle(write), eMsgResultHandled);
    EXPECT_EQ(daemon.stored(), 1u);

    const Msg other(Authorization(), source, self, "SomethingElsePost");
    EXPECT_EQ(daemon.handle(other), eMsgResultNotHandled);
    const Msg shutdown(Authorization(), MsgAddress(eWellKnownHubRouter), self, Catalogue::HubRtrShutdownPost::Message);
    EXPECT_EQ(daemon.handle(shutdown), eMsgResultExit);

    const QStringList lines = query(LogQuery());
    ASSERT_EQ(lines.size(), 1);
    LogRecord stored;
    ASSERT_TRUE(LogRecord::fromLine(lines.first(), stored));
    EXPECT_EQ(stored.source, "1/12/node@id");
    EXPECT_EQ(stored.category, "Jobs");
    EXPECT_EQ(stored.level, unsigned(Log::eLogError));
    EXPECT_EQ(stored.text, "Job nightly failed after 3 tries");
    EXPECT_LE(qAbs(stored.time.secsTo(QDateTime::currentDateTime())), 60);
}

// ---------------------------------------------------------------------------
// The command line

namespace {
struct ProgramRun {
    int exitCode = -1;
    QString out;
    QString err;
};

ProgramRun logdaemon(const QStringList& arguments)
{
    QProcess process;
    process.start(LOGDAEMON_PATH, arguments);
    ProgramRun run;
    if (!process.waitForFinished(30000)) {
        process.kill();
        process.waitForFinished();
        return run;
    }
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}
} // namespace

TEST_F(StoreTest, TheCommandLineShowsWhatIsStored)
{
    add(record("Backup", 1, "one"));
    add(record("Restore", 3, "two"));
    add(record("Backup", 4, "three"));

    ProgramRun run = logdaemon({"--file", path(), "--show"});
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_EQ(run.out.count('\n'), 3);

    run = logdaemon({"--file", path(), "--category", "backup", "--level", "error"});
    EXPECT_EQ(run.exitCode, 0);
    ASSERT_EQ(run.out.count('\n'), 1) << run.out.toStdString();
    EXPECT_TRUE(run.out.endsWith("\tBackup\tCritical\tthree\n"));

    run = logdaemon({"--file", path(), "--tail", "2"});
    EXPECT_EQ(run.out.split('\n', Qt::SkipEmptyParts).size(), 2);
    EXPECT_TRUE(run.out.startsWith(record("Restore", 3, "two").toLine()));

    run = logdaemon({"--help"});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_TRUE(run.out.contains("--tail")) << run.out.toStdString();
    EXPECT_TRUE(run.out.contains("LogDaemonLocal"));

    EXPECT_EQ(logdaemon({"--file", path(), "--level", "loud"}).exitCode, 2);
    EXPECT_EQ(logdaemon({"--file", path(), "--tail", "many"}).exitCode, 2);
    EXPECT_EQ(logdaemon({"--file", path(), "--show", "extra"}).exitCode, 2);

    QFile(path()).setPermissions(QFileDevice::WriteOwner);
    if (!QFile(path()).open(QIODevice::ReadOnly)) {
        run = logdaemon({"--file", path(), "--show"});
        EXPECT_EQ(run.exitCode, 1) << "an unreadable store";
        EXPECT_TRUE(run.err.contains("cannot read"));
    }
}
