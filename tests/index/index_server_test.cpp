// The client against the real server, started by SpawnLucene: real indexing
// and searching, the queued commands, and the server's own end.

#include "indextest.h"

#include "attachedtest.h"

#include "core/configlocal.h"
#include "core/context.h"
#include "core/fixedpath.h"

#include "tracelines.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QThread>

#include <csignal>

using namespace Brevi;
using namespace IndexTest;
using BreviTest::traces;

namespace {

typedef LuceneComm::Options Options;
typedef LuceneComm::Command Command;

const qint64 BaseTime = 1700000000;

LuceneComm::FieldOptions fileFields()
{
    LuceneComm::FieldOptions fields("name");
    fields.add("name", Options("A7"));
    fields.add("path", Options(""));
    fields.add("size", Options("V2N"));
    fields.add("count", Options("V1"));
    fields.add("when", Options("V3"));
    fields.add("kind", Options("V4"));
    fields.add("hidden", Options("V5"));
    fields.add("note", Options("A1U"));
    fields.add("blob", Options("B"));
    fields.addTag("W", Options("A3"));
    return fields;
}

// Document i of the test set: every field type, every option.
Command document(const LuceneComm::FieldOptions& fields, int i)
{
    Command command(fields);
    command.addField("path", QString("/d/%1").arg(i));
    command.addField("name", i % 3 == 0 ? QString("Report_%1.PDF").arg(i) : QString("file%1.txt").arg(i));
    command.addField("size", QString::number(i * 100 - 500));
    command.addField("count", unsigned(i));
    command.addField("when", QDateTime::fromSecsSinceEpoch(BaseTime + i * 3600, Qt::UTC));
    command.addField("kind", unsigned(i % 4));
    command.addField("hidden", i % 2 == 1);
    command.addField("note", QString("the quick brown fox %1").arg(i));
    command.addField("blob", QString("b%1").arg(i));
    command.addField("words", QString("Tagged Words %1").arg(i), "W");
    return command;
}

// Every hit of a search, all pages taken; the values of `field` in order.
QStringList searchAll(LuceneComm& link, const Command& query, const QString& field, bool prefetch = false,
                      QList<LuceneComm::Reply>* hits = nullptr)
{
    NeverDone never;
    LuceneComm::Reply first;
    EXPECT_TRUE(link.indexSearch(never, query, first)) << link.lastReason().toStdString();
    QStringList values;
    QList<LuceneComm::Reply> all;
    while (link.searchResultsLeft(never, first)) {
        const int before = all.size();
        if (!link.searchResultList(never, all, first, prefetch)) {
            ADD_FAILURE() << "a page did not come whole";
            break;
        }
        EXPECT_LE(all.size() - before, int(query.resultsPerPage() ? query.resultsPerPage() : all.size()));
    }
    for (const LuceneComm::Reply& hit : all)
        values << hit.field(nullptr, field);
    if (hits)
        *hits = all;
    return values;
}

int count(LuceneComm& link, const Command& query) { return searchAll(link, query, "path").size(); }

class RealServer : public IndexFixture
{};

TEST_F(RealServer, EveryFieldTypeIsIndexedSearchedSortedPagedDeletedAndKeptAcrossARestart)
{
    const QString indexDirectory = moHome.path() + "/index";
    attached([&] {
        const LuceneComm::FieldOptions fields = fileFields();
        NeverDone never;
        Command open;
        open.addIndexList(QString(), {indexDirectory});
        {
            Server server;
            ASSERT_TRUE(server.start());
            LuceneComm link;
            ASSERT_TRUE(server.connect(link, fields, true));
            ASSERT_TRUE(link.indexSelect(never, open));
            for (int i = 0; i < 30; ++i)
                ASSERT_TRUE(i % 2 ? link.indexAddQueued(never, document(fields, i))
                                  : link.indexAdd(never, document(fields, i)));

            // A term on a whole-value field; every stored field comes back as given.
            Command byPath(fields);
            byPath.addField("path", "/d/7");
            QList<LuceneComm::Reply> hits;
            ASSERT_EQ(searchAll(link, byPath, "name", false, &hits), QStringList{"file7.txt"});
            const LuceneComm::Reply& hit = hits.first();
            EXPECT_EQ(hit.field(nullptr, "size"), "200");
            EXPECT_EQ(hit.field(nullptr, "count"), "0000000007");
            EXPECT_EQ(hit.field(nullptr, "when"), LuceneComm::padDate(int(BaseTime + 7 * 3600)));
            EXPECT_EQ(hit.field(nullptr, "kind"), "03");
            EXPECT_EQ(hit.field(nullptr, "hidden"), "1");
            EXPECT_EQ(hit.field(nullptr, "blob"), "b7");
            bool found = true;
            hit.field(&found, "note");
            EXPECT_FALSE(found) << "a field marked not stored came back";

            struct Case {
                const char* what;
                std::function<void(Command&)> build;
                int hits;
            };
            const QDateTime base = QDateTime::fromSecsSinceEpoch(BaseTime, Qt::UTC);
            const Case cases[] = {
                {"file-name words", [](Command& c) { c.addField("name", "report"); }, 10},
                {"query text on the default field", [](Command& c) { c.addField("", "report AND pdf"); }, 10},
                {"analysed, not stored", [](Command& c) { c.addField("note", "fox AND 7"); }, 1},
                {"a tag's analyzer", [](Command& c) { c.addField("words", "Words", "W"); }, 30},
                {"a tag's analyzer keeps case", [](Command& c) { c.addField("words", "words", "W"); }, 0},
                {"numeric range", [](Command& c) { c.addRange("size", "0", "1000"); }, 11},
                {"open numeric range, negative numbers", [](Command& c) { c.addRange("size", "", "-1"); }, 5},
                {"padded range", [](Command& c) { c.addRange("count", 10u, 19u); }, 10},
                {"date range", [&](Command& c) { c.addRange("when", base.addSecs(3600), base.addSecs(3 * 3600)); }, 3},
                {"enumeration", [](Command& c) { c.addField("kind", 3u); }, 7},
                {"boolean", [](Command& c) { c.addField("hidden", true); }, 15},
                {"every document with the field", [](Command& c) { c.addAll("kind"); }, 30},
                {"must and must not",
                 [](Command& c) {
                     c.addField("name", "report");
                     c.mustNotContainClauseList();
                     c.addField("hidden", true);
                     c.endClauseList();
                 },
                 5},
                {"should: any of",
                 [](Command& c) {
                     c.shouldContainClauseList();
                     c.addField("path", "/d/1");
                     c.addField("path", "/d/2");
                     c.addField("path", "/d/99");
                     c.endClauseList();
                 },
                 2},
                {"pattern on a whole value", [](Command& c) { c.addField("path", "/d/2?"); }, 10},
                {"nothing", [](Command& c) { c.addField("path", "/nowhere"); }, 0},
            };
            for (const Case& each : cases) {
                Command query(fields);
                each.build(query);
                EXPECT_EQ(count(link, query), each.hits) << each.what;
            }

            // Sorted by a numeric field, in pages of 4, asked ahead or on demand.
            QStringList sizes;
            for (int i = 0; i < 30; ++i)
                sizes << QString::number(i * 100 - 500);
            for (bool prefetch : {false, true}) {
                Command sorted(fields);
                sorted.addSort(QString(), "size");
                sorted.addReturn("size");
                sorted.resultsPerPage(4);
                EXPECT_EQ(searchAll(link, sorted, "size", prefetch), sizes) << "prefetch " << prefetch;
            }
            Command firstFive(fields);
            firstFive.addSort(QString(), "count");
            firstFive.maximumResults(5);
            firstFive.resultsPerPage(2);
            EXPECT_EQ(searchAll(link, firstFive, "path"), (QStringList{"/d/0", "/d/1", "/d/2", "/d/3", "/d/4"}));
            Command kinds(fields);
            kinds.addReturn("kind");
            kinds.returnOptions("D");
            kinds.addSort(QString(), "kind");
            EXPECT_EQ(searchAll(link, kinds, "kind"), (QStringList{"00", "01", "02", "03"}));

            // Deletes, queued and answered, then the index is committed and closed.
            Command hidden(fields);
            hidden.addField("hidden", true);
            ASSERT_TRUE(link.indexDeleteQueryQueued(never, hidden));
            Command first(fields);
            first.addField("path", "/d/0");
            ASSERT_TRUE(link.indexDeleteQuery(never, first));
            EXPECT_EQ(count(link, Command(fields)), 14);
            ASSERT_TRUE(link.indexCommit(never));
            ASSERT_TRUE(link.indexOptimise(never));
            ASSERT_TRUE(link.indexClose(never));
            EXPECT_FALSE(link.indexNoop(never) && link.indexAdd(never, document(fields, 99)))
                << "a document was added with no index selected";
            EXPECT_TRUE(server.stop(link));
        }
        // A new server finds what the first one kept.
        Server server;
        ASSERT_TRUE(server.start());
        LuceneComm link;
        ASSERT_TRUE(server.connect(link, fields));
        ASSERT_TRUE(link.indexSelect(never, open));
        Command all(fields);
        all.addSort(QString(), "count");
        EXPECT_EQ(searchAll(link, all, "path").mid(0, 3), (QStringList{"/d/2", "/d/4", "/d/6"}));
        EXPECT_EQ(count(link, all), 14);
        EXPECT_TRUE(server.stop(link));
    });
}

TEST_F(RealServer, QueuedCommandsGetNoReplyAndAnyTextRoundTrips)
{
    const QString indexDirectory = moHome.path() + "/index";
    attached([&] {
        LuceneComm::FieldOptions fields("name");
        fields.add("name", Options("A1"));
        fields.add("size", Options("V2N"));
        NeverDone never;
        Server server;
        ASSERT_TRUE(server.start(TraceVerbose));
        LuceneComm link;
        ASSERT_TRUE(server.connect(link, fields));
        Command open;
        open.addIndexList(QString(), {indexDirectory});
        ASSERT_TRUE(link.indexSelect(never, open));

        // Were the queued commands answered, their replies would come first.
        for (int i = 0; i < 200; ++i) {
            Command add(fields);
            add.addField("path", QString("/q/%1").arg(i));
            ASSERT_TRUE(link.indexAddQueued(never, add));
        }
        Command some(fields);
        some.addRange("path", "/q/1", "/q/2");
        ASSERT_TRUE(link.indexDeleteQueryQueued(never, some));
        ASSERT_TRUE(link.indexCommit(never, false));
        LuceneComm::Reply next;
        ASSERT_TRUE(link.reply(never, next));
        EXPECT_EQ(next.response(), LuceneComm::eResponseIndexCommit);
        EXPECT_EQ(next.sequence(), link.sequence());
        // 1, 10 to 19, 100 to 199 and 2 sort between the bounds.
        EXPECT_EQ(count(link, Command(fields)), 200 - 112);

        // Values the protocol quotes and escapes come back as they went.
        const QStringList texts = {"quote \" here",
                                   "comma, (paren); and \\ back",
                                   QString::fromUtf8("\xc3\xa9 \xe6\xbc\xa2\xe5\xad\x97"),
                                   "",
                                   "trailing\\",
                                   "Seq(\"1\")),ESO);"};
        for (const QString& text : texts) {
            Command add(fields);
            add.addField("path", text);
            add.addField("kind", "special");
            ASSERT_TRUE(link.indexAdd(never, add)) << text.toStdString();
        }
        for (const QString& text : texts) {
            Command exact(fields);
            exact.addField("path", text);
            EXPECT_EQ(searchAll(link, exact, "path"), QStringList{text}) << text.toStdString();
        }

        // Refusals leave the link as it was.
        Command unparsable(fields);
        unparsable.addField("name", "((");
        LuceneComm::Reply refused;
        EXPECT_FALSE(link.indexSearch(never, unparsable, refused));
        EXPECT_EQ(link.lastStatus(), LuceneComm::eStatusOther);
        EXPECT_TRUE(link.lastReason().contains("Cannot parse")) << link.lastReason().toStdString();
        Command notANumber(fields);
        notANumber.copyField("size", "ten");
        EXPECT_FALSE(link.indexAdd(never, notANumber));
        EXPECT_TRUE(link.lastReason().contains("not a number")) << link.lastReason().toStdString();
        EXPECT_TRUE(link.indexNoop(never));
        EXPECT_TRUE(link.indexTraceLevel(never, TraceNormal));
        EXPECT_TRUE(link.validConnection());
        EXPECT_TRUE(server.stop(link));

        const QString trace = AttachedTest::traceFiles(FixedPath::trace());
        EXPECT_TRUE(trace.contains("Refused IS")) << "the server's trace";
    });
}

TEST(IndexServerProcess, TheServerEndsWhenItsParentIsKilled)
{
    BreviTest::TestHome home;
    const QString pidFile = home.path() + "/server.pid";
    HubTest::ChildProcess parent(HubTest::childProgram(), {QString::number(HubTest::freePort()), pidFile});
    const unsigned long long deadline = HubTest::steadyMs() + 30000;
    QByteArray pid;
    while (pid.isEmpty() && parent.running() && HubTest::steadyMs() < deadline) {
        QThread::msleep(50);
        pid = BreviTest::TestHome::readFile(pidFile);
    }
    ASSERT_FALSE(pid.isEmpty()) << "the server did not start";
    const QString proc = "/proc/" + QString::fromLatin1(pid);
    ASSERT_TRUE(QFileInfo::exists(proc));

    parent.kill(SIGKILL);
    ASSERT_TRUE(parent.waitExit(5000));
    // Gone, or a zombie waiting for whoever adopted it.
    const auto gone = [&] {
        const QByteArray stat = BreviTest::TestHome::readFile(proc + "/stat");
        return stat.isEmpty() || stat.contains(") Z ");
    };
    const unsigned long long killed = HubTest::steadyMs();
    while (!gone() && HubTest::steadyMs() - killed < 15000)
        QThread::msleep(50);
    EXPECT_TRUE(gone()) << "the server outlived its parent";
    EXPECT_TRUE(AttachedTest::traceFiles(home.trace()).contains("the alive monitor is free"));
}

TEST(IndexServerSpawn, TheConfigurationTheEnvironmentTheCommandLineAndTheMonitor)
{
    BreviTest::TestHome home;
    const QString jdk = home.path() + "/jdk";
    const QString java = jdk + "/bin/java";
    const QString seen = home.path() + "/seen.txt";
    const bool ran = AttachedTest::runContext(
        [&] {
            ASSERT_TRUE(QDir().mkpath(jdk + "/bin"));
            QFile script(java);
            ASSERT_TRUE(script.open(QIODevice::WriteOnly));
            script.write(("#!/bin/sh\necho \"$JAVA_HOME|$PATH|$CLASSPATH|$*\" > " + seen + "\n").toUtf8());
            script.close();
            script.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);

            SpawnLucene none;
            EXPECT_TRUE(traces([&] { EXPECT_FALSE(none.spawn("empty.cfg", 1, TraceNormal, QString(), {}, {})); },
                               TraceAlways, "Error starting Lucene SocketServer. Java not found"));
            ASSERT_TRUE(SpawnLucene::configure("absent.cfg", jdk + "/bin/nothing", "x"));
            EXPECT_TRUE(traces([&] { EXPECT_FALSE(none.spawn("absent.cfg", 1, TraceNormal, QString(), {}, {})); },
                               TraceAlways, "Error starting Lucene SocketServer. Java not found"));
            QFile broken(FixedPath::config() + "/broken.cfg");
            ASSERT_TRUE(broken.open(QIODevice::WriteOnly));
            broken.write("<brevixmllist><item");
            broken.close();
            EXPECT_TRUE(traces([&] { EXPECT_FALSE(none.spawn("broken.cfg", 1, TraceNormal, QString(), {}, {})); },
                               TraceAlways, "Invalid config file"));

            ASSERT_TRUE(SpawnLucene::configure("fake.cfg", java, "/a.jar:/b.jar"));
            const QString monitor = FixedPath::runtime() + "/fake.alive";
            SpawnLucene first;
            ASSERT_TRUE(first.spawn("fake.cfg", 4321, TraceNormal, monitor, {"app"}, {"-Xmx64m"}));
            EXPECT_EQ(first.process().commandLine(),
                      QString("\"%1\" \"-Dfile.encoding=UTF-8\" \"-Xrs\" \"-Xmx64m\" \"lucenessl.SocketServer\" \"-p\" "
                              "\"4321\" \"-t\" \"%2\" \"-l\" \"NORMAL\" \"-a\" \"%3\" \"app\"")
                          .arg(java, FixedPath::trace(), monitor));
            first.process().getOSHandle()->wait();
            EXPECT_EQ(QString::fromUtf8(BreviTest::TestHome::readFile(seen)).trimmed(),
                      QString("%1|%1/bin|/a.jar:/b.jar|-Dfile.encoding=UTF-8 -Xrs -Xmx64m lucenessl.SocketServer -p "
                              "4321 -t %2 -l NORMAL -a %3 app")
                          .arg(jdk, FixedPath::trace(), monitor));

            {
                SpawnLucene second;
                EXPECT_TRUE(traces([&] { EXPECT_FALSE(second.spawn("fake.cfg", 1, TraceNormal, monitor, {}, {})); },
                                   TraceAlways, "Failed to lock alive monitor"));
                SpawnLucene copy(first);
                first = SpawnLucene();
                EXPECT_FALSE(second.spawn("fake.cfg", 1, TraceNormal, monitor, {}, {})) << "a copy keeps the lock";
            }
            SpawnLucene third;
            EXPECT_TRUE(third.spawn("fake.cfg", 5, TraceDebug, monitor, {}, {})) << "the last copy let go";
            SpawnLucene quiet;
            ASSERT_TRUE(quiet.spawn("fake.cfg", 6, TraceTesting, QString(), {}, {}));
            EXPECT_FALSE(quiet.process().commandLine().contains("\"-a\""));
            EXPECT_TRUE(quiet.process().commandLine().contains("\"-l\" \"NONE\""));
            EXPECT_TRUE(third.process().commandLine().contains("\"-l\" \"VERBOSE\""));
            quiet.process().getOSHandle()->wait();
            third.process().getOSHandle()->wait();
        },
        Context::TypeStandalone, 0, "spawntest");
    EXPECT_TRUE(ran);
}

} // namespace

namespace {

// The tool's output and exit status, run beside the test's Hub.
QString tool(const QStringList& arguments, int* status)
{
    QProcess process;
    process.start(FILESEARCH_PATH, arguments);
    if (!process.waitForFinished(60000))
        process.kill();
    *status = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    return QString::fromUtf8(process.readAllStandardOutput() + process.readAllStandardError());
}

TEST_F(RealServer, TheFileSearchToolIndexesATreeAgainAndAnswersSearches)
{
    const QString tree = moHome.path() + "/tree";
    ASSERT_TRUE(QDir().mkpath(tree + "/sub"));
    const auto write = [&](const QString& name, int size) {
        QFile file(tree + '/' + name);
        return file.open(QIODevice::WriteOnly) && file.write(QByteArray(size, 'x')) == size;
    };
    ASSERT_TRUE(write("Annual_Report.PDF", 5000) && write("sub/report-draft.txt", 10) && write("notes.txt", 2000));
    int status = -1;
    EXPECT_TRUE(tool({"index", tree}, &status).contains("Indexed 4 entries")) << status;
    ASSERT_EQ(status, 0);
    QString found = tool({"search", "report", "--sort", "size"}, &status);
    EXPECT_EQ(status, 0);
    EXPECT_LT(found.indexOf("report-draft.txt"), found.indexOf("Annual_Report.PDF")) << found.toStdString();
    EXPECT_TRUE(found.contains("2 of 2 matches")) << found.toStdString();
    EXPECT_TRUE(tool({"search", "txt", "--larger", "1k"}, &status).contains("1 of 1 matches"));

    // Indexing the tree again forgets what has gone from it.
    ASSERT_TRUE(QFile::remove(tree + "/notes.txt"));
    tool({"index", tree}, &status);
    EXPECT_TRUE(tool({"search", "notes"}, &status).contains("0 of 0 matches"));
    EXPECT_TRUE(tool({"search", "(("}, &status).contains("Cannot parse"));
    EXPECT_EQ(status, 1);
    tool({"search", "--limit", "x"}, &status);
    EXPECT_EQ(status, 2);
}

} // namespace
