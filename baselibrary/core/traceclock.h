#ifndef BASELIBRARY_CORE_TRACECLOCK_H
#define BASELIBRARY_CORE_TRACECLOCK_H

#include "brevi_export.h"

namespace Brevi {

// The wall clock of trace lines: the time of day to the millisecond, read on
// every line, so it must cost far less than the line itself.
//
// Where the kernel keeps time by the processor's time-stamp counter, the
// clock reads that counter and converts it with a rate it measured against
// the system clock; it asks the system clock again every 100 ms of counter
// time, so that a clock set or slewed meanwhile shows within that interval
// and the rate error never adds up to a millisecond. Elsewhere, and until the
// rate is known (the first 20 ms of lines), each reading asks the system.
// A rate that differs by more than 1% from the last one (the clock was set
// between two readings) is not taken.
//
// One clock belongs to one thread (each Trace has its own) and takes no lock.
class BREVI_EXPORT TraceClock
{
public:
    struct Reading {
        long long seconds;
        unsigned nanoseconds;
    };

    TraceClock();

    // Now, as CLOCK_REALTIME would say it to within a millisecond.
    Reading now();

private:
    Reading fromSystem(unsigned long long counter);

    bool mbCounter = false;
    // Counter and system time of the last time the system was asked.
    unsigned long long mullBaseCounter = 0;
    long long mllBaseNanoseconds = 0;
    // Nanoseconds per tick, times 2^32; 0 while unknown.
    unsigned long long mullScale = 0;
    unsigned long long mullResyncTicks = 0;
};

} // namespace Brevi

#endif
