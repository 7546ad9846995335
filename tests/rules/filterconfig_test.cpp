// The filter driver's control file: found through the driver's settings,
// three settings rewritten, every other line kept byte for byte.

#include "core/fixedpath.h"
#include "rules/filterconfig.h"

#include "rulestest.h"
#include "testhome.h"

#include <QDir>
#include <QFile>
#include <QTemporaryFile>

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>

#include <unistd.h>

using namespace Brevi;
using BreviTest::TestHome;

namespace {

class FilterConfigTest : public ::testing::Test
{
protected:
    FilterConfigTest()
        : msPath(moHome.path() + "/driver/control.txt")
    {
        QDir().mkpath(moHome.path() + "/driver");
    }

    void write(const QByteArray& bytes) const
    {
        QFile file(msPath);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(bytes);
    }
    QByteArray read() const { return TestHome::readFile(msPath); }

    TestHome moHome;
    QString msPath;
};

// CRLF ends, a line the driver owns in bytes that are not UTF-8, and no end
// on the last line: all kept.
const QByteArray Control = "# driver settings\r\n"
                           "LogDirectory=/var/log/zorbeck\r\n"
                           "DebugLevel=NORMAL\r\n"
                           "Opaque=\xff\xfe raw\r\n"
                           "RulesFile=/etc/zorbeck/rules\r\n"
                           "DebugToFile=FALSE";

// What `action` writes to the standard error stream.
QString stderrOf(const std::function<void()>& action)
{
    QTemporaryFile capture;
    capture.open();
    std::fflush(stderr);
    const int saved = dup(2);
    dup2(capture.handle(), 2);
    action();
    std::fflush(stderr);
    dup2(saved, 2);
    close(saved);
    capture.seek(0);
    return QString::fromUtf8(capture.readAll());
}

} // namespace

TEST_F(FilterConfigTest, FoundThroughTheDriversSettingsAndReadOnly)
{
    EXPECT_TRUE(FixedPath::initialize());
    FilterConfig missing;
    EXPECT_FALSE(missing);
    EXPECT_TRUE(missing.logDirectory().isEmpty());
    EXPECT_FALSE(missing.save());

    write(Control);
    Config driver;
    driver.set("ControlDir", moHome.path() + "/driver");
    driver.set("ControlFile", "control.txt");
    QDir().mkpath(FixedPath::config());
    ASSERT_TRUE(driver.dumpToFile(FixedPath::config() + "/zorbeck.cfg"));
    const FilterConfig found;
    ASSERT_TRUE(found);
    EXPECT_EQ(found.path(), msPath);
    EXPECT_EQ(found.logDirectory(), "/var/log/zorbeck");
    EXPECT_EQ(found.rulesFile(), "/etc/zorbeck/rules");
    EXPECT_EQ(read(), Control);
}

TEST_F(FilterConfigTest, SaveRewritesTheThreeSettingsAndKeepsEveryOtherByte)
{
    write(Control);
    FilterConfig config(msPath);
    ASSERT_TRUE(config);
    ASSERT_TRUE(config.save());
    EXPECT_EQ(read(), Control) << "nothing noted, nothing changed";

    const QString told = stderrOf([&] {
        EXPECT_TRUE(config.setTraceLevel("tracedebug"));
        EXPECT_TRUE(config.setTraceLevel("TraceNormal"));
        EXPECT_TRUE(config.setTraceLevel("TraceVerbose"));
        EXPECT_FALSE(config.setTraceToFile("sometimes"));
        EXPECT_FALSE(config.setTraceLevel("loud"));
    });
    EXPECT_EQ(told, "Setting filter trace level to DebugLevel=INFORM\n"
                    "Changing filter trace level from DebugLevel=INFORM to DebugLevel=NORMAL\n"
                    "Changing filter trace level from DebugLevel=NORMAL to DebugLevel=INFORM\n"
                    "Unknown filter trace_to_file value: sometimes\n"
                    "Unknown trace level: loud\n");
    EXPECT_FALSE(config.setTraceDirectory(""));
    EXPECT_TRUE(config.setTraceDirectory("/var/log/zorbeck/debug"));
    ASSERT_TRUE(config.save());
    EXPECT_EQ(read(), QByteArray("# driver settings\r\n"
                                 "LogDirectory=/var/log/zorbeck\r\n"
                                 "DebugLevel=INFORM\r\n"
                                 "Opaque=\xff\xfe raw\r\n"
                                 "RulesFile=/etc/zorbeck/rules\r\n"
                                 "DebugToFile=FALSE\r\n"
                                 "DbgDirectory=\\var\\log\\zorbeck\\debug\r\n"));
    EXPECT_FALSE(QFile::exists(msPath + ".new"));

    EXPECT_TRUE(config.setTraceToFile("YES"));
    EXPECT_TRUE(config.setTraceLevel("TraceAlways"));
    ASSERT_TRUE(config.save());
    const QByteArray saved = read();
    EXPECT_TRUE(saved.contains("\r\nDebugLevel=NORMAL\r\n"));
    EXPECT_TRUE(saved.endsWith("DebugToFile=TRUE\r\nDbgDirectory=\\var\\log\\zorbeck\\debug\r\n"));
}

TEST_F(FilterConfigTest, FileWithoutTheKnownKeysGetsTheNotedLinesAppended)
{
    write("Other=1\n");
    FilterConfig config(msPath);
    ASSERT_TRUE(config);
    EXPECT_TRUE(config.logDirectory().isEmpty());
    EXPECT_TRUE(config.setTraceLevel("TraceNormal"));
    ASSERT_TRUE(config.save());
    EXPECT_EQ(read(), QByteArray("Other=1\nDebugLevel=NORMAL\n"));

    // The control file gone: nothing to rewrite, nothing made.
    QFile::remove(msPath);
    EXPECT_FALSE(config.save());
    EXPECT_FALSE(QFile::exists(msPath));
}
