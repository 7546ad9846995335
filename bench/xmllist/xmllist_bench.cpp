// A typical message body through its whole life: built by the sender, turned
// into text, parsed by the receiver and read item by item. The target is at
// most 60 us for the round trip of a 20-item body.
//
//   xmllist_bench --benchmark_filter=RoundTrip

#include "core/xmllist.h"

#include <benchmark/benchmark.h>

using namespace Brevi;

namespace {

const int TopLevelItems = 20;

// Keys are constants in real code (the message catalogue), so they are made
// once here rather than formatted inside the measured loop.
struct Keys {
    QString text[6], count[5], offset[4];
    Keys()
    {
        for (int i = 0; i < 6; ++i)
            text[i] = QStringLiteral("Text%1").arg(i);
        for (int i = 0; i < 5; ++i)
            count[i] = QStringLiteral("Count%1").arg(i);
        for (int i = 0; i < 4; ++i)
            offset[i] = QStringLiteral("Offset%1").arg(i);
    }
};
const Keys keys;
const QString paths[6] = { "C:/Data/Folder 1/file.dat", "C:/Data/Folder 2/file.dat", "C:/Data/Folder 3/file.dat",
    "C:/Data/Folder 4/file.dat", "C:/Data/Folder 5/file.dat", "C:/Data/Folder 6/file.dat" };

// 19 single items (strings, 32- and 64-bit numbers, a bool) and a nested list
// of 4 items, like a request with an address in it.
XmlList buildBody(int seed)
{
    XmlList address;
    address.set("Machine", QStringLiteral("node7@4f2a9c"), XmlList::SetCreate);
    address.set("Id", 1234u + unsigned(seed), XmlList::SetCreate);
    address.set("Name", QStringLiteral("Backup Worker"), XmlList::SetCreate);
    address.set("Group", QStringLiteral("Repository"), XmlList::SetCreate);

    XmlList body;
    for (int i = 0; i < 6; ++i)
        body.set(keys.text[i], paths[(seed + i) % 6], XmlList::SetCreate);
    for (int i = 0; i < 5; ++i)
        body.set(keys.count[i], unsigned(seed * 31 + i), XmlList::SetCreate);
    for (int i = 0; i < 4; ++i)
        body.set(keys.offset[i], (unsigned long long)(seed) << 33 | unsigned(i), XmlList::SetCreate);
    body.set("Delta", -seed, XmlList::SetCreate);
    body.set("Signed", -(long long)(seed)*100000000000LL, XmlList::SetCreate);
    body.set("Recurse", true, XmlList::SetCreate);
    body.set("Comment", QStringLiteral("<quoted & \"escaped\">"), XmlList::SetCreate);
    body.set("Address", address, XmlList::SetCreate);
    return body;
}

// Reads every item by name, as a handler does, and the nested list through an
// iterator. Returns a checksum so that nothing is optimised away.
unsigned long long readBody(const XmlList& body)
{
    unsigned long long sum = 0;
    QString text;
    unsigned u = 0;
    unsigned long long u64 = 0;
    int i32 = 0;
    long long i64 = 0;
    bool flag = false;
    for (int i = 0; i < 6; ++i)
        if (body.get(text, keys.text[i]))
            sum += unsigned(text.size());
    for (int i = 0; i < 5; ++i)
        if (body.get(u, keys.count[i]))
            sum += u;
    for (int i = 0; i < 4; ++i)
        if (body.get(u64, keys.offset[i]))
            sum += u64;
    if (body.get(i32, "Delta"))
        sum += unsigned(i32);
    if (body.get(i64, "Signed"))
        sum += (unsigned long long)i64;
    if (body.get(flag, "Recurse"))
        sum += flag;
    if (body.get(text, "Comment"))
        sum += unsigned(text.size());
    const XmlListIterator address = body.first("Address");
    sum += unsigned(address.getString("Machine").size()) + address.getUint32("Id")
        + unsigned(address.getString("Name").size()) + unsigned(address.getString("Group").size());
    return sum;
}

void RoundTrip(benchmark::State& state)
{
    int seed = 0;
    for (auto _ : state) {
        const XmlList body = buildBody(++seed);
        const QByteArray bytes = body.toBinary();
        XmlList received;
        if (!received.fromBinary(bytes))
            state.SkipWithError("the body did not parse");
        benchmark::DoNotOptimize(readBody(received));
    }
    state.SetItemsProcessed(state.iterations() * TopLevelItems);
}
BENCHMARK(RoundTrip);

void Build(benchmark::State& state)
{
    int seed = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(buildBody(++seed).getXmlDoc());
    state.SetItemsProcessed(state.iterations() * TopLevelItems);
}
BENCHMARK(Build);

void ToBinary(benchmark::State& state)
{
    const XmlList body = buildBody(1);
    for (auto _ : state)
        benchmark::DoNotOptimize(body.toBinary());
    state.SetItemsProcessed(state.iterations() * TopLevelItems);
    state.counters["bytes"] = double(body.toBinary().size());
}
BENCHMARK(ToBinary);

void FromBinary(benchmark::State& state)
{
    const QByteArray bytes = buildBody(1).toBinary();
    for (auto _ : state) {
        XmlList received;
        benchmark::DoNotOptimize(received.fromBinary(bytes));
    }
    state.SetItemsProcessed(state.iterations() * TopLevelItems);
}
BENCHMARK(FromBinary);

void ReadByName(benchmark::State& state)
{
    XmlList received;
    received.fromBinary(buildBody(1).toBinary());
    for (auto _ : state)
        benchmark::DoNotOptimize(readBody(received));
    state.SetItemsProcessed(state.iterations() * TopLevelItems);
}
BENCHMARK(ReadByName);

} // namespace

BENCHMARK_MAIN();
