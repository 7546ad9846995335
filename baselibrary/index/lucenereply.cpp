// LuceneComm's reply side: the parsed Reply and the parser that reads the
// server's byte stream into replies.

#include "index/lucenereplyparser_p.h"

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleLucene;

struct ResponseNames {
    const char* code;
    const char* name;
};

// By Response value; 0 has neither.
const ResponseNames Responses[] = {
    {"", ""},
    {"IO", "IndexOpen"},
    {"IC", "IndexClose"},
    {"IZ", "IndexOptimse"},
    {"IA", "IndexAdd"},
    {"IS", "IndexSearch"},
    {"ID", "IndexDelete"},
    {"SM", "SearchMatch"},
    {"IDQ", "IndexDeleteQuery"},
    {"CM", "IndexCommit"},
    {"SR", "SearchResults"},
    {"NP", "IndexNoop"},
    {"TL", "IndexTraceLevel"},
};
const int ResponseCount = int(sizeof(Responses) / sizeof(Responses[0]));

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }
} // namespace

// --- Reply ------------------------------------------------------------------

LuceneComm::Reply::Reply(const QString& responseName)
    : meResponse(responseFromCode(responseName))
{}

QString LuceneComm::Reply::responseName(Response response)
{
    const int index = int(response);
    return index > 0 && index < ResponseCount ? QString::fromLatin1(Responses[index].name) : QString();
}

LuceneComm::Response LuceneComm::Reply::responseFromCode(const QString& code)
{
    for (int i = 1; i < ResponseCount; ++i)
        if (code == QLatin1String(Responses[i].code))
            return Response(i);
    return eResponseUnknown;
}

void LuceneComm::Reply::addClause(Clause clause, const QStringList& values) { moClauses.append({clause, values}); }

void LuceneComm::Reply::setStatus(const QString& value)
{
    if (value.startsWith(QLatin1Char('T'))) {
        meStatus = eStatusSuccess;
        if (meResponse == eResponseIndexSearch || meResponse == eResponseSearchResults)
            muiMatches = value.mid(1).toUInt();
    } else if (value.size() > 1 && value.at(1) == QLatin1Char('M')) {
        meStatus = eStatusOther;
    }
}

bool LuceneComm::Reply::firstClause(Clause& clause, QStringList& values)
{
    miClause = 0;
    return nextClause(clause, values);
}

bool LuceneComm::Reply::nextClause(Clause& clause, QStringList& values)
{
    if (miClause >= moClauses.size())
        return false;
    const ClauseEntry& entry = moClauses.at(miClause++);
    clause = entry.first;
    values = entry.second;
    return true;
}

bool LuceneComm::Reply::firstField(QString& name, QString& value)
{
    miField = 0;
    return nextField(name, value);
}

bool LuceneComm::Reply::nextField(QString& name, QString& value)
{
    while (miField < moClauses.size()) {
        const ClauseEntry& entry = moClauses.at(miField++);
        if (entry.first == eClauseField && entry.second.size() >= 2) {
            name = entry.second.at(0);
            value = entry.second.at(1);
            return true;
        }
    }
    return false;
}

QString LuceneComm::Reply::field(bool* found, const QString& name) const
{
    for (const ClauseEntry& entry : moClauses)
        if (entry.first == eClauseField && entry.second.size() >= 2 && entry.second.at(0) == name) {
            if (found)
                *found = true;
            return entry.second.at(1);
        }
    if (found)
        *found = false;
    return QString();
}

unsigned LuceneComm::Reply::fieldCount() const
{
    unsigned count = 0;
    for (const ClauseEntry& entry : moClauses)
        if (entry.first == eClauseField && entry.second.size() >= 2)
            ++count;
    return count;
}

// --- ReplyParser ------------------------------------------------------------

void LuceneComm::ReplyParser::reset()
{
    miState = 0;
    miReplySize = 0;
    mbQuoted = mbEscape = mbEscapes = false;
    moToken.clear();
    moClauseName.clear();
    moValues.clear();
    moReply = Reply();
    mpcError = "";
}

bool LuceneComm::ReplyParser::fail(const char* why)
{
    mpcError = why;
    return false;
}

bool LuceneComm::ReplyParser::endValue()
{
    QByteArray text = mbQuoted ? moToken : moToken.trimmed();
    if (mbEscapes) {
        // A backslash stands for the character behind it: \\ and \".
        QByteArray plain;
        plain.reserve(text.size());
        for (int i = 0; i < text.size(); ++i) {
            if (text.at(i) == '\\' && i + 1 < text.size())
                ++i;
            plain += text.at(i);
        }
        text = plain;
    }
    moValues.append(QString::fromUtf8(text));
    moToken.clear();
    mbQuoted = mbEscapes = false;
    return true;
}

bool LuceneComm::ReplyParser::endClause()
{
    const QByteArray name = moClauseName.trimmed();
    if (name == "Seq") {
        bool ok = false;
        const quint64 sequence = moValues.value(0).toULongLong(&ok);
        if (!ok)
            return fail("Sequence is not a number");
        moReply.setSequence(sequence);
    } else if (name == "Status" || name == "St") {
        if (!moValues.isEmpty())
            moReply.setStatus(moValues.first());
        moReply.addClause(eClauseStatus, moValues);
    } else if (name == "Hits" || name == "Hi") {
        moReply.addClause(eClauseHits, moValues);
    } else if (name == "Field" || name == "Fd") {
        moReply.addClause(eClauseField, moValues);
    } else {
        BTRACE(TraceNormal) << "Unknown clause" << QString::fromUtf8(name);
    }
    moValues.clear();
    moClauseName.clear();
    return true;
}

bool LuceneComm::ReplyParser::feed(const char* data, int size, QList<Reply>& replies)
{
    if (miReplySize > MaximumReply - size)
        return fail("Reply too large");
    miReplySize += size;
    for (int i = 0; i < size; ++i) {
        const char c = data[i];
        switch (miState) {
        case 0:
            if (isSpace(c))
                break;
            miState = 1;
            [[fallthrough]];
        case 1:
            if (c == '(') {
                moReply = Reply(QString::fromLatin1(moToken.trimmed()));
                moToken.clear();
                miState = 2;
            } else if (c == ')' || c == ';' || c == '"' || c == ',' || moToken.size() >= MaximumName) {
                return fail("Not a reply name");
            } else {
                moToken += c;
            }
            break;
        case 2:
            if (isSpace(c))
                break;
            if (c == ')') {
                miState = 6;
                break;
            }
            miState = 3;
            [[fallthrough]];
        case 3:
            if (c == '(') {
                moClauseName = moToken;
                moToken.clear();
                miState = 4;
            } else if (c == ')' || c == ';' || c == '"' || c == ',' || moToken.size() >= MaximumName) {
                return fail("Not a clause name");
            } else {
                moToken += c;
            }
            break;
        case 4:
            if (isSpace(c))
                break;
            if (c == ')') {
                if (!endClause())
                    return false;
                miState = 7;
            } else if (c == '"') {
                mbQuoted = true;
                miState = 5;
            } else {
                mbQuoted = false;
                moToken += c;
                miState = 5;
            }
            break;
        case 5:
            if (mbQuoted && !mbEscape && c != '\\' && c != '"') {
                // Most bytes are inside quoted values: take the run up to
                // the next quote or backslash at once.
                int end = i + 1;
                while (end < size && data[end] != '"' && data[end] != '\\')
                    ++end;
                moToken.append(data + i, end - i);
                i = end - 1;
                break;
            }
            if (mbQuoted) {
                if (mbEscape) {
                    mbEscape = false;
                    moToken += c;
                } else if (c == '\\') {
                    mbEscape = mbEscapes = true;
                    moToken += c;
                } else if (c == '"') {
                    endValue();
                    miState = 8;
                } else {
                    moToken += c;
                }
            } else if (c == ')') {
                endValue();
                if (!endClause())
                    return false;
                miState = 7;
            } else if (c == ',') {
                endValue();
                miState = 4;
            } else {
                moToken += c;
            }
            break;
        case 6:
            if (c == ';') {
                replies.append(moReply);
                moReply = Reply();
                miReplySize = size - i - 1;
                miState = 0;
            }
            break;
        case 7:
            if (c == ')')
                miState = 6;
            else if (c == ',')
                miState = 2;
            break;
        case 8:
            if (c == ')') {
                if (!endClause())
                    return false;
                miState = 7;
            } else if (c == ',') {
                miState = 4;
            }
            break;
        }
    }
    return true;
}

} // namespace Brevi
