// The trace ring: its bytes, reading it back, the level test, text and binary
// files with rotation.

#include "core/byteorder.h"
#include "core/trace.h"
#include "core/tracedump.h"
#include "core/traceerrorcode.h"
#include "core/tracefilereader.h"
#include "core/tracefilter.h"
#include "core/traceposition.h"

#include "testhome.h"
#include "tracelines.h"

#include <QDir>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTextStream>

#include <gtest/gtest.h>

#include <vector>

using namespace Brevi;
using namespace Brevi::TraceLayout;
using BreviTest::ringTexts;

namespace {

const unsigned Module = TraceModuleApplication;

unsigned load32(const unsigned char* buffer, unsigned at) { return ByteOrder::load32(buffer + at); }

QStringList fileLines(const QString& path)
{
    QString text = QString::fromUtf8(BreviTest::TestHome::readFile(path));
    QStringList lines = text.split('\n');
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    return lines;
}

int sideEffects = 0;
int countedValue()
{
    ++sideEffects;
    return 1;
}

struct Reentrant {};
Trace& operator<<(Trace& trace, const Reentrant&)
{
    // A value's own stream operator may not start a line inside the line.
    BREVI_TRACE(Module, TraceAlways) << "inner line";
    return trace << "outer value";
}

} // namespace

TEST(TraceRing, FreshBufferHasMarksTrailerAndNormalLevels)
{
    Trace trace;
    const unsigned char* buffer = trace.getBufferAddress();
    ASSERT_EQ(trace.getBufferSize(), 8192u);
    EXPECT_EQ(load32(buffer, 0), 0xDEADBEEFu);
    EXPECT_EQ(load32(buffer, 4), 0xBEEFDEADu);
    EXPECT_EQ(load32(buffer, 8), 524u);
    EXPECT_EQ(buffer[12], 0x22) << "TraceNormal in both nibbles";
    EXPECT_EQ(buffer[524], 0xFF);
    EXPECT_EQ(QByteArray(reinterpret_cast<const char*>(buffer + 525), 8).toHex(), QByteArray("efbeefbeaddeadde"));
    EXPECT_EQ(load32(buffer, 524 + 9), 1u) << "the next record's sequence";
    EXPECT_EQ(load32(buffer, 524 + 13), 0u);
    EXPECT_FALSE(TraceDump(buffer, 8192, nullptr, nullptr, nullptr)) << "no record yet";
}

TEST(TraceRing, LevelNibblesSitWhereOutsideReadersLook)
{
    Trace trace;
    Trace::setLevel(TraceDebug, 7u);
    Trace::setLevel(TraceAlways, 8u);
    const unsigned char* buffer = trace.getBufferAddress();
    EXPECT_EQ(buffer[15] & 0x0F, 4);
    EXPECT_EQ(buffer[15] >> 4, 0);
    EXPECT_EQ(Trace::getLevel(7u), TraceDebug);
    EXPECT_EQ(Trace::getLevel(0u), TraceLevelNone);
    EXPECT_EQ(Trace::getLevel(1025u), TraceLevelNone);
    trace.getBufferAddress()[12] = 0x0F; // nibble 15 for module 1
    EXPECT_EQ(Trace::getLevel(1u), TraceLevelNone);

    Trace::setLevel(TraceVerbose, QString("TIMER"));
    EXPECT_EQ(Trace::getLevel(unsigned(TraceModuleTimer)), TraceVerbose);
    Trace::setLevel(TraceTesting, QString("20"));
    EXPECT_EQ(Trace::getLevel(unsigned(TraceModuleTimer)), TraceTesting);
    Trace::setLevel(TraceDebug, QString("NO SUCH MODULE"));
    EXPECT_EQ(Trace::getLevel(unsigned(TraceModuleTimer)), TraceTesting);
    Trace::setLevel(TraceDebug, 5000u);
    EXPECT_EQ(Trace::getLevel(1024u), TraceNormal) << "a module above 1024 is ignored";
}

TEST(TraceRing, LowerLevelOnlyLowers)
{
    Trace trace;
    Trace::setLevel(TraceVerbose, unsigned(TraceModuleSpawn));
    Trace::lowerLevel(TraceDebug, unsigned(TraceModuleSpawn));
    EXPECT_EQ(Trace::getLevel(unsigned(TraceModuleSpawn)), TraceVerbose);
    Trace::lowerLevel(TraceTesting, unsigned(TraceModuleSpawn));
    EXPECT_EQ(Trace::getLevel(unsigned(TraceModuleSpawn)), TraceTesting);
    EXPECT_EQ(ringTexts(trace), QStringList({"Do not change trace level from 3 to 4 for 'SPAWN'",
                                             "Lower trace level from 3 to 1 for 'SPAWN'"}));
}

TEST(TraceRing, RecordBytesOfAKnownLine)
{
    Trace trace;
    BREVI_TRACE(Module, TraceAlways) << "ab" << 5;
    const unsigned char* b = trace.getBufferAddress();
    const unsigned r = 524;
    EXPECT_EQ(b[r], 0x01);
    EXPECT_EQ(QByteArray(reinterpret_cast<const char*>(b + r + 1), 8).toHex(), QByteArray("efbeefbeaddeadde"));
    EXPECT_EQ(load32(b, r + 9), 1u);
    EXPECT_EQ(load32(b, r + 13), 0u);
    EXPECT_TRUE(QByteArray(reinterpret_cast<const char*>(b + r + 17), 10).contains('.'));
    EXPECT_EQ(b[r + 27], 0);
    EXPECT_EQ(b[r + 28], TraceAlways);
    EXPECT_EQ(ByteOrder::load16(b + r + 29), Module);
    EXPECT_EQ(ByteOrder::load16(b + r + 31), 0u);
    const unsigned nameLength = ByteOrder::load16(b + r + 37);
    ASSERT_EQ(nameLength, 10u) << "trace_test";
    EXPECT_EQ(b[r + 39], 't');
    EXPECT_EQ(b[r + 40], 0);
    const unsigned values = r + 39 + 2 * nameLength;
    const QByteArray expected = QByteArray::fromHex("030000"
                                                    "0200"
                                                    "6162"
                                                    "050080"
                                                    "05000000"
                                                    "fe");
    EXPECT_EQ(QByteArray(reinterpret_cast<const char*>(b + values), expected.size()).toHex(), expected.toHex());

    const unsigned length = values + unsigned(expected.size()) - r;
    const unsigned trailer = r + length;
    EXPECT_EQ(load32(b, 8), trailer);
    EXPECT_EQ(b[trailer], 0xFF);
    EXPECT_EQ(load32(b, trailer + 9), 2u);
    EXPECT_EQ(load32(b, trailer + 13), length);

    BREVI_TRACE(Module, TraceAlways) << true;
    EXPECT_EQ(b[trailer], 0x01) << "the trailer became the next header";
    EXPECT_EQ(load32(b, trailer + 13), length) << "which names the previous record's length";
}

// Neither a line below its module's level, nor one of a bad module, nor one
// on a thread without a Trace evaluates its values.
TEST(TraceRing, SwitchedOffLinesEvaluateNothing)
{
    sideEffects = 0;
    {
        Trace trace;
        BREVI_TRACE(Module, TraceVerbose) << countedValue();
        BREVI_TRACE(0, TraceAlways) << countedValue();
        BREVI_TRACE(1025, TraceAlways) << countedValue();
        EXPECT_EQ(sideEffects, 0);
        BREVI_TRACE(Module, TraceNormal) << countedValue();
        EXPECT_EQ(sideEffects, 1);
        EXPECT_EQ(Trace::trace(0, TraceAlways), nullptr);
        EXPECT_EQ(Trace::trace(1025, TraceAlways), nullptr);
    }
    EXPECT_EQ(Trace::object(), nullptr);
    BREVI_TRACE(Module, TraceAlways) << countedValue();
    EXPECT_EQ(sideEffects, 1);
    EXPECT_EQ(Trace::getLevel(1u), TraceLevelNone);
}

TEST(TraceRing, NoLineStartsInsideAnother)
{
    Trace trace;
    BREVI_TRACE(Module, TraceAlways) << "first" << Reentrant();
    EXPECT_EQ(ringTexts(trace), QStringList({"first outer value"}));
}

TEST(TraceRing, ValuesReadBackInTheirFormats)
{
    Trace trace;
    const void* pointer = reinterpret_cast<const void*>(0x1234abcdull);
    BREVI_TRACE(Module, TraceAlways) << "n" << -5 << 7u << -9ll << 18446744073709551615ull << false;
    BREVI_TRACE(Module, TraceAlways) << hex << 255 << oct << 8 << width(6) << 42 << hex << width(6) << 255 << pack
                                     << pointer;
    BREVI_TRACE(Module, TraceAlways) << QString() << static_cast<const char*>(nullptr) << QByteArray("b") << left
                                     << width(4) << QString("x") << "|";
    BREVI_TRACE(Module, TraceAlways) << hex << -1;
    BREVI_TRACE(Module, TraceAlways) << TraceErrorCode(ENOENT);
    EXPECT_EQ(ringTexts(trace),
              QStringList({"n -5 7 -9 18446744073709551615 false", "0xff 010     42 0x00ff0x000000001234abcd",
                           "'(null)' (null) 'b' 'x'  |", "0xffffffff", "': (2) No such file or directory'"}));
}

TEST(TraceRing, WrappedRecordsReadBackWholeAndTheWalkStopsAtOverwrittenOnes)
{
    Trace trace;
    std::vector<unsigned char> memory(1200);
    trace.initializeBuffer(memory.data(), 1200, true);
    EXPECT_EQ(trace.getBufferAddress(), memory.data());
    for (int i = 0; i < 40; ++i)
        BREVI_TRACE(Module, TraceAlways) << "line number" << i << QString("with some text to fill the ring");
    const QStringList lines = ringTexts(memory.data(), 1200);
    ASSERT_FALSE(lines.empty());
    ASSERT_LT(lines.size(), 40) << "the ring holds only the newest";
    for (int k = 0; k < lines.size(); ++k) {
        const int i = 40 - lines.size() + k;
        EXPECT_EQ(lines[k], QString("line number %1 'with some text to fill the ring'").arg(i));
    }

    // Some record among the last ones crossed the end of the ring.
    bool wrapped = false;
    unsigned position = load32(memory.data(), 8);
    for (int i = 0; i < 5 && !wrapped; ++i) {
        BREVI_TRACE(Module, TraceAlways) << "line number" << 40 + i << QString("with some text to fill the ring");
        const unsigned next = load32(memory.data(), 8);
        wrapped = next < position;
        position = next;
    }
    EXPECT_TRUE(wrapped);
    EXPECT_EQ(ringTexts(memory.data(), 1200).back(), ringTexts(trace).back());
}

TEST(TraceRing, DumpSelectsByPositionAndFilter)
{
    Trace trace;
    BREVI_TRACE(Module, TraceAlways) << "before";
    TracePosition start(true);
    BREVI_TRACE(Module, TraceNormal) << "normal";
    BREVI_TRACE(TraceModuleTimer, TraceAlways) << "timer";
    BREVI_TRACE(Module, TraceAlways) << "after";

    TraceDump dump(nullptr, &start, nullptr);
    ASSERT_TRUE(dump);
    EXPECT_EQ(dump.entryCount(), 3u);
    EXPECT_EQ(dump.popEntry()->getMessage(), "normal");

    TraceFilter filter(TraceAlways);
    filter.setLevel(TraceNormal, unsigned(TraceModuleTimer));
    TraceFilter shared = filter;
    shared.setLevel(TraceDebug, unsigned(TraceModuleTimer));
    EXPECT_EQ(filter.getLevel(unsigned(TraceModuleTimer)), TraceNormal) << "copies do not change each other";
    dump.update(&filter, &start, nullptr);
    EXPECT_EQ(dump.entryCount(), 2u) << "the normal line of APPLICATION is filtered out";

    TracePosition end(start.getInstance(), start.getSequence() + 1);
    dump.update(nullptr, &start, &end);
    EXPECT_EQ(dump.entryCount(), 2u);

    TracePosition next = dump.next();
    BREVI_TRACE(Module, TraceAlways) << "new";
    dump.update(nullptr, &next, nullptr);
    ASSERT_EQ(dump.entryCount(), 1u);
    EXPECT_EQ(dump.popEntry()->getMessage(), "new");
    EXPECT_FALSE(dump.popEntry());

    TracePosition foreign(start.getInstance() + 7, 1000);
    dump.update(nullptr, &foreign, nullptr);
    EXPECT_EQ(dump.entryCount(), 5u) << "a position of another instance is ignored";
    EXPECT_EQ(TracePosition().toString(), "(Unknown)");
}

TEST(TraceRing, DisabledBufferStaysReadable)
{
    Trace trace;
    BREVI_TRACE(Module, TraceAlways) << "kept";
    unsigned char* buffer = trace.getBufferAddress();
    trace.disable();
    EXPECT_FALSE(Trace::active(buffer));
    EXPECT_EQ(Trace::trace(Module, TraceAlways), nullptr);
    EXPECT_EQ(ringTexts(buffer, 8192), QStringList({"kept"}));
}

TEST(TraceRing, TooSmallBuffersFallBackToThePrivateOne)
{
    Trace trace;
    unsigned char* own = trace.getBufferAddress();
    const unsigned instance = trace.getInstance();
    trace.initializeBuffer(nullptr, 0, true);
    EXPECT_EQ(trace.getBufferAddress(), own);
    EXPECT_EQ(trace.getInstance(), instance) << "nothing changed";

    std::vector<unsigned char> shared(4096);
    Trace::setLevel(TraceDebug, 3u);
    trace.initializeBuffer(shared.data(), 4096, true);
    EXPECT_EQ(Trace::getLevel(3u), TraceDebug) << "the filter moved along";
    EXPECT_FALSE(Trace::active(own));
    trace.initializeBuffer(shared.data(), 489, true);
    EXPECT_EQ(trace.getBufferAddress(), own);
    EXPECT_FALSE(Trace::active(shared.data()));
    EXPECT_TRUE(Trace::active(own));

    trace.initializeBuffer(shared.data(), 4096, false);
    EXPECT_EQ(Trace::getLevel(3u), TraceAlways) << "without keeping the filter every level is 0";
}

TEST(TraceRing, StringTooLongForTheRingIsDroppedButReachesTheFile)
{
    QTemporaryDir dir;
    Trace trace;
    ASSERT_TRUE(trace.file(dir.path() + "/long", 0, 0, TraceFileText));
    const QString huge(70000, 'x');
    BREVI_TRACE(Module, TraceAlways) << "head" << huge << "tail";
    const QStringList lines = ringTexts(trace);
    ASSERT_EQ(lines.size(), 2);
    EXPECT_EQ(lines[1], "head") << "the record ends where the value did not fit";
    const QStringList file = fileLines(dir.path() + "/long.tra");
    ASSERT_EQ(file.size(), 2);
    EXPECT_TRUE(file[1].endsWith("head '" + huge + "' tail"));
}

TEST(TraceFiles, TextLineLayout)
{
    QTemporaryDir dir;
    Trace trace;
    ASSERT_TRUE(trace.file(dir.path() + "/layout", 0, 0, TraceFileText));
    BREVI_TRACE(TraceModuleContext, TraceAlways) << "Launched";
    BREVI_TRACE_INDENT(Module, TraceNormal, 2) << "in";
    BREVI_TRACE_INDENT(Module, TraceNormal, -2) << "out";
    trace.setModuleIdName(77, "SEVENTYSEVEN");
    BREVI_TRACE(1000, TraceAlways) << "numbered";
    const QStringList lines = fileLines(dir.path() + "/layout.tra");
    ASSERT_EQ(lines.size(), 5);
    const QRegularExpression shape("^\\d{8}\\.\\d{3} 0 CONTEXT      trace_test:\\d+\\s+Launched$");
    EXPECT_TRUE(shape.match(lines[1]).hasMatch()) << lines[1].toStdString();
    EXPECT_EQ(lines[1].indexOf("Launched"), 13 + 2 + 13 + 21);
    EXPECT_EQ(lines[2].indexOf(" in"), 48) << "a positive indent acts behind its line";
    EXPECT_EQ(lines[3].indexOf(" out"), 48) << "a negative one before it, so a pair lines up";
    EXPECT_TRUE(lines[4].contains(" 0 1000         ")) << lines[4].toStdString();
    EXPECT_TRUE(lines[0].endsWith("Major Version: 2 Minor version: 2 Build number 11698 Branch name RC0610"));
}

TEST(TraceFiles, RotationNumbersFilesKeepsTheNewestAndHasTwoIndependentLimits)
{
    QTemporaryDir dir;
    Trace trace;
    ASSERT_TRUE(trace.file(dir.path() + "/rot", 3, 2, TraceFileText));
    for (int i = 0; i < 9; ++i)
        BREVI_TRACE(Module, TraceAlways) << "line" << i;
    // Each file holds the version line and two more before the third line rotates.
    const QStringList files = QDir(dir.path()).entryList(QDir::Files, QDir::Name);
    EXPECT_EQ(files, QStringList({"rot-000004.tra", "rot-000005.tra"}));
    const QStringList newest = fileLines(dir.path() + "/rot-000005.tra");
    ASSERT_EQ(newest.size(), 2);
    EXPECT_TRUE(newest[0].contains("Major Version:"));
    EXPECT_TRUE(newest[1].endsWith("line 8"));

    // Each limit works without the other.
    ASSERT_TRUE(trace.file(dir.path() + "/all", 2, 0, TraceFileText));
    for (int i = 0; i < 7; ++i)
        BREVI_TRACE(Module, TraceAlways) << i;
    EXPECT_EQ(QDir(dir.path()).entryList({"all-*.tra"}, QDir::Files).size(), 8) << "files 0 keeps them all";

    ASSERT_TRUE(trace.file(dir.path() + "/one", 0, 3, TraceFileText));
    for (int i = 0; i < 20; ++i)
        BREVI_TRACE(Module, TraceAlways) << i;
    EXPECT_EQ(fileLines(dir.path() + "/one.tra").size(), 21) << "lines 0 does not rotate";
    EXPECT_EQ(QDir(dir.path()).entryList({"one*"}, QDir::Files), QStringList{"one.tra"});
}

TEST(TraceFiles, BinaryFileHoldsTheRingRecords)
{
    QTemporaryDir dir;
    Trace trace;
    ASSERT_TRUE(trace.file(dir.path() + "/bin", 0, 0, TraceFileBinary));
    BREVI_TRACE(Module, TraceAlways) << "one" << 1;
    BREVI_TRACE(TraceModuleTimer, TraceNormal) << hex << 255 << QString("two");

    TraceFileReader reader(dir.path() + "/bin.tra");
    ASSERT_TRUE(reader.isOpen());
    std::vector<boost::shared_ptr<TraceDumpEntry>> entries;
    while (auto entry = reader.next())
        entries.push_back(entry);
    EXPECT_FALSE(reader.truncated());
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_TRUE(entries[0]->getMessage().startsWith("Major Version: 2"));
    EXPECT_EQ(entries[1]->getMessage(), "one 1");
    EXPECT_EQ(entries[2]->getMessage(), "0xff 'two'");
    EXPECT_EQ(entries[2]->getModuleName(), "TIMER");
    EXPECT_EQ(entries[2]->getLevel(), TraceNormal);
    EXPECT_EQ(entries[2]->getSequence(), 3u);

    // The same record as the ring has it.
    EXPECT_EQ(ringTexts(trace).back(), entries[2]->getMessage());

    QFile file(dir.path() + "/bin.tra");
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    file.resize(file.size() - 3);
    file.close();
    TraceFileReader cut(dir.path() + "/bin.tra");
    int count = 0;
    while (cut.next())
        ++count;
    EXPECT_EQ(count, 2);
    EXPECT_TRUE(cut.truncated());
}

TEST(TraceFiles, DumpEntryLineHasTheIdColumn)
{
    Trace trace;
    BREVI_TRACE(TraceModuleContext, TraceAlways) << "Launched";
    QString text;
    QTextStream out(&text);
    trace.dump(out, nullptr, nullptr, nullptr);
    out.flush();
    const QRegularExpression shape("^\\d{8}\\.\\d 0 CONTEXT          0 trace_test:\\d+\\s+ Launched\\n$");
    EXPECT_TRUE(shape.match(text).hasMatch()) << text.toStdString();
    EXPECT_EQ(text.indexOf("Launched"), 10 + 3 + 13 + 6 + 21);
}
