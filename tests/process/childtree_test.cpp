// A supervised tree of real processes through the real Hub: the program
// "supervised" at the top, its children started through the Hub, one of them
// with two threads and a child of its own, and a peer. The test is an
// attached process named "Observer": every parent tells it of each change to
// its records of its children, so that the test sees a freeze travel down to
// the leaves and its answer come back up.
#include "hubtest.h"
#include "processtest.h"

#include "core/context.h"
#include "messaging/msg.h"
#include "messaging/msgcatalogue.h"

#include <QFile>
#include <QMap>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <csignal>
#include <functional>

using namespace Brevi;
using namespace Brevi::Catalogue;

namespace {

const char* const Group = "Supervised";

// One change to a parent's record of a child.
struct Change {
    QString parent;
    QString child;
    QString state;
};

class ChildTree : public HubTest::HubFixture
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(QFile::link(SUPERVISED_PATH, moPrograms.filePath("supervised")));
        startHub({"--programs", moPrograms.path(), "--shutdown-timeout", "1000"});
        ::setenv("BREVI_HUB_PORT", QByteArray::number(port()).constData(), 1);
    }

    // The top of a tree, and a peer beside it, both telling the observer,
    // who must be there before them.
    void start(const QString& shape, bool peer = true)
    {
        QStringList arguments{"--name", "Tree", "--shape", shape, "--observer", "Observer"};
        if (peer) {
            arguments << "--peer"
                      << "Audit";
            mpPeer.reset(new HubTest::ChildProcess(SUPERVISED_PATH, {"--name", "Audit", "--observer", "Observer"}));
        }
        mpTop.reset(new HubTest::ChildProcess(SUPERVISED_PATH, arguments));
    }

    // Runs `body` in this process's attached context, named Observer.
    static void observe(const std::function<void()>& body)
    {
        static const std::function<void()>* current = nullptr;
        current = &body;
        const bool ran = Context::run([] { (*current)(); }, Context::TypeAttached, Context::FlagAttachOnce, "observer",
                                      "Observer", Group);
        current = nullptr;
        ASSERT_TRUE(ran) << "no attached context";
    }

    QTemporaryDir moPrograms;
    std::unique_ptr<HubTest::ChildProcess> mpTop;
    std::unique_ptr<HubTest::ChildProcess> mpPeer;
};

MsgAddress named(const QString& name) { return MsgAddress(Context::machineName(), name, Group); }

// The records' latest states, as the observer has been told them.
QMap<QString, QString> gStates;
QList<Change> gChanges;
QMap<QString, unsigned> gPids;

// Takes what the tree says until `until` holds for a message (which is then
// returned) or 30 seconds are up.
Msg follow(const std::function<bool(const Msg&)>& until)
{
    for (;;) {
        const Msg message = Msg::wait(QStringList{"TreeStatePost", "TreeHelloPost", "TreeWorkDonePost",
                                                  ChildMgrFreezeReply::Message, ChildMgrThawReply::Message},
                                      30);
        if (!message)
            return message;
        if (message.name() == "TreeStatePost") {
            const Change change{message.getString("Parent"), message.getString("Child"), message.getString("State")};
            gChanges << change;
            gStates[change.parent + '/' + change.child] = change.state;
        } else if (message.name() == "TreeHelloPost") {
            gPids[message.getString("Name")] = message.getUint32("OSPid");
        }
        if (until(message))
            return message;
    }
}

// Until every record named is in `state`.
bool allIn(const QStringList& records, const QString& state)
{
    const auto reached = [&] {
        for (const QString& record : records)
            if (gStates.value(record) != state)
                return false;
        return true;
    };
    return reached() || follow([&](const Msg&) { return reached(); });
}

Msg ask(const QString& request, const QString& reply)
{
    gChanges.clear();
    Msg(named("Tree"), request).send();
    return follow([&](const Msg& message) { return message.name() == reply; });
}

int childctl(const QStringList& arguments, QString* output = nullptr)
{
    QProcess tool;
    tool.start(CHILDCTL_PATH, arguments);
    tool.waitForFinished(30000);
    if (output)
        *output = QString::fromUtf8(tool.readAllStandardOutput());
    return tool.exitStatus() == QProcess::NormalExit ? tool.exitCode() : -1;
}

const QStringList Tree{"Tree/Tree.Worker", "Tree/Tree.Indexer", "Tree/Tree.Store"};
const QStringList Worker{"Tree.Worker/1", "Tree.Worker/2", "Tree.Worker/Tree.Worker.Leaf"};

TEST_F(ChildTree, FreezeReachesEveryLeafBeforeItsAnswerAndWorkWaitsForTheThaw)
{
    observe([this] {
        start("Worker(*,*,Leaf),Indexer,Store");
        ASSERT_TRUE(allIn(Tree + Worker + QStringList{"Tree/Audit"}, "CMRunning"));

        const Msg frozen = ask(ChildMgrFreezeRequest::Message, ChildMgrFreezeReply::Message);
        ASSERT_TRUE(frozen.getBool(ChildMgrFreezeReply::Success)) << frozen.name().toStdString();
        // Every record was frozen before the answer, and the worker's
        // children before the worker.
        for (const QString& record : Tree + Worker)
            EXPECT_EQ(gStates.value(record), "CMFrozen") << record.toStdString();
        int workerFrozen = -1, leavesFrozen = 0;
        for (int i = 0; i < gChanges.size(); ++i) {
            if (gChanges[i].parent == "Tree.Worker" && gChanges[i].state == "CMFrozen") {
                EXPECT_EQ(workerFrozen, -1) << gChanges[i].child.toStdString() << " frozen after its parent";
                ++leavesFrozen;
            }
            if (gChanges[i].child == "Tree.Worker" && gChanges[i].state == "CMFrozen")
                workerFrozen = i;
        }
        EXPECT_EQ(leavesFrozen, 3);

        // Work sent meanwhile waits; another freezer is refused, and so is a
        // thaw from someone who did not freeze.
        for (int seq = 1; seq <= 3; ++seq) {
            XmlList work;
            work.set("Seq", seq);
            Msg(named("Tree"), "TreeWorkPost", work).send();
        }
        EXPECT_FALSE(Msg::wait("TreeWorkDonePost", 1));
        QString said;
        EXPECT_EQ(childctl({"freeze", "Tree", "--timeout", "10"}, &said), 1);
        EXPECT_TRUE(said.contains("not frozen: Frozen")) << said.toStdString();
        EXPECT_EQ(childctl({"thaw", "Tree"}, &said), 1);
        EXPECT_TRUE(said.contains("DidNotFreeze")) << said.toStdString();

        const Msg thawed = ask(ChildMgrThawRequest::Message, ChildMgrThawReply::Message);
        EXPECT_TRUE(thawed.getBool(ChildMgrThawReply::Success));
        for (const QString& record : Tree + Worker)
            EXPECT_EQ(gStates.value(record), "CMRunning") << record.toStdString();
        QList<int> done;
        while (done.size() < 3) {
            const Msg answer = follow([](const Msg& m) { return m.name() == "TreeWorkDonePost"; });
            ASSERT_TRUE(answer);
            done << answer.getInt32("Seq");
        }
        EXPECT_EQ(done, (QList<int>{1, 2, 3}));
    });
}

TEST_F(ChildTree, AChildKilledWhileFreezingAndAPeerThatEnds)
{
    observe([this] {
        start("Worker,Stuck?");
        ASSERT_TRUE(allIn({"Tree/Tree.Worker", "Tree/Tree.Stuck", "Tree/Audit"}, "CMRunning"));
        ASSERT_TRUE(gPids.contains("Tree.Stuck"));

        // The stuck child never says frozen; once it is killed the freeze
        // goes on without it.
        Msg(named("Tree"), ChildMgrFreezeRequest::Message).send();
        ASSERT_TRUE(allIn({"Tree/Tree.Worker"}, "CMFrozen"));
        EXPECT_EQ(gStates.value("Tree/Tree.Stuck"), "CMFreezing");
        ::kill(pid_t(gPids.value("Tree.Stuck")), SIGKILL);
        const Msg frozen = follow([](const Msg& m) { return m.name() == ChildMgrFreezeReply::Message; });
        ASSERT_TRUE(frozen.isValid());
        EXPECT_TRUE(frozen.getBool(ChildMgrFreezeReply::Success));
        EXPECT_EQ(gStates.value("Tree/Tree.Stuck"), "CMStopped");
        EXPECT_TRUE(ask(ChildMgrThawRequest::Message, ChildMgrThawReply::Message).getBool(ChildMgrThawReply::Success));

        // A peer ends: the tree notes it and goes on.
        mpPeer->kill(SIGKILL);
        ASSERT_TRUE(allIn({"Tree/Audit"}, "CMStopped"));
        Msg(named("Tree"), "TreeWorkPost").send();
        EXPECT_TRUE(follow([](const Msg& m) { return m.name() == "TreeWorkDonePost"; }));
    });
}

// Waits until the tool has printed `text`.
bool says(QProcess& tool, const QString& text)
{
    QByteArray seen;
    for (const unsigned long long end = HubTest::steadyMs() + 20000; HubTest::steadyMs() < end;) {
        tool.waitForReadyRead(100);
        seen += tool.readAllStandardOutput();
        if (seen.contains(text.toUtf8()))
            return true;
    }
    return false;
}

TEST_F(ChildTree, AFreezeLastsAsLongAsTheChildctlThatHoldsIt)
{
    observe([this] {
        start("Worker(*)", false);
        ASSERT_TRUE(allIn({"Tree/Tree.Worker", "Tree.Worker/1"}, "CMRunning"));
    });
    QProcess holder;
    holder.start(CHILDCTL_PATH, {"freeze", "Tree"});
    ASSERT_TRUE(says(holder, "frozen in"));
    QString said;
    EXPECT_EQ(childctl({"thaw", "Tree"}, &said), 0) << said.toStdString();
    EXPECT_TRUE(said.contains("running again")) << said.toStdString();
    ASSERT_TRUE(holder.waitForFinished(10000));
    EXPECT_EQ(holder.exitCode(), 0);

    // A holder that dies: the Hub tells the tree, which thaws by itself and
    // can be frozen again.
    holder.start(CHILDCTL_PATH, {"freeze", "Tree"});
    ASSERT_TRUE(says(holder, "frozen in"));
    holder.kill();
    holder.waitForFinished(5000);
    int status = -1;
    for (const unsigned long long end = HubTest::steadyMs() + 10000; status != 0 && HubTest::steadyMs() < end;)
        status = childctl({"freeze", "Tree", "--for", "0"}, &said);
    EXPECT_EQ(status, 0) << said.toStdString();
}

TEST_F(ChildTree, AChildThatIgnoresShutdownIsEndedWithTheHub)
{
    observe([this] {
        start("Worker(Leaf),Mule!", false);
        ASSERT_TRUE(allIn({"Tree/Tree.Worker", "Tree/Tree.Mule", "Tree.Worker/Tree.Worker.Leaf"}, "CMRunning"));
    });
    const unsigned mule = gPids.value("Tree.Mule");
    ASSERT_NE(mule, 0u);

    // The tool says who ended and who did not, in the time given.
    QString said;
    EXPECT_EQ(childctl({"shutdown", "Tree", "--timeout", "2"}, &said), 1);
    EXPECT_TRUE(said.contains("Tree.Worker.Leaf/Supervised: ended")) << said.toStdString();
    EXPECT_TRUE(said.contains("Tree.Worker/Supervised: ended")) << said.toStdString();
    EXPECT_TRUE(said.contains(QRegExp("still running after 2 s: .*Tree.Mule"))) << said.toStdString();
    EXPECT_TRUE(mpTop->running()) << "the top waits for its last child";

    // The Hub's shutdown is bounded: the child that ignores it, and
    // SIGTERM, is ended with its group, and the top leaves after it.
    EXPECT_EQ(mpHub->stop(20000), 0);
    int status = -1;
    EXPECT_TRUE(mpTop->waitExit(10000, &status));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_NE(::kill(pid_t(mule), 0), 0) << "the stubborn child outlived the Hub";
}

} // namespace
