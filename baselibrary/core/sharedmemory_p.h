#ifndef BASELIBRARY_CORE_SHAREDMEMORY_P_H
#define BASELIBRARY_CORE_SHAREDMEMORY_P_H

#include "core/sharedmemoryid.h"

#include <boost/shared_ptr.hpp>

namespace Brevi {

// One mapping of a named shared memory object in this process. Every
// attachment to one name shares it, through a process-wide table of weak
// pointers; the last one to go unmaps it and leaves the table.
class SharedMemory
{
public:
    // The live mapping of `id`'s name, attaching it if needed; empty on failure
    // (traced). With `lockPages` the pages are also locked in memory.
    static boost::shared_ptr<SharedMemory> attach(const SharedMemoryId& id, bool lockPages);

    unsigned char* address() const { return mpucAddress; }
    unsigned size() const { return muiSize; }
    bool locked() const { return mbLocked; }

    // What locking a mapping of `size` bytes adds to the process's allowance of
    // locked memory, and what unlocking takes off again. The mask clears bit
    // 12 only: it is not a page rounding, and it is kept as it has always been
    // because lock and unlock agree on it.
    static unsigned long long lockAllowance(unsigned size) { return (size + 4095ull) & ~0x1000ull; }
    // Bytes this process has locked through shared memory, by the allowance above.
    static unsigned long long lockedAllowance();

    ~SharedMemory();

private:
    SharedMemory(unsigned char* address, unsigned size, const QString& name);
    bool lock();
    void unlock();

    unsigned char* mpucAddress;
    unsigned muiSize;
    QString msName;
    bool mbLocked = false;
};

} // namespace Brevi

#endif
