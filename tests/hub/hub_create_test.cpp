// Starting programs through HubMgrCreateProcessRequest.

#include "hubtest.h"

#include "messaging/msgaddress.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msgpacket.h"

#include <QFile>
#include <QTemporaryDir>

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
        for (const char* name : {"childattach", "childnoattach", "childsilent"})
            ASSERT_TRUE(QFile::link(childProgram(), moPrograms.filePath(name)));
        QFile plain(moPrograms.filePath("notexec"));
        ASSERT_TRUE(plain.open(QIODevice::WriteOnly));
        plain.write("#!/bin/sh\n");
        plain.close();
        startHub({"--programs", moPrograms.path(), "--attach-timeout", "1500"});
    }

    // Sends a creation request and returns the reply's body.
    XmlList create(HubClient& parent, const QString& program, unsigned instance, const QString& name = QString(),
                   const QString& group = QString())
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
        const boost::shared_ptr<MsgPacket> reply = parent.request(parent.manager(), HubMgrCreateProcessRequest::Message,
                                                                  body, HubMgrCreateProcessReply::Message, 10000);
        if (!reply)
            return XmlList();
        EXPECT_EQ(reply->source().text().toQByteArray(), parent.manager());
        unsigned got = 0;
        EXPECT_TRUE(reply->xml().get(got, HubMgrCreateProcessReply::Instance));
        EXPECT_EQ(got, instance);
        return reply->xml();
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
    const unsigned long long before = steadyMs();
    EXPECT_EQ(status(create(*parent, "childsilent", 6)), "Attach Failed");
    EXPECT_GE(steadyMs() - before, 1000u);
}
