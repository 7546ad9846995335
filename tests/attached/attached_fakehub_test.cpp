// The attached handler against a Hub played by the test, for what a real Hub
// never does: early messages, wrong replies, oversized packets, garbage, a
// link cut in mid-packet; and against no Hub at all.

#include "attachedtest.h"

#include "core/xmllistiterator.h"
#include "messaging/datapacket.h"
#include "messaging/ipcpacketlayout.h"
#include "messaging/messaging.h"
#include "messaging/msgaddress.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msgpacket.h"
#include "messaging/msgpending.h"
#include "sockets/tcpsocketselect.h"

#include <QRegularExpression>

#include <boost/make_shared.hpp>

#include <chrono>
#include <thread>

#include <unistd.h>

using namespace Brevi;
using namespace Brevi::Catalogue;
using namespace AttachedTest;

namespace {

// A context of a type that has no messaging of its own: the test makes its
// Messaging directly, as a Context would.
const Context::Type Bare = Context::Type(7);
const unsigned ProcessId = 16;

class AttachedFakeHub : public ::testing::Test
{
protected:
    AttachedFakeHub() { useHubPort(moHub.port()); }

    // Runs `script` as the Hub, on a thread of its own, while `test` runs in
    // a context on this thread.
    void play(const std::function<void()>& script, const std::function<void()>& test, Context::Type type = Bare)
    {
        std::thread hub(script);
        EXPECT_TRUE(runContext(test, type, 0, "fake hub test"));
        hub.join();
    }

    static boost::shared_ptr<Messaging> attached(MachineName& machine, unsigned flags = 0, const QString& name = "svc",
                                                 const QString& group = "grp",
                                                 Context::Type type = Context::TypeAttached)
    {
        return boost::make_shared<Messaging>(machine, Context::id(), type, flags, "fake title", group, name);
    }

    static MsgAddress from(unsigned id) { return MsgAddress(MachineName(FakeHub::machine()), id); }

    BreviTest::TestHome moHome;
    FakeHub moHub;
};

bool has(const XmlList& body, const QString& key) { return !body.first(key).isNull(); }

template <typename T>
T value(const XmlList& body, const QString& key, T otherwise = T())
{
    T found = otherwise;
    return body.get(found, key) ? found : otherwise;
}

TEST_F(AttachedFakeHub, AttachSaysWhoItIsAndKeepsTheMessagesThatCameBeforeTheReplyInTheirPlace)
{
    boost::shared_ptr<MsgPacket> request;
    boost::shared_ptr<MsgPacket> detach;
    boost::shared_ptr<IpcPacket> data;
    bool closedByProcess = false;
    play(
        [&] {
            ASSERT_TRUE(moHub.accept());
            request = moHub.wait(HubMgrAttachRequest::Message);
            ASSERT_TRUE(request);
            moHub.send(FakeHub::process(40), FakeHub::process(ProcessId), "FirstEarlyPost");
            moHub.send(FakeHub::process(41), FakeHub::process(ProcessId), "SecondEarlyPost");
            moHub.replyAttach(ProcessId, request->cookie());
            moHub.send(FakeHub::process(40), FakeHub::process(ProcessId), "LatePost");
            data = moHub.link().next(15000);
            detach = moHub.wait(HubRtrConnectionDetachPost::Message, 15000);
            // The process shuts its side after the post, and waits for the
            // Hub's close.
            closedByProcess = moHub.finish();
        },
        [&] {
            MachineName machine;
            const boost::shared_ptr<Messaging> messaging = attached(
                machine, Context::FlagNotifyReady | Context::FlagDoNotWaitAtStartOfDay | Context::FlagPersistent);
            ASSERT_TRUE(messaging->valid());
            EXPECT_EQ(machine.fullName(), FakeHub::machine());
            EXPECT_EQ(messaging->physicalAddress(), MsgAddress(machine, ProcessId));
            EXPECT_EQ(messaging->address(), MsgAddress(machine, "svc", "grp"));
            EXPECT_FALSE(messaging->parentAddress());
            EXPECT_NE(messaging->socket(), -1);

            IpcResult result = eIpcResultClosed;
            for (const char* name : {"FirstEarlyPost", "SecondEarlyPost", "LatePost"}) {
                const Msg message = messaging->receive(result, 10000);
                EXPECT_EQ(message.name(), name);
            }
            // Nothing queued: at once.
            EXPECT_TRUE(messaging->flush(result));
            EXPECT_EQ(result, eIpcResultOk);
            // A channel's packet leaves by the same link.
            const boost::shared_ptr<DataPacket> packet = boost::make_shared<DataPacket>(
                from(40).binary(), messaging->physicalAddress().binary(), QByteArray(), 64, 9, 3);
            packet->append(Extent(QByteArray("channel bytes")));
            ASSERT_TRUE(packet->prepareSend(packet->filled(), false));
            ASSERT_TRUE(messaging->sendPacket(packet));
            EXPECT_TRUE(messaging->flushData(result, FakeHub::machine(), 40));
            EXPECT_EQ(result, eIpcResultOk);
            messaging->release();
            EXPECT_EQ(messaging->socket(), -1);
        });

    ASSERT_TRUE(request);
    const XmlList body = request->xml();
    EXPECT_EQ(request->destination().text().toQByteArray(), "3/1");
    EXPECT_TRUE(request->source().isEmpty());
    EXPECT_EQ(value<QString>(body, HubMgrAttachRequest::Type), "Attached");
    EXPECT_EQ(value<QString>(body, HubMgrAttachRequest::Title), "fake title");
    EXPECT_EQ(value<unsigned>(body, HubMgrAttachRequest::OSPid), unsigned(::getpid()));
    EXPECT_EQ(value<unsigned>(body, HubMgrAttachRequest::ContextId), 1u);
    EXPECT_EQ(value<QString>(body, HubMgrAttachRequest::Name), "svc");
    EXPECT_EQ(value<QString>(body, HubMgrAttachRequest::Group), "grp");
    EXPECT_TRUE(value<bool>(body, HubMgrAttachRequest::NotifyReady));
    EXPECT_TRUE(value<bool>(body, HubMgrAttachRequest::DoNotWaitAtStartOfDay));
    EXPECT_TRUE(value<bool>(body, HubMgrAttachRequest::Persistent));
    EXPECT_FALSE(has(body, HubMgrAttachRequest::WaitForDisconnect));
    EXPECT_FALSE(has(body, HubMgrAttachRequest::WaitForEndOfDay));

    ASSERT_TRUE(data);
    ASSERT_EQ(data->type(), eIpcTypeData);
    const boost::shared_ptr<DataPacket> channel = boost::static_pointer_cast<DataPacket>(data);
    EXPECT_EQ(channel->channelId(), 9u);
    ASSERT_TRUE(channel->prepareReceive());
    EXPECT_EQ(channel->data().toQByteArray(), "channel bytes");

    ASSERT_TRUE(detach);
    EXPECT_EQ(detach->destination().text().toQByteArray(), FakeHub::router());
    EXPECT_TRUE(closedByProcess);
}

TEST_F(AttachedFakeHub, AWrongOrMissingReplyLeavesAMessagingThatFailsCleanly)
{
    // Each a Hub that answers wrongly: from another id than the manager's,
    // without ProcessId, with ProcessId 0, with a group and no name, not at
    // all.
    struct Case {
        QByteArray source;
        bool processId;
        unsigned id;
        bool reply;
    };
    const QList<Case> cases{{FakeHub::process(5), true, ProcessId, true},
                            {FakeHub::manager(), false, ProcessId, true},
                            {FakeHub::manager(), true, 0, true},
                            {FakeHub::manager(), true, ProcessId, false}};
    for (const Case& wrong : cases) {
        SCOPED_TRACE(wrong.source.toStdString() + " " + std::to_string(wrong.id));
        boost::shared_ptr<MsgPacket> request;
        play(
            [&] {
                ASSERT_TRUE(moHub.accept());
                request = moHub.wait(HubMgrAttachRequest::Message);
                XmlList body;
                if (wrong.processId)
                    body.set(HubMgrAttachReply::ProcessId, wrong.id);
                body.set(HubMgrAttachReply::MachineName, FakeHub::machine());
                if (wrong.reply)
                    moHub.send(wrong.source, FakeHub::process(ProcessId), HubMgrAttachReply::Message, body);
                else
                    moHub.link().close();
                moHub.finish();
            },
            [&] {
                MachineName machine;
                const boost::shared_ptr<Messaging> messaging =
                    attached(machine, 0, QString(), "ignored", Context::TypeMonitored);
                EXPECT_FALSE(messaging->valid());
                EXPECT_EQ(messaging->socket(), -1);
                EXPECT_FALSE(messaging->send(Msg(MsgAddress(eMsgAddressHub, 1), "AnyPost")));
                IpcResult result = eIpcResultOk;
                EXPECT_EQ(messaging->receive(result, 100).lastError(), eMsgResultIpcError);
            });
        ASSERT_TRUE(request);
        // No name: neither name nor group is sent.
        EXPECT_EQ(value<QString>(request->xml(), HubMgrAttachRequest::Type), "Monitored");
        EXPECT_FALSE(has(request->xml(), HubMgrAttachRequest::Name));
        EXPECT_FALSE(has(request->xml(), HubMgrAttachRequest::Group));
    }
}

TEST_F(AttachedFakeHub, BeforeEnableAPacketAboveTheLimitEndsTheLinkAndTheOwnerWhoAskedIsTold)
{
    play(
        [&] {
            ASSERT_TRUE(moHub.accept());
            ASSERT_TRUE(moHub.attach(ProcessId));
            ASSERT_TRUE(moHub.wait("BeforePost"));
            // 65,536 bytes pass; one more does not. The names are of one
            // length, so only the body makes the difference.
            const auto packet = [](const char* name, int blob) {
                XmlList body;
                body.set("Blob", QString(blob, QChar('x')));
                return boost::make_shared<MsgPacket>(BinaryAddress(Extent(FakeHub::process(ProcessId))),
                                                     BinaryAddress(Extent(FakeHub::process(40))), QByteArray(), name,
                                                     QString(), body, 1, false);
            };
            const int room = int(IpcPacketLayout::InitialMaximumSize) - int(packet("FitsPost", 0)->size());
            const boost::shared_ptr<MsgPacket> fits = packet("FitsPost", room);
            const boost::shared_ptr<MsgPacket> huge = packet("HugePost", room + 1);
            EXPECT_EQ(fits->size(), IpcPacketLayout::InitialMaximumSize);
            moHub.link().sendPacket(fits);
            moHub.link().sendPacket(huge);
            moHub.finish();
        },
        [&] {
            MachineName machine;
            const boost::shared_ptr<Messaging> messaging = attached(machine);
            ASSERT_TRUE(messaging->valid());
            messaging->notifyIpcClosed();
            ASSERT_TRUE(messaging->send(Msg(from(40), "BeforePost")));
            IpcResult result = eIpcResultOk;
            EXPECT_EQ(messaging->receive(result, 10000).name(), "FitsPost");
            const Msg told = messaging->receive(result, 10000);
            EXPECT_EQ(told.name(), MsgIpcClosedPost::Message);
            EXPECT_EQ(told.source(), messaging->address());
            EXPECT_EQ(messaging->socket(), -1);
            EXPECT_FALSE(messaging->send(Msg(from(40), "AfterPost")));
            // No thread left to serve: the next wait ends at once.
            EXPECT_EQ(messaging->receive(result, -1).lastError(), eMsgResultIpcError);
            EXPECT_EQ(result, eIpcResultClosed);
        });
}

TEST_F(AttachedFakeHub, GarbageOrALinkCutInMidPacketEndsOnlyTheLink)
{
    for (const bool garbage : {true, false}) {
        SCOPED_TRACE(garbage ? "garbage" : "cut in mid-packet");
        play(
            [&] {
                ASSERT_TRUE(moHub.accept());
                ASSERT_TRUE(moHub.attach(ProcessId));
                // Only once the process has the reply: garbage right behind
                // it would end the link during the attach.
                ASSERT_TRUE(moHub.wait("AttachedPost"));
                if (garbage) {
                    moHub.link().sendRaw(QByteArray("this is no packet at all, not even its magic"));
                } else {
                    const MsgPacket whole(BinaryAddress(Extent(FakeHub::process(ProcessId))),
                                          BinaryAddress(Extent(FakeHub::process(40))), QByteArray(), "HalfPost",
                                          QString(), XmlList(), 1, false);
                    const Extent bytes = whole.buffer();
                    moHub.link().sendRaw(
                        QByteArray(reinterpret_cast<const char*>(bytes.data()), int(bytes.size() / 2)));
                    moHub.link().close();
                }
                moHub.finish();
            },
            [&] {
                MachineName machine;
                const boost::shared_ptr<Messaging> messaging = attached(machine);
                ASSERT_TRUE(messaging->valid());
                ASSERT_TRUE(messaging->send(Msg(from(40), "AttachedPost")));
                Msg::HubDisconnected gone(messaging);
                EXPECT_FALSE(gone.done());
                IpcResult result = eIpcResultOk;
                EXPECT_EQ(messaging->receive(result, 10000).lastError(), eMsgResultIpcError);
                EXPECT_EQ(messaging->socket(), -1);
                EXPECT_FALSE(messaging->valid());
                EXPECT_TRUE(gone.done());
                EXPECT_EQ(gone.result(), eMsgResultExit);
                EXPECT_FALSE(messaging->send(Msg(from(40), "AfterPost")));
            });
    }
}

TEST_F(AttachedFakeHub, OnceEnabledAnAttachedContextTakesLargeMessages)
{
    boost::shared_ptr<MsgPacket> answer;
    play(
        [&] {
            ASSERT_TRUE(moHub.accept());
            ASSERT_TRUE(moHub.attach(ProcessId));
            ASSERT_TRUE(moHub.wait(HubMgrTraceBufferRequest::Message));
            ASSERT_TRUE(moHub.send(FakeHub::manager(), FakeHub::process(ProcessId), HubMgrTraceBufferReply::Message));
            ASSERT_TRUE(moHub.wait(HubMgrConnectionEnableRequest::Message));
            // The leave to talk and a first message in one write, which the
            // process reads in one go.
            const auto bytes = [](const QByteArray& source, const QString& name) {
                const MsgPacket packet(BinaryAddress(Extent(FakeHub::process(ProcessId))),
                                       BinaryAddress(Extent(source)), QByteArray(), name, QString(), XmlList(), 1,
                                       false);
                return QByteArray(reinterpret_cast<const char*>(packet.buffer().data()), int(packet.size()));
            };
            ASSERT_TRUE(moHub.link().sendRaw(bytes(FakeHub::router(), HubRtrConnectionEnableReply::Message) +
                                             bytes(FakeHub::process(40), "EarlyPost")));
            // Nothing more comes until the process has found that message.
            ASSERT_TRUE(moHub.wait("FoundPost", 15000));
            XmlList body;
            body.set("Blob", QString(300000, QChar('y')));
            moHub.send(FakeHub::process(40), FakeHub::process(ProcessId), "LargePost", body, "big");
            answer = moHub.wait("LargeReply", 15000);
            moHub.finish();
        },
        [&] {
            ASSERT_EQ(Context::type(), Context::TypeAttached);
            EXPECT_EQ(Context::machineName().fullName(), FakeHub::machine());
            // A loop that polls the link finds the message that came behind
            // the reply, though its bytes left the socket with the reply's.
            MsgPending pending;
            TCPSocketSelect select;
            ASSERT_TRUE(pending.select(select));
            EXPECT_EQ(select.wait(5000), eTCPErrorNone);
            EXPECT_TRUE(pending.pending(select));
            EXPECT_TRUE(waitFor("EarlyPost"));
            EXPECT_TRUE(Msg(from(40), "FoundPost").send());
            const Msg large = waitFor("LargePost");
            ASSERT_TRUE(large);
            EXPECT_EQ(large.getString("Blob").size(), 300000);
            EXPECT_TRUE(large.reply("LargeReply", XmlList(), eMsgDoNotCompress, true));
        },
        Context::TypeAttached);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->cookie(), "big");
    EXPECT_EQ(answer->destination().text().toQByteArray(), FakeHub::process(40));
}

TEST_F(AttachedFakeHub, WithNoHubASingleAttemptIsMadeWhenAsked)
{
    // Nobody listens on this port.
    useHubPort(HubTest::freePort());
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(runContext([] { ADD_FAILURE() << "the context came up"; }, Context::TypeAttached,
                            Context::FlagAttachOnce, "lonely"));
    // A generous bound: the retrying attach would take two minutes.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(60));
    const QString trace = traceFiles(moHome.trace());
    EXPECT_EQ(trace.count("Failed to co"), 1) << trace.toStdString();
    EXPECT_TRUE(trace.contains("Failed to attach to Hub"));
    EXPECT_FALSE(trace.contains(QRegularExpression("Wait \\d+ msec"))) << "it paused for another attempt";
}

} // namespace
