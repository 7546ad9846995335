#include "messaging/msgqueue.h"

#include "core/context.h"
#include "core/trace.h"
#include "messaging/msg.h"

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleMsg;
}

MsgQueue::MsgQueue(unsigned contextId, bool invalid)
    : muiContextId(contextId)
    , mbInvalid(invalid)
{}

MsgQueue::~MsgQueue() = default;

bool MsgQueue::foreign(bool releasing) const
{
    const unsigned caller = Context::id();
    if (caller == muiContextId)
        return false;
    if (!releasing)
        BTRACE(TraceAlways) << "Attempt to dequeue from thread" << caller << "not" << muiContextId;
    else
        BTRACE(TraceAlways) << "Context" << caller << "is not allowed to release message queue for context"
                            << muiContextId;
    return true;
}

bool MsgQueue::append(boost::any* item, bool once, const char* failure)
{
    if (!item)
        return false;
    boost::unique_lock<boost::mutex> lock(moMutex);
    if (mbInvalid) {
        BTRACE(TraceNormal) << "Queue is invalid" << muiContextId;
        return false;
    }
    if (once) {
        if (const Msg* message = boost::any_cast<Msg>(item)) {
            for (const boost::any& queued : qAsConst(moItems)) {
                const Msg* other = boost::any_cast<Msg>(&queued);
                if (other && other->name() == message->name() && other->source() == message->source()) {
                    BTRACE(TraceDebug) << "Message" << message->name() << "from" << message->source() << "on queue";
                    return true;
                }
            }
        }
    }
    moItems.append(*item);
    muiChanges.fetch_add(1, std::memory_order_release);
    // One wake-up for a burst: the owner takes every item when it wakes.
    if (moItems.size() != 1 && !mbWakeOwed)
        return true;
    mbWakeOwed = false;
    if (!mbWakeUnlocked)
        return wake(failure);
    // The woken owner goes straight for the mutex: let it have it.
    lock.unlock();
    return wake(failure);
}

bool MsgQueue::dequeue(boost::any& item)
{
    if (foreign(false))
        return false;
    boost::mutex::scoped_lock lock(moMutex);
    if (moItems.isEmpty())
        return false;
    item = moItems.takeFirst();
    return true;
}

bool MsgQueue::dequeueAll(QList<boost::any>& items)
{
    if (foreign(false))
        return false;
    boost::mutex::scoped_lock lock(moMutex);
    if (moItems.isEmpty())
        return false;
    if (items.isEmpty()) {
        items.swap(moItems);
    } else {
        items.append(moItems);
        moItems.clear();
    }
    return true;
}

bool MsgQueue::select(TCPSocketSelect&) { return false; }

bool MsgQueue::pending(const TCPSocketSelect&) { return !isEmpty(); }

bool MsgQueue::setup(TCPSocketSelect&) { return isValid(); }

bool MsgQueue::isReleased() const
{
    boost::mutex::scoped_lock lock(moMutex);
    return mbReleased;
}

void MsgQueue::release()
{
    if (foreign(true))
        return;
    boost::mutex::scoped_lock lock(moMutex);
    mbInvalid = true;
    mbReleased = true;
    moItems.clear();
    muiChanges.fetch_add(1, std::memory_order_release);
    releaseLocked();
}

bool MsgQueue::isValid() const
{
    boost::mutex::scoped_lock lock(moMutex);
    return !mbInvalid;
}

bool MsgQueue::isEmpty() const
{
    boost::mutex::scoped_lock lock(moMutex);
    return moItems.isEmpty();
}

int MsgQueue::count() const
{
    boost::mutex::scoped_lock lock(moMutex);
    return moItems.size();
}

void MsgQueue::addUser()
{
    boost::mutex::scoped_lock lock(moMutex);
    ++muiUsers;
}

void MsgQueue::removeUser()
{
    boost::mutex::scoped_lock lock(moMutex);
    if (muiUsers)
        --muiUsers;
}

unsigned MsgQueue::users() const
{
    boost::mutex::scoped_lock lock(moMutex);
    return muiUsers;
}

} // namespace Brevi
