// Trace lines beside spdlog's: a switched-off line, and a switched-on line with
// a string, an int and a pointer into the ring alone, into ring and text file,
// and spdlog into its ring, null and file sinks.

#include "core/trace.h"

#include <QTemporaryDir>

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/sinks/ringbuffer_sink.h>
#include <spdlog/spdlog.h>

#include <benchmark/benchmark.h>

using namespace Brevi;

namespace {

const unsigned Module = TraceModuleApplication;

void BM_TraceSwitchedOff(benchmark::State& state)
{
    Trace trace;
    int value = 0;
    for (auto _ : state) {
        BREVI_TRACE(Module, TraceDebug) << "switched off" << ++value;
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_TraceSwitchedOff);

void BM_SpdlogSwitchedOff(benchmark::State& state)
{
    auto logger = std::make_shared<spdlog::logger>("off", std::make_shared<spdlog::sinks::null_sink_st>());
    logger->set_level(spdlog::level::info);
    int value = 0;
    for (auto _ : state) {
        logger->debug("switched off {}", ++value);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_SpdlogSwitchedOff);

void BM_TraceToRing(benchmark::State& state)
{
    Trace trace;
    const QString text = QStringLiteral("a message");
    int value = 0;
    for (auto _ : state)
        BREVI_TRACE(Module, TraceNormal) << text << ++value << static_cast<const void*>(&value);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TraceToRing);

void BM_TraceToRingAndTextFile(benchmark::State& state)
{
    QTemporaryDir dir;
    Trace trace;
    trace.file(dir.path() + "/bench", 0, 0, TraceFileText);
    const QString text = QStringLiteral("a message");
    int value = 0;
    for (auto _ : state)
        BREVI_TRACE(Module, TraceNormal) << text << ++value << static_cast<const void*>(&value);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TraceToRingAndTextFile);

void BM_TraceToRingAndBinaryFile(benchmark::State& state)
{
    QTemporaryDir dir;
    Trace trace;
    trace.file(dir.path() + "/bench", 0, 0, TraceFileBinary);
    const QString text = QStringLiteral("a message");
    int value = 0;
    for (auto _ : state)
        BREVI_TRACE(Module, TraceNormal) << text << ++value << static_cast<const void*>(&value);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TraceToRingAndBinaryFile);

void spdlogLines(benchmark::State& state, const std::shared_ptr<spdlog::sinks::sink>& sink)
{
    auto logger = std::make_shared<spdlog::logger>("on", sink);
    logger->set_level(spdlog::level::info);
    const std::string text = "a message";
    int value = 0;
    for (auto _ : state)
        logger->info("{} {} {}", text, ++value, static_cast<const void*>(&value));
    state.SetItemsProcessed(state.iterations());
}

void BM_SpdlogToRing(benchmark::State& state)
{
    spdlogLines(state, std::make_shared<spdlog::sinks::ringbuffer_sink_st>(256));
}
BENCHMARK(BM_SpdlogToRing);

void BM_SpdlogToNullSink(benchmark::State& state)
{
    spdlogLines(state, std::make_shared<spdlog::sinks::null_sink_st>());
}
BENCHMARK(BM_SpdlogToNullSink);

void BM_SpdlogToFile(benchmark::State& state)
{
    QTemporaryDir dir;
    spdlogLines(state,
                std::make_shared<spdlog::sinks::basic_file_sink_st>((dir.path() + "/spdlog.txt").toStdString(), true));
}
BENCHMARK(BM_SpdlogToFile);

} // namespace
