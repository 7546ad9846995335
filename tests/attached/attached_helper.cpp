// An attached process for the tests, built on the library alone. The first
// argument chooses what it does, the second is its name with the Hub:
//   echo <name>              answers "EchoRequest" with "EchoReply" (the body
//                            and raw data back, with its own ProcessId, the
//                            data compressed if that pays), ends with status 0
//                            on "QuitPost", 3 when the link is lost
//   hubloss <name> notify    asks to be told when the link goes; status 10
//                            when MsgIpcClosedPost came from itself
//   hubloss <name> release   has a worker thread that talks to it through its
//                            queue; status 20 when the loss ended its wait
//                            and the worker's sends then failed
//   monitored <name>         a monitored process; status 30 when it runs on
//                            standalone messaging, then waits to be killed
// Other statuses name the step that went wrong (see stderr). Every mode ends
// by itself within a minute.

#include "core/context.h"
#include "core/trace.h"
#include "messaging/condition.h"
#include "messaging/messaging.h"
#include "messaging/msg.h"
#include "messaging/msgaddress.h"
#include "messaging/msgcatalogue.h"

#include <QString>

#include <boost/make_shared.hpp>
#include <boost/thread/thread.hpp>

#include <atomic>
#include <cstdio>
#include <cstring>

using namespace Brevi;
using namespace Brevi::Catalogue;

namespace {

const unsigned TraceModule = TraceModuleApplication;
// Seconds any wait of the helper lasts at most.
const int Lifetime = 60;

QString gsMode;
QString gsOption;

int fail(int status, const char* what)
{
    std::fprintf(stderr, "attached_helper: %s\n", what);
    BTRACE(TraceAlways) << "Helper failed:" << what;
    return status;
}

MsgHandlerPointer handler(const MsgHandlerFunction& function)
{
    return boost::make_shared<MsgHandlerFunction>(function);
}

int echo()
{
    BTRACE(TraceAlways) << "Echo server ready at" << Context::address();
    const unsigned processId = Context::messaging()->physicalAddress().id();
    const MsgHandlerPointer answer = handler([processId](const Msg& request) {
        XmlList body = request.body().clone();
        body.set("ProcessId", processId);
        if (request.rawData())
            request.reply("EchoReply", request.rawData(), body, eMsgCompressOnSend, true);
        else
            request.reply("EchoReply", body, eMsgDoNotCompress, true);
        return eMsgResultHandled;
    });
    const MsgHandlerPointer quit = handler([](const Msg&) { return eMsgResultExit; });
    Msg::addHandler("EchoRequest", answer);
    Msg::addHandler("QuitPost", quit);
    const MsgResult result = Msg::wait(Lifetime);
    if (result == eMsgResultExit)
        return 0;
    if (result == eMsgResultIpcError)
        return 3;
    return fail(4, "echo ended without quit or loss");
}

int notifiedLoss()
{
    const boost::shared_ptr<Messaging> messaging = Context::messaging();
    messaging->notifyIpcClosed();
    bool fromItself = false;
    const MsgHandlerPointer closed = handler([&fromItself](const Msg& post) {
        fromItself = post.source() == Context::address();
        return eMsgResultExit;
    });
    Msg::addHandler(MsgIpcClosedPost::Message, closed);
    if (Msg::wait(Lifetime) != eMsgResultExit)
        return fail(11, "no MsgIpcClosedPost");
    if (!fromItself)
        return fail(12, "MsgIpcClosedPost not from this context");
    if (!Msg::hubDisconnected(messaging) || messaging->socket() != -1)
        return fail(13, "the link is still there");
    return 10;
}

// The worker of `hubloss release`: a thread with a standalone context that
// talks to the main one until its sends fail.
boost::shared_ptr<Messaging> gptMain;
std::atomic<int> giWorker{0}; // 1 connected, 2 a send failed
MsgAddress goMainAddress;

void worker()
{
    const boost::shared_ptr<Messaging> own = Context::messaging();
    if (!own->connect(gptMain, "worker", Log::eNoProxy))
        return;
    giWorker = 1;
    for (int tick = 0; tick < Lifetime * 20; ++tick) {
        if (!own->send(Msg(goMainAddress, "WorkerTickPost"))) {
            giWorker = 2;
            return;
        }
        Context::sleep(50);
    }
}

int releasedLoss()
{
    gptMain = Context::messaging();
    goMainAddress = gptMain->address();
    if (!gptMain->haveStandaloneContexts())
        return fail(21, "no queue for other threads");
    boost::thread thread([] { Context::run(worker, Context::TypeStandalone, 0, "worker"); });
    // Ticks come through the queue's wake-up pair into this context's wait.
    if (!Msg::wait("WorkerTickPost", Lifetime))
        return fail(22, "no tick from the worker");
    BTRACE(TraceAlways) << "Worker talks to the attached context";
    Msg::HubDisconnected gone(gptMain);
    const MsgResult result = Msg::wait(gone, Lifetime);
    if (result != eMsgResultExit && result != eMsgResultIpcError)
        return fail(23, "the wait did not end with the loss");
    if (!Msg::hubDisconnected(gptMain))
        return fail(24, "the link is still there");
    if (!thread.try_join_for(boost::chrono::seconds(Lifetime)))
        return fail(25, "the worker's sends did not fail");
    if (giWorker != 2)
        return fail(26, "the worker ended otherwise");
    return 20;
}

int monitored()
{
    const boost::shared_ptr<Messaging> messaging = Context::messaging();
    if (Context::type() != Context::TypeMonitored || !messaging || !messaging->valid())
        return fail(31, "not a monitored context with messaging");
    if (messaging->socket() != -1 || Context::address().type() != eMsgAddressContext)
        return fail(32, "still on the Hub link");
    if (Context::machineName().isEmpty())
        return fail(33, "the Hub gave no machine name");
    BTRACE(TraceAlways) << "Monitored process running on" << Context::machineName().fullName();
    Context::sleep(Lifetime * 1000ull);
    return 30;
}

void body(int& result, int, char** const)
{
    if (gsMode == "echo")
        result = echo();
    else if (gsMode == "hubloss" && gsOption == "notify")
        result = notifiedLoss();
    else if (gsMode == "hubloss")
        result = releasedLoss();
    else if (gsMode == "monitored")
        result = monitored();
    else
        result = fail(2, "unknown mode");
    gptMain.reset();
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3)
        return fail(2, "usage: attached_helper <mode> <name> [option]");
    gsMode = QString::fromLocal8Bit(argv[1]);
    const QString name = QString::fromLocal8Bit(argv[2]);
    gsOption = argc > 3 ? QString::fromLocal8Bit(argv[3]) : QString();
    const Context::Type type = gsMode == "monitored" ? Context::TypeMonitored : Context::TypeAttached;
    int result = 1;
    if (!Context::run(body, result, argc, argv, type, 0, QStringLiteral("helper ") + name, name))
        return fail(1, "the context did not come up");
    return result;
}
