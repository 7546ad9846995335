#ifndef TESTS_HUB_HUBTEST_H
#define TESTS_HUB_HUBTEST_H

#include "hubclient.h"

#include "testhome.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <gtest/gtest.h>

#include <memory>

#include <sys/types.h>

namespace HubTest {

// The node and machine id every test Hub runs with.
const char* const Node = "testnode";
const char* const MachineId = "0123abcd";
inline QString machine() { return QStringLiteral("testnode@0123abcd"); }

// A port that was free a moment ago (bound at 0 and let go).
unsigned freePort();

// A line of /proc/<pid>/status in KiB ("VmRSS", "VmSize"); 0 if unreadable.
unsigned long statusKiB(pid_t pid, const char* field);

// The 8 bytes that open a packet: its magic and the size it claims.
QByteArray packetHeader(unsigned magic, unsigned size);

// A program started beside the test, ended (SIGKILL) by the destructor if it
// is still there.
class ChildProcess
{
public:
    ChildProcess(const QString& program, const QStringList& arguments, const QStringList& environment = {});
    ~ChildProcess();
    pid_t pid() const { return miPid; }
    bool running();
    // Waits up to `ms` for it to end; its raw wait status in `status`.
    bool waitExit(int ms, int* status = nullptr);
    void kill(int signal);

private:
    pid_t miPid = -1;
    bool mbReaped = false;
};

// The real Hub executable on a free port, in the test's BREVI_HOME, with the
// test's machine name, started and waited for until it accepts links.
class HubProcess
{
public:
    explicit HubProcess(const QStringList& arguments = {});
    bool ready() const { return mbReady; }
    unsigned port() const { return muiPort; }
    ChildProcess& process() { return *mpProcess; }
    // SIGTERM, then waits up to `ms`; the exit status, or -1 if it did not end.
    int stop(int ms = 10000);

private:
    unsigned muiPort = 0;
    std::unique_ptr<ChildProcess> mpProcess;
    bool mbReady = false;
};

// A test with its own home and a Hub in it.
class HubFixture : public ::testing::Test
{
protected:
    // Stops the Hub the way an operator does, so that it removes its shared
    // memory; a Hub that does not stop in time fails the test.
    void TearDown() override;
    // Starts the Hub with extra arguments; fails the test if it does not come.
    void startHub(const QStringList& arguments = {});
    // A client attached, given its buffer and enabled.
    std::unique_ptr<HubClient> started(const QString& title, const QString& name = QString(),
                                       const QString& group = QString());
    std::unique_ptr<HubClient> connect();
    unsigned port() const { return mpHub->port(); }

    BreviTest::TestHome moHome;
    std::unique_ptr<HubProcess> mpHub;
};

// The helper program built beside the tests, and the Hub.
inline QString hubProgram() { return QStringLiteral(HUB_PATH); }
inline QString childProgram() { return QStringLiteral(CHILD_PATH); }

} // namespace HubTest

#endif
