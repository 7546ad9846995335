// Packets without a socket: the sizes of every kind against the layout's
// formulas, compression only where it shrinks, fields read in place from
// received bytes, deserialisation errors that empty a packet, and the layout
// checker on good, cut and mutated bytes.

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

const char* const Destination = "1/7/node@1";
const char* const Source = "4/0/b/a/far@2/near@3/Worker/Backup";

XmlList bodyOf(int items)
{
    XmlList body;
    for (int i = 0; i < items; ++i)
        body.set(QString("Key%1").arg(i), QString("a value that repeats itself"), XmlList::SetCreate);
    return body;
}

QByteArray randomBytes(int n, quint32 seed)
{
    QRandomGenerator random(seed);
    QByteArray bytes(n, '\0');
    for (int i = 0; i < n; ++i)
        bytes[i] = char(random.bounded(256));
    return bytes;
}

Layout::CheckE checkBytes(const QByteArray& bytes, unsigned maximum = Layout::InitialMaximumSize)
{
    // An exact-size block, so that a read past the end is an overrun.
    std::unique_ptr<unsigned char[]> copy(new unsigned char[size_t(bytes.size()) + (bytes.isEmpty() ? 1 : 0)]);
    std::memcpy(copy.get(), bytes.constData(), size_t(bytes.size()));
    return Layout::check(Extent(copy.get(), unsigned(bytes.size())), maximum);
}

using IpcPacketTest = PacketTest;

} // namespace

TEST_F(IpcPacketTest, MessageSizeIsThirteenPlusItsFields)
{
    const QByteArray body = bodyOf(2).toBinary();
    MsgPacket packet(address(Destination), address(Source), "auth", "TestRequest", "c1", body, 4, false);
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet.size(), 13u + 10 + 34 + 4 + 11 + 2 + unsigned(body.size()));
    EXPECT_EQ(Layout::check(packet.buffer()), Layout::eCheckOk);

    MsgPacket bare(address(Destination), address(Source), QByteArray(), "TestPost", QString(), XmlList(), 5, true);
    EXPECT_EQ(bare.size(), 13u + 10 + 34 + 8) << "empty authorization, cookie and body cost one NUL each";
    EXPECT_FALSE(bare.isCompressed()) << "an empty body is never compressed";
    EXPECT_EQ(bare.magic(), Layout::MessageMagic);
}

TEST_F(IpcPacketTest, MessageIsCompressedOnlyWhenThatShrinksIt)
{
    const XmlList body = bodyOf(40);
    MsgPacket plain(address(Destination), address(Source), "", "TestPost", "", body, 1, false);
    MsgPacket packed(address(Destination), address(Source), "", "TestPost", "", body, 1, true);
    EXPECT_EQ(packed.magic(), Layout::CompressedMessageMagic);
    EXPECT_EQ(packed.compression(), eMsgCompressOnSend);
    EXPECT_LT(packed.size(), plain.size());
    EXPECT_EQ(packed.size(), 13u + 10 + 34 + 8 + unsigned(qCompress(body.toBinary()).size()));

    // A few bytes that do not shrink go plain, with the plain magic.
    bool wrote = traces(
        [&] {
            MsgPacket small(address(Destination), address(Source), "", "TestPost", "", QByteArray("<a/>"), 1, true);
            EXPECT_EQ(small.magic(), Layout::MessageMagic);
            EXPECT_EQ(small.compression(), eMsgDoNotCompress);
            EXPECT_EQ(small.size(), 13u + 10 + 34 + 8 + 4);
        },
        TraceNormal, "Uncompressable data, send it uncompressed");
    EXPECT_TRUE(wrote);
}

TEST_F(IpcPacketTest, ReceivedMessageIsReadInPlaceAndItsBodyExpandedOnDemand)
{
    const XmlList body = bodyOf(30);
    for (bool compress : {false, true}) {
        MsgPacket sent(address(Destination), address(Source), "k3y", "TestRequest", "cookie-9", body, 1, compress);
        auto got = receivedFrom<MsgPacket>(bytesOf(sent));
        ASSERT_TRUE(*got);
        EXPECT_TRUE(got->isReceived());
        EXPECT_EQ(got->type(), eIpcTypeMessage);
        EXPECT_EQ(got->destination().id(), 7u);
        EXPECT_EQ(got->source().type(), eMsgAddressRouted);
        EXPECT_EQ(got->authorization(), "k3y");
        EXPECT_EQ(got->name(), "TestRequest");
        EXPECT_EQ(got->cookie(), "cookie-9");
        // The fields are views on the packet's own bytes.
        const Extent whole = got->buffer();
        EXPECT_GE(got->nameExtent().data(), whole.data());
        EXPECT_LE(got->body().data() + got->body().size(), whole.data() + whole.size());
        EXPECT_FALSE(got->isExpanded()) << "nothing expanded before it is asked for";

        bool expanded =
            traces([&] { EXPECT_EQ(got->bodyText(), body.toBinary()); }, TraceNormal, QString("Compressed message,"));
        EXPECT_EQ(expanded, compress);
        const XmlList read = got->xml();
        ASSERT_TRUE(read.isValid());
        QString value;
        EXPECT_TRUE(read.get(value, "Key29"));
        EXPECT_EQ(value, "a value that repeats itself");
    }
}

TEST_F(IpcPacketTest, RouterStepsTheHopInTheBytesItForwards)
{
    MsgPacket sent(address("4/3/c/a/dest@1/mid@2/first@3"), address(Source), "", "TestPost", "", XmlList(), 1, false);
    auto got = receivedFrom<MsgPacket>(bytesOf(sent));
    EXPECT_EQ(got->currentHop(), 1u);
    EXPECT_EQ(got->hopMachine().toQByteArray(), "first@3");
    ASSERT_TRUE(got->increaseHop());
    EXPECT_EQ(got->hopMachine().toQByteArray(), "mid@2");
    EXPECT_TRUE(bytesOf(*got).contains("4/3/c/b/dest@1")) << "the letter changed in the packet's own bytes";
    EXPECT_EQ(Layout::check(got->buffer()), Layout::eCheckOk);
}

TEST_F(IpcPacketTest, DataMessageCarriesRawDataBesideItsBody)
{
    const XmlList body = bodyOf(5);
    auto raw = boost::make_shared<Buffer>(QByteArray(3000, 'r'));
    DataMsgPacket plain(address(Destination), address(Source), "a", "TestData", "c", body, raw, 2, false);
    EXPECT_EQ(plain.size(), 17u + 10 + 34 + 1 + 8 + 1 + 3000 + unsigned(body.toBinary().size()));
    bool wrote = traces(
        [&] {
            DataMsgPacket packed(address(Destination), address(Source), "a", "TestData", "c", body, raw, 2, true);
            EXPECT_EQ(packed.magic(), Layout::CompressedDataMessageMagic);
            EXPECT_LT(packed.size(), plain.size());
        },
        TraceNormal, "Compressed message with data,");
    EXPECT_TRUE(wrote);

    for (bool compress : {false, true}) {
        DataMsgPacket sent(address(Destination), address(Source), "a", "TestData", "c", body, raw, 2, compress);
        auto got = receivedFrom<DataMsgPacket>(bytesOf(sent));
        ASSERT_TRUE(*got);
        EXPECT_EQ(got->dataSize(), 3000u);
        EXPECT_EQ(got->name(), "TestData");
        EXPECT_EQ(got->data()->toQByteArray(), raw->toQByteArray());
        EXPECT_EQ(got->xmlText().toQByteArray(), body.toBinary());
        EXPECT_TRUE(got->xml().isValid());
    }

    // No raw data: the whole block is the XmlList text.
    DataMsgPacket none(address(Destination), address(Source), "", "TestData", "", bodyOf(20), nullptr, 3, true);
    ASSERT_TRUE(none.isCompressed());
    auto got = receivedFrom<DataMsgPacket>(bytesOf(none));
    EXPECT_EQ(got->dataSize(), 0u);
    EXPECT_EQ(got->data()->size(), 0u);
    EXPECT_EQ(got->xmlText().toQByteArray(), bodyOf(20).toBinary());
}

TEST_F(IpcPacketTest, DataPacketIsFilledPreparedSentAndRefilledInOneBuffer)
{
    DataPacket packet(address(Destination), address(Source), "au", 1000, 11, 0);
    EXPECT_EQ(packet.size(), 19u + 10 + 34 + 2 + 1000) << "before prepareSend the whole room";
    const unsigned char* block = packet.buffer().data();

    const QByteArray first = randomBytes(700, 1);
    Extent source(first);
    EXPECT_EQ(packet.append(source), 300u);
    EXPECT_EQ(source.available(), 0u);
    EXPECT_EQ(packet.filled(), 700u);
    EXPECT_FALSE(packet.prepareSend(1001, false)) << "beyond the room";
    ASSERT_TRUE(packet.prepareSend(700, true)) << "random bytes do not shrink";
    EXPECT_FALSE(packet.prepareSend(700, true)) << "prepared already";
    EXPECT_EQ(packet.magic(), Layout::DataMagic);
    EXPECT_EQ(packet.size(), 19u + 10 + 34 + 2 + 700);
    EXPECT_EQ(Layout::check(packet.buffer()), Layout::eCheckOk);

    auto got = receivedFrom<DataPacket>(bytesOf(packet));
    ASSERT_TRUE(got->prepareReceive());
    EXPECT_EQ(got->channelId(), 11u);
    EXPECT_EQ(got->data().toQByteArray(), first);
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
    EXPECT_EQ(packet.size(), 19u + 10 + 34 + 2 + unsigned(qCompress(second).size()));
    EXPECT_EQ(packet.buffer().data(), block) << "the same buffer, refilled";
    got = receivedFrom<DataPacket>(bytesOf(packet));
    ASSERT_TRUE(got->prepareReceive());
    EXPECT_EQ(got->data().toQByteArray(), second);
    EXPECT_EQ(got->available(), 900u);
}

TEST_F(IpcPacketTest, BareMarkNeedsASecondNumber)
{
    DataPacket zero(address(Destination), address(Source), "", 0, 5, 0);
    EXPECT_FALSE(zero.prepareSend(0, false));
    DataPacket mark(address(Destination), address(Source), "", 0, 5, 42);
    ASSERT_TRUE(mark.prepareSend(0, true));
    EXPECT_EQ(mark.size(), 19u + 10 + 34);
    EXPECT_EQ(mark.magic(), Layout::DataMagic) << "nothing to compress";
    auto got = receivedFrom<DataPacket>(bytesOf(mark));
    EXPECT_TRUE(got->prepareReceive());
    EXPECT_EQ(got->dataId(), 42u);
    EXPECT_EQ(got->data().size(), 0u);
}

TEST_F(IpcPacketTest, CrcIsTheXorOfWholeLittleEndianWords)
{
    DataPacket packet(address(Destination), address(Source), "", 16, 1, 1);
    const unsigned char bytes[] = {1, 0, 0, 0, 0, 1, 0, 0, 0xFF, 0xFF};
    packet.append(Extent(bytes, sizeof bytes));
    ASSERT_TRUE(packet.prepareSend(sizeof bytes, false));
    EXPECT_EQ(packet.crc(), 0x101u) << "the two-byte tail is left out";
}

TEST_F(IpcPacketTest, TextIsUtf8AndAFieldWithANulIsRefused)
{
    MsgPacket sent(address(Destination), address(Source), "", QString::fromUtf8("Prüfung"), QString::fromUtf8("ß1"),
                   QByteArray(), 1, false);
    EXPECT_EQ(sent.size(), 13u + 10 + 34 + 8 + 3);
    auto got = receivedFrom<MsgPacket>(bytesOf(sent));
    EXPECT_EQ(got->name(), QString::fromUtf8("Prüfung"));
    EXPECT_EQ(got->cookie(), QString::fromUtf8("ß1"));

    // A NUL would end the field early at the far side: no packet is built.
    EXPECT_TRUE(traces(
        [&] {
            MsgPacket bad(address(Destination), address(Source), QByteArray("a\0b", 3), "N", "", QByteArray(), 1,
                          false);
            EXPECT_FALSE(bad);
        },
        TraceAlways, "holds a NUL byte"));
    EXPECT_FALSE(DataPacket(address(Destination), address(Source), QByteArray(1, '\0'), 10, 1, 1));
    EXPECT_FALSE(MsgPacket(address(Destination), address(Source), "", QString(QChar(0)), "", QByteArray(), 1, false));
}

TEST_F(IpcPacketTest, MissingFieldEmptiesTheReceivedPacket)
{
    MsgPacket sent(address(Destination), address(Source), "a", "Name", "cookie", QByteArray(), 1, false);
    QByteArray bytes = bytesOf(sent);
    // Cut the cookie's NUL off: the size field follows the cut.
    bytes.chop(1);
    Brevi::ByteOrder::store32(bytes.data() + 4, unsigned(bytes.size()));
    EXPECT_EQ(checkBytes(bytes), Layout::eCheckNoCookie);
    boost::shared_ptr<MsgPacket> got;
    EXPECT_TRUE(traces([&] { got = receivedFrom<MsgPacket>(bytes); }, TraceAlways,
                       "Message deserialize error: failed to get message cookie"));
    EXPECT_FALSE(*got);
    EXPECT_TRUE(got->isReceived());
    EXPECT_EQ(got->size(), 0u);
    EXPECT_TRUE(got->name().isEmpty());
    EXPECT_FALSE(got->xml().isValid());

    // A data packet too short for its fixed numbers.
    QByteArray shortData(12, '\0');
    Brevi::ByteOrder::store32(shortData.data(), Layout::DataMagic);
    Brevi::ByteOrder::store32(shortData.data() + 4, 12);
    EXPECT_EQ(checkBytes(shortData), Layout::eCheckNoDestination);
    EXPECT_TRUE(traces([&] { EXPECT_FALSE(*receivedFrom<DataPacket>(shortData)); }, TraceAlways,
                       "Data deserialize error: failed to get destination address"));

    // Raw data said to be longer than what is there.
    DataMsgPacket withData(address(Destination), address(Source), "", "N", "", QByteArray("<x/>"),
                           Extent(QByteArray("raw")), 1, false);
    QByteArray lying = bytesOf(withData);
    Brevi::ByteOrder::store32(lying.data() + 8, 100);
    EXPECT_EQ(checkBytes(lying), Layout::eCheckBadDataSize);
    EXPECT_FALSE(*receivedFrom<DataMsgPacket>(lying));
}

TEST_F(IpcPacketTest, UnreadableContentStillArrivesAndSaysSoWhenRead)
{
    // An address that is no flat form is kept as it came.
    MsgPacket sent(address(Destination), address(Source), "", "TestPost", "", bodyOf(1), 1, false);
    QByteArray bytes = bytesOf(sent);
    bytes.replace(8, 10, "9/x/bad@@1");
    EXPECT_EQ(checkBytes(bytes), Layout::eCheckBadDestination);
    EXPECT_EQ(Layout::check(Extent(bytes), Layout::InitialMaximumSize, false), Layout::eCheckOk);
    auto got = receivedFrom<MsgPacket>(bytes);
    ASSERT_TRUE(*got);
    EXPECT_EQ(got->destination().type(), eMsgAddressInvalid);
    EXPECT_EQ(got->name(), "TestPost");

    // A compressed body that does not expand gives an invalid list.
    MsgPacket packed(address(Destination), address(Source), "", "TestPost", "", bodyOf(30), 1, true);
    QByteArray broken = bytesOf(packed);
    broken[broken.size() - 5] = char(broken[broken.size() - 5] ^ 0x5A);
    EXPECT_EQ(checkBytes(broken), Layout::eCheckBadCompression);
    got = receivedFrom<MsgPacket>(broken);
    ASSERT_TRUE(*got);
    EXPECT_TRUE(traces([&] { EXPECT_FALSE(got->xml().isValid()); }, TraceAlways, "Failed to uncompress message body"));

    // A length word that claims far more than its stream can hold.
    QByteArray bomb = bytesOf(packed);
    bomb[int(packed.size() - packed.body().size())] = char(0x7F);
    EXPECT_EQ(checkBytes(bomb), Layout::eCheckBadCompression);
    EXPECT_FALSE(receivedFrom<MsgPacket>(bomb)->xml().isValid());

    DataPacket data(address(Destination), address(Source), "", 4000, 1, 1);
    data.append(Extent(QByteArray(4000, 'd')));
    ASSERT_TRUE(data.prepareSend(4000, true));
    QByteArray badData = bytesOf(data);
    badData.chop(3);
    Brevi::ByteOrder::store32(badData.data() + 4, unsigned(badData.size()));
    EXPECT_EQ(checkBytes(badData), Layout::eCheckBadCompression);
    auto gotData = receivedFrom<DataPacket>(badData);
    ASSERT_TRUE(*gotData);
    EXPECT_TRUE(traces([&] { EXPECT_FALSE(gotData->prepareReceive()); }, TraceAlways, "Failed to uncompress"));
}

TEST_F(IpcPacketTest, CheckerFramesAsAReceiverDoes)
{
    MsgPacket sent(address(Destination), address(Source), "a", "N", "c", bodyOf(3), 1, false);
    const QByteArray bytes = bytesOf(sent);
    EXPECT_EQ(checkBytes(bytes), Layout::eCheckOk);
    for (int n = 0; n < bytes.size(); ++n)
        EXPECT_EQ(checkBytes(bytes.left(n)), Layout::eCheckTruncated) << n;
    EXPECT_EQ(checkBytes(bytes + 'x'), Layout::eCheckTrailingBytes);

    QByteArray header(8, '\0');
    Brevi::ByteOrder::store32(header.data(), 0x12345678);
    Brevi::ByteOrder::store32(header.data() + 4, 8);
    EXPECT_EQ(checkBytes(header), Layout::eCheckBadMagic);
    Brevi::ByteOrder::store32(header.data(), Layout::MessageMagic);
    EXPECT_EQ(checkBytes(header), Layout::eCheckTooSmall);
    Brevi::ByteOrder::store32(header.data() + 4, 65537);
    EXPECT_EQ(checkBytes(header), Layout::eCheckTooBig);
    EXPECT_EQ(checkBytes(header, 65537), Layout::eCheckTruncated);
}

// Every byte changed in turn, and random bytes: the checker and the packet's
// own reading agree on which packets are emptied, and neither reads outside
// the bytes.
TEST_F(IpcPacketTest, MutatedPacketsAreJudgedAlikeByCheckerAndReader)
{
    Trace::setLevel(TraceTesting, TraceModuleMsgPacket);
    Trace::setLevel(TraceTesting, TraceModuleDataPacket);
    DataPacket data(address(Destination), address(Source), "a", 64, 3, 4);
    data.append(Extent(QByteArray(64, 'q')));
    data.prepareSend(64, true);
    const QByteArray originals[] = {
        bytesOf(MsgPacket(address(Destination), address(Source), "a", "N", "c", bodyOf(2), 1, true)),
        bytesOf(DataMsgPacket(address(Destination), address(Source), "a", "N", "c", QByteArray("<x/>"),
                              Extent(QByteArray("raw")), 1, false)),
        bytesOf(data)};
    QRandomGenerator random(7);
    for (const QByteArray& original : originals) {
        for (int round = 0; round < 600; ++round) {
            QByteArray bytes = original;
            const int at = 8 + round % (bytes.size() - 8);
            bytes[at] = round < bytes.size() ? char(0) : char(random.bounded(256));
            const Layout::CheckE verdict = checkBytes(bytes);
            ASSERT_FALSE(Layout::isFramingError(verdict));
            boost::shared_ptr<IpcPacket> got;
            switch (Layout::typeOf(Brevi::ByteOrder::load32(bytes.constData()))) {
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
