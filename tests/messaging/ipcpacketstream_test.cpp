// The send and receive machines on a real loopback pair: a peer that writes
// one byte at a time, stops in mid-packet, sends bad headers or sizes at the
// limits; a sender held up by a full socket; every kind of packet through the
// socket; and the errors that end a link against those that do not.

#include "core/byteorder.h"
#include "core/xmllist.h"
#include "messaging/datamsgpacket.h"
#include "messaging/datapacket.h"
#include "messaging/ipcpacketlayout.h"
#include "messaging/msgpacket.h"

#include "packetlink.h"

#include <QFile>
#include <QRandomGenerator>

#include <boost/make_shared.hpp>

using namespace Brevi;
using namespace BreviTest;
namespace Layout = Brevi::IpcPacketLayout;

namespace {

QByteArray header(unsigned magic, unsigned size)
{
    QByteArray bytes(8, '\0');
    ByteOrder::store32(bytes.data(), magic);
    ByteOrder::store32(bytes.data() + 4, size);
    return bytes;
}

// A framed message packet of exactly `size` bytes, with a body of filler.
QByteArray messageOfSize(unsigned size)
{
    MsgPacket head(address("1/7/node@1"), address("2/3"), "", "Fill", "", QByteArray(), 1, false);
    return bytesOf(MsgPacket(address("1/7/node@1"), address("2/3"), "", "Fill", "",
                             QByteArray(int(size - head.size()), 'f'), 1, false));
}

XmlList bodyOf(int items)
{
    XmlList body;
    for (int i = 0; i < items; ++i)
        body.set(QString("Item%1").arg(i), unsigned(i), XmlList::SetCreate);
    return body;
}

class IpcPacketStreamTest : public PacketTest
{
protected:
    void SetUp() override
    {
        moLink = makeLoopbackLink(WaitLimit);
        ASSERT_TRUE(moLink);
        moReceiver.setSocket(moLink.server);
        moSender.setSocket(moLink.client);
    }

    // Writes raw bytes from the client and receives on the server until
    // something other than eIpcResultAgain comes.
    IpcResult deliver(const QByteArray& bytes)
    {
        EXPECT_TRUE(writeAll(*moLink.client, bytes));
        return receiveWithin(moReceiver);
    }

    // Sends a packet through the machines and hands back what came.
    boost::shared_ptr<IpcPacket> roundTrip(const boost::shared_ptr<IpcPacket>& packet)
    {
        EXPECT_TRUE(moSender.set(packet));
        EXPECT_EQ(sendWithin(moSender), eIpcResultOk);
        EXPECT_TRUE(packet->isTransmitted());
        EXPECT_EQ(receiveWithin(moReceiver), eIpcResultOk);
        return moReceiver.get(1);
    }

    LoopbackLink moLink;
    IpcPacketReceive moReceiver;
    IpcPacketSend moSender;
};

} // namespace

TEST_F(IpcPacketStreamTest, PacketMayArriveOneByteAtATime)
{
    const QByteArray bytes =
        bytesOf(MsgPacket(address("1/7/node@1"), address("2/3"), "a", "TestPost", "c", bodyOf(2), 1, false));
    EXPECT_EQ(moReceiver.missing(), 0u);
    for (int i = 0; i < bytes.size(); ++i) {
        ASSERT_EQ(moLink.client->send(bytes.constData() + i, 1), 1u);
        ASSERT_TRUE(waitFor(*moLink.server, POLLIN));
        const IpcResult result = moReceiver.receive();
        if (i + 1 < bytes.size()) {
            ASSERT_EQ(result, eIpcResultAgain) << "byte " << i;
            ASSERT_FALSE(moReceiver.available());
            // What is still to come: of the header, then of the whole packet.
            const unsigned got = unsigned(i + 1);
            ASSERT_EQ(moReceiver.missing(), got < 8 ? 8 - got : unsigned(bytes.size()) - got) << "byte " << i;
        } else {
            ASSERT_EQ(result, eIpcResultOk);
            EXPECT_EQ(moReceiver.missing(), 0u);
        }
    }
    auto packet = boost::dynamic_pointer_cast<MsgPacket>(moReceiver.get(17));
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->id(), 17u);
    EXPECT_EQ(bytesOf(*packet), bytes);
    EXPECT_FALSE(moReceiver.available());
    EXPECT_EQ(moReceiver.receive(), eIpcResultAgain) << "back in the header state";
    EXPECT_EQ(moReceiver.missing(), 0u);
}

TEST_F(IpcPacketStreamTest, FramingErrorsEndTheLink)
{
    struct Case {
        QByteArray bytes;
        IpcResult result;
        const char* line;
    };
    const Case cases[] = {{header(0x12345678, 100), eIpcResultCorrupt, "Bad magic"},
                          {header(Layout::MessageMagic, 8), eIpcResultTooSmall, "to small, min"},
                          {header(Layout::DataMessageMagic, 65537), eIpcResultTooBig, "to big, max"},
                          {header(Layout::MessageMagic, 0xFFFFFFFF), eIpcResultTooBig, "to big, max"}};
    for (const Case& c : cases) {
        SetUp();
        IpcResult result = eIpcResultOk;
        EXPECT_TRUE(traces([&] { result = deliver(c.bytes); }, TraceAlways, c.line));
        EXPECT_EQ(result, c.result);
        EXPECT_FALSE(moReceiver);
        EXPECT_TRUE(traces([&] { EXPECT_EQ(moReceiver.receive(), eIpcResultClosed); }, TraceNormal,
                           "Attempt to receive on a failed connection"));
        EXPECT_FALSE(moReceiver.get(1));
    }

    // Garbage of any kind ends in a framing error, never in a wait or a crash.
    for (quint32 seed = 1; seed <= 20; ++seed) {
        SetUp();
        QByteArray garbage(64, '\0');
        QRandomGenerator(seed).fillRange(reinterpret_cast<quint32*>(garbage.data()), 16);
        const IpcResult result = deliver(garbage);
        EXPECT_TRUE(result == eIpcResultCorrupt || result == eIpcResultTooSmall || result == eIpcResultTooBig)
            << result;
    }
}

TEST_F(IpcPacketStreamTest, SizesAtTheLimits)
{
    // 9 bytes frame: the packet has no room for its fields and comes out
    // empty, and the link goes on.
    QByteArray nine = header(Layout::MessageMagic, 9) + 'x';
    ASSERT_EQ(deliver(nine), eIpcResultOk);
    auto empty = moReceiver.get(1);
    ASSERT_TRUE(empty);
    EXPECT_FALSE(*empty);
    EXPECT_TRUE(moReceiver);

    const QByteArray largest = messageOfSize(65536);
    ASSERT_EQ(largest.size(), 65536);
    ASSERT_EQ(deliver(largest), eIpcResultOk);
    EXPECT_EQ(bytesOf(*moReceiver.get(2)), largest);

    const QByteArray over = messageOfSize(65537);
    moReceiver.setMaximumSize(65537);
    ASSERT_EQ(deliver(over), eIpcResultOk);
    EXPECT_EQ(moReceiver.get(3)->size(), 65537u);

    // A new socket brings the maximum back down.
    moReceiver.setSocket(moLink.server);
    EXPECT_EQ(moReceiver.maximumSize(), 65536u);
    EXPECT_EQ(deliver(over), eIpcResultTooBig);
}

// The process's address space, from the kernel's own count.
unsigned long long addressSpaceKiB()
{
    QFile status("/proc/self/status");
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("VmSize:"))
            return line.mid(7).trimmed().split(' ').value(0).toULongLong();
    return 0;
}

TEST_F(IpcPacketStreamTest, AClaimedSizeCostsOnlyWhatArrives)
{
    // Writes and reads in turn until the receiver has taken all the bytes.
    const auto feed = [this](const QByteArray& bytes) {
        for (int at = 0; at < bytes.size(); at += 65536) {
            const unsigned missing = moReceiver.missing();
            const QByteArray piece = bytes.mid(at, 65536);
            ASSERT_TRUE(writeAll(*moLink.client, piece));
            while (moReceiver.missing() + unsigned(piece.size()) != missing || !missing) {
                ASSERT_TRUE(waitFor(*moLink.server, POLLIN));
                ASSERT_EQ(moReceiver.receive(), eIpcResultAgain);
                if (!missing && moReceiver.missing())
                    break;
            }
        }
    };
    moReceiver.setMaximumSize(Layout::EnabledMaximumSize);
    const unsigned long long before = addressSpaceKiB();
    ASSERT_GT(before, 0u);
    feed(header(Layout::MessageMagic, 0x7FFFFFF0));
    EXPECT_LT(addressSpaceKiB() - before, 1024u) << "a lie of 2 GiB";
    feed(QByteArray(3 << 20, 'x'));
    EXPECT_EQ(moReceiver.missing(), 0x7FFFFFF0u - 8 - 3 * (1u << 20));
    EXPECT_LT(addressSpaceKiB() - before, 16u * 1024) << "3 MiB that came";

    // A packet that does come whole is gathered to its exact size.
    SetUp();
    moReceiver.setMaximumSize(Layout::EnabledMaximumSize);
    const QByteArray large = messageOfSize(3 * (1 << 20) + 17);
    EXPECT_EQ(deliver(large), eIpcResultOk);
    const boost::shared_ptr<IpcPacket> packet = moReceiver.get(1);
    ASSERT_TRUE(packet && *packet);
    EXPECT_EQ(packet->size(), unsigned(large.size()));
    EXPECT_TRUE(bytesOf(*packet) == large);
}

TEST_F(IpcPacketStreamTest, StreamEndingInMidPacketGivesClosedAndNoPacket)
{
    const QByteArray bytes =
        bytesOf(MsgPacket(address("1/7/node@1"), address("2/3"), "", "TestPost", "", bodyOf(20), 1, false));
    ASSERT_TRUE(writeAll(*moLink.client, bytes.left(bytes.size() / 2)));
    EXPECT_EQ(receiveWithin(moReceiver, 200), eIpcResultTimeout) << "waits for the rest";
    ASSERT_TRUE(moLink.client->shutdown(eTCPShutdownSend));
    EXPECT_TRUE(
        traces([&] { EXPECT_EQ(receiveWithin(moReceiver), eIpcResultClosed); }, TraceAlways, "Socket has closed"));
    EXPECT_FALSE(moReceiver.available());
    EXPECT_FALSE(moReceiver.get(1));
    EXPECT_FALSE(moReceiver);

    // Between packets the end is the normal end of a link.
    SetUp();
    ASSERT_TRUE(writeAll(*moLink.client, bytes));
    ASSERT_EQ(receiveWithin(moReceiver), eIpcResultOk);
    ASSERT_TRUE(moReceiver.get(1));
    moLink.client->close();
    EXPECT_TRUE(
        traces([&] { EXPECT_EQ(receiveWithin(moReceiver), eIpcResultClosed); }, TraceNormal, "Socket has closed"));
}

TEST_F(IpcPacketStreamTest, PacketNotTakenHoldsTheStreamBack)
{
    const QByteArray first = messageOfSize(100);
    const QByteArray second = messageOfSize(200);
    ASSERT_TRUE(writeAll(*moLink.client, first + second));
    ASSERT_EQ(receiveWithin(moReceiver), eIpcResultOk);
    EXPECT_TRUE(traces([&] { EXPECT_EQ(moReceiver.receive(), eIpcResultPending); }, TraceNormal,
                       "Attempt to receive a message when one is pending"));
    EXPECT_EQ(moReceiver.get(1)->size(), 100u);
    ASSERT_EQ(receiveWithin(moReceiver), eIpcResultOk);
    EXPECT_EQ(moReceiver.get(2)->size(), 200u);
}

// Sizes by the layout's formulas, with d = 20, s = 24, a = 3 below.
TEST_F(IpcPacketStreamTest, EveryKindRoundTripsPlainAndCompressed)
{
    const BinaryAddress to = address("4/9/b/a/far@2/near@1");
    const BinaryAddress from = address("1/0/near@1/Worker/Backup");
    auto bodyBytes = [](const QByteArray& plain, bool compress) {
        return unsigned(compress ? qCompress(plain).size() : plain.size());
    };
    for (bool compress : {false, true}) {
        const QByteArray text = bodyOf(50).toBinary();
        auto message = boost::make_shared<MsgPacket>(to, from, "key", "TestRequest", "c7", bodyOf(50), 1, compress);
        auto got = boost::dynamic_pointer_cast<MsgPacket>(roundTrip(message));
        ASSERT_TRUE(got && *got);
        EXPECT_EQ(got->size(), 13u + 20 + 24 + 3 + 11 + 2 + bodyBytes(text, compress));
        EXPECT_EQ(got->isCompressed(), compress);
        EXPECT_EQ(bytesOf(*got), bytesOf(*message));
        EXPECT_TRUE(got->destination() == to && got->source() == from);
        EXPECT_EQ(got->authorization(), "key");
        EXPECT_EQ(got->name(), "TestRequest");
        EXPECT_EQ(got->cookie(), "c7");
        EXPECT_EQ(got->xml().toBinary(), text);

        const QByteArray raw(5000, 'w');
        auto withData = boost::make_shared<DataMsgPacket>(to, from, "key", "TestData", "", bodyOf(3),
                                                          boost::make_shared<Buffer>(raw), 2, compress);
        auto gotData = boost::dynamic_pointer_cast<DataMsgPacket>(roundTrip(withData));
        ASSERT_TRUE(gotData && *gotData);
        EXPECT_EQ(gotData->size(), 17u + 20 + 24 + 3 + 8 + bodyBytes(raw + bodyOf(3).toBinary(), compress));
        EXPECT_EQ(gotData->isCompressed(), compress);
        EXPECT_EQ(gotData->dataSize(), 5000u);
        EXPECT_EQ(gotData->data()->toQByteArray(), raw);
        EXPECT_EQ(gotData->xml().toBinary(), bodyOf(3).toBinary());

        auto data = boost::make_shared<DataPacket>(to, from, "key", 16384, 77, 5);
        const QByteArray payload = QByteArray(8192, 'p') + QByteArray(8192, 'q');
        data->append(Extent(payload));
        ASSERT_TRUE(data->prepareSend(16384, compress));
        auto gotPacket = boost::dynamic_pointer_cast<DataPacket>(roundTrip(data));
        ASSERT_TRUE(gotPacket && *gotPacket);
        EXPECT_EQ(gotPacket->size(), 19u + 20 + 24 + 3 + bodyBytes(payload, compress));
        EXPECT_EQ(gotPacket->isCompressed(), compress);
        EXPECT_EQ(gotPacket->channelId(), 77u);
        EXPECT_EQ(gotPacket->dataId(), 5u);
        ASSERT_TRUE(gotPacket->prepareReceive());
        EXPECT_EQ(gotPacket->data().toQByteArray(), payload);
        EXPECT_FALSE(data->prepared()) << "sent: ready to be filled again";
    }

    // Empty authorization, cookie and body cost one NUL each.
    auto bare = boost::make_shared<MsgPacket>(to, from, "", "TestPost", "", XmlList(), 3, true);
    EXPECT_EQ(roundTrip(bare)->size(), 13u + 20 + 24 + 8);
}

TEST_F(IpcPacketStreamTest, SenderHeldUpByAFullSocketGoesOnAtTheFirstUnsentByte)
{
    // A small send buffer, so that the packet goes out over many calls.
    moLink.client->setSendBufferSize(4096);
    QRandomGenerator random(3);
    QByteArray payload(1 << 20, '\0');
    random.fillRange(reinterpret_cast<quint32*>(payload.data()), payload.size() / 4);
    auto packet = boost::make_shared<DataPacket>(address("2/5"), address("2/6"), "", 1 << 20, 1, 1);
    packet->append(Extent(payload));
    ASSERT_TRUE(packet->prepareSend(1 << 20, true));
    const QByteArray sent = bytesOf(*packet);
    ASSERT_TRUE(moSender.set(packet));
    EXPECT_TRUE(traces([&] { EXPECT_FALSE(moSender.set(packet)); }, TraceAlways, "Already sending a packet"));

    QByteArray arrived;
    unsigned agains = 0;
    unsigned remaining = moSender.remaining();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(WaitLimit);
    for (;;) {
        const IpcResult result = moSender.send();
        if (result == eIpcResultOk)
            break;
        ASSERT_EQ(result, eIpcResultAgain);
        ASSERT_TRUE(moSender.pending());
        ASSERT_LE(moSender.remaining(), remaining);
        remaining = moSender.remaining();
        ++agains;
        // Read what has come, as a slow reader would, then wait until the
        // sender can go on or more has come.
        char chunk[16384];
        while (const unsigned got = moLink.server->recv(chunk, sizeof chunk))
            arrived.append(chunk, int(got));
        pollfd both[] = {{moLink.client->socket(), POLLOUT, 0}, {moLink.server->socket(), POLLIN, 0}};
        ASSERT_GT(::poll(both, 2, remainingOf(deadline)), 0) << "stuck at " << remaining << " bytes";
    }
    EXPECT_GT(agains, 2u);
    EXPECT_FALSE(moSender.pending());
    EXPECT_TRUE(packet->isTransmitted());
    while (arrived.size() < sent.size() && waitFor(*moLink.server, POLLIN, remainingOf(deadline))) {
        char chunk[65536];
        const unsigned got = moLink.server->recv(chunk, sizeof chunk);
        if (!got)
            break;
        arrived.append(chunk, int(got));
    }
    EXPECT_TRUE(arrived == sent) << "no byte lost or sent twice: " << arrived.size() << " of " << sent.size();
}

TEST_F(IpcPacketStreamTest, DeserializeErrorsAndBadAddressesLeaveTheLinkUp)
{
    QByteArray noCookie =
        bytesOf(MsgPacket(address("1/7/node@1"), address("2/3"), "", "TestPost", "c", QByteArray(), 1, false));
    noCookie.chop(1);
    ByteOrder::store32(noCookie.data() + 4, unsigned(noCookie.size()));
    QByteArray badAddress =
        bytesOf(MsgPacket(address("1/7/node@1"), address("2/3"), "", "TestPost", "", bodyOf(1), 1, false));
    badAddress.replace(8, 3, "1//");
    const QByteArray good = messageOfSize(300);

    ASSERT_TRUE(writeAll(*moLink.client, noCookie + badAddress + good));
    EXPECT_TRUE(traces([&] { ASSERT_EQ(receiveWithin(moReceiver), eIpcResultOk); }, TraceAlways,
                       "Message deserialize error: failed to get message cookie"));
    EXPECT_FALSE(*moReceiver.get(1)) << "an empty packet, for the layers above to drop";
    ASSERT_EQ(receiveWithin(moReceiver), eIpcResultOk);
    auto odd = boost::dynamic_pointer_cast<MsgPacket>(moReceiver.get(2));
    ASSERT_TRUE(odd && *odd);
    EXPECT_EQ(odd->destination().type(), eMsgAddressInvalid);
    EXPECT_EQ(odd->name(), "TestPost");
    ASSERT_EQ(receiveWithin(moReceiver), eIpcResultOk);
    EXPECT_EQ(bytesOf(*moReceiver.get(3)), good);
    EXPECT_TRUE(moReceiver);
}

TEST_F(IpcPacketStreamTest, SenderRefusesWhatItCannotSendAndFailsWithItsPeer)
{
    EXPECT_TRUE(traces([&] { EXPECT_EQ(moSender.send(), eIpcResultPending); }, TraceNormal,
                       "Attempt to send a message when none is pending"));
    EXPECT_TRUE(
        traces([&] { EXPECT_FALSE(moSender.set(boost::shared_ptr<IpcPacket>())); }, TraceAlways, "No packet provided"));
    EXPECT_FALSE(moSender.set(boost::make_shared<MsgPacket>()));

    // The peer resets the link: sending fails within a few packets.
    moLink.server->close();
    IpcResult result = eIpcResultOk;
    for (int i = 0; i < 100 && result != eIpcResultClosed; ++i) {
        moSender.set(boost::make_shared<MsgPacket>(address("2/5"), address("2/6"), "", "TestPost", "",
                                                   QByteArray(1000, 'x'), i, false));
        result = sendWithin(moSender);
        if (result == eIpcResultOk)
            waitFor(*moLink.client, POLLERR | POLLHUP, 20);
    }
    EXPECT_EQ(result, eIpcResultClosed);
    EXPECT_FALSE(moSender);
    EXPECT_TRUE(traces([&] { EXPECT_EQ(moSender.send(), eIpcResultClosed); }, TraceNormal,
                       "Attempt to send on a failed connection"));
}
