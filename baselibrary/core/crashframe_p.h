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
