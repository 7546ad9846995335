#ifndef TESTS_SOCKETS_SOCKETSTEST_H
#define TESTS_SOCKETS_SOCKETSTEST_H

#include "core/trace.h"
#include "core/traceposition.h"
#include "sockets/netaddress.h"
#include "sockets/tcpsocketdata.h"
#include "sockets/tcpsocketlisten.h"

#include <QString>

#include <boost/shared_ptr.hpp>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <ostream>

namespace Brevi {
// So that a failed expectation on a result shows its name.
void PrintTo(TCPError error, std::ostream* out);
} // namespace Brevi

namespace BreviTest {

// Milliseconds of the monotonic clock.
long long monotonicMs();

// Success when `socket` is valid; the failure shows its lastError.
::testing::AssertionResult isUsable(const Brevi::TCPSocket& socket);

// True when `handle` became readable within `ms` (a reset or an end of
// stream counts).
bool readable(int handle, int ms);

// A loopback port that is bound but not listened on: a connect to it is
// refused, and no one else can take the port while this lives.
class RefusingPort
{
public:
    RefusingPort();
    ~RefusingPort();
    RefusingPort(const RefusingPort&) = delete;
    RefusingPort& operator=(const RefusingPort&) = delete;
    const Brevi::NetAddress& address() const { return moAddress; }

private:
    int miHandle = -1;
    Brevi::NetAddress moAddress;
};

// Sets the soft limit of open descriptors for its lifetime.
class FileLimit
{
public:
    explicit FileLimit(unsigned long soft);
    ~FileLimit();
    FileLimit(const FileLimit&) = delete;
    FileLimit& operator=(const FileLimit&) = delete;
    bool ok() const { return mbOk; }

private:
    unsigned long mulSaved = 0;
    bool mbOk = false;
};

// A listener on the loopback address, a client connected to it, and the
// server's end of that connection, all made with bounded waits.
struct Link {
    std::unique_ptr<Brevi::TCPSocketListen> listener;
    std::unique_ptr<Brevi::TCPSocketData> client;
    boost::shared_ptr<Brevi::TCPSocketData> server;
};
Link makeLink();

// A fixture that owns a Trace on the test's thread with the socket modules at
// full detail, so that the lines an operation writes can be checked.
class SocketTest : public ::testing::Test
{
protected:
    SocketTest();

    // Success when `action` wrote a line at `level` or below that holds
    // `text`; the failure lists what was written instead.
    ::testing::AssertionResult traces(const std::function<void()>& action, Brevi::TraceLevelE level,
                                      const QString& text);
    // The same for the lines written since `start`. Reading the trace back
    // needs descriptors (the sanitizers' runtime makes pipes), so a test that
    // runs out of them on purpose reads afterwards.
    ::testing::AssertionResult tracedSince(const Brevi::TracePosition& start, Brevi::TraceLevelE level,
                                           const QString& text);

    Brevi::Trace moTrace;
};

} // namespace BreviTest

#endif
