#include "logging/textfile_p.h"

#include "core/trace.h"

#include <QFile>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleLog;
}

QString TextFile::read(const QString& directory, const QString& fileName)
{
    QFile file(directory + '/' + fileName);
    if (!file.open(QIODevice::ReadOnly)) {
        BTRACE(TraceNormal) << "Cannot read text from" << file.fileName() << file.errorString();
        return QString();
    }
    return QString::fromUtf8(file.readAll());
}

} // namespace Brevi
