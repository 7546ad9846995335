// Select and poll on loopback: the set rules by type, what a wait leaves in
// the sets, readiness for reading, writing and a failed connect, shared and
// cloned sets, handles above 1023, and the back-off on resource errors.

#include "sockets/tcpsocketpoll.h"
#include "sockets/tcpsocketselect.h"

#include "socketstest.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

using namespace Brevi;
using namespace BreviTest;

namespace {

// Lets the process hold descriptors up to `highest`.
bool allowDescriptors(int highest)
{
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return false;
    if (limit.rlim_cur > rlim_t(highest))
        return true;
    if (limit.rlim_max <= rlim_t(highest))
        return false;
    limit.rlim_cur = rlim_t(highest) + 1;
    return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

} // namespace

TEST_F(SocketTest, SelectSetRulesByType)
{
    Link link = makeLink();
    ASSERT_TRUE(link.server);
    TCPSocketSelect select;
    const TCPSocketData& a = *link.client;
    const TCPSocketData& b = *link.server;

    EXPECT_TRUE(select.set(a, TCPSocketSelect::All));
    EXPECT_TRUE(select.isSet(a, TCPSocketSelect::Read));
    EXPECT_TRUE(select.isSet(a, TCPSocketSelect::Write));
    EXPECT_TRUE(select.isSet(a, TCPSocketSelect::Exception));
    EXPECT_TRUE(select.set(a, TCPSocketSelect::ReadOnly));
    EXPECT_TRUE(select.isSet(a, TCPSocketSelect::Read));
    EXPECT_FALSE(select.isSet(a, TCPSocketSelect::Write));
    EXPECT_FALSE(select.isSet(a, TCPSocketSelect::Exception));
    EXPECT_TRUE(select.set(a, TCPSocketSelect::WriteOnly));
    EXPECT_FALSE(select.isSet(a, TCPSocketSelect::Read));
    EXPECT_TRUE(select.isSet(a, TCPSocketSelect::WriteOnly));

    EXPECT_TRUE(select.set(b, TCPSocketSelect::Exception));
    EXPECT_TRUE(select.set(b, TCPSocketSelect::ReadWrite));
    EXPECT_FALSE(select.isSet(b, TCPSocketSelect::Exception));
    EXPECT_TRUE(select.isSet(b, TCPSocketSelect::ReadWrite));
    EXPECT_EQ(select.count(TCPSocketSelect::Read), 1u);
    EXPECT_EQ(select.count(TCPSocketSelect::Write), 2u);
    EXPECT_EQ(select.count(TCPSocketSelect::All), 2u);

    select.clear(b, TCPSocketSelect::Read);
    EXPECT_TRUE(select.isSet(b, TCPSocketSelect::ReadWrite)) << "still in write";
    select.clear(b, TCPSocketSelect::ReadWrite);
    EXPECT_FALSE(select.isSet(b, TCPSocketSelect::All));
    select.zero(TCPSocketSelect::Write);
    EXPECT_EQ(select.count(TCPSocketSelect::All), 0u);

    // Sockets without a handle are refused and change nothing.
    TCPSocketData none("None");
    EXPECT_FALSE(select.set(none, TCPSocketSelect::Read));
    EXPECT_FALSE(select.set(boost::shared_ptr<TCPSocket>(), TCPSocketSelect::Read));
    EXPECT_FALSE(select.isSet(none, TCPSocketSelect::All));
    EXPECT_EQ(select.count(TCPSocketSelect::All), 0u);
}

TEST_F(SocketTest, SelectWithNothingSetFailsAtOnce)
{
    TCPSocketSelect select;
    const long long start = monotonicMs();
    EXPECT_TRUE(traces([&] { EXPECT_EQ(select.wait(-1), eTCPErrorInternal); }, TraceAlways, "Select has no sockets"));
    EXPECT_EQ(select.nap(1000), eTCPErrorInternal);
    EXPECT_LT(monotonicMs() - start, 500);
}

TEST_F(SocketTest, SelectTimeoutEmptiesTheSets)
{
    Link link = makeLink();
    ASSERT_TRUE(link.server);
    TCPSocketSelect select;
    select.set(link.server, TCPSocketSelect::Read);
    const long long start = monotonicMs();
    EXPECT_EQ(select.wait(100), eTCPErrorTimeout);
    EXPECT_GE(monotonicMs() - start, 95);
    EXPECT_EQ(select.count(TCPSocketSelect::All), 0u);
    EXPECT_EQ(select.wait(100), eTCPErrorInternal) << "nothing set again";
    select.set(link.server, TCPSocketSelect::Read);
    EXPECT_EQ(select.wait(0), eTCPErrorTimeout);
}

TEST_F(SocketTest, SelectKeepsOnlyTheReady)
{
    Link link = makeLink();
    ASSERT_TRUE(link.server);
    TCPSocketSelect select;
    select.set(link.server, TCPSocketSelect::Read);
    select.set(*link.client, TCPSocketSelect::ReadWrite);
    select.set(*link.listener, TCPSocketSelect::Read);
    ASSERT_EQ(select.wait(5000), eTCPErrorNone);
    // Only the client's room to send is ready.
    EXPECT_TRUE(select.isSet(*link.client, TCPSocketSelect::Write));
    EXPECT_FALSE(select.isSet(*link.client, TCPSocketSelect::Read));
    EXPECT_FALSE(select.isSet(link.server, TCPSocketSelect::Read));
    EXPECT_FALSE(select.isSet(*link.listener, TCPSocketSelect::Read));

    EXPECT_EQ(link.client->send("ping", 4), 4u);
    TCPSocketData waiting("Waiting", link.listener->localAddress());
    select.zero();
    select.set(link.server, TCPSocketSelect::ReadOnly);
    select.set(*link.listener, TCPSocketSelect::Read);
    ASSERT_EQ(select.wait(5000), eTCPErrorNone);
    if (!select.isSet(*link.listener, TCPSocketSelect::Read) || !select.isSet(link.server, TCPSocketSelect::Read)) {
        select.set(link.server, TCPSocketSelect::Read);
        select.set(*link.listener, TCPSocketSelect::Read);
        ASSERT_EQ(select.wait(5000), eTCPErrorNone);
    }
    EXPECT_TRUE(select.isSet(link.server, TCPSocketSelect::Read));
    EXPECT_TRUE(select.isSet(*link.listener, TCPSocketSelect::Read)) << "a connection to accept reads as ready";

    // A peer that is gone makes its socket readable.
    link.server->close();
    select.zero();
    select.set(*link.client, TCPSocketSelect::Read);
    EXPECT_EQ(select.wait(5000), eTCPErrorNone);
    EXPECT_TRUE(select.isSet(*link.client, TCPSocketSelect::Read));
}

TEST_F(SocketTest, SelectCopiesShareAndClonesDoNot)
{
    Link link = makeLink();
    ASSERT_TRUE(link.server);
    TCPSocketSelect standing;
    standing.set(link.server, TCPSocketSelect::Read);
    TCPSocketSelect shared(standing);
    shared.set(*link.client, TCPSocketSelect::Write);
    EXPECT_TRUE(standing.isSet(*link.client, TCPSocketSelect::Write));

    TCPSocketSelect clone;
    standing.clone(clone);
    EXPECT_TRUE(clone.isSet(link.server, TCPSocketSelect::Read));
    EXPECT_TRUE(clone.isSet(*link.client, TCPSocketSelect::Write));
    EXPECT_EQ(clone.wait(5000), eTCPErrorNone);
    EXPECT_FALSE(clone.isSet(link.server, TCPSocketSelect::Read)) << "the wait changed the clone";
    EXPECT_TRUE(standing.isSet(link.server, TCPSocketSelect::Read)) << "and not the standing select";

    // Cloning into a copy that shares makes it independent.
    TCPSocketSelect sharing(standing);
    standing.clone(sharing);
    sharing.zero();
    EXPECT_EQ(standing.count(TCPSocketSelect::All), 2u);

    EXPECT_TRUE(traces([&] { standing.display(); }, TraceAlways, "read socket(s) selected"));
    EXPECT_TRUE(traces([&] { standing.debug(TraceNormal, "check"); }, TraceNormal, "Good Socket"));
}

TEST_F(SocketTest, SelectAndPollAboveDescriptor1023)
{
    ASSERT_TRUE(allowDescriptors(4100));
    Link link = makeLink();
    ASSERT_TRUE(link.server);
    int high = dup2(link.server->socket(), 4000);
    ASSERT_EQ(high, 4000);
    TCPSocketData adopted("High", high);
    ASSERT_TRUE(isUsable(adopted));

    TCPSocketSelect select;
    ASSERT_TRUE(select.set(adopted, TCPSocketSelect::Read));
    EXPECT_EQ(select.highestSocket(), 4000);
    EXPECT_EQ(select.wait(0), eTCPErrorTimeout);
    EXPECT_EQ(link.client->send("up", 2), 2u);
    select.set(adopted, TCPSocketSelect::Read);
    ASSERT_EQ(select.wait(5000), eTCPErrorNone);
    EXPECT_TRUE(select.isSet(adopted, TCPSocketSelect::Read));

    // Every socket made from here on is above 1023: connect and accept wait
    // with poll on such handles.
    std::vector<int> fillers;
    for (int fd = dup(0); fd >= 0 && fd <= 1100; fd = dup(0))
        fillers.push_back(fd);
    TCPSocketListen listener("HighListen", NetAddress(QHostAddress::LocalHost, 0), 5);
    ASSERT_GT(listener.socket(), 1023);
    TCPSocketData client("HighClient", listener.localAddress());
    boost::shared_ptr<TCPSocketData> server = listener.accept("HighServer", 5000);
    ASSERT_TRUE(server);
    EXPECT_TRUE(client.complete(5000));
    EXPECT_GT(server->socket(), 1023);
    for (int fd : fillers)
        ::close(fd);
}

TEST_F(SocketTest, SelectBacksOffOnResourceErrors)
{
    Link link = makeLink();
    ASSERT_TRUE(link.server);
    TCPSocketSelect select;
    // With the limit of descriptors below the number of sockets set, the
    // system refuses every wait for want of resources (EINVAL).
    auto failingWait = [&] {
        select.set(link.server, TCPSocketSelect::Read);
        select.set(*link.client, TCPSocketSelect::Read);
        return select.wait(0);
    };
    {
        FileLimit limit(1);
        ASSERT_TRUE(limit.ok());
        for (int i = 0; i < 50; ++i)
            ASSERT_EQ(failingWait(), eTCPErrorInterrupted) << i;
        EXPECT_EQ(select.count(TCPSocketSelect::All), 0u) << "the sets are emptied";
    }
    // One success starts the count anew.
    EXPECT_EQ(link.client->send("x", 1), 1u);
    select.set(link.server, TCPSocketSelect::Read);
    ASSERT_EQ(select.wait(5000), eTCPErrorNone);
    TracePosition hundredth;
    TracePosition anew;
    {
        FileLimit limit(1);
        const long long start = monotonicMs();
        for (int i = 0; i < 99; ++i)
            ASSERT_EQ(failingWait(), eTCPErrorInterrupted) << i;
        EXPECT_GE(monotonicMs() - start, 99 * 100 - 50) << "each failure pauses 100 milliseconds";
        hundredth = TracePosition(true);
        EXPECT_EQ(failingWait(), eTCPErrorInternal);
        anew = TracePosition(true);
        EXPECT_EQ(failingWait(), eTCPErrorInterrupted) << "the count starts anew";
    }
    EXPECT_TRUE(tracedSince(hundredth, TraceAlways, "Select returned with"));
    EXPECT_TRUE(tracedSince(anew, TraceAlways, "Resource error, backup for 100ms"));
}

TEST_F(SocketTest, SelectOnAClosedHandleFails)
{
    Link link = makeLink();
    ASSERT_TRUE(link.server);
    TCPSocketSelect select;
    select.set(link.server, TCPSocketSelect::Read);
    const int handle = link.server->socket();
    ::close(handle); // behind the socket's back
    EXPECT_TRUE(traces([&] { EXPECT_EQ(select.wait(1000), eTCPErrorInternal); }, TraceAlways, "Select returned with"));
    EXPECT_EQ(select.count(TCPSocketSelect::All), 0u);
}

TEST_F(SocketTest, PollForAcceptAndConnect)
{
    TCPSocketPoll poll;
    EXPECT_FALSE(poll);
    EXPECT_EQ(poll.wait(1000), eTCPErrorInvalidArgument);

    TCPSocketListen listener("Listen", NetAddress(QHostAddress::LocalHost, 0), 5);
    EXPECT_FALSE(poll.set(listener, TCPSocketPoll::Invalid));
    EXPECT_FALSE(poll.set(TCPSocketData("None"), TCPSocketPoll::Accept));
    ASSERT_TRUE(poll.set(listener, TCPSocketPoll::Accept));
    EXPECT_TRUE(poll);
    EXPECT_EQ(poll.requested(), TCPSocketPoll::EventAccept);
    EXPECT_EQ(poll.wait(50), eTCPErrorTimeout);
    EXPECT_FALSE(poll.set());

    TCPSocketData client("Client", listener.localAddress());
    EXPECT_EQ(poll.wait(5000), eTCPErrorNone);
    EXPECT_TRUE(poll.set());

    TCPSocketPoll connect;
    connect.set(client, TCPSocketPoll::Connect);
    EXPECT_EQ(connect.wait(5000), eTCPErrorNone);
    EXPECT_TRUE(connect.set());
    EXPECT_EQ(connect.returned(), TCPSocketPoll::EventConnect);
    EXPECT_EQ(client.socketError(), eTCPErrorNone);

    TCPSocketPoll copy(connect);
    TCPSocketPoll clone;
    connect.clone(clone);
    connect.clear();
    EXPECT_FALSE(copy) << "copies share";
    EXPECT_TRUE(clone) << "clones do not";
    EXPECT_EQ(clone.socket(), client.socket());
}

TEST_F(SocketTest, PollWakesOnAFailedConnect)
{
    RefusingPort port;
    TCPSocketData client("Client", port.address());
    if (!client)
        GTEST_SKIP() << "the system refused at once";
    TCPSocketPoll poll;
    ASSERT_TRUE(poll.set(client, TCPSocketPoll::Connect));
    EXPECT_EQ(poll.wait(5000), eTCPErrorNone);
    EXPECT_TRUE(poll.set());
    EXPECT_EQ(client.socketError(), eTCPErrorConnectionRefused);
}
