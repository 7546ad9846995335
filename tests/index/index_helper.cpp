// Starts an index server with an alive monitor, writes the server's pid to
// the file named by its second argument, and waits to be killed: how a test
// sees the server outlive no parent.
//     index_helper PORT PIDFILE

#include "core/context.h"
#include "core/fixedpath.h"
#include "index/spawnlucene.h"

#include <QFile>
#include <QString>

#include <unistd.h>

using namespace Brevi;

namespace {
QString gsPort;
QString gsPidFile;
bool gbStarted = false;

void work()
{
    SpawnLucene server;
    if (!SpawnLucene::configure("indexserver.cfg", INDEXSERVER_JAVA, INDEXSERVER_CLASSPATH) ||
        !server.spawn("indexserver.cfg", gsPort.toUInt(), TraceNormal, FixedPath::runtime() + "/helper.alive", {}, {}))
        return;
    QFile pid(gsPidFile);
    if (!pid.open(QIODevice::WriteOnly) || pid.write(QByteArray::number(server.process().getOSPid())) <= 0)
        return;
    pid.close();
    gbStarted = true;
    for (;;)
        ::pause();
}
} // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
        return 2;
    gsPort = QString::fromLocal8Bit(argv[1]);
    gsPidFile = QString::fromLocal8Bit(argv[2]);
    Context::run(work, Context::TypeStandalone, 0, "index_helper");
    return gbStarted ? 0 : 1;
}
