// Building a log message: the body's keys, every kind of parameter, the quote
// replacement, the counter that numbers the parameters (strings and other
// values counted differently), tags and the start and stop messages of a
// process. No context is needed to build; sending is in logsend_test.cpp.

#include "core/datasize.h"
#include "core/machinename.h"
#include "logging/html.h"
#include "logging/log.h"
#include "logging/plaintext.h"
#include "messaging/msgcatalogue.h"

#include "logtrace.h"

#include <QDate>
#include <QTime>

#include <gtest/gtest.h>

#include <string>

using namespace Brevi;
using BreviTest::LogLines;

namespace {

namespace Key = Catalogue::LogKey;

const QString Missing = QStringLiteral("<missing>");

// The string under `key`, or Missing.
QString value(const Log& log, const QString& key)
{
    QString text;
    return log.body().get(text, key) ? text : Missing;
}

class LogBuild : public BreviTest::LogTraceTest
{
protected:
    Log moLog;
};

} // namespace

// ---------------------------------------------------------------------------
// The body

TEST_F(LogBuild, InitialiseMessageWritesCategoryLevelBuildNumberAndTags)
{
    Log::TagList tags;
    Log::addTagToList(tags, "Job", "nightly");
    Log::addTagToList(tags, "Store", "a\"b");
    ASSERT_EQ(tags.size(), 2);
    EXPECT_EQ(tags.at(1), qMakePair(QString("Store"), QString("a\"b")));

    Log& same = moLog.initialiseMessage("Backup", Log::eLogError, tags);
    EXPECT_EQ(&same, &moLog) << "a caller goes on with <<";
    EXPECT_EQ(moLog.counter(), 0u);
    EXPECT_EQ(value(moLog, Key::Category), "Backup");
    unsigned level = 99;
    EXPECT_TRUE(moLog.body().get(level, Key::Level)) << "the level is an unsigned item";
    EXPECT_EQ(level, unsigned(Log::eLogError));
    EXPECT_EQ(value(moLog, Key::BuildNumber), "002.02.11698 RC0610");
    EXPECT_EQ(moLog.buildNumber(), "002.02.11698 RC0610");
    EXPECT_EQ(value(moLog, "LogTagJob"), "nightly");
    EXPECT_EQ(value(moLog, "LogTagStore"), "a\"b") << "tags are not strings streamed into the format";
    EXPECT_EQ(value(moLog, Key::Arg), Missing);
}

TEST_F(LogBuild, ANewMessageDropsWhatWasBuiltBefore)
{
    moLog.initialiseMessage("First", Log::eLogWarning) << "%1s"
                                                       << "one";
    moLog.initialiseMessage("Second", Log::eLogInformation);
    EXPECT_EQ(value(moLog, Key::Category), "Second");
    EXPECT_EQ(value(moLog, Key::Arg), Missing);
    EXPECT_EQ(value(moLog, "%1s"), Missing);
    EXPECT_EQ(moLog.counter(), 0u);
    EXPECT_TRUE(moLog.format().isEmpty());
}

TEST_F(LogBuild, WithoutInitialiseTheFormatIsTheFirstString)
{
    EXPECT_TRUE(moLog.body().isEmpty());
    moLog << "Disk %1s is full"
          << "C";
    EXPECT_EQ(value(moLog, Key::Arg), "Disk %1s is full");
    EXPECT_EQ(value(moLog, "%1s"), "C");
    EXPECT_EQ(value(moLog, Key::Category), Missing);
    EXPECT_EQ(moLog.counter(), 2u);
}

// ---------------------------------------------------------------------------
// Parameters

TEST_F(LogBuild, EveryKindOfValueIsStoredUnderItsKeyAsText)
{
    const QString format = "%1s %2i %3l %4b %5d %6t %7m %8h %9p %10c %11i %12l %13b %14l";
    moLog.initialiseMessage("Types", Log::eLogInformation)
        << format << QString("text") << -42 << -5000000000LL << true << QDate(2024, 2, 29) << QTime(7, 5, 3)
        << MachineName("node7@4f2a") << Html("<b>bold</b>") << PlainText("line 1\nline 2")
        << DataSize(1536, DataSize::PrefixKilo) << 4000000000u << 18000000000000000000ULL << false << 123L;
    LogLines lines;
    EXPECT_EQ(value(moLog, "%1s"), "text");
    EXPECT_EQ(value(moLog, "%2i"), "-42");
    EXPECT_EQ(value(moLog, "%3l"), "-5000000000");
    EXPECT_EQ(value(moLog, "%4b"), "true");
    EXPECT_EQ(value(moLog, "%5d"), "2024-02-29");
    EXPECT_EQ(value(moLog, "%6t"), "07:05:03");
    EXPECT_EQ(value(moLog, "%7m"), "node7") << "a machine shows as its node name";
    EXPECT_EQ(value(moLog, "%8h"), "<b>bold</b>");
    EXPECT_EQ(value(moLog, "%9p"), "line 1\nline 2");
    EXPECT_EQ(value(moLog, "%10c"), Missing) << "a size goes under the two size keys instead";
    unsigned long long size = 0;
    int prefix = -1;
    EXPECT_TRUE(moLog.body().get(size, Key::DataSize)) << "an unsigned 64-bit item";
    EXPECT_TRUE(moLog.body().get(prefix, Key::DataSizePrfix)) << "a signed 32-bit item";
    EXPECT_EQ(size, 1536u);
    EXPECT_EQ(prefix, int(DataSize::PrefixKilo));
    EXPECT_EQ(value(moLog, "%11i"), "4000000000");
    EXPECT_EQ(value(moLog, "%12l"), "18000000000000000000");
    EXPECT_EQ(value(moLog, "%13b"), "false");
    EXPECT_EQ(value(moLog, "%14l"), "123");
    EXPECT_EQ(moLog.counter(), 15u);
    EXPECT_TRUE(lines.all().isEmpty()) << lines.all().join('\n').toStdString();
}

TEST_F(LogBuild, EveryKindOfStringIsAnSParameter)
{
    const QString pointed = "pointed";
    const QString* none = nullptr;
    moLog.initialiseMessage("Strings", Log::eLogInformation)
        << QByteArray("%1s %2s %3s %4s %5s %6s") << &pointed << QByteArray("bytes \xc3\xa9") << std::string("std")
        << "chars" << none << static_cast<const char*>(nullptr);
    EXPECT_EQ(value(moLog, Key::Arg), "%1s %2s %3s %4s %5s %6s");
    EXPECT_EQ(value(moLog, "%1s"), "pointed");
    EXPECT_EQ(value(moLog, "%2s"), QString::fromUtf8("bytes \xc3\xa9")) << "bytes are read as UTF-8";
    EXPECT_EQ(value(moLog, "%3s"), "std");
    EXPECT_EQ(value(moLog, "%4s"), "chars");
    EXPECT_EQ(value(moLog, "%5s"), "") << "a null pointer is an empty string";
    EXPECT_EQ(value(moLog, "%6s"), "");
    EXPECT_EQ(moLog.counter(), 7u);
}

TEST_F(LogBuild, DoubleQuotesInStringsBecomeSingleQuotes)
{
    moLog.initialiseMessage("Quotes", Log::eLogInformation) << "Say \"%1s\" to %2s"
                                                            << "a\"b" << std::string("\"\"") << 3;
    EXPECT_EQ(value(moLog, Key::Arg), "Say '%1s' to %2s");
    EXPECT_EQ(moLog.format(), "Say '%1s' to %2s");
    EXPECT_EQ(value(moLog, "%1s"), "a'b");
    EXPECT_EQ(value(moLog, "%2s"), "''");
}

TEST_F(LogBuild, HtmlAndPlainTextMustHoldText)
{
    LogLines lines;
    moLog.initialiseMessage("Texts", Log::eLogInformation)
        << "%1h %2p %3h %4p" << Html() << PlainText() << Html("<i>x</i>") << PlainText("y");
    EXPECT_EQ(lines.with("Log: cannot log empty html").size(), 1);
    EXPECT_EQ(lines.with("Log: cannot log empty plain text object").size(), 1);
    EXPECT_EQ(value(moLog, "%1h"), Missing);
    EXPECT_EQ(value(moLog, "%2p"), Missing);
    EXPECT_EQ(value(moLog, "%3h"), "<i>x</i>") << "an empty text still takes its number";
    EXPECT_EQ(value(moLog, "%4p"), "y");
    EXPECT_EQ(moLog.counter(), 5u);
}

// ---------------------------------------------------------------------------
// The counter

TEST_F(LogBuild, AStringWithoutItsKeyDoesNotCount)
{
    LogLines lines;
    moLog.initialiseMessage("Counter", Log::eLogInformation) << "%1s %2s" << 5 << "a";
    EXPECT_EQ(value(moLog, "%1s"), Missing) << "the number took %1 as %1i, which is not in the format";
    EXPECT_EQ(value(moLog, "%2s"), "a");
    EXPECT_EQ(lines.with("Log: parameter '%1i' not defined in formatting string").size(), 1)
        << lines.all().join('\n').toStdString();

    moLog.initialiseMessage("Counter", Log::eLogInformation) << "%1i and %2s"
                                                             << "early" << 7 << "late";
    EXPECT_EQ(value(moLog, "%1i"), "7") << "the refused string left the number for the integer";
    EXPECT_EQ(value(moLog, "%2s"), "late");
    EXPECT_EQ(moLog.counter(), 3u);
    EXPECT_EQ(lines.with("Log: parameter '%1s' not defined in formatting string").size(), 1);
}

TEST_F(LogBuild, AnyOtherValueWithoutItsKeyStillCounts)
{
    LogLines lines;
    moLog.initialiseMessage("Counter", Log::eLogInformation) << "%1s" << 5;
    EXPECT_EQ(moLog.counter(), 2u);
    EXPECT_EQ(value(moLog, "%1i"), Missing);
    const QStringList refused = lines.with("Log: parameter");
    ASSERT_EQ(refused.size(), 1);
    EXPECT_TRUE(refused.first().contains("'%1i' not defined in formatting string '%1s'"))
        << refused.first().toStdString();

    moLog.initialiseMessage("Counter", Log::eLogInformation) << "%1i %2s" << 5 << "a";
    EXPECT_EQ(value(moLog, "%1i"), "5");
    EXPECT_EQ(value(moLog, "%2s"), "a");

    // Keys are matched exactly, case included.
    moLog.initialiseMessage("Counter", Log::eLogInformation) << "%1I %2b" << 1 << true;
    EXPECT_EQ(value(moLog, "%1I"), Missing);
    EXPECT_EQ(value(moLog, "%2b"), "true") << "the bad number did not shift the value behind it";
}

TEST_F(LogBuild, EachKindTellsItsMissingKeyInItsOwnWords)
{
    LogLines lines;
    moLog.initialiseMessage("Counter", Log::eLogInformation)
        << "nothing here" << Html("h") << PlainText("p") << DataSize(10) << QDate(2020, 1, 1);
    EXPECT_EQ(lines.with("Log: parameter '%1h' not informatting string").size(), 1)
        << lines.all().join('\n').toStdString();
    EXPECT_EQ(lines.with("Log: parameter '%2p' not found in formatting string").size(), 1);
    EXPECT_EQ(lines.with("Log: parameter '%3c' not found in formatting string").size(), 1);
    EXPECT_EQ(lines.with("Log: parameter '%4d' not defined in formatting string").size(), 1);
    EXPECT_EQ(moLog.counter(), 5u);
    unsigned long long size = 0;
    EXPECT_FALSE(moLog.body().get(size, Key::DataSize));
}

TEST_F(LogBuild, AFormatHoldingTheReaderMarkerIsRefused)
{
    LogLines lines;
    moLog.initialiseMessage("Marker", Log::eLogInformation) << "100%%% done %1s";
    EXPECT_EQ(lines.with("Log: Formatting string malformed").size(), 1);
    EXPECT_EQ(moLog.counter(), 0u);
    EXPECT_EQ(value(moLog, Key::Arg), Missing);

    // So the next string is taken as the format.
    moLog << "Done %1s"
          << "x";
    EXPECT_EQ(value(moLog, Key::Arg), "Done %1s");
    EXPECT_EQ(value(moLog, "%1s"), "x");

    moLog.initialiseMessage("Marker", Log::eLogInformation) << "100%% and %1s"
                                                            << "y";
    EXPECT_EQ(value(moLog, Key::Arg), "100%% and %1s") << "two percent signs are not the marker";
}

TEST_F(LogBuild, ValuesBeforeAFormatAreRefusedAndDoNotCount)
{
    LogLines lines;
    moLog.initialiseMessage("Early", Log::eLogInformation)
        << 1 << true << Html("h") << PlainText() << DataSize(1) << MachineName("m@1");
    EXPECT_EQ(lines.with("Log: no formatting string defined").size(), 6) << lines.all().join('\n').toStdString();
    EXPECT_TRUE(lines.with("cannot log empty").isEmpty()) << "no format is told first";
    EXPECT_EQ(moLog.counter(), 0u);
    moLog << "%1i" << 9;
    EXPECT_EQ(value(moLog, "%1i"), "9");
}

// ---------------------------------------------------------------------------
// A process's start and stop

TEST_F(LogBuild, StateMessagesCarryTheProcessAndItsState)
{
    struct Case {
        Log::LogProcessStateE state;
        const char* text;
        const char* format;
    };
    const Case cases[] = {{Log::eProcessStarting, "Starting", "%1s is starting"},
                          {Log::eProcessStarted, "Started", "%1s has started"},
                          {Log::eProcessShutdown, "Shutdown", "%1s is shutting down"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        Log& same = moLog.initialiseStateLogging("Processes", "Node \"A\" Manager", c.state);
        EXPECT_EQ(&same, &moLog);
        EXPECT_EQ(value(moLog, Key::Category), "Processes");
        unsigned level = 0;
        EXPECT_TRUE(moLog.body().get(level, Key::Level));
        EXPECT_EQ(level, 1u);
        EXPECT_EQ(value(moLog, "LogTagProcessName"), "Node \"A\" Manager");
        EXPECT_EQ(value(moLog, "LogTagProcessState"), c.text);
        EXPECT_EQ(value(moLog, Key::Arg), c.format);
        EXPECT_EQ(value(moLog, "%1s"), "Node 'A' Manager");
        EXPECT_EQ(moLog.counter(), 2u);
    }
}

TEST_F(LogBuild, AnUnknownStateLeavesAMessageWithoutFormat)
{
    LogLines lines;
    moLog.initialiseStateLogging("Processes", "Worker", Log::LogProcessStateE(9));
    EXPECT_EQ(lines.with("Log: unknown process state").size(), 1);
    EXPECT_EQ(value(moLog, Key::Arg), Missing);
    EXPECT_EQ(value(moLog, "LogTagProcessState"), Missing);
    EXPECT_EQ(moLog.counter(), 0u);
}
