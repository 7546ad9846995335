#ifndef BASELIBRARY_CORE_SHAREDMEMORYUSER_H
#define BASELIBRARY_CORE_SHAREDMEMORYUSER_H

#include "core/sharedmemoryid.h"

namespace Brevi {

class SharedMemory;

// Attaches the window of a SharedMemoryId to this process.
//
// All users of one name in a process share one mapping, so two windows of one
// object differ in address by the difference of their offsets. The mapping
// goes when the last user does; a later user opens the name afresh, which
// fails once the provider has released it. A user that could not attach is
// false; the reason is traced at TraceAlways in module SHAREDMEMORY. Copies
// share the attachment and may cross threads; what is in the memory is the
// users' concern.
class BREVI_EXPORT SharedMemoryUser
{
public:
    SharedMemoryUser();
    // With `lockPages` the mapping's pages are locked in memory when they can
    // be; a refusal leaves them unlocked and the user valid.
    explicit SharedMemoryUser(const SharedMemoryId& id, bool lockPages = false);

    unsigned char* address() const;
    unsigned size() const;
    // Whether the mapping's pages are locked.
    bool locked() const;
    // What locking `size` bytes adds to this process's allowance of locked
    // memory, and the allowance taken now by all locked mappings.
    static unsigned long long lockAllowance(unsigned size);
    static unsigned long long lockedAllowance();

    operator OperatorBoolGenerator<SharedMemoryUser>::Result() const
    {
        return OperatorBoolGenerator<SharedMemoryUser>::make(address() != nullptr);
    }

private:
    struct Data;
    boost::shared_ptr<Data> mptData;
};

} // namespace Brevi

#endif
