// A sender process and a receiver process on one queue, killed with SIGKILL at
// random points and started again: every record sent comes, in order, and a
// record comes twice only when its receiver died before its release was
// confirmed. BREVI_QUEUE_CRASH_ROUNDS sets the number of kills (200 by
// default: some twenty seconds, a minute under the sanitizer).

#include "persistent/spoolcheck.h"
#include "persistent/spoolstatefile.h"

#include "deliveries.h"
#include "persistenttest.h"

#include <QProcess>

#include <cstdlib>
#include <random>

using namespace Brevi;
using BreviTest::Deliveries;

namespace {

class QueueCrashTest : public PersistentTest::Fixture
{
protected:
    // Starts a peer and waits until it has the queue open, so that every
    // round gets some work done however slowly processes start.
    void start(QProcess& peer, const char* side)
    {
        peer.start(QUEUE_PEER, {side, path("queue")});
        ASSERT_TRUE(peer.waitForStarted(10000)) << side;
        ASSERT_TRUE(peer.canReadLine() || peer.waitForReadyRead(10000)) << side;
        ASSERT_EQ(peer.readLine(), QByteArray("ready 0\n")) << side;
    }
    // Kills a peer that must still be running.
    void kill(QProcess& peer, const char* side)
    {
        peer.kill();
        peer.waitForFinished(10000);
        ASSERT_EQ(peer.exitStatus(), QProcess::CrashExit)
            << side << " ended with " << peer.exitCode() << ": " << peer.readAllStandardOutput().constData();
    }
};

} // namespace

TEST_F(QueueCrashTest, KilledSendersAndReceiversLoseAndRepeatNothingReleased)
{
    const char* setting = std::getenv("BREVI_QUEUE_CRASH_ROUNDS");
    const int rounds = setting ? std::atoi(setting) : 200;
    std::mt19937 random(515);
    Deliveries deliveries;
    QProcess sender;
    QProcess receiver;
    ASSERT_NO_FATAL_FAILURE(start(sender, "send"));
    ASSERT_NO_FATAL_FAILURE(start(receiver, "receive"));
    for (int round = 0; round < rounds; ++round) {
        // Waiting on the receiver keeps its output flowing into the test.
        ASSERT_FALSE(receiver.waitForFinished(int(5 + random() % 60)))
            << "round " << round << ": the receiver ended with " << receiver.exitCode() << ": "
            << receiver.readAllStandardOutput().right(200).constData();
        ASSERT_TRUE(deliveries.take(receiver.readAllStandardOutput())) << "round " << round;
        const unsigned victim = random() % 5;
        if (victim != 2 && victim != 3) {
            ASSERT_NO_FATAL_FAILURE(kill(sender, "sender"));
        }
        if (victim >= 2) {
            ASSERT_NO_FATAL_FAILURE(kill(receiver, "receiver"));
            ASSERT_TRUE(deliveries.take(receiver.readAllStandardOutput())) << "round " << round;
            deliveries.restart();
        }
        if (victim == 4) {
            SpoolReport report;
            ASSERT_TRUE(SpoolCheck::check(path("queue"), report)) << "round " << round << ":\n"
                                                                  << report.problems.join('\n').toStdString();
        }
        if (sender.state() != QProcess::Running) {
            ASSERT_NO_FATAL_FAILURE(start(sender, "send"));
        }
        if (receiver.state() != QProcess::Running) {
            ASSERT_NO_FATAL_FAILURE(start(receiver, "receive"));
        }
    }
    ASSERT_NO_FATAL_FAILURE(kill(sender, "sender"));

    // The receiver drains what was sent for good.
    SpoolStateFile state;
    SpoolState written;
    ASSERT_TRUE(state.open(path("queue")) && state.readWriteState(written));
    const quint64 sent = written.count;
    for (int wait = 0; wait < 300 && !(deliveries.next() == sent && deliveries.confirmed()); ++wait) {
        ASSERT_FALSE(receiver.waitForFinished(100));
        ASSERT_TRUE(deliveries.take(receiver.readAllStandardOutput()));
    }
    ASSERT_NO_FATAL_FAILURE(kill(receiver, "receiver"));
    ASSERT_TRUE(deliveries.take(receiver.readAllStandardOutput()));
    EXPECT_EQ(deliveries.next(), sent) << "every record sent came";
    SpoolReport report;
    ASSERT_TRUE(SpoolCheck::check(path("queue"), report)) << report.problems.join('\n').toStdString();
    EXPECT_EQ(report.read.count, sent) << "and was released";
    EXPECT_GT(sent, quint64(rounds) * 10) << "the sender got some way each round";
    std::printf("%llu records, %u came twice, %d kills\n", static_cast<unsigned long long>(sent),
                deliveries.duplicates(), rounds);
}
