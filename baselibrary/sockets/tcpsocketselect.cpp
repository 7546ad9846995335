#include "sockets/tcpsocketselect.h"

#include "core/context.h"
#include "core/traceerrorcode.h"
#include "sockets/socketwait_p.h"
#include "sockets/tcperrortable.h"
#include "sockets/tcpsocket.h"

#include <boost/make_shared.hpp>

#include <cerrno>
#include <cstring>

#include <poll.h>
#include <sys/socket.h>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleTcpSocket;

const char* const TypeNames[] = {"All", "Read", "Write", "Exception", "ReadOnly", "WriteOnly", "ReadWrite"};

// Membership of a socket in the three sets, kept in the `events` of its poll
// entry so that the table is handed to poll() as it stands.
const short InRead = POLLIN;
const short InWrite = POLLOUT;
const short InException = POLLPRI;
const short InAll = InRead | InWrite | InException;

// What each set counts as ready, as select() reads poll's answer: an error or
// a hang-up makes a socket readable and writable (the next call will not
// block, it will report), and an error is also an exception, which is how a
// failed connect shows.
const short ReadyRead = POLLIN | POLLHUP | POLLERR;
const short ReadyWrite = POLLOUT | POLLHUP | POLLERR;
const short ReadyException = POLLPRI | POLLERR;

short addedBy(TCPSocketSelect::TypeE type)
{
    switch (type) {
    case TCPSocketSelect::All:
        return InAll;
    case TCPSocketSelect::Read:
    case TCPSocketSelect::ReadOnly:
        return InRead;
    case TCPSocketSelect::Write:
    case TCPSocketSelect::WriteOnly:
        return InWrite;
    case TCPSocketSelect::Exception:
        return InException;
    case TCPSocketSelect::ReadWrite:
        return InRead | InWrite;
    }
    return 0;
}

// What set removes besides adding.
short removedBySet(TCPSocketSelect::TypeE type)
{
    switch (type) {
    case TCPSocketSelect::ReadOnly:
        return InWrite | InException;
    case TCPSocketSelect::WriteOnly:
        return InRead | InException;
    case TCPSocketSelect::ReadWrite:
        return InException;
    default:
        return 0;
    }
}
} // namespace

// The three sets as one table of poll entries, one per socket, in the order
// the sockets were first set. Each set's size is counted apart, so that each
// can be held to SetSize; the table has room for three disjoint full sets.
struct TCPSocketSelect::Impl {
    int highest = -1;
    unsigned readCount = 0;
    unsigned writeCount = 0;
    unsigned exceptionCount = 0;
    unsigned retries = 0;
    unsigned entries = 0;
    pollfd table[3 * SetSize];

    unsigned find(int socket) const
    {
        for (unsigned i = 0; i < entries; ++i)
            if (table[i].fd == socket)
                return i;
        return entries;
    }

    void count(short before, short after)
    {
        readCount += unsigned((after & InRead) != 0) - unsigned((before & InRead) != 0);
        writeCount += unsigned((after & InWrite) != 0) - unsigned((before & InWrite) != 0);
        exceptionCount += unsigned((after & InException) != 0) - unsigned((before & InException) != 0);
    }

    // Gives entry `i` the membership `mask`, dropping it when that is none.
    void change(unsigned i, short mask)
    {
        count(table[i].events, mask);
        if (mask) {
            table[i].events = mask;
            return;
        }
        std::memmove(table + i, table + i + 1, (entries - i - 1) * sizeof(pollfd));
        --entries;
    }

    void empty()
    {
        entries = 0;
        readCount = writeCount = exceptionCount = 0;
    }

    // Keeps of each socket the sets it is ready for.
    void keepReady()
    {
        unsigned kept = 0;
        readCount = writeCount = exceptionCount = 0;
        for (unsigned i = 0; i < entries; ++i) {
            const short events = table[i].events;
            const short revents = table[i].revents;
            short mask = 0;
            if ((events & InRead) && (revents & ReadyRead))
                mask |= InRead;
            if ((events & InWrite) && (revents & ReadyWrite))
                mask |= InWrite;
            if ((events & InException) && (revents & ReadyException))
                mask |= InException;
            if (!mask)
                continue;
            table[kept] = table[i];
            table[kept].events = mask;
            count(0, mask);
            ++kept;
        }
        entries = kept;
    }

    void copyFrom(const Impl& other)
    {
        highest = other.highest;
        readCount = other.readCount;
        writeCount = other.writeCount;
        exceptionCount = other.exceptionCount;
        entries = other.entries;
        std::memcpy(table, other.table, entries * sizeof(pollfd));
    }
};

Trace& operator<<(Trace& trace, TCPSocketSelect::TypeE type)
{
    if (unsigned(type) < sizeof(TypeNames) / sizeof(TypeNames[0]))
        return trace << TypeNames[type];
    return trace << int(type);
}

TCPSocketSelect::TCPSocketSelect()
    : mptImpl(boost::make_shared<Impl>())
{}

TCPError TCPSocketSelect::wait(qint64 ms)
{
    Impl& impl = *mptImpl;
    if (impl.entries == 0) {
        BTRACE(TraceAlways) << "Select has no sockets";
        BTRACE(TraceAlways) << "Error: `readCount || writeCount || exceptionCount' failed.";
        impl.retries = 0;
        return eTCPErrorInternal;
    }
    for (unsigned i = 0; i < impl.entries; ++i)
        impl.table[i].revents = 0;

    const int result = SocketWait::poll(impl.table, impl.entries, ms);
    int error = result < 0 ? errno : 0;
    if (result > 0) {
        // select() fails as a whole on a handle that is not open; so does this.
        for (unsigned i = 0; i < impl.entries && !error; ++i)
            if (impl.table[i].revents & POLLNVAL)
                error = EBADF;
        if (!error) {
            impl.retries = 0;
            impl.keepReady();
            return eTCPErrorNone;
        }
    }
    if (result == 0) {
        impl.retries = 0;
        impl.empty();
        return eTCPErrorTimeout;
    }
    if (error == EINTR) {
        impl.retries = 0;
        impl.empty();
        return eTCPErrorInterrupted;
    }
    if (TCPErrorTable::waitResource(error)) {
        display();
        impl.empty();
        if (++impl.retries < ResourceRetries) {
            BTRACE(TraceAlways) << "Resource error, backup for 100ms" << TraceErrorCode(error) << impl.retries;
            Context::sleep(ResourceBackoffMs);
            return eTCPErrorInterrupted;
        }
    }
    BTRACE(TraceAlways) << "Select returned with" << TraceErrorCode(error);
    impl.retries = 0;
    impl.empty();
    return eTCPErrorInternal;
}

TCPError TCPSocketSelect::nap(unsigned ms) { return wait(qint64(ms)); }

void TCPSocketSelect::zero(TypeE type)
{
    Impl& impl = *mptImpl;
    const short removed = addedBy(type);
    if (removed == InAll) {
        impl.empty();
        return;
    }
    for (unsigned i = impl.entries; i-- > 0;)
        impl.change(i, impl.table[i].events & ~removed);
}

bool TCPSocketSelect::set(const TCPSocket& socket, TypeE type)
{
    const int handle = socket.socket();
    const short added = addedBy(type);
    if (handle < 0 || !added)
        return false;
    Impl& impl = *mptImpl;
    const unsigned i = impl.find(handle);
    const short before = i < impl.entries ? impl.table[i].events : short(0);
    const short after = short((before & ~removedBySet(type)) | added);
    if (((after & ~before & InRead) && impl.readCount >= SetSize) ||
        ((after & ~before & InWrite) && impl.writeCount >= SetSize) ||
        ((after & ~before & InException) && impl.exceptionCount >= SetSize)) {
        BTRACE(TraceAlways) << "Error: `count < SetSize' failed." << socket << type;
        return false;
    }
    if (i == impl.entries) {
        impl.table[impl.entries++] = pollfd{handle, 0, 0};
        if (handle > impl.highest)
            impl.highest = handle;
    }
    impl.change(i, after);
    return true;
}

bool TCPSocketSelect::set(const boost::shared_ptr<TCPSocket>& socket, TypeE type)
{
    return socket && set(*socket, type);
}

void TCPSocketSelect::clear(const TCPSocket& socket, TypeE type)
{
    Impl& impl = *mptImpl;
    const unsigned i = socket.socket() < 0 ? impl.entries : impl.find(socket.socket());
    if (i < impl.entries)
        impl.change(i, impl.table[i].events & ~addedBy(type));
}

void TCPSocketSelect::clear(const boost::shared_ptr<TCPSocket>& socket, TypeE type)
{
    if (socket)
        clear(*socket, type);
}

bool TCPSocketSelect::isSet(const TCPSocket& socket, TypeE type) const
{
    const Impl& impl = *mptImpl;
    const unsigned i = socket.socket() < 0 ? impl.entries : impl.find(socket.socket());
    return i < impl.entries && (impl.table[i].events & addedBy(type)) != 0;
}

bool TCPSocketSelect::isSet(const boost::shared_ptr<TCPSocket>& socket, TypeE type) const
{
    return socket && isSet(*socket, type);
}

unsigned TCPSocketSelect::count(TypeE type) const
{
    const Impl& impl = *mptImpl;
    switch (type) {
    case Read:
    case ReadOnly:
        return impl.readCount;
    case Write:
    case WriteOnly:
        return impl.writeCount;
    case Exception:
        return impl.exceptionCount;
    default:
        break;
    }
    const short mask = addedBy(type);
    unsigned n = 0;
    for (unsigned i = 0; i < impl.entries; ++i)
        n += (impl.table[i].events & mask) != 0;
    return n;
}

int TCPSocketSelect::highestSocket() const { return mptImpl->highest; }

void TCPSocketSelect::clone(TCPSocketSelect& copy) const
{
    if (&copy == this)
        return;
    if (copy.mptImpl == mptImpl || copy.mptImpl.use_count() > 1) {
        const unsigned retries = copy.mptImpl->retries;
        copy.mptImpl = boost::make_shared<Impl>();
        copy.mptImpl->retries = retries;
    }
    copy.mptImpl->copyFrom(*mptImpl);
}

namespace {
// One of the three sets, as display and debug write it.
struct SetView {
    const char* title;
    short mask;
    unsigned count;
};
} // namespace

void TCPSocketSelect::display() const
{
    const Impl& impl = *mptImpl;
    const SetView views[] = {{"read socket(s) selected", InRead, impl.readCount},
                             {"write socket(s) selected", InWrite, impl.writeCount},
                             {"exception socket(s) selected", InException, impl.exceptionCount}};
    for (const SetView& view : views) {
        if (!view.count)
            continue;
        BTRACE(TraceAlways) << view.count << view.title;
        for (unsigned i = 0; i < impl.entries; ++i)
            if (impl.table[i].events & view.mask)
                BTRACE(TraceAlways) << "Socket" << impl.table[i].fd;
    }
}

void TCPSocketSelect::debug(TraceLevelE level, const QString& title) const
{
    const Impl& impl = *mptImpl;
    BTRACE(level) << "Begin" << title;
    const SetView views[] = {{"read socket(s) selected", InRead, impl.readCount},
                             {"write socket(s) selected", InWrite, impl.writeCount},
                             {"exception socket(s) selected", InException, impl.exceptionCount}};
    for (const SetView& view : views) {
        BTRACE(level) << view.count << view.title;
        for (unsigned i = 0; i < impl.entries; ++i) {
            if (!(impl.table[i].events & view.mask))
                continue;
            int type = 0;
            socklen_t length = sizeof type;
            const bool good = getsockopt(impl.table[i].fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0;
            BTRACE(level) << "Socket" << impl.table[i].fd << (good ? "Good Socket" : "Bad Socket");
        }
    }
    BTRACE(level) << "End" << title;
}

} // namespace Brevi
