#ifndef TESTS_MESSAGING_TRACELINES_H
#define TESTS_MESSAGING_TRACELINES_H

#include "core/trace.h"
#include "core/tracedump.h"
#include "core/traceposition.h"

#include <QString>

#include <gtest/gtest.h>

#include <functional>

namespace BreviTest {

// A fixture that owns a Trace on the test's thread with the messaging module
// at full detail, so that the lines an operation writes can be checked.
class MessagingTraceTest : public ::testing::Test
{
protected:
    MessagingTraceTest() { Brevi::Trace::setLevel(Brevi::TraceDebug, Brevi::TraceModuleMsg); }

    // Success when `action` wrote a line at `level` that holds `text`; the
    // failure lists what was written instead.
    ::testing::AssertionResult traces(
        const std::function<void()>& action, Brevi::TraceLevelE level, const QString& text)
    {
        Brevi::TracePosition start(true);
        action();
        Brevi::TraceDump dump(nullptr, &start, nullptr);
        auto failure = ::testing::AssertionFailure()
            << "expected a line at level " << level << " with \"" << text.toStdString() << "\", got:";
        while (auto entry = dump.popEntry()) {
            if (entry->getLevel() == level && entry->getMessage().contains(text))
                return ::testing::AssertionSuccess();
            failure << "\n  [" << entry->getLevel() << "] " << entry->getMessage().toStdString();
        }
        return failure;
    }

    Brevi::Trace moTrace;
};

} // namespace BreviTest

#endif
