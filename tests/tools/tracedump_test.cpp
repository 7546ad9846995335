// tracedump prints what a binary trace file holds, line for line as the
// record reader sees it, and says clearly when a file is not one.

#include "core/trace.h"
#include "core/tracefilereader.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QTextStream>

#include <gtest/gtest.h>

using namespace Brevi;

namespace {

struct ToolRun {
    int exitCode;
    QString out;
    QString err;
};

ToolRun tracedump(const QStringList& arguments)
{
    QProcess process;
    process.start(TRACEDUMP, arguments);
    process.waitForFinished(30000);
    return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError())};
}

class TraceDumpTool : public ::testing::Test
{
protected:
    void SetUp() override
    {
        Trace trace;
        path = dir.path() + "/sample";
        ASSERT_TRUE(trace.file(path, 0, 0, TraceFileBinary));
        path += ".tra";
        Trace::setLevel(TraceDebug, 0u);
        BREVI_TRACE(TraceModuleContext, TraceNormal) << "context line" << 1;
        BREVI_TRACE(TraceModuleTimer, TraceDebug) << "timer line" << QString("two");
        BREVI_TRACE(TraceModuleApplication, TraceAlways) << hex << 255;
    }

    QTemporaryDir dir;
    QString path;
};

} // namespace

TEST_F(TraceDumpTool, PrintsEveryRecordAsTheReaderFormatsIt)
{
    QString expected;
    QTextStream stream(&expected);
    TraceFileReader reader(path);
    while (auto entry = reader.next())
        entry->writeToStream(stream);
    stream.flush();

    const ToolRun run = tracedump({path});
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_EQ(run.out, expected);
    EXPECT_EQ(run.out.count('\n'), 4) << "the version line and three more";
    EXPECT_TRUE(run.out.contains("'two'"));
}

TEST_F(TraceDumpTool, FiltersByLevelAndModule)
{
    ToolRun run = tracedump({"--max-level", "2", path});
    EXPECT_EQ(run.out.count('\n'), 3);
    EXPECT_FALSE(run.out.contains("timer line"));

    run = tracedump({"--module", "timer", path});
    EXPECT_EQ(run.out.count('\n'), 1);
    EXPECT_TRUE(run.out.contains("timer line"));

    run = tracedump({"--module", "1024", path});
    EXPECT_TRUE(run.out.contains("0xff"));
}

TEST_F(TraceDumpTool, BadInputIsToldAndFails)
{
    EXPECT_EQ(tracedump({}).exitCode, 2);
    EXPECT_EQ(tracedump({"--max-level", "9", path}).exitCode, 2);
    EXPECT_EQ(tracedump({"--module", "NOSUCH", path}).exitCode, 2);

    ToolRun run = tracedump({dir.path() + "/missing.tra"});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.err.contains("cannot open"));

    QFile text(dir.path() + "/text.tra");
    ASSERT_TRUE(text.open(QIODevice::WriteOnly));
    text.write("22004435.950 0 CONTEXT      trace:591            Major Version: 2\n");
    text.close();
    run = tracedump({text.fileName()});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.err.contains("not a binary trace file")) << run.err.toStdString();

    EXPECT_TRUE(tracedump({"--help"}).out.contains("binary trace files"));
}
