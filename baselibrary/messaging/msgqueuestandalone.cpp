#include "messaging/msgqueuestandalone.h"

#include "core/trace.h"

#include <boost/chrono.hpp>
#include <boost/thread/thread.hpp>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleMsg;
}

MsgQueueStandalone::MsgQueueStandalone(unsigned contextId)
    : MsgQueue(contextId, false)
{
    mbWakeUnlocked = true;
}

MsgQueueStandalone::~MsgQueueStandalone() = default;

bool MsgQueueStandalone::enqueue(boost::any* item) { return append(item, false, "Failed to wake up queue"); }

bool MsgQueueStandalone::enqueueOnce(boost::any* item) { return append(item, true, "Failed to wake up queue"); }

bool MsgQueueStandalone::wake(const char*)
{
    moCondition.notify_one();
    return true;
}

void MsgQueueStandalone::releaseLocked() { moCondition.notify_all(); }

void MsgQueueStandalone::spin()
{
    unsigned seen = 0;
    {
        boost::mutex::scoped_lock lock(moMutex);
        if (!moItems.isEmpty() || mbInvalid)
            return;
        seen = muiChanges.load(std::memory_order_acquire);
    }
    // An answer is often on its way from a thread that runs on another
    // processor: watching for it a moment costs less than going to sleep and
    // being woken. Yielding leaves the processor to that thread if it has to
    // share this one.
    const boost::chrono::steady_clock::time_point end =
        boost::chrono::steady_clock::now() + boost::chrono::microseconds(SpinMicroseconds);
    for (unsigned round = 1; muiChanges.load(std::memory_order_acquire) == seen; ++round) {
        boost::this_thread::yield();
        if (round % 8 == 0 && boost::chrono::steady_clock::now() >= end)
            return;
    }
}

bool MsgQueueStandalone::wait(IpcResult& result, qint64 ms)
{
    if (ms != 0)
        spin();
    boost::mutex::scoped_lock lock(moMutex);
    if (ms > 0) {
        // A relative wait: the monotonic clock, so that a change of the
        // system's time neither shortens nor stretches it.
        const boost::chrono::steady_clock::time_point deadline =
            boost::chrono::steady_clock::now() + boost::chrono::milliseconds(ms);
        while (moItems.isEmpty() && !mbInvalid) {
            if (moCondition.wait_until(lock, deadline) == boost::cv_status::timeout && moItems.isEmpty() && !mbInvalid)
                break;
        }
    } else if (ms < 0) {
        while (moItems.isEmpty() && !mbInvalid)
            moCondition.wait(lock);
    }
    if (mbInvalid) {
        BTRACE(TraceDebug) << "Queue is invalid" << muiContextId;
        result = eIpcResultClosed;
        return false;
    }
    if (moItems.isEmpty()) {
        result = eIpcResultTimeout;
        return false;
    }
    result = eIpcResultOk;
    return true;
}

} // namespace Brevi
