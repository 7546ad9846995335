#include "socketstest.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>

namespace Brevi {
void PrintTo(TCPError error, std::ostream* out)
{
    static const char* const names[] = {
        "None",         "Closed",       "WouldBlock",    "ConnectionRefused", "Interrupted", "InvalidArgument",
        "AlreadyBound", "NotBound",     "SocketInvalid", "NotAllowed",        "Unknown",     "Unavailable",
        "Internal",     "Resource",     "Timeout",       "Connected",         "Unreachable", "LocalAddressInUse",
        "NoBuffers",    "TooManyFiles", "Disabled"};
    *out << "eTCPError" << (unsigned(error) < 21 ? names[error] : "?");
}
} // namespace Brevi

namespace BreviTest {

using namespace Brevi;

long long monotonicMs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

::testing::AssertionResult isUsable(const TCPSocket& socket)
{
    if (socket)
        return ::testing::AssertionSuccess();
    std::ostringstream error;
    PrintTo(socket.lastError(), &error);
    return ::testing::AssertionFailure() << socket.name().toStdString() << " is not valid: " << error.str();
}

bool readable(int handle, int ms)
{
    pollfd entry = {handle, POLLIN, 0};
    return ::poll(&entry, 1, ms) == 1;
}

NetAddress refusingPort()
{
    // Closed when the test's process ends.
    const int handle = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_storage address = {};
    sockaddr_in& in = reinterpret_cast<sockaddr_in&>(address);
    in.sin_family = AF_INET;
    in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof in;
    if (::bind(handle, reinterpret_cast<sockaddr*>(&in), length) != 0 ||
        getsockname(handle, reinterpret_cast<sockaddr*>(&in), &length) != 0)
        return NetAddress();
    return NetAddress(reinterpret_cast<const sockaddr&>(address));
}

FileLimit::FileLimit(unsigned long soft)
{
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    mulSaved = limit.rlim_cur;
    limit.rlim_cur = soft;
    mbOk = setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

FileLimit::~FileLimit()
{
    rlimit limit;
    if (mbOk && getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = mulSaved;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

} // namespace BreviTest
