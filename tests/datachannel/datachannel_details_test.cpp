// The handshake's details, the rules of each end, and bad input: details that
// do not hold together, and a scripted peer on the Hub that sends packets no
// well-behaved channel sends. Each is refused with its reason, the channel it
// concerns goes down, and nothing else is disturbed.

#include "dcfixture.h"

#include "tracelines.h"

#include "core/extent.h"
#include "core/fixedpath.h"
#include "datachannel/datachannelimplipc.h"
#include "messaging/datapacket.h"
#include "messaging/messaging.h"
#include "messaging/msgcatalogue.h"

#include <QDir>
#include <QFile>

#include <boost/make_shared.hpp>

#include <array>

using namespace Brevi;
using namespace Brevi::Catalogue;
using namespace DcTest;
using BreviTest::traces;
using Sync = Datachannel::Synchronization;

namespace {

class Details : public Channels
{
protected:
    // Send details as another process of this machine would have made them:
    // a window of two 1000-byte buffers.
    static XmlList fromPeer(const MsgAddress& peer, unsigned ackId = 7)
    {
        XmlList details = Datachannel::sendDetails(Datachannel::IPC, MsgAddress(), Sync::Windowed, 1000, 2);
        details.set(DatachannelKey::PeerAddress, peer.toXml());
        details.set(DatachannelKey::IpcAckId, ackId);
        return details;
    }

    template <typename T>
    static T value(const XmlList& list, const QString& key)
    {
        T got = T();
        list.get(got, key);
        return got;
    }
};

TEST_F(Details, CarryTheMachinesDefaultsUnlessTheConfigurationOrTheCallerSaysOtherwise)
{
    runAttached(
        [] {
            const XmlList ipc = Datachannel::sendDetails(Datachannel::IPC, MsgAddress());
            EXPECT_EQ(value<unsigned>(ipc, DatachannelKey::IpcBufferSize), 17408u);
            EXPECT_EQ(value<unsigned>(ipc, DatachannelKey::IpcBufferCount), 160u);
            EXPECT_NE(value<unsigned>(ipc, DatachannelKey::IpcAckId), 0u);
            EXPECT_EQ(value<QString>(ipc, DatachannelKey::IpcSynchronization), "Windowed");
            EXPECT_EQ(value<QString>(ipc, DatachannelKey::IpcCompression), "None");
            XmlList peer;
            ipc.get(peer, DatachannelKey::PeerAddress);
            EXPECT_EQ(MsgAddress(peer), Context::messaging()->physicalAddress());
            const XmlList best = Datachannel::sendDetails(Datachannel::Best, MsgAddress());
            EXPECT_EQ(value<unsigned>(best, DatachannelKey::ShmBufferSize), 66560u);
            EXPECT_EQ(value<unsigned>(best, DatachannelKey::ShmBufferCount), 10u);

            // A size that does not divide the total: the count rounds down.
            XmlList defaults;
            defaults.set(DatachannelKey::IpcBufferSize, 3000u);
            defaults.set(DatachannelKey::IpcSynchronization, "whatever");
            defaults.set(DatachannelKey::IpcCompression, "yes");
            XmlList file;
            file.set(DatachannelKey::ConfigDefault, defaults);
            QDir().mkpath(FixedPath::config());
            QFile cfg(FixedPath::config() + '/' + DatachannelKey::ConfigFile);
            ASSERT_TRUE(cfg.open(QIODevice::WriteOnly));
            cfg.write(file.toBinary());
            cfg.close();
            const XmlList configured = Datachannel::sendDetails(Datachannel::IPC, MsgAddress());
            EXPECT_EQ(value<unsigned>(configured, DatachannelKey::IpcBufferSize), 3000u);
            EXPECT_EQ(value<unsigned>(configured, DatachannelKey::IpcBufferCount), 928u);
            EXPECT_EQ(value<QString>(configured, DatachannelKey::IpcSynchronization), "Windowed");
            EXPECT_EQ(value<QString>(configured, DatachannelKey::IpcCompression), "OnSend");
            const XmlList chosen = Datachannel::sendDetails(Datachannel::IPC, MsgAddress(), Sync::None, 0, 100);
            EXPECT_EQ(value<unsigned>(chosen, DatachannelKey::IpcBufferSize), 27852u);
            EXPECT_EQ(value<unsigned>(chosen, DatachannelKey::IpcBufferCount), 100u);
            EXPECT_TRUE(chosen.first(DatachannelKey::IpcAckId).isNull()) << "no window, no acknowledgements";
        },
        "tester");
}

TEST_F(Details, ThatDoNotHoldTogetherBuildNoChannelAndSayWhy)
{
    runAttached(
        [] {
            const MsgAddress stranger(Context::machineName(), 54321u);
            // A key taken out (no text), given a list, or given a text.
            const std::vector<std::array<const char*, 3>> cases = {
                {"Type", "", "No valid details type supplied"},
                {"Type", "Sideways", "No valid details type supplied"},
                {"Transport", "Pigeon", "No valid transport type supplied"},
                {"PeerAddress", "", "No peer address supplied"},
                {"PeerAddress", "list", "Invalid peer address supplied"},
                {"Type", "Receive", "Invalid receive channel id supplied"},
                {"IpcBufferSize", "big", "Invalid buffer size supplied"},
                {"IpcSynchronization", "Sometimes", "Invalid synchronization supplied"},
                {"IpcAckId", "", "Invalid send channel id supplied"},
                {"Transport", "Memory", "Failed to setup a shared memory datachannel"}};
            for (const auto& c : cases) {
                XmlList details = fromPeer(stranger);
                const QString change(c[1]);
                details.remove(c[0]);
                if (!change.isEmpty())
                    change == "list" ? details.set(c[0], XmlList()) : details.set(c[0], change);
                EXPECT_TRUE(traces([&] { EXPECT_FALSE(Datachannel(never(), details).isValid()); }, TraceAlways, c[2]));
            }
            // Best from another process is IPC while there is no memory
            // transport; its receive details connect the sender, and nothing
            // else does.
            XmlList best = fromPeer(stranger);
            best.set(DatachannelKey::Transport, "Best");
            const Datachannel receiver(never(), best);
            EXPECT_EQ(receiver.transport(), Datachannel::IPC);
            const XmlList offered = Datachannel::sendDetails(Datachannel::IPC, MsgAddress());
            Datachannel sender(never(), offered);
            const QByteArray byte(1, 'b');
            EXPECT_TRUE(traces([&] { EXPECT_EQ(sender.send(Extent(byte)), Datachannel::eNotConnected); }, TraceAlways,
                               "Attempt to get a send buffer on an unconnected channel"));
            EXPECT_TRUE(traces([&] { EXPECT_EQ(sender.connect(offered), Datachannel::eInvalidArgument); }, TraceAlways,
                               "Send details, not receive details"));
            XmlList answer = receiver.receiveDetails();
            answer.set(DatachannelKey::Transport, "Memory");
            EXPECT_TRUE(traces([&] { EXPECT_EQ(sender.connect(answer), Datachannel::eInvalidArgument); }, TraceAlways,
                               "Mismatching transport type"));
            answer.set(DatachannelKey::Transport, "IPC");
            EXPECT_EQ(sender.connect(answer), Datachannel::eOk);
            EXPECT_EQ(sender.send(Extent()), Datachannel::eInvalidArgument);
            EXPECT_EQ(sender.flush(), Datachannel::eOk) << "nothing to send";
        },
        "tester");
}

TEST_F(Details, APeerThatBreaksTheRulesEndsItsOwnChannelOnly)
{
    std::unique_ptr<HubTest::HubClient> rogue = started("rogue");
    runAttached(
        [&] {
            const MsgAddress peer(rogue->machine(), rogue->processId());
            const QByteArray self = Context::messaging()->physicalAddress().binary().text().toQByteArray();
            const auto send = [&](unsigned channel, unsigned mark, const QByteArray& payload,
                                  const QByteArray& authorization = QByteArray()) {
                const boost::shared_ptr<DataPacket> made =
                    boost::make_shared<DataPacket>(BinaryAddress(Extent(self)), BinaryAddress(Extent(rogue->address())),
                                                   authorization, unsigned(payload.size()), channel, mark);
                made->append(Extent(payload));
                made->prepareSend(unsigned(payload.size()), false);
                rogue->sendPacket(made);
            };
            Datachannel overrun(never(), fromPeer(peer));
            Datachannel marked(never(), fromPeer(peer));
            Datachannel sealed(never(), fromPeer(peer), Authorization("secret"));
            Datachannel bystander(never(), fromPeer(peer));
            const QByteArray data(500, 'x');
            // The window of two, the closing sender's two more, and one.
            for (int i = 0; i < 5; ++i)
                send(overrun.id(), DatachannelImplIPC::DataMark, data);
            send(99999, DatachannelImplIPC::DataMark, data);
            send(marked.id(), 7, data);
            send(sealed.id(), DatachannelImplIPC::DataMark, data, "wrong");
            send(bystander.id(), DatachannelImplIPC::DataMark, data);
            char space[500];
            unsigned got = 0;
            EXPECT_EQ(bystander.receive(got, space, sizeof space), Datachannel::eOk);
            EXPECT_EQ(QByteArray(space, int(got)), data);
            EXPECT_TRUE(traces([&] { EXPECT_EQ(overrun.receive(got, space, 1), Datachannel::eReceiveError); },
                               TraceAlways, "Failed to receive data buffer"));
            EXPECT_TRUE(traces([&] { EXPECT_EQ(marked.receive(got, space, 1), Datachannel::eReceiveError); },
                               TraceAlways, "Unknown mark"));
            EXPECT_TRUE(traces([&] { EXPECT_EQ(sealed.receive(got, space, 1), Datachannel::eAuthorizationError); },
                               TraceAlways, "Authorization of the data buffer failed"));
            EXPECT_TRUE(bystander.isValid());

            // Six acknowledgements before a single buffer has gone do not
            // widen a window of two: the scripted peer counts what comes,
            // then stops the sender.
            const boost::shared_ptr<Catch> stop = boost::make_shared<Catch>("DcStopPost");
            const XmlList offered = Datachannel::sendDetails(Datachannel::IPC, MsgAddress(), Sync::Windowed, 1000, 2);
            const unsigned ackId = value<unsigned>(offered, DatachannelKey::IpcAckId);
            Datachannel sender(stop, offered);
            XmlList answer = fromPeer(peer, ackId);
            answer.set(DatachannelKey::Type, DatachannelKey::TypeReceive);
            answer.set(DatachannelKey::ReceiveId, 5u);
            ASSERT_EQ(sender.connect(answer), Datachannel::eOk);
            for (int i = 0; i < 6; ++i)
                send(ackId, DatachannelImplIPC::AckMark, QByteArray());
            // Behind them on the same way: once it is here, so are they.
            rogue->send(self, "DcAcksPost");
            ASSERT_TRUE(Msg::wait("DcAcksPost", 10));
            int buffers = 0;
            std::thread counter([&] {
                while (const boost::shared_ptr<IpcPacket> packet = rogue->next(3000))
                    buffers += packet->type() == eIpcTypeData && static_cast<DataPacket&>(*packet).channelId() == 5;
                rogue->send(self, "DcStopPost");
            });
            const QByteArray bytes(5000, 'y');
            const Extent all(bytes);
            EXPECT_TRUE(traces([&] { EXPECT_EQ(sender.sendPolled(all), Datachannel::eMessagePending); }, TraceAlways,
                               "Acknowledgement for a buffer never sent"));
            counter.join();
            EXPECT_EQ(all.offset(), 4000u) << "the window of two, refilled once";
            EXPECT_EQ(buffers, 4);
        },
        "tester");
}

} // namespace
