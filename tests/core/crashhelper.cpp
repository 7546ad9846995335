// A process that crashes inside Context::run in the way its argument asks:
//   segv       a null pointer write on the main context's thread
//   terminate  an exception nobody catches
//   thread     a fault on a thread that has no context
//   twice      two dumps asked for in one process, then a normal exit
#include "core/context.h"

#include <csignal>
#include <cstring>
#include <stdexcept>
#include <thread>

#include <sys/mman.h>

using namespace Brevi;

namespace {
const char* gMode = "";

// A write to a read-only page: a real fault, which neither sanitizer treats as
// its own finding, so that the crash frame sees it in every build.
void fault()
{
    void* page = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    *static_cast<volatile int*>(page) = 1;
}

void crash()
{
    BREVI_TRACE(TraceModuleApplication, TraceAlways) << "about to crash in mode" << gMode;
    if (std::strcmp(gMode, "segv") == 0) {
        fault();
    } else if (std::strcmp(gMode, "terminate") == 0) {
        throw std::runtime_error("nobody catches this");
    } else if (std::strcmp(gMode, "thread") == 0) {
        std::thread worker(fault);
        worker.join();
    } else if (std::strcmp(gMode, "twice") == 0) {
        Context::dump(SIGSEGV, nullptr, nullptr);
        Context::dump(SIGSEGV, nullptr, nullptr);
    }
}
} // namespace

int main(int argc, char** argv)
{
    gMode = argc > 1 ? argv[1] : "";
    return Context::run(crash, Context::Type(7), 0, QStringLiteral("Crash Test")) ? 0 : 3;
}
