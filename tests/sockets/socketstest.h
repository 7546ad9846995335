#ifndef TESTS_SOCKETS_SOCKETSTEST_H
#define TESTS_SOCKETS_SOCKETSTEST_H

#include "core/trace.h"
#include "core/traceposition.h"
#include "sockets/tcpsocketdata.h"
#include "sockets/tcpsocketlisten.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <ostream>

namespace Brevi {
// A failed expectation on a result shows its name.
void PrintTo(TCPError error, std::ostream* out);
} // namespace Brevi

namespace BreviTest {

long long monotonicMs();
// Success when `socket` is valid; the failure shows its lastError.
::testing::AssertionResult isUsable(const Brevi::TCPSocket& socket);
// True when `handle` became readable (data, an end, a reset) within `ms`.
bool readable(int handle, int ms);
// The address of a loopback port that is bound and not listened on, held for
// the test's lifetime: a connect to it is refused.
Brevi::NetAddress refusingPort();

// Sets the soft limit of open descriptors for its lifetime.
class FileLimit
{
public:
    explicit FileLimit(unsigned long soft);
    ~FileLimit();
    bool ok() const { return mbOk; }

private:
    unsigned long mulSaved = 0;
    bool mbOk = false;
};

// A loopback listener, a client connected to it and the server's end, made
// with bounded waits; `server` is null if that failed.
struct Link {
    std::unique_ptr<Brevi::TCPSocketListen> listener;
    std::unique_ptr<Brevi::TCPSocketData> client;
    boost::shared_ptr<Brevi::TCPSocketData> server;
};
Link makeLink();

// Owns a Trace on the test's thread with the socket modules at full detail.
class SocketTest : public ::testing::Test
{
protected:
    SocketTest();

    // Success when `action` wrote a line at `level` or below holding `text`;
    // the failure lists what was written instead.
    ::testing::AssertionResult traces(const std::function<void()>& action, Brevi::TraceLevelE level,
                                      const QString& text);
    // The same for the lines since `start`. Reading the trace needs
    // descriptors (the sanitizers' runtime makes pipes): a test that runs out
    // of them on purpose reads afterwards.
    ::testing::AssertionResult tracedSince(Brevi::TracePosition start, Brevi::TraceLevelE level, const QString& text);

    Brevi::Trace moTrace;
};

} // namespace BreviTest

#endif
