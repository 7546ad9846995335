// The index client and server beside Lucene used directly: 100,000 small
// documents indexed, then 10,000 queries, half a term on a whole-value field
// (one hit), half a range on a numeric field (ten hits), each hit with its
// stored fields. Through the server every document and query is a command
// over loopback from an attached context; DirectBench does the same work in
// one Java process. Each case runs once and reports its figures as counters:
// documents a second, the median and 90th percentile of a query, and the CPU
// seconds of this process and of the Java one; and, through the server, the
// round trip of a command that does nothing.

#include "core/context.h"
#include "core/fixedpath.h"
#include "index/lucenecomm.h"
#include "index/spawnlucene.h"
#include "messaging/msgcondition.h"
#include "sockets/netaddress.h"
#include "sockets/tcpsocketdata.h"
#include "sockets/tcpsocketlisten.h"

#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

#include <csignal>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Brevi;

namespace {

const int Documents = 100000;
const int Queries = 10000;

typedef LuceneComm::Options Options;
typedef LuceneComm::Command Command;
typedef std::chrono::steady_clock Clock;

class Never : public MsgCondition
{};

double seconds(Clock::duration elapsed) { return std::chrono::duration<double>(elapsed).count(); }

double ownCpu()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// CPU seconds a process has used so far, from /proc.
double processCpu(unsigned pid)
{
    QFile stat(QString("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray text = stat.readAll();
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    if (fields.size() < 13)
        return 0;
    return (fields.at(11).toDouble() + fields.at(12).toDouble()) / double(sysconf(_SC_CLK_TCK));
}

unsigned freePort()
{
    return TCPSocketListen("Probe", NetAddress(QHostAddress::LocalHost, 0), 1).localAddress().getPort();
}

// The real Hub in the benchmark's home, on a free port.
class HubRun
{
public:
    explicit HubRun(const QString& home)
        : port(freePort())
    {
        const QByteArray program = HUB_PATH;
        const QByteArray portText = QByteArray::number(port);
        const QByteArray homeText = home.toLocal8Bit();
        const char* argv[] = {program.constData(),  "--port", portText.constData(), "--home",
                              homeText.constData(), nullptr};
        miPid = ::fork();
        if (miPid == 0) {
            ::execv(argv[0], const_cast<char**>(argv));
            ::_exit(127);
        }
        for (int tries = 0; tries < 250 && !mbListening; ++tries) {
            TCPSocketData probe("Probe", NetAddress(QHostAddress::LocalHost, port));
            mbListening = probe.isValid() && probe.complete(200);
            if (!mbListening)
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    ~HubRun()
    {
        ::kill(miPid, SIGTERM);
        ::waitpid(miPid, nullptr, 0);
    }
    bool listening() const { return mbListening; }

    const unsigned port;

private:
    pid_t miPid = -1;
    bool mbListening = false;
};

struct Figures {
    double indexSeconds = 0;
    double indexCpu = 0;
    double serverIndexCpu = 0;
    double queryMedianUs = 0;
    double queryP90Us = 0;
    double queryCpu = 0;
    double serverQueryCpu = 0;
    double noopMedianUs = 0;
    QString error;
};

void report(benchmark::State& state, const Figures& figures)
{
    state.SetIterationTime(figures.indexSeconds);
    state.counters["docs_per_s"] = Documents / figures.indexSeconds;
    state.counters["index_cpu_s"] = figures.indexCpu;
    state.counters["java_index_cpu_s"] = figures.serverIndexCpu;
    state.counters["query_median_us"] = figures.queryMedianUs;
    state.counters["query_p90_us"] = figures.queryP90Us;
    state.counters["query_cpu_s"] = figures.queryCpu;
    state.counters["java_query_cpu_s"] = figures.serverQueryCpu;
    if (figures.noopMedianUs > 0)
        state.counters["noop_median_us"] = figures.noopMedianUs;
}

double median(std::vector<double>& times)
{
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

QString home()
{
    static QTemporaryDir directory;
    return directory.path();
}

Figures gFigures;

void throughServer()
{
    Figures& figures = gFigures;
    Never never;
    if (!SpawnLucene::configure("indexserver.cfg", INDEXSERVER_JAVA, INDEXSERVER_CLASSPATH)) {
        figures.error = "cannot write the configuration";
        return;
    }
    const unsigned port = freePort();
    SpawnLucene server;
    if (!server.spawn("indexserver.cfg", port, TraceAlways, FixedPath::runtime() + "/bench.alive", {}, {})) {
        figures.error = "the server did not start";
        return;
    }
    const unsigned pid = server.process().getOSPid();
    LuceneComm::FieldOptions fields("name");
    fields.add("name", Options("A1"));
    fields.add("size", Options("V2N"));
    fields.add("kind", Options("V1N"));
    LuceneComm link;
    if (!link.connect(never, fields, port, true, 30000)) {
        figures.error = "no link to the server";
        return;
    }
    Command open;
    open.addIndexList(QString(), {home() + "/server-index"});
    if (!link.indexSelect(never, open)) {
        figures.error = "the index did not open";
        return;
    }

    double cpu = ownCpu();
    double serverCpu = processCpu(pid);
    Clock::time_point start = Clock::now();
    for (int i = 0; i < Documents; ++i) {
        Command add(fields);
        add.addField("path", QString("/bench/d%1/file%2.dat").arg(i / 100).arg(i));
        add.addField("name", QString("file %1 of bench run").arg(i));
        add.addField("size", static_cast<unsigned long long>(i));
        add.addField("kind", unsigned(i % 7));
        if (!link.indexAddQueued(never, add)) {
            figures.error = "a document was not sent";
            return;
        }
    }
    if (!link.indexCommit(never)) {
        figures.error = "the commit failed";
        return;
    }
    figures.indexSeconds = seconds(Clock::now() - start);
    figures.indexCpu = ownCpu() - cpu;
    figures.serverIndexCpu = processCpu(pid) - serverCpu;

    std::vector<double> times;
    times.reserve(Queries);
    std::mt19937 random(7);
    std::uniform_int_distribution<int> pick(0, Documents - 11);
    cpu = ownCpu();
    serverCpu = processCpu(pid);
    for (int q = 0; q < Queries; ++q) {
        const int at = pick(random);
        const Clock::time_point begin = Clock::now();
        Command query(fields);
        if (q % 2 == 0)
            query.addField("path", QString("/bench/d%1/file%2.dat").arg(at / 100).arg(at));
        else
            query.addRange("size", static_cast<unsigned long long>(at), static_cast<unsigned long long>(at + 9));
        query.resultsPerPage(10);
        LuceneComm::Reply found;
        QList<LuceneComm::Reply> hits;
        if (!link.indexSearch(never, query, found) ||
            (link.searchResultsLeft(never, found) && !link.searchResultList(never, hits, found, true))) {
            figures.error = "a query failed";
            return;
        }
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
    }
    figures.queryCpu = ownCpu() - cpu;
    figures.serverQueryCpu = processCpu(pid) - serverCpu;
    figures.queryMedianUs = median(times);
    figures.queryP90Us = times[times.size() * 9 / 10];

    // The link alone: a command that does nothing, and its reply.
    times.clear();
    for (int q = 0; q < Queries; ++q) {
        const Clock::time_point begin = Clock::now();
        if (!link.indexNoop(never)) {
            figures.error = "a noop failed";
            return;
        }
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
    }
    figures.noopMedianUs = median(times);
    link.disconnect(true);
    server.process().getOSHandle()->wait();
}

void ThroughServer(benchmark::State& state)
{
    for (auto _ : state) {
        HubRun hub(home());
        if (!hub.listening()) {
            state.SkipWithError("the Hub did not start");
            return;
        }
        ::setenv("BREVI_HOME", home().toLocal8Bit().constData(), 1);
        ::setenv("BREVI_HUB_PORT", QByteArray::number(hub.port).constData(), 1);
        gFigures = Figures();
        if (!Context::run(throughServer, Context::TypeAttached, Context::FlagAttachOnce, "indexbench")) {
            state.SkipWithError("no attached context");
            return;
        }
        if (!gFigures.error.isEmpty()) {
            state.SkipWithError(gFigures.error.toStdString().c_str());
            return;
        }
        report(state, gFigures);
    }
}

void DirectInJava(benchmark::State& state)
{
    for (auto _ : state) {
        QProcess java;
        java.start(INDEXSERVER_JAVA, {"-cp", DIRECT_CLASSPATH, "DirectBench", home() + "/direct-index",
                                      QString::number(Documents), QString::number(Queries)});
        if (!java.waitForFinished(600000) || java.exitCode() != 0) {
            state.SkipWithError(("DirectBench failed: " + java.readAllStandardError()).constData());
            return;
        }
        Figures figures;
        for (const QString& pair : QString::fromUtf8(java.readAllStandardOutput()).simplified().split(' ')) {
            const QString name = pair.section('=', 0, 0);
            const double value = pair.section('=', 1).toDouble();
            if (name == "index_seconds")
                figures.indexSeconds = value;
            else if (name == "index_cpu_seconds")
                figures.serverIndexCpu = value;
            else if (name == "query_median_us")
                figures.queryMedianUs = value;
            else if (name == "query_p90_us")
                figures.queryP90Us = value;
            else if (name == "query_cpu_seconds")
                figures.serverQueryCpu = value;
        }
        report(state, figures);
    }
}

} // namespace

BENCHMARK(ThroughServer)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
BENCHMARK(DirectInJava)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

BENCHMARK_MAIN();
