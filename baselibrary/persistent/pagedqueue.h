#ifndef BASELIBRARY_PERSISTENT_PAGEDQUEUE_H
#define BASELIBRARY_PERSISTENT_PAGEDQUEUE_H

#include "brevi_export.h"
#include "core/extent.h"
#include "core/operatorboolgenerator.h"
#include "messaging/msgresult.h"

#include <QString>

#include <boost/shared_ptr.hpp>

namespace Brevi {

class PagedQueueImpl;
class Trace;

// A persistent first-in first-out queue of byte records between one sender
// and one receiver, kept in a spool of numbered data files and a state file
// (layout in persistent/spoollayout.h).
//
// A record is in the queue once send() has returned eOk, and stays there
// across crashes and restarts until the receiver has released it: receive()
// hands the record out, the receiver works on it, and release() confirms it.
// A record received and not released (the receiver crashed, or called
// relinquish()) comes again. So delivery is in order and at least once;
// twice only for a record whose release did not happen.
//
// Threads and processes: the sender and the receiver may be two threads
// sharing one PagedQueue (copies share one queue), or two processes each
// opening the queue on the same path. In one process the receiver is woken
// as soon as a record is sent; a receiver in another process finds new
// records when its poll interval runs out, or at each receive() without one.
// Only one sender and one receiver at a time.
//
// Waiting: with a poll interval, receive() waits for a record and returns
// eMessagePending (after receiver(): messages may wait) or eTryAgain each time
// the interval runs out; without one it returns eEndOfData at once.
// receivePolled() handles the thread's messages at each such point and goes
// on waiting.
//
// Failure: a file that cannot be read or written, or bytes that are not a
// record, make the queue dead for good (eSendError, eReceiveError, and eDown
// from then on), traced at TraceAlways. A new PagedQueue on the same path
// starts again from the state file.
class BREVI_EXPORT PagedQueue
{
public:
    enum Result {
        eOk = 0,
        eSendError = 1,
        eReceiveError = 2,
        eInvalidArgument = 3,
        eMessagePending = 4,
        eDown = 5,
        // receive() with a record held, release() or relinquish() without
        // one, receiver() a second time.
        eInvalidRequest = 6,
        eInternalError = 7,
        eTryAgain = 8,
        eEndOfData = 9
    };

    // Files made beyond this size are closed and the next one begun.
    static const quint64 DefaultMaximumFileSize = 64ull * 1024 * 1024;

    // Dead: every call gives eDown.
    PagedQueue();
    // Opens the queue at `path`, making it if it is not there. Each data file
    // is ended once it has reached `maximumFileSize` bytes; `pollInterval` is
    // in milliseconds, 0 for none. Test the object for success.
    explicit PagedQueue(const QString& path, quint64 maximumFileSize = DefaultMaximumFileSize,
                        quint64 pollInterval = 0);

    // Puts a record at the end of the queue. A record of 0 bytes is written
    // and then refused by the receiver as invalid, which kills the queue:
    // do not send one.
    Result send(const Extent& data);
    Result send(const void* data, unsigned size);

    // The record at the front, held until release() or relinquish(). The
    // bytes belong to the queue and are valid until then.
    Result receive(Extent& data);
    Result receive(void*& data, unsigned& size);
    // As receive(), but handles the thread's messages whenever the wait gives
    // eMessagePending, and goes on waiting while there is no record. It
    // returns with eMessagePending when the handling stops (pollResult() says
    // why), and with eTryAgain when the wait ran out and receiver() was not
    // called.
    Result receivePolled(Extent& data);
    Result receivePolled(void*& data, unsigned& size);

    // The held record is done with and will not come again.
    Result release();
    // The held record is given back; the next receive() gets it again.
    Result relinquish();

    // Records sent and not yet released (a held record counts); eEndOfData
    // when there is nothing to receive.
    Result available(quint64& count);

    // Makes the calling thread the receiver that handles messages while it
    // waits (see receivePolled). eInvalidRequest the second time.
    Result receiver();
    // Why the last handling of messages stopped.
    MsgResult pollResult() const;

    // Removes the queue's state file and the data files it still has.
    static void discard(const QString& path);

    operator OperatorBoolGenerator<PagedQueue>::Result() const;

private:
    boost::shared_ptr<PagedQueueImpl> mptImpl;
};

// "eOk", "eSendError" and so on; a value out of range writes nothing.
BREVI_EXPORT Trace& operator<<(Trace& trace, PagedQueue::Result result);

} // namespace Brevi

#endif
