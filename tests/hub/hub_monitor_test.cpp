// Watching the Hub's processes, changing their trace levels, and shutting it
// down.

#include "hubtest.h"

#include "core/sharedmemoryuser.h"
#include "core/trace.h"
#include "core/xmllistiterator.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msgpacket.h"

#include <sys/wait.h>
#include <unistd.h>

using namespace Brevi;
using namespace Brevi::Catalogue;
using namespace HubTest;

namespace {

class HubMonitor : public HubFixture
{};

QList<XmlList> entries(const XmlList& body, const QString& key)
{
    QList<XmlList> result;
    for (XmlListIterator it = body.first(key); !it.isNull(); it.next(key)) {
        XmlList entry;
        if (body.get(entry, it))
            result.append(entry);
    }
    return result;
}

QString text(const XmlList& list, const QString& key)
{
    QString value;
    list.get(value, key);
    return value;
}

XmlList monitorReply(HubClient& client)
{
    const boost::shared_ptr<MsgPacket> reply =
        client.request(client.manager(), HubMgrMonitorRequest::Message, XmlList(), HubMgrMonitorReply::Message);
    return reply ? reply->xml() : XmlList();
}

// Waits until the monitor's last row has that title and state.
bool lastRowIs(HubClient& viewer, const QString& title, const QString& state)
{
    for (unsigned long long end = steadyMs() + 5000; steadyMs() < end;) {
        const QList<XmlList> rows = entries(monitorReply(viewer), "Entry");
        if (!rows.isEmpty() && text(rows.last(), HubMgrMonitorReply::Title) == title &&
            text(rows.last(), HubMgrMonitorReply::State) == state)
            return true;
    }
    return false;
}

} // namespace

TEST_F(HubMonitor, ListsDescribeTheProcessesAndChangesFollow)
{
    startHub();
    std::unique_ptr<HubClient> viewer = started("viewer");
    std::unique_ptr<HubClient> named = started("named one", "svc", "grp");

    const XmlList body = monitorReply(*viewer);
    unsigned count = 0;
    ASSERT_TRUE(body.get(count, HubMgrMonitorReply::EntryCount));
    const QList<XmlList> rows = entries(body, "Entry");
    ASSERT_EQ(count, 2u);
    ASSERT_EQ(rows.size(), 2);
    EXPECT_EQ(text(rows[1], HubMgrMonitorReply::Title), "named one");
    EXPECT_EQ(text(rows[1], HubMgrMonitorReply::Name), "svc");
    EXPECT_EQ(text(rows[1], HubMgrMonitorReply::Group), "grp");
    EXPECT_EQ(text(rows[1], HubMgrMonitorReply::State), "Ready");
    unsigned id = 0, osPid = 0;
    EXPECT_TRUE(rows[1].get(id, HubMgrMonitorReply::ProcessId));
    EXPECT_EQ(id, named->processId());
    EXPECT_TRUE(rows[1].get(osPid, HubMgrMonitorReply::OSPid));
    EXPECT_EQ(osPid, unsigned(::getpid()));
    EXPECT_TRUE(SharedMemoryId(rows[1], HubMgrMonitorReply::TraceId));

    const boost::shared_ptr<MsgPacket> list = viewer->request(viewer->manager(), HubMgrNamedProcessListRequest::Message,
                                                              XmlList(), HubMgrNamedProcessListReply::Message);
    ASSERT_TRUE(list);
    const QList<XmlList> named_ = entries(list->xml(), HubMgrNamedProcessListReply::Entry);
    ASSERT_EQ(named_.size(), 1);
    EXPECT_EQ(text(named_[0], HubMgrNamedProcessListReply::Name), "svc");

    // The viewer now hears of new processes, changes and ends.
    std::unique_ptr<HubClient> newcomer = connect();
    ASSERT_TRUE(newcomer->attach("newcomer"));
    EXPECT_TRUE(viewer->wait(HubMgrMonitorProcessNewPost::Message, 5000));
    XmlList title;
    title.set(HubMgrSetTitlePost::Title, QStringLiteral("renamed"));
    ASSERT_TRUE(newcomer->send("3/1", HubMgrSetTitlePost::Message, title));
    const boost::shared_ptr<MsgPacket> change = viewer->wait(HubMgrMonitorProcessChangePost::Message, 5000);
    ASSERT_TRUE(change);
    EXPECT_EQ(text(change->xml(), HubMgrMonitorProcessChangePost::Title), "renamed");
    newcomer->close();
    EXPECT_TRUE(viewer->wait(HubMgrMonitorProcessEndPost::Message, 5000));
}

TEST_F(HubMonitor, GlobalTraceLevelIsWrittenIntoEveryBuffer)
{
    startHub();
    std::unique_ptr<HubClient> first = connect();
    ASSERT_TRUE(first->attach("first"));
    const SharedMemoryUser one(first->traceBuffer());
    ASSERT_TRUE(first->enable());
    std::unique_ptr<HubClient> second = connect();
    ASSERT_TRUE(second->attach("second"));
    const SharedMemoryUser two(second->traceBuffer());
    ASSERT_TRUE(second->enable());
    ASSERT_TRUE(one);
    ASSERT_TRUE(two);

    for (const unsigned level : {4u, 1u}) {
        XmlList body;
        body.set(HubMgrGlobalTraceLevelPost::Value, level);
        ASSERT_TRUE(first->send("3/1", HubMgrGlobalTraceLevelPost::Message, body));
        // The reply to a later request shows the post has been handled.
        ASSERT_TRUE(monitorReply(*first).isValid());
        for (const unsigned module : {unsigned(TraceModuleMsg), unsigned(TraceModuleHub), 500u}) {
            EXPECT_EQ(Trace::getLevel(one.address(), module), TraceLevelE(level)) << module;
            EXPECT_EQ(Trace::getLevel(two.address(), module), TraceLevelE(level)) << module;
        }
    }
    // A level by its name; a level out of range changes nothing.
    XmlList named;
    named.set(HubMgrGlobalTraceLevelPost::Value, QStringLiteral("TraceVerbose"));
    ASSERT_TRUE(first->send("3/1", HubMgrGlobalTraceLevelPost::Message, named));
    XmlList bad;
    bad.set(HubMgrGlobalTraceLevelPost::Value, 9u);
    ASSERT_TRUE(first->send("3/1", HubMgrGlobalTraceLevelPost::Message, bad));
    ASSERT_TRUE(monitorReply(*first).isValid());
    EXPECT_EQ(Trace::getLevel(one.address(), TraceModuleMsg), TraceVerbose);
}

TEST_F(HubMonitor, TraceBuffersOutliveTheirProcessesButNotTheHub)
{
    startHub({"--keep-exited", "1"});
    std::unique_ptr<HubClient> viewer = started("viewer");
    std::unique_ptr<HubClient> early = connect();
    ASSERT_TRUE(early->attach("early"));
    const SharedMemoryId dropped = early->traceBuffer();
    std::unique_ptr<HubClient> late = connect();
    ASSERT_TRUE(late->attach("late"));
    const SharedMemoryId gone = late->traceBuffer();
    // Only the last ended process's buffer is kept, and listed as exited.
    early->close();
    ASSERT_TRUE(lastRowIs(*viewer, "early", "Exited"));
    late->close();
    ASSERT_TRUE(lastRowIs(*viewer, "late", "Exited"));
    const QList<XmlList> rows = entries(monitorReply(*viewer), "Entry");
    ASSERT_EQ(rows.size(), 2);
    const XmlList row = rows[1];
    ASSERT_EQ(text(row, HubMgrMonitorReply::Title), "late");
    EXPECT_EQ(SharedMemoryId(row, HubMgrMonitorReply::TraceId).id(), gone.id());
    EXPECT_TRUE(SharedMemoryUser(gone));
    EXPECT_FALSE(SharedMemoryUser(dropped));

    // Shutdown: every process is told, the Hub ends, and takes the names of
    // the buffers with it.
    std::unique_ptr<HubClient> other = started("other");
    ASSERT_TRUE(viewer->send("3/1", HubMgrShutdownPost::Message));
    EXPECT_TRUE(viewer->wait(HubRtrShutdownPost::Message, 5000));
    EXPECT_TRUE(other->wait(HubRtrShutdownPost::Message, 5000));
    viewer->close();
    other->close();
    int status = 0;
    ASSERT_TRUE(mpHub->process().waitExit(10000, &status));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_FALSE(SharedMemoryUser(gone));
}
