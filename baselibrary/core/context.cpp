#include "core/context.h"

#include "core/crashframe_p.h"
#include "core/fixedpath.h"
#include "core/traceerrorcode.h"
#include "core/tracefilter.h"
#include "core/traceprofile.h"
#include "logging/log.h"
#include "messaging/messaging.h"
#include "messaging/msg.h"
#include "messaging/msgcatalogue.h"
#include "messaging/timer.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>

#include <boost/make_shared.hpp>
#include <boost/thread/thread.hpp>

#include <mutex>

#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleContext;

__thread Context* threadContext __attribute__((tls_model("initial-exec"))) = nullptr;

std::once_flag soOnce;
std::mutex soIdMutex;
unsigned suiNextId = 0;

const QString& emptyString()
{
    static const QString empty;
    return empty;
}

const MsgAddress& emptyAddress()
{
    static const MsgAddress empty;
    return empty;
}
} // namespace

QString Context::msBaseName;

QString Context::version()
{
    return QStringLiteral("%1.%2.%3").arg(BREVI_VERSION_MAJOR).arg(BREVI_VERSION_MINOR).arg(BREVI_VERSION_BUILD);
}

// ---------------------------------------------------------------------------
// Entry

bool Context::run(void (*function)(), Type type, unsigned flags, const QString& title, const QString& name,
                  const QString& group)
{
    CrashFrame frame;
    return doRun(function, type, flags, title, name, group);
}

bool Context::run(void (*function)(int&, int, char** const), int& result, int argc, char** const argv, Type type,
                  unsigned flags, const QString& title, const QString& name, const QString& group)
{
    CrashFrame frame;
    return doRun(function, result, argc, argv, type, flags, title, name, group);
}

bool Context::doRun(void (*function)(), Type type, unsigned flags, const QString& title, const QString& name,
                    const QString& group)
{
    Context context(type, flags, title, name, group);
    if (context.meType == TypeInvalid) {
        BTRACE(TraceDebug) << "Not launched";
        return false;
    }
    BTRACE(TraceDebug) << "Launched";
    function();
    BTRACE(TraceDebug) << "Finished";
    return true;
}

bool Context::doRun(void (*function)(int&, int, char** const), int& result, int argc, char** const argv, Type type,
                    unsigned flags, const QString& title, const QString& name, const QString& group)
{
    Context context(type, flags, title, name, group);
    if (context.meType == TypeInvalid) {
        BTRACE(TraceDebug) << "Not launched";
        return false;
    }
    BTRACE(TraceDebug) << "Launched";
    function(result, argc, argv);
    BTRACE(TraceDebug) << "Finished";
    return true;
}

// ---------------------------------------------------------------------------
// Construction

void Context::idInitialize()
{
    // The crypto library of this platform is thread-safe by itself: no locks
    // to set up for it.
    FixedPath::initialize();
    suiNextId = 1;
}

unsigned Context::getId()
{
    std::call_once(soOnce, idInitialize);
    std::lock_guard<std::mutex> lock(soIdMutex);
    return suiNextId++;
}

Context::Context(Type type, unsigned flags, const QString& title, const QString& name, const QString& group)
    : mpLog(new Log)
    , msTitle(title)
    , muiFlags(flags)
{
    muiId = getId();
    if (FixedPath::home().isEmpty()) {
        // No home, no trace file and no messaging: the process cannot run.
        traceAddress();
        return;
    }

    msName = name;
    msGroup = group;
    if (muiId == 1) {
        if (flags & FlagUseEnvironment) {
            const QString environmentTitle = FixedPath::environment("BREVI_CONTEXT_TITLE");
            if (!environmentTitle.isEmpty())
                msTitle = environmentTitle;
            if (msName.isEmpty()) {
                msName = FixedPath::environment("BREVI_CONTEXT_NAME");
                if (!msName.isEmpty())
                    msGroup = FixedPath::environment("BREVI_CONTEXT_GROUP");
            }
        }
        msBaseName = msTitle + ' ';
    }

    meType = type;
    moAddress = moPhysicalAddress = MsgAddress(eMsgAddressContext, muiId);
    setTrace(msTitle);
    initialize();

    switch (type) {
    case TypeInvalid:
    case TypeAdopted:
        meType = TypeInvalid;
        break;
    case TypeStandalone:
        mptMessaging = createStandaloneMessaging();
        if (!mptMessaging) {
            BTRACE(TraceAlways) << "Failed to initialize standalone messaging";
            meType = TypeInvalid;
        }
        break;
    case TypeAttached:
    case TypeMonitored:
        attach(type, flags);
        break;
    default:
        // Deliberately kept: a type above the known ones is valid and runs
        // without messaging.
        break;
    }
    traceAddress();
}

Context::Context(const MsgAddress& address, const SharedMemoryId& traceBuffer, const QString& title)
    : meType(TypeAdopted)
    , moAddress(address)
    , moPhysicalAddress(address)
    , mpLog(new Log)
    , moMachineName(address.machine())
    , msTitle(title)
{
    muiId = address.id();
    std::call_once(soOnce, idInitialize);
    if (FixedPath::home().isEmpty()) {
        meType = TypeInvalid;
    } else {
        msTitle += QDateTime::currentDateTime().toString(QStringLiteral("yyMMddhhmmss"));
        setTrace(msTitle);
        initialize();
        SharedMemoryUser buffer(traceBuffer);
        if (!buffer) {
            BTRACE(TraceAlways) << "Invalid Trace buffer";
        } else {
            BTRACE(TraceNormal) << "Trace to a" << buffer.size() << "buffer at"
                                << static_cast<const void*>(buffer.address());
            moTraceBuffer = buffer;
            moTrace.initializeBuffer(buffer.address(), buffer.size(), true);
        }
    }
    BTRACE(TraceAlways) << "Address is" << moAddress;
}

void Context::traceAddress() { BTRACE(TraceAlways) << "Address is" << moAddress << moPhysicalAddress << int(meType); }

Context::~Context()
{
    if (muiId == 1) {
        // The timer thread has a context of its own that talks to this
        // process's contexts: it goes before the messaging it relies on.
        BTRACE(TraceNormal) << "Shutdown any timer";
        Timer::shutdown();
    }
    if (mptMessaging) {
        // On this thread, while it is still this context's: only the owner
        // may release.
        mptMessaging->release();
        mptMessaging.reset();
    }
    BTRACE(TraceNormal) << "Disable trace";
    moTrace.disable();
    if (Trace::object() == &moTrace)
        Trace::object(nullptr);
    if (threadContext == this)
        threadContext = nullptr;
    delete mpLog;
}

boost::shared_ptr<Messaging> Context::createStandaloneMessaging()
{
    boost::shared_ptr<Messaging> messaging = boost::make_shared<Messaging>(muiId);
    return messaging->valid() ? messaging : boost::shared_ptr<Messaging>();
}

void Context::attach(Type type, unsigned flags)
{
    // A monitored process is never waited for and never reports ready.
    const unsigned attachFlags =
        type == TypeMonitored ? flags & ~(FlagNotifyReady | FlagWaitForDisconnect | FlagWaitForEndOfDay) : flags;
    const boost::shared_ptr<Messaging> attached = createAttachedMessaging(type, attachFlags);
    if (!attached || !attached->valid()) {
        BTRACE(TraceAlways) << "Failed to attach to Hub";
        meType = TypeInvalid;
        return;
    }
    moAddress = attached->address();
    moPhysicalAddress = attached->physicalAddress();
    moParentAddress = attached->parentAddress();
    if (!(flags & FlagNoTraceBuffer) && !getTraceBuffer(*attached)) {
        attached->release();
        return;
    }
    if (!attached->enableConnection()) {
        attached->release();
        meType = TypeInvalid;
        return;
    }
    if (type == TypeAttached) {
        mptMessaging = attached;
        return;
    }
    // Registered and given its trace buffer: from here on it talks only
    // inside the process. The parent address keeps what the Hub said.
    attached->release();
    moAddress = moPhysicalAddress = MsgAddress(eMsgAddressContext, muiId);
    mptMessaging = createStandaloneMessaging();
    if (!mptMessaging) {
        BTRACE(TraceAlways) << "Failed to initialize standalone messaging";
        meType = TypeInvalid;
    }
}

bool Context::getTraceBuffer(Messaging& messaging)
{
    const MsgAddress hubManager(eMsgAddressHub, eWellKnownHubManager);
    if (!messaging.send(Msg(hubManager, Catalogue::HubMgrTraceBufferRequest::Message))) {
        BTRACE(TraceAlways) << "Failed to send trace buffer request to the Hub";
        meType = TypeInvalid;
        return false;
    }
    IpcResult result = eIpcResultOk;
    const Msg reply = messaging.receive(result, -1);
    if (!reply) {
        BTRACE(TraceAlways) << "Failed to receive trace buffer reply  from the Hub" << int(reply.lastError());
        meType = TypeInvalid;
        return false;
    }
    const MsgAddress expected(eWellKnownHubManager);
    if (reply.name() != Catalogue::HubMgrTraceBufferReply::Message || reply.source() != expected) {
        BTRACE(TraceAlways) << "Incorrect reply, wanted" << Catalogue::HubMgrTraceBufferReply::Message << "from"
                            << expected << "got" << reply.name() << "from" << reply.source();
        meType = TypeInvalid;
        return false;
    }
    const SharedMemoryId id(reply.body(), Catalogue::HubMgrTraceBufferReply::Id);
    if (!id) {
        BTRACE(TraceAlways) << "No trace buffer id supplied, keep going";
        return true;
    }
    SharedMemoryUser buffer(id);
    if (!buffer) {
        BTRACE(TraceAlways) << "Invalid Trace buffer supplied, keep going";
        return true;
    }
    BTRACE(TraceNormal) << "Trace to a" << buffer.size() << "buffer at" << static_cast<const void*>(buffer.address());
    moTraceBuffer = buffer;
    // The Hub and the process now share the buffer: the Hub reads the trace
    // after a death and sets the levels while it lives. The levels set so
    // far stay.
    TraceFilter filter;
    Trace::getFilter(filter);
    moTrace.initializeBuffer(buffer.address(), buffer.size(), true);
    Trace::setFilter(filter);
    return true;
}

boost::shared_ptr<Messaging> Context::createAttachedMessaging(Type type, unsigned flags)
{
    // The machine name member is filled in by the attach reply.
    boost::shared_ptr<Messaging> messaging =
        boost::make_shared<Messaging>(moMachineName, muiId, type, flags, msTitle, msGroup, msName);
    return messaging->valid() ? messaging : boost::shared_ptr<Messaging>();
}

void Context::initialize()
{
    threadContext = this;
    // What this process creates for others is readable and writable by its
    // owner; root can always open it.
    moSecurity.nLength = sizeof(SecurityAttributes);
    moSecurity.mode = S_IRUSR | S_IWUSR;
    moSecurity.inheritHandle = false;
}

void Context::setTrace(const QString& title)
{
    const TraceProfile profile = TraceProfile::read(FixedPath::config() + "/profile.cfg");
    if (profile.level != TraceLevelNone)
        Trace::setFilter(TraceFilter(profile.level));
    if (profile.traceToFile)
        setTraceFile(title, profile.linesPerFile, profile.filesToKeep);
}

void Context::setTraceFile(const QString& title, unsigned linesPerFile, unsigned filesToKeep)
{
    const QString directory = FixedPath::trace();
    QString name = title.toLower().replace(' ', '-');

    const QFileInfo info(directory);
    if (info.exists() && !info.isDir())
        QFile::remove(directory);
    QDir().mkpath(directory);

    if (meType == TypeAdopted)
        return;

    name += '-' + QString::number(OSPid());
    if (muiId != 1)
        name += '-' + QString::number(muiId);
    const QString path = QDir(directory).absoluteFilePath(crunchName(name));
    if (!moTrace.file(path, linesPerFile, filesToKeep, TraceFileText))
        BTRACE(TraceAlways) << "Cannot open trace file" << path << TraceErrorCode(errno);
}

// ---------------------------------------------------------------------------
// Static members for the calling thread

Context* Context::object() { return threadContext; }

bool Context::isValid() { return threadContext && threadContext->meType != TypeInvalid; }

Context::Type Context::type() { return threadContext ? threadContext->meType : TypeInvalid; }

unsigned Context::id() { return threadContext ? threadContext->muiId : 0; }

unsigned Context::OSPid() { return unsigned(getpid()); }

unsigned Context::uniqueId() { return threadContext ? ++threadContext->muiUniqueId : 0; }

const QString& Context::baseName() { return msBaseName; }

SecurityAttributes* Context::security() { return threadContext ? &threadContext->moSecurity : nullptr; }

Log* Context::logging() { return threadContext ? threadContext->mpLog : nullptr; }

boost::shared_ptr<Messaging> Context::messaging()
{
    return threadContext ? threadContext->mptMessaging : boost::shared_ptr<Messaging>();
}

// ---------------------------------------------------------------------------
// The thread's messaging, for the messaging classes

Messaging* Context::messagingObject() { return threadContext ? threadContext->mptMessaging.get() : nullptr; }

bool Context::msgSend(const Msg& message, bool flush)
{
    Messaging* messaging = messagingObject();
    return messaging && messaging->send(message, flush);
}

bool Context::msgSendOnce(const Msg& message)
{
    Messaging* messaging = messagingObject();
    return messaging && messaging->sendOnce(message);
}

bool Context::msgFlush()
{
    Messaging* messaging = messagingObject();
    IpcResult result = eIpcResultOk;
    return messaging && messaging->flush(result);
}

Msg Context::msgReceive(IpcResult& result, qint64 ms)
{
    Messaging* messaging = messagingObject();
    if (!messaging) {
        result = eIpcResultClosed;
        return Msg::invalid(eMsgResultIpcError);
    }
    return messaging->receive(result, ms);
}

int Context::msgSocket()
{
    Messaging* messaging = messagingObject();
    return messaging ? messaging->socket() : -1;
}

bool Context::msgAddAuthorization(const QString& name, const Authorization& authorization)
{
    Messaging* messaging = messagingObject();
    return messaging && messaging->addAuthorization(name, authorization);
}

bool Context::msgRemoveAuthorization(const QString& name, const Authorization& authorization)
{
    Messaging* messaging = messagingObject();
    return messaging && messaging->removeAuthorization(name, authorization);
}

bool Context::msgHandlerAdd(const QString& name, const MsgHandlerPointer& handler)
{
    Messaging* messaging = messagingObject();
    return messaging && messaging->addWaitHandler(name, QByteArray(), handler);
}

bool Context::msgHandlerAdd(const QString& name, const QByteArray& authorization, const MsgHandlerPointer& handler)
{
    Messaging* messaging = messagingObject();
    return messaging && messaging->addWaitHandler(name, authorization, handler);
}

bool Context::msgHandlerRemove(const QString& name, const MsgHandlerPointer& handler)
{
    Messaging* messaging = messagingObject();
    return messaging && messaging->removeWaitHandler(name, handler);
}

bool Context::msgSetUI()
{
    Messaging* messaging = messagingObject();
    if (!messaging)
        return false;
    messaging->setUI();
    return true;
}

QList<MsgHandlerListEntry> Context::msgHandlers(const Msg& message)
{
    Messaging* messaging = messagingObject();
    return messaging ? messaging->waitHandlers(message) : QList<MsgHandlerListEntry>();
}

const MsgAddress& Context::address() { return threadContext ? threadContext->moAddress : emptyAddress(); }

const MsgAddress& Context::physicalAddress()
{
    return threadContext ? threadContext->moPhysicalAddress : emptyAddress();
}

const MsgAddress& Context::parentAddress() { return threadContext ? threadContext->moParentAddress : emptyAddress(); }

const MachineName& Context::machineName()
{
    static const MachineName empty;
    return threadContext ? threadContext->moMachineName : empty;
}

QString Context::temporaryFileName()
{
    if (!threadContext)
        return emptyString();
    const unsigned counter = ++threadContext->muiTemporaryFile;
    return QStringLiteral("%1/%2_%3_%4")
        .arg(FixedPath::tmp())
        .arg(OSPid(), 5, 10, QLatin1Char('0'))
        .arg(threadContext->muiId, 3, 10, QLatin1Char('0'))
        .arg(counter, 4, 10, QLatin1Char('0'));
}

unsigned long long Context::systemTime()
{
    timespec now;
    if (clock_gettime(CLOCK_REALTIME, &now) != 0 || now.tv_sec < 0)
        return 0;
    return static_cast<unsigned long long>(now.tv_sec) * 1000ull +
           static_cast<unsigned long long>(now.tv_nsec) / 1000000ull;
}

void Context::sleep(unsigned long long milliseconds)
{
    boost::this_thread::sleep_for(boost::chrono::milliseconds(milliseconds));
}

QString Context::crunchName(const QString& name)
{
    static const QString unsafe = QStringLiteral("/?<>\\:*|^");
    QString result = name;
    for (const QChar c : unsafe)
        if (result.contains(c))
            result.replace(c, '_' + QString::number(c.unicode(), 16) + '_');
    return result;
}

void Context::traceHandles(TraceLevelE level)
{
    if (threadContext)
        BREVI_TRACE(TraceModuleContext, level) << "traceHandle not implimented for windows";
}

} // namespace Brevi
