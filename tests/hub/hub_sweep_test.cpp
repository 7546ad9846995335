// What the Hub cleans up after processes that died without doing so: the
// shared-memory names of a Hub that was killed, and those of its processes.

#include "hubtest.h"

#include "core/sharedmemoryprovider.h"

#include <QDir>
#include <QThread>

#include <csignal>

using namespace Brevi;
using namespace HubTest;

namespace {

class HubSweep : public HubFixture
{};

// The shared-memory names that process `pid` made.
QStringList namesOf(pid_t pid)
{
    return QDir("/dev/shm")
        .entryList(QStringList{SharedMemoryProvider::nameBase() + QString::number(pid) + " *"},
                   QDir::Files | QDir::System);
}

bool goneWithin(pid_t pid, int ms)
{
    for (const unsigned long long end = steadyMs() + ms; steadyMs() < end; QThread::msleep(20))
        if (namesOf(pid).isEmpty())
            return true;
    return false;
}

} // namespace

TEST_F(HubSweep, NamesOfKilledHubsAndOfDeadProcessesAreRemoved)
{
    // A Hub with a process's trace buffer, killed: its names outlive it.
    startHub();
    std::unique_ptr<HubClient> client = started("worker");
    const pid_t killedHub = mpHub->process().pid();
    ASSERT_FALSE(namesOf(killedHub).isEmpty());
    mpHub->process().kill(SIGKILL);
    ASSERT_TRUE(mpHub->process().waitExit(5000));
    client.reset();
    EXPECT_FALSE(namesOf(killedHub).isEmpty());

    // The next Hub removes them before it takes its first link.
    startHub();
    EXPECT_TRUE(namesOf(killedHub).isEmpty());

    // A process of the Hub's made names of its own and is killed.
    ChildProcess child(childProgram(), {"sharedmemory"}, {"BREVI_HUB_PORT=" + QString::number(port())});
    for (const unsigned long long end = steadyMs() + 10000; namesOf(child.pid()).size() < 2 && steadyMs() < end;)
        QThread::msleep(20);
    ASSERT_EQ(namesOf(child.pid()).size(), 2);
    child.kill(SIGKILL);
    ASSERT_TRUE(child.waitExit(5000));
    EXPECT_TRUE(goneWithin(child.pid(), 5000));
}
