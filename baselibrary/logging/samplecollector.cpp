#include "logging/samplecollector.h"

#include <QDateTime>

namespace Brevi {

namespace {
const QString TimeKey = QStringLiteral("Time");
const QString CurrentSlotKey = QStringLiteral("Current Slot");
const QString SlotCountKey = QStringLiteral("Slot Count");
const QString SampleKey = QStringLiteral("Sample");
const QString NumberKey = QStringLiteral("Number");
const QString TotalKey = QStringLiteral("Total");
const QString CountKey = QStringLiteral("Count");
} // namespace

SampleCollector::SampleCollector(int secondsPerSlot, int slotCount, const Clock& clock)
    : miSecondsPerSlot(secondsPerSlot)
    , miSlotCount(slotCount)
    , miWindow(secondsPerSlot * slotCount)
    , moClock(clock)
{}

qint64 SampleCollector::now() const { return moClock ? moClock() : QDateTime::currentSecsSinceEpoch(); }

void SampleCollector::expire(qint64 time)
{
    // A slot stays while its start plus the window has not passed; the list
    // is newest first, so the old ones are at its end.
    while (!moSlots.isEmpty() && qint64(miSecondsPerSlot) * moSlots.last().number + miWindow < time)
        moSlots.removeLast();
}

void SampleCollector::addSample(long long value)
{
    boost::mutex::scoped_lock lock(moMutex);
    const qint64 time = now();
    const qint32 current = qint32(time / miSecondsPerSlot);
    expire(time);
    if (!moSlots.isEmpty() && moSlots.first().number == current) {
        moSlots.first().total += value;
        ++moSlots.first().count;
    } else {
        moSlots.prepend(Slot{current, value, 1});
    }
}

XmlList SampleCollector::getSamples() const
{
    boost::mutex::scoped_lock lock(moMutex);
    const qint64 time = now();
    XmlList result;
    result.set(TimeKey, int(time));
    result.set(CurrentSlotKey, int(time / miSecondsPerSlot));
    result.set(SlotCountKey, miSlotCount);
    for (const Slot& slot : moSlots) {
        XmlList sample;
        sample.set(NumberKey, int(slot.number));
        sample.set(TotalKey, (long long)(slot.total));
        sample.set(CountKey, (long long)(slot.count));
        result.set(SampleKey, sample, XmlList::SetCreate);
    }
    return result;
}

long long SampleCollector::total() const
{
    long long sum = 0;
    for (const Slot& slot : moSlots)
        sum += slot.total;
    return sum;
}

long long SampleCollector::sumSamples()
{
    boost::mutex::scoped_lock lock(moMutex);
    expire(now());
    return total();
}

double SampleCollector::averageSamples()
{
    boost::mutex::scoped_lock lock(moMutex);
    expire(now());
    return moSlots.isEmpty() ? 0.0 : double(total()) / moSlots.size();
}

bool SampleCollector::isActive()
{
    boost::mutex::scoped_lock lock(moMutex);
    expire(now());
    return !moSlots.isEmpty();
}

} // namespace Brevi
