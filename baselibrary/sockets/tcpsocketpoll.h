#ifndef BASELIBRARY_SOCKETS_TCPSOCKETPOLL_H
#define BASELIBRARY_SOCKETS_TCPSOCKETPOLL_H

#include "brevi_export.h"
#include "core/operatorboolgenerator.h"
#include "sockets/tcperror.h"

#include <QtGlobal>

#include <boost/shared_ptr.hpp>

namespace Brevi {

class TCPSocket;
class Trace;

// Waits for one event on one socket: a connection to accept on a listener,
// or the end of a connect on a data socket. TCPSocketListen::accept and
// TCPSocketData::complete wait with it; for several sockets at once use
// TCPSocketSelect.
//
//     TCPSocketPoll poll;
//     poll.set(socket, TCPSocketPoll::Connect);
//     if (poll.wait(5000) == eTCPErrorNone)
//         error = socket.socketError();   // the connect's outcome
//
// A connect ends the wait whether it succeeded or failed: the outcome is then
// read with TCPSocket::socketError. The socket is watched by its handle:
// it must stay open while set.
//
// Threads: a poll belongs to one thread. Copies share one state (`clone`
// gives an independent one), so a copy must not go to another thread.
class BREVI_EXPORT TCPSocketPoll
{
public:
    // What to wait for. The order and the texts that Trace shows are fixed.
    enum TypeE : int {
        // "Accept": a connection waits on a listener (reading).
        Accept = 0,
        // "Connect": a connect has ended (writing, or an error).
        Connect = 1,
        // "Invalid": refused by set.
        Invalid = 2
    };

    // The event bits of `requested` and `returned`; the system's own values,
    // seen only in traces.
    static constexpr unsigned EventAccept = 8;
    static constexpr unsigned EventConnect = 16;

    // Nothing set.
    TCPSocketPoll();

    // Watches `socket` for `type`, replacing whatever was set and forgetting
    // the last result. False, with nothing changed, for a socket without a
    // handle, a null pointer, or type Invalid.
    bool set(const TCPSocket& socket, TypeE type);
    bool set(const boost::shared_ptr<TCPSocket>& socket, TypeE type);
    // After a wait that gave eTCPErrorNone: did the requested event come.
    bool set() const;
    // Forgets the socket and the result.
    void clear();

    // Waits up to `ms` milliseconds (negative: no limit, 0: only look).
    // eTCPErrorNone: the event came (`set()` is true). eTCPErrorTimeout:
    // it did not. eTCPErrorInterrupted: a signal cut the wait short; wait
    // again. eTCPErrorInvalidArgument: no socket set. eTCPErrorInternal: the
    // system refused the wait ("poll returned with" is traced), e.g. for a
    // handle that was closed while set.
    TCPError wait(qint64 ms);

    // Makes `copy` an independent poll with this one's socket, request and
    // result.
    void clone(TCPSocketPoll& copy) const;

    // The handle watched, -1 if none.
    int socket() const;
    // The event bits asked for and the ones the last wait reported.
    unsigned requested() const;
    unsigned returned() const;

    // True while a socket is set.
    bool isValid() const { return socket() >= 0; }
    operator OperatorBoolGenerator<TCPSocketPoll>::Result() const
    {
        return OperatorBoolGenerator<TCPSocketPoll>::make(isValid());
    }

private:
    struct Impl;
    boost::shared_ptr<Impl> mptImpl;
};

// "Accept", "Connect", "Invalid".
BREVI_EXPORT Trace& operator<<(Trace& trace, TCPSocketPoll::TypeE type);

} // namespace Brevi

#endif
