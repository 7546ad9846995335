#ifndef TESTS_DATACHANNEL_DCFIXTURE_H
#define TESTS_DATACHANNEL_DCFIXTURE_H

#include "dcstream.h"
#include "hubtest.h"

#include "core/context.h"

#include <atomic>
#include <chrono>
#include <thread>

namespace DcTest {

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

    // Until `flag` is set, for at most `ms`.
    static bool await(const std::atomic<bool>& flag, int ms = 20000)
    {
        for (int waited = 0; !flag && waited < ms; waited += 10)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return flag;
    }

    static double secondsSince(std::chrono::steady_clock::time_point start)
    {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
};

} // namespace DcTest

#endif
