// MsgAddress: what each constructor accepts, the flat and XML forms it makes
// and reads back, equality and ordering as the system uses them, the address
// a reply goes back to, and random addresses through both forms.

#include "messaging/msgaddress.h"

#include "core/xmllist.h"

#include "tracelines.h"

#include <QHash>

#include <functional>
#include <random>
#include <vector>

using namespace Brevi;
using namespace BreviTest;

namespace {

const char* const Failed = "Error: `*this' failed.";

MsgRoute routeOf(const QStringList& hops)
{
    MsgRoute route;
    for (const QString& hop : hops)
        route.append(MachineName(hop));
    return route;
}

// A copy of the flat text: the address's own bytes are never to be stepped.
QByteArray flat(const MsgAddress& address)
{
    const Extent text = address.binary().text();
    return QByteArray(reinterpret_cast<const char*>(text.data()), int(text.size()));
}
QByteArray bytesOf(const Extent& extent) { return extent.toQByteArray(); }

// Names as the system may meet them: any text without "/", UTF-8 included.
QString randomName(std::mt19937& random)
{
    static const QString alphabet = QStringLiteral("abcxyzABC0189@._- \u00e9\u00dc\u65e5\u672c");
    QString name;
    const unsigned size = 1 + random() % 12;
    for (unsigned i = 0; i < size; ++i)
        name += alphabet.at(int(random() % unsigned(alphabet.size())));
    // The XML text form drops a value made only of blanks, as it drops an
    // empty one; such names do not travel in message bodies.
    if (name.trimmed().isEmpty())
        name += QLatin1Char('x');
    return name;
}

unsigned randomId(std::mt19937& random) { return 1 + random() % 0xFFFFFFFEu; }

// Any valid address: every kind, routes up to the full 26 hops.
MsgAddress randomAddress(std::mt19937& random)
{
    const unsigned kind = random() % 6;
    if (kind == 0)
        return MsgAddress(eMsgAddressContext, randomId(random));
    if (kind == 1)
        return MsgAddress(eMsgAddressHub, randomId(random));
    MsgRoute route;
    const unsigned hops = kind < 4 ? 1 : 2 + random() % 25;
    for (unsigned n = 0; n < hops; ++n)
        route.append(MachineName(randomName(random) + QStringLiteral("@%1").arg(n)));
    if (kind % 2 == 0)
        return MsgAddress(route, randomId(random));
    return MsgAddress(route, randomName(random), random() % 3 ? randomName(random) : QString());
}

::testing::AssertionResult sameAddress(const MsgAddress& read, const MsgAddress& written)
{
    if (read == written && read.hash() == written.hash() && read.type() == written.type() &&
        read.id() == written.id() && read.route() == written.route() && read.name() == written.name() &&
        read.group() == written.group() && read.binary() == written.binary() &&
        read.binary().hash() == written.binary().hash() && flat(read) == flat(written))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "wrote " << flat(written).toStdString() << ", read "
                                         << flat(read).toStdString();
}

using MsgAddressTest = BreviTest::TraceTest<TraceModuleMsg>;

} // namespace

TEST_F(MsgAddressTest, RefusedArgumentsGiveTheSharedInvalidAddressAndTheErrorLine)
{
    const MsgAddress invalid;
    const std::vector<std::function<MsgAddress()>> refused = {
        [] { return MsgAddress(0u); },
        [] { return MsgAddress(MachineName("m"), 0u); },
        [] { return MsgAddress(MachineName("m"), eWellKnownNone); },
        [] { return MsgAddress(MachineName("a/b"), 5u); },
        [] { return MsgAddress(MachineName(), 5u); },
        [] { return MsgAddress(MachineName("m"), "a/b", ""); },
        [] { return MsgAddress(MachineName("m"), "a", "b/c"); },
        [] { return MsgAddress(MachineName("m"), "", "x"); },
        [] { return MsgAddress("a/b", ""); },
        [] { return MsgAddress(eMsgAddressAttached, 5); },
        [] { return MsgAddress(eMsgAddressRouted, 5); },
        [] { return MsgAddress(eMsgAddressContext, 0); },
        [] { return MsgAddress(MsgRoute(), 3u); },
        [] { return MsgAddress(MsgRoute(), "n", "g"); },
        // No Context on this thread, so no machine name: "this machine" is unknown.
        [] { return MsgAddress(eWellKnownHubRouter); },
        [] { return MsgAddress(BinaryAddress(Extent(QByteArray("1/0/m")))); },
        [] { return MsgAddress(BinaryAddress(Extent(QByteArray("4/7/c/a/A/B/A")))); },
    };
    for (size_t i = 0; i < refused.size(); ++i) {
        SCOPED_TRACE(i);
        MsgAddress address(MachineName("m"), 1u);
        EXPECT_TRUE(traces([&] { address = refused[i](); }, TraceAlways, Failed));
        EXPECT_FALSE(address);
        EXPECT_EQ(address, invalid);
        EXPECT_EQ(&address.binary(), &invalid.binary()) << "one body for every invalid address";
        EXPECT_EQ(address.hash(), 0u);
        EXPECT_TRUE(address.binary().isEmpty());

        address = MsgAddress(MachineName("m"), 2u);
        EXPECT_EQ(flat(address), "1/2/m") << "the object goes on as any other";
    }
}

TEST_F(MsgAddressTest, EachKindHasItsFlatFormAndHash)
{
    const MachineName m("node@1");
    const MsgAddress attached(m, eWellKnownLogDaemon);
    EXPECT_EQ(flat(attached), "1/8/node@1");
    EXPECT_EQ(attached.hash(), 8u ^ m.hash());
    EXPECT_EQ(qHash(attached), attached.hash());

    const MsgAddress logical(m, "Indexer", "Workers");
    EXPECT_EQ(flat(logical), "1/0/node@1/Indexer/Workers");
    EXPECT_EQ(logical.hash(), qHash(QString("Indexer")) ^ qHash(QString("Workers")) ^ m.hash());
    EXPECT_EQ(flat(MsgAddress(m, "Indexer", "")), "1/0/node@1/Indexer") << "no group, nothing written";

    EXPECT_EQ(flat(MsgAddress(eMsgAddressContext, 3)), "2/3");
    EXPECT_EQ(flat(MsgAddress(eMsgAddressHub, 1)), "3/1");

    const MsgAddress routed(routeOf({"A", "B", "C"}), 7u);
    EXPECT_EQ(flat(routed), "4/7/c/a/C/B/A");
    EXPECT_EQ(routed.hash(), 7u ^ MachineName("C").hash()) << "the hops before the destination do not count";
    EXPECT_EQ(bytesOf(routed.binary().hopMachine()), "A");
    EXPECT_EQ(flat(MsgAddress(routeOf({"A", "Ü"}), "n", "g")), QString("4/0/b/a/Ü/A/n/g").toUtf8());
    EXPECT_EQ(MsgAddress(routeOf({"A"}), 7u).type(), eMsgAddressAttached) << "the type follows the route";
}

TEST_F(MsgAddressTest, AddressesOfOneContextAreEqualWhicheverWayTheyCame)
{
    const MachineName c("C");
    EXPECT_EQ(MsgAddress(c, 7u), MsgAddress(routeOf({"A", "B", "C"}), 7u));
    EXPECT_EQ(MsgAddress(routeOf({"X", "C"}), 7u), MsgAddress(routeOf({"A", "B", "C"}), 7u));
    EXPECT_EQ(MsgAddress(c, "n", "g"), MsgAddress(routeOf({"A", "C"}), "n", "g"));
    EXPECT_NE(MsgAddress(c, 7u), MsgAddress(c, 8u));
    EXPECT_NE(MsgAddress(c, 7u), MsgAddress(MachineName("D"), 7u));
    EXPECT_NE(MsgAddress(c, "n", "g"), MsgAddress(c, "n", "h"));
    EXPECT_NE(MsgAddress(eMsgAddressContext, 3), MsgAddress(eMsgAddressHub, 3));
    EXPECT_NE(MsgAddress(eMsgAddressContext, 3), MsgAddress(c, 3u));
    EXPECT_NE(MsgAddress(eMsgAddressHub, 3), MsgAddress());

    QHash<MsgAddress, int> table;
    table.insert(MsgAddress(c, 7u), 1);
    EXPECT_EQ(table.value(MsgAddress(routeOf({"B", "C"}), 7u)), 1);
}

TEST_F(MsgAddressTest, OrderingKeepsItsOldRules)
{
    const MachineName m("m");
    EXPECT_LT(MsgAddress(), MsgAddress(m, 1u));
    EXPECT_FALSE(MsgAddress() < MsgAddress());
    EXPECT_LT(MsgAddress(m, 9u), MsgAddress(eMsgAddressContext, 1)) << "type first";
    EXPECT_LT(MsgAddress(MachineName("a"), 9u), MsgAddress(MachineName("b"), 1u)) << "then machine text";
    EXPECT_LT(MsgAddress(m, 1u), MsgAddress(m, 2u));
    EXPECT_FALSE(MsgAddress(m, 2u) < MsgAddress(m, 2u));
    EXPECT_LT(MsgAddress(eMsgAddressHub, 1), MsgAddress(eMsgAddressHub, 2));

    // Two logical addresses: group below, or else name below, even with the
    // group above. Each is then below the other.
    const MsgAddress first(m, "a", "b");
    const MsgAddress second(m, "b", "a");
    EXPECT_TRUE(first < second);
    EXPECT_TRUE(second < first);

    // Equal by ==, yet ordered by type.
    const MsgAddress attached(m, 5u);
    const MsgAddress routed(routeOf({"x", "m"}), 5u);
    EXPECT_EQ(attached, routed);
    EXPECT_TRUE(attached < routed);
    EXPECT_FALSE(routed < attached);
}

TEST_F(MsgAddressTest, XmlReadingStopsAtTheFirstThingOutOfPlace)
{
    const auto attached = [](const QString& name, const QString& group) {
        XmlList xml;
        xml.set("BreviObjectName", "MsgAddress");
        xml.set("Type", 1u);
        xml.set("Machine", "m");
        if (!name.isNull())
            xml.set("Name", name);
        if (!group.isNull())
            xml.set("Group", group);
        return xml;
    };
    EXPECT_EQ(MsgAddress(attached("n", "g")), MsgAddress(MachineName("m"), "n", "g"));
    EXPECT_EQ(MsgAddress(attached("n", QString())), MsgAddress(MachineName("m"), "n", ""));

    // Each bad form is a good one with one thing changed.
    const auto edited = [](const MsgAddress& address, const std::function<void(XmlList&)>& change) {
        XmlList xml = address.toXml();
        change(xml);
        return xml;
    };
    const MsgAddress numeric(MachineName("m"), 5u);
    const std::vector<XmlList> bad = {
        attached("", "g"),
        attached("a/b", "g"),
        attached("n", "x/y"),
        attached(QString(), QString()),
        edited(numeric, [](XmlList& x) { x.remove("BreviObjectName"); }),
        edited(numeric, [](XmlList& x) { x.set("Type", 0u); }),
        edited(numeric, [](XmlList& x) { x.set("Type", 5u); }),
        edited(numeric, [](XmlList& x) { x.set("Machine", "a/b"); }),
        edited(MsgAddress(eMsgAddressContext, 4), [](XmlList& x) { x.set("Id", 0u); }),
        edited(MsgAddress(routeOf({"A", "B"}), 5u), [](XmlList& x) { x.remove("Route"); })};
    for (size_t i = 0; i < bad.size(); ++i) {
        SCOPED_TRACE(i);
        MsgAddress address;
        EXPECT_TRUE(traces([&] { address = MsgAddress(bad[i]); }, TraceAlways, Failed));
        EXPECT_FALSE(address);
    }

    // A route of one hop read as "routed" comes out attached.
    XmlList oneHop = MsgAddress(routeOf({"A", "B"}), 5u).toXml();
    oneHop.set("Route", routeOf({"B"}).toXml());
    EXPECT_EQ(MsgAddress(oneHop).type(), eMsgAddressAttached);

    // An id beside a name: numeric, and the flat form drops the name.
    XmlList both = attached("n", "g");
    both.set("Id", 5u);
    const MsgAddress named(both);
    EXPECT_EQ(named.name(), "n");
    EXPECT_EQ(flat(named), "1/5/m");
    EXPECT_EQ(named, numeric);
}

TEST_F(MsgAddressTest, ReturnAddressLeadsBackOverTheReversedHops)
{
    const MsgAddress destination(routeOf({"A", "B", "C"}), 9u);
    const MsgAddress back = destination.returnAddress(MsgAddress(MachineName("S"), 7u), 3);
    EXPECT_EQ(back.type(), eMsgAddressRouted);
    EXPECT_EQ(back.id(), 7u);
    EXPECT_EQ(back.route(), routeOf({"B", "A", "S"}));

    const MsgAddress logical = destination.returnAddress(MsgAddress(MachineName("S"), "n", "g"), 0);
    EXPECT_EQ(logical.route(), routeOf({"B", "A", "S"}));
    EXPECT_EQ(logical.name(), "n");
    EXPECT_EQ(logical.group(), "g");

    const MsgAddress attached(MachineName("C"), 9u);
    const MsgAddress source(MachineName("S"), 7u);
    EXPECT_EQ(&attached.returnAddress(source, 0).binary(), &source.binary()) << "the source itself";
    EXPECT_EQ(&attached.returnAddress(source, 1).binary(), &source.binary());
    EXPECT_FALSE(attached.returnAddress(source, 2));
    EXPECT_FALSE(destination.returnAddress(MsgAddress(), 0));
    EXPECT_FALSE(destination.returnAddress(MsgAddress(MachineName("A"), 7u), 0)) << "A is on the way back";
}

TEST_F(MsgAddressTest, RandomAddressesComeBackThroughBothForms)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (int i = 0; i < 400; ++i) {
        const MsgAddress written = randomAddress(random);
        ASSERT_TRUE(written);

        // As received: borrowed bytes, a router having stepped some hops.
        const QByteArray bytes = flat(written);
        BinaryAddress received;
        received.fromRawData(bytes.constData(), unsigned(bytes.size()));
        const unsigned steps = random() % 27;
        for (unsigned n = 0; n < steps && received.increaseHop();)
            ++n;
        EXPECT_TRUE(sameAddress(MsgAddress(received), written));

        // Through the XML text, as a message body carries it.
        XmlList body;
        ASSERT_TRUE(body.fromBinary(written.toXml().toBinary()));
        EXPECT_TRUE(sameAddress(MsgAddress(body), written));
    }
}

TEST_F(MsgAddressTest, TraceShowsTheFlatFormAndTheRoute)
{
    const MsgAddress address(routeOf({"A", "B"}), 7u);
    EXPECT_TRUE(traces([&] { BREVI_TRACE(TraceModuleMsg, TraceAlways) << address << MsgAddress(); }, TraceAlways,
                       "'4/7/b/a/B/A' (invalid address)"));
    EXPECT_TRUE(traces([&] { BREVI_TRACE(TraceModuleMsg, TraceAlways) << address.route() << MsgRoute(); }, TraceAlways,
                       QStringLiteral("2 hop to 'B' 0x%1 (invalid route)").arg(address.route().hash(), 0, 16)));
}
