// The log daemon without a Hub: how a message's text is put together, the
// one-line records of its store, the queries that show them, and its command
// line.

#include "core/convertabledatasize.h"
#include "core/datasize.h"
#include "logging/log.h"
#include "messaging/msgcatalogue.h"

#include "logrecord.h"
#include "logstore.h"
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
    // What the program prints for the store with `arguments`: the texts of
    // the records it shows, separated by blanks, or "exit <code>".
    QString shown(const QStringList& arguments) const
    {
        QProcess process;
        process.start(LOGDAEMON_PATH, QStringList{"--file", path()} + arguments);
        if (!process.waitForFinished(30000) || process.exitStatus() != QProcess::NormalExit)
            return "crashed";
        if (process.exitCode() != 0)
            return "exit " + QString::number(process.exitCode());
        QStringList texts;
        for (const QString& line : QString::fromUtf8(process.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts))
            texts << line.section('\t', 4);
        return texts.join(' ');
    }

    QTemporaryDir moDir;
};

} // namespace

// Every kind of parameter put in is checked end to end (logend_test.cpp);
// here the sizes and what is not a parameter.
TEST(LogText, SizesShowAsTheirPrefixAsksAndTheRestStaysAsWritten)
{
    const auto shown = [](unsigned long long bytes, DataSize::SizePrefixE prefix) {
        Log log;
        log << "%1c" << DataSize(bytes, prefix);
        return LogRecord::render(log.body());
    };
    EXPECT_EQ(shown(1536, DataSize::PrefixAuto), ConvertableDataSize::normalised(1536));
    EXPECT_EQ(shown(1234567, DataSize::PrefixBytes), "1,234,567 B");
    ConvertableDataSize kilo(double(3u << 20), ConvertableDataSize::ScaleBytes);
    kilo.convertUnits(ConvertableDataSize::ScaleKilo);
    EXPECT_EQ(shown(3u << 20, DataSize::PrefixKilo), kilo.toString()) << "a fixed unit, even when another fits";

    XmlList body;
    body.set(Key::Arg, "100% of %1s, %2s missing, %1x, %%1s, %3c, 5%, %12 and %");
    body.set("%1s", "disk");
    EXPECT_EQ(LogRecord::render(body), "100% of disk, %2s missing, %1x, %disk, %3c, 5%, %12 and %");
    EXPECT_EQ(LogRecord::render(XmlList()), "");
}

TEST_F(StoreTest, EachRecordIsOneLineOfFiveFieldsAndReadsBack)
{
    const LogRecord original = record("Cat\tegory", 3, "line 1\nline 2\r\ttab \\ back\\n");
    add(original);
    add(record("B", 42, "second"));
    const QList<QByteArray> lines = BreviTest::TestHome::readFile(path()).split('\n');
    ASSERT_EQ(lines.size(), 3) << "two lines and the end";
    EXPECT_EQ(lines.at(0).count('\t'), 4);
    EXPECT_TRUE(lines.at(0).startsWith("2024-05-02 13:07:55.120\t1/12/node@id\tCat\\tegory\tError\t"));
    EXPECT_TRUE(lines.at(1).endsWith("\tB\t42\tsecond")) << "a level without a name";
    EXPECT_EQ(QFile(path()).permissions() & (QFileDevice::ReadOther | QFileDevice::ReadGroup), 0);
    LogRecord back;
    ASSERT_TRUE(LogRecord::fromLine(QString::fromUtf8(lines.at(0)), back));
    EXPECT_TRUE(back.time == original.time && back.source == original.source && back.level == 3u);
    EXPECT_EQ(back.category, original.category);
    EXPECT_EQ(back.text, original.text);

    for (const char* bad : {"", "2024-05-02 13:07:55.120\ts\tc\tError", "yesterday\ts\tc\tError\tt",
                            "2024-05-02 13:07:55.120\ts\tc\tLoud\tt"})
        EXPECT_FALSE(LogRecord::fromLine(bad, back)) << bad;
    EXPECT_EQ(back.text, original.text) << "a bad line leaves the record alone";

    QFile blocker(moDir.path() + "/blocked");
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly)) << "a file where a folder should be";
    LogStore store(blocker.fileName() + "/logdaemon.log");
    EXPECT_FALSE(store.append(original));
    EXPECT_FALSE(store.errorString().isEmpty());
}

TEST_F(StoreTest, TheCommandLineShowsWhatMatches)
{
    EXPECT_EQ(shown({"--show"}), "") << "no store yet is no error";
    add(record("Backup", 0, "b0"));
    add(record("Backup", 3, "b3"));
    add(record("Restore", 2, "r2"));
    add(record("backup", 4, "b4"));
    add(record("Restore", 1, "r1"));
    {
        QFile file(path());
        ASSERT_TRUE(file.open(QIODevice::Append));
        file.write("2024-05-02 13:07:55.120\t1/12/no\n"); // cut short by a crash
    }
    add(record("Restore", 3, "r3"));

    EXPECT_EQ(shown({"--show"}), "b0 b3 r2 b4 r1 r3") << "a damaged line is skipped";
    EXPECT_EQ(shown({"--category", "BACKUP"}), "b0 b3 b4");
    EXPECT_EQ(shown({"--category", "backup", "--level", "error"}), "b3 b4") << "at the level or above";
    EXPECT_EQ(shown({"--category", "backup", "--level", "3", "--tail", "1"}), "b4") << "the tail of what matched";
    EXPECT_EQ(shown({"--level", "Warning", "--tail", "2"}), "b4 r3");
    EXPECT_EQ(shown({"--tail", "0"}), "");
    EXPECT_EQ(shown({"--level", "loud"}), "exit 2");
    EXPECT_EQ(shown({"--tail", "many"}), "exit 2");
    EXPECT_EQ(shown({"--show", "extra"}), "exit 2");

    QProcess help;
    help.start(LOGDAEMON_PATH, {"--help"});
    ASSERT_TRUE(help.waitForFinished(30000));
    const QString text = QString::fromUtf8(help.readAllStandardOutput());
    EXPECT_TRUE(help.exitCode() == 0 && text.contains("--tail") && text.contains("LogDaemonLocal"))
        << text.toStdString();
}
