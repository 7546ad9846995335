#include "huboptions.h"

#include "hubconstants.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QSysInfo>

#include <cstdlib>

namespace Brevi {

namespace {

// A byte count: digits, optionally followed by K, M or G (powers of 1024).
bool parseBytes(const QString& text, unsigned long long& value)
{
    QString digits = text.trimmed();
    unsigned long long unit = 1;
    if (!digits.isEmpty()) {
        const QChar last = digits.back().toUpper();
        if (last == 'K' || last == 'M' || last == 'G') {
            unit = last == 'K' ? 1024ull : last == 'M' ? 1024ull * 1024 : 1024ull * 1024 * 1024;
            digits.chop(1);
        }
    }
    bool ok = false;
    const unsigned long long number = digits.toULongLong(&ok);
    if (!ok || number > (~0ull) / unit)
        return false;
    value = number * unit;
    return true;
}

bool inRange(unsigned long long value, unsigned long long low, unsigned long long high)
{
    return value >= low && value <= high;
}

QString firstLine(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    return QString::fromUtf8(file.readLine()).trimmed();
}

bool validPart(const QString& part, bool isNode)
{
    return !part.isEmpty() && !part.contains('/') && !(isNode && part.contains('@'));
}

} // namespace

QString HubOptions::hostNode() { return QSysInfo::machineHostName(); }

QString HubOptions::hostMachineId()
{
    QString id = firstLine(QStringLiteral("/etc/machine-id"));
    if (id.isEmpty())
        id = firstLine(QStringLiteral("/var/lib/dbus/machine-id"));
    return id;
}

bool HubOptions::parse(const QStringList& arguments, QString& error, QString& help)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "The Hub: the per-machine process through which every attached process of the machine talks.\n"
        "It gives processes their identity and trace buffers, routes their messages and data, tells\n"
        "watchers when processes are ready or gone, and starts programs on request.\n"
        "Example: hub --port 30304 --programs /opt/brevi/bin --daemon");
    const QCommandLineOption helpOption(QStringList{"h", "help"}, "Shows this help.");
    const QCommandLineOption port("port", "TCP port on 127.0.0.1 (default: BREVI_HUB_PORT, else 30303).", "port");
    const QCommandLineOption node("node", "Node part of the machine name (default: the host name).", "name");
    const QCommandLineOption machineIdOption("machine-id",
                                             "Machine id part of the machine name (default: /etc/machine-id).", "id");
    const QCommandLineOption traceBuffer(
        "trace-buffer-size", "Bytes of each process's trace buffer, K/M suffixes allowed (default 1M).", "bytes");
    const QCommandLineOption programs(
        "programs", "Directory of the programs HubMgrCreateProcessRequest may start (default: the Hub's own).", "dir");
    const QCommandLineOption foreground("foreground", "Stay in the foreground (the default).");
    const QCommandLineOption daemonOption("daemon", "Detach from the terminal once listening.");
    const QCommandLineOption pidFileOption(
        "pid-file", "Write the Hub's process id to this file once it listens; removed when it ends.", "file");
    const QCommandLineOption homeOption("home", "BREVI_HOME for the Hub and the processes it starts.", "dir");
    const QCommandLineOption attachTimeout(
        "attach-timeout", "Milliseconds a new link, or a started program, has to attach (default 30000).", "ms");
    const QCommandLineOption shutdownTimeout(
        "shutdown-timeout", "Milliseconds shutdown waits for processes to leave (default 10000).", "ms");
    const QCommandLineOption maxPacket(
        "max-packet", "Largest packet from an enabled link, K/M suffixes allowed (default 64M).", "bytes");
    const QCommandLineOption maxQueue(
        "max-queue",
        "Unsent bytes after which a link that does not read is dropped (default 128M; never below --max-packet).",
        "bytes");
    const QCommandLineOption pauseQueue("pause-queue",
                                        "Unsent bytes above which senders to a link are paused (default 4M).", "bytes");
    const QCommandLineOption stallTimeout(
        "stall-timeout",
        "Milliseconds a link may take no bytes while some wait, or send nothing more of a packet it has "
        "begun, before it is dropped (default 30000).",
        "ms");
    const QCommandLineOption keepExitedOption(
        "keep-exited", "Trace buffers of ended processes to keep for reading (default 64).", "count");
    parser.addOption(helpOption);
    parser.addVersionOption();
    for (const QCommandLineOption* option :
         {&port, &node, &machineIdOption, &traceBuffer, &programs, &foreground, &daemonOption, &pidFileOption,
          &homeOption, &attachTimeout, &shutdownTimeout, &maxPacket, &maxQueue, &pauseQueue, &stallTimeout,
          &keepExitedOption})
        parser.addOption(*option);

    if (!parser.parse(arguments)) {
        error = parser.errorText();
        return false;
    }
    if (parser.isSet(helpOption)) {
        help = parser.helpText();
        return true;
    }
    if (parser.isSet("version")) {
        help = QCoreApplication::applicationName() + ' ' + QCoreApplication::applicationVersion() + '\n';
        return true;
    }
    if (!parser.positionalArguments().isEmpty()) {
        error = "Unexpected argument: " + parser.positionalArguments().first();
        return false;
    }

    // Numbers: a value that does not parse or lies outside its range is
    // refused rather than clamped, so that a typo shows at once.
    auto number = [&](const QCommandLineOption& option, unsigned long long low, unsigned long long high, bool bytes,
                      unsigned long long& value) {
        if (!parser.isSet(option))
            return true;
        const QString text = parser.value(option);
        bool ok = false;
        if (bytes)
            ok = parseBytes(text, value);
        else
            value = text.toULongLong(&ok);
        if (!ok || !inRange(value, low, high)) {
            error = QString("--%1: '%2' is not a number from %3 to %4")
                        .arg(option.names().constFirst(), text, QString::number(low), QString::number(high));
            return false;
        }
        return true;
    };

    unsigned long long value = this->port;
    const char* fromEnvironment = std::getenv(HubConstants::PortVariable);
    if (fromEnvironment && *fromEnvironment) {
        bool ok = false;
        value = QString::fromLocal8Bit(fromEnvironment).toULongLong(&ok);
        if (!ok || value > 65535) {
            error = QString("%1: '%2' is not a port").arg(HubConstants::PortVariable, fromEnvironment);
            return false;
        }
    }
    if (!number(port, 1, 65535, false, value))
        return false;
    this->port = unsigned(value);

    value = traceBufferSize;
    if (!number(traceBuffer, 64 * 1024, 256ull * 1024 * 1024, true, value))
        return false;
    traceBufferSize = unsigned(value);
    value = attachTimeoutMs;
    if (!number(attachTimeout, 100, 3600000, false, value))
        return false;
    attachTimeoutMs = unsigned(value);
    value = shutdownTimeoutMs;
    if (!number(shutdownTimeout, 0, 3600000, false, value))
        return false;
    shutdownTimeoutMs = unsigned(value);
    value = maximumPacketSize;
    if (!number(maxPacket, HubConstants::UnenabledMaximumSize, 0x7FFFFFFF, true, value))
        return false;
    maximumPacketSize = unsigned(value);
    if (!number(maxQueue, 4096, ~0ull, true, maximumQueueBytes))
        return false;
    if (!number(pauseQueue, 1024, ~0ull, true, pauseQueueBytes))
        return false;
    value = stallTimeoutMs;
    if (!number(stallTimeout, 100, 3600000, false, value))
        return false;
    stallTimeoutMs = unsigned(value);
    value = keepExited;
    if (!number(keepExitedOption, 0, 100000, false, value))
        return false;
    keepExited = unsigned(value);
    // A queue always has room for one packet of the largest size: a reader
    // is not dropped for a single message it was allowed to be sent.
    if (maximumQueueBytes < maximumPacketSize)
        maximumQueueBytes = maximumPacketSize;
    if (pauseQueueBytes > maximumQueueBytes)
        pauseQueueBytes = maximumQueueBytes;

    if (parser.isSet(foreground) && parser.isSet(daemonOption)) {
        error = "--foreground and --daemon exclude each other";
        return false;
    }
    daemon = parser.isSet(daemonOption);
    if (parser.isSet(homeOption))
        home = parser.value(homeOption);
    if (parser.isSet(pidFileOption))
        pidFile = parser.value(pidFileOption);
    if (parser.isSet(programs))
        programsDirectory = parser.value(programs);
    else if (QCoreApplication::instance())
        programsDirectory = QCoreApplication::applicationDirPath();

    this->node = parser.isSet(node) ? parser.value(node) : hostNode();
    machineId = parser.isSet(machineIdOption) ? parser.value(machineIdOption) : hostMachineId();
    if (!validPart(this->node, true)) {
        error = QString("The node name '%1' is empty or holds '/' or '@' (see --node)").arg(this->node);
        return false;
    }
    if (!validPart(machineId, false)) {
        error = QString("The machine id '%1' is empty or holds '/' (see --machine-id)").arg(machineId);
        return false;
    }
    return true;
}

} // namespace Brevi
