// The log daemon without a Hub: how a message's text is put together, HTML
// made words for the log and safe markup for a page, the one-line records of
// its store and their rotation, the queries that show them, and its command
// line.

#include "core/convertabledatasize.h"
#include "core/datasize.h"
#include "logging/html.h"
#include "logging/log.h"
#include "logging/plaintext.h"
#include "messaging/msgcatalogue.h"

#include "htmltext.h"
#include "logrecord.h"
#include "logstore.h"
#include "logtesting.h"
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

LogRecord record(const QString& category, unsigned level, const QString& text, const QString& process = "Worker")
{
    LogRecord r;
    r.time = When;
    r.source = "1/12/node@id";
    r.process = process;
    r.category = category;
    r.level = level;
    r.text = text;
    return r;
}

// What the program prints with `arguments`, and its exit code.
QString run(const QStringList& arguments, int* code = nullptr)
{
    QProcess process;
    process.start(LOGDAEMON_PATH, arguments);
    if (!process.waitForFinished(30000) || process.exitStatus() != QProcess::NormalExit)
        return "crashed";
    if (code)
        *code = process.exitCode();
    return QString::fromUtf8(process.readAllStandardOutput() + process.readAllStandardError());
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
    // The texts of the records the program shows for the store with
    // `arguments`, separated by blanks, or "exit <code>".
    QString shown(const QStringList& arguments) const
    {
        int code = -1;
        const QString out = run(QStringList{"--file", path()} + arguments, &code);
        if (code != 0)
            return "exit " + QString::number(code);
        QStringList texts;
        for (const QString& line : out.split('\n', Qt::SkipEmptyParts))
            if (line.contains('\t')) // not what it says on stderr
                texts << line.section('\t', 5);
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

TEST(LogText, HtmlIsWordsInTheLogAndOnlyHarmlessMarkupInAPage)
{
    const QString html = "<html><head><title>T</title><style>p{}</style></head><body onload=\"x()\">"
                         "<h1>Job&nbsp;report</h1><p>Files:  <b class='n'>3 &lt; 4</b><br>done &#x263a;"
                         "<script>alert('<p>')</script><!-- <b>note</b> --><a href=\"javascript:x()\">link</a>"
                         "<pre>a  b\n c</pre><table><tr><td>1</td><td>2</td></tr></table><IMG SRC=x onerror=y><i>open";
    EXPECT_EQ(HtmlText::toPlain(html),
              QString::fromUtf8("Job report\nFiles: 3 < 4\ndone \xe2\x98\xbalink\na  b\n c\n1 2\nopen"));
    EXPECT_EQ(HtmlText::toSafe(html),
              QString::fromUtf8("<h1>Job\xc2\xa0report</h1><p>Files:  <b>3 &lt; 4</b><br>done \xe2\x98\xba"
                                "link<pre>a  b\n c</pre><table><tr><td>1</td><td>2</td></tr></table><i>open</i>"
                                "</p>"));
    for (const char* broken : {"<b", "<script>never closed", "<a href=\"x>y", "x < y > z", "</b></p>", "&#0;&#xd800;"})
        EXPECT_FALSE(HtmlText::toSafe(broken).contains(QRegExp("<(?!/?b>)"))) << broken;
    EXPECT_EQ(HtmlText::toSafe("x < y > z &#0;"), "x &lt; y &gt; z &amp;#0;");

    // A message with HTML and plain text keeps what it was made from.
    Log log;
    log << "%1s wrote %2h, %3p" << QString("<Job>") << Html("<b>bold</b><script>x</script>") << PlainText("a\nb");
    LogRecord stored = LogRecord::fromBody(log.body(), When);
    EXPECT_EQ(stored.text, "<Job> wrote bold, a\nb");
    EXPECT_EQ(stored.toHtml(), "&lt;Job&gt; wrote <b>bold</b>, a<br>b");
    Log plain;
    plain << "%1s only" << QString("<b>");
    EXPECT_TRUE(LogRecord::fromBody(plain.body(), When).message.isEmpty()) << "the text says all";
}

TEST_F(StoreTest, EachRecordIsOneLineAndReadsBack)
{
    LogRecord original = record("Cat\tegory", 3, "line 1\nline 2\r\ttab \\ back\\n", "Backup\tWorker");
    original.message = {{"Arg", "%1h & %2p"}, {"%1h", "<b>a=b</b>"}, {"%2p", "x\ty"}};
    add(original);
    add(record("B", 42, "second"));
    const QList<QByteArray> lines = BreviTest::TestHome::readFile(path()).split('\n');
    ASSERT_EQ(lines.size(), 3) << "two lines and the end";
    EXPECT_TRUE(lines.at(0).startsWith("2024-05-02 13:07:55.120\t1/12/node@id\tBackup\\tWorker\tCat\\tegory\tError\t"));
    EXPECT_TRUE(lines.at(0).endsWith("\tArg=%251h%20%26%20%252p&%251h=%3Cb%3Ea%3Db%3C%2Fb%3E&%252p=x%09y"))
        << "no markup in the file: " << lines.at(0).toStdString();
    EXPECT_TRUE(lines.at(1).endsWith("\tB\t42\tsecond")) << "a level without a name, and no message";
    EXPECT_EQ(QFile(path()).permissions() & (QFileDevice::ReadOther | QFileDevice::ReadGroup), 0);
    LogRecord back;
    ASSERT_TRUE(LogRecord::fromLine(QString::fromUtf8(lines.at(0)), back));
    EXPECT_TRUE(back.time == original.time && back.source == original.source && back.level == 3u);
    EXPECT_EQ(back.process, original.process);
    EXPECT_EQ(back.category, original.category);
    EXPECT_EQ(back.text, original.text);
    EXPECT_EQ(back.message, original.message);
    ASSERT_TRUE(LogRecord::fromLine("2024-05-02 13:07:55.120\t1/12/n@i\tOld\tWarning\tfive fields", back));
    EXPECT_TRUE(back.process.isEmpty() && back.category == "Old" && back.text == "five fields");

    for (const char* bad :
         {"", "2024-05-02 13:07:55.120\ts\tc\tError", "yesterday\ts\tp\tc\tError\tt",
          "2024-05-02 13:07:55.120\ts\tp\tc\tLoud\tt", "2024-05-02 13:07:55.120\ts\tp\tc\t1\tt\tnoequals"})
        EXPECT_FALSE(LogRecord::fromLine(bad, back)) << bad;
    EXPECT_EQ(back.text, "five fields") << "a bad line leaves the record alone";

    QFile blocker(moDir.path() + "/blocked");
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly)) << "a file where a folder should be";
    LogStore store(blocker.fileName() + "/logdaemon.log");
    EXPECT_FALSE(store.append(original));
    EXPECT_FALSE(store.errorString().isEmpty());
}

// Files are cut between records only, and no more than `keep` full ones stay.
TEST_F(StoreTest, AFullFileMakesRoomAndOnlySoManyStay)
{
    const int lineBytes = record("C", 1, "000").toLine().size() + 1;
    {
        LogStore store(path(), 4 * lineBytes + 1, 5);
        for (int i = 0; i < 30; ++i)
            ASSERT_TRUE(store.append(record("C", 1, QString::number(i).rightJustified(3, '0'))));
    }
    const auto texts = [this](int keep) {
        QStringList result;
        const QStringList files = LogStore::files(path());
        EXPECT_EQ(files.size(), keep + 1);
        for (const QString& file : files) {
            const QList<QByteArray> lines = BreviTest::TestHome::readFile(file).split('\n');
            EXPECT_LE(lines.size() - 1, 4) << file.toStdString();
            for (const QByteArray& line : lines)
                result << QString::fromUtf8(line).section('\t', 5);
        }
        result.removeAll(QString());
        return result.join(' ');
    };
    EXPECT_EQ(texts(5), "008 009 010 011 012 013 014 015 016 017 018 019 020 021 022 023 024 025 026 027 028 029");

    // Kept fewer from now on: the next file that fills leaves two.
    LogStore store(path(), 4 * lineBytes + 1, 2);
    for (int i = 30; i < 33; ++i)
        ASSERT_TRUE(store.append(record("C", 1, QString::number(i))));
    EXPECT_EQ(texts(2), "024 025 026 027 028 029 30 31 32");
    EXPECT_EQ(shown({"--tail", "3"}), "30 31 32") << "queries read the old files too";

    LogStore none(path(), 10, 0);
    ASSERT_TRUE(none.append(record("C", 1, "alone")) && none.append(record("C", 1, "longer than the file")));
    EXPECT_EQ(texts(0), "longer than the file");
}

TEST_F(StoreTest, TheCommandLineShowsWhatMatches)
{
    EXPECT_EQ(shown({"--show"}), "") << "no store yet is no error";
    add(record("Backup", 0, "b0"));
    add(record("Backup", 3, "b3", "Other"));
    add(record("Restore", 2, "r2"));
    add(record("backup", 4, "b4"));
    add(record("Restore", 1, "r1", "Other"));
    {
        QFile file(path());
        ASSERT_TRUE(file.open(QIODevice::Append));
        file.write("2024-05-02 13:07:55.120\t1/12/no\n"); // cut short by a crash
    }
    LogRecord named = record("Restore", 3, "r3", "");
    named.source = "1/0/node@id/Restorer/Jobs";
    add(named);

    EXPECT_EQ(shown({"--show"}), "b0 b3 r2 b4 r1 r3") << "a damaged line is skipped";
    EXPECT_EQ(shown({"--category", "BACKUP"}), "b0 b3 b4");
    EXPECT_EQ(shown({"--category", "backup", "--level", "error"}), "b3 b4") << "at the level or above";
    EXPECT_EQ(shown({"--category", "backup", "--level", "3", "--tail", "1"}), "b4") << "the tail of what matched";
    EXPECT_EQ(shown({"--level", "Warning", "--tail", "2"}), "b4 r3");
    EXPECT_EQ(shown({"--process", "other"}), "b3 r1") << "by title";
    EXPECT_EQ(shown({"--process", "12"}), "b0 b3 r2 b4 r1") << "by ProcessId";
    EXPECT_EQ(shown({"--process", "Restorer"}), "r3") << "by name";
    EXPECT_EQ(shown({"--process", "1/12/node@id", "--level", "2"}), "b3 r2 b4") << "by address";
    EXPECT_EQ(shown({"--tail", "0"}), "");
    for (const QStringList& wrong : {QStringList{"--level", "loud"},
                                     {"--tail", "many"},
                                     {"--show", "extra"},
                                     {"--bogus"},
                                     {"--max-size", "0"},
                                     {"--keep", "-1"}})
        EXPECT_EQ(shown(wrong), "exit 2") << wrong.join(' ').toStdString();

    int code = -1;
    const QString page = run({"--file", path(), "--html", "--process", "Other"}, &code);
    EXPECT_EQ(code, 0);
    EXPECT_TRUE(page.startsWith("<!DOCTYPE html>") &&
                page.contains("<td>Other</td><td>Backup</td><td>Error</td><td>b3"))
        << page.toStdString();
    const QString help = run({"--help"}, &code);
    EXPECT_TRUE(code == 0 && help.contains("--process") && help.contains("LogDaemonLocal")) << help.toStdString();
}
