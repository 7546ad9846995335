#include "logstore.h"

#include "core/fixedpath.h"
#include "core/trace.h"

#include <QDir>
#include <QFileInfo>

#include <algorithm>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleLog;

QString numbered(const QString& path, int number) { return path + QLatin1Char('.') + QString::number(number); }
} // namespace

const qint64 LogStore::DefaultMaxBytes;
const int LogStore::DefaultKeep;

QString LogStore::defaultPath() { return FixedPath::runtime() + QStringLiteral("/log/logdaemon.log"); }

LogStore::LogStore(const QString& path, qint64 maxBytes, int keep)
    : msPath(path)
    , mllMaxBytes(maxBytes)
    , miKeep(keep)
    , moFile(path)
    , mllLimit(maxBytes)
{}

bool LogStore::open()
{
    if (moFile.isOpen())
        return true;
    QDir().mkpath(QFileInfo(msPath).absolutePath());
    const bool existed = moFile.exists();
    if (!moFile.open(QIODevice::WriteOnly | QIODevice::Append))
        return false;
    // Operators' messages name machines, users and files: not for everyone.
    if (!existed)
        moFile.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    mllSize = moFile.size();
    return true;
}

bool LogStore::append(const LogRecord& record)
{
    const QByteArray line = record.toLine().toUtf8() + '\n';
    if (moFile.isOpen() && mllSize > 0 && mllSize + line.size() > mllLimit)
        rotate();
    if (!moFile.isOpen() && !open())
        return false;
    if (moFile.write(line) != line.size() || !moFile.flush())
        return false;
    mllSize += line.size();
    return true;
}

void LogStore::rotate()
{
    moFile.close();
    // Whatever would be numbered past the keep goes first, also files kept
    // under a larger keep before; the rest move up by one.
    const QList<int> old = numbers(msPath);
    for (const int number : old)
        if (number >= miKeep)
            QFile::remove(numbered(msPath, number));
    bool moved = true;
    if (miKeep == 0) {
        moved = QFile::remove(msPath);
    } else {
        for (const int number : old)
            if (number < miKeep)
                QFile::rename(numbered(msPath, number), numbered(msPath, number + 1));
        moved = QFile::rename(msPath, numbered(msPath, 1));
    }
    if (moved) {
        BTRACE(TraceNormal) << "Log store" << msPath << "full at" << mllSize << "bytes, a new file begins";
        mllLimit = mllMaxBytes;
    } else {
        // Not again with every record: once the file has grown by as much
        // again.
        BTRACE(TraceAlways) << "Cannot make room in the log store" << msPath << ", it goes on growing";
        mllLimit = mllSize + mllMaxBytes;
    }
}

QList<int> LogStore::numbers(const QString& path)
{
    const QFileInfo info(path);
    const QString stem = info.fileName() + QLatin1Char('.');
    QList<int> result;
    for (const QString& name : info.dir().entryList({stem + QLatin1Char('*')}, QDir::Files)) {
        bool number = false;
        const int n = name.mid(stem.size()).toInt(&number);
        if (number && n > 0)
            result.append(n);
    }
    std::sort(result.begin(), result.end(), std::greater<int>());
    return result;
}

QStringList LogStore::files(const QString& path)
{
    QStringList result;
    for (const int n : numbers(path))
        result << numbered(path, n);
    if (QFileInfo::exists(path))
        result << path;
    return result;
}

} // namespace Brevi
