// NetAddress: the text form and its round trip, the system's structures both
// ways, equality without the port, "any" as the sockets read it, name lookup
// and the trace forms of the module's values.

#include "sockets/netaddress.h"

#include "socketstest.h"

#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>

using namespace Brevi;
using namespace BreviTest;

TEST(NetAddress, TextFormParsesAndReadsBack)
{
    const NetAddress address(QStringLiteral("  192.168.1.20   30303 "));
    EXPECT_EQ(address.getHostString(), QStringLiteral("192.168.1.20"));
    EXPECT_EQ(address.getPort(), 30303u);
    EXPECT_EQ(NetAddress(QStringLiteral("10.0.0.1")).getAddressString(), QStringLiteral("10.0.0.1 0"));
    for (const char* text : {"127.0.0.1 1", "255.255.255.255 65535", "fe80::1 443", "::ffff:1.2.3.4 7"}) {
        const NetAddress written(QString::fromLatin1(text));
        ASSERT_TRUE(written) << text;
        EXPECT_EQ(NetAddress(written.getAddressString()).getAddressString(), written.getAddressString()) << text;
    }
    // Anything else leaves the null address, even after a good one.
    NetAddress reused(QStringLiteral("10.0.0.1 80"));
    for (const char* text : {"10.0.0.1 port", "10.0.0.1 -5", "a b c", "1.2.3.4 80 90", "", "no.such.host 80",
                             "localhost 80", "300.1.1.1 80"}) {
        EXPECT_FALSE(reused.setAddress(QString::fromLatin1(text))) << text;
        EXPECT_EQ(reused.protocol(), QAbstractSocket::UnknownNetworkLayerProtocol) << text;
        EXPECT_EQ(reused.getPort(), 0u) << text;
    }
}

TEST(NetAddress, EqualityIgnoresThePortAndAnyIsIPv4)
{
    const NetAddress a(QStringLiteral("127.0.0.1 1000"));
    EXPECT_TRUE(a == NetAddress(QStringLiteral("127.0.0.1 2000")));
    EXPECT_TRUE(a != NetAddress(QStringLiteral("127.0.0.2 1000")));
    EXPECT_TRUE(a == QHostAddress::LocalHost);

    // "Any" must be an address the sockets can bind.
    const NetAddress any(QHostAddress::Any, 5);
    EXPECT_EQ(any.getAddressString(), QStringLiteral("0.0.0.0 5"));
    EXPECT_TRUE(NetAddress(QStringLiteral("0.0.0.0 9")) == QHostAddress::Any);
    EXPECT_EQ(NetAddress(QHostAddress::AnyIPv6, 0).protocol(), QAbstractSocket::IPv6Protocol);
    EXPECT_FALSE(NetAddress(QHostAddress::Null, 7));
}

TEST(NetAddress, SystemStructuresAreIPv4OnTheWayOut)
{
    sockaddr_in in = {};
    in.sin_family = AF_INET;
    in.sin_port = htons(4567);
    inet_pton(AF_INET, "10.1.2.3", &in.sin_addr);
    const NetAddress four(reinterpret_cast<const sockaddr&>(in));
    EXPECT_EQ(four.getAddressString(), QStringLiteral("10.1.2.3 4567"));
    sockaddr_in out;
    std::memset(&out, 0xAB, sizeof out);
    ASSERT_TRUE(four.getAddress(reinterpret_cast<sockaddr&>(out)));
    EXPECT_EQ(0, std::memcmp(&in, &out, 16)) << "family, port and address in network order, then zeros";

    sockaddr_in6 in6 = {};
    in6.sin6_family = AF_INET6;
    in6.sin6_port = htons(99);
    inet_pton(AF_INET6, "2001:db8::5", &in6.sin6_addr);
    const NetAddress six(reinterpret_cast<const sockaddr&>(in6));
    EXPECT_EQ(six.getAddressString(), QStringLiteral("2001:db8::5 99"));
    std::memset(&out, 0xAB, sizeof out);
    EXPECT_FALSE(six.getAddress(reinterpret_cast<sockaddr&>(out)));
    EXPECT_EQ(out.sin_family, 0xABAB) << "left untouched";
    EXPECT_FALSE(NetAddress(QStringLiteral("10.0.0.1 70000")).getAddress(reinterpret_cast<sockaddr&>(out)));

    sockaddr_storage other = {};
    other.ss_family = AF_UNIX;
    NetAddress changed(QStringLiteral("10.0.0.1 80"));
    EXPECT_FALSE(changed.setAddress(reinterpret_cast<const sockaddr&>(other)));
    EXPECT_EQ(changed.getPort(), 0u);
}

TEST_F(SocketTest, NetAddressLookupAndTraceForms)
{
    EXPECT_EQ(NetAddress::fromHostName("127.0.0.9", 12).getAddressString(), QStringLiteral("127.0.0.9 12"));
    const NetAddress local = NetAddress::fromHostName("localhost", 30303);
    EXPECT_EQ(local.getAddressString(), QStringLiteral("127.0.0.1 30303")) << "the IPv4 answer is preferred";
    NetAddress missing;
    EXPECT_TRUE(traces([&] { missing = NetAddress::fromHostName("no..such..host", 80); }, TraceAlways,
                       "Failed to resolve host name"));
    EXPECT_FALSE(missing);

    const NetAddress address(QStringLiteral("10.9.8.7 65"));
    EXPECT_TRUE(
        traces([&] { BREVI_TRACE(TraceModuleNetAddress, TraceAlways) << address; }, TraceAlways, "'10.9.8.7' 65"));
    EXPECT_TRUE(
        traces([] { BREVI_TRACE(TraceModuleNetAddress, TraceAlways) << NetAddress(); }, TraceAlways, "(null address)"));
    EXPECT_TRUE(traces([] { BREVI_TRACE(TraceModuleTcpSocket, TraceAlways) << eTCPErrorWouldBlock; }, TraceAlways,
                       "eTCPErrorWouldBlock"));
}
