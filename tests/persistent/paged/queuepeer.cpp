// One side of a paged queue, run until it is killed:
//   queuepeer send QUEUE      sends records 0, 1, 2, ... for ever, going on
//                             after the last record the queue has counted
//   queuepeer receive QUEUE   receives, checks and releases, printing
//                             "got N" before and "rel N" after each release
// Record N holds N in 8 bytes and then N % 300 bytes of a pattern of N, so
// that a record that is cut, shifted or mixed with another is seen. Exit
// codes: 1 usage, 2 the queue did not open, 3 a call failed or a record was
// wrong (with a line saying which).
#include "core/byteorder.h"
#include "persistent/pagedqueue.h"
#include "persistent/spoolstatefile.h"

#include <QByteArray>
#include <QString>

#include <cstdio>
#include <cstring>

#include <unistd.h>

using namespace Brevi;

namespace {

const quint64 MaximumFileSize = 4096;
const quint64 PollInterval = 20;

QByteArray record(quint64 number)
{
    QByteArray bytes(int(8 + number % 300), char(number * 7));
    ByteOrder::store64(bytes.data(), number);
    return bytes;
}

// One write per line: a line is whole on the pipe or not there at all.
void say(const char* what, quint64 number)
{
    char line[64];
    const int length = std::snprintf(line, sizeof line, "%s %llu\n", what, static_cast<unsigned long long>(number));
    if (::write(1, line, size_t(length)) != length)
        _exit(3);
}

int sender(PagedQueue& queue, const QString& path)
{
    // The queue counts what it holds for good; the next record follows that.
    SpoolStateFile state;
    SpoolState write;
    if (!state.open(path) || !state.readWriteState(write))
        return 2;
    for (quint64 number = write.count;; ++number) {
        const QByteArray bytes = record(number);
        if (queue.send(bytes.constData(), unsigned(bytes.size())) != PagedQueue::eOk) {
            say("send failed", number);
            return 3;
        }
        if (number % 64 == 0)
            ::usleep(1000);
    }
}

int receiver(PagedQueue& queue)
{
    for (;;) {
        Extent data;
        const PagedQueue::Result result = queue.receive(data);
        if (result == PagedQueue::eTryAgain)
            continue;
        if (result != PagedQueue::eOk) {
            say("receive failed", quint64(result));
            return 3;
        }
        const quint64 number = data.size() >= 8 ? ByteOrder::load64(data.data()) : 0;
        if (data.toQByteArray() != record(number)) {
            say("wrong record", number);
            return 3;
        }
        say("got", number);
        if (queue.release() != PagedQueue::eOk) {
            say("release failed", number);
            return 3;
        }
        say("rel", number);
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3 || (std::strcmp(argv[1], "send") != 0 && std::strcmp(argv[1], "receive") != 0))
        return 1;
    const QString path = QString::fromLocal8Bit(argv[2]);
    PagedQueue queue(path, MaximumFileSize, PollInterval);
    if (!queue)
        return 2;
    return std::strcmp(argv[1], "send") == 0 ? sender(queue, path) : receiver(queue);
}
