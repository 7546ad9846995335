#include "hubtest.h"

#include "core/byteorder.h"
#include "sockets/tcpsocketdata.h"
#include "sockets/tcpsocketlisten.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <QThread>

#include <csignal>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

using namespace Brevi;

namespace HubTest {

unsigned freePort()
{
    TCPSocketListen probe("Probe", NetAddress(QHostAddress::LocalHost, 0), 1);
    return probe.localAddress().getPort();
}

ChildProcess::ChildProcess(const QString& program, const QStringList& arguments, const QStringList& environment)
{
    std::vector<QByteArray> storage;
    storage.push_back(program.toLocal8Bit());
    for (const QString& argument : arguments)
        storage.push_back(argument.toLocal8Bit());
    std::vector<QByteArray> variables;
    for (const QString& entry : environment)
        variables.push_back(entry.toLocal8Bit());
    // Everything the child needs is made before the fork: it only sets its
    // variables and execs.
    std::vector<char*> argv;
    for (QByteArray& item : storage)
        argv.push_back(item.data());
    argv.push_back(nullptr);
    miPid = ::fork();
    if (miPid == 0) {
        for (QByteArray& entry : variables)
            ::putenv(entry.data());
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
}

ChildProcess::~ChildProcess()
{
    if (miPid > 0 && !mbReaped) {
        ::kill(miPid, SIGKILL);
        ::waitpid(miPid, nullptr, 0);
    }
}

bool ChildProcess::running()
{
    if (miPid <= 0 || mbReaped)
        return false;
    int status = 0;
    if (::waitpid(miPid, &status, WNOHANG) == miPid)
        mbReaped = true;
    return !mbReaped;
}

bool ChildProcess::waitExit(int ms, int* status)
{
    const unsigned long long deadline = steadyMs() + ms;
    for (;;) {
        int raw = 0;
        if (!mbReaped && ::waitpid(miPid, &raw, WNOHANG) == miPid) {
            mbReaped = true;
            if (status)
                *status = raw;
            return true;
        }
        if (mbReaped)
            return true;
        if (steadyMs() >= deadline)
            return false;
        QThread::msleep(10);
    }
}

void ChildProcess::kill(int signal)
{
    if (miPid > 0 && !mbReaped)
        ::kill(miPid, signal);
}

unsigned long statusKiB(pid_t pid, const char* field)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith(field) && line.mid(int(qstrlen(field))).startsWith(':'))
            return line.mid(int(qstrlen(field)) + 1).trimmed().split(' ').value(0).toULong();
    return 0;
}

QByteArray packetHeader(unsigned magic, unsigned size)
{
    QByteArray bytes(8, '\0');
    Brevi::ByteOrder::store32(bytes.data(), magic);
    Brevi::ByteOrder::store32(bytes.data() + 4, size);
    return bytes;
}

namespace {

// Whether the process `pid` holds a socket that listens on `port`: its
// descriptors against the system's table of TCP sockets.
bool listensOn(pid_t pid, unsigned port)
{
    QFile table("/proc/net/tcp");
    if (!table.open(QIODevice::ReadOnly))
        return false;
    QSet<QByteArray> listeners;
    const QByteArray local = ':' + QByteArray::number(port, 16).toUpper().rightJustified(4, '0');
    for (const QByteArray& line : table.readAll().split('\n')) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        // sl local_address rem_address st ... inode
        if (fields.size() > 9 && fields[1].endsWith(local) && fields[3] == "0A")
            listeners.insert("socket:[" + fields[9] + ']');
    }
    const QDir descriptors(QStringLiteral("/proc/%1/fd").arg(pid));
    for (const QFileInfo& descriptor : descriptors.entryInfoList(QDir::Files | QDir::System | QDir::NoDotAndDotDot))
        if (listeners.contains(descriptor.symLinkTarget().section('/', -1).toUtf8()))
            return true;
    return false;
}

} // namespace

HubProcess::HubProcess(const QStringList& arguments)
{
    // The port was only free a moment ago: another process may take it
    // meanwhile. Its accept must not pass for this Hub's, and a Hub that
    // could not listen is started again on another port.
    for (int attempt = 0; attempt < 3 && !mbReady; ++attempt) {
        muiPort = freePort();
        QStringList all{"--port", QString::number(muiPort), "--node", Node, "--machine-id", MachineId};
        all += arguments;
        mpProcess.reset(new ChildProcess(hubProgram(), all));
        // Ready when it accepts a connection; never a blind sleep.
        const unsigned long long deadline = steadyMs() + 10000;
        while (steadyMs() < deadline && mpProcess->running()) {
            TCPSocketData probe("Probe", NetAddress(QHostAddress::LocalHost, muiPort));
            if (probe.isValid() && probe.complete(200) && listensOn(mpProcess->pid(), muiPort)) {
                mbReady = true;
                break;
            }
            QThread::msleep(20);
        }
    }
}

int HubProcess::stop(int ms)
{
    mpProcess->kill(SIGTERM);
    int status = 0;
    if (!mpProcess->waitExit(ms, &status))
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void HubFixture::TearDown()
{
    if (mpHub && mpHub->process().running()) {
        EXPECT_EQ(mpHub->stop(15000), 0) << "the Hub did not stop cleanly";
    }
}

void HubFixture::startHub(const QStringList& arguments)
{
    mpHub.reset(new HubProcess(arguments));
    ASSERT_TRUE(mpHub->ready()) << "the Hub did not come up";
}

std::unique_ptr<HubClient> HubFixture::connect()
{
    std::unique_ptr<HubClient> client(new HubClient(port()));
    EXPECT_TRUE(client->connected());
    return client;
}

std::unique_ptr<HubClient> HubFixture::started(const QString& title, const QString& name, const QString& group)
{
    std::unique_ptr<HubClient> client = connect();
    EXPECT_TRUE(client->start(title, name, group)) << title.toStdString();
    return client;
}

} // namespace HubTest
