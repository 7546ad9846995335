#ifndef TESTS_SUPPORT_TRACELINES_H
#define TESTS_SUPPORT_TRACELINES_H

#include "core/trace.h"
#include "core/traceposition.h"

#include <QString>
#include <QStringList>

#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <vector>

namespace BreviTest {

// Reading a trace ring back, so that a test can check the lines its calls
// wrote. Every check passes when some line holds the given text (and is at
// the given level, when one is given); a failed check lists the lines it
// looked at.

struct TracedLine {
    Brevi::TraceLevelE level;
    unsigned module;
    QString text;
};

// The level argument that accepts a line at any level.
const int AnyLevel = -1;

// The lines written into one ring from the moment the reader was made: the
// calling thread's Trace, as it is at each look, or a given Trace. Each look
// gives only what was written since the one before.
class TraceReader
{
public:
    TraceReader();
    explicit TraceReader(const Brevi::Trace& trace);

    std::vector<TracedLine> next();
    QStringList nextTexts();
    // Success when a line written since the last look holds `text`.
    ::testing::AssertionResult saw(const QString& text, int level = AnyLevel);

private:
    const Brevi::Trace* mpoTrace = nullptr;
    Brevi::TracePosition moNext;
};

// Success when one of `lines` holds `text`.
::testing::AssertionResult hasLine(const std::vector<TracedLine>& lines, const QString& text, int level = AnyLevel);

// The lines `action` wrote on the calling thread.
std::vector<TracedLine> linesOf(const std::function<void()>& action);
// Success when `action` wrote a line at `level` holding `text`.
::testing::AssertionResult traces(const std::function<void()>& action, Brevi::TraceLevelE level, const QString& text);
// The same, when that line is the only one `action` wrote.
::testing::AssertionResult tracesOnce(const std::function<void()>& action, Brevi::TraceLevelE level,
                                      const QString& text);

// Every line a ring holds, oldest first: a buffer that no Trace writes any
// more, shared memory, or a Trace's own.
QStringList ringTexts(const unsigned char* buffer, unsigned size);
QStringList ringTexts(const Brevi::Trace& trace);
// The calling thread's ring.
QStringList ringTexts();

// A fixture for tests that run without a Context: a Trace of its own on the
// test's thread, with a ring large enough to keep every line of a test and
// the given modules at full detail. A failed test prints what was traced.
class TraceTestBase : public ::testing::Test
{
protected:
    explicit TraceTestBase(std::initializer_list<unsigned> modules);
    ~TraceTestBase() override;

    std::vector<unsigned char> moRing;
    Brevi::Trace moTrace;
};

template <unsigned... Modules>
class TraceTest : public TraceTestBase
{
protected:
    TraceTest()
        : TraceTestBase({Modules...})
    {}
};

} // namespace BreviTest

#endif
