#include "logrecord.h"

#include "core/convertabledatasize.h"
#include "core/datasize.h"
#include "messaging/binaryaddress.h"
#include "messaging/msg.h"
#include "messaging/msgcatalogue.h"

#include <QStringList>

namespace Brevi {

namespace {

namespace Key = Catalogue::LogKey;

const QString TimeFormat = QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz");
const char* const LevelNames[] = {"Debug", "Information", "Warning", "Error", "Critical"};
const unsigned LevelCount = sizeof(LevelNames) / sizeof(LevelNames[0]);
const int FieldCount = 5;

QString escape(const QString& field)
{
    QString out;
    out.reserve(field.size());
    for (const QChar c : field) {
        switch (c.unicode()) {
        case '\\':
            out += QLatin1String("\\\\");
            break;
        case '\t':
            out += QLatin1String("\\t");
            break;
        case '\n':
            out += QLatin1String("\\n");
            break;
        case '\r':
            out += QLatin1String("\\r");
            break;
        default:
            out += c;
        }
    }
    return out;
}

QString unescape(const QString& field)
{
    QString out;
    out.reserve(field.size());
    for (int i = 0; i < field.size(); ++i) {
        const QChar c = field.at(i);
        if (c != QLatin1Char('\\') || i + 1 == field.size()) {
            out += c;
            continue;
        }
        switch (field.at(++i).unicode()) {
        case 't':
            out += QLatin1Char('\t');
            break;
        case 'n':
            out += QLatin1Char('\n');
            break;
        case 'r':
            out += QLatin1Char('\r');
            break;
        default:
            out += field.at(i);
        }
    }
    return out;
}

// The size as its prefix asks: the unit that fits, plain bytes with
// delimiters, or a fixed unit.
QString sizeText(unsigned long long bytes, int prefix)
{
    switch (prefix) {
    case DataSize::PrefixBytes:
        return ConvertableDataSize::addDelimiters(bytes) + QStringLiteral(" B");
    case DataSize::PrefixKilo:
    case DataSize::PrefixMega:
    case DataSize::PrefixGiga:
    case DataSize::PrefixTera: {
        ConvertableDataSize size(double(bytes), ConvertableDataSize::ScaleBytes);
        size.convertUnits(ConvertableDataSize::SizeScaleE(10 * (prefix - DataSize::PrefixBytes)));
        return size.toString();
    }
    default:
        return ConvertableDataSize::normalised(bytes);
    }
}

bool isParameterLetter(QChar c) { return QStringLiteral("silbdtmhpc").contains(c); }

} // namespace

LogRecord LogRecord::fromMessage(const Msg& message, const QDateTime& received)
{
    LogRecord record;
    record.time = received;
    const Extent flat = message.source().binary().text();
    record.source = QString::fromUtf8(reinterpret_cast<const char*>(flat.data()), int(flat.size()));
    message.body().get(record.category, Key::Category);
    message.body().get(record.level, Key::Level);
    record.text = render(message.body());
    return record;
}

QString LogRecord::render(const XmlList& body)
{
    QString format;
    body.get(format, Key::Arg);
    QString out;
    out.reserve(format.size() * 2);
    int i = 0;
    while (i < format.size()) {
        const QChar c = format.at(i);
        int end = i + 1;
        while (end < format.size() && format.at(end).isDigit())
            ++end;
        if (c != QLatin1Char('%') || end == i + 1 || end == format.size() || !isParameterLetter(format.at(end))) {
            out += c;
            ++i;
            continue;
        }
        const QString key = format.mid(i, end + 1 - i);
        QString value;
        bool found = false;
        if (format.at(end) == QLatin1Char('c')) {
            unsigned long long bytes = 0;
            int prefix = DataSize::PrefixAuto;
            found = body.get(bytes, Key::DataSize);
            body.get(prefix, Key::DataSizePrfix);
            if (found)
                value = sizeText(bytes, prefix);
        } else {
            found = body.get(value, key);
        }
        out += found ? value : key;
        i = end + 1;
    }
    return out;
}

QString LogRecord::levelName(unsigned level)
{
    return level < LevelCount ? QString::fromLatin1(LevelNames[level]) : QString::number(level);
}

bool LogRecord::levelFromText(const QString& text, unsigned& level)
{
    bool number = false;
    const unsigned value = text.toUInt(&number);
    if (number) {
        level = value;
        return true;
    }
    for (unsigned i = 0; i < LevelCount; ++i)
        if (text.compare(QLatin1String(LevelNames[i]), Qt::CaseInsensitive) == 0) {
            level = i;
            return true;
        }
    return false;
}

QString LogRecord::toLine() const
{
    const QStringList fields = {time.toString(TimeFormat), escape(source), escape(category), levelName(level),
                                escape(text)};
    return fields.join(QLatin1Char('\t'));
}

bool LogRecord::fromLine(const QString& line, LogRecord& record)
{
    const QStringList fields = line.split(QLatin1Char('\t'));
    if (fields.size() != FieldCount)
        return false;
    const QDateTime time = QDateTime::fromString(fields.at(0), TimeFormat);
    unsigned level = 0;
    if (!time.isValid() || !levelFromText(fields.at(3), level))
        return false;
    record.time = time;
    record.source = unescape(fields.at(1));
    record.category = unescape(fields.at(2));
    record.level = level;
    record.text = unescape(fields.at(4));
    return true;
}

} // namespace Brevi
