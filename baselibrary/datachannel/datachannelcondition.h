#ifndef BASELIBRARY_DATACHANNEL_DATACHANNELCONDITION_H
#define BASELIBRARY_DATACHANNEL_DATACHANNELCONDITION_H

#include "brevi_export.h"
#include "datachannel/datachannel.h"
#include "datachannel/datachannelsemaphore.h"

#include <pthread.h>

namespace Brevi {

// A condition two processes share through the coordination area of a file
// channel (datachannel/datachannellayout.h): the reader sleeps in wait()
// until the writer, having added a record, calls notify(). The mutex also
// guards the two spool states in the area.
//
// The mutex is robust and process-shared: one whose owner was killed is
// taken over and made consistent, since what it guards are two states that
// each end writes whole. The waiters blocked counter, changed only with the
// mutex held, says whether a notify owes a unit to the queue; a waiter that
// gives up withdraws itself, or takes the unit a notify already gave it, so
// no unit is left over to wake a later wait for nothing.
//
// The wait is time-sliced as DatachannelSemaphore's is, for the same reason.
// Failures are traced ("Failed to initialze", "Error locking mutex", "Error
// unlocking mutex"). Threads: the channel's owner. Owns nothing: the area
// belongs to the channel.
class BREVI_EXPORT DatachannelCondition
{
public:
    DatachannelCondition() = default;

    // Makes the mutex, gate and queue in the area and zeroes the counters.
    bool create(unsigned char* area);
    // Uses those the other end made.
    void attach(unsigned char* area);
    bool isValid() const { return mpArea != nullptr; }

    bool lock();
    bool unlock();
    // With the mutex held: wakes a waiting reader, if there is one.
    void notify();
    // With the mutex held, which it gives up while it sleeps: eOk when
    // notified, eMessagePending when the deadline came first, or sooner than
    // that after `sliceMs` when it is not 0.
    Datachannel::Result wait(unsigned long long sliceMs = 0);
    void heartbeat(unsigned long long milliseconds) { moQueue.heartbeat(milliseconds); }

private:
    unsigned char* mpArea = nullptr;
    pthread_mutex_t* mpMutex = nullptr;
    DatachannelSemaphore moGate;
    DatachannelSemaphore moQueue;
};

} // namespace Brevi

#endif
