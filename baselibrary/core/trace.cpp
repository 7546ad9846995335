#include "core/trace.h"

#include "core/byteorder.h"
#include "core/extent.h"
#include "core/tracedump.h"
#include "core/traceerrorcode.h"
#include "core/tracefilter.h"
#include "core/traceformat_p.h"

#include <QDataStream>
#include <QFileInfo>
#include <QTextCodec>
#include <QTextStream>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <ctime>

#ifndef BREVI_VERSION_MAJOR
#define BREVI_VERSION_MAJOR 2
#define BREVI_VERSION_MINOR 2
#define BREVI_VERSION_BUILD 11698
#endif

namespace Brevi {

namespace TraceDetail {
// Initial-exec: the library is loaded with the program, never opened later,
// so its thread-locals can live in the static TLS block and be read without a
// call.
__thread Trace* threadTrace __attribute__((tls_model("initial-exec"))) = nullptr;
} // namespace TraceDetail

using namespace TraceLayout;

namespace {

unsigned suiProcessId = 0;

const char* const BranchName = "RC0610";

// A reader in another process takes no lock: each stage of a record must be
// in memory before the next one points at it.
inline void publish() { std::atomic_thread_fence(std::memory_order_release); }

const QString& nullText()
{
    static const QString text = QStringLiteral("(null)");
    return text;
}

// The source file's base name: behind the last '\' or '/', before the last '.'.
QString sourceBaseName(const char* file)
{
    if (!file)
        return QString();
    const char* start = file;
    for (const char* p = file; *p; ++p)
        if (*p == '/' || *p == '\\')
            start = p + 1;
    const char* dot = std::strrchr(start, '.');
    const int length = dot ? int(dot - start) : int(std::strlen(start));
    return QString::fromUtf8(start, length);
}

} // namespace

const QHash<unsigned, QString>& Trace::defaultModuleNames()
{
    static const QHash<unsigned, QString> names = {
        {TraceModuleInvalid, "INVALID"},
        {TraceModuleConfig, "CONFIG"},
        {TraceModuleSharedMemory, "SHAREDMEMORY"},
        {TraceModuleXmlList, "XMLLIST"},
        {TraceModuleTcpSocket, "TCPSOCKET"},
        {TraceModuleNetAddress, "NETADDRESS"},
        {TraceModuleMsg, "MSG"},
        {TraceModuleContext, "CONTEXT"},
        {TraceModuleSpawn, "SPAWN"},
        {TraceModuleMsgPacket, "MSGPACKET"},
        {TraceModuleDatachannel, "DATACHANNEL"},
        {TraceModuleProcessCreate, "PROCESSCREATE"},
        {TraceModuleRawFile, "RAWFILE"},
        {TraceModuleBPlusTree, "BPLUSTREE"},
        {TraceModuleBlocks, "BLOCKS"},
        {TraceModuleBlockCache, "BLOCKCACHE"},
        {TraceModulePagedList, "PAGEDLIST"},
        {TraceModuleDataPacket, "DATAPACKET"},
        {TraceModulePack, "PACK"},
        {TraceModuleLog, "LOG"},
        {TraceModuleTimer, "TIMER"},
        {TraceModuleFixedPath, "FIXEDPATH"},
        {TraceModuleVss, "VSS"},
        {TraceModuleWmi, "WMI"},
        {TraceModuleLucene, "LUCENE"},
        {TraceModulePagedQueue, "PAGEDQUEUE"},
        {TraceModuleBufferedFile, "BUFFEREDFILE"},
        {TraceModuleBackup, "BACKUP"},
        {TraceModuleFilterConfig, "FLTRCFG"},
        {TraceModuleChildManager, "CHILDMANAGER"},
        {TraceModuleTemplate, "TEMPLATE"},
        {TraceModuleMetaDataStore, "METADATASTORE"},
        {TraceModuleHubViewer, "HUBVIEWER"},
        {TraceModuleHub, "HUB"},
        {TraceModuleApplication, "APPLICATION"},
    };
    return names;
}

Trace::Trace()
    : moModules(defaultModuleNames())
{
    initializeBuffer(macPrivate, PrivateBufferSize, true);
    object(this);
    setLevel(mpucBuffer, TraceNormal, 0);
}

Trace::~Trace()
{
    closeFile();
    if (object() == this)
        object(nullptr);
}

unsigned Trace::getProcessId() { return suiProcessId; }
void Trace::setProcessId(unsigned pid) { suiProcessId = pid; }

QList<QPair<QString, unsigned>> Trace::moduleList() const
{
    QList<QPair<QString, unsigned>> list;
    for (auto it = moModules.constBegin(); it != moModules.constEnd(); ++it)
        list.append(qMakePair(it.value(), it.key()));
    return list;
}

// ---------------------------------------------------------------------------
// The ring

// The hot path of every value: a write that stays short of the ring's end.
// Defined here, ahead of its callers, so that the small fixed-size writes are
// inlined into plain stores.
inline void Trace::ringWrite(const void* bytes, unsigned n)
{
    if (n < muiBufferSize - muiWrite) {
        std::memcpy(mpucBuffer + muiWrite, bytes, n);
        muiWrite += n;
    } else {
        ringWriteWrapping(bytes, n);
    }
}

void Trace::ringWriteWrapping(const void* bytes, unsigned n)
{
    const unsigned char* source = static_cast<const unsigned char*>(bytes);
    const unsigned first = muiBufferSize - muiWrite;
    if (n < first) {
        std::memcpy(mpucBuffer + muiWrite, source, n);
        muiWrite += n;
    } else {
        std::memcpy(mpucBuffer + muiWrite, source, first);
        std::memcpy(mpucBuffer + RingOffset, source + first, n - first);
        muiWrite = RingOffset + n - first;
    }
}

inline void Trace::ringWriteByte(unsigned char byte)
{
    mpucBuffer[muiWrite] = byte;
    if (++muiWrite == muiBufferSize)
        muiWrite = RingOffset;
}

inline unsigned Trace::ringDistance(unsigned from, unsigned to) const
{
    return to >= from ? to - from : muiBufferSize - from + to - RingOffset;
}

namespace {
// The 17 bytes of a record header or of the trailer.
void makeHeader(unsigned char* out, unsigned char start, unsigned sequence, unsigned length)
{
    out[0] = start;
    ByteOrder::store32(out + 1, RecordMagic1);
    ByteOrder::store32(out + 5, RecordMagic2);
    ByteOrder::store32(out + SequenceOffset, sequence);
    ByteOrder::store32(out + PreviousLengthOffset, length);
}
} // namespace

void Trace::initializeBuffer(unsigned char* buffer, unsigned size, bool keepFilter)
{
    // The 490 bound is the one that has always been used. A buffer between it
    // and the header plus one empty record could not even hold the trailer, so
    // it is refused the same way rather than written past its end.
    if (!buffer || size < MinimumBufferSize || size < RecordOverhead) {
        if (mpucBuffer != macPrivate)
            initializeBuffer(macPrivate, PrivateBufferSize, true);
        return;
    }

    unsigned char savedLevels[LevelsSize];
    const bool restoreLevels = keepFilter && mpucBuffer;
    if (restoreLevels)
        std::memcpy(savedLevels, mpucBuffer + LevelsOffset, LevelsSize);

    ++muiInstance;
    muiSequence = 1;
    if (mpucBuffer)
        active(mpucBuffer, false);

    mpucBuffer = buffer;
    muiBufferSize = size;
    muiRecordMax = size - RecordOverhead;

    std::memset(buffer, 0, size);
    muiRecordStart = muiWrite = RingOffset;
    muiLastLength = 0;

    unsigned char trailer[HeaderSize];
    makeHeader(trailer, TrailerStart, muiSequence, 0);
    ringWrite(trailer, HeaderSize);
    ByteOrder::store32(buffer + TrailerPositionOffset, RingOffset);
    if (restoreLevels)
        std::memcpy(buffer + LevelsOffset, savedLevels, LevelsSize);
    publish();
    active(buffer, true);
}

void Trace::disable()
{
    if (mpucBuffer)
        active(mpucBuffer, false);
    mpucBuffer = nullptr;
    mbLine = mbRefuse = false;
}

// ---------------------------------------------------------------------------
// Lines

void Trace::updateTimeText()
{
    const TraceClock::Reading now = moClock.now();
    // The local-time text changes once a second; only the milliseconds are
    // made on every line.
    if (now.seconds != mllTimeSecond) {
        mllTimeSecond = now.seconds;
        const time_t seconds = time_t(now.seconds);
        tm local;
        localtime_r(&seconds, &local);
        const int parts[4] = {local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec};
        for (int i = 0; i < 4; ++i) {
            macTime[2 * i] = char('0' + parts[i] / 10);
            macTime[2 * i + 1] = char('0' + parts[i] % 10);
        }
        macTime[8] = '.';
    }
    const unsigned ms = now.nanoseconds / 1000000;
    macTime[9] = char('0' + ms / 100);
    macTime[10] = char('0' + ms / 10 % 10);
    macTime[11] = char('0' + ms % 10);
    macTime[12] = 0;
}

inline bool Trace::reserve(unsigned need, unsigned take)
{
    if (muiRoom >= need) {
        muiRoom -= take;
        return true;
    }
    muiRoom = 0;
    return false;
}

inline void Trace::endValue()
{
    muiFormat = FormatBlank;
    if (muiRoom)
        muiCommitted = muiWrite;
    else
        muiWrite = muiCommitted;
}

void Trace::entry(int indent, const TraceSite& site, unsigned line)
{
    if (!mbLine)
        return;
    updateTimeText();
    // A negative indent takes effect before its line, so that it lines up with
    // the positive one it closes.
    if (indent < 0 && msIndent.size() >= -indent)
        msIndent.chop(-indent);
    const char16_t* name = site.name();
    unsigned nameLength = site.length();
    if (!name) {
        if (site.file() != mpcLastFile) {
            mpcLastFile = site.file();
            msSourceName = sourceBaseName(site.file());
        }
        name = reinterpret_cast<const char16_t*>(msSourceName.constData());
        nameLength = unsigned(msSourceName.size());
    }
    muiSourceLine = line;

    muiRoom = muiRecordMax;
    if (muiRoom > 2 * nameLength + HeaderSize + FixedFieldsSize) {
        muiWrite = muiRecordStart + HeaderSize;
        if (muiWrite >= muiBufferSize)
            muiWrite = muiWrite - muiBufferSize + RingOffset;
        unsigned char fixed[FixedFieldsSize];
        std::memcpy(fixed, macTime, TimeLength);
        fixed[TimeLength] = 0;
        fixed[LevelOffset - TimeOffset] = static_cast<unsigned char>(meLevel);
        ByteOrder::store16(fixed + (ModuleOffset - TimeOffset), static_cast<std::uint16_t>(muiModule));
        ByteOrder::store16(fixed + (IdOffset - TimeOffset), musId);
        ByteOrder::store32(fixed + (SourceLineOffset - TimeOffset), line);
        ByteOrder::store16(fixed + (SourceLengthOffset - TimeOffset), static_cast<std::uint16_t>(nameLength));
        ringWrite(fixed, FixedFieldsSize);
        writeString16Payload(name, nameLength);
        muiRoom -= HeaderSize + FixedFieldsSize + 2 * nameLength;
        muiCommitted = muiWrite;
    } else {
        muiCommitted = 0;
        muiRoom = 0;
    }

    if (mpoText) {
        QTextStream& out = *mpoText;
        const QString module = moModules.value(muiModule, QString::number(muiModule));
        const QString source = QString::fromUtf16(name, int(std::min(nameLength, 14u))) + ':' + QString::number(line);
        out << macTime << ' ' << int(meLevel) << ' ';
        out << qSetFieldWidth(12) << Qt::left << module.left(12) << qSetFieldWidth(0) << ' ';
        out << qSetFieldWidth(20) << source << qSetFieldWidth(0) << Qt::right << ' ' << msIndent;
    }

    muiFormat = 0;
    if (indent > 0)
        msIndent.append(QString(indent, QLatin1Char(' ')));
}

inline void Trace::writeString16Payload(const char16_t* text, unsigned length)
{
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    ringWrite(text, 2 * length);
#else
    for (unsigned i = 0; i < length; ++i) {
        ringWriteByte(static_cast<unsigned char>(text[i]));
        ringWriteByte(static_cast<unsigned char>(text[i] >> 8));
    }
#endif
}

// Type, format word and the length's low 16 bits: a length above 65535 keeps
// only those bits, as the record's field is 16 bits wide.
inline void Trace::writeStringHeader(ValueType type, unsigned length)
{
    unsigned char header[5] = {type, static_cast<unsigned char>(muiFormat), static_cast<unsigned char>(muiFormat >> 8),
                               static_cast<unsigned char>(length), static_cast<unsigned char>(length >> 8)};
    ringWrite(header, 5);
}

template <typename T>
void Trace::writeInteger(ValueType type, T value)
{
    const unsigned payload = sizeof(T);
    if (reserve(payload + 4, payload + 3)) {
        unsigned char bytes[3 + sizeof(T)] = {type, static_cast<unsigned char>(muiFormat),
                                              static_cast<unsigned char>(muiFormat >> 8)};
        ByteOrder::storeLittle(bytes + 3, value);
        ringWrite(bytes, sizeof bytes);
    }
}

Trace& Trace::operator<<(const QString& value)
{
    if (!mbLine)
        return *this;
    const QString& text = value.isEmpty() ? nullText() : value;
    const unsigned payload = 2 * unsigned(text.size());
    if (reserve(payload + 6, payload + 5)) {
        writeStringHeader(ValueString16, unsigned(text.size()));
        writeString16Payload(reinterpret_cast<const char16_t*>(text.constData()), unsigned(text.size()));
    }
    if (mpoText)
        TraceFormat::writeString(*mpoText, muiFormat, value, true);
    endValue();
    return *this;
}

Trace& Trace::operator<<(const char* value)
{
    if (!mbLine)
        return *this;
    const char* text = value ? value : "(null)";
    const unsigned payload = unsigned(std::strlen(text));
    if (reserve(payload + 6, payload + 5)) {
        writeStringHeader(ValueString8, payload);
        ringWrite(text, payload);
    }
    if (mpoText)
        TraceFormat::writeString(*mpoText, muiFormat, QString::fromLatin1(text), false);
    endValue();
    return *this;
}

Trace& Trace::operator<<(const QString* value) { return *this << (value ? *value : QString()); }

Trace& Trace::operator<<(const unsigned short* value)
{
    return *this << (value ? QString::fromUtf16(value) : QString());
}

Trace& Trace::operator<<(const QByteArray& value) { return *this << QString::fromUtf8(value); }

Trace& Trace::operator<<(const Extent& value) { return *this << value.toQString(); }

Trace& Trace::operator<<(const TraceErrorCode& value) { return *this << value.getErrorText(); }

Trace& Trace::operator<<(const void* value)
{
    if (!mbLine)
        return *this;
    writeInteger(ValuePointer64, reinterpret_cast<std::uint64_t>(value));
    if (mpoText)
        TraceFormat::writePointer(*mpoText, muiFormat, reinterpret_cast<quint64>(value));
    endValue();
    return *this;
}

Trace& Trace::operator<<(int value)
{
    if (!mbLine)
        return *this;
    writeInteger(ValueInt32, static_cast<std::uint32_t>(value));
    if (mpoText)
        TraceFormat::writeSigned(*mpoText, muiFormat, value, static_cast<quint32>(value));
    endValue();
    return *this;
}

Trace& Trace::operator<<(unsigned value)
{
    if (!mbLine)
        return *this;
    writeInteger(ValueUint32, static_cast<std::uint32_t>(value));
    if (mpoText)
        TraceFormat::writeUnsigned(*mpoText, muiFormat, value);
    endValue();
    return *this;
}

Trace& Trace::operator<<(long long value)
{
    if (!mbLine)
        return *this;
    writeInteger(ValueInt64, static_cast<std::uint64_t>(value));
    if (mpoText)
        TraceFormat::writeSigned(*mpoText, muiFormat, value, static_cast<quint64>(value));
    endValue();
    return *this;
}

Trace& Trace::operator<<(unsigned long long value)
{
    if (!mbLine)
        return *this;
    writeInteger(ValueUint64, static_cast<std::uint64_t>(value));
    if (mpoText)
        TraceFormat::writeUnsigned(*mpoText, muiFormat, value);
    endValue();
    return *this;
}

Trace& Trace::operator<<(bool value)
{
    if (!mbLine)
        return *this;
    if (reserve(5, 4)) {
        const unsigned char bytes[4] = {ValueBool, static_cast<unsigned char>(muiFormat),
                                        static_cast<unsigned char>(muiFormat >> 8),
                                        static_cast<unsigned char>(value ? 1 : 0)};
        ringWrite(bytes, 4);
    }
    if (mpoText)
        TraceFormat::writeBool(*mpoText, muiFormat, value);
    endValue();
    return *this;
}

Trace& Trace::operator<<(TraceWidthS value)
{
    width(value.width);
    return *this;
}

void Trace::flush()
{
    mbRefuse = false;
    if (!mbLine)
        return;

    const unsigned start = muiRecordStart;
    unsigned length = 0;
    if (muiCommitted != 0) {
        ringWriteByte(RecordEnd);
        const unsigned end = muiWrite;
        length = ringDistance(start, end);

        // Zeros first, so that stale ring bytes behind the record cannot pass
        // for a trailer while the header and the new trailer go in.
        static const unsigned char zeros[HeaderSize] = {};
        ringWrite(zeros, HeaderSize);
        publish();

        unsigned char header[HeaderSize];
        makeHeader(header, HeaderStart, muiSequence, muiLastLength);
        muiWrite = start;
        ringWrite(header, HeaderSize);
        publish();

        ++muiSequence;
        muiLastLength = length;
        makeHeader(header, TrailerStart, muiSequence, length);
        muiWrite = end;
        ringWrite(header, HeaderSize);
        publish();
        ByteOrder::store32(mpucBuffer + TrailerPositionOffset, end);
        muiRecordStart = end;
    }

    if (mpoData && length) {
        // A binary file holds the ring's bytes without the header.
        QDataStream& out = *mpoData;
        const unsigned body = length - HeaderSize;
        out << quint32(body);
        unsigned from = start + HeaderSize;
        if (from >= muiBufferSize)
            from = from - muiBufferSize + RingOffset;
        const unsigned first = std::min(body, muiBufferSize - from);
        out.writeRawData(reinterpret_cast<const char*>(mpucBuffer + from), int(first));
        out.writeRawData(reinterpret_cast<const char*>(mpucBuffer + RingOffset), int(body - first));
        moFile.flush();
    } else if (mpoText) {
        *mpoText << '\n';
        mpoText->flush();
    }

    ++muiFileLines;
    mbLine = false;
    // The version line that opens a file does not itself rotate it.
    if (muiLinesPerFile && muiFileLines >= muiLinesPerFile && !mbWritingVersion)
        setFile();
}

// ---------------------------------------------------------------------------
// Files

void Trace::closeFile()
{
    mpoText.reset();
    mpoData.reset();
    moFile.close();
}

bool Trace::file(const QString& name, unsigned linesPerFile, unsigned filesToKeep, TraceFileTypeE type)
{
    if (moFile.isOpen())
        closeFile();
    mbBinary = type == TraceFileBinary;
    muiLinesPerFile = linesPerFile;
    muiFilesToKeep = filesToKeep;
    msFileBase = name;
    muiFileNumber = 0;
    return setFile();
}

bool Trace::setFile()
{
    ++muiFileNumber;
    muiFileLines = 0;
    closeFile();

    QString name;
    if (muiLinesPerFile == 0) {
        name = msFileBase + ".tra";
    } else {
        const auto numbered = [this](unsigned number) {
            return msFileBase + QString("-%1.tra").arg(number, 6, 10, QLatin1Char('0'));
        };
        if (muiFilesToKeep && muiFileNumber > muiFilesToKeep)
            QFile::remove(numbered(muiFileNumber - muiFilesToKeep));
        name = numbered(muiFileNumber);
    }

    moFile.setFileName(name);
    if (!moFile.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    muiLastLength = 0;
    if (mbBinary) {
        mpoData.reset(new QDataStream(&moFile));
        mpoData->setByteOrder(QDataStream::LittleEndian);
    } else {
        mpoText.reset(new QTextStream(&moFile));
        mpoText->setCodec("UTF-8");
        mpoText->setFieldAlignment(QTextStream::AlignRight);
    }
    writeVersionLine();
    return true;
}

void Trace::writeVersionLine()
{
    if (!doTrace(TraceModuleContext, TraceAlways))
        return;
    mbWritingVersion = true;
    {
        TraceLine line(*this, 0, BREVI_TRACE_SITE, __LINE__);
        line << "Major Version:" << BREVI_VERSION_MAJOR << "Minor version:" << BREVI_VERSION_MINOR << "Build number"
             << BREVI_VERSION_BUILD;
        if (BranchName[0] == 0)
            line << "Mainline";
        else
            line << "Branch name" << BranchName;
    }
    mbWritingVersion = false;
}

void Trace::dump(QTextStream& stream, TraceFilter* filter, TracePosition* start, TracePosition* end)
{
    TraceDump reader(*this, filter, start, end);
    while (boost::shared_ptr<TraceDumpEntry> entry = reader.popEntry())
        entry->writeToStream(stream);
}

// ---------------------------------------------------------------------------
// Levels and marks

void Trace::setLevel(unsigned char* buffer, TraceLevelE level, unsigned module)
{
    if (!buffer || module > ModuleCount)
        return;
    unsigned char* levels = buffer + LevelsOffset;
    if (module == 0)
        std::memset(levels, (unsigned(level) & 0x0F) * 0x11, LevelsSize);
    else
        setLevelNibble(levels, module, unsigned(level));
}

void Trace::setLevel(TraceLevelE level, unsigned module)
{
    if (Trace* current = object())
        setLevel(current->mpucBuffer, level, module);
}

void Trace::setLevel(TraceLevelE level, const QString& module)
{
    Trace* current = object();
    if (!current)
        return;
    bool isNumber = false;
    const unsigned id = module.toUInt(&isNumber);
    if (isNumber && id != 0)
        return setLevel(level, id);
    for (auto it = current->moModules.constBegin(); it != current->moModules.constEnd(); ++it)
        if (it.value() == module)
            return setLevel(level, it.key());
}

TraceLevelE Trace::getLevel(const unsigned char* buffer, unsigned module)
{
    if (!buffer || module == 0 || module > ModuleCount)
        return TraceLevelNone;
    const unsigned level = levelNibble(buffer + LevelsOffset, module);
    return level > TraceDebug ? TraceLevelNone : TraceLevelE(level);
}

TraceLevelE Trace::getLevel(unsigned module)
{
    const Trace* current = object();
    return getLevel(current ? current->mpucBuffer : nullptr, module);
}

void Trace::lowerLevel(unsigned char* buffer, TraceLevelE level, unsigned module)
{
    if (!buffer || module > ModuleCount)
        return;
    if (module == 0) {
        // Every module is lowered; the ones with names say so.
        const QHash<unsigned, QString>& names = defaultModuleNames();
        for (unsigned m = 1; m <= ModuleCount; ++m) {
            if (names.contains(m)) {
                lowerLevel(buffer, level, m);
            } else if (unsigned(level) < levelNibble(buffer + LevelsOffset, m)) {
                setLevelNibble(buffer + LevelsOffset, m, unsigned(level));
            }
        }
        return;
    }
    const TraceLevelE old = getLevel(buffer, module);
    const Trace* current = object();
    const QString name = current ? current->getModuleIdName(module) : defaultModuleNames().value(module);
    if (unsigned(level) < unsigned(old)) {
        BREVI_TRACE(TraceModuleContext, TraceAlways)
            << "Lower trace level from" << int(old) << "to" << int(level) << "for" << name;
        setLevelNibble(buffer + LevelsOffset, module, unsigned(level));
    } else {
        BREVI_TRACE(TraceModuleContext, TraceAlways)
            << "Do not change trace level from" << int(old) << "to" << int(level) << "for" << name;
    }
}

void Trace::lowerLevel(TraceLevelE level, unsigned module)
{
    if (Trace* current = object())
        lowerLevel(current->mpucBuffer, level, module);
}

void Trace::getFilter(const unsigned char* buffer, TraceFilter& filter)
{
    if (buffer)
        filter.setLevels(buffer + LevelsOffset);
}

void Trace::getFilter(TraceFilter& filter)
{
    if (const Trace* current = object())
        getFilter(current->mpucBuffer, filter);
}

void Trace::setFilter(unsigned char* buffer, const TraceFilter& filter)
{
    if (buffer)
        std::memcpy(buffer + LevelsOffset, filter.levels(), LevelsSize);
}

void Trace::setFilter(const TraceFilter& filter)
{
    if (Trace* current = object())
        setFilter(current->mpucBuffer, filter);
}

bool Trace::active(const unsigned char* buffer)
{
    return buffer && ByteOrder::load32(buffer + MarkOffset1) == Mark1 &&
           ByteOrder::load32(buffer + MarkOffset2) == Mark2;
}

void Trace::active(unsigned char* buffer, bool value)
{
    if (!buffer)
        return;
    ByteOrder::store32(buffer + MarkOffset1, value ? Mark1 : 0);
    ByteOrder::store32(buffer + MarkOffset2, value ? Mark2 : 0);
}

bool Trace::active()
{
    const Trace* current = object();
    return current && active(current->mpucBuffer);
}

void Trace::active(bool value)
{
    if (Trace* current = object())
        active(current->mpucBuffer, value);
}

// ---------------------------------------------------------------------------
// Text form of values

void Trace::setStreamFormat(QTextStream& stream, TraceFormatE format, unsigned word)
{
    if (word & FormatBlank)
        stream << ' ';
    const int fieldWidth = int(word & FormatWidthMask);
    switch (format) {
    case TraceFormatString:
        stream.setFieldAlignment((word & FormatLeft) ? QTextStream::AlignLeft : QTextStream::AlignRight);
        if (fieldWidth)
            stream.setFieldWidth(fieldWidth);
        break;
    case TraceFormatInteger:
        stream.setFieldAlignment(QTextStream::AlignRight);
        if (word & FormatHex) {
            stream << "0x";
            if (fieldWidth > 2) {
                stream.setPadChar('0');
                stream.setFieldWidth(fieldWidth - 2);
            }
            stream.setIntegerBase(16);
        } else if (word & FormatOctal) {
            stream << "0";
            if (fieldWidth > 1) {
                stream.setPadChar('0');
                stream.setFieldWidth(fieldWidth - 1);
            }
            stream.setIntegerBase(8);
        } else {
            if (!(word & FormatLeft))
                stream.setFieldWidth(fieldWidth);
            stream.setIntegerBase(10);
        }
        break;
    case TraceFormatPointer: {
        // Pointers are 64 bits here: "0x" and 16 digits unless a width is given.
        stream.setFieldAlignment(QTextStream::AlignRight);
        stream << "0x";
        stream.setPadChar('0');
        stream.setFieldWidth((fieldWidth ? fieldWidth : 18) - 2);
        stream.setIntegerBase(16);
        break;
    }
    }
}

} // namespace Brevi
