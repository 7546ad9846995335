// BinaryAddress: reading the flat forms of received text, stepping the hop of
// a routed form in the very bytes, refusing bad text without reading outside
// it, and the raw-bytes equality and hash that key the queue table.

#include "messaging/binaryaddress.h"
#include "messaging/binaryaddresslayout.h"

#include "tracelines.h"

#include <QHash>

#include <cstring>
#include <memory>
#include <vector>

using namespace Brevi;
using BreviTest::MessagingTraceTest;

namespace {

// Received text in a block of exactly its size, with no terminator behind it,
// so that the address sanitizer catches any read past the end.
class Received
{
public:
    explicit Received(const QByteArray& text)
        : mpData(new char[size_t(text.size()) + 1])
        , muiSize(unsigned(text.size()))
    {
        std::memcpy(mpData.get(), text.constData(), muiSize);
    }
    char* data() const { return mpData.get(); }
    unsigned size() const { return muiSize; }
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

class BinaryAddressTest : public MessagingTraceTest
{
};

} // namespace

TEST_F(BinaryAddressTest, RoutedTextStepsThroughItsHopsInPlace)
{
    Received text("4/7/b/a/X/Y");
    BinaryAddress address;
    address.fromRawData(text.data(), text.size());

    EXPECT_EQ(address.type(), eMsgAddressRouted);
    EXPECT_EQ(address.id(), 7u);
    EXPECT_EQ(bytesOf(address.machine()), "X");
    EXPECT_EQ(bytesOf(address.hops()), "X/Y");
    EXPECT_EQ(address.hopCount(), 2u);
    EXPECT_EQ(address.currentHop(), 1u);
    EXPECT_EQ(bytesOf(address.hopMachine()), "Y") << "the first hop";

    ASSERT_TRUE(address.increaseHop());
    EXPECT_EQ(text.bytes(), "4/7/b/b/X/Y") << "the letter changes in the received bytes";
    EXPECT_EQ(address.currentHop(), 2u);
    EXPECT_EQ(bytesOf(address.hopMachine()), "X");
    EXPECT_FALSE(address.increaseHop()) << "the destination is the last hop";
    EXPECT_EQ(text.bytes(), "4/7/b/b/X/Y");

    ASSERT_TRUE(address.decreaseHop());
    EXPECT_EQ(text.bytes(), "4/7/b/a/X/Y");
    EXPECT_EQ(bytesOf(address.hopMachine()), "Y");
    EXPECT_FALSE(address.decreaseHop());
    EXPECT_EQ(address.currentHop(), 1u);
}

TEST_F(BinaryAddressTest, LogicalRouteOfThreeHopsWithGroup)
{
    Received text("4/0/c/a/Z/Y/X/svc/grp");
    BinaryAddress address = text.borrowed();
    ASSERT_EQ(address.type(), eMsgAddressRouted);
    EXPECT_EQ(address.id(), 0u);
    EXPECT_EQ(bytesOf(address.name()), "svc");
    EXPECT_EQ(bytesOf(address.group()), "grp");
    EXPECT_EQ(bytesOf(address.machine()), "Z");
    EXPECT_EQ(bytesOf(address.hops()), "Z/Y/X");

    QList<QByteArray> visited { bytesOf(address.hopMachine()) };
    while (address.increaseHop())
        visited << bytesOf(address.hopMachine());
    EXPECT_EQ(visited, QList<QByteArray>({ "X", "Y", "Z" }));
    EXPECT_EQ(address.currentHop(), 3u);
}

TEST_F(BinaryAddressTest, OtherFormsHaveTheirPiecesAndNeverCountHops)
{
    struct Case {
        QByteArray text;
        MsgAddressType type;
        unsigned id;
        QByteArray machine, name, group;
    };
    const std::vector<Case> cases = {
        { "1/5/node@1", eMsgAddressAttached, 5, "node@1", "", "" },
        { "1/0/m/name", eMsgAddressAttached, 0, "m", "name", "" },
        { "1/0/m/name/group", eMsgAddressAttached, 0, "m", "name", "group" },
        { "2/12", eMsgAddressContext, 12, "", "", "" },
        { "3/1", eMsgAddressHub, 1, "", "", "" },
    };
    for (const Case& c : cases) {
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
        EXPECT_EQ(text.bytes(), c.text) << "nothing written";
    }
}

TEST_F(BinaryAddressTest, CopyStartsAtTheFirstHopWhileBorrowedTextKeepsItsLetter)
{
    Received text("4/7/b/b/X/Y");
    BinaryAddress received = text.borrowed();
    EXPECT_EQ(received.currentHop(), 2u);

    const BinaryAddress copied { Extent(text.data(), text.size()) };
    EXPECT_EQ(bytesOf(copied.text()), "4/7/b/a/X/Y");
    EXPECT_EQ(copied.currentHop(), 1u);
    EXPECT_EQ(bytesOf(copied.hopMachine()), "Y");
    EXPECT_EQ(text.bytes(), "4/7/b/b/X/Y") << "the source is left alone";

    // A copy of a borrowed address owns its bytes: stepping one leaves the other.
    BinaryAddress copy(received);
    ASSERT_TRUE(copy.decreaseHop());
    EXPECT_EQ(received.currentHop(), 2u);
    EXPECT_EQ(text.bytes(), "4/7/b/b/X/Y");
    EXPECT_EQ(copy, received) << "the current hop is no part of equality";
}

TEST_F(BinaryAddressTest, BadTextIsDroppedWithATraceLineAndLeavesAUsableObject)
{
    const QList<QByteArray> bad = {
        "",
        "2",
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
        "4/7/b/a",
        "4/7/b/a/",
        "4/0/b/a/X/Y/n/g/h",
    };
    for (const QByteArray& texts : bad) {
        SCOPED_TRACE(texts.toStdString());
        Received text(texts);
        BinaryAddress address = text.borrowed();
        if (!texts.isEmpty()) {
            EXPECT_TRUE(traces([&] { address.type(); }, TraceDebug, "Invalid binary address"));
        }
        EXPECT_EQ(address.type(), eMsgAddressInvalid);
        EXPECT_TRUE(address.isEmpty());
        EXPECT_EQ(address.id(), 0u);
        EXPECT_EQ(address.hash(), 0u);
        EXPECT_EQ(address.machine().size(), 0u);
        EXPECT_EQ(address.hopMachine().size(), 0u);
        EXPECT_FALSE(address.increaseHop());
        EXPECT_EQ(text.bytes(), texts) << "bad text is never written to";
        EXPECT_EQ(address, BinaryAddress());
        EXPECT_FALSE(BinaryAddressLayout::check(Extent(text.data(), text.size())));

        // The object takes new text afterwards as if new.
        Received good("1/5/m");
        address.fromRawData(good.data(), good.size());
        EXPECT_EQ(address.type(), eMsgAddressAttached);
    }
}

TEST_F(BinaryAddressTest, EveryCutOfAValidTextIsReadSafely)
{
    const QList<QByteArray> texts = { "4/0/c/b/dest@1/mid@2/first@3/name/group", "1/0/m@1/name/group",
        "4/4294967295/z/z/" + QByteArray("a/b/c/d/e/f/g/h/i/j/k/l/m/n/o/p/q/r/s/t/u/v/w/x/y/zz") };
    for (const QByteArray& whole : texts) {
        ASSERT_TRUE(BinaryAddressLayout::check(Extent(whole))) << whole.toStdString();
        for (int n = 0; n < whole.size(); ++n) {
            Received cut(whole.left(n));
            BinaryAddress address = cut.borrowed();
            address.type();
            while (address.increaseHop()) { }
            // Only a cut at a separator boundary can still be a whole form.
            if (address.type() != eMsgAddressInvalid) {
                EXPECT_EQ(address.text().size(), unsigned(n));
            }
        }
    }
}

TEST_F(BinaryAddressTest, EqualityAndHashGoByTheDestinationAndNotTheWay)
{
    const auto make = [](const QByteArray& text) { return BinaryAddress(Extent(text)); };

    EXPECT_EQ(make("1/7/X"), make("4/7/b/a/X/Y"));
    EXPECT_EQ(make("1/7/X").hash(), make("4/7/c/a/X/Y/Z").hash());
    EXPECT_EQ(make("1/0/X/n/g"), make("4/0/b/b/X/Y/n/g"));
    EXPECT_EQ(make("2/7"), make("2/07"));
    EXPECT_NE(make("1/7/X"), make("1/7/Y"));
    EXPECT_NE(make("1/7/X"), make("1/8/X"));
    EXPECT_NE(make("1/0/X/n/g"), make("1/0/X/n"));
    EXPECT_NE(make("2/7"), make("3/7"));
    EXPECT_NE(make("2/7"), make("1/7/X"));
    EXPECT_NE(make("2/7"), BinaryAddress());
    EXPECT_EQ(BinaryAddress(), make("not an address"));

    // The hash is of the raw bytes: the QByteArray hash of the pieces.
    EXPECT_EQ(make("1/7/X").hash(), 7u ^ qHash(QByteArray("X")));
    EXPECT_EQ(make("4/0/b/a/X/Y/n/g").hash(), qHash(QByteArray("n")) ^ qHash(QByteArray("g")) ^ qHash(QByteArray("X")));
    EXPECT_EQ(make("3/9").hash(), 9u);

    // What the queue table does with them.
    QHash<BinaryAddress, int> queues;
    queues.insert(make("4/7/b/a/X/Y"), 1);
    queues.insert(make("2/3"), 2);
    Received received("1/7/X");
    EXPECT_EQ(queues.value(received.borrowed()), 1);
    EXPECT_EQ(queues.value(make("2/3")), 2);
    EXPECT_FALSE(queues.contains(make("3/3")));
}
