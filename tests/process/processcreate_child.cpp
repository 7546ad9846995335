// A program for the Hub to start in the ProcessCreate tests, built on the
// library alone. It attaches with the identity the Hub put in its
// environment, greets the address the Hub gave it as its parent with
// "ChildHelloPost" (its own address and the parent address as it received
// it), answers "EchoRequest" with "EchoReply" (the body back), and ends with
// status 0 on "QuitPost", 3 when the Hub link is lost. It ends by itself
// within a minute.

#include "core/context.h"
#include "core/trace.h"
#include "messaging/msg.h"
#include "messaging/msgaddress.h"

#include <QString>

#include <boost/make_shared.hpp>

#include <cstdio>

using namespace Brevi;

namespace {

const unsigned TraceModule = TraceModuleApplication;
const int Lifetime = 60;

MsgHandlerPointer handler(const MsgHandlerFunction& function)
{
    return boost::make_shared<MsgHandlerFunction>(function);
}

void body(int& result, int, char** const)
{
    if (Context::parentAddress()) {
        XmlList hello;
        hello.set("Address", Context::address().toXml());
        hello.set("ParentAddress", Context::parentAddress().toXml());
        if (!Msg(Context::parentAddress(), "ChildHelloPost", hello).send(true)) {
            result = 5;
            return;
        }
    }
    const MsgHandlerPointer echo = handler([](const Msg& request) {
        request.reply("EchoReply", request.body().clone(), eMsgDoNotCompress, true);
        return eMsgResultHandled;
    });
    const MsgHandlerPointer quit = handler([](const Msg&) { return eMsgResultExit; });
    Msg::addHandler("EchoRequest", echo);
    Msg::addHandler("QuitPost", quit);
    const MsgResult ended = Msg::wait(Lifetime);
    BTRACE(TraceNormal) << "Child ends with" << int(ended);
    result = ended == eMsgResultExit ? 0 : ended == eMsgResultIpcError ? 3 : 4;
}

} // namespace

int main(int argc, char** argv)
{
    int result = 1;
    // The title, name and group the starter asked for come from the
    // environment; the attach is tried once, since the Hub waits for it.
    if (!Context::run(body, result, argc, argv, Context::TypeAttached,
                      Context::FlagUseEnvironment | Context::FlagAttachOnce, QStringLiteral("child"))) {
        std::fprintf(stderr, "processcreate_child: the context did not come up\n");
        return 1;
    }
    return result;
}
