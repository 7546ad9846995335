#ifndef BASELIBRARY_LOGGING_SAMPLECOLLECTOR_H
#define BASELIBRARY_LOGGING_SAMPLECOLLECTOR_H

#include "brevi_export.h"
#include "core/xmllist.h"

#include <QList>
#include <QtGlobal>

#include <boost/function.hpp>
#include <boost/thread/mutex.hpp>

namespace Brevi {

// A sliding window of numeric samples, so that a process can report a sum or
// an average over the last minutes (bytes sent, files seen) without keeping
// every sample. Time is cut into slots of `secondsPerSlot`; each slot keeps
// only the total and the count of the samples that fell into it, and a slot
// goes once its start lies more than the window (`secondsPerSlot` times
// `slotCount`) in the past.
//
//     SampleCollector sent(60, 15);          // the last quarter of an hour
//     sent.addSample(bytes);                 // from any thread
//     BREVI_LOG("Transfer", Log::eLogInformation) << "%1l bytes sent lately" << sent.sumSamples();
//
// Slot numbers are Unix seconds divided by `secondsPerSlot`, so two
// collectors with the same slot length agree on where slots begin.
// `secondsPerSlot` must be positive.
//
// Threads: every public member takes the collector's mutex, so any thread
// may add and read at the same time. Not copyable.
//
// Failure: none to report. An empty collector sums to 0 and averages to 0.
class BREVI_EXPORT SampleCollector
{
public:
    // Unix seconds now. A collector asks it at each call; tests give one they
    // move by hand.
    typedef boost::function<qint64()> Clock;

    // An empty collector on the system clock, or on `clock` when one is given.
    SampleCollector(int secondsPerSlot, int slotCount, const Clock& clock = Clock());
    SampleCollector(const SampleCollector&) = delete;
    SampleCollector& operator=(const SampleCollector&) = delete;

    // Counts `value` into the current slot, starting it if need be; slots
    // that have left the window go first.
    void addSample(long long value);

    // The slots as they stand (nothing is expired for this), for a report:
    // "Time" (Unix seconds, int32), "Current Slot" and "Slot Count" (the
    // collector's slot count; int32 both), then one "Sample" list per slot,
    // newest first, with "Number" (int32), "Total" and "Count" (int64).
    XmlList getSamples() const;

    // The total of every slot still in the window.
    long long sumSamples();
    // That total over the number of slots that hold it: an average per slot,
    // not per sample; 0 when no slot is left.
    double averageSamples();
    // True while some slot is in the window.
    bool isActive();

    int secondsPerSlot() const { return miSecondsPerSlot; }
    int slotCount() const { return miSlotCount; }

private:
    struct Slot {
        qint32 number;
        qint64 total;
        qint64 count;
    };

    qint64 now() const;
    // Drops the oldest slots that have left the window at `time`. Mutex held.
    void expire(qint64 time);
    // The sum of the slots' totals. Mutex held.
    long long total() const;

    mutable boost::mutex moMutex;
    int miSecondsPerSlot;
    int miSlotCount;
    int miWindow;
    // Newest first.
    QList<Slot> moSlots;
    Clock moClock;
};

} // namespace Brevi

#endif
