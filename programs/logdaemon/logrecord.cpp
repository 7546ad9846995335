#include "logrecord.h"

#include "htmltext.h"

#include "core/convertabledatasize.h"
#include "core/datasize.h"
#include "core/xmllistiterator.h"
#include "messaging/msgcatalogue.h"

#include <QStringList>

namespace Brevi {

namespace {

namespace Key = Catalogue::LogKey;

const QString TimeFormat = QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz");
const char* const LevelNames[] = {"Debug", "Information", "Warning", "Error", "Critical"};
const unsigned LevelCount = sizeof(LevelNames) / sizeof(LevelNames[0]);

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

const QString* find(const LogRecord::Parameters& message, const QString& key)
{
    for (const QPair<QString, QString>& item : message)
        if (item.first == key)
            return &item.second;
    return nullptr;
}

// The value of the parameter `key` (whose letter is `letter`) as it
// stands, or, for a size, as its prefix asks; false when the message lacks it.
bool value(const LogRecord::Parameters& message, const QString& key, QChar letter, QString& out)
{
    if (letter != QLatin1Char('c')) {
        const QString* found = find(message, key);
        if (found)
            out = *found;
        return found;
    }
    const QString* bytes = find(message, Key::DataSize);
    if (!bytes)
        return false;
    const QString* prefix = find(message, Key::DataSizePrfix);
    out = sizeText(bytes->toULongLong(), prefix ? prefix->toInt() : int(DataSize::PrefixAuto));
    return true;
}

// Goes through a format once: `onText` gets each stretch outside the
// parameters, `onParameter` each "%<n><letter>" key and its letter. A '%'
// that starts no such key is text.
template <typename OnText, typename OnParameter>
void walkFormat(const QString& format, OnText onText, OnParameter onParameter)
{
    int from = 0;
    int i = 0;
    while (i < format.size()) {
        if (format.at(i) != QLatin1Char('%')) {
            ++i;
            continue;
        }
        int end = i + 1;
        while (end < format.size() && format.at(end).isDigit())
            ++end;
        if (end == i + 1 || end == format.size() || !isParameterLetter(format.at(end))) {
            ++i;
            continue;
        }
        onText(format.midRef(from, i - from));
        onParameter(format.mid(i, end + 1 - i), format.at(end));
        i = from = end + 1;
    }
    onText(format.midRef(from));
}

// Line ends as <br>, for text that is not HTML.
QString htmlLines(const QString& text)
{
    return HtmlText::escape(text).replace(QLatin1Char('\n'), QLatin1String("<br>"));
}

QString percent(const QString& text) { return QString::fromLatin1(text.toUtf8().toPercentEncoding()); }

QString unpercent(const QString& text) { return QString::fromUtf8(QByteArray::fromPercentEncoding(text.toLatin1())); }

} // namespace

LogRecord LogRecord::fromBody(const XmlList& body, const QDateTime& received)
{
    LogRecord record;
    record.time = received;
    const Parameters message = parameters(body, &record);
    record.text = render(message);
    for (const QPair<QString, QString>& item : message) {
        const QString& key = item.first;
        if (key.startsWith(QLatin1Char('%')) && (key.endsWith(QLatin1Char('h')) || key.endsWith(QLatin1Char('p')))) {
            record.message = message;
            break;
        }
    }
    return record;
}

LogRecord::Parameters LogRecord::parameters(const XmlList& body, LogRecord* record)
{
    // One pass over the items: a daemon takes thousands of these a second.
    Parameters result;
    for (XmlListIterator item = body.first(); !item.isNull(); item.next()) {
        const QString name = item.name();
        if (name == Key::Arg || name.startsWith(QLatin1Char('%'))) {
            result.append(qMakePair(name, item.getString()));
        } else if (name == Key::DataSize) {
            unsigned long long bytes = 0;
            if (body.get(bytes, item))
                result.append(qMakePair(name, QString::number(bytes)));
        } else if (name == Key::DataSizePrfix) {
            int prefix = 0;
            if (body.get(prefix, item))
                result.append(qMakePair(name, QString::number(prefix)));
        } else if (record && name == Key::Category) {
            body.get(record->category, item);
        } else if (record && name == Key::Level) {
            body.get(record->level, item);
        }
    }
    return result;
}

QString LogRecord::render(const Parameters& message)
{
    const QString* format = find(message, Key::Arg);
    if (!format)
        return QString();
    QString out;
    out.reserve(format->size() * 2);
    walkFormat(
        *format, [&](const QStringRef& text) { out += text; },
        [&](const QString& key, QChar letter) {
            QString text;
            if (!value(message, key, letter, text))
                out += key;
            else
                out += letter == QLatin1Char('h') ? HtmlText::toPlain(text) : text;
        });
    return out;
}

QString LogRecord::toHtml() const
{
    const QString* format = find(message, Key::Arg);
    if (!format)
        return htmlLines(text);
    QString out;
    walkFormat(
        *format, [&](const QStringRef& text) { out += HtmlText::escape(text.toString()); },
        [&](const QString& key, QChar letter) {
            QString text;
            if (!value(message, key, letter, text))
                out += HtmlText::escape(key);
            else if (letter == QLatin1Char('h'))
                out += HtmlText::toSafe(text);
            else
                out += htmlLines(text);
        });
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

QString LogRecord::toLine(bool withMessage) const
{
    QStringList fields = {time.toString(TimeFormat), escape(source),   escape(process),
                          escape(category),          levelName(level), escape(text)};
    if (withMessage && !message.isEmpty()) {
        QStringList pairs;
        for (const QPair<QString, QString>& item : message)
            pairs << percent(item.first) + QLatin1Char('=') + percent(item.second);
        fields << pairs.join(QLatin1Char('&'));
    }
    return fields.join(QLatin1Char('\t'));
}

bool LogRecord::fromLine(const QString& line, LogRecord& record)
{
    QStringList fields = line.split(QLatin1Char('\t'));
    // A line of five fields was written before records had the title.
    if (fields.size() == 5)
        fields.insert(2, QString());
    if (fields.size() != 6 && fields.size() != 7)
        return false;
    const QDateTime time = QDateTime::fromString(fields.at(0), TimeFormat);
    unsigned level = 0;
    if (!time.isValid() || !levelFromText(fields.at(4), level))
        return false;
    Parameters message;
    if (fields.size() == 7) {
        for (const QString& pair : fields.at(6).split(QLatin1Char('&'))) {
            const int equals = pair.indexOf(QLatin1Char('='));
            if (equals < 0)
                return false;
            message.append(qMakePair(unpercent(pair.left(equals)), unpercent(pair.mid(equals + 1))));
        }
    }
    record.time = time;
    record.source = unescape(fields.at(1));
    record.process = unescape(fields.at(2));
    record.category = unescape(fields.at(3));
    record.level = level;
    record.text = unescape(fields.at(5));
    record.message = message;
    return true;
}

} // namespace Brevi
