#ifndef BASELIBRARY_SOCKETS_SOCKETWAIT_P_H
#define BASELIBRARY_SOCKETS_SOCKETWAIT_P_H

#include <QtGlobal>

#include <climits>

#include <poll.h>
#include <time.h>

namespace Brevi {
namespace SocketWait {

// Milliseconds of the monotonic clock: deadlines of waits must not move when
// someone sets the wall clock.
inline qint64 now()
{
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return qint64(time.tv_sec) * 1000 + time.tv_nsec / 1000000;
}

// poll() for up to `ms` milliseconds, none for a negative value. poll takes an
// int, so a longer limit is waited out in pieces. The result and errno are
// poll's.
inline int poll(pollfd* fds, nfds_t count, qint64 ms)
{
    if (ms < 0)
        return ::poll(fds, count, -1);
    if (ms <= INT_MAX)
        return ::poll(fds, count, int(ms));
    const qint64 deadline = now() + ms;
    for (;;) {
        const qint64 rest = deadline - now();
        const int result = ::poll(fds, count, int(qBound(qint64(0), rest, qint64(INT_MAX))));
        if (result != 0 || rest <= INT_MAX)
            return result;
    }
}

} // namespace SocketWait
} // namespace Brevi

#endif
