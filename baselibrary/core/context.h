#ifndef BASELIBRARY_CORE_CONTEXT_H
#define BASELIBRARY_CORE_CONTEXT_H

#include "brevi_export.h"
#include "core/machinename.h"
#include "core/operatorboolgenerator.h"
#include "core/sharedmemoryuser.h"
#include "core/trace.h"
#include "messaging/ipcresult.h"
#include "messaging/msgaddress.h"
#include "messaging/msghandlerlistentry.h"

#include <QList>
#include <QString>

#include <boost/shared_ptr.hpp>

namespace Brevi {

class Authorization;
class Log;
class ManageMsgHandlers;
class Messaging;
class Msg;
class MsgHandler;
class MsgHandlerStandalone;
class MsgPending;

// Attributes given to what a process creates for others to open (shared
// memory, semaphores, files): owner read and write; root can always open them.
struct SecurityAttributes {
    unsigned nLength = 0;
    unsigned mode = 0;
    bool inheritHandle = false;
};

// The frame every process, and every thread that talks to other contexts, runs
// inside.
//
// A program hands its function to Context::run, which builds a Context on its
// own stack: an id (the first context of a process has id 1), a title, the
// directory tree, tracing from "profile.cfg", messaging of the asked type; then
// it calls the function under the crash frame, and takes everything down in a
// fixed order. A fatal signal or std::terminate leaves runtime/dump/<title>-
// <version>-<time>-<pid>-<tid>.dmp and, on a thread with a context, a .tra with
// the text of its trace ring; the process then ends by the same signal.
//
// Types 3 (attached) and 4 (monitored) connect to the local Hub (port
// BREVI_HUB_PORT, or 30303), retrying for up to two minutes (one attempt with
// FlagAttachOnce), and trace into a buffer the Hub gives them (unless
// FlagNoTraceBuffer), so that the Hub can read it after the process's death.
// A monitored process then drops the link and runs on standalone messaging.
// Without a Hub they do not come up.
//
// All code reaches identity, trace and messaging through the static members,
// which look up the calling thread's context. A thread without one gets neutral
// answers (0, empty, null), not a failure.
class BREVI_EXPORT Context
{
public:
    enum Type {
        TypeInvalid = 0,
        // No Hub; messaging inside the process only.
        TypeStandalone = 1,
        // Only from the constructor for a given address; trace to a given buffer.
        TypeAdopted = 2,
        TypeAttached = 3,
        // Registered with the Hub, then runs on standalone messaging.
        TypeMonitored = 4
        // Any higher value is kept as given: a valid context with no messaging.
    };

    enum Flags : unsigned {
        FlagDoNotWaitAtStartOfDay = 0x01,
        FlagNotifyReady = 0x02,
        FlagWaitForDisconnect = 0x04,
        // The first context of the process takes title, name and group from
        // BREVI_CONTEXT_TITLE, BREVI_CONTEXT_NAME and BREVI_CONTEXT_GROUP.
        FlagUseEnvironment = 0x08,
        FlagAttachOnce = 0x10,
        FlagWaitForEndOfDay = 0x20,
        FlagPersistent = 0x40,
        // Attach without a shared trace buffer: the trace stays in the
        // process's own ring, and the Hub keeps nothing of the process once
        // it has ended. For short runs nobody will look at after their end
        // (tools), which would otherwise push out the kept trace of a process
        // that an operator does want to read.
        FlagNoTraceBuffer = 0x80
    };

    // True when the function was called.
    static bool run(void (*function)(), Type type, unsigned flags, const QString& title,
                    const QString& name = QString(), const QString& group = QString());
    static bool run(void (*function)(int& result, int argc, char** const argv), int& result, int argc,
                    char** const argv, Type type, unsigned flags, const QString& title, const QString& name = QString(),
                    const QString& group = QString());

    // The calling thread's context, or null.
    static Context* object();

    static bool isValid();
    static Type type();
    static unsigned id();
    static unsigned OSPid();
    // The first call on a context gives 1.
    static unsigned uniqueId();
    // The first context's title and a blank.
    static const QString& baseName();
    static SecurityAttributes* security();
    // "<tmp>/<pid:5>_<context:3>_<counter:4>"; no file is created.
    static QString temporaryFileName();
    // Milliseconds since 1970-01-01 00:00 UTC; 0 before that.
    static unsigned long long systemTime();
    // An interruption point for boost::thread.
    static void sleep(unsigned long long milliseconds);
    // Makes a name safe for a file: each of / ? < > \ : * | ^ becomes _<hex>_.
    static QString crunchName(const QString& name);
    static void traceHandles(TraceLevelE level);
    // The messaging object of the thread's context; empty until messaging is up.
    static boost::shared_ptr<Messaging> messaging();
    // The address by which others reach this context, the address of the
    // process that started it (from the Hub), and the machine's name (from the
    // Hub's attach reply); empty values on a thread without a context.
    static const MsgAddress& address();
    static const MsgAddress& parentAddress();
    static const MachineName& machineName();
    // The context's operator log; null on a thread without a context.
    static Log* logging();

    const QString& title() const { return msTitle; }
    const QString& name() const { return msName; }
    const QString& group() const { return msGroup; }
    unsigned flags() const { return muiFlags; }
    Trace& trace() { return moTrace; }

    operator OperatorBoolGenerator<Context>::Result() const
    {
        return OperatorBoolGenerator<Context>::make(meType != TypeInvalid);
    }

    // Version of the build, as dumps and trace files name it.
    static QString version();

    // Writes the crash dump of the calling thread; what the crash frame calls.
    // `signal` is the fatal signal, `info` and `machineContext` what the
    // handler got (both may be null). Only the first call of a process writes.
    static void dump(int signal, const void* info, const void* machineContext);

    // A context that traces into a buffer someone else supplies (type 2,
    // adopted): no messaging and no trace file. The title gets the local time
    // "yyMMddhhmmss" appended. The thread's context until destroyed.
    Context(const MsgAddress& address, const SharedMemoryId& traceBuffer, const QString& title);
    ~Context();
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

private:
    // The messaging classes reach the thread's Messaging through these.
    friend class ManageMsgHandlers;
    friend class Messaging;
    friend class Msg;
    friend class MsgHandler;
    friend class MsgHandlerStandalone;
    friend class MsgPending;

    // The thread's Messaging without taking a reference; null without one.
    static Messaging* messagingObject();
    // Each forwards to the thread's Messaging; without one the answer is
    // false, the invalid Msg (eMsgResultIpcError), an empty list or -1.
    static bool msgSend(const Msg& message, bool flush);
    static bool msgSendOnce(const Msg& message);
    static bool msgFlush();
    static Msg msgReceive(IpcResult& result, qint64 ms);
    static int msgSocket();
    static bool msgAddAuthorization(const QString& name, const Authorization& authorization);
    static bool msgRemoveAuthorization(const QString& name, const Authorization& authorization);
    static bool msgHandlerAdd(const QString& name, const MsgHandlerPointer& handler);
    static bool msgHandlerAdd(const QString& name, const QByteArray& authorization, const MsgHandlerPointer& handler);
    static bool msgHandlerRemove(const QString& name, const MsgHandlerPointer& handler);
    static bool msgSetUI();
    static QList<MsgHandlerListEntry> msgHandlers(const Msg& message);

    // Built by doRun, and by the library's own worker threads.
    Context(Type type, unsigned flags, const QString& title, const QString& name, const QString& group);

    static unsigned getId();
    static void idInitialize();
    static bool doRun(void (*function)(), Type type, unsigned flags, const QString& title, const QString& name,
                      const QString& group);
    static bool doRun(void (*function)(int&, int, char** const), int& result, int argc, char** const argv, Type type,
                      unsigned flags, const QString& title, const QString& name, const QString& group);

    void initialize();
    void traceAddress();
    // The address by which the Hub knows this process's link; messaging's own.
    static const MsgAddress& physicalAddress();
    void setTrace(const QString& title);
    void setTraceFile(const QString& title, unsigned linesPerFile, unsigned filesToKeep);
    // The messaging objects this context can have; empty when they do not
    // come up (for the attached one: no Hub, or the attach failed).
    boost::shared_ptr<Messaging> createStandaloneMessaging();
    boost::shared_ptr<Messaging> createAttachedMessaging(Type type, unsigned flags);
    // Types 3 and 4: attach to the Hub, take its trace buffer, have the
    // connection enabled; a monitored context then goes on standalone.
    void attach(Type type, unsigned flags);
    // Asks the Hub for the shared trace buffer and traces into it; false,
    // with the type 0, when the exchange fails. A missing or unusable buffer
    // is no failure: the private one goes on.
    bool getTraceBuffer(Messaging& messaging);

    unsigned muiId = 0;
    Type meType = TypeInvalid;
    Trace moTrace;
    SharedMemoryUser moTraceBuffer;
    MsgAddress moAddress;
    MsgAddress moPhysicalAddress;
    MsgAddress moParentAddress;
    boost::shared_ptr<Messaging> mptMessaging;
    unsigned muiUniqueId = 0;
    unsigned muiTemporaryFile = 0;
    Log* mpLog = nullptr;
    SecurityAttributes moSecurity;
    MachineName moMachineName;
    QString msTitle;
    QString msName;
    QString msGroup;
    unsigned muiFlags = 0;

    static QString msBaseName;
};

} // namespace Brevi

#endif
