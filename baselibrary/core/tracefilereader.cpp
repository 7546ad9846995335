#include "core/tracefilereader.h"

#include "core/byteorder.h"

namespace Brevi {

using namespace TraceLayout;

TraceFileReader::TraceFileReader(const QString& path)
    : moFile(path)
{
    moFile.open(QIODevice::ReadOnly);
}

boost::shared_ptr<TraceDumpEntry> TraceFileReader::next()
{
    if (!moFile.isOpen() || moFile.atEnd())
        return boost::shared_ptr<TraceDumpEntry>();
    char lengthBytes[4];
    if (moFile.read(lengthBytes, 4) != 4) {
        mbTruncated = true;
        return boost::shared_ptr<TraceDumpEntry>();
    }
    const unsigned body = ByteOrder::load32(lengthBytes);
    // A record can be no larger than the largest ring less its header.
    if (body < FixedFieldsSize || body > 0x7FFFFFFFu - HeaderSize) {
        mbTruncated = true;
        return boost::shared_ptr<TraceDumpEntry>();
    }
    QByteArray record(int(HeaderSize), '\0');
    const QByteArray bytes = moFile.read(body);
    if (unsigned(bytes.size()) != body) {
        mbTruncated = true;
        return boost::shared_ptr<TraceDumpEntry>();
    }
    record += bytes;
    const unsigned char* at = reinterpret_cast<const unsigned char*>(record.constData());
    return boost::shared_ptr<TraceDumpEntry>(new TraceDumpEntry(at, unsigned(record.size()), ++muiSequence,
                                                                TraceLevelE(at[LevelOffset]),
                                                                ByteOrder::load16(at + ModuleOffset)));
}

} // namespace Brevi
