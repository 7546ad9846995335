// Crossing between threads of one process. The hand-over: a producer thread
// puts messages into a context's queue while the owner takes them out (items
// per second), woken by a condition variable or by the loopback pair. The
// round trip: a request to a worker thread's context, answered by its
// handler, the reply awaited with Msg::wait (round trips per second; the aim
// is at least 50,000).

#include "core/context.h"
#include "messaging/managemsghandlers.h"
#include "messaging/messaging.h"
#include "messaging/msg.h"
#include "messaging/msgqueueattached.h"
#include "messaging/msgqueuestandalone.h"
#include "sockets/tcpsocketselect.h"

#include <QTemporaryDir>

#include "benchsupport.h"

#include <benchmark/benchmark.h>

#include <boost/make_shared.hpp>

#include <atomic>
#include <cstdlib>
#include <thread>

using namespace Brevi;

namespace {

Msg sample()
{
    Msg message(MsgAddress(eMsgAddressContext, 1), "SamplePost");
    message.set("Value", 1u);
    return message;
}

// The producer puts as many items as the run will take, as fast as it can.
std::thread producer(MsgQueue& queue, benchmark::IterationCount count)
{
    return std::thread([&queue, count] {
        boost::any item = sample();
        for (benchmark::IterationCount n = 0; n < count; ++n)
            queue.enqueue(&item);
    });
}

void handOverStandalone(benchmark::State& state)
{
    MsgQueueStandalone queue(Context::id());
    std::thread thread = producer(queue, state.max_iterations);
    QList<boost::any> items;
    int at = 0;
    for (auto _ : state) {
        if (at == items.size()) {
            items.clear();
            at = 0;
            IpcResult result = eIpcResultOk;
            while (!queue.wait(result, 5000) || !queue.dequeueAll(items))
                if (result == eIpcResultClosed)
                    break;
        }
        benchmark::DoNotOptimize(boost::any_cast<Msg>(&items[at++]));
    }
    thread.join();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(handOverStandalone)->UseRealTime();

void handOverAttached(benchmark::State& state)
{
    MsgQueueAttached queue(Context::id());
    TCPSocketSelect standing;
    if (!queue.setup(standing)) {
        state.SkipWithError("no loopback pair");
        return;
    }
    std::thread thread = producer(queue, state.max_iterations);
    QList<boost::any> items;
    int at = 0;
    TCPSocketSelect ready;
    for (auto _ : state) {
        while (at == items.size()) {
            items.clear();
            at = 0;
            standing.clone(ready);
            if (ready.wait(5000) == eTCPErrorNone)
                queue.dequeueAll(items, &ready);
        }
        benchmark::DoNotOptimize(boost::any_cast<Msg>(&items[at++]));
    }
    thread.join();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(handOverAttached)->UseRealTime();

// The echo worker's side.
boost::shared_ptr<Messaging> gParent;
std::atomic<bool> gWorkerReady{false};

void echoWorker()
{
    const MsgAddress parent = Context::messaging()->connect(gParent, "bench", Log::eNoProxy);
    if (!parent)
        return;
    ManageMsgHandlers handlers;
    handlers.add("EchoRequest", boost::make_shared<MsgHandlerFunction>([](const Msg& request) {
                     return request.reply("EchoReply", request.body()) ? eMsgResultHandled : eMsgResultFailed;
                 }));
    handlers.add("StopPost", boost::make_shared<MsgHandlerFunction>([](const Msg&) { return eMsgResultExit; }));
    Msg::wait(-1);
    Context::messaging()->disconnect(parent, QString());
}

void roundTrip(benchmark::State& state)
{
    gParent = Context::messaging();
    std::thread worker([] { Context::run(echoWorker, Context::TypeStandalone, 0, "Echo"); });
    const Msg connected = Msg::wait("MsgConnectedPost", 10);
    if (!connected) {
        worker.join();
        state.SkipWithError("worker did not connect");
        return;
    }
    const MsgAddress address = connected.source();
    unsigned value = 0;
    for (auto _ : state) {
        Msg request(address, "EchoRequest");
        request.set("Value", ++value);
        request.send();
        const Msg reply = Msg::wait("EchoReply", address, 10);
        if (!reply) {
            state.SkipWithError("no reply");
            break;
        }
    }
    Msg(address, "StopPost").send();
    worker.join();
    Context::messaging()->disconnect(address, QString());
    gParent.reset();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(roundTrip)->UseRealTime();

} // namespace

int main(int argc, char** argv)
{
    return BreviBench::runInContext(argc, argv, Context::TypeStandalone, "Messaging bench");
}
