#include "persistent/spoolstatefile.h"

#include "core/trace.h"
#include "core/traceerrorcode.h"

#include <QFile>

#include <cerrno>
#include <cstring>

#include <sys/syscall.h>
#include <unistd.h>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModulePagedQueue;

// Reads of a state that the other side may be writing at that moment are
// repeated until two agree; a write takes microseconds, so a few rounds do.
const int SettleRounds = 8;
} // namespace

bool SpoolStateFile::open(const QString& base)
{
    return moFile.open(SpoolLayout::statePath(base), RawFile::eReadWrite);
}

bool SpoolStateFile::create(const QString& base, bool& existed)
{
    existed = false;
    const QString path = SpoolLayout::statePath(base);
    const QString own = path + QStringLiteral(".%1.%2").arg(::getpid()).arg(long(::syscall(SYS_gettid)));
    {
        RawFile made;
        unsigned char bytes[SpoolLayout::StateFileSize];
        const SpoolState start;
        SpoolLayout::storeState(bytes + SpoolLayout::WriteStateOffset, start);
        SpoolLayout::storeState(bytes + SpoolLayout::ReadStateOffset, start);
        if (!made.create(own, RawFile::eReadWrite) || !made.truncate(0, false) ||
            made.writeAt(0, bytes, sizeof bytes) != sizeof bytes) {
            made.deleteOnClose();
            return false;
        }
    }
    const QByteArray from = QFile::encodeName(own);
    const int linked = ::link(from.constData(), QFile::encodeName(path).constData());
    const int error = errno;
    ::unlink(from.constData());
    if (linked != 0 && error != EEXIST) {
        BTRACE(TraceAlways) << "Link of" << path << "failed" << TraceErrorCode(error);
        return false;
    }
    existed = linked != 0;
    return moFile.open(path, RawFile::eReadWrite);
}

bool SpoolStateFile::readStates(SpoolState& write, SpoolState& read)
{
    // The read state first: it never passes the write state, so a write state
    // read after it is not behind it, whatever the two sides do meanwhile.
    return readReadState(read) && readWriteState(write);
}

bool SpoolStateFile::readState(unsigned offset, SpoolState& state)
{
    unsigned char bytes[SpoolLayout::StateSize];
    unsigned char again[SpoolLayout::StateSize];
    if (moFile.readAt(offset, bytes, sizeof bytes) != sizeof bytes)
        return false;
    for (int round = 0; round < SettleRounds; ++round) {
        if (moFile.readAt(offset, again, sizeof again) != sizeof again)
            return false;
        if (std::memcmp(bytes, again, sizeof bytes) == 0) {
            state = SpoolLayout::loadState(bytes);
            return true;
        }
        std::memcpy(bytes, again, sizeof bytes);
    }
    return false;
}

bool SpoolStateFile::writeState(unsigned offset, const SpoolState& state)
{
    unsigned char bytes[SpoolLayout::StateSize];
    SpoolLayout::storeState(bytes, state);
    return moFile.writeAt(offset, bytes, sizeof bytes) == sizeof bytes;
}

} // namespace Brevi
