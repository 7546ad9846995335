#include "messaging/msgqueuestandalone.h"

#include "core/trace.h"

#include <boost/chrono.hpp>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleMsg;
}

MsgQueueStandalone::MsgQueueStandalone(unsigned contextId)
    : MsgQueue(contextId, false)
{}

MsgQueueStandalone::~MsgQueueStandalone() = default;

bool MsgQueueStandalone::enqueue(boost::any* item) { return append(item, false, "Failed to wake up queue"); }

bool MsgQueueStandalone::enqueueOnce(boost::any* item) { return append(item, true, "Failed to wake up queue"); }

bool MsgQueueStandalone::wake(const char*)
{
    moCondition.notify_one();
    return true;
}

void MsgQueueStandalone::releaseLocked() { moCondition.notify_all(); }

bool MsgQueueStandalone::wait(IpcResult& result, qint64 ms)
{
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
