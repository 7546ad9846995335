#include "core/tracetext_p.h"

#include "core/trace.h"

#include <QString>

#include <cstring>

#include <unistd.h>

namespace Brevi {

using namespace TraceLayout;

void TraceText::flush()
{
    if (muiUsed && mpSink)
        mpSink(mpContext, mpBuffer, muiUsed);
    muiUsed = 0;
}

void TraceText::append(const char* text) { append(text, std::strlen(text)); }

void TraceText::append(const char* bytes, std::size_t size)
{
    while (size) {
        if (muiUsed == muiSize)
            flush();
        const std::size_t piece = size < muiSize - muiUsed ? size : muiSize - muiUsed;
        std::memcpy(mpBuffer + muiUsed, bytes, piece);
        muiUsed += piece;
        bytes += piece;
        size -= piece;
    }
}

void TraceText::appendCode(unsigned code)
{
    if (code >= 0xD800 && code < 0xE000)
        code = 0xFFFD;
    if (code < 0x80) {
        append(char(code));
    } else if (code < 0x800) {
        append(char(0xC0 | (code >> 6)));
        append(char(0x80 | (code & 0x3F)));
    } else if (code < 0x10000) {
        append(char(0xE0 | (code >> 12)));
        append(char(0x80 | ((code >> 6) & 0x3F)));
        append(char(0x80 | (code & 0x3F)));
    } else {
        append(char(0xF0 | (code >> 18)));
        append(char(0x80 | ((code >> 12) & 0x3F)));
        append(char(0x80 | ((code >> 6) & 0x3F)));
        append(char(0x80 | (code & 0x3F)));
    }
}

void TraceText::repeat(char c, int count)
{
    for (int i = 0; i < count; ++i)
        append(c);
}

void TraceText::appendUnsigned(unsigned long long value, unsigned base, int width, char pad)
{
    char digits[24];
    int at = int(sizeof digits);
    do {
        digits[--at] = "0123456789abcdef"[value % base];
        value /= base;
    } while (value);
    repeat(pad, width - (int(sizeof digits) - at));
    append(digits + at, sizeof digits - std::size_t(at));
}

void TraceText::appendSigned(long long value, int width)
{
    char digits[24];
    int at = int(sizeof digits);
    unsigned long long magnitude = value < 0 ? 0ull - static_cast<unsigned long long>(value) : value;
    do {
        digits[--at] = char('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude);
    if (value < 0)
        digits[--at] = '-';
    repeat(' ', width - (int(sizeof digits) - at));
    append(digits + at, sizeof digits - std::size_t(at));
}

// As Trace::setStreamFormat and the file writer's numbers: a blank first if
// asked; hex with "0x" and zeros to the width less 2, octal with "0" and zeros
// to the width less 1; hex, octal and left-aligned numbers as unsigned, the
// last without a width; pointers as 16 hex digits unless a width is given.
void TraceText::appendNumber(unsigned type, unsigned word, unsigned long long raw)
{
    if (word & FormatBlank)
        append(' ');
    const int width = int(word & FormatWidthMask);
    const bool wide = type == ValueInt64 || type == ValueUint64 || type == ValuePointer64;
    if (type == ValuePointer32 || type == ValuePointer64) {
        append("0x", 2);
        appendUnsigned(raw, 16, (width ? width : 18) - 2, '0');
    } else if (word & FormatHex) {
        append("0x", 2);
        appendUnsigned(raw, 16, width > 2 ? width - 2 : 0, '0');
    } else if (word & FormatOctal) {
        append('0');
        appendUnsigned(raw, 8, width > 1 ? width - 1 : 0, '0');
    } else if (word & FormatLeft) {
        appendUnsigned(raw);
    } else if (type == ValueInt32) {
        appendSigned(static_cast<int>(static_cast<unsigned>(raw)), width);
    } else if (type == ValueInt64) {
        appendSigned(static_cast<long long>(raw), width);
    } else {
        appendUnsigned(wide ? raw : raw & 0xFFFFFFFFull, 10, width, ' ');
    }
}

void TraceText::appendLineStart(const Line& line)
{
    unsigned timeLength = 0;
    while (timeLength < TimeLength && line.time[timeLength])
        ++timeLength;
    for (unsigned i = 0; i < timeLength; ++i)
        appendCode(static_cast<unsigned char>(line.time[i]));
    append(' ');
    appendUnsigned(line.level);
    append(' ');

    int used = 0;
    if (line.moduleNameLength == 0) {
        char digits[24];
        int at = int(sizeof digits);
        unsigned value = line.module;
        do {
            digits[--at] = char('0' + value % 10);
            value /= 10;
        } while (value);
        append(digits + at, sizeof digits - std::size_t(at));
        used = int(sizeof digits) - at;
    } else {
        const unsigned shown = line.moduleNameLength < 12 ? line.moduleNameLength : 12;
        for (unsigned i = 0; i < shown; ++i)
            appendCode(line.moduleName[i]);
        used = int(shown);
    }
    repeat(' ', 12 - used);
    append(' ');
    appendUnsigned(line.id, 10, 5, ' ');
    append(' ');

    const unsigned shown = line.sourceLength < 14 ? line.sourceLength : 14;
    for (unsigned i = 0; i < shown; ++i)
        appendCode(line.source[i]);
    append(':');
    char digits[12];
    int at = int(sizeof digits);
    unsigned value = line.sourceLine;
    do {
        digits[--at] = char('0' + value % 10);
        value /= 10;
    } while (value);
    append(digits + at, sizeof digits - std::size_t(at));
    repeat(' ', 20 - int(shown) - 1 - (int(sizeof digits) - at));
    append(' ');
}

unsigned TraceText::appendRecord(const RingBytes& record, unsigned length, const Trace& trace)
{
    if (length < SourceNameOffset)
        return 0;
    const unsigned nameLength = unsigned(record[SourceLengthOffset]) | unsigned(record[SourceLengthOffset + 1]) << 8;
    const unsigned values = SourceNameOffset + 2 * nameLength;
    if (values > length)
        return 0;
    const unsigned end = valuesEnd(record, values, length);
    if (!end)
        return 0;

    char time[TimeLength];
    for (unsigned i = 0; i < TimeLength; ++i)
        time[i] = char(record[TimeOffset + i]);
    unsigned short source[14];
    const unsigned shown = nameLength < 14 ? nameLength : 14;
    for (unsigned i = 0; i < shown; ++i)
        source[i] =
            static_cast<unsigned short>(record[SourceNameOffset + 2 * i] | record[SourceNameOffset + 2 * i + 1] << 8);
    Line line;
    line.time = time;
    line.level = record[LevelOffset];
    line.module = unsigned(record[ModuleOffset]) | unsigned(record[ModuleOffset + 1]) << 8;
    line.id = unsigned(record[IdOffset]) | unsigned(record[IdOffset + 1]) << 8;
    line.sourceLine = 0;
    for (unsigned i = 0; i < 4; ++i)
        line.sourceLine |= unsigned(record[SourceLineOffset + i]) << (8 * i);
    line.source = source;
    line.sourceLength = shown;
    // The name is read where the trace keeps it; the copy shares its text
    // and allocates nothing.
    const QString moduleName = trace.getModuleIdName(line.module);
    line.moduleName = moduleName.utf16();
    line.moduleNameLength = unsigned(moduleName.size());
    appendLineStart(line);
    appendValues(record, values, end);
    append('\n');
    return end;
}

namespace {

void writeAll(void* context, const char* bytes, std::size_t size)
{
    const int fd = *static_cast<const int*>(context);
    while (size) {
        const ssize_t written = ::write(fd, bytes, size);
        if (written <= 0)
            return;
        bytes += written;
        size -= std::size_t(written);
    }
}

bool isHeader(const RingBytes& at, unsigned char start, unsigned sequence)
{
    static const unsigned char magic[8] = {0xEF, 0xBE, 0xEF, 0xBE, 0xAD, 0xDE, 0xAD, 0xDE};
    if (at[0] != start)
        return false;
    for (unsigned i = 0; i < 8; ++i)
        if (at[1 + i] != magic[i])
            return false;
    unsigned found = 0;
    for (unsigned i = 0; i < 4; ++i)
        found |= unsigned(at[SequenceOffset + i]) << (8 * i);
    return start == TrailerStart || found == sequence;
}

unsigned word32(const RingBytes& at, unsigned offset)
{
    unsigned value = 0;
    for (unsigned i = 0; i < 4; ++i)
        value |= unsigned(at[offset + i]) << (8 * i);
    return value;
}

} // namespace

unsigned writeRingText(int fd, const Trace& trace, char* buffer, std::size_t size)
{
    const unsigned char* ring = trace.getBufferAddress();
    const unsigned ringSize = trace.getBufferSize();
    if (!ring || ringSize < RecordOverhead)
        return 0;
    const unsigned position = ByteOrder::load32(ring + TrailerPositionOffset);
    if (position < RingOffset || position >= ringSize)
        return 0;
    const unsigned room = ringSize - RingOffset - HeaderSize;
    const RingBytes trailer = {ring, ringSize, position};
    unsigned length = word32(trailer, PreviousLengthOffset);
    if (!isHeader(trailer, TrailerStart, 0) || length == 0 || length > room)
        return 0;

    // Back from the newest record, as TraceDump walks, to the oldest whole
    // one; then forward from there, each record ending at its end mark.
    unsigned expected = word32(trailer, SequenceOffset) - 1;
    unsigned back = 0;
    unsigned count = 0;
    unsigned oldest = position;
    while (length && back + length <= room) {
        back += length;
        const unsigned start =
            position >= RingOffset + back ? position - back : position + (ringSize - RingOffset) - back;
        const RingBytes record = {ring, ringSize, start};
        if (!isHeader(record, HeaderStart, expected))
            break;
        oldest = start;
        ++count;
        length = word32(record, PreviousLengthOffset);
        --expected;
    }

    TraceText text(buffer, size, writeAll, &fd);
    unsigned written = 0;
    RingBytes record = {ring, ringSize, oldest};
    for (; written < count; ++written) {
        const unsigned end = text.appendRecord(record, room, trace);
        if (!end)
            break;
        record.start = record.position(end);
    }
    return written;
}

} // namespace Brevi
