#include "datachannel/datachannelcondition.h"

#include "core/byteorder.h"
#include "core/trace.h"
#include "core/traceerrorcode.h"
#include "datachannel/datachannellayout.h"

#include <cerrno>
#include <cstring>

namespace Brevi {

namespace Layout = DatachannelFileLayout;

namespace {
const unsigned TraceModule = TraceModuleDatachannel;
}

bool DatachannelCondition::create(unsigned char* area)
{
    std::memset(area, 0, Layout::WaitersToUnblockOffset + 4);
    mpMutex = reinterpret_cast<pthread_mutex_t*>(area + Layout::MutexOffset);
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    const int made = pthread_mutex_init(mpMutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    if (made != 0 || !moGate.create(area + Layout::GateOffset, 1) || !moQueue.create(area + Layout::QueueOffset, 0)) {
        BTRACE(TraceAlways) << "Failed to initialze" << TraceErrorCode(made ? made : errno);
        moGate.destroy();
        moQueue.destroy();
        mpMutex = nullptr;
        return false;
    }
    mpArea = area;
    return true;
}

void DatachannelCondition::attach(unsigned char* area)
{
    mpArea = area;
    mpMutex = reinterpret_cast<pthread_mutex_t*>(area + Layout::MutexOffset);
    moGate.attach(area + Layout::GateOffset);
    moQueue.attach(area + Layout::QueueOffset);
}

bool DatachannelCondition::lock()
{
    int result = pthread_mutex_lock(mpMutex);
    if (result == EOWNERDEAD) {
        // The other end was killed holding it; the states it guards are each
        // written whole, so they are as good as the last write left them.
        BTRACE(TraceNormal) << "The holder of the channel's mutex has ended";
        result = pthread_mutex_consistent(mpMutex);
    }
    if (result != 0) {
        BTRACE(TraceAlways) << "Error locking mutex" << TraceErrorCode(result);
        return false;
    }
    return true;
}

bool DatachannelCondition::unlock()
{
    const int result = pthread_mutex_unlock(mpMutex);
    if (result != 0) {
        BTRACE(TraceAlways) << "Error unlocking mutex" << TraceErrorCode(result);
        return false;
    }
    return true;
}

void DatachannelCondition::notify()
{
    unsigned char* blocked = mpArea + Layout::WaitersBlockedOffset;
    const unsigned waiters = ByteOrder::load32(blocked);
    if (waiters == 0)
        return;
    ByteOrder::store32(blocked, waiters - 1);
    moQueue.post();
}

Datachannel::Result DatachannelCondition::wait(unsigned long long sliceMs)
{
    unsigned char* blocked = mpArea + Layout::WaitersBlockedOffset;
    unsigned long long left = moQueue.remaining();
    if (sliceMs && sliceMs < left)
        left = sliceMs;
    if (left == 0)
        return Datachannel::eMessagePending;
    ByteOrder::store32(blocked, ByteOrder::load32(blocked) + 1);
    if (!unlock())
        return Datachannel::eInternalError;
    Datachannel::Result result = moQueue.wait(left);
    if (!lock())
        return Datachannel::eInternalError;
    if (result == Datachannel::eOk)
        return result;
    // Timed out: withdraw, unless a notify counted this wait out already, in
    // which case its unit is in the queue and is this wait's.
    const unsigned waiters = ByteOrder::load32(blocked);
    if (waiters)
        ByteOrder::store32(blocked, waiters - 1);
    else if (moQueue.tryTake())
        result = Datachannel::eOk;
    return result;
}

} // namespace Brevi
