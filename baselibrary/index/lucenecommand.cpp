// LuceneComm's command side: the field options, and the clause text a
// Command builds from typed values.

#include "index/lucenecomm.h"

#include "core/xmllistiterator.h"

#include <QStringBuilder>

#include <algorithm>
#include <climits>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleLucene;

const char* const ClauseListKey = "ClauseList";
const char* const ReturnOptionsKey = "ReturnOptions";
const char* const ReturnFieldKey = "ReturnField";
const char* const ResultsPerPageKey = "ResultsPerPage";
const char* const MaximumResultsKey = "MaximumResults";
const char* const ReturnKey = "Return";

// Names go on the wire between double quotes without escapes, so the two
// characters that would end or escape the quoted text are refused.
bool validName(const QString& name)
{
    if (!name.contains(QLatin1Char('"')) && !name.contains(QLatin1Char('\\')))
        return true;
    BTRACE(TraceAlways) << "Field name cannot hold a double quote or a backslash:" << name;
    return false;
}

// A tag is written bare, so it must read back as one word.
bool validTag(const QString& tag)
{
    for (const QChar c : tag)
        if (!c.isLetterOrNumber() && c != QLatin1Char('_') && c != QLatin1Char('-') && c != QLatin1Char('.')) {
            BTRACE(TraceAlways) << "Invalid tag:" << tag;
            return false;
        }
    return true;
}

QString escaped(const QString& value)
{
    if (!value.contains(QLatin1Char('\\')) && !value.contains(QLatin1Char('"')))
        return value;
    QString text = value;
    text.replace(QLatin1Char('\\'), QLatin1String("\\\\"));
    text.replace(QLatin1Char('"'), QLatin1String("\\\""));
    return text;
}

bool fitsInt32(long long value) { return value >= INT_MIN && value <= INT_MAX; }

// The value of a non-numeric typed field as its padded text.
QString padded(LuceneComm::Options::ValueE type, long long value)
{
    switch (type) {
    case LuceneComm::Options::eInt32:
        return LuceneComm::padInt32(int(value));
    case LuceneComm::Options::eInt64:
        return LuceneComm::padInt64(value);
    case LuceneComm::Options::eDate:
        return LuceneComm::padDate(int(value));
    case LuceneComm::Options::eEnum:
        return LuceneComm::padEnum(unsigned(value));
    case LuceneComm::Options::eBoolean:
        return LuceneComm::padBoolean(value != 0);
    case LuceneComm::Options::eText:
        break;
    }
    return QString::number(value);
}

// The text of a number for a typed field: plain for a numeric one, padded
// otherwise. False when it does not fit the type.
bool typedNumber(QString& text, const LuceneComm::Options& options, long long value)
{
    const LuceneComm::Options::ValueE type = options.value();
    if (type != LuceneComm::Options::eInt64 && !fitsInt32(value)) {
        BTRACE(TraceAlways) << "number to large" << value << "for type" << int(type);
        return false;
    }
    text = options.numeric() ? QString::number(value) : padded(type, value);
    return true;
}
} // namespace

// --- Padding ----------------------------------------------------------------

QString LuceneComm::padBoolean(bool value) { return value ? QStringLiteral("1") : QStringLiteral("0"); }

QString LuceneComm::padEnum(unsigned int value) { return QStringLiteral("%1").arg(value, 2, 10, QChar('0')); }

QString LuceneComm::padInt32(int value) { return QStringLiteral("%1").arg(value, 10, 10, QChar('0')); }

QString LuceneComm::padDate(int value) { return QStringLiteral("%1").arg(value, 14, 10, QChar('0')); }

QString LuceneComm::padInt64(long long value) { return QStringLiteral("%1").arg(value, 20, 10, QChar('0')); }

// --- Options and FieldOptions -----------------------------------------------

unsigned LuceneComm::Options::getOptionValue(QChar letter) const
{
    const int at = msOptions.indexOf(letter);
    if (at < 0)
        return 0;
    unsigned value = 0;
    for (int i = at + 1; i < msOptions.size() && msOptions.at(i).isDigit(); ++i)
        value = value * 10 + unsigned(msOptions.at(i).digitValue());
    return value;
}

LuceneComm::Options::ValueE LuceneComm::Options::value() const
{
    const unsigned type = getOptionValue(QLatin1Char('V'));
    return type <= eBoolean ? ValueE(type) : eText;
}

LuceneComm::Options LuceneComm::FieldOptions::options(const QString& name) const
{
    const auto named = moNames.constFind(name);
    if (named != moNames.constEnd())
        return *named;
    return moNames.value(QStringLiteral("Default"));
}

LuceneComm::Options LuceneComm::FieldOptions::options(const QString& name, const QString& tag) const
{
    if (!tag.isEmpty()) {
        const auto tagged = moTags.constFind(tag);
        if (tagged != moTags.constEnd())
            return *tagged;
    }
    return options(name);
}

void LuceneComm::FieldOptions::command(Command& command) const
{
    command.clear();
    command.addDefault(msDefault);
    // In name order, so that the same options always make the same text.
    QStringList names = moNames.keys();
    std::sort(names.begin(), names.end());
    for (const QString& name : names)
        command.copyField(name, moNames.value(name).options());
    QStringList tags = moTags.keys();
    std::sort(tags.begin(), tags.end());
    for (const QString& tag : tags)
        command.copyField(QString(), moTags.value(tag).options(), tag);
}

// --- Command: clauses -------------------------------------------------------

void LuceneComm::Command::writeTag(const QString& tag)
{
    if (!tag.isEmpty())
        msClauseList += tag % QLatin1Char(',');
}

bool LuceneComm::Command::addDefault(const QString& name)
{
    if (!validName(name))
        return false;
    msClauseList += QLatin1String(",De(\"") % name % QLatin1String("\")");
    return true;
}

bool LuceneComm::Command::copyField(const QString& name, const QString& text, const QString& tag)
{
    if (!validName(name) || !validTag(tag))
        return false;
    msClauseList += QLatin1String(",Fd(");
    writeTag(tag);
    msClauseList += QLatin1Char('"') % name % QLatin1String("\",\"") % escaped(text) % QLatin1String("\")");
    return true;
}

bool LuceneComm::Command::typedValue(QString& text, const QString& name, const QString& tag, const QString& value) const
{
    const Options fieldOptions = options(name, tag);
    const Options::ValueE type = fieldOptions.value();
    if (type == Options::eText) {
        text = value;
        return true;
    }
    bool ok = false;
    const long long number = type == Options::eInt64 ? value.trimmed().toLongLong(&ok) : value.trimmed().toInt(&ok);
    if (!ok) {
        BTRACE(TraceAlways) << "Value" << value << "of field" << name << "is not a number of type" << int(type);
        return false;
    }
    if (fieldOptions.numeric()) {
        // The server parses the number itself; it goes as it was given.
        text = value;
        return true;
    }
    return typedNumber(text, fieldOptions, number);
}

bool LuceneComm::Command::numberValue(QString& text, const QString& name, const QString& tag,
                                      unsigned long long value) const
{
    const Options fieldOptions = options(name, tag);
    if (fieldOptions.value() == Options::eText) {
        BTRACE(TraceAlways) << "Cannot add a number to string field" << name;
        return false;
    }
    if (value > static_cast<unsigned long long>(LLONG_MAX)) {
        BTRACE(TraceAlways) << "number to large" << value;
        return false;
    }
    return typedNumber(text, fieldOptions, static_cast<long long>(value));
}

bool LuceneComm::Command::addField(const QString& name, const QString& value, const QString& tag)
{
    QString text;
    return typedValue(text, name, tag, value) && copyField(name, text, tag);
}

bool LuceneComm::Command::addField(const QString& name, unsigned int value, const QString& tag)
{
    return addField(name, static_cast<unsigned long long>(value), tag);
}

bool LuceneComm::Command::addField(const QString& name, unsigned long long value, const QString& tag)
{
    QString text;
    return numberValue(text, name, tag, value) && copyField(name, text, tag);
}

bool LuceneComm::Command::addField(const QString& name, bool value, const QString& tag)
{
    return addField(name, static_cast<unsigned long long>(value ? 1 : 0), tag);
}

bool LuceneComm::Command::addField(const QString& name, const QDateTime& value, const QString& tag)
{
    const Options fieldOptions = options(name, tag);
    if (fieldOptions.value() != Options::eDate) {
        BTRACE(TraceAlways) << "Cannot store date in non date field" << name;
        return false;
    }
    if (!value.isValid()) {
        BTRACE(TraceAlways) << "Invalid date for field" << name;
        return false;
    }
    QString text;
    return typedNumber(text, fieldOptions, value.toSecsSinceEpoch()) && copyField(name, text, tag);
}

// --- Command: ranges --------------------------------------------------------

bool LuceneComm::Command::rangeBound(QString& text, const Options& options, const QString& value, bool high) const
{
    const Options::ValueE type = options.value();
    if (type == Options::eText) {
        // Text has no least or greatest value: an empty bound is open.
        text = value;
        return true;
    }
    long long number = 0;
    if (value.isEmpty()) {
        switch (type) {
        case Options::eInt64:
            number = high ? LLONG_MAX : LLONG_MIN;
            break;
        case Options::eEnum:
            // Enumerations are written two digits wide, so their text range
            // is 00 to 99; the 32-bit bounds would not sort around them.
            number = options.numeric() ? (high ? INT_MAX : INT_MIN) : (high ? 99 : 0);
            break;
        case Options::eBoolean:
            number = options.numeric() ? (high ? INT_MAX : INT_MIN) : (high ? 1 : 0);
            break;
        default:
            number = high ? INT_MAX : INT_MIN;
            break;
        }
    } else {
        bool ok = false;
        number = type == Options::eInt64 ? value.trimmed().toLongLong(&ok) : value.trimmed().toInt(&ok);
        if (!ok) {
            BTRACE(TraceAlways) << "Field is of type:" << int(type) << "and the bound" << value << "is not a number";
            return false;
        }
    }
    BTRACE(TraceDebug) << "Field is numeric:" << options.numeric() << "Field is of type:" << int(type);
    return typedNumber(text, options, number);
}

bool LuceneComm::Command::addRange(const QString& name, const QString& low, const QString& high, const QString& tag)
{
    const Options fieldOptions = options(name, tag);
    QString lowText;
    QString highText;
    return rangeBound(lowText, fieldOptions, low, false) && rangeBound(highText, fieldOptions, high, true) &&
           copyRange(name, lowText, highText, tag);
}

bool LuceneComm::Command::addRange(const QString& name, unsigned int low, unsigned int high, const QString& tag)
{
    return addRange(name, static_cast<unsigned long long>(low), static_cast<unsigned long long>(high), tag);
}

bool LuceneComm::Command::addRange(const QString& name, unsigned long long low, unsigned long long high,
                                   const QString& tag)
{
    QString lowText;
    QString highText;
    return numberValue(lowText, name, tag, low) && numberValue(highText, name, tag, high) &&
           copyRange(name, lowText, highText, tag);
}

bool LuceneComm::Command::addRange(const QString& name, const QDateTime& low, const QDateTime& high, const QString& tag)
{
    const Options fieldOptions = options(name, tag);
    if (fieldOptions.value() != Options::eDate) {
        BTRACE(TraceAlways) << "Field is not a date" << name;
        return false;
    }
    if (!low.isValid() || !high.isValid()) {
        BTRACE(TraceAlways) << "Invalid date for field" << name;
        return false;
    }
    QString lowText;
    QString highText;
    return typedNumber(lowText, fieldOptions, low.toSecsSinceEpoch()) &&
           typedNumber(highText, fieldOptions, high.toSecsSinceEpoch()) && copyRange(name, lowText, highText, tag);
}

// The bounds are escaped as field values are: a text range may hold any
// character, and the server unescapes every quoted value alike.
bool LuceneComm::Command::copyRange(const QString& name, const QString& low, const QString& high, const QString& tag)
{
    if (!validName(name) || !validTag(tag))
        return false;
    msClauseList += QLatin1String(",Fi(");
    writeTag(tag);
    msClauseList += QLatin1Char('"') % name % QLatin1String("\",\"") % escaped(low) % QLatin1String("\",\"") %
                    escaped(high) % QLatin1String("\")");
    return true;
}

bool LuceneComm::Command::addAll(const QString& name, const QString& tag)
{
    return addRange(name, QString(), QString(), tag);
}

// --- Command: sorting, indexes, lists ---------------------------------------

bool LuceneComm::Command::addSort(const QString& tag, const QString& name)
{
    if (!validName(name) || !validTag(tag))
        return false;
    msClauseList += QLatin1String(",So(");
    writeTag(tag);
    msClauseList += QLatin1Char('"') % name % QLatin1String("\")");
    return true;
}

bool LuceneComm::Command::addIndexList(const QString& tag, const QStringList& names)
{
    if (!validTag(tag))
        return false;
    for (const QString& name : names)
        if (!validName(name))
            return false;
    for (const QString& name : names) {
        msClauseList += QLatin1String(",In(");
        writeTag(tag);
        msClauseList += QLatin1Char('"') % name % QLatin1String("\")");
    }
    return true;
}

void LuceneComm::Command::mustContainClauseList() { msClauseList += QLatin1String(",Expr(M)"); }

void LuceneComm::Command::shouldContainClauseList() { msClauseList += QLatin1String(",Expr(S)"); }

void LuceneComm::Command::mustNotContainClauseList() { msClauseList += QLatin1String(",Expr(N)"); }

void LuceneComm::Command::endClauseList() { msClauseList += QLatin1String(",Expr(E)"); }

// --- Command: the return clause ---------------------------------------------

void LuceneComm::Command::makeReturnClause()
{
    msReturnClause = QLatin1String(",Re(") % msReturnOptions % QLatin1Char('P') % QString::number(muiResultsPerPage);
    if (muiMaximumResults)
        msReturnClause += QLatin1Char('M') % QString::number(muiMaximumResults);
    for (const QString& name : mqReturnClauseList)
        msReturnClause += QLatin1String(",\"") % name % QLatin1Char('"');
    msReturnClause += QLatin1Char(')');
}

void LuceneComm::Command::addReturn() { makeReturnClause(); }

bool LuceneComm::Command::addReturn(const QString& name)
{
    if (!validName(name))
        return false;
    mqReturnClauseList.append(name);
    makeReturnClause();
    BTRACE(TraceDebug) << "Return clause: " << msReturnClause;
    return true;
}

bool LuceneComm::Command::addReturn(const QStringList& names)
{
    for (const QString& name : names)
        if (!validName(name))
            return false;
    mqReturnClauseList += names;
    makeReturnClause();
    BTRACE(TraceDebug) << "Extra return terms: " << names.join(QLatin1Char(' '));
    return true;
}

void LuceneComm::Command::returnOptions(const QString& options)
{
    // The options run straight into the page count; digits or a clause's
    // punctuation would change what the server reads.
    QString letters;
    for (const QChar c : options)
        if (c.isLetter() && c != QLatin1Char('P') && c != QLatin1Char('M'))
            letters += c;
    if (letters != options)
        BTRACE(TraceAlways) << "Return options keep only letters other than P and M:" << options;
    msReturnOptions = letters;
    makeReturnClause();
}

void LuceneComm::Command::resultsPerPage(unsigned count)
{
    muiResultsPerPage = count;
    makeReturnClause();
}

void LuceneComm::Command::maximumResults(unsigned count)
{
    muiMaximumResults = count;
    makeReturnClause();
}

void LuceneComm::Command::clear()
{
    msClauseList.clear();
    msReturnClause.clear();
    mqReturnClauseList.clear();
}

XmlList LuceneComm::Command::toXml() const
{
    XmlList xml;
    xml.set(ClauseListKey, msClauseList);
    xml.set(ReturnOptionsKey, msReturnOptions);
    for (const QString& name : mqReturnClauseList)
        xml.set(ReturnFieldKey, name, XmlList::SetCreate);
    xml.set(ResultsPerPageKey, muiResultsPerPage);
    xml.set(MaximumResultsKey, muiMaximumResults);
    xml.set(ReturnKey, !msReturnClause.isEmpty());
    return xml;
}

bool LuceneComm::Command::fromXml(const XmlList& xml)
{
    clear();
    bool returnClause = false;
    bool ok = true;
    for (XmlListIterator it = xml.first(); !it.isNull(); it.next()) {
        const QString key = it.name();
        if (key == QLatin1String(ClauseListKey)) {
            msClauseList = it.getString();
        } else if (key == QLatin1String(ReturnOptionsKey)) {
            msReturnOptions = it.getString();
        } else if (key == QLatin1String(ReturnFieldKey)) {
            mqReturnClauseList.append(it.getString());
        } else if (key == QLatin1String(ResultsPerPageKey)) {
            muiResultsPerPage = it.getUint32();
        } else if (key == QLatin1String(MaximumResultsKey)) {
            muiMaximumResults = it.getUint32();
        } else if (key == QLatin1String(ReturnKey)) {
            returnClause = it.getBool();
        } else {
            BTRACE(TraceAlways) << "Unexpected entry in lucene command xml" << key;
            ok = false;
            break;
        }
    }
    if (returnClause)
        makeReturnClause();
    return ok;
}

} // namespace Brevi
