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

    // `total` bytes of the test stream from a helper process that sends them
    // as `mode` says (datachannel_peer), received here by a transport with no
    // end marker: whole, in order, hashed alike at both ends. The channel
    // goes to `also` for the caller's own checks. Call inside runAttached,
    // as "tester".
    static void streamFromPeer(const QString& mode, unsigned long long total,
                               const std::function<void(Brevi::Datachannel&)>& also)
    {
        Catch done(Done);
        HubTest::ChildProcess sender(HubTest::childProgram(),
                                     {"send", "dcsender", "tester", QString::number(total), mode});
        Brevi::Datachannel channel = accept(nullptr, 60);
        ASSERT_TRUE(channel.isValid());
        const Counted counted = receiveStream(channel, {}, total);
        const Brevi::Msg report = done.wait(60);
        EXPECT_EQ(counted.result, Brevi::Datachannel::eOk);
        EXPECT_EQ(counted.hash, streamHash(total));
        EXPECT_EQ(report.getString("Hash").toLatin1(), counted.hash);
        EXPECT_EQ(report.getString("Result"), "eOk");
        int status = -1;
        EXPECT_TRUE(sender.waitExit(30000, &status));
        EXPECT_EQ(status, 0);
        also(channel);
    }

    static double secondsSince(std::chrono::steady_clock::time_point start)
    {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
};

} // namespace DcTest

#endif
