#ifndef BASELIBRARY_CORE_TRACEFORMAT_P_H
#define BASELIBRARY_CORE_TRACEFORMAT_P_H

// How values look in text, shared by the trace file writer and the record
// decoder so that a dumped record reads exactly like the file line it came from.

#include "core/trace.h"

#include <QTextStream>

namespace Brevi {
namespace TraceFormat {

// Strings other than `char const*` are quoted; an empty one reads "(null)".
inline void writeString(QTextStream& stream, unsigned word, const QString& text, bool quoted)
{
    Trace::setStreamFormat(stream, TraceFormatString, word);
    const QString& shown = text.isEmpty() ? QStringLiteral("(null)") : text;
    if (quoted)
        stream << '\'' + shown + '\'';
    else
        stream << shown;
    stream.reset();
}

inline void writeBool(QTextStream& stream, unsigned word, bool value)
{
    Trace::setStreamFormat(stream, TraceFormatString, word);
    stream << (value ? "true" : "false");
    stream.reset();
}

inline void writeUnsigned(QTextStream& stream, unsigned word, qulonglong value)
{
    Trace::setStreamFormat(stream, TraceFormatInteger, word);
    stream << value;
    stream.reset();
}

// Hex, octal and left-aligned numbers print as unsigned, at their own width.
inline void writeSigned(QTextStream& stream, unsigned word, qlonglong value, qulonglong asUnsigned)
{
    if (word & (TraceLayout::FormatHex | TraceLayout::FormatOctal | TraceLayout::FormatLeft))
        return writeUnsigned(stream, word, asUnsigned);
    Trace::setStreamFormat(stream, TraceFormatInteger, word);
    stream << value;
    stream.reset();
}

inline void writePointer(QTextStream& stream, unsigned word, quint64 value)
{
    Trace::setStreamFormat(stream, TraceFormatPointer, word);
    stream << static_cast<qulonglong>(value);
    stream.reset();
}

} // namespace TraceFormat
} // namespace Brevi

#endif
