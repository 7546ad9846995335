// Select and poll on loopback: the set rules by type, what a wait leaves in
// the sets, readiness for reading, writing, accepting and a failed connect,
// shared and cloned sets, handles above 1023, and the back-off on resource
// errors.

#include "sockets/tcpsocketpoll.h"
#include "sockets/tcpsocketselect.h"

#include "socketstest.h"

#include <sys/resource.h>
#include <unistd.h>

using namespace Brevi;
using namespace BreviTest;

TEST_F(SocketTest, SelectSetRulesByType)
{
    Link link = makeLink();
    ASSERT_TRUE(link.server);
    const TCPSocketData& a = *link.client;
    const TCPSocketData& b = *link.server;
    TCPSocketSelect select;
    EXPECT_TRUE(select.set(a, TCPSocketSelect::All));
    EXPECT_TRUE(select.isSet(a, TCPSocketSelect::Exception));
    EXPECT_TRUE(select.set(a, TCPSocketSelect::ReadOnly));
    EXPECT_TRUE(select.isSet(a, TCPSocketSelect::Read));
    EXPECT_FALSE(select.isSet(a, TCPSocketSelect::Write));
    EXPECT_FALSE(select.isSet(a, TCPSocketSelect::Exception));
    EXPECT_TRUE(select.set(a, TCPSocketSelect::WriteOnly));
    EXPECT_FALSE(select.isSet(a, TCPSocketSelect::Read));

    EXPECT_TRUE(select.set(b, TCPSocketSelect::Exception));
    EXPECT_TRUE(select.set(b, TCPSocketSelect::ReadWrite));
    EXPECT_FALSE(select.isSet(b, TCPSocketSelect::Exception));
    EXPECT_EQ(select.count(TCPSocketSelect::Write), 2u);
    select.clear(b, TCPSocketSelect::Read);
    EXPECT_TRUE(select.isSet(b, TCPSocketSelect::ReadWrite)) << "still in write";
    select.clear(b, TCPSocketSelect::ReadWrite);
    EXPECT_FALSE(select.isSet(b, TCPSocketSelect::All));
    select.zero(TCPSocketSelect::Write);
    EXPECT_EQ(select.count(TCPSocketSelect::All), 0u);

    EXPECT_FALSE(select.set(TCPSocketData("None"), TCPSocketSelect::Read)) << "no handle";
    EXPECT_FALSE(select.set(boost::shared_ptr<TCPSocket>(), TCPSocketSelect::Read));
    EXPECT_EQ(select.count(TCPSocketSelect::All), 0u);
}

TEST_F(SocketTest, SelectEmptyAndTimedOutSets)
{
    Link link = makeLink();
    ASSERT_TRUE(link.server);
    TCPSocketSelect select;
    long long start = monotonicMs();
    EXPECT_TRUE(traces([&] { EXPECT_EQ(select.wait(-1), eTCPErrorInternal); }, TraceAlways, "Select has no sockets"));
    EXPECT_LT(monotonicMs() - start, 500) << "never blocks";

    select.set(link.server, TCPSocketSelect::Read);
    start = monotonicMs();
    EXPECT_EQ(select.nap(100), eTCPErrorTimeout);
    EXPECT_GE(monotonicMs() - start, 95);
    EXPECT_EQ(select.wait(100), eTCPErrorInternal) << "a timeout empties the sets";

    select.set(link.server, TCPSocketSelect::Read);
    ::close(link.server->socket()); // behind the socket's back
    EXPECT_TRUE(traces([&] { EXPECT_EQ(select.wait(1000), eTCPErrorInternal); }, TraceAlways, "Select returned with"));
    EXPECT_EQ(select.count(TCPSocketSelect::All), 0u);
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
    EXPECT_TRUE(select.isSet(*link.client, TCPSocketSelect::Write));
    EXPECT_EQ(select.count(TCPSocketSelect::All), 1u) << "only the room to send was ready";

    // Data to read, and a connection to accept.
    EXPECT_EQ(link.client->send("ping", 4), 4u);
    TCPSocketData waiting("Waiting", link.listener->localAddress());
    ASSERT_TRUE(waiting.complete(5000) && readable(link.listener->socket(), 5000));
    ASSERT_TRUE(readable(link.server->socket(), 5000));
    select.set(link.server, TCPSocketSelect::Read);
    select.set(*link.listener, TCPSocketSelect::Read);
    ASSERT_EQ(select.wait(5000), eTCPErrorNone);
    EXPECT_TRUE(select.isSet(link.server, TCPSocketSelect::Read));
    EXPECT_TRUE(select.isSet(*link.listener, TCPSocketSelect::Read));

    // A peer that is gone.
    select.zero();
    link.server->close();
    select.set(*link.client, TCPSocketSelect::ReadOnly);
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

    TCPSocketSelect clone(standing);
    standing.clone(clone);
    EXPECT_EQ(clone.wait(5000), eTCPErrorNone);
    EXPECT_FALSE(clone.isSet(link.server, TCPSocketSelect::Read)) << "the wait changed the clone";
    EXPECT_TRUE(standing.isSet(link.server, TCPSocketSelect::Read)) << "and not the standing select";

    EXPECT_TRUE(traces([&] { standing.display(); }, TraceAlways, "read socket(s) selected"));
    EXPECT_TRUE(traces([&] { standing.debug(TraceNormal, "check"); }, TraceNormal, "Good Socket"));
}

TEST_F(SocketTest, SelectAndPollAboveDescriptor1023)
{
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_max <= 4000)
        GTEST_SKIP() << "the process may not hold descriptors above 4000";
    FileLimit raised(4001);
    Link link = makeLink();
    ASSERT_TRUE(link.server);
    int high = dup2(link.server->socket(), 4000);
    TCPSocketData adopted("High", high);
    ASSERT_TRUE(isUsable(adopted));
    TCPSocketSelect select;
    ASSERT_TRUE(select.set(adopted, TCPSocketSelect::Read));
    EXPECT_EQ(select.wait(0), eTCPErrorTimeout);
    EXPECT_EQ(link.client->send("up", 2), 2u);
    select.set(adopted, TCPSocketSelect::Read);
    ASSERT_EQ(select.wait(5000), eTCPErrorNone);
    EXPECT_TRUE(select.isSet(adopted, TCPSocketSelect::Read));
    EXPECT_EQ(select.highestSocket(), 4000);

    // With the low handles taken, connect and accept wait on high ones.
    std::vector<int> fillers;
    for (int fd = dup(0); fd >= 0 && fd <= 1100; fd = dup(0))
        fillers.push_back(fd);
    Link high2 = makeLink();
    ASSERT_TRUE(high2.server);
    EXPECT_GT(high2.listener->socket(), 1023);
    EXPECT_GT(high2.server->socket(), 1023);
    for (int fd : fillers)
        ::close(fd);
}

TEST_F(SocketTest, SelectBacksOffOnResourceErrors)
{
    Link link = makeLink();
    ASSERT_TRUE(link.server);
    TCPSocketSelect select;
    // With fewer descriptors allowed than sockets set, the system refuses
    // each wait for want of resources (EINVAL).
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
    TraceReader hundredth;
    TraceReader anew;
    {
        FileLimit limit(1);
        const long long start = monotonicMs();
        for (int i = 0; i < 99; ++i)
            ASSERT_EQ(failingWait(), eTCPErrorInterrupted) << i;
        EXPECT_GE(monotonicMs() - start, 99 * 100 - 50) << "each failure pauses 100 milliseconds";
        hundredth = TraceReader();
        EXPECT_EQ(failingWait(), eTCPErrorInternal);
        anew = TraceReader();
        EXPECT_EQ(failingWait(), eTCPErrorInterrupted) << "the count starts anew";
    }
    EXPECT_TRUE(hundredth.saw("Select returned with", TraceAlways));
    EXPECT_TRUE(anew.saw("Resource error, backup for 100ms", TraceAlways));
}

TEST_F(SocketTest, PollForAcceptAndConnect)
{
    TCPSocketPoll poll;
    EXPECT_EQ(poll.wait(1000), eTCPErrorInvalidArgument) << "nothing set";
    TCPSocketListen listener("Listen", NetAddress(QHostAddress::LocalHost, 0), 5);
    EXPECT_FALSE(poll.set(listener, TCPSocketPoll::Invalid));
    EXPECT_FALSE(poll.set(TCPSocketData("None"), TCPSocketPoll::Accept));
    ASSERT_TRUE(poll.set(listener, TCPSocketPoll::Accept));
    EXPECT_EQ(poll.wait(50), eTCPErrorTimeout);
    EXPECT_FALSE(poll.set());
    TCPSocketData client("Client", listener.localAddress());
    EXPECT_EQ(poll.wait(5000), eTCPErrorNone);
    EXPECT_EQ(poll.returned(), TCPSocketPoll::EventAccept);

    TCPSocketPoll connect;
    connect.set(client, TCPSocketPoll::Connect);
    EXPECT_EQ(connect.wait(5000), eTCPErrorNone);
    EXPECT_TRUE(connect.set());
    EXPECT_EQ(client.socketError(), eTCPErrorNone);
    TCPSocketPoll copy(connect);
    TCPSocketPoll clone;
    connect.clone(clone);
    connect.clear();
    EXPECT_FALSE(copy) << "copies share";
    EXPECT_EQ(clone.socket(), client.socket()) << "clones do not";

    // A failed connect ends the wait too; the failure is then read.
    TCPSocketData refused("Refused", refusingPort());
    if (refused) {
        ASSERT_TRUE(poll.set(refused, TCPSocketPoll::Connect));
        EXPECT_EQ(poll.wait(5000), eTCPErrorNone);
        EXPECT_TRUE(poll.set());
        EXPECT_EQ(refused.socketError(), eTCPErrorConnectionRefused);
    }
}
