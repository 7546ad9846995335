// The far end of the data channel tests, as a process of its own attached to
// the Hub under the name it is given:
//   receive <name>             takes the next offer and reads the stream to
//                              its end, then posts what it counted back
//   receive <name> stall       takes the offer and never reads
//   send <name> <receiver> <bytes> <None|Windowed>
//                              offers a channel to <receiver> and sends that
//                              many bytes of the test stream (0: until killed),
//                              then posts what it counted and its memory
// Ends with 0 when its part went as planned; every wait is bounded.

#include "dcstream.h"

#include "core/context.h"
#include "core/xmllist.h"
#include "messaging/msg.h"

#include <QFile>
#include <QString>

#include <boost/make_shared.hpp>

#include <cstdio>

using namespace Brevi;
using namespace DcTest;

namespace {

int gArgc = 0;
char** gArgv = nullptr;
int gStatus = 1;

// A line of /proc/self/status in KiB ("VmRSS", "VmHWM").
unsigned long long memoryKiB(const char* field)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith(field))
            return line.mid(int(qstrlen(field)) + 1).trimmed().split(' ').value(0).toULongLong();
    return 0;
}

void done(const MsgAddress& to, const Counted& counted, unsigned long long startKiB)
{
    XmlList body;
    body.set("Bytes", counted.bytes);
    body.set("Hash", QString::fromLatin1(counted.hash));
    body.set("Ends", counted.ends);
    body.set("Result", QString::fromLatin1(Datachannel::resultName(counted.result)));
    body.set("StartKiB", startKiB);
    body.set("PeakKiB", memoryKiB("VmHWM:"));
    Msg(to, Done, body).send(true);
}

void receive()
{
    const boost::shared_ptr<MsgCondition> deadline = boost::make_shared<Deadline>(120);
    MsgAddress sender;
    Datachannel channel = accept(deadline, &sender);
    if (!channel)
        return;
    if (gArgc > 3 && QByteArray(gArgv[3]) == "stall") {
        gStatus = 0;
        Context::sleep(60000);
        return;
    }
    const Counted counted = receiveStream(channel);
    done(sender, counted, 0);
    gStatus = counted.ends == 1 ? 0 : 2;
}

void send()
{
    if (gArgc < 6)
        return;
    const MsgAddress receiver(Context::machineName(), QString::fromLocal8Bit(gArgv[3]), QString());
    const unsigned long long bytes = QByteArray(gArgv[4]).toULongLong();
    const Datachannel::Synchronization synchronization = Datachannel::synchronizationFromText(gArgv[5]);
    const boost::shared_ptr<MsgCondition> deadline = boost::make_shared<Deadline>(300);
    Datachannel channel =
        offer(receiver, Datachannel::sendDetails(Datachannel::IPC, receiver, synchronization), deadline);
    if (!channel)
        return;
    const unsigned long long startKiB = memoryKiB("VmRSS:");
    const Counted counted = sendStream(channel, bytes);
    done(receiver, counted, startKiB);
    gStatus = counted.result == Datachannel::eOk ? 0 : 3;
}

void body()
{
    if (QByteArray(gArgv[1]) == "receive")
        receive();
    else
        send();
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: datachannel_peer receive|send NAME ...\n");
        return 2;
    }
    gArgc = argc;
    gArgv = argv;
    if (!Context::run(body, Context::TypeAttached, Context::FlagAttachOnce, argv[2], argv[2]))
        return 1;
    return gStatus;
}
