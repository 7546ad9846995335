#include "sockets/tcpsocketlisten.h"

#include "core/trace.h"
#include "core/traceerrorcode.h"
#include "sockets/socketwait_p.h"
#include "sockets/tcperrortable.h"
#include "sockets/tcpsocketdata.h"

#include <cerrno>
#include <climits>

#include <sys/socket.h>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleTcpSocket;
} // namespace

TCPSocketListen::TCPSocketListen(const QString& name, const NetAddress& local, unsigned backlog)
    : TCPSocket(name, local, true)
{
    if (!isValid())
        return;
    const int queue = backlog > unsigned(INT_MAX) ? INT_MAX : int(backlog);
    if (::listen(socket(), queue) != 0) {
        const int error = errno;
        const TCPError result = TCPErrorTable::listen(error);
        BTRACE(TraceAlways) << "Failed to listen on socket" << *this << localAddress() << TraceErrorCode(error)
                            << result;
        disable(result);
        return;
    }
    BTRACE(TraceNormal) << "Listening" << *this << "on" << localAddress() << "backlog" << backlog;
}

boost::shared_ptr<TCPSocketData> TCPSocketListen::accept(const QString& name, qint64 ms)
{
    BTRACE(TraceDebug) << "IN:accept" << *this << name << ms;
    boost::shared_ptr<TCPSocketData> accepted;
    if (!isValid())
        return accepted;
    moPoll.set(*this, TCPSocketPoll::Accept);

    if (ms < 0) {
        const TCPError result = moPoll.wait(-1);
        if (result == eTCPErrorNone) {
            doAccept(name, accepted);
        } else {
            setLastError(result);
            BTRACE(result == eTCPErrorTimeout ? TraceNormal : TraceAlways) << "wait failed" << *this << result;
        }
    } else if (ms == 0) {
        doAccept(name, accepted);
    } else {
        const qint64 deadline = SocketWait::now() + ms;
        for (;;) {
            const qint64 rest = deadline - SocketWait::now();
            if (rest <= 0) {
                setLastError(eTCPErrorTimeout);
                BTRACE(TraceNormal) << "wait failed" << *this << eTCPErrorTimeout;
                break;
            }
            const TCPError result = moPoll.wait(rest);
            if (result == eTCPErrorNone) {
                doAccept(name, accepted);
                if (accepted || !isValid())
                    break;
            } else if (result != eTCPErrorTimeout) {
                setLastError(result);
                BTRACE(TraceAlways) << "wait failed" << *this << result;
                break;
            }
        }
    }
    moPoll.clear();
    BTRACE(TraceDebug) << "OUT:accept ," << *this << (accepted ? accepted->socket() : -1);
    return accepted;
}

bool TCPSocketListen::doAccept(const QString& name, boost::shared_ptr<TCPSocketData>& accepted)
{
    int handle = accept4(socket(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (handle >= 0) {
        BTRACE(TraceNormal) << "Accept succeeded" << *this << handle;
        boost::shared_ptr<TCPSocketData> made(new TCPSocketData(name, handle));
        if (*made)
            accepted = made;
        return false;
    }
    const int error = errno;
    const TCPErrorTable::Effect effect = TCPErrorTable::accept(error);
    if (!effect.fatal) {
        setLastError(effect.error);
        BTRACE(TraceDebug) << "accept returned" << *this << TraceErrorCode(error);
        return true;
    }
    BTRACE(TraceAlways) << "accept returned" << *this << TraceErrorCode(error) << effect.error;
    disable(effect.error);
    return false;
}

} // namespace Brevi
