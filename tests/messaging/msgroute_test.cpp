// MsgRoute: the hop rules, the 26-hop limit, the way back for a reply, and
// the XML form.

#include "messaging/msgroute.h"

#include "core/xmllist.h"

#include "tracelines.h"

using namespace Brevi;
using namespace BreviTest;

namespace {

MsgRoute routeOf(const QStringList& hops)
{
    MsgRoute route;
    for (const QString& hop : hops)
        EXPECT_TRUE(route.append(MachineName(hop))) << hop.toStdString();
    return route;
}

QStringList hopsOf(const MsgRoute& route)
{
    QStringList hops;
    for (unsigned n = 1; route && n <= route.length(); ++n)
        hops << route.hopName(n).string();
    return hops;
}

unsigned hashOf(const QStringList& hops)
{
    unsigned hash = 0;
    for (const QString& hop : hops)
        hash ^= MachineName(hop).hash();
    return hash;
}

using MsgRouteTest = BreviTest::TraceTest<TraceModuleMsg>;

} // namespace

TEST_F(MsgRouteTest, HopsFollowTheRulesUpToTheLimitAndTheHashFollowsTheHops)
{
    MsgRoute route;
    EXPECT_FALSE(route);
    EXPECT_EQ(route.length(), 1u) << "the invalid route is one empty hop";
    EXPECT_EQ(route.hash(), MachineName().hash());
    ASSERT_TRUE(route.append(MachineName("B")));
    EXPECT_EQ(route.length(), 1u);
    EXPECT_EQ(route.hash(), MachineName("B").hash());

    EXPECT_TRUE(route.append(MachineName("C")));
    EXPECT_TRUE(route.prepend(MachineName("A")));
    EXPECT_EQ(hopsOf(route), QStringList({"A", "B", "C"}));
    EXPECT_EQ(route.hash(), hashOf({"A", "B", "C"}));
    EXPECT_EQ(route.hopName(0).string(), "C");
    EXPECT_TRUE(route.hopName(4).isEmpty());

    const MsgRoute before = route;
    EXPECT_FALSE(route.append(MachineName("B"))) << "a route never visits a machine twice";
    EXPECT_FALSE(route.prepend(MachineName("C")));
    EXPECT_FALSE(route.append(MachineName("D/E")));
    EXPECT_FALSE(route.prepend(MachineName()));
    EXPECT_EQ(route, before);
    EXPECT_EQ(route.hash(), before.hash());
    EXPECT_NE(route, routeOf({"C", "B", "A"})) << "order counts";
    EXPECT_FALSE(MsgRoute(MachineName("a/b")));

    MsgRoute full;
    for (int i = 0; i < 26; ++i)
        ASSERT_TRUE(full.append(MachineName(QStringLiteral("node%1@%1").arg(i))));
    EXPECT_FALSE(full.append(MachineName("one@more"))) << "26 hops at most";
    EXPECT_FALSE(full.prepend(MachineName("one@more")));
    EXPECT_EQ(full.length(), 26u);
}

TEST_F(MsgRouteTest, ReturnRouteReversesTheHopsBeforeTheReceiver)
{
    const MsgRoute route = routeOf({"A", "B", "C"});
    const MsgRoute back = route.returnRoute(MachineName("S"), 0);
    EXPECT_EQ(hopsOf(back), QStringList({"B", "A", "S"}));
    EXPECT_EQ(back.hash(), hashOf({"B", "A", "S"}));
    EXPECT_EQ(hopsOf(route.returnRoute(MachineName("C"), 0)), QStringList({"B", "A", "C"}));
    EXPECT_EQ(hopsOf(route.returnRoute(MachineName("S"), 2)), QStringList({"A", "S"}));
    EXPECT_EQ(hopsOf(route.returnRoute(MachineName("S"), 1)), QStringList({"S"}));
    EXPECT_FALSE(route.returnRoute(MachineName("A"), 0)) << "A already stands in the way back";

    MsgRoute refused = route;
    EXPECT_TRUE(
        traces([&] { refused = MsgRoute().returnRoute(MachineName("S"), 0); }, TraceAlways, "Source route is invalid"));
    EXPECT_FALSE(refused);
    EXPECT_TRUE(traces([&] { refused = route.returnRoute(MachineName("x/y"), 0); }, TraceAlways,
                       "Invalid source machine name"));
    EXPECT_FALSE(refused);
    EXPECT_TRUE(traces([&] { refused = route.returnRoute(MachineName("S"), 4); }, TraceAlways, "too large, max"));
    EXPECT_FALSE(refused);
    EXPECT_EQ(hopsOf(route), QStringList({"A", "B", "C"}));
}

TEST_F(MsgRouteTest, XmlFormRoundTripsAndRefusesWhatIsOutOfPlace)
{
    const MsgRoute route = routeOf({"first@1", "Grüße@2", "last@3"});
    XmlList text;
    ASSERT_TRUE(text.fromBinary(route.toXml().toBinary()));
    EXPECT_EQ(MsgRoute(text), route);

    // Items other than string "Machine" ones are passed over.
    XmlList mixed;
    mixed.set("BreviObjectName", "MsgRoute");
    mixed.set("Machine", "A", XmlList::SetCreate);
    mixed.set("Machine", 5u, XmlList::SetCreate);
    mixed.set("Other", "X", XmlList::SetCreate);
    mixed.set("Machine", "B", XmlList::SetCreate);
    EXPECT_EQ(hopsOf(MsgRoute(mixed)), QStringList({"A", "B"}));

    XmlList wrongName = route.toXml();
    wrongName.set("BreviObjectName", "MsgAddress");
    EXPECT_FALSE(MsgRoute(wrongName));
    XmlList noHops;
    noHops.set("BreviObjectName", "MsgRoute");
    EXPECT_FALSE(MsgRoute(noHops));
    for (const char* bad : {"first@1", "x/y", ""}) {
        XmlList xml = route.toXml();
        xml.set("Machine", bad, XmlList::SetCreate);
        EXPECT_FALSE(MsgRoute(xml)) << bad;
    }
}
