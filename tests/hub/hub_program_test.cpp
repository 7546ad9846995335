// The Hub as a program: its command line, running as a daemon, a port that
// is taken.

#include "hubtest.h"

#include "messaging/msgcatalogue.h"
#include "sockets/tcpsocketdata.h"
#include "sockets/tcpsocketlisten.h"

#include <QFile>

#include <csignal>

#include <sys/wait.h>
#include <unistd.h>

using namespace Brevi;
using namespace Brevi::Catalogue;
using namespace HubTest;

namespace {

class HubProgram : public HubFixture
{
protected:
    // Runs the Hub to its end (bounded) and gives its exit status.
    int runToEnd(const QStringList& arguments)
    {
        ChildProcess hub(hubProgram(), arguments);
        int status = 0;
        if (!hub.waitExit(15000, &status))
            return -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    static bool accepts(unsigned port)
    {
        TCPSocketData probe("Probe", NetAddress(QHostAddress::LocalHost, port));
        return probe.isValid() && probe.complete(1000);
    }
};

} // namespace

TEST_F(HubProgram, CommandLineMistakesAndATakenPortEndWithAStatus)
{
    EXPECT_EQ(runToEnd({"--help"}), 0);
    EXPECT_EQ(runToEnd({"--port", "none"}), 2);
    EXPECT_EQ(runToEnd({"--no-such-option"}), 2);
    EXPECT_EQ(runToEnd({"--trace-buffer-size", "12"}), 2);
    TCPSocketListen taken("Taken", NetAddress(QHostAddress::LocalHost, 0), 1);
    EXPECT_EQ(runToEnd({"--port", QString::number(taken.localAddress().getPort())}), 1);
}

TEST_F(HubProgram, DaemonReturnsOnceListeningAndEndsOnShutdown)
{
    const unsigned port = freePort();
    const QString pidFile = moHome.path() + "/hub.pid";
    // The starting process returns only when the daemon listens, and the pid
    // file names the daemon by then.
    ASSERT_EQ(runToEnd({"--daemon", "--pid-file", pidFile, "--port", QString::number(port), "--node", Node,
                        "--machine-id", MachineId}),
              0);
    ASSERT_TRUE(accepts(port));
    const pid_t daemon = BreviTest::TestHome::readFile(pidFile).trimmed().toInt();
    ASSERT_GT(daemon, 0);
    EXPECT_EQ(::kill(daemon, 0), 0);

    HubClient client(port);
    ASSERT_TRUE(client.start("operator"));
    ASSERT_TRUE(client.send("3/1", HubMgrShutdownPost::Message));
    EXPECT_TRUE(client.wait(HubRtrShutdownPost::Message, 5000));
    client.close();
    bool gone = false;
    for (unsigned long long end = steadyMs() + 10000; !gone && steadyMs() < end;)
        gone = !accepts(port);
    EXPECT_TRUE(gone);
    for (unsigned long long end = steadyMs() + 5000; QFile::exists(pidFile) && steadyMs() < end;)
        ::usleep(10000);
    EXPECT_FALSE(QFile::exists(pidFile));
}

TEST_F(HubProgram, StoppedAsSoonAsItAcceptsItEndsCleanly)
{
    // A starter takes the first accepted connection as the Hub's sign of
    // life; a stop at that moment must not find the Hub without its handler.
    for (int round = 0; round < 10; ++round) {
        HubProcess hub;
        ASSERT_TRUE(hub.ready());
        EXPECT_EQ(hub.stop(), 0) << "round " << round;
    }
}
