#include "index/spawnlucene.h"

#include "core/configlocal.h"
#include "core/context.h"
#include "core/fixedpath.h"
#include "core/traceerrorcode.h"

#include <QDir>
#include <QFileInfo>

#include <boost/make_shared.hpp>

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleLucene;
const char* const ServerClass = "lucenessl.SocketServer";
} // namespace

// The monitor file's descriptor with its lock; closing the descriptor, the
// last one of its open file description, lets the lock go.
class SpawnLucene::Monitor
{
public:
    explicit Monitor(int descriptor)
        : miDescriptor(descriptor)
    {}
    ~Monitor()
    {
        struct flock region = {};
        region.l_type = F_UNLCK;
        region.l_whence = SEEK_SET;
        region.l_start = 0;
        region.l_len = 1;
        fcntl(miDescriptor, F_OFD_SETLK, &region);
        ::close(miDescriptor);
    }
    Monitor(const Monitor&) = delete;
    Monitor& operator=(const Monitor&) = delete;

private:
    int miDescriptor;
};

SpawnLucene::SpawnLucene() = default;
SpawnLucene::SpawnLucene(const SpawnLucene& other) = default;
SpawnLucene& SpawnLucene::operator=(const SpawnLucene& other) = default;
SpawnLucene::~SpawnLucene() = default;

const char* SpawnLucene::levelWord(TraceLevelE level)
{
    switch (level) {
    case TraceAlways:
    case TraceTesting:
        return "NONE";
    case TraceVerbose:
    case TraceDebug:
        return "VERBOSE";
    default:
        return "NORMAL";
    }
}

bool SpawnLucene::configure(const QString& configFile, const QString& javaExecutable, const QString& classpath)
{
    ConfigLocal config(configFile);
    if (config.fileName().isEmpty())
        return false;
    return config.set(QStringLiteral("JavaExecutable"), javaExecutable) &&
           config.set(QStringLiteral("Classpath"), classpath) && config.save();
}

bool SpawnLucene::lockMonitor(const QString& path)
{
    const SecurityAttributes* security = Context::security();
    const mode_t mode = security && security->mode ? mode_t(security->mode) : mode_t(0600);
    // Close on exec above all: a server that inherited the descriptor would
    // hold the lock's file description open itself, and never see us go.
    const int descriptor = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (descriptor < 0) {
        BTRACE(TraceAlways) << "Failed to open alive monitor" << path << TraceErrorCode(errno);
        return false;
    }
    struct flock region = {};
    region.l_type = F_WRLCK;
    region.l_whence = SEEK_SET;
    region.l_start = 0;
    region.l_len = 1;
    if (fcntl(descriptor, F_OFD_SETLK, &region) < 0) {
        BTRACE(TraceAlways) << "Failed to lock alive monitor" << path << TraceErrorCode(errno);
        ::close(descriptor);
        return false;
    }
    mptMonitor = boost::make_shared<Monitor>(descriptor);
    BTRACE(TraceNormal) << "Locked the alive monitor" << path;
    return true;
}

bool SpawnLucene::spawn(const QString& configFile, unsigned int port, TraceLevelE traceLevel,
                        const QString& aliveMonitor, const QStringList& applicationArguments,
                        const QStringList& javaArguments)
{
    const ConfigLocal config(configFile);
    if (!config.isValid() || config.fileName().isEmpty()) {
        BTRACE(TraceAlways) << "Invalid config file" << configFile;
        return false;
    }
    if (!aliveMonitor.isEmpty() && !lockMonitor(aliveMonitor))
        return false;
    msAliveMonitor = aliveMonitor;

    QString executable;
    QString classpath;
    config.get(executable, QStringLiteral("JavaExecutable"));
    config.get(classpath, QStringLiteral("Classpath"));
    const QFileInfo program(executable);
    const QString javaPath = QDir::cleanPath(program.absolutePath());
    QString javaHome;
    QDir bin(javaPath);
    if (bin.cdUp() && bin.absolutePath() != javaPath)
        javaHome = bin.absolutePath();
    else
        BTRACE(TraceAlways) << "Java bin directory has no parent" << javaPath;
    BTRACE(TraceNormal) << "Java home: " << javaHome;
    BTRACE(TraceNormal) << "Java path: " << javaPath;
    BTRACE(TraceNormal) << "Classpath: " << classpath;
    BTRACE(TraceNormal) << "Port     : " << port;

    moSpawn.addEnvironment(QStringLiteral("JAVA_HOME"), javaHome);
    moSpawn.addEnvironment(QStringLiteral("PATH"), javaPath);
    moSpawn.addEnvironment(QStringLiteral("CLASSPATH"), classpath);
    moSpawn.addArgument(QStringLiteral("-Dfile.encoding=UTF-8"));
    if (!moSpawn.setProgram(executable)) {
        BTRACE(TraceAlways) << "Error starting Lucene SocketServer. Java not found" << executable;
        return false;
    }
    BTRACE(TraceNormal) << "Java absolute path:" << program.absoluteFilePath();

    struct Step {
        QString argument;
        const char* failure;
    };
    QList<Step> steps;
    steps.append({QStringLiteral("-Xrs"), "Error starting SocketServer. Cannot add -Xrs flag"});
    for (const QString& argument : javaArguments)
        steps.append({argument, "Error starting SocketServer. Cannot add Java argument"});
    steps.append({QString::fromLatin1(ServerClass), "Error starting SocketServer. Cannot add java package"});
    steps.append({QStringLiteral("-p"), "Error starting SocketServer. Cannot port switch"});
    steps.append({QString::number(port), "Error starting SocketServer. Cannot add port number"});
    steps.append({QStringLiteral("-t"), "Error starting SocketServer. Cannot trace switch"});
    steps.append({FixedPath::trace(), "Error starting SocketServer. Cannot add trace directory"});
    steps.append({QStringLiteral("-l"), "Error starting SocketServer. Cannot add trace level"});
    steps.append({QString::fromLatin1(levelWord(traceLevel)), "Error starting SocketServer. Cannot add trace level"});
    if (!msAliveMonitor.isEmpty()) {
        steps.append({QStringLiteral("-a"), "Error starting SocketServer. Cannot add alive monitor option"});
        steps.append({msAliveMonitor, "Error starting SocketServer. Cannot add alive monitor option"});
    }
    for (const QString& argument : applicationArguments)
        steps.append({argument, "Error starting SocketServer. Cannot add application argument"});
    for (const Step& step : steps)
        if (!moSpawn.addArgument(step.argument)) {
            BTRACE(TraceAlways) << step.failure;
            return false;
        }

    if (!moSpawn.spawn()) {
        BTRACE(TraceAlways) << "Cannot start SocketServer" << moSpawn.commandLine();
        return false;
    }
    BTRACE(TraceNormal) << "SocketServer started" << moSpawn.getOSPid() << moSpawn.commandLine();
    return true;
}

} // namespace Brevi
