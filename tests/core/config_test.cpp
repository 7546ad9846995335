// Configuration files: load, the version element, save under the version
// check, broken files, and ConfigLocal's first use of the directory tree.

#include "core/config.h"
#include "core/configlocal.h"
#include "core/fixedpath.h"
#include "core/trace.h"

#include "testhome.h"
#include "tracelines.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>

#include <gtest/gtest.h>

using namespace Brevi;
using BreviTest::TestHome;
using BreviTest::traces;

namespace {

class ConfigTest : public ::testing::Test
{
protected:
    ConfigTest()
        : msDir(moHome.path() + "/cfg")
    {
        QDir().mkpath(msDir);
        Trace::setLevel(TraceDebug, TraceModuleConfig);
    }

    QString file(const QString& name) const { return msDir + '/' + name; }

    static void write(const QString& path, const QByteArray& bytes)
    {
        QFile out(path);
        ASSERT_TRUE(out.open(QIODevice::WriteOnly | QIODevice::Truncate));
        out.write(bytes);
    }

    // The number and time attributes of the file's version element.
    static QStringList versionOf(const QString& path)
    {
        QDomDocument document;
        QFile in(path);
        if (!in.open(QIODevice::ReadOnly) || !document.setContent(&in))
            return {};
        const QDomElement version = document.documentElement().firstChildElement("version");
        return {version.attribute("number"), version.attribute("time")};
    }

    TestHome moHome;
    Trace moTrace;
    QString msDir;
};

const QByteArray VersionThree = "<brevixmllist>\n"
                                "    <version number=\"3\" time=\"240101-10:00:00.000\"/>\n"
                                "    <item name=\"A\" argtype=\"single\">\n"
                                "        <value type=\"uint32\">1</value>\n"
                                "    </item>\n"
                                "</brevixmllist>\n";

} // namespace

TEST_F(ConfigTest, MissingFileOrRemoteMachineGiveAnEmptyConfigurationThatCannotBeSaved)
{
    Config missing(file("x.cfg"), "");
    EXPECT_TRUE(missing.isValid() && missing.isEmpty());
    EXPECT_TRUE(missing.fileName().isEmpty());
    missing.set("A", 1u);
    EXPECT_TRUE(traces([&] { EXPECT_FALSE(missing.save()); }, TraceAlways, "Failed to open NULL config file"));
    EXPECT_FALSE(QFile::exists(file("x.cfg")));

    write(file("x.cfg"), VersionThree);
    Config remote(file("x.cfg"), "othermachine");
    EXPECT_TRUE(remote.isValid() && remote.isEmpty());
    EXPECT_TRUE(traces([&] { EXPECT_FALSE(remote.save()); }, TraceAlways, "Remote config not supported yet"));
    EXPECT_EQ(versionOf(file("x.cfg")).value(0), "3");
}

TEST_F(ConfigTest, SavesCountUpAndKeepTheFirstTime)
{
    write(file("plain.cfg"), "<brevixmllist>\n <item argtype=\"single\" name=\"A\">\n"
                             "  <value type=\"string\">a</value>\n </item>\n</brevixmllist>\n");
    Config config(file("plain.cfg"));
    ASSERT_TRUE(config.isValid());
    EXPECT_EQ(config.version(), 0);
    EXPECT_EQ(config.size(), 1);

    ASSERT_TRUE(config.set("B", 2, XmlList::SetModify));
    ASSERT_TRUE(config.save());
    const QStringList first = versionOf(file("plain.cfg"));
    ASSERT_EQ(first.size(), 2);
    EXPECT_EQ(first[0], "1");
    EXPECT_TRUE(QRegularExpression("^\\d{6}-\\d\\d:\\d\\d:\\d\\d\\.\\d{3}$").match(first[1]).hasMatch())
        << first[1].toStdString();

    ASSERT_TRUE(config.save());
    EXPECT_EQ(versionOf(file("plain.cfg")), QStringList({"2", first[1]}));
    EXPECT_EQ(config.version(), 2);

    Config reread(file("plain.cfg"));
    EXPECT_EQ(reread.version(), 2);
    EXPECT_EQ(reread.size(), 2) << "the version element is not an item";
    int b = 0;
    EXPECT_TRUE(reread.get(b, "B"));
    EXPECT_EQ(b, 2);
    EXPECT_EQ(reread.first().name(), "A");
}

TEST_F(ConfigTest, SecondWriterFailsOnTheChangedVersion)
{
    write(file("shared.cfg"), VersionThree);
    Config first(file("shared.cfg"));
    Config second(file("shared.cfg"));
    ASSERT_EQ(first.version(), 3);
    ASSERT_EQ(second.version(), 3);

    first.set("A", 10u);
    ASSERT_TRUE(first.save());
    EXPECT_EQ(versionOf(file("shared.cfg")).value(0), "4");

    second.set("A", 20u);
    EXPECT_TRUE(traces([&] { EXPECT_FALSE(second.save()); }, TraceAlways,
                       "Failed to save config, file has changed from 3 to 4"));
    unsigned value = 0;
    EXPECT_TRUE(second.get(value, "A"));
    EXPECT_EQ(value, 20u) << "the failed save keeps the caller's change";
    EXPECT_EQ(Config(file("shared.cfg")).first("A").getUint32(), 10u) << "the file is left as it was";

    // Reload, apply again, save.
    ASSERT_TRUE(second.load(file("shared.cfg")));
    second.set("A", 20u);
    ASSERT_TRUE(second.save());
    EXPECT_EQ(versionOf(file("shared.cfg")).value(0), "5");
    EXPECT_EQ(Config(file("shared.cfg")).first("A").getUint32(), 20u);

    // The largest number goes round to 1 rather than past the integer.
    write(file("shared.cfg"), QByteArray(VersionThree).replace("\"3\"", "\"2147483647\""));
    Config last(file("shared.cfg"));
    ASSERT_EQ(last.version(), 2147483647);
    EXPECT_TRUE(traces([&] { EXPECT_TRUE(last.save()); }, TraceAlways, "is at its largest, start again at 1"));
    EXPECT_EQ(versionOf(file("shared.cfg")).value(0), "1");
    EXPECT_EQ(Config(file("shared.cfg")).version(), 1);
}

TEST_F(ConfigTest, FileIsPlainXmlIndentedByFour)
{
    Config config;
    write(file("lint.cfg"), "<brevixmllist/>");
    ASSERT_TRUE(config.load(file("lint.cfg")));
    XmlList nested;
    nested.set("Path", QStringLiteral("C:\\Daten & <Grüße> \"x\""));
    config.set("Entry", nested, XmlList::SetCreate);
    config.set("Blob", QByteArray("\0\1\2", 3));
    ASSERT_TRUE(config.save());

    QProcess lint;
    lint.start("xmllint", {"--noout", file("lint.cfg")});
    ASSERT_TRUE(lint.waitForFinished(10000));
    EXPECT_EQ(lint.exitCode(), 0) << lint.readAllStandardError().toStdString();

    const QStringList lines = QString::fromUtf8(TestHome::readFile(file("lint.cfg"))).split('\n');
    ASSERT_GE(lines.size(), 6);
    EXPECT_TRUE(lines[1].startsWith("    <version ")) << lines[1].toStdString();
    EXPECT_TRUE(lines[2].startsWith("    <item ")) << lines[2].toStdString();
    EXPECT_TRUE(lines[3].startsWith("        <item ")) << lines[3].toStdString();
    EXPECT_TRUE(lines[4].startsWith("            <value type=\"string\">C:\\Daten &amp; &lt;Grüße>"))
        << lines[4].toStdString();

    // The same text through the list's own reader.
    EXPECT_TRUE(Config(file("lint.cfg")).first("Entry").listIterator("Path").getString() ==
                QStringLiteral("C:\\Daten & <Grüße> \"x\""));
    EXPECT_TRUE(config.dumpToFile(file("copy.cfg")));
    EXPECT_EQ(TestHome::readFile(file("copy.cfg")), TestHome::readFile(file("lint.cfg")));
    EXPECT_EQ(config.version(), 1) << "dumpToFile leaves the version alone";
    EXPECT_TRUE(traces([&] { EXPECT_FALSE(config.dumpToFile(msDir + "/missing/dir/x.cfg")); }, TraceAlways,
                       "Failed to open or create file"));
}

TEST_F(ConfigTest, TruncatedFileFailsToLoadAndObjectStaysUsable)
{
    QByteArray truncated = VersionThree.left(VersionThree.indexOf("<value") + 10);
    write(file("cut.cfg"), truncated);
    Config config;
    EXPECT_TRUE(traces([&] { EXPECT_FALSE(config.load(file("cut.cfg"))); }, TraceAlways, "Error parsing XML at line"));
    EXPECT_FALSE(config.isValid());
    unsigned value = 0;
    EXPECT_FALSE(config.get(value, "A"));
    EXPECT_FALSE(config.save());
    EXPECT_EQ(TestHome::readFile(file("cut.cfg")), truncated) << "a broken file is not written over";

    write(file("empty.cfg"), "");
    EXPECT_FALSE(config.load(file("empty.cfg"))) << "an empty file is a truncated one";

    EXPECT_TRUE(config.load(file("absent.cfg")));
    EXPECT_TRUE(config.isValid());
    EXPECT_TRUE(config.set("A", 1u));

    // A file broken behind a loaded object's back is not saved over either.
    write(file("later.cfg"), VersionThree);
    Config loaded(file("later.cfg"));
    ASSERT_TRUE(loaded.isValid());
    write(file("later.cfg"), truncated);
    EXPECT_TRUE(traces([&] { EXPECT_FALSE(loaded.save()); }, TraceAlways, "Error parsing XML at line"));
    EXPECT_EQ(TestHome::readFile(file("later.cfg")), truncated);
}

TEST_F(ConfigTest, LocalConfigMakesItsDirectoryAndFile)
{
    ASSERT_TRUE(FixedPath::initialize());
    ASSERT_EQ(FixedPath::config(), moHome.config());
    QDir().mkpath(moHome.path() + "/db");
    write(FixedPath::config(), "a file where the directory belongs");

    ConfigLocal config("local.cfg");
    EXPECT_TRUE(QFileInfo(FixedPath::config()).isDir());
    const QString path = FixedPath::config() + "/local.cfg";
    EXPECT_EQ(config.fileName(), path);
    EXPECT_TRUE(config.isValid());
    EXPECT_EQ(config.version(), 0);
    EXPECT_TRUE(versionOf(path).value(0).isEmpty()) << "created without a version";

    config.set("Setting", true);
    ASSERT_TRUE(config.save());
    EXPECT_EQ(versionOf(path).value(0), "1");

    ConfigLocal again("local.cfg");
    bool setting = false;
    EXPECT_TRUE(again.get(setting, "Setting"));
    EXPECT_TRUE(setting);
    EXPECT_EQ(again.version(), 1);
}

TEST_F(ConfigTest, LocalConfigWithoutHomeHasNoFile)
{
    FixedPath::resetForTesting();
    ConfigLocal config("local.cfg");
    EXPECT_TRUE(config.isValid());
    EXPECT_TRUE(config.fileName().isEmpty());
    EXPECT_FALSE(config.save());
}
