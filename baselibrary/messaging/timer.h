#ifndef BASELIBRARY_MESSAGING_TIMER_H
#define BASELIBRARY_MESSAGING_TIMER_H

#include "brevi_export.h"
#include "messaging/msgaddress.h"

#include <QString>

namespace Brevi {

// The process's one timer service: a thread with a standalone context of its
// own that sends a message back to a context at a given moment.
//
//     Timer::set("BackupRetryPost", 30000, "job 7");   // in 30 seconds
//     ...
//     // later, in a wait of the same context: BackupRetryPost arrives from
//     // Timer::address(), with cookie "job 7" and an empty body
//     Timer::cancel("BackupRetryPost");                // or not at all
//
// Events belong to the context that set them, under their name: setting a
// name again from the same context moves its one event to the new time and
// cookie, while another context's event of the same name is left alone.
// Events of equal time fire in the order they were set; an event whose time
// has already passed fires at once. Times are Context::systemTime
// milliseconds.
//
// The first `set` starts the thread and connects the calling context to it
// (each further context on its first use). `shutdown` ends it; the first
// context of the process calls it as it ends. The thread is started once per
// process: once it has been shut down, `set` and `cancel` fail.
//
// Failure: `set` and `cancel` return false and trace why: an empty name, a
// thread without messaging, no timer thread (it could not be started, or has
// been shut down). The timer thread itself traces what it ignores ("Ignored
// set post from", "Ignore message"); an event whose context has gone by the
// time it fires is dropped with the rest of that context's events.
//
// Threads: any thread with messaging may call these. The event list belongs
// to the timer thread and is reached only by messages (TimerSetPost,
// TimerCancelPost, TimerSignalPost, TimerShutdownPost); a lock and a
// condition variable serve the start and the shutdown only.
class BREVI_EXPORT Timer
{
public:
    Timer() = delete;

    // Asks for a message `name` with `cookie` to this context in `ms`
    // milliseconds, replacing an event of the same name set before by this
    // context. True when the timer thread was given the event.
    static bool set(const QString& name, unsigned ms, const QString& cookie = QString());
    // Drops this context's event of `name`, if there is one (an unknown name
    // is not an error). True when the timer thread was given the request.
    static bool cancel(const QString& name);
    // Ends the timer thread and waits for it; pending events are dropped.
    // Does nothing when no timer thread was started, or it has already gone;
    // safe from any thread and more than once.
    static void shutdown();

    // The timer thread's address, from which its messages come; invalid
    // while it is not running.
    static MsgAddress address();
    static bool isRunning();

private:
    // Starts the thread, once per process, and waits until it has set up;
    // true when it runs.
    static bool initialize();
    static void start();
    // Connects the calling context to the timer thread unless it is already.
    static bool connect();
    // The thread's function, and what runs inside its context.
    static void threadMain();
    static void run();
};

} // namespace Brevi

#endif
