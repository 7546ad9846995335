#ifndef BASELIBRARY_CORE_SHAREDMEMORYPROVIDER_H
#define BASELIBRARY_CORE_SHAREDMEMORYPROVIDER_H

#include "core/sharedmemoryid.h"

namespace Brevi {

// Creates a named shared memory object and hands out its SharedMemoryId.
//
// Names are "Global\Brevi Shared Memory Buffer for <owner> <n>": the owner is
// the name given to initialize() (once per process), or the process id; n
// counts every attempt of this process. A name that exists already is refused
// rather than shared by accident. The provider does not map the memory
// itself: to use it, build a SharedMemoryUser from id().
//
// The object lives until release() or the last copy of the provider goes;
// users attached by then keep their mapping. Failures are traced at
// TraceAlways in module SHAREDMEMORY and leave a provider that is false.
class BREVI_EXPORT SharedMemoryProvider
{
public:
    // Fixes the owner part of every name; later calls change nothing.
    static bool initialize(const QString& name);
    // The name prefix, empty before initialize().
    static QString namePrefix();
    // What every mapping name begins with, before its owner: how a sweep of
    // names left behind by processes that died tells them apart.
    static QString nameBase();

    SharedMemoryProvider();
    explicit SharedMemoryProvider(unsigned size);

    // A new mapping of `size` bytes under the next name; what the provider
    // held before is released first. False for a size of 0, a name already
    // taken, or a refusal of the system.
    bool allocate(unsigned size);
    SharedMemoryId id() const;
    // Removes the name and forgets the id; attached users keep their mapping.
    void release();
    // Removes the name of a mapping that another process provided, for a user
    // that has attached and wants nothing left behind should the provider be
    // killed. The provider's own release then finds the name gone.
    static void remove(const SharedMemoryId& id);

    operator OperatorBoolGenerator<SharedMemoryProvider>::Result() const;

private:
    struct Data;
    boost::shared_ptr<Data> mptData;
};

} // namespace Brevi

#endif
