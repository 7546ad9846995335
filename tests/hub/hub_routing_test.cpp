// Messages and data between processes through the Hub, and what comes back
// when they cannot be delivered.

#include "hubtest.h"

#include "messaging/datapacket.h"
#include "messaging/msgaddress.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msgpacket.h"

#include <boost/make_shared.hpp>

using namespace Brevi;
using namespace Brevi::Catalogue;
using namespace HubTest;

namespace {

class HubRouting : public HubFixture
{
protected:
    void SetUp() override { startHub(); }
};

XmlList valueBody(const QString& value)
{
    XmlList body;
    body.set("Value", value);
    return body;
}

QString valueOf(const boost::shared_ptr<MsgPacket>& packet)
{
    QString value;
    if (packet)
        packet->xml().get(value, "Value");
    return value;
}

} // namespace

TEST_F(HubRouting, MessagesReachProcessesByNumberNameAndRoute)
{
    std::unique_ptr<HubClient> alpha = started("alpha", "alpha");
    std::unique_ptr<HubClient> beta = started("beta", "beta", "grp");

    ASSERT_TRUE(alpha->send(beta->address(), "Ping", valueBody("by number"), "cookie-1"));
    boost::shared_ptr<MsgPacket> got = beta->wait("Ping", 5000);
    ASSERT_TRUE(got);
    EXPECT_EQ(valueOf(got), "by number");
    EXPECT_EQ(got->cookie(), "cookie-1");
    EXPECT_EQ(got->source().text().toQByteArray(), alpha->address());

    ASSERT_TRUE(beta->send(beta->logical("alpha"), "Pong", valueBody("by name")));
    EXPECT_EQ(valueOf(alpha->wait("Pong", 5000)), "by name");
    ASSERT_TRUE(alpha->send(alpha->logical("beta", "grp"), "Ping", valueBody("by name and group")));
    EXPECT_EQ(valueOf(beta->wait("Ping", 5000)), "by name and group");
    // A route of one hop that ends here is delivered here.
    const QByteArray routed = "4/" + QByteArray::number(beta->processId()) + "/a/a/" + machine().toUtf8();
    ASSERT_TRUE(alpha->send(routed, "Ping", valueBody("by route")));
    EXPECT_EQ(valueOf(beta->wait("Ping", 5000)), "by route");
    // A broadcast reaches every other process, in its sender's name.
    XmlList broadcast;
    broadcast.set(HubRtrBroadcastMessagePost::Name, QStringLiteral("Hello"));
    broadcast.set(HubRtrBroadcastMessagePost::Body, valueBody("to all"));
    ASSERT_TRUE(alpha->send(alpha->router(), HubRtrBroadcastMessagePost::Message, broadcast));
    got = beta->wait("Hello", 5000);
    EXPECT_EQ(valueOf(got), "to all");
    ASSERT_TRUE(got);
    EXPECT_EQ(got->source().text().toQByteArray(), alpha->address());
    EXPECT_FALSE(alpha->wait("Hello", 200));
    // The Hub's own ids reach the Hub, not a process.
    EXPECT_TRUE(
        alpha->request(alpha->manager(), HubMgrMonitorRequest::Message, XmlList(), HubMgrMonitorReply::Message));
}

TEST_F(HubRouting, UndeliverableMessageComesBackWhole)
{
    std::unique_ptr<HubClient> sender = started("sender");
    const QList<QByteArray> nowhere = {
        "1/999999/" + machine().toUtf8(),                // no such id
        "1/0/" + machine().toUtf8() + "/nobody",         // no such name
        "1/20/othernode@ffff",                           // another machine, no link to it
        "4/20/b/a/othernode@ffff/" + machine().toUtf8(), // a route on from here
        "2/3",                                           // a context of some process
        "3/9",                                           // no such service of the Hub
    };
    for (const QByteArray& destination : nowhere) {
        SCOPED_TRACE(destination.toStdString());
        ASSERT_TRUE(sender->send(destination, "Lost", valueBody("payload"), "cookie-9"));
        const boost::shared_ptr<MsgPacket> post = sender->wait(HubRtrUndeliverableMessagePost::Message, 5000);
        ASSERT_TRUE(post);
        EXPECT_EQ(post->source().text().toQByteArray(), sender->router());
        const XmlList body = post->xml();
        QString name, cookie;
        XmlList content, address;
        EXPECT_TRUE(body.get(name, HubRtrUndeliverableMessagePost::Name));
        EXPECT_EQ(name, "Lost");
        EXPECT_TRUE(body.get(cookie, HubRtrUndeliverableMessagePost::Cookie));
        EXPECT_EQ(cookie, "cookie-9");
        ASSERT_TRUE(body.get(content, HubRtrUndeliverableMessagePost::Body));
        QString value;
        EXPECT_TRUE(content.get(value, "Value"));
        EXPECT_EQ(value, "payload");
        EXPECT_TRUE(body.get(address, HubRtrUndeliverableMessagePost::Destination));
    }
}

TEST_F(HubRouting, DataPacketsAreRoutedAndBounced)
{
    std::unique_ptr<HubClient> sender = started("sender");
    std::unique_ptr<HubClient> receiver = started("receiver");
    const QByteArray payload = "channel bytes";
    auto packet = boost::make_shared<DataPacket>(BinaryAddress(Extent(receiver->address())),
                                                 BinaryAddress(Extent(sender->address())), QByteArray(), 256, 7, 3);
    packet->append(Extent(payload));
    ASSERT_TRUE(packet->prepareSend(packet->filled(), false));
    ASSERT_TRUE(sender->sendPacket(packet));

    const boost::shared_ptr<IpcPacket> got = receiver->next(5000);
    ASSERT_TRUE(got);
    ASSERT_EQ(got->type(), eIpcTypeData);
    DataPacket& data = static_cast<DataPacket&>(*got);
    EXPECT_EQ(data.channelId(), 7u);
    EXPECT_EQ(data.dataId(), 3u);
    ASSERT_TRUE(data.prepareReceive());
    EXPECT_EQ(data.data().toQByteArray(), payload);

    auto lost = boost::make_shared<DataPacket>(BinaryAddress(Extent("1/424242/" + machine().toUtf8())),
                                               BinaryAddress(Extent(sender->address())), QByteArray(), 16, 7, 4);
    ASSERT_TRUE(lost->prepareSend(0, false));
    ASSERT_TRUE(sender->sendPacket(lost));
    const boost::shared_ptr<MsgPacket> post = sender->wait(HubRtrUndeliverableDataPost::Message, 5000);
    ASSERT_TRUE(post);
    XmlList destination;
    ASSERT_TRUE(post->xml().get(destination, HubRtrUndeliverableDataPost::Destination));
    EXPECT_EQ(MsgAddress(destination).id(), 424242u);
}

TEST_F(HubRouting, BeforeEnableAProcessSpeaksOnlyToTheHub)
{
    std::unique_ptr<HubClient> other = started("other");
    std::unique_ptr<HubClient> early = connect();
    ASSERT_TRUE(early->attach("early"));

    ASSERT_TRUE(early->send(other->address(), "TooSoon", valueBody("x")));
    EXPECT_TRUE(early->wait(HubRtrUndeliverableMessagePost::Message, 5000));
    EXPECT_FALSE(other->wait("TooSoon", 200));

    // A packet above 65,536 bytes before enable ends the link; the Hub
    // serves the others.
    ASSERT_TRUE(early->send("3/1", HubMgrMonitorRequest::Message, valueBody(QString(70000, 'x'))));
    EXPECT_TRUE(early->waitClosed(5000));
    EXPECT_TRUE(
        other->request(other->manager(), HubMgrMonitorRequest::Message, XmlList(), HubMgrMonitorReply::Message));

    // After enable the same size passes.
    std::unique_ptr<HubClient> late = started("late");
    ASSERT_TRUE(late->send(other->address(), "Large", valueBody(QString(70000, 'y'))));
    EXPECT_EQ(valueOf(other->wait("Large", 5000)).size(), 70000);
}

TEST_F(HubRouting, WhatOthersSendAProcessBeforeItsEnableFollowsTheEnableReply)
{
    std::unique_ptr<HubClient> other = started("other");
    std::unique_ptr<HubClient> starting = connect();
    ASSERT_TRUE(starting->attach("starting", "starting"));

    // Sent while the process is still in its exchanges with the Hub, by
    // number and by name, one larger than a link takes before enable.
    ASSERT_TRUE(other->send(starting->address(), "Early", valueBody("1")));
    ASSERT_TRUE(other->send(other->logical("starting"), "Early", valueBody("2")));
    ASSERT_TRUE(other->send(starting->address(), "Early", valueBody(QString(70000, '3'))));
    // Beyond the pause mark (4 MiB by default) they come back.
    ASSERT_TRUE(other->send(starting->address(), "Early", valueBody(QString(4200000, '4'))));
    EXPECT_TRUE(other->wait(HubRtrUndeliverableMessagePost::Message, 5000));

    // The trace buffer reply is the first thing the process gets, the enable
    // reply the next, and then the held messages in their order.
    ASSERT_TRUE(starting->send("3/1", HubMgrTraceBufferRequest::Message));
    const boost::shared_ptr<IpcPacket> first = starting->next(5000);
    ASSERT_TRUE(first && first->type() == eIpcTypeMessage);
    EXPECT_EQ(static_cast<MsgPacket&>(*first).name(), HubMgrTraceBufferReply::Message);
    starting->takeLargePackets();
    ASSERT_TRUE(starting->send("3/1", HubMgrConnectionEnableRequest::Message));
    const boost::shared_ptr<IpcPacket> second = starting->next(5000);
    ASSERT_TRUE(second && second->type() == eIpcTypeMessage);
    EXPECT_EQ(static_cast<MsgPacket&>(*second).name(), HubRtrConnectionEnableReply::Message);
    EXPECT_EQ(valueOf(starting->wait("Early", 5000)), "1");
    EXPECT_EQ(valueOf(starting->wait("Early", 5000)), "2");
    EXPECT_EQ(valueOf(starting->wait("Early", 5000)), QString(70000, '3'));
    EXPECT_FALSE(starting->wait("Early", 200));
}
