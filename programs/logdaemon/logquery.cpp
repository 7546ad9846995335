#include "logquery.h"

#include <QFile>

namespace Brevi {

bool LogQuery::matches(const LogRecord& record) const
{
    if (mbCategory && record.category.compare(msCategory, Qt::CaseInsensitive) != 0)
        return false;
    if (mbLevel && record.level < muiLevel)
        return false;
    return true;
}

bool LogQuery::run(const QString& path, QStringList& lines, QString& error, int* skipped) const
{
    lines.clear();
    if (skipped)
        *skipped = 0;
    QFile file(path);
    if (!file.exists())
        return true;
    if (!file.open(QIODevice::ReadOnly)) {
        error = file.errorString();
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
        lines.append(line);
        // Keep only what the tail can show, so a long file costs no more
        // memory than the answer.
        if (miTail >= 0 && lines.size() > miTail)
            lines.removeFirst();
    }
    return true;
}

} // namespace Brevi
