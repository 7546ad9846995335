// The two text holders a log message can carry.

#include "logging/html.h"
#include "logging/plaintext.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace Brevi;

TEST(LogTexts, TextsAreReadFromFilesBuiltUpAndTurnedToBytes)
{
    QTemporaryDir dir;
    const QByteArray page = "<p>caf\xc3\xa9</p>\r\n";
    QFile file(dir.path() + "/page.html");
    ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write(page) == page.size());
    file.close();
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
