#ifndef PROGRAMS_HUB_SHAREDMEMORYSWEEP_H
#define PROGRAMS_HUB_SHAREDMEMORYSWEEP_H

#include <QString>

#include <utility>
#include <vector>

namespace Brevi {

// Removes the shared-memory names that processes of the system left behind
// when they died without removing them (killed, crashed): a name outlives its
// creator, and its memory with it, until someone removes it.
//
// A name "Global\Brevi Shared Memory Buffer for <owner> <n>" whose owner is a
// process id belongs to that process; once no process has that id, nobody
// can still be creating under it, and the name is removed. Mappings already
// made stay valid; only new attachments fail. Names whose owner is not a
// number (a provider initialized with a name of its own) and names of live
// processes are left alone, as are those of another user (not ours to
// remove).
//
// A process that has ended but not yet been collected by its parent (a
// zombie) counts as gone: it creates nothing any more, and its id is not
// given to another process before it is collected.
//
// The Hub sweeps every dead owner when it starts, which takes what an earlier
// Hub that was killed held, and the names of each of its processes once the
// process has died: its link closes a moment before the process is gone, so
// the process is watched for a while (`watch`, `check`).
//
// Threads: one; the calls only read the directory and remove names.
class SharedMemorySweep
{
public:
    // The directory where the names live as files.
    explicit SharedMemorySweep(const QString& directory = QStringLiteral("/dev/shm"));

    // Removes the names of every owner that is no longer running; how many.
    unsigned sweepDead() const;
    // Removes the names of `pid`, if it is no longer running; how many.
    unsigned sweepOwner(unsigned pid) const;
    // Sweeps the names of `pid` once it is gone, if that is before `until`.
    void watch(unsigned pid, unsigned long long until);
    // Sweeps the watched processes that are gone, and forgets those whose
    // time is up.
    void check(unsigned long long now);
    unsigned watched() const { return unsigned(moWatched.size()); }

    // The owner's pid of a name, 0 when the name is none of ours or its
    // owner no number.
    static unsigned ownerOf(const QString& name);
    // No process has this id, or the one that has has ended (a zombie).
    static bool gone(unsigned pid);

private:
    unsigned sweep(unsigned onlyPid) const;

    QString msDirectory;
    std::vector<std::pair<unsigned, unsigned long long>> moWatched;
};

} // namespace Brevi

#endif
