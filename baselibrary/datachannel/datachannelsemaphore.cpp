#include "datachannel/datachannelsemaphore.h"

#include "core/context.h"
#include "core/trace.h"
#include "core/traceerrorcode.h"

#include <QFile>

#include <cerrno>
#include <csignal>
#include <ctime>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleDatachannel;
}

const unsigned long long DatachannelSemaphore::ClockJumpMs;

bool DatachannelSemaphore::create(void* at, unsigned initial)
{
    mpSemaphore = static_cast<sem_t*>(at);
    if (sem_init(mpSemaphore, 1, initial) != 0) {
        BTRACE(TraceAlways) << "Failed to initialze semaphore" << TraceErrorCode(errno);
        mpSemaphore = nullptr;
        return false;
    }
    mbMade = true;
    return true;
}

void DatachannelSemaphore::attach(void* at) { mpSemaphore = static_cast<sem_t*>(at); }

void DatachannelSemaphore::destroy()
{
    if (mbMade)
        sem_destroy(mpSemaphore);
    mbMade = false;
    mpSemaphore = nullptr;
}

bool DatachannelSemaphore::post()
{
    if (mpSemaphore && sem_post(mpSemaphore) == 0)
        return true;
    BTRACE(TraceAlways) << "Error posting semaphore" << TraceErrorCode(errno);
    return false;
}

bool DatachannelSemaphore::tryTake()
{
    while (mpSemaphore) {
        if (sem_trywait(mpSemaphore) == 0)
            return true;
        if (errno != EINTR)
            return false;
    }
    return false;
}

unsigned long long DatachannelSemaphore::remaining() const
{
    const unsigned long long now = Context::systemTime();
    if (now >= mullDeadline || mullHeartbeat > now + ClockJumpMs)
        return 0;
    return mullDeadline - now;
}

Datachannel::Result DatachannelSemaphore::wait(unsigned long long limitMs)
{
    if (tryTake())
        return Datachannel::eOk;
    unsigned long long left = remaining();
    if (limitMs && limitMs < left)
        left = limitMs;
    if (left == 0 || !mpSemaphore)
        return Datachannel::eMessagePending;
    timespec until = {};
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_sec += time_t(left / 1000);
    until.tv_nsec += long(left % 1000) * 1000000;
    if (until.tv_nsec >= 1000000000) {
        until.tv_nsec -= 1000000000;
        ++until.tv_sec;
    }
    for (;;) {
        if (sem_clockwait(mpSemaphore, CLOCK_MONOTONIC, &until) == 0)
            return Datachannel::eOk;
        if (errno == EINTR)
            continue;
        if (errno != ETIMEDOUT)
            BTRACE(TraceAlways) << "Error waiting on semaphore" << TraceErrorCode(errno);
        return Datachannel::eMessagePending;
    }
}

void DatachannelSemaphore::heartbeat(unsigned long long milliseconds)
{
    const unsigned long long now = Context::systemTime();
    mullDeadline = (mullHeartbeat ? mullHeartbeat : now) + milliseconds;
    mullHeartbeat = now;
}

bool DatachannelSemaphore::processAlive(unsigned pid)
{
    if (pid == 0 || (::kill(pid_t(pid), 0) != 0 && errno != EPERM))
        return false;
    // A killed child that its parent has not reaped yet still answers kill;
    // its state in /proc tells.
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return true;
    const QByteArray line = stat.readAll();
    const int close = line.lastIndexOf(')');
    return close < 0 || close + 2 >= line.size() || (line[close + 2] != 'Z' && line[close + 2] != 'X');
}

} // namespace Brevi
