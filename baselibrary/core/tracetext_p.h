#ifndef BASELIBRARY_CORE_TRACETEXT_P_H
#define BASELIBRARY_CORE_TRACETEXT_P_H

// The text of trace records made without allocating anything: the lines of a
// dump, and the values in them as the file writer formats them. The crash
// frame writes a dying process's ring with it from a signal handler, where
// nothing may allocate, lock or call Qt; TraceDumpEntry builds its lines with
// it, so that a .tra from a crash and one from Trace::dump read the same.
//
// Records are read through a byte source (`Bytes`) that maps offsets from a
// record's first byte to its bytes: a plain pointer for a record that lies in
// one piece, RingBytes for one that may wrap around the end of a ring. The
// layout is in tracelayout.h.

#include "core/byteorder.h"
#include "core/tracelayout.h"

#include <cstddef>

namespace Brevi {

class Trace;

// Bytes of a ring as they follow each other: offset 0 is `start`, and the
// byte at the buffer's end is followed by the first byte of the ring.
struct RingBytes {
    const unsigned char* buffer;
    unsigned size;
    unsigned start;
    unsigned char operator[](unsigned offset) const
    {
        unsigned at = start + offset;
        while (at >= size)
            at = at - size + TraceLayout::RingOffset;
        return buffer[at];
    }
    // The ring position `offset` bytes on from `start`.
    unsigned position(unsigned offset) const
    {
        unsigned at = start + offset;
        while (at >= size)
            at = at - size + TraceLayout::RingOffset;
        return at;
    }
};

class TraceText
{
public:
    // Where full pieces of text go: a file, a string.
    typedef void (*Sink)(void* context, const char* bytes, std::size_t size);

    // Text is gathered in `buffer` and handed to `sink` whenever it is full,
    // and at flush().
    TraceText(char* buffer, std::size_t size, Sink sink, void* context)
        : mpBuffer(buffer)
        , muiSize(size)
        , mpSink(sink)
        , mpContext(context)
    {}
    ~TraceText() { flush(); }
    TraceText(const TraceText&) = delete;
    TraceText& operator=(const TraceText&) = delete;

    void flush();
    // Bytes gathered and not yet handed on.
    std::size_t used() const { return muiUsed; }
    // Drops what was gathered, handing nothing on: for text made in place.
    void forget() { muiUsed = 0; }
    void append(char c)
    {
        if (muiUsed == muiSize)
            flush();
        mpBuffer[muiUsed++] = c;
    }
    void append(const char* text);
    void append(const char* bytes, std::size_t size);
    // One character, as UTF-8; a surrogate alone becomes U+FFFD.
    void appendCode(unsigned code);
    void repeat(char c, int count);
    void appendUnsigned(unsigned long long value, unsigned base = 10, int width = 0, char pad = ' ');
    void appendSigned(long long value, int width = 0);

    // The values of a record from `from` up to its end mark or `end`, as the
    // file writer writes them. Returns the offset behind the end mark, or 0
    // when the values run past `end` without one.
    template <typename Bytes>
    unsigned appendValues(const Bytes& record, unsigned from, unsigned end);

    // The fields of a dump's line.
    struct Line {
        const char* time; // Latin-1, up to 10 characters, or to a 0
        unsigned level;
        unsigned module;
        const unsigned short* moduleName; // UTF-16; none: the module's number
        unsigned moduleNameLength;
        unsigned id;
        const unsigned short* source; // UTF-16
        unsigned sourceLength;
        unsigned sourceLine;
    };
    // A dump's line up to its message: time, level, module in a field of 12,
    // id in a field of 5, source and line in a field of 20, each set apart by
    // a blank, and the blank before the message.
    void appendLineStart(const Line& line);

    // A record's whole line with its newline, read from the ring where
    // `record` starts, up to `length` bytes; the module name from `trace`.
    // Returns the record's length up to its end mark; 0, with nothing
    // written, when its fixed fields do not fit or it has no end mark.
    unsigned appendRecord(const RingBytes& record, unsigned length, const Trace& trace);

    // Where the values from `from` end: the offset behind the end mark, or 0
    // when one of them, or the end mark, lies beyond `end`. Writes nothing.
    template <typename Bytes>
    static unsigned valuesEnd(const Bytes& record, unsigned from, unsigned end);

private:
    // A string value: width and alignment as the format word says, quoted or
    // not, "(null)" for an empty one.
    template <typename Bytes>
    void appendString(const Bytes& record, unsigned at, unsigned count, bool wide, unsigned word);
    void appendNumber(unsigned type, unsigned word, unsigned long long raw);

    char* mpBuffer;
    std::size_t muiSize;
    std::size_t muiUsed = 0;
    Sink mpSink;
    void* mpContext;
};

template <typename Bytes>
unsigned TraceText::valuesEnd(const Bytes& record, unsigned from, unsigned end)
{
    using namespace TraceLayout;
    unsigned at = from;
    while (at < end) {
        const unsigned type = record[at];
        if (type == RecordEnd)
            return at + 1;
        at += 3;
        unsigned size;
        switch (type) {
        case ValueBool:
            size = 1;
            break;
        case ValueString8:
        case ValueString16:
            if (at + 2 > end)
                return 0;
            size = 2 + (type == ValueString8 ? 1u : 2u) * (unsigned(record[at]) | unsigned(record[at + 1]) << 8);
            break;
        case ValueInt32:
        case ValueUint32:
        case ValuePointer32:
            size = 4;
            break;
        case ValueInt64:
        case ValueUint64:
        case ValuePointer64:
            size = 8;
            break;
        default:
            return 0;
        }
        if (at > end || size > end - at)
            return 0;
        at += size;
    }
    return 0;
}

// Writes every record of the ring of `trace` to `fd` as Trace::dump writes
// them, oldest first, using only system calls that a signal handler may make;
// `buffer` is the room the text is gathered in. Returns how many lines it
// wrote. The ring is read in place: the caller is the only writer, and it
// has stopped.
unsigned writeRingText(int fd, const Trace& trace, char* buffer, std::size_t size);

// --- templates --------------------------------------------------------------

template <typename Bytes>
void TraceText::appendString(const Bytes& record, unsigned at, unsigned count, bool wide, unsigned word)
{
    using namespace TraceLayout;
    if (word & FormatBlank)
        append(' ');
    // The field is counted in UTF-16 units, as the file writer's stream does.
    unsigned units = count ? count : 6;
    if (wide)
        units += 2;
    const int width = int(word & FormatWidthMask);
    const int padding = width > int(units) ? width - int(units) : 0;
    const bool left = (word & FormatLeft) != 0;
    if (!left)
        repeat(' ', padding);
    if (wide)
        append('\'');
    if (count == 0) {
        append("(null)");
    } else if (!wide) {
        for (unsigned i = 0; i < count; ++i)
            appendCode(record[at + i]);
    } else {
        for (unsigned i = 0; i < count; ++i) {
            unsigned code = unsigned(record[at + 2 * i]) | unsigned(record[at + 2 * i + 1]) << 8;
            if (code >= 0xD800 && code < 0xDC00 && i + 1 < count) {
                const unsigned low = unsigned(record[at + 2 * i + 2]) | unsigned(record[at + 2 * i + 3]) << 8;
                if (low >= 0xDC00 && low < 0xE000) {
                    code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
                    ++i;
                }
            }
            appendCode(code);
        }
    }
    if (wide)
        append('\'');
    if (left)
        repeat(' ', padding);
}

template <typename Bytes>
unsigned TraceText::appendValues(const Bytes& record, unsigned from, unsigned end)
{
    using namespace TraceLayout;
    unsigned at = from;
    while (at < end) {
        const unsigned type = record[at];
        if (type == RecordEnd)
            return at + 1;
        if (end - at < 3)
            return 0;
        const unsigned word = unsigned(record[at + 1]) | unsigned(record[at + 2]) << 8;
        at += 3;
        const unsigned left = end - at;
        switch (type) {
        case ValueBool:
            if (left < 1)
                return 0;
            {
                const char* text = record[at] ? "true" : "false";
                const unsigned units = record[at] ? 4 : 5;
                if (word & FormatBlank)
                    append(' ');
                const int width = int(word & FormatWidthMask);
                const int padding = width > int(units) ? width - int(units) : 0;
                if (!(word & FormatLeft))
                    repeat(' ', padding);
                append(text);
                if (word & FormatLeft)
                    repeat(' ', padding);
            }
            at += 1;
            break;
        case ValueString8:
        case ValueString16: {
            if (left < 2)
                return 0;
            const unsigned count = unsigned(record[at]) | unsigned(record[at + 1]) << 8;
            const unsigned size = 2 + (type == ValueString8 ? 1 : 2) * count;
            if (left < size)
                return 0;
            appendString(record, at + 2, count, type == ValueString16, word);
            at += size;
            break;
        }
        case ValueInt32:
        case ValueUint32:
        case ValuePointer32:
        case ValueInt64:
        case ValueUint64:
        case ValuePointer64: {
            const unsigned size = type == ValueInt32 || type == ValueUint32 || type == ValuePointer32 ? 4 : 8;
            if (left < size)
                return 0;
            unsigned long long raw = 0;
            for (unsigned i = 0; i < size; ++i)
                raw |= static_cast<unsigned long long>(record[at + i]) << (8 * i);
            appendNumber(type, word, raw);
            at += size;
            break;
        }
        default:
            return 0;
        }
    }
    return 0;
}

} // namespace Brevi

#endif
