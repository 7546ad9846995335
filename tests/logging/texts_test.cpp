// The text holders a log message can carry, and the screens for the log's
// viewer.

#include "logging/html.h"
#include "logging/plaintext.h"
#include "logging/uiscreen.h"

#include "logtesting.h"

#include <QDomDocument>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace Brevi;

namespace {
void write(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
}
} // namespace

TEST(LogTexts, TextsAreReadFromFilesBuiltUpAndTurnedToBytes)
{
    QTemporaryDir dir;
    const QByteArray page = "<p>caf\xc3\xa9</p>\r\n";
    write(dir.path() + "/page.html", page);
    EXPECT_EQ(Html(dir.path(), "page.html").contents(), QString::fromUtf8(page)) << "whole, as UTF-8";
    EXPECT_EQ(PlainText(dir.path(), "page.html").toBinary(), page);
    EXPECT_TRUE(Html(dir.path(), "missing.html").isEmpty());
    EXPECT_TRUE(PlainText(dir.path() + "/nowhere", "page.html").isEmpty());

    PlainText text("head");
    text.append(QString(": "));
    text.appendLine("first");
    text.appendLine(QStringList{"second", "third"});
    text.append(QStringList{"x", "y"});
    EXPECT_EQ(text.contents(), "head: first\nsecond\nthird\nxy");
    text.clear();
    EXPECT_TRUE(text.isEmpty());

    Html html;
    html.fromBinary("<b>\xe2\x82\xac</b>");
    EXPECT_EQ(html.toString(), QString::fromUtf8("<b>\xe2\x82\xac</b>"));
}

using UiScreens = BreviTest::LogTraceTest;

TEST_F(UiScreens, ADefinitionCarriesItsAttributesAndTakesNewOnes)
{
    BreviTest::LogLines lines;
    QTemporaryDir dir;
    write(dir.path() + "/job.xml", "<?xml version=\"1.0\"?>\n<screen><field name=\"job\"/></screen>");
    QDomDocument values;
    QDomElement first = values.createElement("Values");
    first.setAttribute("job", "nightly");
    UiScreen screen(dir.path() + "/job.xml", first);
    EXPECT_FALSE(screen.isNull());
    EXPECT_EQ(lines.count("UiScreen: set xml contents from"), 1) << lines.all().join('\n').toStdString();

    QDomElement second = values.createElement("Values");
    second.setAttribute("job", "weekly");
    screen.setAttributeValues(second);
    // What the viewer gets: the root, the definition, the attributes.
    QDomDocument sent;
    ASSERT_TRUE(sent.setContent(screen.toString()));
    const QDomElement root = sent.documentElement();
    EXPECT_EQ(root.tagName(), "root");
    EXPECT_EQ(root.firstChildElement().tagName(), "LogDaemonUiScreenDefinition");
    EXPECT_EQ(root.firstChildElement().firstChildElement("screen").firstChildElement().attribute("name"), "job");
    const QDomElement attributes = root.lastChildElement();
    EXPECT_EQ(attributes.tagName(), "LogDaemonUiScreenAttributes");
    EXPECT_EQ(attributes.childNodes().size(), 1) << "replaced, not added to";
    EXPECT_EQ(attributes.firstChildElement("Values").attribute("job"), "weekly");
    EXPECT_EQ(screen.attributes().firstChildElement().attribute("job"), "weekly");

    // A definition that is not XML, or not there, leaves a bare root.
    write(dir.path() + "/broken.xml", "<screen>\n<field></screen>");
    UiScreen broken(dir.path() + "/broken.xml", first);
    EXPECT_EQ(lines.count("line 2 column"), 1) << lines.all().join('\n').toStdString();
    UiScreen missing(dir.path() + "/missing.xml");
    for (UiScreen* bare : {&broken, &missing}) {
        bare->setAttributeValues(second);
        EXPECT_TRUE(bare->isNull() && bare->attributes().isNull());
        EXPECT_EQ(bare->toString(), "<root/>");
    }
}
