#ifndef TESTS_INDEX_INDEXTEST_H
#define TESTS_INDEX_INDEXTEST_H

#include "hubtest.h"

#include "core/trace.h"
#include "index/lucenecomm.h"
#include "index/spawnlucene.h"
#include "messaging/msgcondition.h"

#include <QString>

#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace IndexTest {

// The configuration file the tests write, naming the Java and the class path
// of the server built beside them.
const char* const ConfigFile = "indexserver.cfg";

// A wait that only the link or its own end stops.
class NeverDone : public Brevi::MsgCondition
{};

// A test with its own home and a Hub, whose body runs in an attached context.
class IndexFixture : public HubTest::HubFixture
{
protected:
    void SetUp() override;
    // Runs `body` in an attached context titled "indextest"; fails the test
    // if the context did not come up.
    void attached(const std::function<void()>& body);
};

// The real server, started by SpawnLucene on a free port with an alive
// monitor in the test's home, inside a context. Ended with SIGKILL by the
// destructor if it is still there.
class Server
{
public:
    Server() = default;
    ~Server();

    // Writes the configuration and starts the server; false when it did not start.
    bool start(Brevi::TraceLevelE level = Brevi::TraceNormal);
    // Connects `link` with up to 20 seconds for the server to listen.
    bool connect(Brevi::LuceneComm& link, const Brevi::LuceneComm::FieldOptions& fields, bool fast = false);
    // Quit, and a bounded wait for the process to end; true when it did.
    bool stop(Brevi::LuceneComm& link);
    // Whether the process has ended within `ms`.
    bool ended(int ms);

    unsigned port() const { return muiPort; }
    Brevi::SpawnLucene& spawn() { return moSpawn; }

private:
    Brevi::SpawnLucene moSpawn;
    unsigned muiPort = 0;
};

// The server's end of one link, played by the test on a thread of its own:
// it listens on a free loopback port, accepts one client, and runs `script`.
// Every wait is bounded, so a client that misbehaves fails the test instead
// of hanging it.
class FakeServer
{
public:
    explicit FakeServer(std::function<void(FakeServer&)> script);
    ~FakeServer();
    unsigned port() const { return muiPort; }

    // The next command, up to its ';' (quoted text honoured); empty when
    // none came within `ms` or the link closed.
    std::string command(int ms = 10000);
    // Takes the field options and answers them as the server does.
    bool serveOptions();
    void send(const std::string& bytes);
    // Writes the bytes one at a time, pausing between them.
    void trickle(const std::string& bytes);
    void close();

    // The Seq value of a command ("" when it has none).
    static std::string sequence(const std::string& command);

private:
    void run(std::function<void(FakeServer&)> script);

    int miListener = -1;
    int miLink = -1;
    unsigned muiPort = 0;
    std::string msPending;
    std::thread moThread;
};

} // namespace IndexTest

#endif
