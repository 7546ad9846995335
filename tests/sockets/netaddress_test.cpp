// NetAddress: the text form and its round trip, the system's address
// structures both ways, equality without the port, the special addresses as
// the sockets read them, and name lookup.

#include "sockets/netaddress.h"

#include "socketstest.h"

#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

using namespace Brevi;
using BreviTest::SocketTest;

namespace {

sockaddr_in ipv4(const char* host, unsigned short port)
{
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, host, &address.sin_addr);
    return address;
}

} // namespace

TEST(NetAddressText, HostAndPortParse)
{
    const NetAddress address(QStringLiteral("  192.168.1.20   30303 "));
    EXPECT_TRUE(address);
    EXPECT_EQ(address.getHostString(), QStringLiteral("192.168.1.20"));
    EXPECT_EQ(address.getPort(), 30303u);
    EXPECT_EQ(address.protocol(), QAbstractSocket::IPv4Protocol);

    const NetAddress six(QStringLiteral("::1 8080"));
    EXPECT_TRUE(six);
    EXPECT_EQ(six.protocol(), QAbstractSocket::IPv6Protocol);
    EXPECT_EQ(six.getPort(), 8080u);

    // One part is a host alone.
    const NetAddress bare(QStringLiteral("10.0.0.1"));
    EXPECT_TRUE(bare);
    EXPECT_EQ(bare.getPort(), 0u);
}

TEST(NetAddressText, BadTextLeavesTheNullAddress)
{
    for (const char* text : {"10.0.0.1 port", "10.0.0.1 -5", "a b c", "10.0.0.1 80 90", "", "   ", "no.such.host 80",
                             "localhost 80", "300.1.1.1 80"}) {
        NetAddress address(QString::fromLatin1(text));
        EXPECT_FALSE(address) << text;
        EXPECT_EQ(address.getPort(), 0u) << text;
        EXPECT_EQ(address.protocol(), QAbstractSocket::UnknownNetworkLayerProtocol) << text;
    }
    // setAddress clears what was there before it fails.
    NetAddress address(QStringLiteral("10.0.0.1 80"));
    EXPECT_FALSE(address.setAddress(QStringLiteral("10.0.0.2 eighty")));
    EXPECT_FALSE(address);
    EXPECT_EQ(address.getPort(), 0u);
    address = QStringLiteral("10.0.0.3 81");
    EXPECT_EQ(address.getAddressString(), QStringLiteral("10.0.0.3 81"));
}

TEST(NetAddressText, AddressStringReadsBack)
{
    for (const char* text : {"127.0.0.1 1", "0.0.0.0 0", "255.255.255.255 65535", "fe80::1 443", "::ffff:1.2.3.4 7"}) {
        const NetAddress written(QString::fromLatin1(text));
        ASSERT_TRUE(written) << text;
        const NetAddress read(written.getAddressString());
        EXPECT_TRUE(read == written) << text;
        EXPECT_EQ(read.getPort(), written.getPort()) << text;
        EXPECT_EQ(read.getAddressString(), written.getAddressString()) << text;
    }
}

TEST(NetAddressCompare, HostsOnlyNotPorts)
{
    const NetAddress a(QStringLiteral("127.0.0.1 1000"));
    const NetAddress b(QStringLiteral("127.0.0.1 2000"));
    const NetAddress c(QStringLiteral("127.0.0.2 1000"));
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a != b);
    EXPECT_TRUE(a != c);
    EXPECT_TRUE(a == QHostAddress::LocalHost);
    EXPECT_TRUE(c != QHostAddress::LocalHost);
    EXPECT_TRUE(NetAddress() == NetAddress());
}

TEST(NetAddressCompare, AnyIsTheIPv4AnyAddress)
{
    const NetAddress any(QHostAddress::Any, 5);
    EXPECT_TRUE(any);
    EXPECT_EQ(any.protocol(), QAbstractSocket::IPv4Protocol);
    EXPECT_EQ(any.getHostString(), QStringLiteral("0.0.0.0"));
    EXPECT_TRUE(any == QHostAddress::Any);
    EXPECT_TRUE(NetAddress(QStringLiteral("0.0.0.0 9")) == QHostAddress::Any);
    EXPECT_EQ(NetAddress(QHostAddress::AnyIPv6, 0).protocol(), QAbstractSocket::IPv6Protocol);
    EXPECT_FALSE(NetAddress(QHostAddress::Null, 7));

    NetAddress changed;
    changed.setAddress(QHostAddress::LocalHost, 99);
    EXPECT_EQ(changed.getAddressString(), QStringLiteral("127.0.0.1 99"));
    changed.setPort(100);
    EXPECT_EQ(changed.getPort(), 100u);
}

TEST(NetAddressSystem, IPv4StructureBothWays)
{
    const sockaddr_in in = ipv4("10.1.2.3", 4567);
    const NetAddress address(reinterpret_cast<const sockaddr&>(in));
    EXPECT_EQ(address.getAddressString(), QStringLiteral("10.1.2.3 4567"));

    sockaddr_in out;
    std::memset(&out, 0xAB, sizeof out);
    ASSERT_TRUE(address.getAddress(reinterpret_cast<sockaddr&>(out)));
    EXPECT_EQ(sizeof out, 16u);
    EXPECT_EQ(0, std::memcmp(&in, &out, sizeof out)) << "family, port, address and zeros, all in network order";
}

TEST(NetAddressSystem, IPv6TakenInButNeverGivenOut)
{
    sockaddr_in6 in6;
    std::memset(&in6, 0, sizeof in6);
    in6.sin6_family = AF_INET6;
    in6.sin6_port = htons(99);
    inet_pton(AF_INET6, "2001:db8::5", &in6.sin6_addr);
    const NetAddress address(reinterpret_cast<const sockaddr&>(in6));
    EXPECT_EQ(address.getAddressString(), QStringLiteral("2001:db8::5 99"));

    // The sockets bind and connect over IPv4 only.
    sockaddr_in out;
    std::memset(&out, 0xAB, sizeof out);
    EXPECT_FALSE(address.getAddress(reinterpret_cast<sockaddr&>(out)));
    EXPECT_EQ(out.sin_family, 0xABAB) << "left untouched";
    EXPECT_FALSE(NetAddress().getAddress(reinterpret_cast<sockaddr&>(out)));
    EXPECT_FALSE(NetAddress(QStringLiteral("10.0.0.1 70000")).getAddress(reinterpret_cast<sockaddr&>(out)));
}

TEST(NetAddressSystem, OtherFamilyGivesNullAndPortZero)
{
    sockaddr_storage other;
    std::memset(&other, 0, sizeof other);
    other.ss_family = AF_UNIX;
    NetAddress address(QStringLiteral("10.0.0.1 80"));
    EXPECT_FALSE(address.setAddress(reinterpret_cast<const sockaddr&>(other)));
    EXPECT_FALSE(address);
    EXPECT_EQ(address.getPort(), 0u);
}

TEST_F(SocketTest, NetAddressLookupByName)
{
    const NetAddress numeric = NetAddress::fromHostName(QStringLiteral("127.0.0.9"), 12);
    EXPECT_EQ(numeric.getAddressString(), QStringLiteral("127.0.0.9 12"));

    // The hosts file answers for the local host, and an IPv4 answer is preferred.
    const NetAddress local = NetAddress::fromHostName(QStringLiteral("localhost"), 30303);
    EXPECT_EQ(local.protocol(), QAbstractSocket::IPv4Protocol);
    EXPECT_TRUE(local == QHostAddress::LocalHost);
    EXPECT_EQ(local.getPort(), 30303u);

    NetAddress missing(QStringLiteral("10.0.0.1 1"));
    EXPECT_TRUE(traces([&] { missing = NetAddress::fromHostName(QStringLiteral("no..such..host"), 80); }, TraceAlways,
                       "Failed to resolve host name"));
    EXPECT_FALSE(missing);
    EXPECT_EQ(missing.getPort(), 0u);
    EXPECT_FALSE(NetAddress::fromHostName(QString(), 80));
}

TEST_F(SocketTest, NetAddressTraceForm)
{
    EXPECT_TRUE(
        traces([] { BREVI_TRACE(TraceModuleNetAddress, TraceAlways) << NetAddress(QStringLiteral("10.9.8.7 65")); },
               TraceAlways, "'10.9.8.7' 65"));
    EXPECT_TRUE(
        traces([] { BREVI_TRACE(TraceModuleNetAddress, TraceAlways) << NetAddress(); }, TraceAlways, "(null address)"));
}
