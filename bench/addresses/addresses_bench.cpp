// What a router pays for each packet: read the destination of a received
// routed packet and hash it for the queue table; and what a handler pays to
// compare a message's source with an address it waits for.

#include "messaging/binaryaddress.h"
#include "messaging/msgaddress.h"
#include "messaging/msgroute.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

using namespace Brevi;

namespace {

// A logical or numeric destination three machines away, as a packet carries it.
const char* const RoutedNumeric = "4/1234567/c/b/backup-server-17@4711/site-router@88/office-gateway@3";
const char* const RoutedLogical = "4/0/c/b/backup-server-17@4711/site-router@88/office-gateway@3/Indexer/Workers";

void parseAndHash(benchmark::State& state, const char* text)
{
    // Received bytes, borrowed in place as the packet does.
    std::vector<char> packet(text, text + std::strlen(text));
    for (auto _ : state) {
        BinaryAddress address;
        address.fromRawData(packet.data(), unsigned(packet.size()));
        benchmark::DoNotOptimize(address.hash());
    }
}

void BM_ReceivedRoutedNumericParseAndHash(benchmark::State& state) { parseAndHash(state, RoutedNumeric); }
void BM_ReceivedRoutedLogicalParseAndHash(benchmark::State& state) { parseAndHash(state, RoutedLogical); }

void BM_StepHop(benchmark::State& state)
{
    std::vector<char> packet(RoutedNumeric, RoutedNumeric + std::strlen(RoutedNumeric));
    BinaryAddress address;
    address.fromRawData(packet.data(), unsigned(packet.size()));
    for (auto _ : state) {
        if (!address.increaseHop())
            address.decreaseHop();
        benchmark::DoNotOptimize(address.hopMachine());
    }
}

// Two distinct bodies with equal content: no shortcut on the shared pointer.
void BM_EqualNumericAddresses(benchmark::State& state)
{
    const MachineName machine("backup-server-17@4711");
    const MsgAddress a(machine, 1234567u);
    const MsgAddress b(machine, 1234567u);
    for (auto _ : state)
        benchmark::DoNotOptimize(a == b);
}

void BM_EqualRoutedAndAttachedAddresses(benchmark::State& state)
{
    MsgRoute route(MachineName("office-gateway@3"));
    route.append(MachineName("backup-server-17@4711"));
    const MsgAddress a(route, 1234567u);
    const MsgAddress b(MachineName("backup-server-17@4711"), 1234567u);
    for (auto _ : state)
        benchmark::DoNotOptimize(a == b);
}

void BM_BuildAddressFromReceivedBinary(benchmark::State& state)
{
    std::vector<char> packet(RoutedNumeric, RoutedNumeric + std::strlen(RoutedNumeric));
    for (auto _ : state) {
        BinaryAddress address;
        address.fromRawData(packet.data(), unsigned(packet.size()));
        benchmark::DoNotOptimize(MsgAddress(address));
    }
}

} // namespace

BENCHMARK(BM_ReceivedRoutedNumericParseAndHash);
BENCHMARK(BM_ReceivedRoutedLogicalParseAndHash);
BENCHMARK(BM_StepHop);
BENCHMARK(BM_EqualNumericAddresses);
BENCHMARK(BM_EqualRoutedAndAttachedAddresses);
BENCHMARK(BM_BuildAddressFromReceivedBinary);

BENCHMARK_MAIN();
