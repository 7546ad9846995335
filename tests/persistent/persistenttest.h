#ifndef TESTS_PERSISTENT_PERSISTENTTEST_H
#define TESTS_PERSISTENT_PERSISTENTTEST_H

#include "tracelines.h"

#include <QFile>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace PersistentTest {

// A scratch directory and a trace ring of the test's own on the thread, so
// that a test can look at the lines its calls wrote.
class Fixture : public BreviTest::TraceTest<>
{
protected:
    QString path(const QString& name) const { return moDir.path() + "/" + name; }

    // Bytes of a file, from `offset` on, all or `count` of them.
    static QByteArray fileBytes(const QString& file, qint64 offset = 0, qint64 count = -1)
    {
        QFile in(file);
        if (!in.open(QIODevice::ReadOnly) || !in.seek(offset))
            return QByteArray();
        return count < 0 ? in.readAll() : in.read(count);
    }
    // Writes `bytes` at `offset`, making the file if need be.
    static void patch(const QString& file, qint64 offset, const QByteArray& bytes)
    {
        QFile out(file);
        ASSERT_TRUE(out.open(QIODevice::ReadWrite));
        ASSERT_TRUE(out.seek(offset));
        ASSERT_EQ(out.write(bytes), bytes.size());
    }

    // The lines written since the last look, and whether one of them holds
    // `text`.
    QStringList newLines() { return moReader.nextTexts(); }
    ::testing::AssertionResult traced(const QString& text) { return moReader.saw(text); }

    QTemporaryDir moDir;
    BreviTest::TraceReader moReader{moTrace};
};

// A checker's report (BlockFileReport, BPlusTreeReport) that must be sound,
// with its faults when it is not.
template <typename Report>
::testing::AssertionResult sound(const Report& report)
{
    if (report.sound())
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "not sound: " << report.problems.join("; ").toStdString();
}

} // namespace PersistentTest

#endif
