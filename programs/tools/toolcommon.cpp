#include "toolcommon.h"

#include "core/context.h"
#include "core/tracedumpentry.h"
#include "core/tracelayout.h"

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QTextStream>

#include <cstdlib>

namespace Brevi {
namespace ToolCommon {

namespace {
const char* const PortVariable = "BREVI_HUB_PORT";
const unsigned DefaultPort = 30303;
const char* const LevelNames[] = {"always", "testing", "normal", "verbose", "debug"};
} // namespace

bool parseLevel(const QString& text, TraceLevelE& level)
{
    bool number = false;
    const unsigned value = text.toUInt(&number);
    if (number) {
        if (value > TraceDebug)
            return false;
        level = TraceLevelE(value);
        return true;
    }
    QString word = text.toLower();
    if (word.startsWith("trace"))
        word = word.mid(5);
    for (unsigned i = 0; i <= TraceDebug; ++i)
        if (word == QLatin1String(LevelNames[i])) {
            level = TraceLevelE(i);
            return true;
        }
    return false;
}

QString levelName(TraceLevelE level)
{
    if (unsigned(level) > TraceDebug)
        return QStringLiteral("TraceLevelNone");
    QString name = QLatin1String(LevelNames[level]);
    name[0] = name[0].toUpper();
    return "Trace" + name;
}

bool parseModule(const QString& text, unsigned& module)
{
    bool number = false;
    const unsigned value = text.toUInt(&number);
    if (number) {
        if (value < 1 || value > TraceLayout::ModuleCount)
            return false;
        module = value;
        return true;
    }
    const QHash<unsigned, QString>& names = Trace::defaultModuleNames();
    for (auto it = names.constBegin(); it != names.constEnd(); ++it)
        if (it.key() != 0 && it.value().compare(text, Qt::CaseInsensitive) == 0) {
            module = it.key();
            return true;
        }
    return false;
}

QString moduleName(unsigned module)
{
    const QString name = Trace::defaultModuleNames().value(module);
    return name.isEmpty() || module == 0 ? QString::number(module) : name;
}

int parseCommandLine(QCommandLineParser& parser, const QStringList& arguments, const QString& tool, QTextStream& err)
{
    if (!parser.parse(arguments)) {
        QString text = parser.errorText();
        if (text.endsWith('.'))
            text.chop(1);
        err << tool << ": " << text << " (see --help)\n";
        return eExitUsage;
    }
    if (parser.isSet(QStringLiteral("help")) || parser.isSet(QStringLiteral("help-all"))) {
        QTextStream(stdout) << parser.helpText();
        return eExitOk;
    }
    return -1;
}

QCommandLineOption portOption()
{
    return QCommandLineOption(
        "port", QStringLiteral("The Hub's port (default: BREVI_HUB_PORT, else %1).").arg(DefaultPort), "port");
}

bool applyPort(const QCommandLineParser& parser, const QCommandLineOption& option, const QString& tool,
               QTextStream& err)
{
    if (!parser.isSet(option))
        return true;
    bool ok = false;
    const unsigned port = parser.value(option).toUInt(&ok);
    if (!ok || port == 0 || port > 65535) {
        err << tool << ": --port takes a number from 1 to 65535\n";
        return false;
    }
    // The library's Hub link reads the port from the environment.
    qputenv(PortVariable, QByteArray::number(port));
    return true;
}

QString hubPort()
{
    const QByteArray value = qgetenv(PortVariable);
    return value.isEmpty() ? QString::number(DefaultPort) : QString::fromLocal8Bit(value);
}

int runAttached(const QString& tool, const std::function<int()>& body, QTextStream& err)
{
    if (qgetenv("BREVI_HOME").isEmpty()) {
        err << tool << ": BREVI_HOME is not set; it names the installation whose Hub to ask\n";
        return eExitFailed;
    }
    // Context::run takes a plain function: the body reaches it through
    // this, for the one run a tool makes.
    static const std::function<int()>* current = nullptr;
    static int status = eExitFailed;
    current = &body;
    // One attempt: a person at the terminal wants to hear at once that
    // there is no Hub, not after the two minutes a starting process waits.
    const bool ran = Context::run([] { status = (*current)(); }, Context::TypeAttached,
                                  Context::FlagAttachOnce | Context::FlagNoTraceBuffer, tool);
    current = nullptr;
    if (!ran) {
        err << tool << ": cannot reach the Hub on port " << hubPort() << " (is it running?)\n";
        return eExitFailed;
    }
    return status;
}

bool passes(const TraceDumpEntry& entry, TraceLevelE maxLevel, unsigned module)
{
    return entry.getLevel() <= maxLevel && (module == 0 || entry.getModuleId() == module);
}

} // namespace ToolCommon
} // namespace Brevi
