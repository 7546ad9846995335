#include "persistent/spoolcheck.h"

#include "persistent/rawfile.h"

#include <QByteArray>

namespace Brevi {

namespace {

// Reads a whole file; false if it cannot be opened or read.
bool readWhole(const QString& path, QByteArray& bytes)
{
    RawFile file;
    if (!file.open(path, RawFile::eReadOnly))
        return false;
    bytes.resize(int(file.size()));
    return file.readAt(0, bytes.data(), size_t(bytes.size())) == size_t(bytes.size());
}

// Walks the records of one data file from `offset` to `end`. Sets `next` to
// the number a next-file record names (0 if none came), and counts data
// records.
void walk(const QString& path, const QByteArray& bytes, quint64 offset, quint64 end, quint64& next, SpoolReport& report)
{
    const unsigned char* data = reinterpret_cast<const unsigned char*>(bytes.constData());
    next = 0;
    while (offset < end) {
        const QString where = QStringLiteral("%1 at %2: ").arg(path).arg(offset);
        if (next != 0) {
            report.problems << where + "a record after the next-file record";
            return;
        }
        if (end - offset < SpoolLayout::HeaderLengthSize + SpoolLayout::MinimumHeaderLength) {
            report.problems << where + "a record cut short";
            return;
        }
        const unsigned length = ByteOrder::load32(data + offset);
        const unsigned type = ByteOrder::load32(data + offset + SpoolLayout::HeaderLengthSize);
        const unsigned char* values = data + offset + SpoolLayout::HeaderLengthSize + 4;
        if (type == SpoolLayout::DataRecordType && length == SpoolLayout::DataHeaderLength) {
            const quint64 size = ByteOrder::load32(values);
            if (size == 0)
                report.problems << where + "a data record of 0 bytes";
            if (size > end - offset - SpoolLayout::DataRecordOverhead) {
                report.problems << where + QStringLiteral("a record of %1 bytes runs past %2").arg(size).arg(end);
                return;
            }
            ++report.records;
            offset += SpoolLayout::DataRecordOverhead + size;
        } else if (type == SpoolLayout::NextFileRecordType && length == SpoolLayout::NextFileHeaderLength &&
                   end - offset >= SpoolLayout::NextFileRecordSize) {
            next = ByteOrder::load64(values);
            offset += SpoolLayout::NextFileRecordSize;
        } else {
            report.problems << where + QStringLiteral("not a record (header length %1, type %2)").arg(length).arg(type);
            return;
        }
    }
}

} // namespace

bool SpoolCheck::check(const QString& base, SpoolReport& report)
{
    report = SpoolReport();
    QByteArray bytes;
    if (!readWhole(SpoolLayout::statePath(base), bytes) || bytes.size() != int(SpoolLayout::StateFileSize)) {
        report.problems << SpoolLayout::statePath(base) + ": missing, or not 48 bytes";
        return false;
    }
    report.stateRead = true;
    const unsigned char* state = reinterpret_cast<const unsigned char*>(bytes.constData());
    report.write = SpoolLayout::loadState(state + SpoolLayout::WriteStateOffset);
    report.read = SpoolLayout::loadState(state + SpoolLayout::ReadStateOffset);
    if (!SpoolLayout::statesInOrder(report.write, report.read)) {
        report.problems << QStringLiteral("the read state (%1, %2) is ahead of the write state (%3, %4)")
                               .arg(report.read.file)
                               .arg(report.read.offset)
                               .arg(report.write.file)
                               .arg(report.write.offset);
        return false;
    }
    for (quint64 number = report.read.file; number <= report.write.file; ++number) {
        const QString path = SpoolLayout::dataPath(base, number);
        if (!readWhole(path, bytes)) {
            report.problems << path + ": missing";
            return false;
        }
        ++report.files;
        const bool last = number == report.write.file;
        const quint64 size = quint64(bytes.size());
        const quint64 start = number == report.read.file ? report.read.offset : 0;
        const quint64 end = last ? report.write.offset : size;
        if (start > size || end > size) {
            report.problems << path + QStringLiteral(": %1 bytes, short of the state's offset").arg(size);
            return false;
        }
        quint64 next = 0;
        walk(path, bytes, start, end, next, report);
        if (!last && next != number + 1)
            report.problems << path + ": does not end in a next-file record naming the next file";
        if (last && next != 0)
            report.problems << path + ": a next-file record before the write state";
        if (!report.problems.isEmpty())
            return false;
    }
    const quint64 expected = report.write.count - report.read.count;
    if (report.records != expected)
        report.problems << QStringLiteral("%1 data records where the counts say %2").arg(report.records).arg(expected);
    return report.problems.isEmpty();
}

} // namespace Brevi
