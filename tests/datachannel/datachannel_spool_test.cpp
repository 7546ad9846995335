// The file transport: a stream between this process and a helper process,
// and its files gone after discard; ends killed with SIGKILL at random points
// and started again, with every record arriving in order and only the ones
// delivery at least once allows coming twice; and spools damaged on disk,
// each refused with its reason and never read past.

#include "dcfixture.h"
#include "spoolcrash.h"

#include "testhome.h"
#include "tracelines.h"

#include "core/extent.h"
#include "messaging/msgcatalogue.h"
#include "persistent/rawfile.h"

#include <QDir>
#include <QFile>

#include <cstdlib>

using namespace Brevi;
using namespace Brevi::Catalogue;
using namespace DcTest;

namespace {

class Spool : public Channels
{};

TEST_F(Spool, AStreamFromAnotherProcessArrivesWholeAndDiscardRemovesItsFiles)
{
    const QString base = moHome.path() + "/stream";
    runAttached(
        [&] {
            streamFromPeer("File:" + base, streamBytes(64ull << 20), [&](Datachannel& channel) {
                EXPECT_EQ(channel.transport(), Datachannel::File);
                unsigned long long left = 1;
                EXPECT_EQ(channel.availableBufferCount(left), Datachannel::eOk);
                EXPECT_EQ(left, 0u);
                channel.close();
                Datachannel::discard(Datachannel::sendDetails(base, 1, 1));
                EXPECT_EQ(QDir(moHome.path()).entryList({"stream*"}, QDir::Files), QStringList());
            });
        },
        "tester");
}

TEST_F(Spool, AReaderWaitingInAnotherProcessIsWokenByEachRecord)
{
    const QString base = moHome.path() + "/paced";
    const unsigned records = 20;
    runAttached(
        [&] {
            HubTest::ChildProcess sender(HubTest::childProgram(), {"send", "dcsender", "tester",
                                                                   QString::number(records), "File:" + base, "paced"});
            MsgAddress source;
            Datachannel channel = accept(&source, 60);
            ASSERT_TRUE(channel.isValid());
            const auto start = std::chrono::steady_clock::now();
            for (unsigned i = 0; i < records; ++i) {
                Extent record;
                ASSERT_EQ(channel.getReceiveBufferPolled(record), Datachannel::eOk);
                EXPECT_EQ(record.size(), 1u);
                channel.releaseBuffer();
                Msg(source, Next, XmlList()).send(true);
            }
            // Left to its heartbeat, a reader would see each record up to a
            // second late.
            EXPECT_LT(secondsSince(start), records * 0.2);
            int status = -1;
            EXPECT_TRUE(sender.waitExit(30000, &status));
            EXPECT_EQ(status, 0);
        },
        "tester");
}

// DATACHANNEL_CRASH_ROUNDS sets the number of kills (200 by default). A record
// comes again only when the receiver was killed between handing it out and
// writing its release; that is the one delivery at least once allows.
TEST(SpoolCrash, KilledSendersAndReceiversLoseNothingAndRepeatOnlyWhatWasNotReleased)
{
    BreviTest::TestHome home;
    const char* setting = std::getenv("DATACHANNEL_CRASH_ROUNDS");
    BreviTest::crashRounds(SPOOL_PEER, home.path() + "/spool", setting ? std::atoi(setting) : 200, 4242);
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
