#include "process/handle.h"

#include <mutex>
#include <vector>

#include <cerrno>
#include <csignal>
#include <cstring>

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
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

// Collects the children whose last handle went while they still ran. One
// thread, started when the first such child is handed over and ending when
// none is left, waits on their pidfds and reaps each as it ends, so that no
// child of a process that let go of it stays behind as a zombie.
//
// The state is made once and never freed: the thread may still be waiting
// when the process exits, after its static objects are gone.
class Reaper
{
public:
    static Reaper& instance()
    {
        static Reaper* const reaper = new Reaper;
        return *reaper;
    }

    // Takes the descriptor over; it is closed once the child is collected.
    void adopt(int pidfd)
    {
        std::lock_guard<std::mutex> lock(moMutex);
        moPending.push_back(pidfd);
        if (mbRunning) {
            wake();
            return;
        }
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
        // Signals meant for the process go to its own threads, never here.
        sigset_t all, previous;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &previous);
        pthread_t thread;
        mbRunning = pthread_create(&thread, &attributes, &Reaper::run, this) == 0;
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        pthread_attr_destroy(&attributes);
        // Without a thread the child waits for the next hand-over to try again.
    }

private:
    Reaper()
        : miWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    {}

    void wake()
    {
        const uint64_t one = 1;
        if (miWake >= 0 && ::write(miWake, &one, sizeof one) < 0) {
        }
    }

    static void* run(void* self)
    {
        static_cast<Reaper*>(self)->loop();
        return nullptr;
    }

    void loop()
    {
        std::vector<int> children;
        for (;;) {
            {
                std::lock_guard<std::mutex> lock(moMutex);
                children.insert(children.end(), moPending.begin(), moPending.end());
                moPending.clear();
                if (children.empty()) {
                    mbRunning = false;
                    return;
                }
            }
            std::vector<pollfd> fds;
            for (const int child : children)
                fds.push_back(pollfd{child, POLLIN, 0});
            if (miWake >= 0)
                fds.push_back(pollfd{miWake, POLLIN, 0});
            // Without the wake-up descriptor a new child is looked at within
            // a second.
            if (::poll(fds.data(), fds.size(), miWake >= 0 ? -1 : 1000) < 0 && errno != EINTR)
                continue;
            if (miWake >= 0 && fds.back().revents) {
                uint64_t count;
                while (::read(miWake, &count, sizeof count) > 0) {
                }
            }
            std::vector<int> running;
            for (size_t i = 0; i < children.size(); ++i) {
                siginfo_t info;
                // Collected, or not ours to collect any more (reaped by a
                // waitpid(-1) elsewhere): the descriptor has done its work.
                if (fds[i].revents == 0 || (waitOn(children[i], info, WEXITED | WNOHANG) && info.si_pid == 0))
                    running.push_back(children[i]);
                else
                    ::close(children[i]);
            }
            children.swap(running);
        }
    }

    std::mutex moMutex;
    std::vector<int> moPending;
    int miWake;
    bool mbRunning = false;
};
} // namespace

Handle::Handle(int handle, Ownership ownership)
    : miHandle(handle)
    , meOwnership(ownership)
{}

Handle::~Handle()
{
    if (miHandle == Invalid)
        return;
    if (meOwnership == Owned) {
        // The last holder of a process handle collects a child that has
        // ended, so that it does not stay behind in the process table; one
        // still running is handed to the reaper, which collects it when it
        // ends. On any other descriptor waitid fails (not a pidfd, or no
        // child of ours) and the descriptor is simply closed.
        siginfo_t info;
        if (waitOn(miHandle, info, WEXITED | WNOHANG) && info.si_pid == 0)
            Reaper::instance().adopt(miHandle);
        else
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
