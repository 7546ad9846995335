// demopeer: one of the processes of the demo, attached to the Hub.
//
//   demopeer pong       registers as "Pong" in group "Demo" and answers every
//                       DemoPingRequest until a DemoStopPost comes
//   demopeer ping [N]   sends N requests (default 1000) to the pong by its
//                       name, prints the mean round trip, then stops it
//
// The ping finds the pong by name only: the Hub routes the logical address.
// While the pong is not there yet the Hub returns each request as
// undeliverable, and the ping tries again for a while.

#include "core/context.h"
#include "core/trace.h"
#include "messaging/msg.h"
#include "messaging/msgaddress.h"
#include "messaging/msgcatalogue.h"

#include <QElapsedTimer>
#include <QTextStream>

#include <cstdlib>
#include <cstring>

using namespace Brevi;

namespace {

const unsigned TraceModule = TraceModuleApplication;

const char* const PingRequest = "DemoPingRequest";
const char* const PingReply = "DemoPingReply";
const char* const StopPost = "DemoStopPost";
const char* const PongName = "Pong";
const char* const DemoGroup = "Demo";
const int ReplySeconds = 10;
const int FindAttempts = 100;

QTextStream& out()
{
    static QTextStream stream(stdout);
    return stream;
}

MsgAddress pongAddress() { return MsgAddress(Context::machineName(), PongName, DemoGroup); }

void pong(int& result, int, char** const)
{
    BTRACE(TraceAlways) << "Pong is up at" << Context::address();
    unsigned answered = 0;
    for (;;) {
        const Msg msg = Msg::wait(QStringList{PingRequest, StopPost}, -1);
        if (!msg) {
            BTRACE(TraceAlways) << "Pong lost its messaging" << int(msg.lastError());
            result = 1;
            return;
        }
        if (msg.name() == StopPost)
            break;
        XmlList body;
        body.set("Sequence", msg.getUint32("Sequence"));
        if (!msg.reply(PingReply, body))
            BTRACE(TraceAlways) << "Failed to reply to" << msg.source();
        ++answered;
    }
    BTRACE(TraceAlways) << "Pong answered" << answered << "requests";
    out() << "pong: answered " << answered << " requests\n";
    out().flush();
}

// One request and its reply; false when the pong could not be reached.
bool roundTrip(unsigned sequence, bool* undeliverable)
{
    Msg request(pongAddress(), PingRequest);
    request.set("Sequence", sequence);
    if (!request.send())
        return false;
    const QStringList answers{PingReply, Catalogue::HubRtrUndeliverableMessagePost::Message};
    const Msg answer = Msg::wait(answers, ReplySeconds);
    *undeliverable = answer && answer.name() != PingReply;
    return answer && !*undeliverable && answer.getUint32("Sequence") == sequence;
}

void ping(int& result, int argc, char** const argv)
{
    const unsigned count = argc > 2 ? unsigned(std::strtoul(argv[2], nullptr, 10)) : 1000;
    BTRACE(TraceAlways) << "Ping is up at" << Context::address() << "and looks for" << pongAddress();

    bool undeliverable = false;
    int attempt = 0;
    while (!roundTrip(0, &undeliverable)) {
        if (!undeliverable || ++attempt == FindAttempts) {
            out() << "ping: no process named " << PongName << " in group " << DemoGroup << "\n";
            result = 1;
            return;
        }
        Context::sleep(100);
    }

    QElapsedTimer clock;
    clock.start();
    for (unsigned sequence = 1; sequence <= count; ++sequence) {
        if (!roundTrip(sequence, &undeliverable)) {
            out() << "ping: request " << sequence << " got no reply\n";
            result = 1;
            return;
        }
    }
    const double microseconds = double(clock.nsecsElapsed()) / 1000.0 / (count ? count : 1);
    BTRACE(TraceAlways) << "Ping made" << count << "round trips";
    out() << "ping: " << count << " round trips through the Hub, " << QString::number(microseconds, 'f', 1)
          << " us each\n";
    out().flush();
    Msg(pongAddress(), StopPost).send(true);
}

int usage()
{
    out() << "Usage: demopeer pong | demopeer ping [count]\n"
             "One of the demo's processes, attached to the Hub (port from BREVI_HUB_PORT).\n";
    out().flush();
    return 2;
}
} // namespace

int main(int argc, char** argv)
{
    if (argc < 2)
        return usage();
    int result = 0;
    bool ran = false;
    if (std::strcmp(argv[1], "pong") == 0)
        ran = Context::run(pong, result, argc, argv, Context::TypeAttached, 0, "Pong", PongName, DemoGroup);
    else if (std::strcmp(argv[1], "ping") == 0)
        ran = Context::run(ping, result, argc, argv, Context::TypeAttached, 0, "Ping");
    else
        return usage();
    if (!ran) {
        out() << "demopeer: could not attach to the Hub\n";
        return 1;
    }
    return result;
}
