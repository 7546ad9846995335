#include "sockets/tcpsocketpoll.h"

#include "core/trace.h"
#include "core/traceerrorcode.h"
#include "sockets/socketwait_p.h"
#include "sockets/tcpsocket.h"

#include <boost/make_shared.hpp>

#include <cerrno>

#include <poll.h>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleTcpSocket;

const char* const TypeNames[] = {"Accept", "Connect", "Invalid"};
} // namespace

// One socket and the event asked for. A single descriptor needs no sets: the
// wait is one poll() on it, which also serves handles above the range that
// select() can take.
struct TCPSocketPoll::Impl {
    int socket = -1;
    unsigned requested = 0;
    unsigned returned = 0;
};

Trace& operator<<(Trace& trace, TCPSocketPoll::TypeE type)
{
    if (unsigned(type) < sizeof(TypeNames) / sizeof(TypeNames[0]))
        return trace << TypeNames[type];
    return trace << int(type);
}

TCPSocketPoll::TCPSocketPoll()
    : mptImpl(boost::make_shared<Impl>())
{}

bool TCPSocketPoll::set(const TCPSocket& socket, TypeE type)
{
    if (socket.socket() < 0) {
        BTRACE(TraceNormal) << "Poll refuses socket without handle" << socket;
        return false;
    }
    if (type != Accept && type != Connect) {
        BTRACE(TraceNormal) << "Poll refuses type" << type << "for" << socket;
        return false;
    }
    mptImpl->socket = socket.socket();
    mptImpl->requested = type == Accept ? EventAccept : EventConnect;
    mptImpl->returned = 0;
    return true;
}

bool TCPSocketPoll::set(const boost::shared_ptr<TCPSocket>& socket, TypeE type) { return socket && set(*socket, type); }

bool TCPSocketPoll::set() const { return (mptImpl->returned & mptImpl->requested) != 0; }

void TCPSocketPoll::clear()
{
    mptImpl->socket = -1;
    mptImpl->requested = 0;
    mptImpl->returned = 0;
}

TCPError TCPSocketPoll::wait(qint64 ms)
{
    Impl& impl = *mptImpl;
    impl.returned = 0;
    if (impl.socket < 0)
        return eTCPErrorInvalidArgument;
    pollfd entry = {impl.socket, 0, 0};
    short ready = 0;
    if (impl.requested == EventAccept) {
        entry.events = POLLIN;
        ready = POLLIN | POLLERR | POLLHUP;
    } else if (impl.requested == EventConnect) {
        // A failed connect shows as an error, not as writability: it must end
        // the wait as well.
        entry.events = POLLOUT | POLLPRI;
        ready = POLLOUT | POLLPRI | POLLERR | POLLHUP;
    } else {
        BTRACE(TraceAlways) << "Error: `requested == EventAccept || requested == EventConnect' failed."
                            << impl.requested;
        return eTCPErrorInternal;
    }

    const int result = SocketWait::poll(&entry, 1, ms);
    if (result < 0) {
        const int error = errno;
        if (error == EINTR)
            return eTCPErrorInterrupted;
        BTRACE(TraceAlways) << "poll returned with" << TraceErrorCode(error);
        return eTCPErrorInternal;
    }
    if (result == 0)
        return eTCPErrorTimeout;
    if (entry.revents & POLLNVAL) {
        BTRACE(TraceAlways) << "poll returned with" << TraceErrorCode(EBADF);
        return eTCPErrorInternal;
    }
    if (entry.revents & ready)
        impl.returned = impl.requested;
    return eTCPErrorNone;
}

void TCPSocketPoll::clone(TCPSocketPoll& copy) const
{
    if (&copy == this)
        return;
    if (!copy.mptImpl || copy.mptImpl == mptImpl || copy.mptImpl.use_count() > 1)
        copy.mptImpl = boost::make_shared<Impl>();
    *copy.mptImpl = *mptImpl;
}

int TCPSocketPoll::socket() const { return mptImpl->socket; }
unsigned TCPSocketPoll::requested() const { return mptImpl->requested; }
unsigned TCPSocketPoll::returned() const { return mptImpl->returned; }

} // namespace Brevi
