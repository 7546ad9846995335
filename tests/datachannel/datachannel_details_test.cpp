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

#include <functional>

using namespace Brevi;
using namespace Brevi::Catalogue;
using namespace DcTest;
using BreviTest::traces;
using Sync = Datachannel::Synchronization;

namespace {

class Details : public Channels
{
protected:
    static boost::shared_ptr<MsgCondition> never() { return boost::make_shared<Deadline>(60); }

    // Send details as another process of this machine would have made them.
    static XmlList fromPeer(const MsgAddress& peer, unsigned size = 1000, unsigned count = 2, unsigned ackId = 7)
    {
        XmlList details;
        details.set(DatachannelKey::Type, DatachannelKey::TypeSend);
        details.set(DatachannelKey::Transport, "IPC");
        details.set(DatachannelKey::PeerAddress, peer.toXml());
        details.set(DatachannelKey::IpcSynchronization, "Windowed");
        details.set(DatachannelKey::IpcAckId, ackId);
        details.set(DatachannelKey::IpcCompression, "None");
        details.set(DatachannelKey::IpcBufferSize, size);
        details.set(DatachannelKey::IpcBufferCount, count);
        return details;
    }

    static QString text(const XmlList& list, const QString& key)
    {
        QString value;
        list.get(value, key);
        return value;
    }

    static unsigned number(const XmlList& list, const QString& key)
    {
        unsigned value = 0;
        list.get(value, key);
        return value;
    }
};

TEST_F(Details, CarryTheMachinesDefaultsUnlessTheConfigurationOrTheCallerSaysOtherwise)
{
    runAttached(
        [] {
            const XmlList ipc = Datachannel::sendDetails(Datachannel::IPC, MsgAddress());
            EXPECT_EQ(number(ipc, DatachannelKey::IpcBufferSize), 17408u);
            EXPECT_EQ(number(ipc, DatachannelKey::IpcBufferCount), 160u);
            EXPECT_NE(number(ipc, DatachannelKey::IpcAckId), 0u);
            EXPECT_EQ(text(ipc, DatachannelKey::IpcSynchronization), "Windowed");
            EXPECT_EQ(text(ipc, DatachannelKey::IpcCompression), "None");
            XmlList peer;
            ipc.get(peer, DatachannelKey::PeerAddress);
            EXPECT_EQ(MsgAddress(peer), Context::messaging()->physicalAddress());
            const XmlList best = Datachannel::sendDetails(Datachannel::Best, MsgAddress());
            EXPECT_EQ(number(best, DatachannelKey::ShmBufferSize), 66560u);
            EXPECT_EQ(number(best, DatachannelKey::ShmBufferCount), 10u);
            EXPECT_EQ(number(best, DatachannelKey::IpcBufferSize), 17408u);
            EXPECT_TRUE(traces([] { EXPECT_TRUE(Datachannel::sendDetails(QString(), 1 << 20, 4096).isEmpty()); },
                               TraceAlways, "No base path supplied"));

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
            EXPECT_EQ(number(configured, DatachannelKey::IpcBufferSize), 3000u);
            EXPECT_EQ(number(configured, DatachannelKey::IpcBufferCount), 928u);
            EXPECT_EQ(text(configured, DatachannelKey::IpcSynchronization), "Windowed");
            EXPECT_EQ(text(configured, DatachannelKey::IpcCompression), "OnSend");
            const XmlList chosen = Datachannel::sendDetails(Datachannel::IPC, MsgAddress(), Sync::None, 0, 100);
            EXPECT_EQ(number(chosen, DatachannelKey::IpcBufferSize), 27852u);
            EXPECT_EQ(number(chosen, DatachannelKey::IpcBufferCount), 100u);
            EXPECT_TRUE(chosen.first(DatachannelKey::IpcAckId).isNull()) << "no window, no acknowledgements";
        },
        "tester");
    std::thread standalone([] {
        Context::run(
            [] {
                EXPECT_TRUE(
                    traces([] { EXPECT_TRUE(Datachannel::sendDetails(Datachannel::IPC, MsgAddress()).isEmpty()); },
                           TraceAlways, "Can only setup IPC datachannels on attached contexts"));
                EXPECT_FALSE(Datachannel::sendDetails(Datachannel::Memory, MsgAddress()).isEmpty());
            },
            Context::TypeStandalone, 0, "standalone");
    });
    standalone.join();
}

TEST_F(Details, ThatDoNotHoldTogetherBuildNoChannelAndSayWhy)
{
    runAttached(
        [] {
            const MsgAddress stranger(Context::machineName(), 54321u);
            struct Case {
                std::function<void(XmlList&)> change;
                const char* reason;
            };
            const std::vector<Case> cases = {
                {[](XmlList& d) { d.remove(DatachannelKey::Type); }, "No valid details type supplied"},
                {[](XmlList& d) { d.set(DatachannelKey::Type, "Sideways"); }, "No valid details type supplied"},
                {[](XmlList& d) { d.set(DatachannelKey::Transport, "Pigeon"); }, "No valid transport type supplied"},
                {[](XmlList& d) { d.remove(DatachannelKey::PeerAddress); }, "No peer address supplied"},
                {[](XmlList& d) { d.set(DatachannelKey::PeerAddress, XmlList()); }, "Invalid peer address supplied"},
                {[](XmlList& d) { d.set(DatachannelKey::Type, DatachannelKey::TypeReceive); },
                 "Invalid receive channel id supplied"},
                {[](XmlList& d) { d.set(DatachannelKey::IpcBufferSize, 0u); }, "Invalid buffer size supplied"},
                {[](XmlList& d) { d.set(DatachannelKey::IpcSynchronization, "Sometimes"); },
                 "Invalid synchronization supplied"},
                {[](XmlList& d) { d.remove(DatachannelKey::IpcAckId); }, "Invalid send channel id supplied"},
                {[](XmlList& d) { d.set(DatachannelKey::Transport, "Memory"); },
                 "Failed to setup a shared memory datachannel"},
            };
            for (const Case& c : cases) {
                XmlList details = fromPeer(stranger);
                c.change(details);
                EXPECT_TRUE(
                    traces([&] { EXPECT_FALSE(Datachannel(never(), details).isValid()); }, TraceAlways, c.reason));
            }
            // Best from another process is IPC while there is no memory
            // transport.
            XmlList best = fromPeer(stranger);
            best.set(DatachannelKey::Transport, "Best");
            EXPECT_EQ(Datachannel(never(), best).transport(), Datachannel::IPC);
        },
        "tester");
}

TEST_F(Details, EachEndDoesOnlyWhatItsRoleAndStateAllow)
{
    runAttached(
        [] {
            unsigned char byte = 0;
            Extent one(&byte, 1);
            EXPECT_EQ(Datachannel().send(one), Datachannel::eDown);

            const MsgAddress self = Context::messaging()->physicalAddress();
            const XmlList offered = Datachannel::sendDetails(Datachannel::IPC, MsgAddress());
            Datachannel sender(never(), offered);
            EXPECT_TRUE(sender.isValid());
            EXPECT_FALSE(sender.connected());
            EXPECT_TRUE(traces([&] { EXPECT_EQ(sender.send(one), Datachannel::eNotConnected); }, TraceAlways,
                               "Attempt to get a send buffer on an unconnected channel"));
            EXPECT_TRUE(traces([&] { EXPECT_EQ(sender.receive(one), Datachannel::eInvalidRequest); }, TraceAlways,
                               "Attempt to receive on send channel"));
            EXPECT_TRUE(traces([&] { EXPECT_EQ(sender.connect(offered), Datachannel::eInvalidArgument); }, TraceAlways,
                               "Send details, not receive details"));
            XmlList other = fromPeer(MsgAddress(Context::machineName(), 54321u));
            other.set(DatachannelKey::Type, DatachannelKey::TypeReceive);
            other.set(DatachannelKey::ReceiveId, 3u);
            other.set(DatachannelKey::Transport, "Memory");
            EXPECT_TRUE(traces([&] { EXPECT_EQ(sender.connect(other), Datachannel::eInvalidArgument); }, TraceAlways,
                               "Mismatching transport type"));

            // A receiving end for the sender's own details, on this thread.
            XmlList mine = offered.clone();
            XmlList stranger = MsgAddress(Context::machineName(), 54321u).toXml();
            mine.set(DatachannelKey::PeerAddress, stranger);
            Datachannel receiver(never(), mine);
            ASSERT_TRUE(receiver.isValid());
            EXPECT_TRUE(sender.receiveDetails().isEmpty());
            EXPECT_TRUE(traces([&] { EXPECT_EQ(receiver.flush(), Datachannel::eInvalidRequest); }, TraceAlways,
                               "Attempt to flush a channel"));
            EXPECT_TRUE(traces([&] { EXPECT_EQ(receiver.releaseBuffer(), Datachannel::eInvalidRequest); }, TraceAlways,
                               "Attempt to release a receive buffer when no buffer is present"));
            XmlList answer = receiver.receiveDetails();
            answer.set(DatachannelKey::PeerAddress, self.toXml());
            EXPECT_EQ(sender.connect(answer), Datachannel::eOk);
            EXPECT_EQ(sender.connect(answer), Datachannel::eInvalidRequest);
            EXPECT_EQ(sender.send(Extent()), Datachannel::eInvalidArgument);
            EXPECT_EQ(sender.flush(), Datachannel::eOk) << "nothing to send";
        },
        "tester");
}

// A packet from the scripted peer, to `to`'s channel `channel`.
boost::shared_ptr<DataPacket> packet(const QByteArray& to, const QByteArray& from, unsigned channel, unsigned mark,
                                     const QByteArray& payload, const QByteArray& authorization = QByteArray())
{
    const boost::shared_ptr<DataPacket> made = boost::make_shared<DataPacket>(
        BinaryAddress(Extent(to)), BinaryAddress(Extent(from)), authorization, unsigned(payload.size()), channel, mark);
    made->append(Extent(payload));
    made->prepareSend(unsigned(payload.size()), false);
    return made;
}

TEST_F(Details, BadPacketsEndTheirOwnChannelOnly)
{
    std::unique_ptr<HubTest::HubClient> rogue = started("rogue");
    runAttached(
        [&] {
            const MsgAddress peer(rogue->machine(), rogue->processId());
            const QByteArray self = Context::messaging()->physicalAddress().binary().text().toQByteArray();
            Datachannel overrun(never(), fromPeer(peer));
            Datachannel marked(never(), fromPeer(peer));
            Datachannel sealed(never(), fromPeer(peer), Authorization("secret"));
            Datachannel bystander(never(), fromPeer(peer));
            const QByteArray data(500, 'x');
            // Twice the window, and the closing sender's two more, and one.
            for (int i = 0; i < 5; ++i)
                rogue->sendPacket(packet(self, rogue->address(), overrun.id(), DatachannelImplIPC::DataMark, data));
            rogue->sendPacket(packet(self, rogue->address(), 99999, 0, data));
            rogue->sendPacket(packet(self, rogue->address(), marked.id(), 7, data));
            rogue->sendPacket(packet(self, rogue->address(), sealed.id(), 0, data, "wrong"));
            rogue->sendPacket(packet(self, rogue->address(), bystander.id(), 0, data));

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
        },
        "tester");
}

TEST_F(Details, AcknowledgementsForBuffersNeverSentDoNotWidenTheWindow)
{
    std::unique_ptr<HubTest::HubClient> rogue = started("rogue");
    runAttached(
        [&] {
            const MsgAddress peer(rogue->machine(), rogue->processId());
            const QByteArray self = Context::messaging()->physicalAddress().binary().text().toQByteArray();
            const boost::shared_ptr<Catch> stop = boost::make_shared<Catch>("DcStopPost");
            const XmlList offered = Datachannel::sendDetails(Datachannel::IPC, MsgAddress(), Sync::Windowed, 1000, 2);
            const unsigned ackId = number(offered, DatachannelKey::IpcAckId);
            Datachannel sender(stop, offered);
            XmlList answer = fromPeer(peer, 1000, 2, ackId);
            answer.set(DatachannelKey::Type, DatachannelKey::TypeReceive);
            answer.set(DatachannelKey::ReceiveId, 5u);
            ASSERT_EQ(sender.connect(answer), Datachannel::eOk);
            // Six acknowledgements before a single buffer has gone; then the
            // scripted peer counts what comes and stops the sender.
            for (int i = 0; i < 6; ++i)
                rogue->sendPacket(packet(self, rogue->address(), ackId, DatachannelImplIPC::AckMark, QByteArray()));
            int buffers = 0;
            std::thread counter([&] {
                while (rogue->next(3000))
                    ++buffers;
                rogue->send(self, "DcStopPost");
            });
            const QByteArray data(5000, 'y');
            const Extent all(data);
            EXPECT_TRUE(traces([&] { EXPECT_EQ(sender.sendPolled(all), Datachannel::eMessagePending); }, TraceAlways,
                               "Acknowledgement for a buffer never sent"));
            counter.join();
            EXPECT_EQ(all.offset(), 4000u) << "the window of two, refilled once";
            EXPECT_EQ(buffers, 4);
        },
        "tester");
}

} // namespace
