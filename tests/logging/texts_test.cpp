// The two text holders a log message can carry: read from files, built up
// line by line, and turned to and from bytes.

#include "logging/html.h"
#include "logging/plaintext.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace Brevi;

namespace {
void write(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(bytes);
}
} // namespace

TEST(LogTexts, TextsAreReadWholeFromAFileAsUtf8)
{
    QTemporaryDir dir;
    const QByteArray html = "<p>caf\xc3\xa9</p>\n<p>two</p>\n";
    write(dir.path() + "/page.html", html);
    write(dir.path() + "/notes.txt", "a\r\nb");
    EXPECT_EQ(Html(dir.path(), "page.html").contents(), QString::fromUtf8(html));
    EXPECT_EQ(PlainText(dir.path(), "notes.txt").contents(), "a\r\nb") << "line ends are kept as they are";

    EXPECT_TRUE(Html(dir.path(), "missing.html").isEmpty());
    EXPECT_TRUE(PlainText(dir.path(), "missing.txt").isEmpty());
    EXPECT_TRUE(PlainText(dir.path() + "/nowhere", "notes.txt").isEmpty());
    EXPECT_TRUE(Html().isEmpty());
    EXPECT_TRUE(PlainText().isEmpty());
}

TEST(LogTexts, PlainTextIsBuiltUpLineByLine)
{
    PlainText text("head");
    text.append(QString(": "));
    text.appendLine("first");
    text.appendLine(QStringList{"second", "third"});
    text.append(QStringList{"x", "y"});
    EXPECT_EQ(text.contents(), "head: first\nsecond\nthird\nxy");
    EXPECT_EQ(text.toString(), text.contents());

    PlainText two;
    two.appendLine(QStringList{"a", "b"});
    EXPECT_EQ(two.contents().split('\n', Qt::SkipEmptyParts).size(), 2);
    EXPECT_TRUE(two.contents().endsWith('\n'));

    text.clear();
    EXPECT_TRUE(text.isEmpty());
}

TEST(LogTexts, TextsGoToAndFromBytesAndStrings)
{
    Html html;
    html.fromBinary("<b>\xe2\x82\xac</b>");
    EXPECT_EQ(html.contents(), QString::fromUtf8("<b>\xe2\x82\xac</b>"));
    EXPECT_EQ(html.toBinary(), QByteArray("<b>\xe2\x82\xac</b>"));
    html.fromString("<i>x</i>");
    EXPECT_EQ(html.toString(), "<i>x</i>");
    html.setContents("");
    EXPECT_TRUE(html.isEmpty());

    PlainText text;
    text.fromBinary("\xc3\xa9t\xc3\xa9");
    EXPECT_EQ(text.contents().size(), 3);
    EXPECT_EQ(text.toBinary(), QByteArray("\xc3\xa9t\xc3\xa9"));
    EXPECT_EQ(PlainText("same"), PlainText(QString("same")));
    EXPECT_NE(Html("a"), Html("b"));
}
