#include "logquery.h"

#include "logstore.h"

#include "core/extent.h"
#include "messaging/binaryaddress.h"

#include <QFile>

namespace Brevi {

bool LogQuery::fromProcess(const LogRecord& record) const
{
    if (record.process.compare(msProcess, Qt::CaseInsensitive) == 0 || record.source == msProcess)
        return true;
    const QByteArray flat = record.source.toUtf8();
    const BinaryAddress address{Extent(flat)};
    bool number = false;
    const unsigned id = msProcess.toUInt(&number);
    if (number)
        return id != 0 && address.id() == id;
    return address.name().toQString() == msProcess;
}

bool LogQuery::matches(const LogRecord& record) const
{
    if (mbProcess && !fromProcess(record))
        return false;
    if (mbCategory && record.category.compare(msCategory, Qt::CaseInsensitive) != 0)
        return false;
    if (mbLevel && record.level < muiLevel)
        return false;
    return true;
}

bool LogQuery::run(const QString& path, QList<LogRecord>& records, QString& error, int* skipped) const
{
    records.clear();
    if (skipped)
        *skipped = 0;
    for (const QString& name : LogStore::files(path)) {
        QFile file(name);
        if (!file.open(QIODevice::ReadOnly)) {
            // Rotated away between the listing and here: its records are
            // in the next file or gone by the store's own rule.
            if (!file.exists())
                continue;
            error = name + QStringLiteral(": ") + file.errorString();
            return false;
        }
        while (!file.atEnd()) {
            QString line = QString::fromUtf8(file.readLine());
            if (line.endsWith(QLatin1Char('\n')))
                line.chop(1);
            LogRecord record;
            if (!LogRecord::fromLine(line, record)) {
                if (skipped && !line.isEmpty())
                    ++*skipped;
                continue;
            }
            if (!matches(record))
                continue;
            records.append(record);
            // Keep only what the tail can show, so a long store costs no
            // more memory than the answer.
            if (miTail >= 0 && records.size() > miTail)
                records.removeFirst();
        }
    }
    return true;
}

} // namespace Brevi
