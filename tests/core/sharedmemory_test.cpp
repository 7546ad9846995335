// Shared memory between processes: ids and their windows, the XmlList form,
// one mapping per name in a process, and a real second process.

#include "core/sharedmemoryid.h"
#include "core/sharedmemoryprovider.h"
#include "core/sharedmemoryuser.h"
#include "core/trace.h"
#include "core/xmllist.h"

#include "tracelines.h"

#include <gtest/gtest.h>

#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Brevi;
using BreviTest::ringTexts;

TEST(SharedMemoryId, ValidityAndWindows)
{
    EXPECT_FALSE(SharedMemoryId());
    EXPECT_FALSE(SharedMemoryId("", 10));
    EXPECT_FALSE(SharedMemoryId("x", 0));
    EXPECT_TRUE(SharedMemoryId("x", 0).toXml().isEmpty());

    SharedMemoryId id("x", 15);
    ASSERT_TRUE(id);
    EXPECT_EQ(id.windowSize(), 15u);
    SharedMemoryId copy = id;
    EXPECT_TRUE(copy.setWindow(10, 5));
    EXPECT_FALSE(copy.setWindow(15, 0));
    EXPECT_FALSE(copy.setWindow(10, 6));
    EXPECT_EQ(copy.windowOffset(), 10u) << "a refused window changes nothing";
    EXPECT_EQ(copy.windowSize(), 5u);
    EXPECT_EQ(id.windowOffset(), 0u) << "the source keeps its window";
    EXPECT_EQ(id.windowSize(), 15u);
}

TEST(SharedMemoryId, XmlFormRoundTripsAndBadFormsStayInvalid)
{
    SharedMemoryId whole("Global\\name 1", 4096);
    XmlList body;
    body.set("Id", whole.toXml(), XmlList::SetCreate);
    EXPECT_EQ(whole.toXml().size(), 3) << "a full window adds no keys";
    const SharedMemoryId back(body, "Id");
    EXPECT_EQ(back.id(), whole.id());
    EXPECT_EQ(back.size(), 4096u);
    EXPECT_EQ(back.windowSize(), 4096u);

    SharedMemoryId window = whole;
    ASSERT_TRUE(window.setWindow(1024, 512));
    body.set("Window", window.toXml(), XmlList::SetCreate);
    const SharedMemoryId windowBack(body, "Window");
    EXPECT_EQ(windowBack.windowOffset(), 1024u);
    EXPECT_EQ(windowBack.windowSize(), 512u);

    // Each bad form is a good one with one thing changed.
    const auto make = [](const char* object, unsigned size, const char* id, int offset, int windowSize) {
        XmlList nested;
        nested.set("BreviObjectName", QString(object), XmlList::SetCreate);
        nested.set("Size", size, XmlList::SetCreate);
        nested.set("Id", QString(id), XmlList::SetCreate);
        if (offset >= 0)
            nested.set("WindowOffset", unsigned(offset), XmlList::SetCreate);
        if (windowSize >= 0)
            nested.set("WindowSize", unsigned(windowSize), XmlList::SetCreate);
        XmlList body;
        body.set("Id", nested, XmlList::SetCreate);
        return SharedMemoryId(body, "Id");
    };
    EXPECT_TRUE(make("SharedMemoryId", 100, "n", -1, -1));
    EXPECT_FALSE(make("SharedMemoryID", 100, "n", -1, -1));
    EXPECT_FALSE(make("SharedMemoryId", 0, "n", -1, -1));
    EXPECT_FALSE(make("SharedMemoryId", 100, "", -1, -1));
    EXPECT_FALSE(make("SharedMemoryId", 100, "n", 100, -1));
    EXPECT_FALSE(make("SharedMemoryId", 100, "n", 50, 51));
    EXPECT_TRUE(make("SharedMemoryId", 100, "n", 50, 50));
    EXPECT_FALSE(SharedMemoryId(XmlList(), "Id"));
}

TEST(SharedMemory, UsersOfOneNameShareOneMapping)
{
    Trace trace;
    SharedMemoryProvider provider(8192);
    ASSERT_TRUE(provider);
    EXPECT_TRUE(
        provider.id().id().startsWith("Global\\Brevi Shared Memory Buffer for " + QString::number(getpid()) + " "));

    SharedMemoryId window = provider.id();
    ASSERT_TRUE(window.setWindow(4096, 100));
    SharedMemoryUser whole(provider.id());
    SharedMemoryUser part(window);
    ASSERT_TRUE(whole);
    ASSERT_TRUE(part);
    EXPECT_EQ(part.address() - whole.address(), 4096);
    EXPECT_EQ(part.size(), 100u);
    std::strcpy(reinterpret_cast<char*>(whole.address() + 4096), "seen through the window");
    EXPECT_STREQ(reinterpret_cast<char*>(part.address()), "seen through the window");

    // The provider's release removes the name: a user that still holds the
    // mapping keeps it, and a new user of the name shares it.
    provider.release();
    EXPECT_FALSE(provider);
    SharedMemoryUser later(window);
    ASSERT_TRUE(later);
    EXPECT_EQ(later.address(), part.address());
}

TEST(SharedMemory, AReleasedNameCannotBeOpenedOnceTheLastUserHasGone)
{
    Trace trace;
    SharedMemoryId id;
    {
        SharedMemoryProvider provider(4096);
        id = provider.id();
        SharedMemoryUser user(id);
        ASSERT_TRUE(user);
        user.address()[0] = 42;
        SharedMemoryUser again(id);
        EXPECT_EQ(again.address()[0], 42);
    }
    SharedMemoryUser gone(id);
    EXPECT_FALSE(gone);
    const QStringList lines = ringTexts(trace);
    EXPECT_TRUE(lines.filter(QRegExp("^Failed to open 4096 byte mapped file '.* \\d+' : \\(2\\)")).size() == 1 ||
                lines.filter("Failed to open 4096 byte mapped file").size() == 1)
        << lines.join('\n').toStdString();
    EXPECT_TRUE(lines.contains("Failed to attach to shared memory"));
}

TEST(SharedMemory, AnExistingNameIsRefused)
{
    Trace trace;
    ASSERT_TRUE(SharedMemoryProvider::initialize("refusal-test"));
    // Take the name the next allocation will have, from the outside.
    SharedMemoryProvider probe(64);
    ASSERT_TRUE(probe);
    const QString used = probe.id().id();
    const int counter = used.section(' ', -1).toInt();
    const QString next = used.left(used.lastIndexOf(' ') + 1) + QString::number(counter + 1);
    const QByteArray object = QFile::encodeName('/' + next);
    const int fd = shm_open(object.constData(), O_CREAT | O_EXCL | O_RDWR, 0600);
    ASSERT_GE(fd, 0);
    close(fd);

    SharedMemoryProvider clash(64);
    EXPECT_FALSE(clash) << "another owner's name is never taken over";
    EXPECT_TRUE(ringTexts(trace).contains("Mapping of  '" + next + "' already exists"));
    shm_unlink(object.constData());

    SharedMemoryProvider empty;
    EXPECT_FALSE(empty.allocate(0)) << "no mapping is made of nothing";
    EXPECT_FALSE(empty);
    EXPECT_FALSE(empty.id());
}

TEST(SharedMemory, LockingIsAskedForAndCounted)
{
    Trace trace;
    SharedMemoryProvider provider(8192);
    SharedMemoryUser plain(provider.id());
    EXPECT_FALSE(plain.locked());
    SharedMemoryUser locking(provider.id(), true);
    ASSERT_TRUE(locking);
    if (!locking.locked())
        GTEST_SKIP() << "this account may not lock memory";
    EXPECT_TRUE(plain.locked()) << "the lock belongs to the shared mapping";
    EXPECT_EQ(SharedMemoryUser::lockedAllowance(), SharedMemoryUser::lockAllowance(8192));
    EXPECT_EQ(SharedMemoryUser::lockAllowance(8192), (8192u + 4095u) & ~0x1000u);
}

TEST(SharedMemory, TwoProcessesSeeEachOthersWrites)
{
    Trace trace;
    SharedMemoryProvider provider(4096);
    ASSERT_TRUE(provider);
    XmlList body;
    body.set("Id", provider.id().toXml(), XmlList::SetCreate);
    const QByteArray message = body.toBinary();

    SharedMemoryUser mine(provider.id());
    ASSERT_TRUE(mine);
    volatile unsigned char* bytes = mine.address();
    bytes[0] = 0;

    const pid_t child = fork();
    if (child == 0) {
        // The child knows only the message text.
        XmlList received;
        if (!received.fromBinary(message))
            _exit(2);
        SharedMemoryUser user(SharedMemoryId(received, "Id"));
        if (!user)
            _exit(3);
        volatile unsigned char* shared = user.address();
        shared[1] = 'c';
        shared[0] = 1;
        for (int i = 0; i < 5000 && shared[0] != 2; ++i)
            usleep(1000);
        _exit(shared[2] == 'p' ? 0 : 4);
    }
    ASSERT_GT(child, 0);
    for (int i = 0; i < 5000 && bytes[0] != 1; ++i)
        usleep(1000);
    EXPECT_EQ(bytes[1], 'c');
    bytes[2] = 'p';
    bytes[0] = 2;
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}
