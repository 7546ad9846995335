#include "processtest.h"

#include "core/context.h"
#include "testhome.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include <algorithm>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

namespace ProcessTest {

QStringList openDescriptors()
{
    QStringList names = QDir("/proc/self/fd").entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
    // The listing itself had one open while it read.
    std::sort(names.begin(), names.end(), [](const QString& a, const QString& b) { return a.toInt() < b.toInt(); });
    QStringList open;
    for (const QString& name : names) {
        if (fcntl(name.toInt(), F_GETFD) != -1)
            open.append(name);
    }
    return open;
}

QByteArray readAndClose(FILE* stream)
{
    QByteArray content;
    if (!stream)
        return content;
    char buffer[4096];
    size_t got;
    while ((got = fread(buffer, 1, sizeof buffer, stream)) > 0)
        content.append(buffer, int(got));
    fclose(stream);
    return content;
}

bool waitUntilEnded(const Brevi::Handle& handle, int milliseconds)
{
    pollfd entry{handle.get(), POLLIN, 0};
    return poll(&entry, 1, milliseconds) == 1;
}

QString writeFile(const QString& directory, const QString& name, const QByteArray& content, unsigned mode)
{
    const QString path = directory + '/' + name;
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return QString();
    file.write(content);
    file.close();
    chmod(QFile::encodeName(path).constData(), mode);
    return path;
}

} // namespace ProcessTest
