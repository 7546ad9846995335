#include "rules/filterconfig.h"

#include "core/config.h"
#include "core/fixedpath.h"

#include <QByteArray>
#include <QByteArrayList>
#include <QFile>
#include <QTextStream>

#include <cstdio>
#include <initializer_list>

#include <unistd.h>

namespace Brevi {

namespace {

const char LogDirectoryKey[] = "LogDirectory=";
const char RulesFileKey[] = "RulesFile=";
const char DbgDirectoryKey[] = "DbgDirectory=";
const char DebugLevelKey[] = "DebugLevel=";
const char DebugToFileKey[] = "DebugToFile=";

// The driver's settings, in place of its service key.
const char DriverConfigName[] = "zorbeck.cfg";

void tell(const QString& text) { QTextStream(stderr) << text << '\n'; }

// The lines of a file, each with its own line end (the last may have none),
// so that a line written back unchanged is the same bytes.
QByteArrayList linesOf(const QByteArray& bytes)
{
    QByteArrayList lines;
    int start = 0;
    while (start < bytes.size()) {
        const int end = bytes.indexOf('\n', start);
        const int next = end < 0 ? bytes.size() : end + 1;
        lines << bytes.mid(start, next - start);
        start = next;
    }
    return lines;
}

// The value after `key` on a line, without its line end.
QString valueOf(const QByteArray& line, int keyLength)
{
    QByteArray value = line.mid(keyLength);
    while (value.endsWith('\n') || value.endsWith('\r'))
        value.chop(1);
    return QString::fromUtf8(value);
}

// One given word and the line it stands for.
struct Mapping {
    const char* given;
    const char* line;
};

// Notes in `stored` the line the map gives for `text` (any case), telling
// what changes; tells `unknown` and refuses a text the map does not have.
bool note(QString& stored, const QString& text, std::initializer_list<Mapping> map, const char* what,
          const char* unknown)
{
    QString line;
    for (const Mapping& mapping : map)
        if (text.compare(QLatin1String(mapping.given), Qt::CaseInsensitive) == 0)
            line = QLatin1String(mapping.line);
    if (line.isEmpty()) {
        tell(QLatin1String(unknown) + text);
        return false;
    }
    if (stored.isEmpty())
        tell(QStringLiteral("Setting filter %1 to %2").arg(QLatin1String(what), line));
    else if (stored != line)
        tell(QStringLiteral("Changing filter %1 from %2 to %3").arg(QLatin1String(what), stored, line));
    stored = line;
    return true;
}

} // namespace

FilterConfig::FilterConfig()
{
    if (getPath())
        load();
}

FilterConfig::FilterConfig(const QString& controlFile)
    : msPath(controlFile)
{
    load();
}

bool FilterConfig::getPath()
{
    if (FixedPath::config().isEmpty())
        return false;
    const Config driver(FixedPath::config() + '/' + QLatin1String(DriverConfigName));
    QString directory;
    QString file;
    if (!driver.get(directory, QStringLiteral("ControlDir")) || !driver.get(file, QStringLiteral("ControlFile")) ||
        directory.isEmpty() || file.isEmpty())
        return false;
    msPath = directory + '/' + file;
    return true;
}

bool FilterConfig::load()
{
    QFile file(msPath);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    const QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError)
        return false;
    for (const QByteArray& line : linesOf(bytes)) {
        if (line.startsWith(LogDirectoryKey))
            msLogDirectory = valueOf(line, sizeof(LogDirectoryKey) - 1);
        else if (line.startsWith(RulesFileKey))
            msRulesFile = valueOf(line, sizeof(RulesFileKey) - 1);
    }
    mbValid = true;
    return true;
}

bool FilterConfig::setTraceDirectory(const QString& path)
{
    if (path.isEmpty())
        return false;
    msDbgDirectory = QLatin1String(DbgDirectoryKey) + QString(path).replace('/', '\\');
    return true;
}

bool FilterConfig::setTraceLevel(const QString& level)
{
    return note(msDebugLevel, level,
                {{"TraceAlways", "DebugLevel=NORMAL"},
                 {"TraceTesting", "DebugLevel=NORMAL"},
                 {"TraceNormal", "DebugLevel=NORMAL"},
                 {"TraceVerbose", "DebugLevel=INFORM"},
                 {"TraceDebug", "DebugLevel=INFORM"}},
                "trace level", "Unknown trace level: ");
}

bool FilterConfig::setTraceToFile(const QString& value)
{
    return note(msDebugToFile, value,
                {{"True", "DebugToFile=TRUE"},
                 {"Yes", "DebugToFile=TRUE"},
                 {"False", "DebugToFile=FALSE"},
                 {"No", "DebugToFile=FALSE"}},
                "trace_to_file", "Unknown filter trace_to_file value: ");
}

bool FilterConfig::save()
{
    if (!mbValid)
        return false;
    QFile in(msPath);
    if (!in.open(QIODevice::ReadOnly))
        return false;
    const QByteArray old = in.readAll();
    const bool readable = in.error() == QFileDevice::NoError;
    in.close();
    if (!readable)
        return false;

    struct Setting {
        const char* key;
        const QString& line;
        bool written;
    } settings[] = {{DebugLevelKey, msDebugLevel, false},
                    {DebugToFileKey, msDebugToFile, false},
                    {DbgDirectoryKey, msDbgDirectory, false}};

    const QByteArrayList lines = linesOf(old);
    // Lines added keep to the file's own line ends.
    const QByteArray lineEnd = !lines.isEmpty() && lines[0].endsWith("\r\n") ? "\r\n" : "\n";
    QByteArray out;
    for (const QByteArray& line : lines) {
        bool replaced = false;
        for (Setting& setting : settings) {
            if (!line.startsWith(setting.key) || setting.line.isEmpty())
                continue;
            out += setting.line.toUtf8();
            out += line.endsWith("\r\n") ? "\r\n" : line.endsWith('\n') ? "\n" : "";
            setting.written = replaced = true;
            break;
        }
        if (!replaced)
            out += line;
    }
    for (const Setting& setting : settings) {
        if (setting.written || setting.line.isEmpty())
            continue;
        if (!out.isEmpty() && !out.endsWith('\n'))
            out += lineEnd;
        out += setting.line.toUtf8() + lineEnd;
    }

    const QString newPath = msPath + QLatin1String(".new");
    QFile next(newPath);
    if (!next.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    const bool written = next.write(out) == out.size() && next.flush() && fsync(next.handle()) == 0;
    next.close();
    const QFileDevice::Permissions mode = QFile::permissions(msPath);
    if (!written || (mode && !QFile::setPermissions(newPath, mode)) ||
        std::rename(QFile::encodeName(newPath).constData(), QFile::encodeName(msPath).constData()) != 0) {
        QFile::remove(newPath);
        return false;
    }
    return true;
}

} // namespace Brevi
