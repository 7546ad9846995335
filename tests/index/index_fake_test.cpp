// The link against a scripted server: replies in odd pieces and orders, and
// the faults a real server does not make. Every call must come back, with a
// clear result.

#include "indextest.h"

#include "attachedtest.h"

#include "messaging/msg.h"
#include "messaging/timer.h"

#include "tracelines.h"

#include <boost/make_shared.hpp>

using namespace Brevi;
using namespace IndexTest;
using BreviTest::traces;

namespace {

class FakeLink : public IndexFixture
{};

// Done when the timer's post of `name` arrives: a thread's own reason to stop
// waiting on the index.
class TimerFired : public MsgCondition
{
public:
    explicit TimerFired(const QString& name)
        : msName(name)
        , mptHandler(boost::make_shared<MsgHandlerFunction>([this](const Msg&) {
            setResult(eMsgResultTimeout);
            setDone(true);
            return eMsgResultHandled;
        }))
    {
        Msg::addHandler(msName, mptHandler);
    }
    ~TimerFired() override { Msg::removeHandler(msName, mptHandler); }

private:
    QString msName;
    MsgHandlerPointer mptHandler;
};

TEST_F(FakeLink, ASplitReplyReadsAsOneOldRepliesAreDroppedAndUnknownNamesKept)
{
    attached([] {
        FakeServer server([](FakeServer& s) {
            ASSERT_TRUE(s.serveOptions());
            const std::string seq = FakeServer::sequence(s.command());
            s.send("IA(Seq(\"1\"),St(\"T\"));");
            s.trickle("  IS ( Seq(\"" + seq +
                      "\") , St(T2), Zz(\"skip\"), Hi( 7 , 8 ),"
                      "Fd(\"a\\\"b\",\"c:\\\\x, (y) \xc3\xa9\"),Fd()) ;");
            s.send("XX(Seq(\"" + seq + "\"),St(\"T\"));SM(Seq(\"" + seq + "\"),Fd(\"n\",\"1\"));SM(Seq(\"" + seq +
                   "\"),Fd(\"n\",\"2\"));");
            s.command();
            s.close();
        });
        LuceneComm link;
        NeverDone never;
        ASSERT_TRUE(link.connect(never, LuceneComm::FieldOptions("n"), server.port(), false));
        LuceneComm::Reply found;
        ASSERT_TRUE(link.indexSearch(never, LuceneComm::Command(), found));
        EXPECT_EQ(found.response(), LuceneComm::eResponseIndexSearch);
        EXPECT_EQ(found.matches(), 2u);
        EXPECT_EQ(found.status(), LuceneComm::eStatusSuccess);
        EXPECT_EQ(found.field(nullptr, "a\"b"), QString::fromUtf8("c:\\x, (y) \xc3\xa9"));
        LuceneComm::Clause clause;
        QStringList values;
        ASSERT_TRUE(found.firstClause(clause, values));
        EXPECT_EQ(clause, LuceneComm::eClauseStatus);
        ASSERT_TRUE(found.nextClause(clause, values));
        EXPECT_EQ(clause, LuceneComm::eClauseHits);
        EXPECT_EQ(values, (QStringList{"7", "8"}));
        EXPECT_EQ(found.clauses().size(), 4);

        LuceneComm::Reply unknown;
        ASSERT_TRUE(link.reply(never, unknown));
        EXPECT_EQ(unknown.response(), LuceneComm::eResponseUnknown);
        EXPECT_TRUE(unknown.responseName().isEmpty());
        EXPECT_EQ(unknown.status(), LuceneComm::eStatusSuccess);

        QList<LuceneComm::Reply> page;
        ASSERT_TRUE(link.searchResultList(never, page, found, false));
        ASSERT_EQ(page.size(), 2);
        EXPECT_EQ(page.at(1).field(nullptr, "n"), "2");
        EXPECT_EQ(link.searchResultsLeft(never, found), 0u);
        EXPECT_FALSE(link.searchResultList(never, page, found, false));
        link.disconnect(false);
        EXPECT_FALSE(link.validConnection());
    });
}

TEST_F(FakeLink, FaultsEndTheCallWithAClearResultAndNeverHang)
{
    struct Fault {
        const char* what;
        // What the server does with the noop of sequence `seq`.
        std::function<void(FakeServer&, const std::string& seq)> act;
        const char* traced;
        bool linkStays;
        // The status of the last command that completed: the options, or the refusal.
        LuceneComm::Status status;
    };
    const Fault faults[] = {
        {"malformed", [](FakeServer& s, const std::string&) { s.send("NP(Seq(\"x1\"),St(\"T\"));"); },
         "Malformed reply", false, LuceneComm::eStatusSuccess},
        {"not a reply", [](FakeServer& s, const std::string&) { s.send("garbage;;)\"\n"); }, "Malformed reply", false,
         LuceneComm::eStatusSuccess},
        {"lost reply",
         [](FakeServer& s, const std::string& seq) {
             s.send("NP(Seq(\"" + std::to_string(std::stoull(seq) + 5) + "\"),St(\"T\"));");
         },
         "Lost reply for sequence", false, LuceneComm::eStatusSuccess},
        {"closed mid-reply",
         [](FakeServer& s, const std::string& seq) {
             s.send("NP(Seq(\"" + seq + "\"),St(\"T");
             s.close();
         },
         "Error while reading", false, LuceneComm::eStatusSuccess},
        {"refused",
         [](FakeServer& s, const std::string& seq) { s.send("NP(Seq(\"" + seq + "\"),St(\"FM\",\"no room\"));"); },
         "The server refused", true, LuceneComm::eStatusOther},
        {"silent while the thread's condition fires", [](FakeServer&, const std::string&) {}, "", true,
         LuceneComm::eStatusSuccess},
    };
    attached([&] {
        for (const Fault& fault : faults) {
            SCOPED_TRACE(fault.what);
            FakeServer server([&fault](FakeServer& s) {
                ASSERT_TRUE(s.serveOptions());
                fault.act(s, FakeServer::sequence(s.command()));
                s.command(15000);
                s.close();
            });
            LuceneComm link;
            NeverDone never;
            ASSERT_TRUE(link.connect(never, LuceneComm::FieldOptions(), server.port(), false));
            TimerFired fired("IndexTestTimeoutPost");
            ASSERT_TRUE(Timer::set("IndexTestTimeoutPost", 300));
            const unsigned long long start = HubTest::steadyMs();
            if (*fault.traced)
                EXPECT_TRUE(traces([&] { EXPECT_FALSE(link.indexNoop(fired)); }, TraceAlways, fault.traced));
            else
                EXPECT_FALSE(link.indexNoop(fired));
            EXPECT_LT(HubTest::steadyMs() - start, 5000u);
            EXPECT_EQ(link.validConnection(), fault.linkStays);
            EXPECT_EQ(link.lastStatus(), fault.status);
            if (fault.status == LuceneComm::eStatusOther) {
                EXPECT_EQ(link.lastReason(), "no room");
            }
            Timer::cancel("IndexTestTimeoutPost");
            link.disconnect(false);
        }
    });
}

TEST_F(FakeLink, ConnectNeedsAnAttachedContextAndAServerThatListens)
{
    const bool ran = AttachedTest::runContext(
        [] {
            LuceneComm link;
            NeverDone never;
            EXPECT_TRUE(traces([&] { EXPECT_FALSE(link.connect(never, LuceneComm::FieldOptions(), 1, false)); },
                               TraceAlways, "Can only connect in an Attached context"));
        },
        Context::TypeStandalone, 0, "standalone");
    EXPECT_TRUE(ran);
    attached([] {
        LuceneComm link;
        NeverDone never;
        const unsigned port = HubTest::freePort();
        const unsigned long long start = HubTest::steadyMs();
        EXPECT_FALSE(link.connect(never, LuceneComm::FieldOptions(), port, false, 500));
        EXPECT_GE(HubTest::steadyMs() - start, 400u);
        EXPECT_FALSE(link.validConnection());
        EXPECT_FALSE(link.indexNoop(never));
    });
}

} // namespace
