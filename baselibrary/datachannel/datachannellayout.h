#ifndef BASELIBRARY_DATACHANNEL_DATACHANNELLAYOUT_H
#define BASELIBRARY_DATACHANNEL_DATACHANNELLAYOUT_H

#include "core/byteorder.h"
#include "persistent/spoollayout.h"

#include <QString>

#include <semaphore.h>

#include <pthread.h>

// The bytes two processes share for a data channel on one machine. All
// offsets are from the start of the shared area, all integers little-endian.
//
// Shared-memory channel: a ring of `count` buffers of `size` bytes
//   0            block table: `count` entries of 12 bytes, padded to a
//                multiple of 8 (`tableSize`)
//                  0  4  offset of the entry's buffer from the area's start
//                  4  4  bytes of data in it, 1 to `size`, set by the sender
//                        before it hands the buffer over
//                  8  4  reserved, 0
//   table        `count` buffers of `size` rounded up to 8 (`paddedSize`);
//                entry i holds table + i * paddedSize
//   sync         the synchronisation part, at table + count * paddedSize:
//                  0   32  send semaphore: free buffers, `count` at start
//                  32  32  receive semaphore: buffers holding data, 0
//                  64  4   process id of the receiver, which made the area
//                  68  4   process id of the sender, once attached
//                  72  8   reserved
// The receiver makes the area, the table and the semaphores (process-shared
// POSIX semaphores living in the area itself); the sender attaches and finds
// the semaphores at the offsets the receiver's details give as SendHandle and
// ReceiveHandle. Before it uses anything, the sender checks the whole layout
// (`check`): a table offset outside the area would have it write anywhere.
//
// File channel: the coordination area of a spool (persistent/spoollayout.h)
//   0   4   condition: waiters gone
//   4   4   condition: waiters blocked
//   8   4   condition: waiters to unblock
//   12  1   connected: a sender is attached; 3 bytes of padding
//   16  24  write state, as in the state file
//   40  24  read state, as in the state file
//   64  40  the mutex guarding all of the above (robust, process-shared)
//   104 32  the gate semaphore
//   136 32  the queue semaphore, where a waiting reader sleeps
//   168 4   process id of the receiver, which made the area
//   172 4   process id of the sender, once attached
// The first 64 bytes are also what a sender without a receiver keeps in its
// own memory. MutexHandle, GateHandle and QueueHandle are the offsets of the
// three objects.
namespace Brevi {
namespace DatachannelShmLayout {

const unsigned EntrySize = 12;
const unsigned EntryOffsetOffset = 0;
const unsigned EntrySizeOffset = 4;
const unsigned Alignment = 8;
const unsigned SemaphoreSize = 32;
const unsigned SendSemaphoreOffset = 0;
const unsigned ReceiveSemaphoreOffset = 32;
const unsigned ReceiverPidOffset = 64;
const unsigned SenderPidOffset = 68;
const unsigned SyncSize = 80;
// An area stays well inside what a 32-bit size can say.
const unsigned long long MaximumAreaSize = 1ull << 30;

static_assert(sizeof(sem_t) <= SemaphoreSize, "a semaphore fits its slot");

inline unsigned long long paddedSize(unsigned size) { return size + ((0u - size) & (Alignment - 1)); }
inline unsigned long long tableSize(unsigned count)
{
    const unsigned long long bytes = (unsigned long long)count * EntrySize;
    return bytes + ((0ull - bytes) & (Alignment - 1));
}
inline unsigned long long syncOffset(unsigned size, unsigned count)
{
    return tableSize(count) + (unsigned long long)count * paddedSize(size);
}
// The area's whole size; above MaximumAreaSize for counts and sizes refused.
inline unsigned long long areaSize(unsigned size, unsigned count) { return syncOffset(size, count) + SyncSize; }

inline unsigned char* entry(unsigned char* area, unsigned index)
{
    return area + (unsigned long long)index * EntrySize;
}

// Writes the block table of a new area.
inline void writeTable(unsigned char* area, unsigned size, unsigned count)
{
    for (unsigned i = 0; i < count; ++i) {
        ByteOrder::store32(entry(area, i) + EntryOffsetOffset, unsigned(tableSize(count) + i * paddedSize(size)));
        ByteOrder::store32(entry(area, i) + EntrySizeOffset, 0);
        ByteOrder::store32(entry(area, i) + 8, 0);
    }
}

// Whether an area of `areaBytes` holds a ring of `count` buffers of `size`
// with its table in order and its semaphores at `sendHandle` and
// `receiveHandle`. On false, `problem` says what is wrong.
inline bool check(const unsigned char* area, unsigned long long areaBytes, unsigned size, unsigned count,
                  unsigned long long sendHandle, unsigned long long receiveHandle, QString& problem)
{
    if (size == 0 || count == 0 || areaSize(size, count) > MaximumAreaSize) {
        problem = QStringLiteral("no ring of %1 buffers of %2 bytes").arg(count).arg(size);
        return false;
    }
    if (areaBytes < areaSize(size, count)) {
        problem = QStringLiteral("area of %1 bytes, %2 needed").arg(areaBytes).arg(areaSize(size, count));
        return false;
    }
    const unsigned long long sync = syncOffset(size, count);
    if (sendHandle != sync + SendSemaphoreOffset || receiveHandle != sync + ReceiveSemaphoreOffset) {
        problem = QStringLiteral("semaphores at %1 and %2, not at %3").arg(sendHandle).arg(receiveHandle).arg(sync);
        return false;
    }
    for (unsigned i = 0; i < count; ++i) {
        const unsigned long long offset = ByteOrder::load32(entry(const_cast<unsigned char*>(area), i));
        if (offset != tableSize(count) + i * paddedSize(size)) {
            problem = QStringLiteral("block %1 at offset %2").arg(i).arg(offset);
            return false;
        }
    }
    return true;
}

} // namespace DatachannelShmLayout

namespace DatachannelFileLayout {

const unsigned WaitersGoneOffset = 0;
const unsigned WaitersBlockedOffset = 4;
const unsigned WaitersToUnblockOffset = 8;
const unsigned ConnectedOffset = 12;
const unsigned WriteStateOffset = 16;
const unsigned ReadStateOffset = 40;
// What a sender without a receiver keeps privately.
const unsigned StateAreaSize = 64;
const unsigned MutexOffset = 64;
const unsigned GateOffset = 104;
const unsigned QueueOffset = 136;
const unsigned ReceiverPidOffset = 168;
const unsigned SenderPidOffset = 172;
const unsigned AreaSize = 176;

static_assert(sizeof(pthread_mutex_t) <= GateOffset - MutexOffset, "the mutex fits its slot");
static_assert(sizeof(sem_t) <= QueueOffset - GateOffset, "a semaphore fits its slot");

// Whether the handles of receive details are where this layout puts them.
inline bool handlesInPlace(unsigned long long mutex, unsigned long long gate, unsigned long long queue)
{
    return mutex == MutexOffset && gate == GateOffset && queue == QueueOffset;
}

} // namespace DatachannelFileLayout
} // namespace Brevi

#endif
