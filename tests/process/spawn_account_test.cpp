// Running a child as another account: the password checked by PAM, the child's
// identity switched before the program starts, and the refusals. Needs root to
// create the test account; skipped otherwise.
#include "processtest.h"

#include "process/spawn.h"
#include "testhome.h"

#include <QSet>

#include <gtest/gtest.h>

#include <cstdio>
#include <utility>

#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using Brevi::Spawn;
using BreviTest::TraceReader;
using ProcessTest::inContext;
using ProcessTest::openDescriptors;
using ProcessTest::readAndClose;

namespace {

const char* const Password = "Spawn-Test-7391";

class SpawnAccount : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (geteuid() != 0)
            GTEST_SKIP() << "not root: a test account cannot be created";
        removeStaleAccounts();
        msUser = Prefix + QString::number(getpid());
        const int added =
            BreviTest::runChild("/usr/sbin/useradd", {"-M", "-s", "/bin/sh", "-G", "users", msUser}).exitCode;
        mbCreated = getpwnam(msUser.toLocal8Bit().constData()) != nullptr;
        if (added != 0 || !mbCreated)
            GTEST_SKIP() << "useradd could not create " << msUser.toStdString();
        FILE* chpasswd = popen("/usr/sbin/chpasswd", "w");
        ASSERT_NE(chpasswd, nullptr);
        fprintf(chpasswd, "%s:%s\n", msUser.toLocal8Bit().constData(), Password);
        if (pclose(chpasswd) != 0)
            GTEST_SKIP() << "chpasswd could not set the test account's password";

        Spawn probe;
        ASSERT_TRUE(probe.setProgram("/bin/true"));
        probe.setAccount(msUser);
        probe.setQualifier(Password);
        if (!probe.spawn() && probe.error() == Spawn::eLogonFailed)
            GTEST_SKIP() << "PAM does not authenticate the test account with its password here";
        if (probe.getOSHandle())
            probe.getOSHandle()->wait();
    }

    void TearDown() override
    {
        if (mbCreated)
            BreviTest::runChild("/usr/sbin/userdel", {msUser});
    }

    // Accounts of test processes that ended before they could remove them.
    static void removeStaleAccounts()
    {
        setpwent();
        QStringList stale;
        while (const passwd* entry = getpwent()) {
            const QString name = QString::fromLocal8Bit(entry->pw_name);
            if (name.startsWith(Prefix) && kill(pid_t(name.mid(Prefix.size()).toInt()), 0) != 0)
                stale.append(name);
        }
        endpwent();
        for (const QString& name : stale)
            BreviTest::runChild("/usr/sbin/userdel", {name});
    }

    static const QString Prefix;
    QString msUser;
    bool mbCreated = false;
};

const QString SpawnAccount::Prefix = QStringLiteral("brvspawn");

TEST_F(SpawnAccount, ChildRunsAsTheAccountWithItsGroups)
{
    const passwd* entry = getpwnam(msUser.toLocal8Bit().constData());
    ASSERT_NE(entry, nullptr);
    const group* users = getgrnam("users");
    ASSERT_NE(users, nullptr);

    Spawn spawn;
    ASSERT_TRUE(spawn.setProgram("/bin/sh"));
    ASSERT_TRUE(spawn.setAccount(msUser));
    ASSERT_TRUE(spawn.setQualifier(Password));
    ASSERT_TRUE(spawn.setWorkingDirectory("/tmp"));
    spawn.setPipeOutput();
    spawn.addArgument("-c");
    spawn.addArgument("id -u; id -g; id -G; pwd");
    ASSERT_TRUE(spawn.spawn());
    EXPECT_EQ(spawn.error(), Spawn::eNone);
    EXPECT_TRUE(spawn);
    const QList<QByteArray> lines = readAndClose(spawn.getPipeOutputHandle()).split('\n');
    int code = -1;
    ASSERT_TRUE(spawn.getOSHandle()->wait(&code));
    EXPECT_EQ(code, 0);
    ASSERT_GE(lines.size(), 4);
    EXPECT_EQ(lines[0].toUInt(), entry->pw_uid);
    EXPECT_EQ(lines[1].toUInt(), entry->pw_gid);
    QSet<unsigned> groups;
    for (const QByteArray& id : lines[2].split(' '))
        groups.insert(id.toUInt());
    EXPECT_EQ(groups, (QSet<unsigned>{unsigned(entry->pw_gid), unsigned(users->gr_gid)}));
    EXPECT_EQ(lines[3], "/tmp");
}

// A wrong password, an unknown account, or no password at all: the logon
// fails, and the start leaves nothing behind.
TEST_F(SpawnAccount, RefusedLogonIsALogonFailure)
{
    inContext([this] {
        setenv("BREVI_T_KEPT", "before", 1);
        const QStringList before = openDescriptors();
        const std::pair<QString, QString> logons[] = {
            {msUser, "not the password"}, {msUser + "x", "not the password"}, {msUser, QString()}};
        for (const auto& logon : logons) {
            Spawn spawn;
            ASSERT_TRUE(spawn.setProgram("/bin/true"));
            ASSERT_TRUE(spawn.setAccount(logon.first));
            if (!logon.second.isNull()) {
                ASSERT_TRUE(spawn.setQualifier(logon.second));
            }
            spawn.setPipeInput();
            spawn.setPipeOutput();
            spawn.addEnvironment("BREVI_T_KEPT", "during");
            TraceReader trace;
            EXPECT_FALSE(spawn.spawn());
            EXPECT_EQ(spawn.error(), Spawn::eLogonFailed);
            EXPECT_TRUE(trace.saw("Failed to logon user '" + logon.first + "'"));
            EXPECT_FALSE(spawn);
            EXPECT_FALSE(spawn.getOSHandle());
            EXPECT_EQ(spawn.getPipeInputHandle(), nullptr);
            EXPECT_EQ(spawn.getPipeOutputHandle(), nullptr);
            EXPECT_STREQ(getenv("BREVI_T_KEPT"), "before");
        }
        EXPECT_EQ(openDescriptors(), before);
    });
}

// Bits of the forked checker's exit code, one per expectation that failed.
enum QuirkCheck {
    QuirkCapabilities = 1,
    QuirkResult = 2,
    QuirkError = 4,
    QuirkRecord = 8,
    QuirkTrace = 16,
    QuirkPipe = 32,
    QuirkStandardInput = 64
};

bool dropIdentityCapabilities()
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    if (syscall(SYS_capget, &header, data) != 0)
        return false;
    const unsigned mask = (1u << CAP_SETUID) | (1u << CAP_SETGID);
    data[0].effective &= ~mask;
    data[0].permitted &= ~mask;
    data[0].inheritable &= ~mask;
    return syscall(SYS_capset, &header, data) == 0;
}

QString gsQuirkUser;
int giQuirkFailures = 0;

void checkRefusedSwitch()
{
    Spawn* spawn = new Spawn;
    spawn->setProgram("/bin/true");
    spawn->setAccount(gsQuirkUser);
    spawn->setQualifier(Password);
    spawn->setPipeOutput();
    TraceReader trace;
    if (!spawn->spawn())
        giQuirkFailures |= QuirkResult;
    if (spawn->error() != Spawn::eLogonFailed)
        giQuirkFailures |= QuirkError;
    if (*spawn || spawn->getOSPid() != 0 || !spawn->getOSHandle() || spawn->getOSHandle()->get() != 0 || spawn->alive())
        giQuirkFailures |= QuirkRecord;
    if (!trace.saw("Failed to impersonate user '" + gsQuirkUser + "'"))
        giQuirkFailures |= QuirkTrace;
    // The pipe is there, with nobody at the other end.
    if (readAndClose(spawn->getPipeOutputHandle()) != "" || spawn->getPipeOutputHandle() != nullptr)
        giQuirkFailures |= QuirkPipe;
    delete spawn;
    // The handle on 0 was not this process's standard input to close.
    if (fcntl(0, F_GETFD) == -1)
        giQuirkFailures |= QuirkStandardInput;
}

TEST_F(SpawnAccount, RefusedSwitchStillReportsAStartWithPidZero)
{
    // Root without the right to change identity: the password is right, the
    // switch in the child is refused.
    gsQuirkUser = msUser;
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (!dropIdentityCapabilities())
            _exit(QuirkCapabilities);
        inContext(checkRefusedSwitch);
        _exit(giQuirkFailures);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "failed checks (bits): " << WEXITSTATUS(status);
}

} // namespace
