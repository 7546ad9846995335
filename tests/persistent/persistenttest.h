#ifndef TESTS_PERSISTENT_PERSISTENTTEST_H
#define TESTS_PERSISTENT_PERSISTENTTEST_H

#include "core/trace.h"
#include "core/tracedump.h"

#include <QFile>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdio>
#include <vector>

namespace PersistentTest {

// A scratch directory and a trace ring of the test's own on the thread, so
// that a test can look at the lines its calls wrote.
class Fixture : public ::testing::Test
{
protected:
    Fixture()
        : moRing(1 << 20)
    {
        moTrace.initializeBuffer(moRing.data(), unsigned(moRing.size()), false);
        Brevi::Trace::object(&moTrace);
    }
    // A failed test shows what its calls traced.
    ~Fixture() override
    {
        if (HasFailure()) {
            Brevi::TraceDump dump(moTrace, nullptr, nullptr, nullptr);
            while (auto entry = dump.popEntry())
                std::printf("trace: %s\n", entry->getMessage().toLocal8Bit().constData());
        }
        Brevi::Trace::object(nullptr);
    }

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

    // The messages written since the last call, oldest first.
    QStringList newLines()
    {
        Brevi::TraceDump dump(moTrace, nullptr, &moSeen, nullptr);
        QStringList lines;
        while (auto entry = dump.popEntry())
            lines << entry->getMessage();
        moSeen = dump.next();
        return lines;
    }

    // True when a line written since the last look holds `text`.
    bool traced(const QString& text)
    {
        const QStringList lines = newLines();
        for (const QString& line : lines) {
            if (line.contains(text))
                return true;
        }
        return false;
    }

    QTemporaryDir moDir;
    std::vector<unsigned char> moRing;
    Brevi::Trace moTrace;
    Brevi::TracePosition moSeen;
};

} // namespace PersistentTest

#endif
