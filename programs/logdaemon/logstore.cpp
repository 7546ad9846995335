#include "logstore.h"

#include "core/fixedpath.h"

#include <QDir>
#include <QFileInfo>

namespace Brevi {

QString LogStore::defaultPath() { return FixedPath::runtime() + QStringLiteral("/log/logdaemon.log"); }

LogStore::LogStore(const QString& path)
    : msPath(path)
    , moFile(path)
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
    return true;
}

bool LogStore::append(const LogRecord& record)
{
    if (!moFile.isOpen() && !open())
        return false;
    const QByteArray line = record.toLine().toUtf8() + '\n';
    return moFile.write(line) == line.size() && moFile.flush();
}

} // namespace Brevi
