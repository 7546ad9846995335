#ifndef BASELIBRARY_MESSAGING_MSGQUEUESTANDALONE_H
#define BASELIBRARY_MESSAGING_MSGQUEUESTANDALONE_H

#include "brevi_export.h"
#include "core/context.h"
#include "messaging/ipcresult.h"
#include "messaging/msgqueue.h"

#include <QtGlobal>

#include <boost/thread/condition_variable.hpp>

namespace Brevi {

// The queue of a context without a socket of its own: the owner sleeps in
// `wait` on a condition variable, which a producer notifies when the queue
// goes from empty to one item. Valid from construction until `release`.
//
// Threads: as MsgQueue; `wait` is for the owner.
class BREVI_EXPORT MsgQueueStandalone : public MsgQueue
{
public:
    // Owned by the context `contextId` (the calling thread's by default).
    explicit MsgQueueStandalone(unsigned contextId = Context::id());
    ~MsgQueueStandalone() override;

    bool enqueue(boost::any* item) override;
    bool enqueueOnce(boost::any* item) override;

    // Waits until the queue has an item: true with eIpcResultOk. False with
    // eIpcResultTimeout when `ms` milliseconds passed (0: only look;
    // negative: no limit), or eIpcResultClosed when the queue is or becomes
    // invalid. Takes nothing out.
    bool wait(IpcResult& result, qint64 ms);

    // How long a wait watches for an item before it sleeps.
    static constexpr unsigned SpinMicroseconds = 50;

protected:
    bool wake(const char* failure) override;
    void releaseLocked() override;

private:
    void spin();

    boost::condition_variable moCondition;
};

} // namespace Brevi

#endif
