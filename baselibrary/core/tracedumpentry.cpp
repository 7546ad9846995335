#include "core/tracedumpentry.h"

#include "core/byteorder.h"
#include "core/tracetext_p.h"

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

namespace {
void appendTo(void* context, const char* bytes, std::size_t size)
{
    static_cast<QByteArray*>(context)->append(bytes, int(size));
}
} // namespace

// Builds the message as the file writer would have written it. A value that
// would run past the record ends the message.
void TraceDumpEntry::decodeValues(const unsigned char* at, const unsigned char* end)
{
    QByteArray message;
    char buffer[512];
    {
        TraceText text(buffer, sizeof buffer, appendTo, &message);
        text.appendValues(at, 0, unsigned(end - at));
    }
    msMessage = QString::fromUtf8(message);
}

void TraceDumpEntry::writeToStream(QTextStream& stream) const
{
    QByteArray line;
    char buffer[256];
    {
        TraceText text(buffer, sizeof buffer, appendTo, &line);
        const QByteArray time = msTime.toLatin1();
        TraceText::Line fields;
        fields.time = time.constData();
        fields.level = unsigned(meLevel);
        fields.module = muiModule;
        fields.moduleName = msModuleName.utf16();
        fields.moduleNameLength = unsigned(msModuleName.size());
        fields.id = muiId;
        fields.source = msSourceFile.utf16();
        fields.sourceLength = unsigned(msSourceFile.size());
        fields.sourceLine = muiSourceLine;
        text.appendLineStart(fields);
    }
    stream << QString::fromUtf8(line) << msMessage << '\n';
}

} // namespace Brevi
