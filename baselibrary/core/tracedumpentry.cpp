#include "core/tracedumpentry.h"

#include "core/byteorder.h"
#include "core/traceformat_p.h"

#include <QTextStream>

namespace Brevi {

using namespace TraceLayout;

TraceDumpEntry::TraceDumpEntry(const unsigned char* record, unsigned length, unsigned sequence, TraceLevelE level,
                               unsigned module, const QHash<unsigned, QString>* names)
    : meLevel(level)
    , muiSequence(sequence)
    , muiModule(module)
{
    const unsigned char* end = record + length;
    if (length < SourceNameOffset)
        return;
    const char* time = reinterpret_cast<const char*>(record + TimeOffset);
    msTime = QString::fromLatin1(time, int(qstrnlen(time, TimeLength)));
    muiId = ByteOrder::load16(record + IdOffset);
    muiSourceLine = ByteOrder::load32(record + SourceLineOffset);

    const unsigned nameLength = ByteOrder::load16(record + SourceLengthOffset);
    const unsigned char* at = record + SourceNameOffset;
    if (2 * nameLength > unsigned(end - at))
        return;
    msSourceFile.reserve(int(nameLength));
    for (unsigned i = 0; i < nameLength; ++i)
        msSourceFile.append(QChar(ByteOrder::load16(at + 2 * i)));

    if (names)
        msModuleName = names->value(module);
    else if (const Trace* trace = Trace::object())
        msModuleName = trace->getModuleIdName(module);
    else
        msModuleName = Trace::defaultModuleNames().value(module);

    decodeValues(at + 2 * nameLength, end);
}

// Builds the message as the file writer would have written it. A value that
// would run past the record ends the message.
void TraceDumpEntry::decodeValues(const unsigned char* at, const unsigned char* end)
{
    QTextStream out(&msMessage, QIODevice::WriteOnly);
    while (end - at >= 3) {
        const unsigned type = at[0];
        const unsigned word = unsigned(at[1]) | unsigned(at[2]) << 8;
        const unsigned char* payload = at + 3;
        const long left = end - payload;
        unsigned size = 0;
        switch (type) {
        case ValueBool:
            size = 1;
            if (left < 1)
                return;
            TraceFormat::writeBool(out, word, payload[0] != 0);
            break;
        case ValueString8:
        case ValueString16: {
            if (left < 2)
                return;
            const unsigned count = ByteOrder::load16(payload);
            const unsigned width = type == ValueString8 ? 1 : 2;
            size = 2 + width * count;
            if (left < long(size))
                return;
            QString text;
            text.reserve(int(count));
            for (unsigned i = 0; i < count; ++i)
                text.append(type == ValueString8 ? QChar(payload[2 + i])
                                                 : QChar(ByteOrder::load16(payload + 2 + 2 * i)));
            TraceFormat::writeString(out, word, text, type == ValueString16);
            break;
        }
        case ValueInt32:
        case ValueUint32:
        case ValuePointer32:
            size = 4;
            if (left < 4)
                return;
            if (type == ValueInt32)
                TraceFormat::writeSigned(out, word, qint32(ByteOrder::load32(payload)), ByteOrder::load32(payload));
            else if (type == ValueUint32)
                TraceFormat::writeUnsigned(out, word, ByteOrder::load32(payload));
            else
                TraceFormat::writePointer(out, word, ByteOrder::load32(payload));
            break;
        case ValueInt64:
        case ValueUint64:
        case ValuePointer64:
            size = 8;
            if (left < 8)
                return;
            if (type == ValueInt64)
                TraceFormat::writeSigned(out, word, qint64(ByteOrder::load64(payload)), ByteOrder::load64(payload));
            else if (type == ValueUint64)
                TraceFormat::writeUnsigned(out, word, ByteOrder::load64(payload));
            else
                TraceFormat::writePointer(out, word, ByteOrder::load64(payload));
            break;
        default:
            // Includes the end mark 0xFE.
            return;
        }
        at = payload + size;
    }
}

void TraceDumpEntry::writeToStream(QTextStream& stream) const
{
    const QString module = msModuleName.isEmpty() ? QString::number(muiModule) : msModuleName.left(12);
    const QString source = msSourceFile.left(14) + ':' + QString::number(muiSourceLine);
    stream << msTime << ' ' << int(meLevel) << ' ';
    stream << qSetFieldWidth(12) << Qt::left << module << qSetFieldWidth(0) << Qt::right << ' ';
    stream << qSetFieldWidth(5) << muiId << qSetFieldWidth(0) << ' ';
    stream << qSetFieldWidth(20) << Qt::left << source << qSetFieldWidth(0) << Qt::right << ' ';
    stream << msMessage << '\n';
}

} // namespace Brevi
