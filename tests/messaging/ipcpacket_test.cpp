// Packets without a socket: compression only where it shrinks, bodies read in
// place and expanded on demand, a data packet refilled in its one buffer,
// deserialisation and content errors, and the layout checker on cut and
// mutated bytes. Sizes and fields through a socket: ipcpacketstream_test.cpp.

#include "core/byteorder.h"
#include "core/xmllist.h"
#include "messaging/datamsgpacket.h"
#include "messaging/datapacket.h"
#include "messaging/ipcpacketlayout.h"
#include "messaging/msgpacket.h"

#include "packetlink.h"

#include <QRandomGenerator>

#include <boost/make_shared.hpp>

using namespace Brevi;
using namespace BreviTest;
namespace Layout = Brevi::IpcPacketLayout;

namespace {

const BinaryAddress To = address("1/7/node@1");
const BinaryAddress From = address("4/0/b/a/far@2/near@3/Worker/Backup");

XmlList bodyOf(int items)
{
    XmlList body;
    for (int i = 0; i < items; ++i)
        body.set(QString("Key%1").arg(i), QString("a value that repeats itself"), XmlList::SetCreate);
    return body;
}

QByteArray randomBytes(int n, quint32 seed)
{
    QByteArray bytes(n, '\0');
    QRandomGenerator random(seed);
    for (char& c : bytes)
        c = char(random.bounded(256));
    return bytes;
}

// Checks a copy in a block of exactly its size, so that a read past the end
// is an overrun the sanitizer sees.
Layout::CheckE checkBytes(const QByteArray& bytes, unsigned maximum = Layout::InitialMaximumSize)
{
    std::unique_ptr<unsigned char[]> copy(new unsigned char[size_t(bytes.size()) + 1]);
    std::memcpy(copy.get(), bytes.constData(), size_t(bytes.size()));
    return Layout::check(Extent(copy.get(), unsigned(bytes.size())), maximum);
}

// The bytes with the size field set to their length.
QByteArray framed(QByteArray bytes)
{
    ByteOrder::store32(bytes.data() + Layout::SizeOffset, unsigned(bytes.size()));
    return bytes;
}

using IpcPacketTest = PacketTest;

} // namespace

TEST_F(IpcPacketTest, CompressedOnlyWhenThatShrinksThePacket)
{
    const XmlList body = bodyOf(40);
    MsgPacket plain(To, From, "", "TestPost", "", body, 1, false);
    MsgPacket packed(To, From, "", "TestPost", "", body, 1, true);
    EXPECT_EQ(packed.magic(), Layout::CompressedMessageMagic);
    EXPECT_EQ(packed.compression(), eMsgCompressOnSend);
    EXPECT_LT(packed.size(), plain.size());
    EXPECT_EQ(MsgPacket(To, From, "", "TestPost", "", XmlList(), 1, true).magic(), Layout::MessageMagic)
        << "an empty body is not tried";
    EXPECT_TRUE(traces(
        [&] {
            MsgPacket small(To, From, "", "TestPost", "", QByteArray("<a/>"), 1, true);
            EXPECT_EQ(small.magic(), Layout::MessageMagic);
            EXPECT_EQ(small.compression(), eMsgDoNotCompress);
        },
        TraceNormal, "Uncompressable data, send it uncompressed"));

    EXPECT_TRUE(traces(
        [&] {
            auto raw = boost::make_shared<Buffer>(QByteArray(3000, 'r'));
            DataMsgPacket withData(To, From, "", "TestData", "", body, raw, 2, true);
            EXPECT_EQ(withData.magic(), Layout::CompressedDataMessageMagic);
        },
        TraceNormal, "Compressed message with data,"));
    // No raw data: the whole block expands to the XmlList text.
    DataMsgPacket none(To, From, "", "TestData", "", body, nullptr, 3, true);
    auto got = receivedFrom<DataMsgPacket>(bytesOf(none));
    EXPECT_EQ(got->dataSize(), 0u);
    EXPECT_EQ(got->data()->size(), 0u);
    EXPECT_EQ(got->xmlText().toQByteArray(), body.toBinary());
}

TEST_F(IpcPacketTest, ReceivedBodyIsAViewUntilItIsAskedFor)
{
    const XmlList body = bodyOf(30);
    for (bool compress : {false, true}) {
        auto got = receivedFrom<MsgPacket>(bytesOf(MsgPacket(To, From, "k", "TestRequest", "c", body, 1, compress)));
        ASSERT_TRUE(*got);
        const Extent whole = got->buffer();
        EXPECT_GE(got->nameExtent().data(), whole.data());
        EXPECT_EQ(got->body().data() + got->body().size(), whole.data() + whole.size());
        EXPECT_FALSE(got->isExpanded());
        EXPECT_EQ(
            bool(traces([&] { EXPECT_EQ(got->bodyText(), body.toBinary()); }, TraceNormal, "Compressed message,")),
            compress);
        QString value;
        EXPECT_TRUE(got->xml().get(value, "Key29"));
    }
}

TEST_F(IpcPacketTest, RouterStepsTheHopInTheBytesItForwards)
{
    auto got = receivedFrom<MsgPacket>(
        bytesOf(MsgPacket(address("4/3/c/a/dest@1/mid@2/first@3"), From, "", "TestPost", "", XmlList(), 1, false)));
    EXPECT_EQ(got->hopMachine().toQByteArray(), "first@3");
    ASSERT_TRUE(got->increaseHop());
    EXPECT_EQ(got->hopMachine().toQByteArray(), "mid@2");
    EXPECT_TRUE(bytesOf(*got).contains("4/3/c/b/dest@1"));
}

TEST_F(IpcPacketTest, DataPacketIsFilledPreparedSentAndRefilledInOneBuffer)
{
    DataPacket packet(To, From, "au", 1000, 11, 0);
    const unsigned char* block = packet.buffer().data();
    const QByteArray first = randomBytes(700, 1);
    Extent source(first);
    EXPECT_EQ(packet.append(source), 300u) << "room left";
    EXPECT_EQ(source.available(), 0u);
    EXPECT_FALSE(packet.prepareSend(1001, false)) << "beyond the room";
    ASSERT_TRUE(packet.prepareSend(700, true));
    EXPECT_FALSE(packet.prepareSend(700, true)) << "prepared already";
    EXPECT_EQ(packet.magic(), Layout::DataMagic) << "random bytes do not shrink";

    auto got = receivedFrom<DataPacket>(bytesOf(packet));
    ASSERT_TRUE(got->prepareReceive());
    QByteArray out(500, '\0');
    Extent into(out);
    EXPECT_EQ(got->take(into), 200u) << "bytes still left in the packet";
    EXPECT_EQ(out, first.left(500));

    packet.transmitted();
    EXPECT_FALSE(packet.prepared());
    EXPECT_EQ(packet.available(), 1000u);
    EXPECT_EQ(Layout::check(packet.buffer()), Layout::eCheckOk) << "its bytes still frame";
    const QByteArray second(900, 'z');
    packet.append(Extent(second));
    ASSERT_TRUE(packet.prepareSend(900, true));
    EXPECT_EQ(packet.magic(), Layout::CompressedDataMagic);
    EXPECT_EQ(packet.buffer().data(), block) << "the same buffer, refilled";
    got = receivedFrom<DataPacket>(bytesOf(packet));
    ASSERT_TRUE(got->prepareReceive());
    EXPECT_EQ(got->data().toQByteArray(), second);
}

TEST_F(IpcPacketTest, BareMarkNeedsASecondNumberAndCrcSkipsTheTail)
{
    EXPECT_FALSE(DataPacket(To, From, "", 0, 5, 0).prepareSend(0, false));
    DataPacket mark(To, From, "", 0, 5, 42);
    ASSERT_TRUE(mark.prepareSend(0, true));
    auto got = receivedFrom<DataPacket>(bytesOf(mark));
    EXPECT_TRUE(got->prepareReceive());
    EXPECT_EQ(got->dataId(), 42u);

    DataPacket packet(To, From, "", 16, 1, 1);
    const unsigned char bytes[] = {1, 0, 0, 0, 0, 1, 0, 0, 0xFF, 0xFF};
    packet.append(Extent(bytes, sizeof bytes));
    ASSERT_TRUE(packet.prepareSend(sizeof bytes, false));
    EXPECT_EQ(packet.crc(), 0x101u);
}

TEST_F(IpcPacketTest, TextIsUtf8AndAFieldWithANulIsRefused)
{
    auto got = receivedFrom<MsgPacket>(bytesOf(
        MsgPacket(To, From, "", QString::fromUtf8("Prüfung"), QString::fromUtf8("ß1"), QByteArray(), 1, false)));
    EXPECT_EQ(got->size(), 13u + 10 + 34 + 8 + 3);
    EXPECT_EQ(got->name(), QString::fromUtf8("Prüfung"));
    EXPECT_EQ(got->cookie(), QString::fromUtf8("ß1"));

    // A NUL would end the field early at the far side: nothing is built.
    EXPECT_TRUE(
        traces([&] { EXPECT_FALSE(MsgPacket(To, From, QByteArray("a\0b", 3), "N", "", QByteArray(), 1, false)); },
               TraceAlways, "holds a NUL byte"));
    EXPECT_FALSE(DataPacket(To, From, QByteArray(1, '\0'), 10, 1, 1));
    EXPECT_FALSE(MsgPacket(To, From, "", QString(QChar(0)), "", QByteArray(), 1, false));
}

TEST_F(IpcPacketTest, BadContentIsFoundWhereItIsRead)
{
    // Too short for a data packet's numbers, or raw data beyond the end: the
    // packet is emptied.
    QByteArray shortData(12, '\0');
    ByteOrder::store32(shortData.data(), Layout::DataMagic);
    shortData = framed(shortData);
    EXPECT_EQ(checkBytes(shortData), Layout::eCheckNoDestination);
    EXPECT_TRUE(traces([&] { EXPECT_FALSE(*receivedFrom<DataPacket>(shortData)); }, TraceAlways,
                       "Data deserialize error: failed to get destination address"));
    QByteArray lying =
        bytesOf(DataMsgPacket(To, From, "", "N", "", QByteArray("<x/>"), Extent(QByteArray("raw")), 1, false));
    ByteOrder::store32(lying.data() + Layout::DataSizeOffset, 100);
    EXPECT_EQ(checkBytes(lying), Layout::eCheckBadDataSize);
    EXPECT_FALSE(*receivedFrom<DataMsgPacket>(lying));

    // An address that is no flat form: only a deep check sees it.
    QByteArray odd = bytesOf(MsgPacket(To, From, "", "TestPost", "", XmlList(), 1, false));
    odd.replace(8, 10, "9/x/bad@@1");
    EXPECT_EQ(checkBytes(odd), Layout::eCheckBadDestination);
    EXPECT_EQ(Layout::check(Extent(odd), Layout::InitialMaximumSize, false), Layout::eCheckOk);

    // Compressed bytes that do not expand, or whose length word claims more
    // than their stream can hold: the packet arrives, its body is invalid.
    MsgPacket packed(To, From, "", "TestPost", "", bodyOf(30), 1, true);
    const int block = int(packed.size() - packed.body().size());
    for (int at : {int(packed.size()) - 5, block}) {
        QByteArray broken = bytesOf(packed);
        broken[at] = char(broken[at] ^ 0x70);
        EXPECT_EQ(checkBytes(broken), Layout::eCheckBadCompression);
        auto got = receivedFrom<MsgPacket>(broken);
        ASSERT_TRUE(*got);
        EXPECT_TRUE(traces([&] { EXPECT_FALSE(got->xml().isValid()); }, TraceAlways, "Failed to uncompress"));
    }
    DataPacket data(To, From, "", 4000, 1, 1);
    data.append(Extent(QByteArray(4000, 'd')));
    ASSERT_TRUE(data.prepareSend(4000, true));
    const QByteArray cut = framed(bytesOf(data).chopped(3));
    EXPECT_EQ(checkBytes(cut), Layout::eCheckBadCompression);
    EXPECT_TRUE(traces([&] { EXPECT_FALSE(receivedFrom<DataPacket>(cut)->prepareReceive()); }, TraceAlways,
                       "Failed to uncompress data packet"));
}

TEST_F(IpcPacketTest, CheckerFramesAsAReceiverDoes)
{
    const QByteArray bytes = bytesOf(MsgPacket(To, From, "a", "N", "c", bodyOf(3), 1, false));
    EXPECT_EQ(checkBytes(bytes), Layout::eCheckOk);
    for (int n = 0; n < bytes.size(); ++n)
        EXPECT_EQ(checkBytes(bytes.left(n)), Layout::eCheckTruncated) << n;
    EXPECT_EQ(checkBytes(bytes + 'x'), Layout::eCheckTrailingBytes);

    QByteArray header(8, '\0');
    ByteOrder::store32(header.data(), 0x12345678);
    EXPECT_EQ(checkBytes(header), Layout::eCheckBadMagic);
    ByteOrder::store32(header.data(), Layout::MessageMagic);
    EXPECT_EQ(checkBytes(framed(header)), Layout::eCheckTooSmall);
    ByteOrder::store32(header.data() + 4, 65537);
    EXPECT_EQ(checkBytes(header), Layout::eCheckTooBig);
    EXPECT_EQ(checkBytes(header, 65537), Layout::eCheckTruncated);
}

// Every byte behind the header set to 0 in turn, then random bytes: checker
// and reader agree on which packets are emptied, and neither reads outside
// the bytes.
TEST_F(IpcPacketTest, MutatedPacketsAreJudgedAlikeByCheckerAndReader)
{
    Trace::setLevel(TraceTesting, TraceModuleMsgPacket);
    Trace::setLevel(TraceTesting, TraceModuleDataPacket);
    DataPacket data(To, From, "a", 64, 3, 4);
    data.append(Extent(QByteArray(64, 'q')));
    data.prepareSend(64, true);
    const QByteArray originals[] = {
        bytesOf(MsgPacket(To, From, "a", "N", "c", bodyOf(2), 1, true)),
        bytesOf(DataMsgPacket(To, From, "a", "N", "c", QByteArray("<x/>"), Extent(QByteArray("raw")), 1, false)),
        bytesOf(data)};
    QRandomGenerator random(7);
    for (const QByteArray& original : originals) {
        for (int round = 0; round < 600; ++round) {
            QByteArray bytes = original;
            const int at = 8 + round % (bytes.size() - 8);
            bytes[at] = round < bytes.size() ? char(0) : char(random.bounded(256));
            const Layout::CheckE verdict = checkBytes(bytes);
            boost::shared_ptr<IpcPacket> got;
            switch (Layout::typeOf(ByteOrder::load32(bytes.constData()))) {
            case eIpcTypeMessage:
                got = receivedFrom<MsgPacket>(bytes);
                static_cast<MsgPacket&>(*got).xml();
                break;
            case eIpcTypeDataMessage:
                got = receivedFrom<DataMsgPacket>(bytes);
                static_cast<DataMsgPacket&>(*got).xml();
                break;
            default:
                got = receivedFrom<DataPacket>(bytes);
                static_cast<DataPacket&>(*got).prepareReceive();
            }
            EXPECT_EQ(bool(*got), !Layout::isDeserializeError(verdict)) << Layout::checkText(verdict) << at;
        }
    }
    for (int round = 0; round < 300; ++round)
        EXPECT_NE(checkBytes(randomBytes(round, quint32(round))), Layout::eCheckOk);
}

// Each packet kind written out by hand from the layout, not by the helpers
// the sender and receiver share: the sender must produce these bytes and the
// receiver must read them. The compressed forms carry a zlib stream of one
// stored block, which any inflater reads; what the sender compresses is
// checked through its header and the block's expansion.
TEST_F(IpcPacketTest, WireBytesAreTheLayoutWrittenOutByHand)
{
    const QByteArray fields = QByteArray("1/7/node@1\0"
                                         "1/7/peer@2\0"
                                         "au\0"
                                         "TestPost\0"
                                         "ck\0",
                                         37);
    const QByteArray addresses = fields.left(25);
    const auto hex = [](const char* text) { return QByteArray::fromHex(text); };
    const BinaryAddress peer = address("1/7/peer@2");

    const QByteArray message = hex("8DECC4DE 31000000") + fields + "<a/>";
    EXPECT_EQ(bytesOf(MsgPacket(To, peer, "au", "TestPost", "ck", QByteArray("<a/>"), 1, false)), message);
    auto got = receivedFrom<MsgPacket>(message);
    ASSERT_TRUE(*got);
    EXPECT_EQ(got->destination().text().toQByteArray(), "1/7/node@1");
    EXPECT_EQ(got->source().text().toQByteArray(), "1/7/peer@2");
    EXPECT_EQ(got->authorization(), "au");
    EXPECT_EQ(got->name(), "TestPost");
    EXPECT_EQ(got->cookie(), "ck");
    EXPECT_EQ(got->bodyText(), "<a/>");

    // qCompress block: big-endian expanded length, zlib header, one stored
    // block (length, its complement), the bytes, Adler-32.
    got = receivedFrom<MsgPacket>(hex("8DC4ECDE 40000000") + fields + hex("00000004 7801 010400FBFF") + "<a/>" +
                                  hex("02B3010B"));
    ASSERT_TRUE(*got);
    EXPECT_EQ(got->compression(), eMsgCompressOnSend);
    EXPECT_EQ(got->bodyText(), "<a/>");
    const QByteArray longBody = "<a>" + QByteArray(300, 'x') + "</a>";
    const QByteArray packed = bytesOf(MsgPacket(To, peer, "au", "TestPost", "ck", longBody, 1, true));
    ASSERT_GT(packed.size(), 45);
    EXPECT_EQ(packed.left(4), hex("8DC4ECDE"));
    EXPECT_EQ(ByteOrder::load32(packed.constData() + 4), unsigned(packed.size()));
    EXPECT_EQ(packed.mid(8, 37), fields);
    EXPECT_EQ(qUncompress(packed.mid(45)), longBody);

    const QByteArray dataMessage = hex("9EFDD5EF 38000000 03000000") + fields + "raw<a/>";
    EXPECT_EQ(bytesOf(DataMsgPacket(To, peer, "au", "TestPost", "ck", QByteArray("<a/>"), Extent(QByteArray("raw")), 1,
                                    false)),
              dataMessage);
    for (const QByteArray& bytes : {dataMessage, hex("9ED5FDEF 47000000 03000000") + fields +
                                                     hex("00000007 7801 010700F8FF") + "raw<a/>" + hex("0A6D0255")}) {
        auto withData = receivedFrom<DataMsgPacket>(bytes);
        ASSERT_TRUE(*withData);
        EXPECT_EQ(withData->name(), "TestPost");
        EXPECT_EQ(withData->dataSize(), 3u);
        EXPECT_EQ(withData->data()->toQByteArray(), "raw");
        EXPECT_EQ(withData->xmlText().toQByteArray(), "<a/>");
    }

    const QByteArray data = hex("DEC4EC8D 30000000 0B000000 2A000000") + addresses + "payload";
    DataPacket sent(To, peer, "au", 7, 11, 42);
    sent.append(Extent(QByteArray("payload")));
    ASSERT_TRUE(sent.prepareSend(7, false));
    EXPECT_EQ(bytesOf(sent), data);
    for (const QByteArray& bytes : {data, hex("DEECC48D 3F000000 0B000000 2A000000") + addresses +
                                              hex("00000007 7801 010700F8FF") + "payload" + hex("0BDD02EB")}) {
        auto channel = receivedFrom<DataPacket>(bytes);
        ASSERT_TRUE(channel->prepareReceive());
        EXPECT_EQ(channel->channelId(), 11u);
        EXPECT_EQ(channel->dataId(), 42u);
        EXPECT_EQ(channel->source().text().toQByteArray(), "1/7/peer@2");
        EXPECT_EQ(channel->data().toQByteArray(), "payload");
    }
}
