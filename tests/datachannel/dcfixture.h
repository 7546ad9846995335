#ifndef TESTS_DATACHANNEL_DCFIXTURE_H
#define TESTS_DATACHANNEL_DCFIXTURE_H

#include "dcstream.h"
#include "hubtest.h"

#include "core/context.h"

#include <atomic>
#include <chrono>
#include <thread>

namespace DcTest {

// `body` on a thread of its own, in a context attached as `name`; the
// constructor returns once the context is up (or after 20 seconds).
class Attached
{
public:
    Attached(const QString& name, const std::function<void()>& body)
        : moThread([this, name, body] {
            runAttached(
                [&] {
                    mbReady = true;
                    body();
                },
                name);
            mbReady = true;
        })
    {
        for (int waited = 0; !mbReady && waited < 20000; waited += 10)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ~Attached() { join(); }
    void join()
    {
        if (moThread.joinable())
            moThread.join();
    }

private:
    std::atomic<bool> mbReady{false};
    std::thread moThread;
};

// A test with the real Hub on a free port of its own home, which this
// process's attached contexts and the helpers it starts attach to.
class Channels : public HubTest::HubFixture
{
protected:
    void SetUp() override
    {
        startHub();
        qputenv("BREVI_HUB_PORT", QByteArray::number(port()));
    }

    // A context attached under `name` on this machine.
    static Brevi::MsgAddress named(const QString& name)
    {
        return Brevi::MsgAddress(Brevi::Context::machineName(), name, QString());
    }

    static double secondsSince(std::chrono::steady_clock::time_point start)
    {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
};

} // namespace DcTest

#endif
