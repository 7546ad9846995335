// Starting programs through HubMgrCreateProcessRequest.

#include "hubtest.h"

#include "messaging/msgaddress.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msgpacket.h"

#include <QFile>
#include <QTemporaryDir>
#include <QThread>

using namespace Brevi;
using namespace Brevi::Catalogue;
using namespace HubTest;

namespace {

// A programs directory with the helper under the names that choose its part,
// and a file that is not executable.
class HubCreate : public HubFixture
{
protected:
    void SetUp() override
    {
        for (const char* name : {"childattach", "childnoattach", "childsilent", "childnoenable"})
            ASSERT_TRUE(QFile::link(childProgram(), moPrograms.filePath(name)));
        QFile plain(moPrograms.filePath("notexec"));
        ASSERT_TRUE(plain.open(QIODevice::WriteOnly));
        plain.write("#!/bin/sh\n");
        plain.close();
        startHub({"--programs", moPrograms.path(), "--attach-timeout", "1500"});
    }

    static XmlList requestBody(const QString& program, unsigned instance, const QString& name, const QString& group)
    {
        XmlList body;
        body.set(HubMgrCreateProcessRequest::Program, program);
        body.set(HubMgrCreateProcessRequest::Instance, instance);
        body.set(HubMgrCreateProcessRequest::Title, QStringLiteral("Kid Title"));
        if (!name.isEmpty()) {
            body.set(HubMgrCreateProcessRequest::Name, name);
            body.set(HubMgrCreateProcessRequest::Group, group);
        }
        body.set(HubMgrCreateProcessRequest::TraceFile, QStringLiteral("kid.tra"));
        return body;
    }

    // Sends a creation request without waiting for its answer.
    bool ask(HubClient& parent, const QString& program, unsigned instance, const QString& name = QString(),
             const QString& group = QString())
    {
        return parent.send(parent.manager(), HubMgrCreateProcessRequest::Message,
                           requestBody(program, instance, name, group));
    }

    // Waits for the next creation reply, which must be the one for
    // `instance`, and returns its body.
    XmlList answer(HubClient& parent, unsigned instance)
    {
        const boost::shared_ptr<MsgPacket> reply = parent.wait(HubMgrCreateProcessReply::Message, 10000);
        if (!reply)
            return XmlList();
        EXPECT_EQ(reply->source().text().toQByteArray(), parent.manager());
        unsigned got = 0;
        EXPECT_TRUE(reply->xml().get(got, HubMgrCreateProcessReply::Instance));
        EXPECT_EQ(got, instance);
        return reply->xml();
    }

    // Sends a creation request and returns the reply's body.
    XmlList create(HubClient& parent, const QString& program, unsigned instance, const QString& name = QString(),
                   const QString& group = QString())
    {
        if (!ask(parent, program, instance, name, group))
            return XmlList();
        return answer(parent, instance);
    }

    static QString status(const XmlList& reply)
    {
        QString value;
        reply.get(value, HubMgrCreateProcessReply::Status);
        return value;
    }

    QTemporaryDir moPrograms;
};

QString text(const XmlList& list, const QString& key)
{
    QString value;
    list.get(value, key);
    return value;
}

} // namespace

TEST_F(HubCreate, StartsAProgramThatAttachesAsTheParentsChild)
{
    std::unique_ptr<HubClient> parent = started("parent");
    const XmlList reply = create(*parent, "childattach", 42, "kid", "g");
    ASSERT_EQ(status(reply), "Success");
    XmlList address;
    ASSERT_TRUE(reply.get(address, HubMgrCreateProcessReply::Address));
    EXPECT_EQ(MsgAddress(address), MsgAddress(MachineName(machine()), "kid", "g"));

    // The child got the request's words in its environment and the parent's
    // address in its attach reply: it greets the parent there.
    const boost::shared_ptr<MsgPacket> hello = parent->wait("HubTestHelloPost", 10000);
    ASSERT_TRUE(hello);
    const XmlList greeting = hello->xml();
    EXPECT_EQ(text(greeting, HubMgrCreateProcessRequest::Title), "Kid Title");
    EXPECT_EQ(text(greeting, HubMgrCreateProcessRequest::Name), "kid");
    EXPECT_EQ(text(greeting, HubMgrCreateProcessRequest::Group), "g");
    EXPECT_EQ(text(greeting, HubMgrCreateProcessRequest::TraceFile), "kid.tra");
    XmlList parentAddress;
    ASSERT_TRUE(greeting.get(parentAddress, HubMgrAttachReply::ParentAddress));
    EXPECT_EQ(MsgAddress(parentAddress), MsgAddress(MachineName(machine()), parent->processId()));

    // Reachable at the address the reply gave.
    XmlList echo;
    echo.set("Value", QStringLiteral("echo"));
    ASSERT_TRUE(parent->send(MsgAddress(address).binary().text().toQByteArray(), "HubTestEchoRequest", echo));
    const boost::shared_ptr<MsgPacket> back = parent->wait("HubTestEchoReply", 5000);
    ASSERT_TRUE(back);
    EXPECT_EQ(text(back->xml(), "Value"), "echo");

    // The name is taken while the child lives.
    EXPECT_EQ(status(create(*parent, "childattach", 43, "kid", "g")), "Name Conflict");
}

TEST_F(HubCreate, FailuresAnswerWithTheirStatusWords)
{
    std::unique_ptr<HubClient> parent = started("parent");
    EXPECT_EQ(status(create(*parent, "nothere", 1)), "Does Not Exist");
    EXPECT_EQ(status(create(*parent, "notexec", 2)), "No Executable");
    EXPECT_EQ(status(create(*parent, "../childattach", 3)), "Invalid");
    EXPECT_EQ(status(create(*parent, "", 4)), "Invalid");
    // Ends without attaching; starts and never attaches (the Hub waits 1.5 s).
    EXPECT_EQ(status(create(*parent, "childnoattach", 5)), "Attach Failed");
    // Attached, but gone before its connection was enabled: nobody could
    // have spoken to it.
    EXPECT_EQ(status(create(*parent, "childnoenable", 7)), "Attach Failed");
    const unsigned long long before = steadyMs();
    EXPECT_EQ(status(create(*parent, "childsilent", 6)), "Attach Failed");
    EXPECT_GE(steadyMs() - before, 1000u);
}

TEST_F(HubCreate, ANameIsTakenFromTheStartOfItsChild)
{
    std::unique_ptr<HubClient> parent = started("parent");
    // The first child never attaches; while it is starting, its name is not
    // to be had, and no second child is started for it.
    ASSERT_TRUE(ask(*parent, "childsilent", 7, "kid", "g"));
    EXPECT_EQ(status(create(*parent, "childattach", 8, "kid", "g")), "Name Conflict");
    EXPECT_EQ(status(answer(*parent, 7)), "Attach Failed");
    // The name is free again once the first start has failed.
    EXPECT_EQ(status(create(*parent, "childattach", 9, "kid", "g")), "Success");
}

// A started program that never attaches, and the pid of the process it
// starts in the background and waits for, read once it is written.
pid_t startSleeper(HubClient& parent, const QString& directory, unsigned instance)
{
    const QString pidFile = directory + "/sleeper.pid";
    QFile::remove(pidFile);
    if (!QFile::exists(directory + "/sleeper")) {
        QFile script(directory + "/sleeper");
        script.open(QIODevice::WriteOnly);
        script.write("#!/bin/sh\nsleep 60 &\necho $! > " + pidFile.toLocal8Bit() + ".new\nmv " + pidFile.toLocal8Bit() +
                     ".new " + pidFile.toLocal8Bit() + "\nwait\n");
        script.close();
        script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    XmlList body;
    body.set(HubMgrCreateProcessRequest::Program, QStringLiteral("sleeper"));
    body.set(HubMgrCreateProcessRequest::Instance, instance);
    parent.send(parent.manager(), HubMgrCreateProcessRequest::Message, body);
    QFile written(pidFile);
    for (const unsigned long long end = steadyMs() + 5000; !written.exists() && steadyMs() < end;)
        QThread::msleep(10);
    return written.open(QIODevice::ReadOnly) ? pid_t(written.readAll().trimmed().toInt()) : 0;
}

// Whether the process ends (or is a zombie: it has ended) within five seconds.
bool ends(pid_t pid)
{
    const QString stat = "/proc/" + QString::number(pid) + "/stat";
    for (const unsigned long long end = steadyMs() + 5000; steadyMs() < end; QThread::msleep(10)) {
        QFile file(stat);
        if (!file.open(QIODevice::ReadOnly) || file.readAll().contains(") Z "))
            return true;
    }
    return false;
}

TEST_F(HubCreate, AChildEndedForTimeOrShutdownTakesWhatItStartedAlong)
{
    // Not attached in time: the child is ended, and with it the process it
    // started, which would otherwise live on as an orphan.
    std::unique_ptr<HubClient> parent = started("parent");
    pid_t orphan = startSleeper(*parent, moPrograms.path(), 10);
    ASSERT_GT(orphan, 0);
    EXPECT_EQ(status(answer(*parent, 10)), "Attach Failed");
    EXPECT_TRUE(ends(orphan));

    // Still starting when the Hub shuts down.
    parent->close();
    TearDown();
    startHub({"--programs", moPrograms.path(), "--attach-timeout", "30000"});
    parent = started("parent");
    orphan = startSleeper(*parent, moPrograms.path(), 11);
    ASSERT_GT(orphan, 0);
    ASSERT_TRUE(parent->send("3/1", HubMgrShutdownPost::Message));
    EXPECT_EQ(status(answer(*parent, 11)), "Shutdown");
    EXPECT_TRUE(parent->wait(HubRtrShutdownPost::Message, 5000));
    parent->close();
    ASSERT_TRUE(mpHub->process().waitExit(10000));
    EXPECT_TRUE(ends(orphan));
}
