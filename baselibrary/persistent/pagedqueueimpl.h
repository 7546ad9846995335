#ifndef BASELIBRARY_PERSISTENT_PAGEDQUEUEIMPL_H
#define BASELIBRARY_PERSISTENT_PAGEDQUEUEIMPL_H

#include "core/buffer.h"
#include "core/packbuffer.h"
#include "core/unpackbuffer.h"
#include "persistent/bufferedfile.h"
#include "persistent/pagedqueue.h"
#include "persistent/rawfile.h"
#include "persistent/spoolstatefile.h"

#include <boost/chrono.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include <atomic>

namespace Brevi {

class MsgPending;

// The queue that PagedQueue objects share; see pagedqueue.h for what it
// promises.
//
// Two threads use it at once: the sender's side (send) owns the write state,
// the write file and the packing buffer; the receiver's side (receive,
// release, relinquish) owns the read file and the buffers of the record it
// holds. The mutex guards what both look at: the read state, the receiver's
// copy of the write state, and the resync flag. Neither side does file work
// under it, except the receiver when it looks at the state file for a sender
// in another process. The state file is written by both sides, each its own
// half, with positioned writes.
class PagedQueueImpl
{
public:
    PagedQueueImpl(const QString& path, quint64 maximumFileSize, quint64 pollInterval);

    bool valid() const { return mbValid; }

    PagedQueue::Result send(const void* data, unsigned size);
    PagedQueue::Result receive(Extent& data);
    PagedQueue::Result receivePolled(Extent& data);
    PagedQueue::Result release();
    PagedQueue::Result relinquish();
    PagedQueue::Result available(quint64& count);
    PagedQueue::Result receiver();
    MsgResult pollResult() const;

    static void discard(const QString& path);

private:
    typedef boost::chrono::steady_clock Clock;

    bool openExisting();
    bool openNew();
    bool openFiles();
    bool startWriting();
    bool nextWriteFile();
    PagedQueue::Result sendFailed();

    // Waits for a record or the end of the wait. eOk with a record to read,
    // with the write state it may be read up to and whether the read buffer
    // must be dropped first; otherwise what the wait ended with.
    PagedQueue::Result waitForData(quint64 interval, SpoolState& committed, bool& resync);
    // Takes a newer write state from the state file, for a sender in another
    // process. The mutex is held.
    bool refreshWriteState();
    PagedQueue::Result getData(quint64 interval);
    // Reads the record at the read state: a data record is then held
    // (`record`), a next-file record moves to the next file. False on failure.
    bool readRecord(const SpoolState& committed, bool& record);
    bool nextReadFile(quint64 number);
    PagedQueue::Result receiveFailed();

    std::atomic<bool> mbValid{false};
    boost::shared_ptr<MsgPending> mptPending;
    quint64 mullPollInterval;
    // The header and the data of the record being received.
    UnpackBuffer moHeader;
    Buffer moData;
    PackBuffer moPack;
    QString msPath;
    quint64 mullMaximumFileSize;
    SpoolState moWrite;
    SpoolState moWriteCopy;
    SpoolState moRead;
    SpoolStateFile moStateFile;
    RawFile moWriteFile;
    BufferedFile moReadFile;
    bool mbHeld = false;
    // The write file is cut back to the write state by the first send, not by
    // the open: a receiver opening the queue beside a running sender must not
    // cut away a record that sender is writing.
    bool mbWriting = false;
    // The write state came from the state file: the read buffer may hold
    // bytes read before a sender in another process wrote them for good.
    bool mbResync = false;
    // The end of the read file once the sender has left it; 0 until needed.
    quint64 mullReadFileEnd = 0;
    boost::mutex moMutex;
    boost::condition_variable moCondition;
    Clock::time_point moDeadline;
};

} // namespace Brevi

#endif
