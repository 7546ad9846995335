// A process that crashes inside Context::run in the way its argument asks:
//   segv       a null pointer write on the main context's thread
//   terminate  an exception nobody catches
//   thread     a fault on a thread that has no context
//   twice      two dumps asked for in one process, then a normal exit
//   inmalloc   a fault sent while the thread keeps the allocator busy, so that
//              it lands inside malloc or free (a watchdog alarm ends a hang)
//   nodump     a fault where the .dmp cannot be created: a directory stands
//              at its name
#include "core/context.h"
#include "core/trace.h"

#include <QDateTime>
#include <QDir>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

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

// Directories where the .dmp files of this thread would go in the next
// seconds.
void blockDumpNames()
{
    const QString directory = QString::fromLocal8Bit(getenv("BREVI_HOME")) + "/runtime/dump";
    QDir().mkpath(directory);
    const QDateTime now = QDateTime::currentDateTime();
    for (int second = 0; second < 3; ++second)
        QDir().mkpath(QStringLiteral("%1/Crash Test-%2-%3-%4-%5.dmp")
                          .arg(directory, Context::version(), now.addSecs(second).toString("yyyyMMdd-hhmmss"))
                          .arg(getpid())
                          .arg(syscall(SYS_gettid)));
}

void crash()
{
    BREVI_TRACE(TraceModuleApplication, TraceAlways)
        << "about to crash in mode" << gMode << hex << 255 << width(4) << -7 << QStringLiteral("\u00e9t\u00e9")
        << reinterpret_cast<const void*>(0xbeef);
    if (std::strcmp(gMode, "segv") == 0) {
        fault();
    } else if (std::strcmp(gMode, "nodump") == 0) {
        blockDumpNames();
        fault();
    } else if (std::strcmp(gMode, "inmalloc") == 0) {
        alarm(20);
        const pthread_t self = pthread_self();
        std::thread killer([self] {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            pthread_kill(self, SIGSEGV);
        });
        killer.detach();
        for (unsigned i = 0;; ++i) {
            void* block = malloc(20000 + (i * 7919) % 40000);
            static_cast<volatile char*>(block)[0] = 1;
            free(block);
        }
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
