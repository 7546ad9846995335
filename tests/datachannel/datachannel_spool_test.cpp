// The file transport: a stream between this process and a helper process,
// the reader woken as records come; ends killed with SIGKILL at random points
// and started again, with every record arriving in order and only the ones
// delivery at least once allows coming twice; and spools damaged on disk,
// each refused with its reason and never read past.

#include "dcfixture.h"
#include "deliveries.h"
#include "spoolrecords.h"

#include "testhome.h"
#include "tracelines.h"

#include "core/extent.h"
#include "messaging/msgcatalogue.h"
#include "persistent/rawfile.h"
#include "persistent/spoolcheck.h"
#include "persistent/spoolstatefile.h"

#include <QFile>
#include <QProcess>

#include <cstdlib>
#include <random>

using namespace Brevi;
using namespace Brevi::Catalogue;
using namespace DcTest;
using BreviTest::Deliveries;
using HubTest::ChildProcess;

namespace {

class Spool : public Channels
{};

TEST_F(Spool, AStreamFromAnotherProcessArrivesWholeWithTheReaderWokenAsRecordsCome)
{
    const unsigned long long total = streamBytes(64ull << 20);
    const QString base = moHome.path() + "/stream";
    runAttached(
        [&] {
            Catch done(Done);
            const auto start = std::chrono::steady_clock::now();
            ChildProcess sender(HubTest::childProgram(),
                                {"send", "dcsender", "tester", QString::number(total), "File:" + base});
            Datachannel channel = accept(nullptr, 60);
            ASSERT_TRUE(channel.isValid());
            EXPECT_EQ(channel.transport(), Datachannel::File);
            const Counted counted = receiveStream(channel, {}, total);
            const Msg report = done.wait(60);
            EXPECT_EQ(counted.result, Datachannel::eOk);
            EXPECT_EQ(counted.hash, streamHash(total));
            EXPECT_EQ(report.getString("Hash").toLatin1(), counted.hash);
            // A reader left to its one-second heartbeat would take over a
            // second a record here.
            EXPECT_LT(secondsSince(start), 60);
            unsigned long long left = 1;
            EXPECT_EQ(channel.availableBufferCount(left), Datachannel::eOk);
            EXPECT_EQ(left, 0u);
            XmlList details;
            details.set(DatachannelKey::FileBasePath, base);
            details.set(DatachannelKey::Transport, QStringLiteral("File"));
            channel.close();
            Datachannel::discard(details);
            EXPECT_FALSE(QFile::exists(base + ".state"));
        },
        "tester");
}

// Starts a spool peer and waits until its channel is up.
void start(QProcess& peer, const char* side, const QString& base)
{
    peer.start(SPOOL_PEER, {side, base});
    ASSERT_TRUE(peer.waitForStarted(10000)) << side;
    ASSERT_TRUE(peer.canReadLine() || peer.waitForReadyRead(20000)) << side;
    ASSERT_EQ(peer.readLine(), QByteArray("ready 0\n")) << side;
}

void kill(QProcess& peer, const char* side)
{
    peer.kill();
    peer.waitForFinished(10000);
    ASSERT_EQ(peer.exitStatus(), QProcess::CrashExit)
        << side << " ended with " << peer.exitCode() << ": " << peer.readAllStandardOutput().constData();
}

// DATACHANNEL_CRASH_ROUNDS sets the number of kills (200 by default).
TEST(SpoolCrash, KilledSendersAndReceiversLoseNothingAndRepeatOnlyWhatWasNotReleased)
{
    BreviTest::TestHome home;
    const QString base = home.path() + "/spool";
    const char* setting = std::getenv("DATACHANNEL_CRASH_ROUNDS");
    const int rounds = setting ? std::atoi(setting) : 200;
    std::mt19937 random(4242);
    Deliveries deliveries;
    QProcess sender;
    QProcess receiver;
    ASSERT_NO_FATAL_FAILURE(start(sender, "send", base));
    ASSERT_NO_FATAL_FAILURE(start(receiver, "receive", base));
    for (int round = 0; round < rounds; ++round) {
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
            SpoolReport report;
            ASSERT_TRUE(SpoolCheck::check(base, report)) << "round " << round << ":\n"
                                                         << report.problems.join('\n').toStdString();
        }
        if (sender.state() != QProcess::Running)
            ASSERT_NO_FATAL_FAILURE(start(sender, "send", base));
        if (receiver.state() != QProcess::Running)
            ASSERT_NO_FATAL_FAILURE(start(receiver, "receive", base));
    }
    ASSERT_NO_FATAL_FAILURE(kill(sender, "sender"));

    SpoolStateFile state;
    SpoolState written;
    ASSERT_TRUE(state.open(base) && state.readWriteState(written));
    const quint64 sent = written.count;
    for (int wait = 0; wait < 300 && !(deliveries.next() == sent && deliveries.confirmed()); ++wait) {
        ASSERT_FALSE(receiver.waitForFinished(100));
        ASSERT_TRUE(deliveries.take(receiver.readAllStandardOutput()));
    }
    ASSERT_NO_FATAL_FAILURE(kill(receiver, "receiver"));
    ASSERT_TRUE(deliveries.take(receiver.readAllStandardOutput()));
    EXPECT_EQ(deliveries.next(), sent) << "every record sent came";
    SpoolReport report;
    ASSERT_TRUE(SpoolCheck::check(base, report)) << report.problems.join('\n').toStdString();
    EXPECT_EQ(report.read.count, sent) << "and was released";
    EXPECT_GT(sent, quint64(rounds) * 10) << "the sender got some way each round";
    std::printf("%llu records, %u delivered again after a receiver's restart, %d kills\n",
                static_cast<unsigned long long>(sent), deliveries.duplicates(), rounds);
}

// Send details from another context of this process, for a receiver in
// this one.
XmlList fromPeer(const QString& base, unsigned long long page, unsigned size)
{
    XmlList details = Datachannel::sendDetails(base, page, size);
    details.set(DatachannelKey::PeerAddress, MsgAddress(eMsgAddressContext, 99).toXml());
    return details;
}

// Writes `count` records of `size` bytes through a sender with no receiver.
void write(const QString& base, unsigned long long page, unsigned size, int count)
{
    Datachannel out(never(), Datachannel::sendDetails(base, page, size));
    ASSERT_TRUE(out.isValid());
    const QByteArray bytes(int(size), 'r');
    for (int i = 0; i < count; ++i) {
        unsigned sent = 0;
        ASSERT_EQ(out.send(sent, bytes.constData(), size, true), Datachannel::eOk);
    }
}

// A receiver's first result on the spool, and the trace it left.
Datachannel::Result firstFailure(const XmlList& details, int& good)
{
    Datachannel in(never(), details);
    if (!in)
        return Datachannel::eDown;
    Datachannel::Result result;
    Extent buffer;
    for (good = 0; (result = in.getReceiveBuffer(buffer)) == Datachannel::eOk; ++good)
        in.releaseBuffer();
    return result;
}

TEST(SpoolDamage, IsRefusedWithItsReasonAndNeverReadPast)
{
    BreviTest::inContext(
        [] {
            BreviTest::TraceReader trace;
            const QString base = qEnvironmentVariable("BREVI_HOME") + "/spool";
            XmlList tight = fromPeer(base, 50, 100);
            EXPECT_FALSE(Datachannel(never(), tight).isValid());
            EXPECT_TRUE(trace.saw("Invalid page size supplied"));

            // Each case a spool of nine records of 100 bytes (112 on disk) in
            // files of 300: three a file, and a fourth file begun.
            auto patch = [](const QString& path, quint64 at, unsigned value) {
                RawFile file(path, RawFile::eReadWrite);
                unsigned char bytes[4];
                ByteOrder::store32(bytes, value);
                file.writeAt(at, bytes, 4);
            };
            auto second = [](const QString& spool) { return SpoolLayout::dataPath(spool, 2); };
            struct Case {
                const char* expected;
                std::function<void(const QString&)> spoil;
                int good;
            };
            const std::vector<Case> cases = {
                {"Failed to read receive file state", [](const QString& b) { QFile::resize(b + ".state", 30); }, -1},
                {"Failed to read receive file state", [&](const QString& b) { patch(b + ".state", 24, 5); }, -1},
                {"Failed to open next file", [&](const QString& b) { QFile::remove(second(b)); }, 3},
                {"Invalid zero length record", [&](const QString& b) { patch(second(b), 8, 0); }, 3},
                {"Invalid data size", [&](const QString& b) { patch(second(b), 8, 101); }, 3},
                {"Invalid header size", [&](const QString& b) { patch(second(b), 112, 9000); }, 4},
                {"Invalid record type", [&](const QString& b) { patch(second(b), 112 + 4, 7); }, 4},
                // The last record of file 3 cut short under a write state
                // that claims it: its length runs past the file's end.
                {"Failed to read", [](const QString& b) { QFile::resize(SpoolLayout::dataPath(b, 3), 224 + 50); }, 8},
            };
            for (size_t i = 0; i < cases.size(); ++i) {
                const Case& c = cases[i];
                const QString spool = base + QString::number(i);
                ASSERT_NO_FATAL_FAILURE(write(spool, 300, 100, 9));
                c.spoil(spool);
                int good = -1;
                const Datachannel::Result result = firstFailure(fromPeer(spool, 300, 100), good);
                EXPECT_EQ(result, c.good < 0 ? Datachannel::eDown : Datachannel::eReceiveError) << c.expected;
                EXPECT_EQ(good, c.good) << c.expected;
                EXPECT_TRUE(trace.saw(c.expected));
            }
        },
        Context::TypeStandalone);
}

} // namespace
