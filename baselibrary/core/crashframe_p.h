#ifndef BASELIBRARY_CORE_CRASHFRAME_P_H
#define BASELIBRARY_CORE_CRASHFRAME_P_H

#include <csignal>
#include <memory>

namespace Brevi {

// The frame Context::run runs a function in. A fatal signal (SIGSEGV, SIGBUS,
// SIGFPE, SIGILL, SIGABRT) or std::terminate first reaches Context::dump, then
// the default action is restored and the signal raised again, so the process
// ends the way it would have. The frame exists for the dump, not to recover.
//
// The handlers are installed once per process and stay; each frame gives its
// thread an alternate signal stack, so that a stack overflow still dumps.
//
// The dump is written from the handler with what a handler may call (no
// allocation, no lock a fault could leave held, no Qt but reading strings
// that exist): a fault inside malloc, or with any lock held, still leaves its
// files. The .dmp holds the signal, registers, a backtrace by libunwind's
// local unwinding with each frame's file and offset (for addr2line; names
// are not looked up, since that allocates) and the memory map; the .tra the
// ring as text, and it is written even when the .dmp cannot be.
class CrashFrame
{
public:
    CrashFrame();
    ~CrashFrame();
    CrashFrame(const CrashFrame&) = delete;
    CrashFrame& operator=(const CrashFrame&) = delete;

private:
    std::unique_ptr<char[]> mpcStack;
    stack_t moPrevious{};
    bool mbOwnStack = false;
};

} // namespace Brevi

#endif
