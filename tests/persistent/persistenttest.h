#ifndef TESTS_PERSISTENT_PERSISTENTTEST_H
#define TESTS_PERSISTENT_PERSISTENTTEST_H

#include "core/trace.h"
#include "core/tracedump.h"

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <gtest/gtest.h>

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
    ~Fixture() override { Brevi::Trace::object(nullptr); }

    QString path(const QString& name) const { return moDir.path() + "/" + name; }

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
