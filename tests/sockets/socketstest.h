#ifndef TESTS_SOCKETS_SOCKETSTEST_H
#define TESTS_SOCKETS_SOCKETSTEST_H

#include "sockets/tcpsocketdata.h"
#include "sockets/tcpsocketlisten.h"

#include "loopback.h"
#include "tracelines.h"

#include <gtest/gtest.h>

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

// A connected loopback pair.
using Link = LoopbackLink;
inline Link makeLink() { return makeLoopbackLink(); }

// The socket modules at full detail.
using SocketTest = TraceTest<Brevi::TraceModuleTcpSocket, Brevi::TraceModuleNetAddress>;

} // namespace BreviTest

#endif
