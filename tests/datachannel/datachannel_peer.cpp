// The far end of the data channel tests, as a process of its own attached to
// the Hub under the name it is given:
//   stall <name>               takes the next offer and never reads
//   send <name> <receiver> <bytes> <None|Windowed|Memory|Best|File:<base>>
//                              offers a channel to <receiver> (IPC unwindowed
//                              or windowed, or the transport named) and sends
//                              that many bytes of the test stream (0: until
//                              killed), then posts its hash, result and memory;
//                              with "paced" after File:<base>, that many
//                              records of one byte, each after a next post
// Ends with 0 when its part went as planned.

#include "dcstream.h"

#include "core/context.h"
#include "messaging/msg.h"

#include <sys/resource.h>

using namespace Brevi;
using namespace DcTest;

namespace {

QStringList gArguments;
// A file channel's records, and its files, of 16 MiB.
const unsigned FileBufferSize = 65536;
const unsigned long long FilePageSize = 16ull << 20;
int gStatus = 1;

// The peak resident memory so far, in KiB.
unsigned long long peakKiB()
{
    rusage usage = {};
    ::getrusage(RUSAGE_SELF, &usage);
    return (unsigned long long)(usage.ru_maxrss);
}

void body()
{
    if (gArguments.value(0) == "stall") {
        // Held, so that its resources stay while the sender uses them.
        const Datachannel held = accept();
        if (held)
            gStatus = 0;
        Context::sleep(60000);
        return;
    }
    const MsgAddress receiver(Context::machineName(), gArguments.value(2), QString());
    const QString mode = gArguments.value(4);
    XmlList details;
    if (mode.startsWith("File:"))
        details = Datachannel::sendDetails(mode.mid(5), FilePageSize, FileBufferSize);
    else if (mode == "Memory" || mode == "Best")
        details = Datachannel::sendDetails(Datachannel::transportFromText(mode), receiver);
    else
        details = Datachannel::sendDetails(Datachannel::IPC, receiver, Datachannel::synchronizationFromText(mode));
    Datachannel channel = offer(receiver, details);
    if (gArguments.value(5) == "paced") {
        // One byte a record, each only once the receiver has asked for it.
        const unsigned records = gArguments.value(3).toUInt();
        unsigned sent = 0;
        for (unsigned i = 0; i < records && channel.send(sent, "p", 1, true) == Datachannel::eOk; ++i)
            if (!Msg::wait(Next, receiver, 20))
                return;
        gStatus = 0;
        return;
    }
    const unsigned long long startKiB = peakKiB();
    const Counted counted = sendStream(channel, gArguments.value(3).toULongLong());
    XmlList report;
    report.set("Hash", QString::fromLatin1(counted.hash));
    report.set("Result", QString::fromLatin1(Datachannel::resultName(counted.result)));
    report.set("GrowthKiB", peakKiB() - startKiB);
    Msg(receiver, Done, report).send(true);
    gStatus = counted.result == Datachannel::eOk ? 0 : 3;
}

} // namespace

int main(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i)
        gArguments.append(QString::fromLocal8Bit(argv[i]));
    if (gArguments.size() < 2)
        return 2;
    if (!Context::run(body, Context::TypeAttached, Context::FlagAttachOnce, gArguments[1], gArguments[1]))
        return 1;
    return gStatus;
}
