// The sliding window of samples, on a clock the test moves by hand.

#include "core/xmllistiterator.h"
#include "logging/samplecollector.h"

#include "logtesting.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using namespace Brevi;

namespace {

// Slots of 10 s, three of them: a window of 30 s.
class Samples : public ::testing::Test
{
protected:
    // "number:total/count" for each slot of the report, newest first.
    QString listed() const
    {
        const XmlList report = moCollector.getSamples();
        QStringList result;
        for (XmlListIterator it = report.first("Sample"); !it.isNull(); it.next("Sample")) {
            const XmlList slot = it.getXmlList();
            int number = 0;
            long long total = 0, count = 0;
            slot.get(number, "Number");
            slot.get(total, "Total");
            slot.get(count, "Count");
            result << QString("%1:%2/%3").arg(number).arg(total).arg(count);
        }
        return result.join(' ');
    }

    std::atomic<long long> mllNow{1000};
    SampleCollector moCollector{10, 3, [this] { return mllNow.load(); }};
};

} // namespace

TEST_F(Samples, SlotsFillAndLeaveTheWindowByTheClock)
{
    EXPECT_FALSE(moCollector.isActive());
    EXPECT_EQ(moCollector.sumSamples(), 0);
    EXPECT_EQ(moCollector.averageSamples(), 0.0) << "an average of nothing";

    moCollector.addSample(5);
    mllNow = 1009;
    moCollector.addSample(-2);
    mllNow = 1010;
    moCollector.addSample(7);
    mllNow = 1029;
    moCollector.addSample(1);
    EXPECT_EQ(listed(), "102:1/1 101:7/1 100:3/2") << "one record per slot, newest first";
    EXPECT_EQ(moCollector.sumSamples(), 11);
    EXPECT_DOUBLE_EQ(moCollector.averageSamples(), 11.0 / 3) << "per slot, not per sample";

    // Slot 100 starts at 1000 and stays while 1000 + 30 is not below the
    // time.
    mllNow = 1030;
    EXPECT_EQ(moCollector.sumSamples(), 11);
    mllNow = 1031;
    EXPECT_EQ(moCollector.sumSamples(), 8);
    EXPECT_EQ(listed(), "102:1/1 101:7/1") << "gone from the list, not only from the sum";
    mllNow = 1050;
    EXPECT_TRUE(moCollector.isActive());
    mllNow = 1051;
    EXPECT_FALSE(moCollector.isActive()) << "a window's length after the last sample";
    EXPECT_EQ(moCollector.averageSamples(), 0.0);

    const XmlList report = moCollector.getSamples();
    int time = 0, current = 0, count = 0;
    EXPECT_TRUE(report.get(time, "Time") && report.get(current, "Current Slot") && report.get(count, "Slot Count"));
    EXPECT_EQ(time, 1051);
    EXPECT_EQ(current, 105);
    EXPECT_EQ(count, 3);
}

TEST_F(Samples, ThreadsAddingAtOnceLoseNothing)
{
    const int threads = 8;
    const int each = 20000;
    std::vector<std::thread> adders;
    for (int t = 0; t < threads; ++t)
        adders.emplace_back([this, t] {
            for (int i = 0; i < each; ++i) {
                moCollector.addSample(t + 1);
                // Time moves on under the adders, across slot boundaries.
                if (t == 0 && i % 1000 == 0)
                    ++mllNow;
            }
        });
    for (std::thread& adder : adders)
        adder.join();
    EXPECT_EQ(moCollector.sumSamples(), (long long)(each)*threads * (threads + 1) / 2);
    long long counted = 0;
    const XmlList report = moCollector.getSamples();
    for (XmlListIterator it = report.first("Sample"); !it.isNull(); it.next("Sample")) {
        long long count = 0;
        EXPECT_TRUE(it.getXmlList().get(count, "Count"));
        counted += count;
    }
    EXPECT_EQ(counted, (long long)(each)*threads);
}
