#ifndef BASELIBRARY_MESSAGING_THREADCOMMS_H
#define BASELIBRARY_MESSAGING_THREADCOMMS_H

#include "brevi_export.h"
#include "core/xmllist.h"
#include "logging/log.h"
#include "messaging/msgaddress.h"

#include <QString>

#include <boost/shared_ptr.hpp>

namespace Brevi {

class Messaging;

// The link a thread hands to another thread of the process, so that the two
// can talk by messages. The thread that starts a worker makes one (it keeps
// that thread's Messaging and readies its queue), gives the worker a copy,
// and waits for MsgConnectedPost; the worker, inside a context of its own,
// calls `connect` and can then `send` to the thread that made the object:
//
//     // in the parent, which hands a copy to the worker it starts:
//     ThreadComms comms("backup job 7");
//     Msg hello = Msg::wait(Catalogue::MsgConnectedPost::Message, 30);
//     // hello.getCookie() == "backup job 7"; hello.source() is the worker
//
//     // in the worker, inside a context of its own:
//     if (!comms.connect(Log::eProxy))
//         return;
//     comms.send("JobProgressPost", body);   // cookie "backup job 7"
//     comms.disconnect();
//
// The name is the cookie of every message the link carries, so that the
// parent can tell its workers apart. A worker whose context does not come up
// calls `failed`, and the parent's wait ends with MsgDisconnectedPost of that
// cookie instead of hanging.
//
// Failure: `connect`, `disconnect`, `failed` and `send` return false and
// trace why ("Other thread data is invalid", "No messaging", "Failed to
// connect to other thread", "Not connected"); nothing throws.
//
// Threads: a value; each copy belongs to one thread. `connect`, `send` and
// `disconnect` act on the calling thread's Messaging and touch the other
// thread's only through the calls Messaging offers to foreign threads.
class BREVI_EXPORT ThreadComms
{
public:
    // Keeps the calling thread's Messaging (none on a thread without one) and
    // makes its queue ready for other threads.
    explicit ThreadComms(const QString& name = QString());
    ThreadComms(const ThreadComms& other);
    ThreadComms& operator=(const ThreadComms& other);
    ~ThreadComms();

    // The other side's address; invalid until connected.
    const MsgAddress& address() const { return moAddress; }
    const QString& name() const { return msName; }
    void name(const QString& name) { msName = name; }

    // A message `name` to `address`, with this link's name as cookie.
    // False when not connected or when the send fails.
    bool send(const QString& name, const XmlList& body = XmlList()) const;

    // Whether the calling thread is the one that made the object; if so the
    // address becomes the thread's own, so that `send` loops back.
    bool sameThread();

    // In the other thread: connects its Messaging with the one kept here, so
    // that messages go both ways, and tells the kept side MsgConnectedPost
    // with this link's name. `proxy` Log::eProxy makes an attached kept side
    // carry this thread's log messages. True when connected (or when called
    // in the thread that made the object, which needs no queue).
    bool connect(Log::Proxy proxy = Log::eNoProxy);
    // Tells the kept side MsgDisconnectedPost with this link's name, and
    // takes both sides' queues apart. False when not connected.
    bool disconnect();
    // For a thread that cannot connect (its context did not come up): puts
    // MsgDisconnectedPost with this link's name into the kept side's queue.
    bool failed();

private:
    QString msName;
    boost::shared_ptr<Messaging> mptMessaging;
    MsgAddress moAddress;
};

} // namespace Brevi

#endif
