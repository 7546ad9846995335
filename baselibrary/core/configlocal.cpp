#include "core/configlocal.h"

#include "core/fixedpath.h"
#include "core/trace.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleConfig;
} // namespace

ConfigLocal::ConfigLocal(const QString& fileName)
{
    if (!QFileInfo(FixedPath::home()).isDir()) {
        BTRACE(TraceAlways) << "No home directory, configuration" << fileName << "not loaded";
        return;
    }
    const QString directory = FixedPath::config();
    const QFileInfo info(directory);
    if (info.exists() && !info.isDir()) {
        // Something took the directory's name; the directory wins.
        BTRACE(TraceAlways) << "Removing file" << directory << "where the configuration directory belongs";
        if (!QFile::remove(directory))
            BTRACE(TraceAlways) << "Failed to remove" << directory;
    }
    if (!QFileInfo(directory).isDir() && !QDir().mkpath(directory))
        BTRACE(TraceAlways) << "Failed to create configuration directory" << directory;

    const QString path = directory + QLatin1Char('/') + fileName;
    if (!QFile::exists(path))
        dumpToFile(path);
    load(path, QString());
}

} // namespace Brevi
