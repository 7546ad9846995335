#include "process/handle.h"

#include <cerrno>
#include <csignal>
#include <cstring>

#include <sys/wait.h>
#include <unistd.h>

#ifndef P_PIDFD
#define P_PIDFD 3
#endif

namespace Brevi {

namespace {
// waitid on the pidfd, retried when a signal interrupts it.
bool waitOn(int handle, siginfo_t& info, int options)
{
    std::memset(&info, 0, sizeof info);
    int result;
    do
        result = waitid(idtype_t(P_PIDFD), id_t(handle), &info, options);
    while (result < 0 && errno == EINTR);
    return result == 0;
}
} // namespace

Handle::Handle(int handle, Ownership ownership)
    : miHandle(handle)
    , meOwnership(ownership)
{ }

Handle::~Handle()
{
    if (miHandle == Invalid)
        return;
    if (meOwnership == Owned) {
        // The last holder of a process handle collects a child that has ended,
        // so that it does not stay behind in the process table; one still
        // running is left alone. On any other descriptor this call fails and
        // does nothing.
        siginfo_t info;
        waitOn(miHandle, info, WEXITED | WNOHANG);
        ::close(miHandle);
    }
    miHandle = Invalid;
}

bool Handle::running() const
{
    if (miHandle == Invalid || meOwnership != Owned)
        return false;
    siginfo_t info;
    // si_pid stays 0 while the child has not ended.
    return waitOn(miHandle, info, WEXITED | WNOHANG | WNOWAIT) && info.si_pid == 0;
}

bool Handle::wait(int* exitCode, int* signal) const
{
    if (miHandle == Invalid || meOwnership != Owned)
        return false;
    siginfo_t info;
    if (!waitOn(miHandle, info, WEXITED))
        return false;
    const bool exited = info.si_code == CLD_EXITED;
    if (exitCode)
        *exitCode = exited ? info.si_status : -1;
    if (signal)
        *signal = exited ? 0 : info.si_status;
    return true;
}

} // namespace Brevi
