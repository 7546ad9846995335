#include "tracelines.h"

#include "core/tracedump.h"

#include <cstdio>

namespace BreviTest {

using namespace Brevi;

namespace {

const unsigned RingSize = 1 << 20;

std::vector<TracedLine> drain(TraceDump& dump)
{
    std::vector<TracedLine> lines;
    while (auto entry = dump.popEntry())
        lines.push_back({entry->getLevel(), entry->getModuleId(), entry->getMessage()});
    return lines;
}

QStringList textsOf(const std::vector<TracedLine>& lines)
{
    QStringList texts;
    for (const TracedLine& line : lines)
        texts << line.text;
    return texts;
}

bool matches(const TracedLine& line, const QString& text, int level)
{
    return (level == AnyLevel || int(line.level) == level) && line.text.contains(text);
}

::testing::AssertionResult listed(::testing::AssertionResult failure, const std::vector<TracedLine>& lines)
{
    for (const TracedLine& line : lines)
        failure << "\n  [" << line.level << "] " << line.text.toStdString();
    return failure;
}

::testing::AssertionResult found(const std::vector<TracedLine>& lines, const QString& text, int level)
{
    for (const TracedLine& line : lines) {
        if (matches(line, text, level))
            return ::testing::AssertionSuccess();
    }
    auto failure = ::testing::AssertionFailure() << "no line";
    if (level != AnyLevel)
        failure << " at level " << level;
    return listed(failure << " with \"" << text.toStdString() << "\", only:", lines);
}

} // namespace

TraceReader::TraceReader()
    : moNext(true)
{}

TraceReader::TraceReader(const Trace& trace)
    : mpoTrace(&trace)
    , moNext(trace.getInstance(), trace.getSequence())
{}

std::vector<TracedLine> TraceReader::next()
{
    TraceDump dump = mpoTrace ? TraceDump(*mpoTrace, nullptr, &moNext, nullptr) : TraceDump(nullptr, &moNext, nullptr);
    std::vector<TracedLine> lines = drain(dump);
    if (dump.isValid())
        moNext = dump.next();
    return lines;
}

QStringList TraceReader::nextTexts() { return textsOf(next()); }

::testing::AssertionResult TraceReader::saw(const QString& text, int level) { return found(next(), text, level); }

::testing::AssertionResult hasLine(const std::vector<TracedLine>& lines, const QString& text, int level)
{
    return found(lines, text, level);
}

std::vector<TracedLine> linesOf(const std::function<void()>& action)
{
    TraceReader reader;
    action();
    return reader.next();
}

::testing::AssertionResult traces(const std::function<void()>& action, TraceLevelE level, const QString& text)
{
    return found(linesOf(action), text, int(level));
}

::testing::AssertionResult tracesOnce(const std::function<void()>& action, TraceLevelE level, const QString& text)
{
    const std::vector<TracedLine> lines = linesOf(action);
    ::testing::AssertionResult result = found(lines, text, int(level));
    if (result && lines.size() > 1)
        return listed(::testing::AssertionFailure() << lines.size() << " lines where one was expected:", lines);
    return result;
}

QStringList ringTexts(const unsigned char* buffer, unsigned size)
{
    TraceDump dump(buffer, size, nullptr, nullptr, nullptr);
    return textsOf(drain(dump));
}

QStringList ringTexts(const Trace& trace)
{
    TraceDump dump(trace, nullptr, nullptr, nullptr);
    return textsOf(drain(dump));
}

QStringList ringTexts()
{
    TraceDump dump(nullptr, nullptr, nullptr);
    return textsOf(drain(dump));
}

TraceTestBase::TraceTestBase(std::initializer_list<unsigned> modules)
    : moRing(RingSize)
{
    moTrace.initializeBuffer(moRing.data(), RingSize, true);
    for (unsigned module : modules)
        Trace::setLevel(TraceDebug, module);
}

TraceTestBase::~TraceTestBase()
{
    if (HasFailure()) {
        for (const QString& line : ringTexts(moTrace))
            std::printf("trace: %s\n", line.toLocal8Bit().constData());
    }
}

} // namespace BreviTest
