// Starting a program through a Hub with ProcessCreate: what it refuses before
// anything is sent, and what it makes of a thread that cannot reach a Hub.
#include "processtest.h"

#include "core/context.h"
#include "core/machinename.h"
#include "core/trace.h"
#include "messaging/messaging.h"
#include "messaging/msgroute.h"
#include "process/processcreate.h"

#include <gtest/gtest.h>

using Brevi::Context;
using Brevi::MachineName;
using Brevi::MsgRoute;
using Brevi::ProcessCreate;
using ProcessTest::inContext;
using ProcessTest::TraceWatch;

namespace {

void traceEverything() { Brevi::Trace::setLevel(Brevi::TraceDebug, Brevi::TraceModuleProcessCreate); }

// The outcome of a request that never reached a Hub.
void expectNotStarted(const ProcessCreate& request, ProcessCreate::Result error)
{
    EXPECT_EQ(request.error(), error);
    EXPECT_FALSE(request);
    EXPECT_FALSE(request.address());
}

TEST(ProcessCreateRefusal, NoMachineOrNoProgramIsRefusedAndNothingIsSent)
{
    inContext(
        [] {
            traceEverything();
            MsgRoute twoHops(MachineName("first@1"));
            ASSERT_TRUE(twoHops.append(MachineName("second@2")));
            const int handlers = Context::messaging()->handlerCount();

            struct Case {
                const char* what;
                ProcessCreate request;
            };
            const Case cases[] = {
                {"no machine", ProcessCreate(MachineName(), "indexer", "Indexer", "ix", "jobs")},
                {"no program", ProcessCreate(MachineName("node@1"), QString(), "Indexer")},
                {"invalid route", ProcessCreate(MsgRoute(), "indexer")},
                {"route, no program", ProcessCreate(twoHops, QString())},
            };
            for (const Case& c : cases) {
                SCOPED_TRACE(c.what);
                expectNotStarted(c.request, ProcessCreate::eInvalidArguments);
            }

            // Nothing went out: a send on this thread, which has no Hub link,
            // would have been refused and said so.
            TraceWatch trace;
            const ProcessCreate again(MachineName("node@1"), QString());
            EXPECT_TRUE(trace.saw("Invalid argument(s)")) << trace.all();
            EXPECT_FALSE(trace.saw("Failed to send create process request")) << trace.all();
            EXPECT_EQ(Context::messaging()->handlerCount(), handlers);
        },
        Context::TypeStandalone);
}

TEST(ProcessCreateRefusal, WithoutAHubLinkTheRequestCannotBeSent)
{
    // A standalone thread reaches only the contexts of its own process.
    inContext(
        [] {
            traceEverything();
            const int handlers = Context::messaging()->handlerCount();
            TraceWatch trace;
            const ProcessCreate byMachine(MachineName("node@1"), "indexer", "Indexer", "ix", "jobs");
            expectNotStarted(byMachine, ProcessCreate::eSendFailed);
            EXPECT_TRUE(trace.saw("Failed to send create process request")) << trace.all();

            MsgRoute route(MachineName("gateway@1"));
            ASSERT_TRUE(route.append(MachineName("far@2")));
            expectNotStarted(ProcessCreate(route, "indexer"), ProcessCreate::eSendFailed);
            // No wait took place, so no handler was left behind either.
            EXPECT_EQ(Context::messaging()->handlerCount(), handlers);

            // A copy is a record of the same outcome.
            ProcessCreate copy(byMachine);
            expectNotStarted(copy, ProcessCreate::eSendFailed);
            copy = ProcessCreate(MachineName(), "indexer");
            expectNotStarted(copy, ProcessCreate::eInvalidArguments);
        },
        Context::TypeStandalone);
}

TEST(ProcessCreateRefusal, WithoutMessagingTheRequestCannotBeSent)
{
    inContext([] { expectNotStarted(ProcessCreate(MachineName("node@1"), "indexer"), ProcessCreate::eSendFailed); });
}

} // namespace
