#include "indextest.h"

#include "attachedtest.h"

#include "core/context.h"
#include "core/fixedpath.h"

#include <QThread>

#include <csignal>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Brevi;

namespace IndexTest {

// --- IndexFixture -----------------------------------------------------------

void IndexFixture::SetUp()
{
    startHub();
    AttachedTest::useHubPort(port());
}

void IndexFixture::attached(const std::function<void()>& body)
{
    EXPECT_TRUE(AttachedTest::runContext(body, Context::TypeAttached, 0, "indextest"))
        << "the attached context did not come up";
}

// --- Server -----------------------------------------------------------------

Server::~Server()
{
    if (moSpawn && moSpawn.alive()) {
        ::kill(pid_t(moSpawn.process().getOSPid()), SIGKILL);
        moSpawn.process().getOSHandle()->wait();
    }
}

bool Server::start(TraceLevelE level)
{
    if (!SpawnLucene::configure(ConfigFile, INDEXSERVER_JAVA, INDEXSERVER_CLASSPATH))
        return false;
    muiPort = HubTest::freePort();
    return moSpawn.spawn(ConfigFile, muiPort, level, FixedPath::runtime() + "/index.alive", {}, {});
}

bool Server::connect(LuceneComm& link, const LuceneComm::FieldOptions& fields, bool fast)
{
    NeverDone never;
    return link.connect(never, fields, muiPort, fast, 20000);
}

bool Server::ended(int ms)
{
    const unsigned long long deadline = HubTest::steadyMs() + ms;
    while (moSpawn.alive() && HubTest::steadyMs() < deadline)
        QThread::msleep(20);
    return !moSpawn.alive();
}

bool Server::stop(LuceneComm& link)
{
    link.disconnect(true);
    return ended(20000);
}

// --- FakeServer -------------------------------------------------------------

FakeServer::FakeServer(std::function<void(FakeServer&)> script)
{
    miListener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (miListener >= 0 && ::bind(miListener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
        ::listen(miListener, 1) == 0 && ::getsockname(miListener, reinterpret_cast<sockaddr*>(&address), &length) == 0)
        muiPort = ntohs(address.sin_port);
    moThread = std::thread([this, script] { run(script); });
}

FakeServer::~FakeServer()
{
    moThread.join();
    close();
    if (miListener >= 0)
        ::close(miListener);
}

void FakeServer::run(std::function<void(FakeServer&)> script)
{
    pollfd waiting = {miListener, POLLIN, 0};
    if (::poll(&waiting, 1, 10000) != 1)
        return;
    miLink = ::accept4(miListener, nullptr, nullptr, SOCK_CLOEXEC);
    if (miLink >= 0)
        script(*this);
}

std::string FakeServer::command(int ms)
{
    const unsigned long long deadline = HubTest::steadyMs() + ms;
    for (;;) {
        bool quoted = false;
        bool escape = false;
        for (size_t i = 0; i < msPending.size(); ++i) {
            const char c = msPending[i];
            if (escape)
                escape = false;
            else if (quoted && c == '\\')
                escape = true;
            else if (c == '"')
                quoted = !quoted;
            else if (c == ';' && !quoted) {
                const std::string whole = msPending.substr(0, i + 1);
                msPending.erase(0, i + 1);
                return whole;
            }
        }
        const unsigned long long now = HubTest::steadyMs();
        if (miLink < 0 || now >= deadline)
            return std::string();
        pollfd readable = {miLink, POLLIN, 0};
        if (::poll(&readable, 1, int(deadline - now)) != 1)
            return std::string();
        char buffer[4096];
        const ssize_t got = ::recv(miLink, buffer, sizeof(buffer), 0);
        if (got <= 0)
            return std::string();
        msPending.append(buffer, size_t(got));
    }
}

bool FakeServer::serveOptions()
{
    const std::string options = command();
    if (options.compare(0, 3, "FO(") != 0)
        return false;
    send("FO(Seq(\"" + sequence(options) + "\"),St(\"T\"));");
    return true;
}

void FakeServer::send(const std::string& bytes)
{
    if (miLink >= 0)
        ::send(miLink, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

void FakeServer::trickle(const std::string& bytes)
{
    for (char c : bytes) {
        send(std::string(1, c));
        QThread::usleep(200);
    }
}

void FakeServer::close()
{
    if (miLink >= 0)
        ::close(miLink);
    miLink = -1;
}

std::string FakeServer::sequence(const std::string& command)
{
    const size_t start = command.find("Seq(\"");
    if (start == std::string::npos)
        return std::string();
    const size_t end = command.find('"', start + 5);
    return command.substr(start + 5, end - start - 5);
}

} // namespace IndexTest
