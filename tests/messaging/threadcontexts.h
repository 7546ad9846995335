#ifndef TESTS_MESSAGING_THREADCONTEXTS_H
#define TESTS_MESSAGING_THREADCONTEXTS_H

#include "core/context.h"
#include "messaging/msg.h"

#include "testhome.h"
#include "tracelines.h"

#include <QString>
#include <QStringList>

#include <boost/make_shared.hpp>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace BreviTest {

// Runs `body` inside a standalone context on the calling thread, with the
// messaging module traced at full detail; false when the context did not
// come up.
inline bool runStandalone(void (*body)(), const QString& title)
{
    static thread_local void (*current)() = nullptr;
    current = body;
    return Brevi::Context::run(
        [] {
            Brevi::Trace::setLevel(Brevi::TraceDebug, Brevi::TraceModuleMsg);
            current();
        },
        Brevi::Context::TypeStandalone, 0, title);
}

// runStandalone under a fresh home of its own, for a test that looks at no
// file of it.
inline bool runInNewHome(void (*body)(), const QString& title)
{
    TestHome home;
    return runStandalone(body, title);
}

// A thread of the process with a context of its own, joined at the latest
// by the destructor. `body` runs inside that context; a thread whose context
// does not come up runs `failed` instead, if given.
class WorkerThread
{
public:
    WorkerThread(void (*body)(), const QString& title, void (*failed)() = nullptr)
        : moThread([body, title, failed] {
            if (!runStandalone(body, title) && failed)
                failed();
        })
    {}
    ~WorkerThread() { join(); }
    void join()
    {
        if (moThread.joinable())
            moThread.join();
    }

private:
    std::thread moThread;
};

// One thread lets another go on; every wait is bounded.
class Gate
{
public:
    void open()
    {
        std::lock_guard<std::mutex> lock(moMutex);
        mbOpen = true;
        moCondition.notify_all();
    }
    bool wait(int ms = 10000)
    {
        std::unique_lock<std::mutex> lock(moMutex);
        return moCondition.wait_for(lock, std::chrono::milliseconds(ms), [this] { return mbOpen; });
    }
    void reset()
    {
        std::lock_guard<std::mutex> lock(moMutex);
        mbOpen = false;
    }

private:
    std::mutex moMutex;
    std::condition_variable moCondition;
    bool mbOpen = false;
};

// A handler from any callable.
inline Brevi::MsgHandlerPointer handler(const std::function<Brevi::MsgResult(const Brevi::Msg&)>& function)
{
    return boost::make_shared<Brevi::MsgHandlerFunction>(function);
}

} // namespace BreviTest

#endif
