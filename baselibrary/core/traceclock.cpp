#include "core/traceclock.h"

#include <QFile>

#include <ctime>

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#define BREVI_TRACE_COUNTER 1
#endif

namespace Brevi {

namespace {

const long long NanosecondsPerSecond = 1000000000;
// Long enough that the rate measured over it is good to a few millionths.
const long long CalibrationNanoseconds = 20000000;
const long long ResyncNanoseconds = 100000000;

unsigned long long readCounter()
{
#ifdef BREVI_TRACE_COUNTER
    return __rdtsc();
#else
    return 0;
#endif
}

// Only a counter the kernel itself trusts for the time of day runs at one
// rate and agrees between processors.
bool counterKeepsTime()
{
#ifdef BREVI_TRACE_COUNTER
    static const bool keeps = [] {
        QFile source(QStringLiteral("/sys/devices/system/clocksource/clocksource0/current_clocksource"));
        return source.open(QIODevice::ReadOnly) && source.readAll().trimmed() == "tsc";
    }();
    return keeps;
#else
    return false;
#endif
}

long long systemNanoseconds()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * NanosecondsPerSecond + now.tv_nsec;
}

TraceClock::Reading reading(long long nanoseconds)
{
    long long seconds = nanoseconds / NanosecondsPerSecond;
    long long rest = nanoseconds % NanosecondsPerSecond;
    if (rest < 0) {
        --seconds;
        rest += NanosecondsPerSecond;
    }
    return {seconds, unsigned(rest)};
}

} // namespace

TraceClock::TraceClock()
    : mbCounter(counterKeepsTime())
{}

TraceClock::Reading TraceClock::now()
{
    if (mullScale) {
        const unsigned long long elapsed = readCounter() - mullBaseCounter;
        // Also catches a counter read behind the base, as a huge unsigned value.
        if (elapsed < mullResyncTicks)
            return reading(mllBaseNanoseconds + static_cast<long long>((elapsed * mullScale) >> 32));
    }
    return fromSystem(mbCounter ? readCounter() : 0);
}

TraceClock::Reading TraceClock::fromSystem(unsigned long long counter)
{
    const long long nanoseconds = systemNanoseconds();
    if (!mbCounter)
        return reading(nanoseconds);

    const long long interval = nanoseconds - mllBaseNanoseconds;
    const bool haveBase = mullBaseCounter != 0 || mllBaseNanoseconds != 0;
    if (haveBase && interval >= CalibrationNanoseconds && counter > mullBaseCounter) {
        const unsigned long long measured = static_cast<unsigned long long>(
            (static_cast<unsigned __int128>(interval) << 32) / (counter - mullBaseCounter));
        // A clock set meanwhile gives a rate far off the last one: keep the
        // last one then, and only move the base.
        const unsigned long long tolerance = mullScale / 100;
        if (mullScale == 0 || (measured > mullScale - tolerance && measured < mullScale + tolerance)) {
            mullScale = measured;
            mullResyncTicks = (static_cast<unsigned long long>(ResyncNanoseconds) << 32) / mullScale;
        }
    }
    // Until the rate is known the base stays put, so that the interval it is
    // measured over can grow however close together the lines come.
    if (!haveBase || mullScale || interval < 0) {
        mullBaseCounter = counter;
        mllBaseNanoseconds = nanoseconds;
    }
    return reading(nanoseconds);
}

} // namespace Brevi
