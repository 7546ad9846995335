// The far end of the data channel tests, as a process of its own attached to
// the Hub under the name it is given:
//   stall <name>               takes the next offer and never reads
//   send <name> <receiver> <bytes> <None|Windowed>
//                              offers a channel to <receiver> and sends that
//                              many bytes of the test stream (0: until killed),
//                              then posts its hash, result and memory
// Ends with 0 when its part went as planned.

#include "dcstream.h"

#include "core/context.h"
#include "messaging/msg.h"

#include <sys/resource.h>

using namespace Brevi;
using namespace DcTest;

namespace {

QStringList gArguments;
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
        if (accept())
            gStatus = 0;
        Context::sleep(60000);
        return;
    }
    const MsgAddress receiver(Context::machineName(), gArguments.value(2), QString());
    Datachannel channel =
        offer(receiver, Datachannel::sendDetails(Datachannel::IPC, receiver,
                                                 Datachannel::synchronizationFromText(gArguments.value(4))));
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
