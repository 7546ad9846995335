#include "core/sharedmemory_p.h"

#include "core/context.h"
#include "core/sharedmemoryprovider.h"
#include "core/sharedmemoryuser.h"
#include "core/traceerrorcode.h"

#include <QHash>

#include <boost/make_shared.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <boost/weak_ptr.hpp>

#include <cerrno>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Brevi {

namespace {

const unsigned TraceModule = TraceModuleSharedMemory;

// Guards the name prefix and the counter of attempts.
boost::mutex soPrefixMutex;
QString ssPrefix;
unsigned suiCounter = 0;

// Guards the table of live mappings and the locked allowance. Recursive,
// because the last reference to a mapping may go while the table is locked,
// and its deleter locks the table too.
boost::recursive_mutex soTableMutex;
QHash<QString, boost::weak_ptr<SharedMemory>> soTable;
unsigned long long sullLockedAllowance = 0;

// The object's name for shm_open: the mapping name as it stands, behind a '/'.
QByteArray objectName(const QString& name) { return QFile::encodeName('/' + name); }

} // namespace

// ---------------------------------------------------------------------------
// The shared mapping

SharedMemory::SharedMemory(unsigned char* address, unsigned size, const QString& name)
    : mpucAddress(address)
    , muiSize(size)
    , msName(name)
{}

SharedMemory::~SharedMemory()
{
    if (mbLocked)
        unlock();
    munmap(mpucAddress, muiSize);
}

unsigned long long SharedMemory::lockedAllowance()
{
    boost::recursive_mutex::scoped_lock lock(soTableMutex);
    return sullLockedAllowance;
}

// Called under the table's mutex.
bool SharedMemory::lock()
{
    if (!mpucAddress || muiSize == 0 || mbLocked)
        return mbLocked;
    // A user without the right to lock memory beyond a small limit is refused:
    // that is a normal outcome, and the pages simply stay unlocked.
    if (mlock(mpucAddress, muiSize) != 0) {
        BTRACE(TraceVerbose) << "Pages of" << msName << "not locked" << TraceErrorCode(errno);
        return false;
    }
    mbLocked = true;
    sullLockedAllowance += lockAllowance(muiSize);
    return true;
}

void SharedMemory::unlock()
{
    munlock(mpucAddress, muiSize);
    mbLocked = false;
    sullLockedAllowance -= lockAllowance(muiSize);
}

boost::shared_ptr<SharedMemory> SharedMemory::attach(const SharedMemoryId& id, bool lockPages)
{
    if (!id.isValid())
        return boost::shared_ptr<SharedMemory>();

    boost::recursive_mutex::scoped_lock lock(soTableMutex);
    boost::shared_ptr<SharedMemory> memory = soTable.value(id.id()).lock();
    if (!memory) {
        const int fd = shm_open(objectName(id.id()).constData(), O_RDWR | O_CLOEXEC, 0);
        if (fd < 0) {
            BTRACE(TraceAlways) << "Failed to open" << id.size() << "byte mapped file" << id.id()
                                << TraceErrorCode(errno);
            return memory;
        }
        void* address = mmap(nullptr, id.size(), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        const int error = errno;
        struct stat status;
        const bool tooSmall = fstat(fd, &status) == 0 && static_cast<unsigned long long>(status.st_size) < id.size();
        close(fd);
        if (address == MAP_FAILED || tooSmall) {
            // A window past the object's end would fault on first use.
            if (address != MAP_FAILED)
                munmap(address, id.size());
            BTRACE(TraceAlways) << "Failed to map view of file" << id.id() << TraceErrorCode(tooSmall ? EINVAL : error);
            return memory;
        }
        const QString name = id.id();
        memory.reset(new SharedMemory(static_cast<unsigned char*>(address), id.size(), name), [name](SharedMemory* p) {
            // The table's entry goes with the mapping, under the same lock, so
            // that no attach can find a mapping on its way out.
            boost::recursive_mutex::scoped_lock lock(soTableMutex);
            const auto entry = soTable.constFind(name);
            if (entry != soTable.constEnd() && entry.value().expired())
                soTable.erase(entry);
            delete p;
        });
        soTable.insert(name, memory);
    } else if (memory->size() < id.windowOffset() + id.windowSize()) {
        BTRACE(TraceAlways) << "Failed to map view of file" << id.id() << TraceErrorCode(EINVAL);
        return boost::shared_ptr<SharedMemory>();
    }
    if (lockPages)
        memory->lock();
    return memory;
}

// ---------------------------------------------------------------------------
// SharedMemoryUser

struct SharedMemoryUser::Data {
    boost::shared_ptr<SharedMemory> memory;
    unsigned char* address = nullptr;
    unsigned size = 0;
};

SharedMemoryUser::SharedMemoryUser()
    : mptData(boost::make_shared<Data>())
{}

SharedMemoryUser::SharedMemoryUser(const SharedMemoryId& id, bool lockPages)
    : mptData(boost::make_shared<Data>())
{
    if (!id.isValid())
        return;
    mptData->memory = SharedMemory::attach(id, lockPages);
    if (!mptData->memory) {
        BTRACE(TraceAlways) << "Failed to attach to shared memory";
        return;
    }
    mptData->address = mptData->memory->address() + id.windowOffset();
    mptData->size = id.windowSize();
}

unsigned char* SharedMemoryUser::address() const { return mptData->address; }
unsigned SharedMemoryUser::size() const { return mptData->size; }
bool SharedMemoryUser::locked() const { return mptData->memory && mptData->memory->locked(); }
unsigned long long SharedMemoryUser::lockAllowance(unsigned size) { return SharedMemory::lockAllowance(size); }
unsigned long long SharedMemoryUser::lockedAllowance() { return SharedMemory::lockedAllowance(); }

// ---------------------------------------------------------------------------
// SharedMemoryProvider

struct SharedMemoryProvider::Data {
    ~Data() { release(); }
    void release()
    {
        if (!name.isEmpty())
            shm_unlink(objectName(name).constData());
        name.clear();
        id = SharedMemoryId();
    }

    QString name;
    SharedMemoryId id;
};

bool SharedMemoryProvider::initialize(const QString& name)
{
    boost::mutex::scoped_lock lock(soPrefixMutex);
    if (ssPrefix.isEmpty())
        ssPrefix = nameBase() + (name.isEmpty() ? QString::number(getpid()) : name);
    return !ssPrefix.isEmpty();
}

QString SharedMemoryProvider::nameBase() { return QStringLiteral("Global\\Brevi Shared Memory Buffer for "); }

QString SharedMemoryProvider::namePrefix()
{
    boost::mutex::scoped_lock lock(soPrefixMutex);
    return ssPrefix;
}

SharedMemoryProvider::SharedMemoryProvider()
    : mptData(boost::make_shared<Data>())
{}

SharedMemoryProvider::SharedMemoryProvider(unsigned size)
    : mptData(boost::make_shared<Data>())
{
    allocate(size);
}

bool SharedMemoryProvider::allocate(unsigned size)
{
    if (!initialize(QString())) {
        BTRACE(TraceAlways) << "Shared memory has not been initialized";
        return false;
    }
    mptData->release();
    // A mapping of nothing would be an id that tests false: the system's own
    // call refuses a size of 0 as well.
    if (size == 0) {
        BTRACE(TraceAlways) << "Failed to create" << size << "byte mapped file" << TraceErrorCode(EINVAL);
        return false;
    }

    QString name;
    for (int attempt = 0; attempt < 2; ++attempt) {
        {
            boost::mutex::scoped_lock lock(soPrefixMutex);
            name = ssPrefix + ' ' + QString::number(++suiCounter);
        }
        const QByteArray object = objectName(name);
        const SecurityAttributes* security = Context::security();
        const int fd = shm_open(object.constData(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC,
                                security ? mode_t(security->mode) : mode_t(0600));
        if (fd < 0 && errno == EEXIST) {
            BTRACE(TraceAlways) << "Mapping of " << name << "already exists";
            // Sharing a mapping by accident would be worse than failing. Only a
            // name of this process's own id is known to be stale: it was left
            // by an earlier process of the same id that was killed, so it is
            // removed and the next name tried once.
            if (attempt > 0 || !namePrefix().endsWith(' ' + QString::number(getpid())))
                return false;
            shm_unlink(object.constData());
            continue;
        }
        if (fd < 0 || ftruncate(fd, off_t(size)) != 0) {
            const int error = errno;
            if (fd >= 0) {
                close(fd);
                shm_unlink(object.constData());
            }
            BTRACE(TraceAlways) << "Failed to create" << size << "byte mapped file" << name << TraceErrorCode(error);
            return false;
        }
        close(fd);
        mptData->name = name;
        mptData->id = SharedMemoryId(name, size);
        return true;
    }
    return false;
}

SharedMemoryId SharedMemoryProvider::id() const { return mptData->id; }

void SharedMemoryProvider::release() { mptData->release(); }

void SharedMemoryProvider::remove(const SharedMemoryId& id)
{
    if (id.isValid())
        shm_unlink(objectName(id.id()).constData());
}

SharedMemoryProvider::operator OperatorBoolGenerator<SharedMemoryProvider>::Result() const
{
    return OperatorBoolGenerator<SharedMemoryProvider>::make(!mptData->name.isEmpty());
}

} // namespace Brevi
