#ifndef BASELIBRARY_CORE_TRACE_H
#define BASELIBRARY_CORE_TRACE_H

#include "brevi_export.h"
#include "core/traceclock.h"
#include "core/tracelayout.h"

#include <QFile>
#include <QHash>
#include <QList>
#include <QPair>
#include <QString>

#include <memory>

class QTextStream;
class QDataStream;

namespace Brevi {

class Extent;
class TraceFilter;
class TracePosition;
class TraceErrorCode;

// Levels rise with the amount of output. A line of level L is written when its
// module's stored level is not below L.
enum TraceLevelE {
    TraceAlways = 0,
    TraceTesting = 1,
    TraceNormal = 2,
    TraceVerbose = 3,
    TraceDebug = 4,
    // What getLevel gives for a bad module or nibble, and "not set" elsewhere.
    TraceLevelNone = 5
};

enum TraceFileTypeE { TraceFileText = 0, TraceFileBinary = 1 };
enum TraceFormatE { TraceFormatString = 0, TraceFormatInteger = 1, TraceFormatPointer = 2 };

// Module ids, 1 to 1024. 21 and 24 are free.
enum TraceModuleE : unsigned {
    TraceModuleInvalid = 0,
    TraceModuleConfig = 1,
    TraceModuleSharedMemory = 2,
    TraceModuleXmlList = 3,
    TraceModuleTcpSocket = 4,
    TraceModuleNetAddress = 5,
    TraceModuleMsg = 6,
    TraceModuleContext = 7,
    TraceModuleSpawn = 8,
    TraceModuleMsgPacket = 9,
    TraceModuleDatachannel = 10,
    TraceModuleProcessCreate = 11,
    TraceModuleRawFile = 12,
    TraceModuleBPlusTree = 13,
    TraceModuleBlocks = 14,
    TraceModuleBlockCache = 15,
    TraceModulePagedList = 16,
    TraceModuleDataPacket = 17,
    TraceModulePack = 18,
    TraceModuleLog = 19,
    TraceModuleTimer = 20,
    TraceModuleFixedPath = 22,
    TraceModuleVss = 23,
    TraceModuleWmi = 25,
    TraceModuleLucene = 26,
    TraceModulePagedQueue = 27,
    TraceModuleBufferedFile = 28,
    TraceModuleBackup = 29,
    TraceModuleFilterConfig = 30,
    TraceModuleChildManager = 31,
    TraceModuleTemplate = 1020,
    TraceModuleMetaDataStore = 1021,
    TraceModuleHubViewer = 1022,
    TraceModuleHub = 1023,
    TraceModuleApplication = 1024
};

// A field width for the next value, from width(n).
struct TraceWidthS {
    unsigned width;
};

// The source file of a trace call site, with the base name its records carry
// (behind the last '/' or '\', before the last '.') made once, at compile
// time, as the record's 16-bit characters. The trace macros keep one per call
// site, so that a line costs a copy of the name and never its conversion.
class TraceSite
{
public:
    static const unsigned MaximumLength = 40;

    constexpr explicit TraceSite(const char* file)
        : mpcFile(file)
    {
        if (!file)
            return;
        const char* start = file;
        for (const char* p = file; *p; ++p)
            if (*p == '/' || *p == '\\')
                start = p + 1;
        const char* end = nullptr;
        for (const char* p = start; *p; ++p)
            if (*p == '.')
                end = p;
        if (!end)
            for (end = start; *end; ++end) {
            }
        if (unsigned(end - start) > MaximumLength)
            return;
        for (const char* p = start; p != end; ++p) {
            if (static_cast<unsigned char>(*p) >= 0x80)
                return;
            macName[muiLength++] = static_cast<char16_t>(*p);
        }
        mbMade = true;
    }

    constexpr const char* file() const { return mpcFile; }
    // Null when the name is longer than MaximumLength or not plain ASCII:
    // the Trace then makes it from the file name itself.
    constexpr const char16_t* name() const { return mbMade ? macName : nullptr; }
    constexpr unsigned length() const { return muiLength; }

private:
    const char* mpcFile = nullptr;
    char16_t macName[MaximumLength] = {};
    unsigned muiLength = 0;
    bool mbMade = false;
};

class Trace;
namespace TraceDetail {
// The calling thread's Trace. A plain thread-local pointer, so that a
// switched-off line costs one thread-local read and one nibble compare.
extern BREVI_EXPORT __thread Trace* threadTrace;
} // namespace TraceDetail

// The per-context trace: a ring of binary records in a byte buffer, which may
// be shared memory that the Hub reads and whose levels it sets, and optionally
// a text or binary file fed from the same lines.
//
// A Trace belongs to the thread of its context and takes no lock. Trace never
// reports a failure and never stops the program: a value that does not fit in
// the ring ends the record there, a file that will not open leaves the ring
// running.
//
// Write lines with the macros at the end of this header; they test the level
// before any argument is evaluated.
class BREVI_EXPORT Trace
{
public:
    Trace();
    ~Trace();
    Trace(const Trace&) = delete;
    Trace& operator=(const Trace&) = delete;

    // The calling thread's Trace, or null.
    static Trace* object() { return TraceDetail::threadTrace; }
    static void object(Trace* trace) { TraceDetail::threadTrace = trace; }

    // The thread's Trace when a line of this module and level is to be written.
    static Trace* trace(unsigned module, TraceLevelE level)
    {
        Trace* current = TraceDetail::threadTrace;
        return current && current->doTrace(module, level) ? current : nullptr;
    }

    void entry(int indent, const TraceSite& site, unsigned line);
    void entry(int indent, const char* file, unsigned line) { entry(indent, TraceSite(file), line); }
    void flush();

    Trace& operator<<(const char* value);
    Trace& operator<<(const QString& value);
    Trace& operator<<(const QString* value);
    Trace& operator<<(const unsigned short* value);
    Trace& operator<<(const QByteArray& value);
    Trace& operator<<(const Extent& value);
    Trace& operator<<(const void* value);
    Trace& operator<<(int value);
    Trace& operator<<(unsigned value);
    Trace& operator<<(long value) { return *this << static_cast<long long>(value); }
    Trace& operator<<(unsigned long value) { return *this << static_cast<unsigned long long>(value); }
    Trace& operator<<(long long value);
    Trace& operator<<(unsigned long long value);
    Trace& operator<<(bool value);
    Trace& operator<<(const TraceErrorCode& value);
    Trace& operator<<(TraceWidthS value);
    Trace& operator<<(Trace& (*manipulator)(Trace&)) { return manipulator(*this); }

    // Format of the next value only.
    void left() { muiFormat |= TraceLayout::FormatLeft; }
    void hex()
    {
        muiFormat = (muiFormat | TraceLayout::FormatHex) & ~(TraceLayout::FormatOctal | TraceLayout::FormatLeft);
    }
    void oct()
    {
        muiFormat = (muiFormat | TraceLayout::FormatOctal) & ~(TraceLayout::FormatHex | TraceLayout::FormatLeft);
    }
    void pack() { muiFormat &= ~TraceLayout::FormatBlank; }
    void width(unsigned n)
    {
        muiFormat = (muiFormat & ~TraceLayout::FormatWidthMask) | (n & TraceLayout::FormatWidthMask);
    }

    // Levels. Module 0 means all modules; a module above 1024 is ignored.
    static void setLevel(TraceLevelE level, unsigned module);
    static void setLevel(unsigned char* buffer, TraceLevelE level, unsigned module);
    // A decimal id, or else the exact name of a module.
    static void setLevel(TraceLevelE level, const QString& module);
    static TraceLevelE getLevel(unsigned module);
    static TraceLevelE getLevel(const unsigned char* buffer, unsigned module);
    // Only ever lowers, and says so at TraceAlways.
    static void lowerLevel(TraceLevelE level, unsigned module);
    static void lowerLevel(unsigned char* buffer, TraceLevelE level, unsigned module);
    static void getFilter(TraceFilter& filter);
    static void getFilter(const unsigned char* buffer, TraceFilter& filter);
    static void setFilter(const TraceFilter& filter);
    static void setFilter(unsigned char* buffer, const TraceFilter& filter);

    // The marks at the head of a buffer that tell a reader someone writes there.
    static bool active(const unsigned char* buffer);
    static void active(unsigned char* buffer, bool value);
    static bool active();
    static void active(bool value);

    // Clears the marks and forgets the buffer: no line is written after this.
    void disable();
    // Starts a fresh ring in `buffer` (the private one if null or too small).
    void initializeBuffer(unsigned char* buffer, unsigned size, bool keepFilter);

    // Opens `name`.tra, or `name`-000001.tra onward when lines per file is set.
    bool file(const QString& name, unsigned linesPerFile, unsigned filesToKeep, TraceFileTypeE type);
    // Text of the selected records of this Trace, oldest first.
    void dump(QTextStream& stream, TraceFilter* filter, TracePosition* start, TracePosition* end);

    unsigned getInstance() const { return muiInstance; }
    unsigned getSequence() const { return muiSequence; }
    unsigned char* getBufferAddress() const { return mpucBuffer; }
    unsigned getBufferSize() const { return muiBufferSize; }
    static unsigned getProcessId();
    static void setProcessId(unsigned pid);

    void setModuleIdName(unsigned id, const QString& name) { moModules.insert(id, name); }
    QString getModuleIdName(unsigned id) const { return moModules.value(id); }
    QList<QPair<QString, unsigned>> moduleList() const;
    // The names of the built-in modules, as every Trace starts with them.
    static const QHash<unsigned, QString>& defaultModuleNames();

    // Sets up a stream for the next value as the format word says; shared by
    // the file writer and the dump reader so that both print alike.
    static void setStreamFormat(QTextStream& stream, TraceFormatE format, unsigned word);

private:
    bool doTrace(unsigned module, TraceLevelE level)
    {
        if (mbRefuse || !mpucBuffer || module - 1 >= TraceLayout::ModuleCount)
            return false;
        if (TraceLayout::levelNibble(mpucBuffer + TraceLayout::LevelsOffset, module) < unsigned(level))
            return false;
        muiModule = module;
        meLevel = level;
        mbLine = mbRefuse = true;
        return true;
    }

    bool setFile();
    void writeVersionLine();
    void closeFile();
    void updateTimeText();
    void ringWrite(const void* bytes, unsigned n);
    void ringWriteWrapping(const void* bytes, unsigned n);
    void ringWriteByte(unsigned char byte);
    // True when the room allows `need`, then takes `take` of it.
    bool reserve(unsigned need, unsigned take);
    void writeStringHeader(TraceLayout::ValueType type, unsigned length);
    void writeString16Payload(const char16_t* text, unsigned length);
    template <typename T>
    void writeInteger(TraceLayout::ValueType type, T value);
    void endValue();
    unsigned ringDistance(unsigned from, unsigned to) const;

    bool mbLine = false;
    bool mbRefuse = false;
    unsigned muiFormat = 0;
    unsigned muiModule = 0;
    unsigned short musId = 0;
    TraceLevelE meLevel = TraceAlways;
    unsigned muiSourceLine = 0;

    // Time of the current line: the local-time text is made once per second.
    TraceClock moClock;
    long long mllTimeSecond = -1;
    char macTime[13] = {};

    // The source base name of the last call site whose TraceSite could not
    // make it, which loops hit again.
    const char* mpcLastFile = nullptr;
    QString msSourceName;
    QString msIndent;

    unsigned char macPrivate[TraceLayout::PrivateBufferSize];
    unsigned char* mpucBuffer = nullptr;
    unsigned muiBufferSize = 0;
    unsigned muiInstance = 0;
    unsigned muiSequence = 0;
    unsigned muiRecordStart = 0;
    unsigned muiWrite = 0;
    unsigned muiCommitted = 0;
    unsigned muiLastLength = 0;
    unsigned muiRecordMax = 0;
    unsigned muiRoom = 0;

    QHash<unsigned, QString> moModules;

    bool mbBinary = false;
    bool mbWritingVersion = false;
    QFile moFile;
    std::unique_ptr<QTextStream> mpoText;
    std::unique_ptr<QDataStream> mpoData;
    QString msFileBase;
    unsigned muiFileLines = 0;
    unsigned muiFileNumber = 0;
    unsigned muiLinesPerFile = 0;
    unsigned muiFilesToKeep = 0;
};

// Stream forms of the format changes: trace << hex << value.
inline Trace& left(Trace& trace) { return trace.left(), trace; }
inline Trace& hex(Trace& trace) { return trace.hex(), trace; }
inline Trace& oct(Trace& trace) { return trace.oct(), trace; }
inline Trace& pack(Trace& trace) { return trace.pack(), trace; }
inline TraceWidthS width(unsigned n) { return TraceWidthS{n}; }

// One line at a call site: entry on construction, flush at the end of the
// full expression.
class TraceLine
{
public:
    TraceLine(Trace& trace, int indent, const TraceSite& site, unsigned line)
        : mrTrace(trace)
    {
        trace.entry(indent, site, line);
    }
    ~TraceLine() { mrTrace.flush(); }
    TraceLine(const TraceLine&) = delete;
    TraceLine& operator=(const TraceLine&) = delete;

    template <typename T>
    TraceLine& operator<<(const T& value)
    {
        mrTrace << value;
        return *this;
    }
    TraceLine& operator<<(Trace& (*manipulator)(Trace&))
    {
        manipulator(mrTrace);
        return *this;
    }

private:
    Trace& mrTrace;
};

} // namespace Brevi

// Writes a line if the thread's Trace passes `module` at `level`; otherwise
// nothing behind the macro is evaluated:
//     BREVI_TRACE(TraceModuleContext, TraceAlways) << "Failed to open" << name;
#define BREVI_TRACE_INDENT(module, level, indent)                                                                      \
    for (::Brevi::Trace* breviTraceTo_ = ::Brevi::Trace::trace((module), (level)); breviTraceTo_;                      \
         breviTraceTo_ = nullptr)                                                                                      \
    ::Brevi::TraceLine(*breviTraceTo_, (indent), BREVI_TRACE_SITE, __LINE__)

// This call site's TraceSite, made by the compiler.
#define BREVI_TRACE_SITE                                                                                               \
    []() -> const ::Brevi::TraceSite& {                                                                                \
        static constexpr ::Brevi::TraceSite breviSite_(__FILE__);                                                      \
        return breviSite_;                                                                                             \
    }()

#define BREVI_TRACE(module, level) BREVI_TRACE_INDENT(module, level, 0)

// The short form for a source file that names its module once:
//     namespace { const unsigned TraceModule = Brevi::TraceModuleContext; }
//     BTRACE(TraceNormal) << "Launched";
#define BTRACE(level) BREVI_TRACE(TraceModule, level)

#endif
