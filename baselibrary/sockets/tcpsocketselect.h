#ifndef BASELIBRARY_SOCKETS_TCPSOCKETSELECT_H
#define BASELIBRARY_SOCKETS_TCPSOCKETSELECT_H

#include "brevi_export.h"
#include "core/trace.h"
#include "sockets/tcperror.h"

#include <QString>
#include <QtGlobal>

#include <boost/shared_ptr.hpp>

namespace Brevi {

class TCPSocket;

// Waits until one of many sockets is ready: what a context sleeps in between
// messages. Three sets, read, write and exception, of up to SetSize sockets
// each; a socket may stand in several.
//
//     TCPSocketSelect select;
//     select.set(hubLink, TCPSocketSelect::Read);
//     select.set(wakeUp, TCPSocketSelect::Read);
//     if (select.wait(1000) == eTCPErrorNone && select.isSet(hubLink, TCPSocketSelect::Read))
//         ... read the link
//
// A wait changes the sets: afterwards they hold only the sockets that are
// ready (readable: data, end of stream, an error, or a connection to accept;
// writable: room to send, or an error; exception: urgent data or an error,
// such as a connect that failed). After any other result they are empty. So
// a caller builds the sets anew before each wait, or keeps a standing select
// and waits on a `clone` of it.
//
// Sockets are held by handle: a socket must stay open while it is in a set
// (a closed handle makes the wait fail with eTCPErrorInternal). Handles of
// any value may be set; the wait does not use select(), whose sets stop at
// descriptor 1023.
//
// Short of resources (the system refuses the wait with EFAULT, EINVAL or
// ENOMEM), a wait backs off: it traces the sets, sleeps 100 milliseconds and
// returns eTCPErrorInterrupted, so that the caller builds its sets and waits
// again. The hundredth such failure in a row gives eTCPErrorInternal; any
// other result starts the count anew.
//
// Threads: a select belongs to one thread. Copies share one set of sets
// (`clone` gives an independent one), so a copy must not go to another
// thread. The sets are allocated once, when the select is made; waiting,
// setting and cloning into an unshared select allocate nothing.
class BREVI_EXPORT TCPSocketSelect
{
public:
    // Which sets an operation concerns. The order and the texts that Trace
    // shows are fixed.
    enum TypeE : int {
        // "All": set adds to all three sets, clear removes from all three,
        // isSet asks whether in any.
        All = 0,
        // "Read", "Write", "Exception": that one set.
        Read = 1,
        Write = 2,
        Exception = 3,
        // "ReadOnly": set adds to read and removes from write and exception;
        // clear and isSet as Read.
        ReadOnly = 4,
        // "WriteOnly": set adds to write and removes from read and exception;
        // clear and isSet as Write.
        WriteOnly = 5,
        // "ReadWrite": set adds to read and write and removes from exception;
        // clear removes from both, isSet asks whether in either.
        ReadWrite = 6
    };

    // Sockets per set.
    static constexpr unsigned SetSize = 4096;
    // Resource failures in a row before a wait gives up, and the pause after each.
    static constexpr unsigned ResourceRetries = 100;
    static constexpr unsigned ResourceBackoffMs = 100;

    // Empty sets.
    TCPSocketSelect();

    // Waits up to `ms` milliseconds (negative: no limit, 0: only look).
    // eTCPErrorNone: some socket is ready; ask isSet. eTCPErrorTimeout: none
    // became ready. eTCPErrorInterrupted: a signal cut the wait short, or the
    // system was short of resources (after a pause); build the sets and wait
    // again. eTCPErrorInternal: the sets were empty ("Select has no
    // sockets"), or the system refused the wait ("Select returned with").
    TCPError wait(qint64 ms);
    // The same with an unsigned time.
    TCPError nap(unsigned ms);

    // Empties the sets that `type` names for clear.
    void zero(TypeE type = All);

    // Adds the socket as the type says. False, with the sets unchanged, for a
    // socket without a handle, a null pointer, or a set that is full.
    bool set(const TCPSocket& socket, TypeE type);
    bool set(const boost::shared_ptr<TCPSocket>& socket, TypeE type);
    void clear(const TCPSocket& socket, TypeE type);
    void clear(const boost::shared_ptr<TCPSocket>& socket, TypeE type);
    bool isSet(const TCPSocket& socket, TypeE type) const;
    bool isSet(const boost::shared_ptr<TCPSocket>& socket, TypeE type) const;

    // The number of sockets in the set a type names for isSet (All and
    // ReadWrite: sockets in any of the sets they name).
    unsigned count(TypeE type = All) const;
    // The highest handle set since the select was made.
    int highestSocket() const;

    // Makes `copy` an independent select holding this one's sets. Its count
    // of resource failures is its own and stays: it belongs to the waits made
    // on that select.
    void clone(TCPSocketSelect& copy) const;

    // Writes each non-empty set to the trace at TraceAlways: "read socket(s)
    // selected" (or write, exception) with the count, then a "Socket" line per
    // handle.
    void display() const;
    // The same at `level` between "Begin" and "End" lines carrying `title`,
    // each socket marked "Good Socket" or "Bad Socket" by asking the system.
    void debug(TraceLevelE level, const QString& title) const;

private:
    struct Impl;
    boost::shared_ptr<Impl> mptImpl;
};

// "All", "Read", "Write", "Exception", "ReadOnly", "WriteOnly", "ReadWrite".
BREVI_EXPORT Trace& operator<<(Trace& trace, TCPSocketSelect::TypeE type);

} // namespace Brevi

#endif
