#ifndef TESTS_SUPPORT_SPOOLCRASH_H
#define TESTS_SUPPORT_SPOOLCRASH_H

#include "persistent/spoolcheck.h"
#include "persistent/spoolstatefile.h"

#include <QByteArray>
#include <QList>
#include <QProcess>

#include <gtest/gtest.h>

#include <cstdio>
#include <random>

namespace BreviTest {

// What the receiving peer of a spool's crash test said, across all its lives:
// "got N" when record N came and "rel N" once its release returned, one line
// a write (spoolrecords.h). Records must come in order; one comes again only
// first thing after a restart of a receiver that was killed between its "got"
// and its "rel", which is what delivery at least once allows.
class Deliveries
{
public:
    // A new receiver process starts.
    void restart() { mbFirst = true; }

    ::testing::AssertionResult take(const QByteArray& output)
    {
        msRest += output;
        int end;
        while ((end = msRest.indexOf('\n')) >= 0) {
            const QByteArray line = msRest.left(end);
            msRest.remove(0, end + 1);
            const QList<QByteArray> words = line.split(' ');
            const quint64 number = words.value(1).toULongLong();
            if (words.value(0) == "got") {
                if (mbFirst && !mbConfirmed && number + 1 == mullNext) {
                    ++muiDuplicates;
                } else if (number != mullNext) {
                    return ::testing::AssertionFailure() << "got " << number << " where " << mullNext << " was due"
                                                         << (mbFirst ? " after a restart" : "");
                }
                mullNext = number + 1;
                mbConfirmed = false;
                mbFirst = false;
            } else if (words.value(0) == "rel" && number + 1 == mullNext) {
                mbConfirmed = true;
            } else {
                return ::testing::AssertionFailure() << "the receiver said: " << line.constData();
            }
        }
        return ::testing::AssertionSuccess();
    }

    quint64 next() const { return mullNext; }
    bool confirmed() const { return mbConfirmed; }
    unsigned duplicates() const { return muiDuplicates; }

private:
    QByteArray msRest;
    quint64 mullNext = 0;
    bool mbConfirmed = true;
    bool mbFirst = true;
    unsigned muiDuplicates = 0;
};

// The crash test of a spool, for a peer program that takes "send BASE" or
// "receive BASE", prints "ready 0" once it has the spool open and then what
// Deliveries reads: a sender and a receiver killed with SIGKILL at random
// points and started again, `rounds` times, with the spool checked now and
// then while both are down; then the sender is killed for good and the
// receiver drains the spool. Every record sent must have come, in order, and
// been released. Prints the records sent and the ones a restarted receiver
// got again.

namespace SpoolCrash {

// Starts a peer and waits until it has the spool open, so that every round
// gets some work done however slowly processes start.
inline void start(QProcess& peer, const QString& program, const char* side, const QString& base)
{
    peer.start(program, {side, base});
    ASSERT_TRUE(peer.waitForStarted(10000)) << side;
    ASSERT_TRUE(peer.canReadLine() || peer.waitForReadyRead(20000)) << side;
    ASSERT_EQ(peer.readLine(), QByteArray("ready 0\n")) << side;
}

// Kills a peer that must still be running.
inline void kill(QProcess& peer, const char* side)
{
    peer.kill();
    peer.waitForFinished(10000);
    ASSERT_EQ(peer.exitStatus(), QProcess::CrashExit)
        << side << " ended with " << peer.exitCode() << ": " << peer.readAllStandardOutput().constData();
}

} // namespace SpoolCrash

inline void crashRounds(const QString& program, const QString& base, int rounds, unsigned seed)
{
    using namespace SpoolCrash;
    std::mt19937 random(seed);
    Deliveries deliveries;
    QProcess sender;
    QProcess receiver;
    ASSERT_NO_FATAL_FAILURE(start(sender, program, "send", base));
    ASSERT_NO_FATAL_FAILURE(start(receiver, program, "receive", base));
    for (int round = 0; round < rounds; ++round) {
        // Waiting on the receiver keeps its output flowing into the test.
        ASSERT_FALSE(receiver.waitForFinished(int(5 + random() % 60)))
            << "round " << round << ": the receiver ended with " << receiver.exitCode() << ": "
            << receiver.readAllStandardOutput().right(200).constData();
        ASSERT_TRUE(deliveries.take(receiver.readAllStandardOutput())) << "round " << round;
        const unsigned victim = random() % 5;
        if (victim != 2 && victim != 3)
            ASSERT_NO_FATAL_FAILURE(kill(sender, "sender"));
        if (victim >= 2) {
            ASSERT_NO_FATAL_FAILURE(kill(receiver, "receiver"));
            ASSERT_TRUE(deliveries.take(receiver.readAllStandardOutput())) << "round " << round;
            deliveries.restart();
        }
        if (victim == 4) {
            Brevi::SpoolReport report;
            ASSERT_TRUE(Brevi::SpoolCheck::check(base, report)) << "round " << round << ":\n"
                                                                << report.problems.join('\n').toStdString();
        }
        if (sender.state() != QProcess::Running)
            ASSERT_NO_FATAL_FAILURE(start(sender, program, "send", base));
        if (receiver.state() != QProcess::Running)
            ASSERT_NO_FATAL_FAILURE(start(receiver, program, "receive", base));
    }
    ASSERT_NO_FATAL_FAILURE(kill(sender, "sender"));

    // The receiver drains what was sent for good.
    Brevi::SpoolStateFile state;
    Brevi::SpoolState written;
    ASSERT_TRUE(state.open(base) && state.readWriteState(written));
    const quint64 sent = written.count;
    for (int wait = 0; wait < 300 && !(deliveries.next() == sent && deliveries.confirmed()); ++wait) {
        ASSERT_FALSE(receiver.waitForFinished(100));
        ASSERT_TRUE(deliveries.take(receiver.readAllStandardOutput()));
    }
    ASSERT_NO_FATAL_FAILURE(kill(receiver, "receiver"));
    ASSERT_TRUE(deliveries.take(receiver.readAllStandardOutput()));
    EXPECT_EQ(deliveries.next(), sent) << "every record sent came";
    Brevi::SpoolReport report;
    ASSERT_TRUE(Brevi::SpoolCheck::check(base, report)) << report.problems.join('\n').toStdString();
    EXPECT_EQ(report.read.count, sent) << "and was released";
    EXPECT_GT(sent, quint64(rounds) * 10) << "the sender got some way each round";
    std::printf("%llu records, %u came again after a receiver's restart, %d kills\n",
                static_cast<unsigned long long>(sent), deliveries.duplicates(), rounds);
}

} // namespace BreviTest

#endif
