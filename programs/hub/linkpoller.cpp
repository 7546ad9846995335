#include "linkpoller.h"

#include "core/trace.h"
#include "core/traceerrorcode.h"

#include <cerrno>

#include <sys/epoll.h>
#include <unistd.h>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleHub;
// Events taken from the system in one wait.
const int WaitBatch = 256;
} // namespace

LinkPoller::LinkPoller()
    : miEpoll(epoll_create1(EPOLL_CLOEXEC))
{
    if (miEpoll < 0)
        BTRACE(TraceAlways) << "Failed to create an epoll instance" << TraceErrorCode(errno);
}

LinkPoller::~LinkPoller()
{
    if (miEpoll >= 0)
        ::close(miEpoll);
}

bool LinkPoller::watch(int fd, unsigned& watched, bool read, bool write, quint64 tag)
{
    const unsigned events = (read ? unsigned(EPOLLIN) : 0u) | (write ? unsigned(EPOLLOUT) : 0u);
    if (events == watched || fd < 0)
        return true;
    int result;
    if (!events) {
        result = ::epoll_ctl(miEpoll, EPOLL_CTL_DEL, fd, nullptr);
    } else {
        epoll_event event = {};
        event.events = events;
        event.data.u64 = tag;
        result = ::epoll_ctl(miEpoll, watched ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, fd, &event);
    }
    if (result != 0) {
        BTRACE(TraceAlways) << "Failed to watch descriptor" << fd << TraceErrorCode(errno);
        return false;
    }
    watched = events;
    return true;
}

bool LinkPoller::wait(int ms, std::vector<Ready>& ready)
{
    ready.clear();
    epoll_event events[WaitBatch];
    const int count = ::epoll_wait(miEpoll, events, WaitBatch, ms);
    if (count < 0)
        return errno == EINTR;
    for (int i = 0; i < count; ++i) {
        const unsigned what = events[i].events;
        const bool broken = what & (EPOLLERR | EPOLLHUP);
        ready.push_back(Ready{events[i].data.u64, bool(what & EPOLLIN) || broken, bool(what & EPOLLOUT) || broken});
    }
    return true;
}

} // namespace Brevi
