#include "socketstest.h"

#include "core/tracedump.h"
#include "core/traceposition.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

namespace Brevi {
void PrintTo(TCPError error, std::ostream* out)
{
    static const char* const names[] = {
        "None",         "Closed",       "WouldBlock",    "ConnectionRefused", "Interrupted", "InvalidArgument",
        "AlreadyBound", "NotBound",     "SocketInvalid", "NotAllowed",        "Unknown",     "Unavailable",
        "Internal",     "Resource",     "Timeout",       "Connected",         "Unreachable", "LocalAddressInUse",
        "NoBuffers",    "TooManyFiles", "Disabled"};
    if (unsigned(error) < sizeof(names) / sizeof(names[0]))
        *out << "eTCPError" << names[error];
    else
        *out << "TCPError(" << int(error) << ")";
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
    ::testing::AssertionResult failure = ::testing::AssertionFailure();
    failure << "socket " << socket.name().toStdString() << " (" << socket.socket() << ") is not valid, lastError ";
    std::ostringstream error;
    PrintTo(socket.lastError(), &error);
    return failure << error.str();
}

bool readable(int handle, int ms)
{
    pollfd entry = {handle, POLLIN, 0};
    return ::poll(&entry, 1, ms) == 1;
}

RefusingPort::RefusingPort()
{
    miHandle = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(miHandle, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        getsockname(miHandle, reinterpret_cast<sockaddr*>(&address), &length) == 0)
        moAddress.setAddress(reinterpret_cast<const sockaddr&>(address));
}

RefusingPort::~RefusingPort()
{
    if (miHandle >= 0)
        ::close(miHandle);
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

Link makeLink()
{
    Link link;
    link.listener.reset(new TCPSocketListen("Listen", NetAddress(QHostAddress::LocalHost, 0), 5));
    if (!*link.listener)
        return link;
    link.client.reset(new TCPSocketData("Client", link.listener->localAddress()));
    link.server = link.listener->accept("Server", 5000);
    if (link.client->complete(5000) && link.server)
        return link;
    link.server.reset();
    return link;
}

SocketTest::SocketTest()
{
    Trace::setLevel(TraceDebug, TraceModuleTcpSocket);
    Trace::setLevel(TraceDebug, TraceModuleNetAddress);
}

::testing::AssertionResult SocketTest::traces(const std::function<void()>& action, TraceLevelE level,
                                              const QString& text)
{
    TracePosition start(true);
    action();
    return tracedSince(start, level, text);
}

::testing::AssertionResult SocketTest::tracedSince(const TracePosition& start, TraceLevelE level, const QString& text)
{
    TracePosition from = start;
    TraceDump dump(nullptr, &from, nullptr);
    auto failure = ::testing::AssertionFailure()
                   << "expected a line at level " << level << " with \"" << text.toStdString() << "\", got:";
    while (auto entry = dump.popEntry()) {
        if (entry->getLevel() <= level && entry->getMessage().contains(text))
            return ::testing::AssertionSuccess();
        failure << "\n  [" << entry->getLevel() << "] " << entry->getMessage().toStdString();
    }
    return failure;
}

} // namespace BreviTest
