#ifndef BASELIBRARY_DATACHANNEL_DATACHANNELSEMAPHORE_H
#define BASELIBRARY_DATACHANNEL_DATACHANNELSEMAPHORE_H

#include "brevi_export.h"
#include "datachannel/datachannel.h"

#include <semaphore.h>

namespace Brevi {

// A counted semaphore that two processes share for a data channel: a
// process-shared POSIX semaphore in memory both have mapped, made by the end
// that owns the memory and used in place by the other.
//
// Its wait is time-sliced, so that a thread blocked on a channel still
// handles its messages: a wait lasts at most until the deadline, which each
// heartbeat moves on from the previous heartbeat. After eMessagePending the
// channel beats (heartbeat) and returns eMessagePending to its caller, who
// handles messages and comes back; so a wait is never longer than one
// heartbeat, and a deadline never older than one.
//
// Failures are traced ("Failed to initialze semaphore", "Error posting
// semaphore", "Error waiting on semaphore"). Threads: the channel's owner.
// Owns nothing: the memory belongs to the channel, and destroy() is for the
// end that made the semaphore, after the other end can no longer use it.
class BREVI_EXPORT DatachannelSemaphore
{
public:
    // A heartbeat older than this lies in the future: the clock has jumped.
    static const unsigned long long ClockJumpMs = 60000;

    DatachannelSemaphore() = default;

    // Makes a new semaphore at `at` with `initial` units.
    bool create(void* at, unsigned initial);
    // Uses the semaphore the other end made at `at`.
    void attach(void* at);
    // Destroys a semaphore this object made.
    void destroy();

    // One unit more; false on failure.
    bool post();
    // Takes a unit, waiting no longer than the deadline: eOk, or
    // eMessagePending when none came. `limitMs`, when not 0, waits no longer
    // than that.
    Datachannel::Result wait(unsigned long long limitMs = 0);
    // Takes a unit if one is there now.
    bool tryTake();
    // The deadline becomes the previous heartbeat plus `milliseconds`, and
    // the heartbeat now.
    void heartbeat(unsigned long long milliseconds);
    // Milliseconds to the deadline; 0 when it has passed or the clock jumped.
    unsigned long long remaining() const;

    // Whether process `pid` still runs (and is not a zombie of ours).
    static bool processAlive(unsigned pid);

private:
    sem_t* mpSemaphore = nullptr;
    bool mbMade = false;
    unsigned long long mullDeadline = 0;
    unsigned long long mullHeartbeat = 0;
};

} // namespace Brevi

#endif
