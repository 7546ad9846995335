// Data that a process had not yet taken when it went: its senders hear of it.

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

class HubData : public HubFixture
{
protected:
    // The Hub holds what the receiver does not take, without holding the
    // sender back.
    void SetUp() override { startHub({"--pause-queue", "64M"}); }
};

TEST_F(HubData, DataQueuedForAProcessThatGoesComesBackOncePerSender)
{
    std::unique_ptr<HubClient> sender = started("sender");
    std::unique_ptr<HubClient> receiver = started("receiver");
    // The receiver reads nothing: more than the sockets between take waits
    // in the Hub.
    const unsigned payload = 64 * 1024;
    for (int i = 0; i < 256; ++i) {
        auto packet =
            boost::make_shared<DataPacket>(BinaryAddress(Extent(receiver->address())),
                                           BinaryAddress(Extent(sender->address())), QByteArray(), payload, 7, 0);
        packet->used(payload);
        ASSERT_TRUE(packet->prepareSend(payload, false));
        ASSERT_TRUE(sender->sendPacket(packet)) << i;
    }
    // Once the Hub has answered, it has routed all that came before.
    ASSERT_TRUE(sender->request(sender->manager(), HubMgrNamedProcessListRequest::Message, XmlList(),
                                HubMgrNamedProcessListReply::Message));
    receiver->close();
    const boost::shared_ptr<MsgPacket> post = sender->wait(HubRtrUndeliverableDataPost::Message, 5000);
    ASSERT_TRUE(post);
    XmlList destination;
    ASSERT_TRUE(post->xml().get(destination, HubRtrUndeliverableDataPost::Destination));
    EXPECT_EQ(MsgAddress(destination).id(), receiver->processId());
    EXPECT_FALSE(sender->wait(HubRtrUndeliverableDataPost::Message, 500)) << "one post for all it sent";
}

} // namespace
