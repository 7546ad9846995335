#ifndef TESTS_MESSAGING_TRACELINES_H
#define TESTS_MESSAGING_TRACELINES_H

#include "core/trace.h"
#include "core/tracedump.h"
#include "core/traceposition.h"

#include <QString>

#include <gtest/gtest.h>

#include <functional>
#include <vector>

namespace BreviTest {

// A line of trace as read back: its level and its text.
struct TraceLine {
    Brevi::TraceLevelE level;
    QString text;
};

// A fixture that owns a Trace on the test's thread with the messaging module
// at full detail, so that the lines an operation writes can be checked.
class MessagingTraceTest : public ::testing::Test
{
protected:
    MessagingTraceTest() { Brevi::Trace::setLevel(Brevi::TraceDebug, Brevi::TraceModuleMsg); }

    // The lines written by `action`.
    std::vector<TraceLine> linesOf(const std::function<void()>& action)
    {
        Brevi::TracePosition start(true);
        action();
        Brevi::TraceDump dump(nullptr, &start, nullptr);
        std::vector<TraceLine> lines;
        while (auto entry = dump.popEntry())
            lines.push_back({ entry->getLevel(), entry->getMessage() });
        return lines;
    }

    // Success when `action` wrote a line at `level` that holds `text`.
    ::testing::AssertionResult traces(
        const std::function<void()>& action, Brevi::TraceLevelE level, const QString& text)
    {
        const std::vector<TraceLine> lines = linesOf(action);
        for (const TraceLine& line : lines) {
            if (line.level == level && line.text.contains(text))
                return ::testing::AssertionSuccess();
        }
        auto failure = ::testing::AssertionFailure()
            << "expected a line at level " << level << " with \"" << text.toStdString() << "\", got:";
        for (const TraceLine& line : lines)
            failure << "\n  [" << line.level << "] " << line.text.toStdString();
        return failure;
    }

    Brevi::Trace moTrace;
};

} // namespace BreviTest

#endif
