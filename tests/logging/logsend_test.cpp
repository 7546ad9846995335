// Sending log messages inside one process: each context's Log, and where a
// message may go and where not. A thread that logs through the context it is
// connected to is followed to the real daemon in logend_test.cpp.

#include "core/context.h"
#include "logging/log.h"
#include "logging/logline.h"
#include "messaging/messaging.h"
#include "messaging/msg.h"
#include "messaging/msgcatalogue.h"

#include "logtesting.h"
#include "testhome.h"

#include <gtest/gtest.h>

#include <thread>

using namespace Brevi;
using BreviTest::items;
using BreviTest::LogLines;

namespace {

const QString Head = "Category=C|Level=u3|BuildNumber=002.02.11698 RC0610";

// Runs `body` in a context of `type` on the calling thread, with modules LOG
// and MSG traced in full.
bool runIn(Context::Type type, void (*body)())
{
    static thread_local void (*current)() = nullptr;
    current = body;
    return Context::run(
        [] {
            Trace::setLevel(TraceDebug, TraceModuleLog);
            Trace::setLevel(TraceDebug, TraceModuleMsg);
            current();
        },
        type, 0, "Log Sender");
}

} // namespace

// Each context has a Log of its own. A message that cannot go stays as it
// was, and nothing is sent.
TEST(LogSend, NoMessagingNoAddressOrNoFormatSendNothing)
{
    BreviTest::TestHome home;
    EXPECT_EQ(Context::logging(), nullptr) << "a thread without a context has none";
    ASSERT_TRUE(runIn(Context::Type(7), [] {
        static Log* threadLog = nullptr;
        std::thread([] { runIn(Context::Type(7), [] { threadLog = Context::logging(); }); }).join();
        EXPECT_TRUE(threadLog && Context::logging() && threadLog != Context::logging());
        LogLines lines;
        Context::logging()->initialiseMessage("C", Log::eLogError) << "Lost %1s" << QString("x");
        Context::logging()->sendMessage();
        EXPECT_EQ(lines.count("No messaging"), 1) << lines.all().join('\n').toStdString();
        EXPECT_EQ(items(Context::logging()->body()), Head + "|Arg=Lost %1s|%1s=x");
    }));
    ASSERT_TRUE(runIn(Context::TypeStandalone, [] {
        LogLines lines;
        Log& log = *Context::logging();
        log.initialiseMessage("C", Log::eLogError) << "Lost %1s" << QString("x");
        log.sendMessage();
        EXPECT_EQ(lines.count("No logging address"), 1) << "a standalone context has none of its own";
        EXPECT_EQ(items(log.body()), Head + "|Arg=Lost %1s|%1s=x");

        Context::messaging()->setLoggingAddress(Context::address());
        log.initialiseMessage("C", Log::eLogError);
        log.sendMessage();
        (log << "").sendMessage();
        EXPECT_EQ(lines.count("Log: malformed log message not sent"), 2);
        EXPECT_FALSE(Msg::receive(0)) << "nothing was sent";
    }));
}

// With its own address as its logging address a context gets its messages
// back: what the log daemon would get.
TEST(LogSend, AMessageGoesWholeAndTheLogStartsAfresh)
{
    BreviTest::TestHome home;
    BREVI_LOG("C", Log::eLogError) << "%1s" << QString("no context: nothing, and no crash");
    ASSERT_TRUE(runIn(Context::TypeStandalone, [] {
        Context::messaging()->setLoggingAddress(Context::address());
        Log& log = *Context::logging();
        (log.initialiseMessage("C", Log::eLogError) << "%1s" << QString("one")).sendMessage();
        EXPECT_EQ(items(log.body()), "");
        EXPECT_EQ(log.counter(), 0u);
        const Msg message = Msg::receive(5);
        EXPECT_EQ(message.name(), Catalogue::LogDaemonLocalWriteLog::Message);
        EXPECT_EQ(items(message.body()), Head + "|Arg=%1s|%1s=one");

        // A body of its own for the next message; a LogLine sends at the end
        // of its statement, dropping what was being built.
        log.initialiseMessage("Old", Log::eLogDebug) << "dropped %1s";
        BREVI_LOG("C", Log::eLogError) << "%1s" << QString("two");
        EXPECT_EQ(items(message.body()), Head + "|Arg=%1s|%1s=one");
        EXPECT_EQ(items(Msg::receive(5).body()), Head + "|Arg=%1s|%1s=two");
        EXPECT_FALSE(Msg::receive(0)) << "one statement, one message";
    }));
}
