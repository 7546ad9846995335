#ifndef BASELIBRARY_PROCESS_HANDLE_H
#define BASELIBRARY_PROCESS_HANDLE_H

#include "brevi_export.h"

namespace Brevi {

// Owns one operating-system handle: on this platform a descriptor, for a
// started process a pidfd. The destructor closes it unless it holds the
// invalid value (-1, the all-ones value), and then stores -1. A Handle cannot
// be copied; it is shared through boost::shared_ptr (Spawn shares its process
// handle between copies that way), so the descriptor stays open until the last
// holder lets go, also after the process has ended. The last holder of a
// child's handle collects the child: at once if it has ended, otherwise
// through the library's reaper thread once it ends (see Spawn).
//
// The process calls (running, wait) fail, never crash, on a Handle that holds
// no process: they answer false.
//
// A Handle belongs to the threads that share it as any value does: the calls
// only read the descriptor, and the kernel serialises the rest.
class BREVI_EXPORT Handle
{
public:
    static const int Invalid = -1;

    enum Ownership {
        // The Handle closes the descriptor.
        Owned,
        // The Handle only names the value and never closes it. Spawn's result
        // when the switch to another account failed holds 0 this way: 0 is the
        // empty process record there, and on this platform also the standard
        // input, which is not Spawn's to close.
        NotOwned
    };

    explicit Handle(int handle = Invalid, Ownership ownership = Owned);
    ~Handle();
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    int get() const { return miHandle; }
    bool isValid() const { return miHandle != Invalid; }
    bool isOwned() const { return meOwnership == Owned; }

    // True while the process has not ended. It does not reap the process:
    // wait() still finds its exit status.
    bool running() const;
    // Blocks until the process has ended, reaps it and gives its exit code, or
    // the signal that ended it. False when this is no process of ours or it has
    // been reaped already.
    bool wait(int* exitCode = nullptr, int* signal = nullptr) const;

private:
    int miHandle;
    Ownership meOwnership;
};

} // namespace Brevi

#endif
