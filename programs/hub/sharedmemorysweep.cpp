#include "sharedmemorysweep.h"

#include "core/sharedmemoryprovider.h"
#include "core/trace.h"
#include "core/traceerrorcode.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <csignal>

#include <sys/mman.h>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleHub;
} // namespace

SharedMemorySweep::SharedMemorySweep(const QString& directory)
    : msDirectory(directory)
{}

unsigned SharedMemorySweep::ownerOf(const QString& name)
{
    const QString base = SharedMemoryProvider::nameBase();
    if (!name.startsWith(base))
        return 0;
    const QString rest = name.mid(base.size());
    const int blank = rest.lastIndexOf(' ');
    if (blank <= 0)
        return 0;
    bool owner = false;
    bool counter = false;
    const unsigned pid = rest.left(blank).toUInt(&owner);
    rest.mid(blank + 1).toUInt(&counter);
    return owner && counter ? pid : 0;
}

bool SharedMemorySweep::gone(unsigned pid)
{
    if (pid == 0)
        return false;
    if (::kill(pid_t(pid), 0) != 0)
        return errno == ESRCH;
    // "pid (comm) S ...": the state follows the last parenthesis, since the
    // command name may hold blanks and parentheses of its own.
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return false;
    const QByteArray line = stat.readAll();
    const int close = line.lastIndexOf(')');
    return close >= 0 && close + 2 < line.size() && (line.at(close + 2) == 'Z' || line.at(close + 2) == 'X');
}

void SharedMemorySweep::watch(unsigned pid, unsigned long long until)
{
    if (pid)
        moWatched.emplace_back(pid, until);
}

void SharedMemorySweep::check(unsigned long long now)
{
    for (auto it = moWatched.begin(); it != moWatched.end();) {
        if (gone(it->first))
            sweep(it->first);
        else if (now < it->second) {
            ++it;
            continue;
        }
        it = moWatched.erase(it);
    }
}

unsigned SharedMemorySweep::sweepDead() const { return sweep(0); }

unsigned SharedMemorySweep::sweepOwner(unsigned pid) const { return pid && gone(pid) ? sweep(pid) : 0; }

unsigned SharedMemorySweep::sweep(unsigned onlyPid) const
{
    const QStringList names =
        QDir(msDirectory)
            .entryList(QStringList{SharedMemoryProvider::nameBase() + '*'}, QDir::Files | QDir::System | QDir::Hidden);
    unsigned removed = 0;
    for (const QString& name : names) {
        const unsigned owner = ownerOf(name);
        if (!owner || (onlyPid && owner != onlyPid) || !gone(owner))
            continue;
        if (shm_unlink(QFile::encodeName('/' + name).constData()) == 0) {
            BTRACE(TraceNormal) << "Removed shared memory" << name << "of process" << owner << ", which is gone";
            ++removed;
        } else if (errno != ENOENT) {
            BTRACE(TraceVerbose) << "Cannot remove shared memory" << name << TraceErrorCode(errno);
        }
    }
    return removed;
}

} // namespace Brevi
