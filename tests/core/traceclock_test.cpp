// A trace line's time and source name, made cheaply: the clock against the
// system's, and call sites whose names are made at compile time or not.

#include "core/trace.h"
#include "core/traceclock.h"
#include "core/tracedump.h"
#include "core/tracedumpentry.h"

#include <QThread>

#include <gtest/gtest.h>

#include <ctime>

using namespace Brevi;

namespace {

long long systemNanoseconds()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

TEST(TraceClock, StaysWithinAMillisecondOfTheSystemClockThroughCalibrationAndResyncs)
{
    // 400 ms of readings spans the calibration (20 ms) and several resyncs
    // (every 100 ms), whichever way this machine keeps time.
    TraceClock clock;
    const long long end = systemNanoseconds() + 400000000LL;
    int readings = 0;
    for (long long before = systemNanoseconds(); before < end; before = systemNanoseconds(), ++readings) {
        const TraceClock::Reading now = clock.now();
        const long long after = systemNanoseconds();
        const long long read = now.seconds * 1000000000LL + now.nanoseconds;
        ASSERT_LT(now.nanoseconds, 1000000000u);
        ASSERT_GE(read, before - 1000000) << "reading " << readings;
        ASSERT_LE(read, after + 1000000) << "reading " << readings;
        if (readings % 64 == 0)
            QThread::usleep(200);
    }
}

QString recordedSource(const char* file)
{
    Trace trace;
    Trace* line = Trace::trace(TraceModuleApplication, TraceAlways);
    if (!line)
        return QString("(not traced)");
    line->entry(0, file, 7);
    *line << "x";
    line->flush();
    TraceDump dump(trace, nullptr, nullptr, nullptr);
    boost::shared_ptr<TraceDumpEntry> last;
    while (boost::shared_ptr<TraceDumpEntry> entry = dump.popEntry())
        last = entry;
    return last ? last->getSourceFile() : QString("(no record)");
}

TEST(TraceSite, RecordsTheBaseNameWhetherMadeAtCompileTimeOrNot)
{
    static_assert(TraceSite("/src/a/messaging.cpp").length() == 9, "made by the compiler");
    const struct {
        const char* file;
        const char* source;
        bool made;
    } cases[] = {
        {"/src/messaging/msgqueue.cpp", "msgqueue", true},
        {"C:\\build\\core\\trace.cpp", "trace", true},
        {"relative/name.with.dots.h", "name.with.dots", true},
        {"/src/noextension", "noextension", true},
        {"", "", true},
        // Beyond what a site holds: the Trace makes the name itself.
        {"/src/a_source_file_whose_base_name_runs_past_forty_characters.cpp",
         "a_source_file_whose_base_name_runs_past_forty_characters", false},
        {"/src/d\xc3\xa9j\xc3\xa0.cpp", "d\xc3\xa9j\xc3\xa0", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(TraceSite(c.file).name() != nullptr, c.made) << c.file;
        EXPECT_EQ(recordedSource(c.file), QString::fromUtf8(c.source)) << c.file;
    }
}

} // namespace
