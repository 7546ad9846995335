// Building a log message without a context: the body's keys, every kind of
// parameter, the quote replacement, the counter (strings and other values
// counted differently), and the start and stop messages of a process.

#include "core/datasize.h"
#include "core/machinename.h"
#include "logging/html.h"
#include "logging/log.h"
#include "logging/plaintext.h"

#include "logtesting.h"

#include <QDate>
#include <QTime>

#include <gtest/gtest.h>

#include <string>

using namespace Brevi;
using BreviTest::items;
using BreviTest::LogLines;

namespace {
class LogBuild : public BreviTest::LogTraceTest
{
protected:
    Log moLog;
};

const QString Head = "BuildNumber=002.02.11698 RC0610";
} // namespace

TEST_F(LogBuild, AMessageHoldsItsHeadTagsFormatAndParameters)
{
    Log::TagList tags;
    Log::addTagToList(tags, "Job", "nightly");
    Log::addTagToList(tags, "Store", "a\"b");
    Log& same = moLog.initialiseMessage("Backup", Log::eLogError, tags);
    EXPECT_EQ(&same, &moLog);
    EXPECT_EQ(items(moLog.body()), "Category=Backup|Level=u3|" + Head + "|LogTagJob=nightly|LogTagStore=a\"b");

    const QString pointed = "pointed";
    LogLines lines;
    moLog.initialiseMessage("Types", Log::eLogInformation)
        << "\"%1s\" %2i %3l %4b %5d %6t %7m %8h %9p %10c %11i %12l %13s %14s %15s %16s %17l"
        << "a\"b" << -42 << -5000000000LL << true << QDate(2024, 2, 29) << QTime(7, 5, 3) << MachineName("node7@4f2a")
        << Html("<b>\"x\"</b>") << PlainText("l1\nl2") << DataSize(1536, DataSize::PrefixKilo) << 4000000000u
        << 18000000000000000000ULL << &pointed << QByteArray("\xc3\xa9") << std::string("std")
        << static_cast<const char*>(nullptr) << 7L;
    EXPECT_EQ(items(moLog.body()),
              "Category=Types|Level=u1|" + Head +
                  "|Arg='%1s' %2i %3l %4b %5d %6t %7m %8h %9p %10c %11i %12l %13s %14s %15s %16s %17l"
                  "|%1s=a'b|%2i=-42|%3l=-5000000000|%4b=true|%5d=2024-02-29|%6t=07:05:03|%7m=node7"
                  "|%8h=<b>\"x\"</b>|%9p=l1\nl2|DataSize=U1536|DataSizePrfix=i2|%11i=4000000000"
                  "|%12l=18000000000000000000|%13s=pointed|%14s=" +
                  QString::fromUtf8("\xc3\xa9") + "|%15s=std|%16s=|%17l=7");
    EXPECT_EQ(moLog.counter(), 18u);
    EXPECT_TRUE(lines.all().isEmpty()) << lines.all().join('\n').toStdString();

    moLog.initialiseMessage("Second", Log::eLogWarning);
    EXPECT_EQ(items(moLog.body()), "Category=Second|Level=u2|" + Head) << "what was built before is dropped";
    EXPECT_EQ(moLog.counter(), 0u);
    Log bare;
    bare << "Disk %1s" << QString("C");
    EXPECT_EQ(items(bare.body()), "Arg=Disk %1s|%1s=C") << "no initialiseMessage, no head";
}

// A string whose key is missing does not count; any other value counts
// whether its key is there or not.
TEST_F(LogBuild, StringsAndOtherValuesCountDifferently)
{
    LogLines lines;
    moLog << "%1s %2s" << 5 << QString("a");
    EXPECT_EQ(items(moLog.body()), "Arg=%1s %2s|%2s=a");
    EXPECT_EQ(lines.count("Log: parameter '%1i' not defined in formatting string '%1s %2s'"), 1)
        << lines.all().join('\n').toStdString();

    moLog.initialiseMessage("C", Log::eLogDebug) << "%1i and %2s" << QString("early") << 7 << QString("late");
    EXPECT_EQ(lines.count("Log: parameter '%1s' not defined in formatting string"), 1);
    EXPECT_TRUE(items(moLog.body()).endsWith("|%1i=7|%2s=late")) << "the string left its number to the integer";

    moLog.initialiseMessage("C", Log::eLogDebug) << "%1I %2b" << 1 << true;
    EXPECT_TRUE(items(moLog.body()).endsWith("|Arg=%1I %2b|%2b=true")) << "keys match case and all";

    moLog.initialiseMessage("Marker", Log::eLogDebug) << "100%%% done";
    EXPECT_EQ(lines.count("Log: Formatting string malformed"), 1);
    moLog << 1 << Html("h") << DataSize(1);
    EXPECT_EQ(lines.count("Log: no formatting string defined"), 3);
    EXPECT_EQ(moLog.counter(), 0u);
    moLog << "100%% of %1s" << QString("x");
    EXPECT_TRUE(items(moLog.body()).endsWith("|Arg=100%% of %1s|%1s=x")) << "the next string is the format";
}

TEST_F(LogBuild, HtmlPlainTextAndSizesRefuseInWordsOfTheirOwn)
{
    LogLines lines;
    moLog << "%1h %2p" << Html() << PlainText() << Html("h") << PlainText("p") << DataSize(10) << QDate(2020, 1, 1);
    EXPECT_EQ(lines.count("Log: cannot log empty html"), 1);
    EXPECT_EQ(lines.count("Log: cannot log empty plain text object"), 1);
    EXPECT_EQ(lines.count("Log: parameter '%3h' not informatting string"), 1) << lines.all().join('\n').toStdString();
    EXPECT_EQ(lines.count("Log: parameter '%4p' not found in formatting string"), 1);
    EXPECT_EQ(lines.count("Log: parameter '%5c' not found in formatting string"), 1);
    EXPECT_EQ(lines.count("Log: parameter '%6d' not defined in formatting string"), 1);
    EXPECT_EQ(items(moLog.body()), "Arg=%1h %2p");
    EXPECT_EQ(moLog.counter(), 7u) << "empty texts and missing keys count all the same";
}

TEST_F(LogBuild, StateMessagesCarryTheProcessAndItsState)
{
    const char* const expected[] = {
        "|LogTagProcessName=Node \"A\"|LogTagProcessState=Starting|Arg=%1s is starting|%1s=Node 'A'",
        "|LogTagProcessName=Node \"A\"|LogTagProcessState=Started|Arg=%1s has started|%1s=Node 'A'",
        "|LogTagProcessName=Node \"A\"|LogTagProcessState=Shutdown|Arg=%1s is shutting down|%1s=Node 'A'"};
    for (int state = Log::eProcessStarting; state <= Log::eProcessShutdown; ++state) {
        moLog.initialiseStateLogging("Processes", "Node \"A\"", Log::LogProcessStateE(state));
        EXPECT_EQ(items(moLog.body()), "Category=Processes|Level=u1|" + Head + expected[state - 1]);
    }
    LogLines lines;
    moLog.initialiseStateLogging("Processes", "Worker", Log::LogProcessStateE(9));
    EXPECT_EQ(lines.count("Log: unknown process state"), 1);
    EXPECT_EQ(items(moLog.body()), "Category=Processes|Level=u1|" + Head + "|LogTagProcessName=Worker")
        << "no format, so that it cannot be sent";
}
