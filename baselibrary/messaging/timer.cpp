#include "messaging/timer.h"

#include "core/context.h"
#include "core/trace.h"
#include "messaging/messaging.h"
#include "messaging/msg.h"
#include "messaging/msgcatalogue.h"
#include "messaging/timer_p.h"

#include <boost/shared_ptr.hpp>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleTimer;

namespace SetPost = Catalogue::TimerSetPost;
namespace CancelPost = Catalogue::TimerCancelPost;

// A long nap is taken in pieces so that the list is looked at again: a jump
// of the system's clock then delays an event by one piece at most.
const unsigned long long NapPieceMs = 300000;

enum TimerStateE { eTimerNotStarted, eTimerRunning, eTimerFailed, eTimerStopped };

// What callers share with the timer thread. Made once and never destroyed, so
// that a process that ends without a shutdown is not stopped by the
// destructor of a thread that is still running.
struct TimerShared {
    std::once_flag moStarted;
    // Guards the start and the shutdown; never held by the timer thread but
    // while it says that it has set up.
    std::mutex moMutex;
    std::condition_variable moSetUp;
    bool mbSetUp = false;
    std::thread moThread;
    std::atomic<int> meState{eTimerNotStarted};
    // Raised by a shutdown from a caller that cannot post, and looked at
    // after every message.
    std::atomic<bool> mbStop{false};
    // Written once, under the mutex, before the state becomes running.
    boost::shared_ptr<Messaging> mptMessaging;
    MsgAddress moAddress;
};

TimerShared& shared()
{
    static TimerShared* const state = new TimerShared;
    return *state;
}

// The timer thread must not wait for itself: its context may be the first of
// the process, whose end shuts the timer down.
thread_local bool tbTimerThread = false;

// The thread has its context (or failed to make one): the starter may go on.
void announce(const boost::shared_ptr<Messaging>& messaging, const MsgAddress& address)
{
    TimerShared& state = shared();
    std::lock_guard<std::mutex> lock(state.moMutex);
    state.mptMessaging = messaging;
    state.moAddress = address;
    state.mbSetUp = true;
    state.moSetUp.notify_all();
}

// Sends the event's message to the context that asked for it; a context that
// has gone takes the rest of its events with it.
void notify(const TimerEvent& event, Messaging& messaging, TimerEvents& events)
{
    Msg message(event.moSource, event.msName);
    message.setCookie(event.msCookie);
    if (messaging.send(message))
        return;
    const int dropped = events.removeSource(event.moSource);
    BTRACE(TraceAlways) << "Failed to notify" << event.moSource << "Message" << event.msName << "Cookie"
                        << event.msCookie << "context has gone, dropped" << dropped << "more event(s)";
}

void addEvent(const Msg& message, TimerEvents& events)
{
    bool found = true;
    TimerEvent event;
    event.moSource = message.source();
    event.msName = message.getString(SetPost::Name);
    event.msCookie = message.getString(SetPost::Cookie);
    event.muiWhen = message.getUint64(SetPost::When, &found);
    if (event.msName.isEmpty()) {
        BTRACE(TraceAlways) << "Ignored set post from" << message.source() << "No message name supplied";
        return;
    }
    if (!found) {
        BTRACE(TraceAlways) << "Ignored set post from" << message.source() << "No time supplied for" << event.msName;
        return;
    }
    BTRACE(TraceVerbose) << "Add event for" << event.moSource << "Message" << event.msName << "Cookie" << event.msCookie
                         << "When" << event.muiWhen;
    events.add(event);
}
// One message to the timer thread; false when it is to end.
bool serve(const Msg& message, TimerEvents& events)
{
    const QString& name = message.name();
    if (name == SetPost::Message) {
        addEvent(message, events);
    } else if (name == CancelPost::Message) {
        const QString cancelled = message.getString(CancelPost::Name);
        BTRACE(TraceNormal) << "Cancel post from" << message.source() << "for" << cancelled;
        if (!events.remove(message.source(), cancelled))
            BTRACE(TraceDebug) << "No event of" << cancelled << "to cancel";
    } else if (name == Catalogue::TimerShutdownPost::Message) {
        BTRACE(TraceNormal) << "Shutdown post from" << message.source();
        return false;
    } else if (name == Catalogue::MsgConnectedPost::Message) {
        BTRACE(TraceNormal) << message.source() << "has connected" << message.getCookie();
    } else if (name != Catalogue::TimerSignalPost::Message) {
        BTRACE(TraceNormal) << "Ignore message" << name << "from" << message.source();
    }
    return true;
}
} // namespace

// ---------------------------------------------------------------------------
// The event list

TimerEvent TimerEvents::takeFirst()
{
    TimerEvent event = moEvents.takeFirst();
    moWhen.remove(key(event.moSource, event.msName));
    return event;
}

void TimerEvents::add(const TimerEvent& event)
{
    remove(event.moSource, event.msName);
    const auto at =
        std::upper_bound(moEvents.begin(), moEvents.end(), event.muiWhen,
                         [](unsigned long long when, const TimerEvent& other) { return when < other.muiWhen; });
    moEvents.insert(at, event);
    moWhen.insert(key(event.moSource, event.msName), event.muiWhen);
}

bool TimerEvents::remove(const MsgAddress& source, const QString& name)
{
    const auto known = moWhen.find(key(source, name));
    if (known == moWhen.end())
        return false;
    const unsigned long long when = *known;
    moWhen.erase(known);
    auto at = std::lower_bound(moEvents.begin(), moEvents.end(), when,
                               [](const TimerEvent& other, unsigned long long when) { return other.muiWhen < when; });
    for (; at != moEvents.end() && at->muiWhen == when; ++at) {
        if (at->msName == name && at->moSource.binary() == source.binary()) {
            moEvents.erase(at);
            return true;
        }
    }
    BTRACE(TraceAlways) << "Error: `event of" << name << "in the list' failed.";
    return false;
}

int TimerEvents::removeSource(const MsgAddress& source)
{
    const BinaryAddress& binary = source.binary();
    int removed = 0;
    for (int at = moEvents.size() - 1; at >= 0; --at) {
        if (moEvents.at(at).moSource.binary() != binary)
            continue;
        moWhen.remove(key(moEvents.at(at).moSource, moEvents.at(at).msName));
        moEvents.removeAt(at);
        ++removed;
    }
    return removed;
}

// ---------------------------------------------------------------------------
// The callers' side

bool Timer::set(const QString& name, unsigned ms, const QString& cookie)
{
    const unsigned long long when = Context::systemTime() + ms;
    if (name.isEmpty()) {
        BTRACE(TraceAlways) << "Cannot set a timer: No message name supplied";
        return false;
    }
    if (!initialize() || !connect())
        return false;
    Msg post(shared().moAddress, SetPost::Message);
    post.set(SetPost::Name, name);
    post.set(SetPost::When, when);
    post.set(SetPost::Cookie, cookie);
    if (!post.send()) {
        BTRACE(TraceAlways) << "Failed to send" << SetPost::Message << "for" << name;
        return false;
    }
    BTRACE(TraceDebug) << "Set" << name << "Cookie" << cookie << "in" << ms << "msec";
    return true;
}

bool Timer::cancel(const QString& name)
{
    if (!isRunning()) {
        BTRACE(TraceAlways) << "No timer thread, nothing to cancel for" << name;
        return false;
    }
    if (!connect())
        return false;
    Msg post(shared().moAddress, CancelPost::Message);
    post.set(CancelPost::Name, name);
    if (!post.send()) {
        BTRACE(TraceAlways) << "Failed to send" << CancelPost::Message << "for" << name;
        return false;
    }
    return true;
}

void Timer::shutdown()
{
    if (tbTimerThread) {
        BTRACE(TraceNormal) << "The timer thread ends by itself";
        return;
    }
    TimerShared& state = shared();
    std::unique_lock<std::mutex> lock(state.moMutex);
    if (!state.moThread.joinable()) {
        BTRACE(TraceDebug) << (state.meState == eTimerStopped ? "Timer thread has already shut down"
                                                              : "No timer thread to shut down");
        return;
    }
    // A start that is still under way finishes first.
    state.moSetUp.wait(lock, [&state] { return state.mbSetUp; });
    // From here on callers are told that the timer is gone, rather than
    // handing it events that it would drop.
    state.meState = eTimerStopped;
    if (state.mptMessaging) {
        // A caller that can post says goodbye as every other caller speaks to
        // the timer, behind what it sent before. One that cannot (no
        // messaging of its own) raises the flag and only wakes the thread,
        // through the one door of its queue that is open to any thread.
        if (!connect() || !Msg(state.moAddress, Catalogue::TimerShutdownPost::Message).send()) {
            BTRACE(TraceNormal) << "Wake the timer thread to stop it";
            state.mbStop = true;
            state.mptMessaging->failed(Catalogue::TimerShutdownPost::Message);
        }
    }
    BTRACE(TraceNormal) << "Wait for timer thread to end";
    state.moThread.join();
    BTRACE(TraceNormal) << "Timer thread has shut down";
}

MsgAddress Timer::address() { return isRunning() ? shared().moAddress : MsgAddress(); }

bool Timer::isRunning() { return shared().meState == eTimerRunning; }

bool Timer::initialize()
{
    TimerShared& state = shared();
    std::call_once(state.moStarted, &Timer::start);
    switch (state.meState.load()) {
    case eTimerRunning:
        return true;
    case eTimerStopped:
        BTRACE(TraceAlways) << "Timer thread has been shut down";
        return false;
    default:
        BTRACE(TraceAlways) << "No timer thread";
        return false;
    }
}

void Timer::start()
{
    TimerShared& state = shared();
    const boost::shared_ptr<Messaging> caller = Context::messaging();
    if (!caller || !caller->haveStandaloneContexts())
        BTRACE(TraceAlways) << "Will be unable to connect to timer thread";

    std::unique_lock<std::mutex> lock(state.moMutex);
    try {
        state.moThread = std::thread(&Timer::threadMain);
    } catch (const std::system_error& error) {
        BTRACE(TraceAlways) << "Failed to create timer thread" << error.what();
        state.meState = eTimerFailed;
        return;
    }
    BTRACE(TraceNormal) << "Wait for thread to setup";
    state.moSetUp.wait(lock, [&state] { return state.mbSetUp; });
    BTRACE(TraceNormal) << "Thread has setup";
    if (!state.mptMessaging) {
        BTRACE(TraceAlways) << "The timer thread has no context";
        state.meState = eTimerFailed;
        return;
    }
    state.meState = eTimerRunning;
}

bool Timer::connect()
{
    TimerShared& state = shared();
    const boost::shared_ptr<Messaging> messaging = Context::messaging();
    if (!messaging) {
        BTRACE(TraceAlways) << "No messaging, cannot reach the timer thread";
        return false;
    }
    if (messaging->isConnected(state.moAddress))
        return true;
    if (!messaging->connect(state.mptMessaging, Catalogue::TimerGreeting, Log::eNoProxy)) {
        BTRACE(TraceAlways) << "Failed to connect to timer thread" << state.moAddress;
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------
// The timer thread

void Timer::threadMain()
{
    tbTimerThread = true;
    const QString title = Context::baseName() + Catalogue::TimerTitleWord;
    if (!Context::run(&Timer::run, Context::TypeStandalone, 0, title))
        announce(boost::shared_ptr<Messaging>(), MsgAddress());
}

void Timer::run()
{
    TimerShared& state = shared();
    const boost::shared_ptr<Messaging> messaging = Context::messaging();
    announce(messaging, Context::address());
    BTRACE(TraceNormal) << "Ready";

    TimerEvents events;
    bool serving = true;
    while (serving && !state.mbStop) {
        // Everything that is due goes out; then a nap until the next one, or
        // until a message comes.
        IpcResult result = eIpcResultOk;
        Msg message;
        while (!events.isEmpty()) {
            const unsigned long long now = Context::systemTime();
            BTRACE(TraceDebug) << events.count() << "events pending at" << now;
            const TimerEvent& first = events.first();
            if (first.muiWhen > now) {
                const unsigned long long ahead = first.muiWhen - now;
                BTRACE(TraceDebug) << "First Notify"
                                   << "Message" << first.msName << "Cookie" << first.msCookie << "in" << ahead
                                   << "msec";
                messaging->nap(unsigned(std::min(ahead, NapPieceMs)));
                break;
            }
            BTRACE(TraceVerbose) << "Notify"
                                 << "Message" << first.msName << "Cookie" << first.msCookie << (now - first.muiWhen)
                                 << "msec late";
            notify(events.takeFirst(), *messaging, events);
        }
        if (events.isEmpty()) {
            BTRACE(TraceDebug) << "Wait for some work";
            message = messaging->receive(result, -1);
        } else {
            message = messaging->receive(result, 0);
        }

        // Every message already waiting is served before anything more is
        // fired: when this thread has fallen behind, a replacement or a
        // cancel that was sent before an event came due still wins over it.
        while (message && serving) {
            serving = serve(message, events);
            if (serving)
                message = messaging->receive(result, 0);
        }
        if (serving && message.lastError() != eMsgResultTimeout) {
            BTRACE(TraceAlways) << "Error receiving messages" << int(message.lastError()) << unsigned(result);
            serving = false;
        }
    }
    BTRACE(TraceNormal) << "Timer thread ends, dropping" << events.count() << "pending event(s)";
    // Ended by an error rather than a shutdown: callers hear that there is no
    // timer instead of sending into a queue that is gone.
    int running = eTimerRunning;
    state.meState.compare_exchange_strong(running, eTimerFailed);
}

} // namespace Brevi
