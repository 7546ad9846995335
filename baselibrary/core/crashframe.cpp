#include "core/crashframe_p.h"

#include "core/context.h"
#include "core/fixedpath.h"

#include "core/tracetext_p.h"

#include <QString>

#define UNW_LOCAL_ONLY
#include <libunwind.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <exception>
#include <mutex>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

// The version as text, for writing without formatting.
#define BREVI_TEXT_OF(value) #value
#define BREVI_TEXT(value) BREVI_TEXT_OF(value)
#define BREVI_VERSION_TEXT                                                                                             \
    BREVI_TEXT(BREVI_VERSION_MAJOR) "." BREVI_TEXT(BREVI_VERSION_MINOR) "." BREVI_TEXT(BREVI_VERSION_BUILD)

namespace Brevi {

namespace {

const int FatalSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};
const size_t AlternateStackSize = 64 * 1024;

std::once_flag soInstalled;
std::atomic<bool> sbHaveDumped{false};
std::terminate_handler spPreviousTerminate = nullptr;

void onFatalSignal(int signal, siginfo_t* info, void* machineContext)
{
    Context::dump(signal, info, machineContext);
    // Die the way the process would have died without us: restore the default
    // action and raise again. A fault repeats when the handler returns.
    ::signal(signal, SIG_DFL);
    if (!info || info->si_code <= 0 || signal == SIGABRT)
        raise(signal);
}

void onTerminate()
{
    Context::dump(SIGABRT, nullptr, nullptr);
    std::abort();
}

void installHandlers()
{
    struct sigaction action = {};
    action.sa_sigaction = onFatalSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    for (int signal : FatalSignals)
        sigaction(signal, &action, nullptr);
    spPreviousTerminate = std::set_terminate(onTerminate);
}

// --- what the handler may call -------------------------------------------
//
// From here on the code runs in a signal handler, after a fault that may have
// struck anywhere, inside malloc or holding any lock. It calls only what a
// handler may: write, open, close, read, mkdir, clock_gettime, getpid, the
// gettid system call, and libunwind's local unwinding. It allocates nothing,
// takes no lock that a fault could leave held, and touches Qt only to read
// strings that already exist. Text is made in fixed arrays on the stack by
// TraceText.

// The zone's offset from UTC, in seconds, taken when a frame was set up:
// localtime reads the zone files and takes a lock, neither of which a
// handler may do.
std::atomic<long> slUtcOffset{0};

void takeUtcOffset()
{
    const time_t now = ::time(nullptr);
    struct tm local;
    if (localtime_r(&now, &local))
        slUtcOffset = local.tm_gmtoff;
}

const char* signalName(int signal)
{
    switch (signal) {
    case SIGSEGV:
        return "SIGSEGV, segmentation fault";
    case SIGBUS:
        return "SIGBUS, bus error";
    case SIGFPE:
        return "SIGFPE, arithmetic exception";
    case SIGILL:
        return "SIGILL, illegal instruction";
    case SIGABRT:
        return "SIGABRT, aborted";
    default:
        return "another signal";
    }
}

void writeAll(void* context, const char* bytes, size_t n)
{
    const int fd = *static_cast<const int*>(context);
    while (n) {
        const ssize_t written = ::write(fd, bytes, n);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return;
        bytes += written;
        n -= size_t(written);
    }
}

// A path is made in a fixed array; one that does not fit is refused.
struct PathRoom {
    bool overflow = false;
};
void refusePath(void* room, const char*, size_t) { static_cast<PathRoom*>(room)->overflow = true; }

void appendUtf16(TraceText& text, const QString& string)
{
    const ushort* units = string.utf16();
    const int size = string.size();
    for (int i = 0; i < size; ++i) {
        unsigned code = units[i];
        if (QChar::isHighSurrogate(code) && i + 1 < size && QChar::isLowSurrogate(units[i + 1]))
            code = QChar::surrogateToUcs4(ushort(code), units[++i]);
        text.appendCode(code);
    }
}

// "yyyyMMdd-hhmmss" of the local time, from the clock and the offset taken
// earlier, by the civil calendar's arithmetic.
void appendLocalTime(TraceText& text)
{
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    const long long local = static_cast<long long>(now.tv_sec) + slUtcOffset.load();
    long long days = local >= 0 ? local / 86400 : (local - 86399) / 86400;
    const long long seconds = local - days * 86400;
    days += 719468;
    const long long era = (days >= 0 ? days : days - 146096) / 146097;
    const unsigned dayOfEra = unsigned(days - era * 146097);
    const unsigned yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const unsigned monthIndex = (5 * dayOfYear + 2) / 153;
    const unsigned day = dayOfYear - (153 * monthIndex + 2) / 5 + 1;
    const unsigned month = monthIndex < 10 ? monthIndex + 3 : monthIndex - 9;
    const long long year = static_cast<long long>(yearOfEra) + era * 400 + (month <= 2 ? 1 : 0);
    text.appendUnsigned(static_cast<unsigned long long>(year), 10, 4, '0');
    text.appendUnsigned(month, 10, 2, '0');
    text.appendUnsigned(day, 10, 2, '0');
    text.append('-');
    text.appendUnsigned(static_cast<unsigned long long>(seconds / 3600), 10, 2, '0');
    text.appendUnsigned(static_cast<unsigned long long>(seconds / 60 % 60), 10, 2, '0');
    text.appendUnsigned(static_cast<unsigned long long>(seconds % 60), 10, 2, '0');
}

void writeRegisters(TraceText& out, const void* machineContext)
{
#if defined(__x86_64__)
    if (!machineContext)
        return;
    const greg_t* r = static_cast<const ucontext_t*>(machineContext)->uc_mcontext.gregs;
    const struct {
        const char* name;
        int index;
    } registers[] = {{"rip", REG_RIP}, {"rsp", REG_RSP}, {"rbp", REG_RBP},   {"rax", REG_RAX}, {"rbx", REG_RBX},
                     {"rcx", REG_RCX}, {"rdx", REG_RDX}, {"rsi", REG_RSI},   {"rdi", REG_RDI}, {"r8", REG_R8},
                     {"r9", REG_R9},   {"r10", REG_R10}, {"r11", REG_R11},   {"r12", REG_R12}, {"r13", REG_R13},
                     {"r14", REG_R14}, {"r15", REG_R15}, {"eflags", REG_EFL}};
    out.append("Registers:\n");
    for (const auto& reg : registers) {
        out.append("  ");
        out.append(reg.name);
        out.append(" 0x");
        out.appendUnsigned(static_cast<unsigned long long>(r[reg.index]), 16, 16, '0');
        out.append('\n');
    }
#else
    (void)out;
    (void)machineContext;
#endif
}

unsigned long long hexAt(const char*& p, const char* end)
{
    unsigned long long value = 0;
    for (; p < end; ++p) {
        const char c = *p;
        const int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
        if (digit < 0)
            break;
        value = value * 16 + unsigned(digit);
    }
    return value;
}

// " <file>+0x<offset>" for an address, from the mapping that holds it, read
// from /proc/self/maps a line at a time: what addr2line needs to name the
// function. Symbol names are not looked up here: libunwind's lookup and the
// loader's both allocate or lock.
void appendPlace(TraceText& out, unsigned long long address)
{
    const int fd = ::open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    char line[512];
    size_t used = 0;
    bool done = false;
    while (!done) {
        const ssize_t got = ::read(fd, line + used, sizeof line - used);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        used += size_t(got);
        for (;;) {
            char* newline = static_cast<char*>(std::memchr(line, '\n', used));
            if (!newline) {
                if (used == sizeof line)
                    used = 0; // a line too long to hold: not one of ours
                break;
            }
            // start-end perms offset device inode path
            const char* p = line;
            const unsigned long long start = hexAt(p, newline);
            ++p;
            const unsigned long long end = hexAt(p, newline);
            if (address >= start && address < end) {
                for (int field = 0; field < 2 && p < newline; ++p)
                    if (*p == ' ')
                        ++field;
                const unsigned long long offset = hexAt(p, newline);
                const char* path = p;
                for (int field = 0; field < 3 && path < newline; ++path)
                    if (*path == ' ')
                        ++field;
                while (path < newline && *path == ' ')
                    ++path;
                if (path < newline) {
                    out.append(' ');
                    out.append(path, size_t(newline - path));
                    out.append("+0x");
                    out.appendUnsigned(address - start + offset, 16);
                }
                done = true;
                break;
            }
            const size_t rest = used - size_t(newline + 1 - line);
            std::memmove(line, newline + 1, rest);
            used = rest;
        }
    }
    ::close(fd);
}

// libunwind's local unwinding walks the stack without allocating; each frame
// gives its address and the file and offset it lies at.
void writeBacktrace(TraceText& out)
{
    out.append("Backtrace:\n");
    unw_context_t context;
    unw_cursor_t cursor;
    if (unw_getcontext(&context) != 0 || unw_init_local(&cursor, &context) != 0)
        return;
    for (int frame = 0; frame < 64 && unw_step(&cursor) > 0; ++frame) {
        unw_word_t ip = 0;
        unw_get_reg(&cursor, UNW_REG_IP, &ip);
        out.append("  #");
        out.appendUnsigned(unsigned(frame));
        out.append(" 0x");
        out.appendUnsigned(ip, 16, 16, '0');
        appendPlace(out, ip);
        out.append('\n');
    }
}

void copyFile(TraceText& out, const char* path)
{
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    char chunk[1024];
    ssize_t n;
    while ((n = ::read(fd, chunk, sizeof chunk)) > 0 || (n < 0 && errno == EINTR))
        if (n > 0)
            out.append(chunk, size_t(n));
    ::close(fd);
}

void writeDumpFile(int fd, int signal, const void* info, const void* machineContext)
{
    char room[1024];
    TraceText out(room, sizeof room, writeAll, &fd);
    out.append("Process dump of ");
    appendUtf16(out, Context::baseName());
    out.append("\nVersion: " BREVI_VERSION_TEXT "\nSignal: ");
    out.appendUnsigned(unsigned(signal));
    out.append(" (");
    out.append(signalName(signal));
    out.append(")\n");
    if (info) {
        const siginfo_t* signalInfo = static_cast<const siginfo_t*>(info);
        out.append("Code: ");
        out.appendSigned(signalInfo->si_code);
        out.append("\nAddress: 0x");
        out.appendUnsigned(reinterpret_cast<unsigned long long>(signalInfo->si_addr), 16, 16, '0');
        out.append('\n');
    } else {
        out.append("Cause: std::terminate\n");
    }
    out.append("Process: ");
    out.appendUnsigned(unsigned(getpid()));
    out.append("\nThread: ");
    out.appendUnsigned(static_cast<unsigned long long>(syscall(SYS_gettid)));
    out.append('\n');
    writeRegisters(out, machineContext);
    writeBacktrace(out);
    out.append("Maps:\n");
    copyFile(out, "/proc/self/maps");
}

// The ring as Trace::dump writes it, behind the version line.
void writeTraceFile(int fd, const Context& context)
{
    {
        char room[128];
        TraceText out(room, sizeof room, writeAll, &fd);
        out.append("\xEF\xBB\xBFMajor Version: ");
        out.appendUnsigned(BREVI_VERSION_MAJOR);
        out.append(" Minor version: ");
        out.appendUnsigned(BREVI_VERSION_MINOR);
        out.append(" Build number: ");
        out.appendUnsigned(BREVI_VERSION_BUILD);
        out.append('\n');
    }
    char room[2048];
    writeRingText(fd, const_cast<Context&>(context).trace(), room, sizeof room);
}

// Only one thread writes at a time; a second that faults meanwhile waits its
// turn, sleeping, for a while, and then writes regardless.
std::atomic<bool> sbWriting{false};

struct WritingTurn {
    WritingTurn()
    {
        for (int tries = 0; tries < 1000 && sbWriting.exchange(true); ++tries) {
            const struct timespec pause = {0, 10 * 1000 * 1000};
            nanosleep(&pause, nullptr);
        }
    }
    ~WritingTurn() { sbWriting = false; }
};

} // namespace

CrashFrame::CrashFrame()
{
    std::call_once(soInstalled, installHandlers);
    takeUtcOffset();
    stack_t current;
    if (sigaltstack(nullptr, &current) == 0 && (current.ss_flags & SS_DISABLE)) {
        mpcStack.reset(new char[AlternateStackSize]);
        stack_t stack = {};
        stack.ss_sp = mpcStack.get();
        stack.ss_size = AlternateStackSize;
        mbOwnStack = sigaltstack(&stack, &moPrevious) == 0;
    }
}

CrashFrame::~CrashFrame()
{
    if (mbOwnStack) {
        stack_t disable = {};
        disable.ss_flags = SS_DISABLE;
        sigaltstack(&disable, nullptr);
    }
}

void Context::dump(int signal, const void* info, const void* machineContext)
{
    // Only the first fault of a process leaves a dump. The test is outside the
    // turn: two threads that fault together may both write one.
    if (sbHaveDumped)
        return;

    // The stem: <directory>/<title>-<version>-<time>-<pid>-<tid>, the title as
    // it stands.
    char path[4096];
    PathRoom room;
    size_t directoryEnd = 0;
    size_t stemEnd = 0;
    const Context* context = object();
    {
        TraceText text(path, sizeof path - 5, refusePath, &room);
        appendUtf16(text, FixedPath::runtime());
        text.append("/dump");
        directoryEnd = text.used();
        text.append('/');
        if (context)
            appendUtf16(text, context->title());
        else
            text.append("Unknown");
        text.append("-" BREVI_VERSION_TEXT "-");
        appendLocalTime(text);
        text.append('-');
        text.appendUnsigned(unsigned(getpid()));
        text.append('-');
        text.appendUnsigned(static_cast<unsigned long long>(syscall(SYS_gettid)));
        stemEnd = text.used();
        text.forget();
    }
    if (room.overflow)
        return;
    // The runtime directory, then its dump directory; either may be there.
    path[directoryEnd - 5] = '\0';
    ::mkdir(path, 0700);
    path[directoryEnd - 5] = '/';
    path[directoryEnd] = '\0';
    ::mkdir(path, 0700);
    path[directoryEnd] = '/';

    WritingTurn turn;
    std::memcpy(path + stemEnd, ".dmp", 5);
    const int dumpFd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (dumpFd >= 0) {
        writeDumpFile(dumpFd, signal, info, machineContext);
        ::close(dumpFd);
        sbHaveDumped = true;
    }

    // The trace is written even when the dump could not be: it is often
    // what tells most.
    if (!context)
        return;
    std::memcpy(path + stemEnd, ".tra", 5);
    const int traceFd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (traceFd < 0)
        return;
    writeTraceFile(traceFd, *context);
    ::close(traceFd);
}

} // namespace Brevi
