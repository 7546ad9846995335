// BinaryAddress: reading the flat forms of received text, stepping the hop of
// a routed form in the very bytes, refusing bad text without reading outside
// it, and the raw-bytes equality and hash that key the queue table.

#include "messaging/binaryaddress.h"
#include "messaging/binaryaddresslayout.h"

#include "tracelines.h"

#include <QHash>

#include <cstring>
#include <memory>

using namespace Brevi;
using namespace BreviTest;

namespace {

// Received text in a block of exactly its size, with no terminator behind it,
// so that the address sanitizer catches any read past the end.
class Received
{
public:
    explicit Received(const QByteArray& text)
        : mpData(new char[size_t(text.size())])
        , muiSize(unsigned(text.size()))
    {
        std::memcpy(mpData.get(), text.constData(), muiSize);
    }
    QByteArray bytes() const { return QByteArray(mpData.get(), int(muiSize)); }
    BinaryAddress borrowed() const
    {
        BinaryAddress address;
        address.fromRawData(mpData.get(), muiSize);
        return address;
    }

private:
    std::unique_ptr<char[]> mpData;
    unsigned muiSize;
};

QByteArray bytesOf(const Extent& extent) { return extent.toQByteArray(); }
BinaryAddress copied(const QByteArray& text) { return BinaryAddress(Extent(text)); }

using BinaryAddressTest = BreviTest::TraceTest<TraceModuleMsg>;

} // namespace

TEST_F(BinaryAddressTest, RoutedTextStepsThroughItsHopsInPlace)
{
    Received text("4/7/b/a/X/Y");
    BinaryAddress address = text.borrowed();
    EXPECT_EQ(address.type(), eMsgAddressRouted);
    EXPECT_EQ(address.id(), 7u);
    EXPECT_EQ(bytesOf(address.machine()), "X");
    EXPECT_EQ(bytesOf(address.hops()), "X/Y");
    EXPECT_EQ(address.currentHop(), 1u);
    EXPECT_EQ(bytesOf(address.hopMachine()), "Y") << "the first hop";

    ASSERT_TRUE(address.increaseHop());
    EXPECT_EQ(text.bytes(), "4/7/b/b/X/Y") << "the letter changes in the received bytes";
    EXPECT_EQ(address.currentHop(), 2u);
    EXPECT_EQ(bytesOf(address.hopMachine()), "X");
    EXPECT_FALSE(address.increaseHop()) << "the destination is the last hop";

    ASSERT_TRUE(address.decreaseHop());
    EXPECT_EQ(text.bytes(), "4/7/b/a/X/Y");
    EXPECT_EQ(bytesOf(address.hopMachine()), "Y");
    EXPECT_FALSE(address.decreaseHop());

    // A logical destination three hops away, visited in order.
    Received logical("4/0/c/a/Z/Y/X/svc/grp");
    address = logical.borrowed();
    EXPECT_EQ(bytesOf(address.name()), "svc");
    EXPECT_EQ(bytesOf(address.group()), "grp");
    QList<QByteArray> visited{bytesOf(address.hopMachine())};
    while (address.increaseHop())
        visited << bytesOf(address.hopMachine());
    EXPECT_EQ(visited, QList<QByteArray>({"X", "Y", "Z"}));
}

TEST_F(BinaryAddressTest, OtherFormsHaveTheirPiecesAndNeverCountHops)
{
    struct Case {
        QByteArray text;
        MsgAddressType type;
        unsigned id;
        QByteArray machine, name, group;
    };
    for (const Case& c :
         {Case{"1/5/node@1", eMsgAddressAttached, 5, "node@1", "", ""},
          Case{"1/0/m/name/group", eMsgAddressAttached, 0, "m", "name", "group"},
          Case{"1/0/m/name", eMsgAddressAttached, 0, "m", "name", ""}, Case{"2/12", eMsgAddressContext, 12, "", "", ""},
          Case{"3/1", eMsgAddressHub, 1, "", "", ""}}) {
        SCOPED_TRACE(c.text.toStdString());
        Received text(c.text);
        BinaryAddress address = text.borrowed();
        EXPECT_EQ(address.type(), c.type);
        EXPECT_EQ(address.id(), c.id);
        EXPECT_EQ(bytesOf(address.machine()), c.machine);
        EXPECT_EQ(bytesOf(address.hopMachine()), c.machine);
        EXPECT_EQ(bytesOf(address.name()), c.name);
        EXPECT_EQ(bytesOf(address.group()), c.group);
        EXPECT_EQ(address.currentHop(), 0u);
        EXPECT_FALSE(address.increaseHop());
        EXPECT_FALSE(address.decreaseHop());
        EXPECT_EQ(text.bytes(), c.text);
    }
}

TEST_F(BinaryAddressTest, CopyStartsAtTheFirstHopWhileBorrowedTextKeepsItsLetter)
{
    Received text("4/7/b/b/X/Y");
    const BinaryAddress received = text.borrowed();
    EXPECT_EQ(received.currentHop(), 2u);
    const BinaryAddress fresh(received.text());
    EXPECT_EQ(bytesOf(fresh.text()), "4/7/b/a/X/Y");
    EXPECT_EQ(bytesOf(fresh.hopMachine()), "Y");
    EXPECT_EQ(text.bytes(), "4/7/b/b/X/Y") << "the source is left alone";

    // A copy of a borrowed address owns its bytes.
    BinaryAddress copy(received);
    ASSERT_TRUE(copy.decreaseHop());
    EXPECT_EQ(text.bytes(), "4/7/b/b/X/Y");
    EXPECT_EQ(copy, received) << "the current hop is no part of equality";
}

TEST_F(BinaryAddressTest, BadTextIsDroppedWithATraceLineAndLeavesAUsableObject)
{
    for (const char* const texts : {"2",
                                    "2/",
                                    "2/5/x",
                                    "5/1",
                                    "x/1",
                                    "21/",
                                    "1/5",
                                    "1/5/",
                                    "1/5//m",
                                    "1//m",
                                    "1/0/m",
                                    "1/5/m/n",
                                    "1/0/m/n/g/x",
                                    "1/7a/m",
                                    "4/7/b/a/X",
                                    "4/7/b/a/X/Y/Z",
                                    "4/7/b/c/X/Y",
                                    "4/7/B/a/X/Y",
                                    "4/7/bb/a/X/Y",
                                    "4/7/b/a/X//Y",
                                    "4/7/b/a/X/Y/",
                                    "4/0/b/a/X/Y",
                                    "4/7/{/a/X/Y",
                                    "4/7/b/`/X/Y",
                                    "4/7/b/a/",
                                    "4/0/b/a/X/Y/n/g/h"}) {
        const QByteArray bad(texts);
        SCOPED_TRACE(texts);
        Received text(bad);
        BinaryAddress address = text.borrowed();
        EXPECT_TRUE(traces([&] { address.type(); }, TraceDebug, "Invalid binary address"));
        EXPECT_EQ(address.type(), eMsgAddressInvalid);
        EXPECT_TRUE(address.isEmpty());
        EXPECT_EQ(address.id() | address.hash() | address.machine().size() | address.hopMachine().size(), 0u);
        EXPECT_FALSE(address.increaseHop());
        EXPECT_EQ(text.bytes(), bad) << "bad text is never written to";
        EXPECT_EQ(address, BinaryAddress());
        EXPECT_FALSE(BinaryAddressLayout::check(Extent(bad)));

        Received good("1/5/m");
        address = good.borrowed();
        EXPECT_EQ(address.type(), eMsgAddressAttached) << "the object takes new text as if new";
    }
}

TEST_F(BinaryAddressTest, EveryCutOfAValidTextIsReadSafely)
{
    for (const QByteArray& whole :
         {QByteArray("4/0/c/b/dest@1/mid@2/first@3/name/group"),
          QByteArray("4/4294967295/z/z/a/b/c/d/e/f/g/h/i/j/k/l/m/n/o/p/q/r/s/t/u/v/w/x/y/zz")}) {
        ASSERT_TRUE(BinaryAddressLayout::check(Extent(whole))) << whole.toStdString();
        for (int n = 0; n < whole.size(); ++n) {
            Received cut(whole.left(n));
            BinaryAddress address = cut.borrowed();
            while (address.increaseHop()) {
            }
            EXPECT_TRUE(address.type() == eMsgAddressInvalid || address.text().size() == unsigned(n));
        }
    }
}

TEST_F(BinaryAddressTest, EqualityAndHashGoByTheDestinationAndNotTheWay)
{
    EXPECT_EQ(copied("1/7/X"), copied("4/7/b/a/X/Y"));
    EXPECT_EQ(copied("1/7/X").hash(), copied("4/7/c/a/X/Y/Z").hash());
    EXPECT_EQ(copied("1/0/X/n/g"), copied("4/0/b/b/X/Y/n/g"));
    EXPECT_EQ(copied("2/7"), copied("2/07"));
    EXPECT_NE(copied("1/7/X"), copied("1/7/Y"));
    EXPECT_NE(copied("1/7/X"), copied("1/8/X"));
    EXPECT_NE(copied("1/0/X/n/g"), copied("1/0/X/n"));
    EXPECT_NE(copied("2/7"), copied("3/7"));
    EXPECT_NE(copied("2/7"), BinaryAddress());

    // Of the raw bytes, with the QByteArray hash: not the MsgAddress hash.
    EXPECT_EQ(copied("1/7/X").hash(), 7u ^ qHash(QByteArray("X")));
    EXPECT_EQ(copied("4/0/b/a/X/Y/n/g").hash(),
              qHash(QByteArray("n")) ^ qHash(QByteArray("g")) ^ qHash(QByteArray("X")));

    QHash<BinaryAddress, int> queues;
    queues.insert(copied("4/7/b/a/X/Y"), 1);
    queues.insert(copied("2/3"), 2);
    Received received("1/7/X");
    EXPECT_EQ(queues.value(received.borrowed()), 1);
    EXPECT_FALSE(queues.contains(copied("3/3")));
}
