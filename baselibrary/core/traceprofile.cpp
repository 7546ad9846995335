#include "core/traceprofile.h"

#include <QFile>

namespace Brevi {

namespace {

QString valueBetweenBrackets(const QByteArray& line)
{
    const int open = line.indexOf('>');
    if (open < 0)
        return QString();
    const int close = line.indexOf('<', open + 1);
    return QString::fromUtf8(line.mid(open + 1, close < 0 ? -1 : close - open - 1));
}

unsigned decimalOrZero(const QString& text)
{
    bool ok = false;
    const unsigned value = text.toUInt(&ok, 10);
    return ok ? value : 0;
}

} // namespace

TraceLevelE TraceProfile::levelFromName(const QString& name)
{
    static const char* const names[] = {"TraceAlways", "TraceTesting", "TraceNormal", "TraceVerbose", "TraceDebug"};
    for (int level = TraceAlways; level <= TraceDebug; ++level)
        if (name == QLatin1String(names[level]))
            return TraceLevelE(level);
    return TraceLevelNone;
}

TraceProfile TraceProfile::read(const QString& path)
{
    TraceProfile profile;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return profile;

    QString levelName;
    while (!file.atEnd()) {
        const QByteArray line = file.readLine();
        // Tested in this order; each key consumes the next line as its value.
        const char* keys[] = {"DefaultTraceLevel", "BoolTraceToFile", "DefaultTraceLinesPerFile",
                              "DefaultTraceFilesToKeep"};
        int key = -1;
        for (int i = 0; i < 4 && key < 0; ++i)
            if (line.contains(keys[i]))
                key = i;
        if (key < 0 || file.atEnd())
            continue;
        const QByteArray valueLine = file.readLine();
        switch (key) {
        case 0:
            levelName = valueBetweenBrackets(valueLine);
            break;
        case 1:
            // The whole line is searched, not the value between the brackets.
            profile.traceToFile = valueLine.contains("True");
            break;
        case 2:
            profile.linesPerFile = decimalOrZero(valueBetweenBrackets(valueLine));
            break;
        case 3:
            profile.filesToKeep = decimalOrZero(valueBetweenBrackets(valueLine));
            break;
        }
    }
    profile.level = levelFromName(levelName);
    return profile;
}

} // namespace Brevi
