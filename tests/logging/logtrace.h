#ifndef TESTS_LOGGING_LOGTRACE_H
#define TESTS_LOGGING_LOGTRACE_H

#include "core/trace.h"
#include "core/tracedump.h"
#include "core/traceposition.h"

#include <QString>
#include <QStringList>

#include <gtest/gtest.h>

namespace BreviTest {

// The lines of module `module` the calling thread traced since `start`.
inline QStringList tracedSince(const Brevi::TracePosition& start, unsigned module)
{
    Brevi::TracePosition from = start;
    Brevi::TraceDump dump(nullptr, &from, nullptr);
    QStringList lines;
    while (auto entry = dump.popEntry())
        if (entry->getModuleId() == module)
            lines << entry->getMessage();
    return lines;
}

// Records where the thread's trace stands, so that a test can ask what an
// operation wrote in module LOG after it.
class LogLines
{
public:
    LogLines()
        : moStart(true)
    {}
    QStringList all() const { return tracedSince(moStart, Brevi::TraceModuleLog); }
    // The lines that hold `text`.
    QStringList with(const QString& text) const { return all().filter(text); }
    void restart() { moStart = Brevi::TracePosition(true); }

private:
    Brevi::TracePosition moStart;
};

// A Trace on the test's thread, without a context, with module LOG at full
// detail: enough for a Log to tell what it refused.
class LogTraceTest : public ::testing::Test
{
protected:
    LogTraceTest() { Brevi::Trace::setLevel(Brevi::TraceDebug, Brevi::TraceModuleLog); }
    Brevi::Trace moTrace;
};

} // namespace BreviTest

#endif
