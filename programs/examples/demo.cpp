// demo: a process of the system in miniature. It enters through Context::run,
// traces at several levels and modules into its ring and a binary trace file,
// then shows that file with the tracedump tool, as a person reading what a
// process did would.
//
// Home is $BREVI_HOME, or a fresh directory under /tmp when that is not set.

#include "core/context.h"
#include "core/fixedpath.h"
#include "core/packbuffer.h"
#include "core/traceerrorcode.h"
#include "core/unpackbuffer.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTextStream>

#include <cstdio>
#include <cstdlib>

using namespace Brevi;

namespace {

const unsigned TraceModule = TraceModuleApplication;
QString gBinaryTrace;

void work(int& result, int, char** const)
{
    QTextStream out(stdout);
    out << "Context " << Context::id() << " of process " << Context::OSPid() << ", home " << FixedPath::home() << "\n";

    // Besides the text file under runtime/trace, keep a binary copy of this
    // context's lines for the tool to read.
    gBinaryTrace = FixedPath::tmp() + "/demo";
    QDir().mkpath(FixedPath::tmp());
    Context::object()->trace().file(gBinaryTrace, 0, 0, TraceFileBinary);
    gBinaryTrace += ".tra";

    Trace::setLevel(TraceVerbose, unsigned(TraceModuleApplication));
    BTRACE(TraceAlways) << "Demo starts, unique id" << Context::uniqueId();
    BTRACE(TraceNormal) << "Temporary file would be" << Context::temporaryFileName();
    BTRACE(TraceVerbose) << "Verbose lines of APPLICATION are on," << hex << 0xBEEF;
    BTRACE(TraceDebug) << "Debug lines are off: this one is not written";

    PackBuffer pack;
    pack.append(true);
    pack.append(42);
    pack.append(QString("brevi"));
    BREVI_TRACE(TraceModulePack, TraceNormal) << "Packed" << pack.size() << "bytes:" << pack.extent().hexDump();

    UnpackBuffer unpack;
    unpack.reset(pack.extentWithoutSize());
    const bool flag = unpack.takeBool();
    const int number = unpack.takeInt32();
    const QString text = unpack.takeQString();
    BREVI_TRACE(TraceModulePack, TraceNormal) << "Unpacked" << flag << number << text;

    QFile missing(FixedPath::config() + "/no-such.cfg");
    if (!missing.open(QIODevice::ReadOnly))
        BREVI_TRACE(TraceModuleConfig, TraceAlways) << "Cannot open" << missing.fileName() << TraceErrorCode(ENOENT);

    BREVI_TRACE_INDENT(TraceModuleTimer, TraceNormal, 2) << "IN:nested work";
    BREVI_TRACE(TraceModuleTimer, TraceNormal)
        << "inside, by" << width(6) << 7 << "and a pointer" << static_cast<const void*>(&result);
    BREVI_TRACE_INDENT(TraceModuleTimer, TraceNormal, -2) << "OUT:nested work ,";
    BTRACE(TraceAlways) << "Demo ends";
    result = 0;
}

} // namespace

int main(int argc, char** argv)
{
    QTemporaryDir scratch(QDir::tempPath() + "/brevi-demo-XXXXXX");
    if (qEnvironmentVariableIsEmpty("BREVI_HOME")) {
        scratch.setAutoRemove(false);
        setenv("BREVI_HOME", scratch.path().toLocal8Bit().constData(), 1);
    }

    int result = 1;
    if (!Context::run(work, result, argc, argv, Context::Type(7), Context::FlagUseEnvironment, "Brevi Demo")) {
        std::fprintf(stderr, "demo: the context did not come up (is BREVI_HOME a directory?)\n");
        return 1;
    }

    std::printf("\nWhat the demo traced, read back with tracedump %s:\n\n", gBinaryTrace.toLocal8Bit().constData());
    std::fflush(stdout);
    const QString tool = QFileInfo(argv[0]).absoluteDir().filePath("../tools/tracedump");
    QProcess tracedump;
    tracedump.setProcessChannelMode(QProcess::ForwardedChannels);
    tracedump.start(tool, {gBinaryTrace});
    if (!tracedump.waitForFinished(30000) || tracedump.exitCode() != 0)
        return 1;
    return result;
}
