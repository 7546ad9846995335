// One side of a paged queue until it is killed: "queuepeer send QUEUE" sends
// records from the count the queue holds on; "queuepeer receive QUEUE"
// receives, checks and releases, printing "got N" before and "rel N" after
// each release. Both print "ready 0" once the queue is open. Record N is N in
// 8 bytes and N % 300 bytes of a pattern of N. Exit codes: 1 usage, 2 the
// queue did not open, 3 a call failed or a record was wrong (with a line).
#include "core/byteorder.h"
#include "persistent/pagedqueue.h"
#include "persistent/spoolstatefile.h"
#include "spoolrecords.h"

#include <QByteArray>
#include <QString>

#include <cstdio>
#include <cstring>

#include <unistd.h>

using namespace Brevi;

namespace {

int sender(PagedQueue& queue, const QString& path)
{
    SpoolStateFile state;
    SpoolState write;
    if (!state.open(path) || !state.readWriteState(write))
        return 2;
    for (quint64 number = write.count;; ++number) {
        const QByteArray bytes = record(number);
        if (queue.send(bytes.constData(), unsigned(bytes.size())) != PagedQueue::eOk)
            return say("send failed", number), 3;
        if (number % 16 == 0)
            ::usleep(1000);
    }
}

int receiver(PagedQueue& queue)
{
    for (Extent data;;) {
        const PagedQueue::Result result = queue.receive(data);
        if (result == PagedQueue::eTryAgain)
            continue;
        const quint64 number = result == PagedQueue::eOk && data.size() >= 8 ? ByteOrder::load64(data.data()) : 0;
        if (result != PagedQueue::eOk || data.toQByteArray() != record(number))
            return say("wrong record or result", result == PagedQueue::eOk ? number : quint64(result)), 3;
        say("got", number);
        if (queue.release() != PagedQueue::eOk)
            return say("release failed", number), 3;
        say("rel", number);
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3 || (std::strcmp(argv[1], "send") != 0 && std::strcmp(argv[1], "receive") != 0))
        return 1;
    const QString path = QString::fromLocal8Bit(argv[2]);
    // Files of 4 KiB, so that the sides cross from file to file often; the
    // receiver looks for new records every 20 ms.
    PagedQueue queue(path, 4096, 20);
    if (!queue)
        return 2;
    say("ready", 0);
    return std::strcmp(argv[1], "send") == 0 ? sender(queue, path) : receiver(queue);
}
