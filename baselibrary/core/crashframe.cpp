#include "core/crashframe_p.h"

#include "core/context.h"
#include "core/fixedpath.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QTextStream>

#define UNW_LOCAL_ONLY
#include <libunwind.h>

#include <exception>
#include <mutex>

#include <fcntl.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

namespace Brevi {

namespace {

const int FatalSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};
const size_t AlternateStackSize = 64 * 1024;

std::once_flag soInstalled;
std::mutex soDumpMutex;
volatile bool sbHaveDumped = false;
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

// A minimal writer for the dump: the handler runs after a fault, so it writes
// with plain system calls and no allocation where it can.
class DumpWriter
{
public:
    explicit DumpWriter(int fd)
        : miFd(fd)
    {}
    DumpWriter& operator<<(const char* text)
    {
        if (text)
            write(text, strlen(text));
        return *this;
    }
    DumpWriter& hex(unsigned long long value)
    {
        char digits[19] = "0x";
        for (int i = 0; i < 16; ++i)
            digits[2 + i] = "0123456789abcdef"[(value >> (60 - 4 * i)) & 0xF];
        write(digits, 18);
        return *this;
    }
    DumpWriter& decimal(long long value)
    {
        char digits[24];
        int at = 24;
        const bool negative = value < 0;
        unsigned long long magnitude = negative ? 0ull - static_cast<unsigned long long>(value) : value;
        do {
            digits[--at] = char('0' + magnitude % 10);
            magnitude /= 10;
        } while (magnitude);
        if (negative)
            digits[--at] = '-';
        write(digits + at, size_t(24 - at));
        return *this;
    }
    void write(const char* bytes, size_t n)
    {
        while (n) {
            const ssize_t written = ::write(miFd, bytes, n);
            if (written <= 0)
                return;
            bytes += written;
            n -= size_t(written);
        }
    }

private:
    int miFd;
};

void writeRegisters(DumpWriter& out, const void* machineContext)
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
    out << "Registers:\n";
    for (const auto& reg : registers) {
        out << "  " << reg.name << " ";
        out.hex(static_cast<unsigned long long>(r[reg.index])) << "\n";
    }
#else
    (void)out;
    (void)machineContext;
#endif
}

// Raw addresses stay beside the names so that addr2line can resolve them later.
void writeBacktrace(DumpWriter& out)
{
    out << "Backtrace:\n";
    unw_context_t context;
    unw_cursor_t cursor;
    if (unw_getcontext(&context) != 0 || unw_init_local(&cursor, &context) != 0)
        return;
    for (int frame = 0; frame < 64 && unw_step(&cursor) > 0; ++frame) {
        unw_word_t ip = 0;
        unw_get_reg(&cursor, UNW_REG_IP, &ip);
        char name[256];
        unw_word_t offset = 0;
        out << "  #";
        out.decimal(frame) << " ";
        out.hex(ip);
        if (unw_get_proc_name(&cursor, name, sizeof name, &offset) == 0) {
            out << " " << name << "+";
            out.hex(offset);
        }
        out << "\n";
    }
}

void copyFile(DumpWriter& out, const char* path)
{
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    char chunk[4096];
    ssize_t n;
    while ((n = ::read(fd, chunk, sizeof chunk)) > 0)
        out.write(chunk, size_t(n));
    ::close(fd);
}

void writeDumpFile(int fd, int signal, const void* info, const void* machineContext)
{
    DumpWriter out(fd);
    out << "Process dump of " << Context::baseName().toUtf8().constData() << "\n";
    out << "Version: " << Context::version().toUtf8().constData() << "\n";
    out << "Signal: ";
    out.decimal(signal) << " (" << strsignal(signal) << ")\n";
    if (info) {
        const siginfo_t* signalInfo = static_cast<const siginfo_t*>(info);
        out << "Code: ";
        out.decimal(signalInfo->si_code) << "\nAddress: ";
        out.hex(reinterpret_cast<unsigned long long>(signalInfo->si_addr)) << "\n";
    } else {
        out << "Cause: std::terminate\n";
    }
    out << "Process: ";
    out.decimal(getpid()) << "\nThread: ";
    out.decimal(syscall(SYS_gettid)) << "\n";
    writeRegisters(out, machineContext);
    writeBacktrace(out);
    out << "Maps:\n";
    copyFile(out, "/proc/self/maps");
}

} // namespace

CrashFrame::CrashFrame()
{
    std::call_once(soInstalled, installHandlers);
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
    // lock: two threads that fault together may both write one.
    if (sbHaveDumped)
        return;

    const QString directory = FixedPath::runtime() + "/dump";
    QDir().mkpath(directory);

    const Context* context = object();
    const QDateTime now = QDateTime::currentDateTime();
    const QString title = context ? context->title() : QStringLiteral("Unknown");
    const QString time = now.toString(QStringLiteral("yyyyMMdd-hhmmss"));
    const QString stem = QStringLiteral("%1/%2-%3-%4-%5-%6")
                             .arg(directory, title, version(), time)
                             .arg(getpid())
                             .arg(syscall(SYS_gettid));

    const QByteArray dumpName = QFile::encodeName(stem + ".dmp");
    const int fd = ::open(dumpName.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        return;
    {
        std::lock_guard<std::mutex> lock(soDumpMutex);
        writeDumpFile(fd, signal, info, machineContext);
        ::close(fd);
        sbHaveDumped = true;
    }

    if (!context)
        return;
    QFile file(stem + ".tra");
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return;
    QTextStream stream(&file);
    stream.setCodec("UTF-8");
    stream.setGenerateByteOrderMark(true);
    stream << "Major Version: " << BREVI_VERSION_MAJOR << " Minor version: " << BREVI_VERSION_MINOR
           << " Build number: " << BREVI_VERSION_BUILD << '\n';
    const_cast<Context*>(context)->trace().dump(stream, nullptr, nullptr, nullptr);
    stream.flush();
}

} // namespace Brevi
