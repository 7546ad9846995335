#ifndef BASELIBRARY_INDEX_SPAWNLUCENE_H
#define BASELIBRARY_INDEX_SPAWNLUCENE_H

#include "brevi_export.h"
#include "core/operatorboolgenerator.h"
#include "core/trace.h"
#include "process/spawn.h"

#include <QString>
#include <QStringList>

#include <boost/shared_ptr.hpp>

namespace Brevi {

// Starts the search-index server, the Java program lucenessl.SocketServer,
// listening on the port that LuceneComm will connect to.
//
//     SpawnLucene server;
//     if (!server.spawn("indexserver.cfg", port, TraceNormal, FixedPath::runtime() + "/index.alive", {}, {}))
//         ... traced why: no configuration, no Java, the monitor is taken
//
// The configuration file (in the configuration directory) names the Java to
// run and the class path of the server:
//     JavaExecutable  /usr/lib/jvm/java-17-openjdk-amd64/bin/java
//     Classpath       /usr/share/brevi/indexserver.jar:/usr/share/java/lucene-core.jar:...
// The server gets JAVA_HOME (the parent of the executable's directory), PATH
// (the executable's directory alone) and CLASSPATH, and the command line
//     java -Dfile.encoding=UTF-8 -Xrs <java arguments> lucenessl.SocketServer
//          -p <port> -t <trace directory> -l NONE|NORMAL|VERBOSE [-a <monitor>]
//          <application arguments>
//
// The alive monitor: a file this object creates and keeps locked (one byte,
// an open-file-description lock, so that even another object of this process
// cannot take it) for as long as it or a copy of it lives. The server tries
// the lock now and then, and ends when it gets it: its parent is gone, by
// whatever death. With an empty path there is no monitor and no -a.
//
// Failure: spawn returns false and traces why at TraceAlways, in the words
// of each step ("Invalid config file", "Failed to lock alive monitor",
// "Error starting Lucene SocketServer. Java not found", ...); error() is the
// Spawn's. A monitor that was locked stays locked until the last copy goes,
// also after a failure.
//
// Threads: one thread at a time. spawn() changes the process's environment
// while it starts the server, as Spawn does.
class BREVI_EXPORT SpawnLucene
{
public:
    SpawnLucene();
    SpawnLucene(const SpawnLucene& other);
    SpawnLucene& operator=(const SpawnLucene& other);
    ~SpawnLucene();

    bool spawn(const QString& configFile, unsigned int port, TraceLevelE traceLevel, const QString& aliveMonitor,
               const QStringList& applicationArguments, const QStringList& javaArguments);

    Spawn::ErrorE error() const { return moSpawn.error(); }
    bool alive() const { return moSpawn.alive(); }
    // The server's process, for a caller that waits for it or ends it.
    Spawn& process() { return moSpawn; }
    const QString& aliveMonitor() const { return msAliveMonitor; }
    operator OperatorBoolGenerator<SpawnLucene>::Result() const
    {
        return OperatorBoolGenerator<SpawnLucene>::make(bool(moSpawn));
    }

    // Writes `configFile` in the configuration directory, naming the Java to
    // run and the server's class path; false when it cannot be saved.
    static bool configure(const QString& configFile, const QString& javaExecutable, const QString& classpath);

    // The word the server's -l takes for a trace level.
    static const char* levelWord(TraceLevelE level);

private:
    class Monitor;

    bool lockMonitor(const QString& path);

    // Shared by copies: the lock goes with the last of them.
    boost::shared_ptr<Monitor> mptMonitor;
    Spawn moSpawn;
    QString msAliveMonitor;
};

} // namespace Brevi

#endif
