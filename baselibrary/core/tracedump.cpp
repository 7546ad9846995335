#include "core/tracedump.h"

#include "core/byteorder.h"
#include "core/tracefilter.h"

#include <vector>

namespace Brevi {

using namespace TraceLayout;

namespace {

bool hasMagic(const unsigned char* at)
{
    return ByteOrder::load32(at + 1) == RecordMagic1 && ByteOrder::load32(at + 5) == RecordMagic2;
}

} // namespace

TraceDump::TraceDump() = default;

TraceDump::TraceDump(TraceFilter* filter, TracePosition* start, TracePosition* end)
    : mbOwnTrace(true)
{
    update(filter, start, end);
}

TraceDump::TraceDump(const Trace& trace, TraceFilter* filter, TracePosition* start, TracePosition* end)
    : mbOwnTrace(true)
    , mpoTrace(&trace)
{
    for (const auto& module : trace.moduleList())
        moNames.insert(module.second, module.first);
    update(filter, start, end);
}

TraceDump::TraceDump(const unsigned char* buffer, unsigned size, TraceFilter* filter, TracePosition* start,
                     TracePosition* end)
{
    setBuffer(buffer, size);
    update(filter, start, end);
}

void TraceDump::setBuffer(const unsigned char* buffer, unsigned size)
{
    mbOwnTrace = false;
    mpoTrace = nullptr;
    mpucBuffer = buffer;
    muiSize = size;
    moEntries.clear();
    moNext = TracePosition(0, 0);
    ++muiInstance;
}

boost::shared_ptr<TraceDumpEntry> TraceDump::popEntry()
{
    if (moEntries.isEmpty())
        return boost::shared_ptr<TraceDumpEntry>();
    return moEntries.takeLast();
}

bool TraceDump::update(TraceFilter* filter, TracePosition* start, TracePosition* end)
{
    moEntries.clear();
    mbValid = false;
    if (mbOwnTrace) {
        const Trace* trace = mpoTrace ? mpoTrace : Trace::object();
        if (!trace)
            return false;
        mpucBuffer = trace->getBufferAddress();
        muiSize = trace->getBufferSize();
        muiInstance = trace->getInstance();
    }
    if (!mpucBuffer || muiSize < RecordOverhead)
        return false;
    const unsigned position = ByteOrder::load32(mpucBuffer + TrailerPositionOffset);
    if (position < RingOffset || position >= muiSize)
        return false;

    // A linear copy of the ring, oldest byte first and the trailer last. The
    // writer takes no lock, so this copy is the stable view the walk reads.
    const unsigned blockSize = muiSize - RingOffset;
    std::vector<unsigned char> block(blockSize);
    unsigned from = position + HeaderSize;
    if (from >= muiSize)
        from = from - muiSize + RingOffset;
    const unsigned first = muiSize - from;
    std::memcpy(block.data(), mpucBuffer + from, first);
    std::memcpy(block.data() + first, mpucBuffer + RingOffset, blockSize - first);

    const unsigned char* trailer = block.data() + blockSize - HeaderSize;
    unsigned length = ByteOrder::load32(trailer + PreviousLengthOffset);
    if (trailer[0] != TrailerStart || !hasMagic(trailer) || length == 0 || length > blockSize - HeaderSize)
        return false;
    unsigned expected = ByteOrder::load32(trailer + SequenceOffset) - 1;

    if (start && start->getInstance() != muiInstance)
        start = nullptr;
    if (end && end->getInstance() != muiInstance)
        end = nullptr;

    unsigned cursor = blockSize - HeaderSize - length;
    for (;;) {
        const unsigned char* record = block.data() + cursor;
        if (record[0] != HeaderStart || !hasMagic(record) || ByteOrder::load32(record + SequenceOffset) != expected)
            break;
        if (!mbValid) {
            moNext = TracePosition(muiInstance, expected + 1);
            mbValid = true;
        }
        const unsigned level = record[LevelOffset];
        const unsigned module = ByteOrder::load16(record + ModuleOffset);
        const bool skip = (start && start->getSequence() > expected) || (end && end->getSequence() < expected) ||
                          (filter && unsigned(filter->getLevel(module)) < level);
        if (!skip)
            moEntries.append(boost::shared_ptr<TraceDumpEntry>(new TraceDumpEntry(
                record, length, expected, TraceLevelE(level), module, moNames.isEmpty() ? nullptr : &moNames)));

        const unsigned previous = ByteOrder::load32(record + PreviousLengthOffset);
        if (previous == 0 || previous > cursor)
            break;
        cursor -= previous;
        length = previous;
        --expected;
    }
    return mbValid;
}

} // namespace Brevi
