#include "core/xmllisttext_p.h"

#include <QDomElement>
#include <QVarLengthArray>

#include <algorithm>
#include <cstring>
#include <string>

namespace Brevi {
namespace XmlListText {

namespace {

// --- writing ---------------------------------------------------------------

void appendUtf8(std::string& out, uint code)
{
    if (code < 0x80) {
        out += char(code);
    } else if (code < 0x800) {
        out += char(0xC0 | (code >> 6));
        out += char(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        out += char(0xE0 | (code >> 12));
        out += char(0x80 | ((code >> 6) & 0x3F));
        out += char(0x80 | (code & 0x3F));
    } else {
        out += char(0xF0 | (code >> 18));
        out += char(0x80 | ((code >> 12) & 0x3F));
        out += char(0x80 | ((code >> 6) & 0x3F));
        out += char(0x80 | (code & 0x3F));
    }
}

// The escapes of QDom's writer: in attributes quotes and the three white-space
// controls (which a reader would otherwise normalise to blanks), in text only
// the carriage return (which a reader would fold into a line feed); '<', '&'
// and the '>' of "]]>" everywhere. A lone surrogate has no UTF-8 form and is
// written as U+FFFD.
void appendEscaped(std::string& out, const QString& text, bool attribute)
{
    const QChar* data = text.constData();
    const int size = text.size();
    for (int i = 0; i < size; ++i) {
        const ushort c = data[i].unicode();
        if (c < 0x80) {
            switch (c) {
            case '<':
                out += "&lt;";
                continue;
            case '&':
                out += "&amp;";
                continue;
            case '\r':
                out += "&#xd;";
                continue;
            case '"':
                if (attribute) {
                    out += "&quot;";
                    continue;
                }
                break;
            case '\n':
                if (attribute) {
                    out += "&#xa;";
                    continue;
                }
                break;
            case '\t':
                if (attribute) {
                    out += "&#x9;";
                    continue;
                }
                break;
            case '>':
                if (i >= 2 && data[i - 1] == QLatin1Char(']') && data[i - 2] == QLatin1Char(']')) {
                    out += "&gt;";
                    continue;
                }
                break;
            default:
                break;
            }
            out += char(c);
        } else if (QChar::isHighSurrogate(c) && i + 1 < size && data[i + 1].isLowSurrogate()) {
            appendUtf8(out, QChar::surrogateToUcs4(c, data[i + 1].unicode()));
            ++i;
        } else if (QChar::isSurrogate(c)) {
            appendUtf8(out, 0xFFFD);
        } else {
            appendUtf8(out, c);
        }
    }
}

// A name is written as it is: QDom does not escape names.
void appendName(std::string& out, const QString& name)
{
    const QChar* data = name.constData();
    const int size = name.size();
    for (int i = 0; i < size; ++i) {
        const ushort c = data[i].unicode();
        if (c < 0x80)
            out += char(c);
        else if (QChar::isHighSurrogate(c) && i + 1 < size && data[i + 1].isLowSurrogate())
            appendUtf8(out, QChar::surrogateToUcs4(c, data[++i].unicode()));
        else
            appendUtf8(out, QChar::isSurrogate(c) ? 0xFFFD : c);
    }
}

bool isPlainText(const QDomNode& node) { return node.nodeType() == QDomNode::TextNode; }

// The start tag, with the attributes in name order. False for a namespace.
bool appendStartTag(std::string& out, const QDomElement& element)
{
    if (!element.namespaceURI().isNull() || !element.prefix().isEmpty())
        return false;
    out += '<';
    appendName(out, element.tagName());
    const QDomNamedNodeMap attributes = element.attributes();
    const int count = attributes.count();
    QVarLengthArray<QPair<QString, QString>, 4> sorted;
    for (int i = 0; i < count; ++i) {
        const QDomNode attribute = attributes.item(i);
        if (!attribute.namespaceURI().isNull())
            return false;
        sorted.append(qMakePair(attribute.nodeName(), attribute.nodeValue()));
    }
    std::sort(sorted.begin(), sorted.end(),
              [](const QPair<QString, QString>& a, const QPair<QString, QString>& b) { return a.first < b.first; });
    for (const QPair<QString, QString>& attribute : sorted) {
        out += ' ';
        appendName(out, attribute.first);
        out += "=\"";
        appendEscaped(out, attribute.second, true);
        out += '"';
    }
    return true;
}

void appendIndent(std::string& out, int depth, int indent)
{
    if (indent > 0)
        out.append(size_t(depth * indent), ' ');
}

// QDom's layout: an element starts on a fresh indented line unless it follows
// text, and a line ends after an element unless text follows; an element whose
// first child is text keeps that text on its own line.
bool writeElement(std::string& out, const QDomElement& top, int indent)
{
    QDomNode node = top;
    int depth = 0;
    for (;;) {
        if (node.isElement()) {
            const QDomElement element = node.toElement();
            if (!isPlainText(node.previousSibling()))
                appendIndent(out, depth, indent);
            if (!appendStartTag(out, element))
                return false;
            const QDomNode child = node.firstChild();
            if (!child.isNull()) {
                out += '>';
                if (!isPlainText(child) && indent != -1)
                    out += '\n';
                node = child;
                ++depth;
                continue;
            }
            out += "/>";
            if (!isPlainText(node.nextSibling()) && indent != -1)
                out += '\n';
        } else if (isPlainText(node)) {
            appendEscaped(out, node.nodeValue(), false);
        } else {
            return false;
        }

        // Done with `node`: on to its next sibling, closing the elements that
        // end on the way up.
        for (;;) {
            if (node == top)
                return true;
            const QDomNode next = node.nextSibling();
            if (!next.isNull()) {
                node = next;
                break;
            }
            node = node.parentNode();
            --depth;
            if (!isPlainText(node.lastChild()))
                appendIndent(out, depth, indent);
            out += "</";
            appendName(out, node.toElement().tagName());
            out += '>';
            if (!isPlainText(node.nextSibling()) && indent != -1)
                out += '\n';
        }
    }
}

// --- reading ---------------------------------------------------------------

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
bool isNameStart(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; }
bool isNameChar(char c) { return isNameStart(c) || (c >= '0' && c <= '9') || c == '.' || c == '-'; }

// Characters XML allows, beyond the ASCII that the scanners check themselves.
bool isXmlChar(uint code)
{
    return (code >= 0x20 && code <= 0xD7FF) || (code >= 0xE000 && code <= 0xFFFD) ||
           (code >= 0x10000 && code <= 0x10FFFF) || code == 0x9 || code == 0xA || code == 0xD;
}

// Strict UTF-8 of XML characters: no overlong forms, no surrogates.
bool isValidUtf8(const unsigned char* p, const unsigned char* end)
{
    while (p < end) {
        const unsigned char c = *p;
        if (c < 0x80) {
            ++p;
            continue;
        }
        int extra;
        uint code;
        if ((c & 0xE0) == 0xC0) {
            extra = 1;
            code = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            extra = 2;
            code = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            extra = 3;
            code = c & 0x07;
        } else {
            return false;
        }
        if (end - p <= extra)
            return false;
        for (int i = 1; i <= extra; ++i) {
            if ((p[i] & 0xC0) != 0x80)
                return false;
            code = (code << 6) | (p[i] & 0x3F);
        }
        static const uint minimum[] = {0, 0x80, 0x800, 0x10000};
        if (code < minimum[extra] || (code >= 0xD800 && code <= 0xDFFF) || !isXmlChar(code))
            return false;
        p += extra + 1;
    }
    return true;
}

// The words of the format come back as the same static strings every time:
// no allocation for the names and types that make up most of a list.
QString intern(const char* p, int size)
{
    static const QString words[] = {
        QStringLiteral("item"),    QStringLiteral("value"),  QStringLiteral("name"),         QStringLiteral("type"),
        QStringLiteral("argtype"), QStringLiteral("single"), QStringLiteral("list"),         QStringLiteral("string"),
        QStringLiteral("uint32"),  QStringLiteral("int32"),  QStringLiteral("uint64"),       QStringLiteral("int64"),
        QStringLiteral("bool"),    QStringLiteral("data"),   QStringLiteral("brevixmllist"), QStringLiteral("version"),
        QStringLiteral("number"),  QStringLiteral("time")};
    for (const QString& word : words) {
        if (word.size() != size)
            continue;
        const QChar* w = word.constData();
        int i = 0;
        while (i < size && w[i].unicode() == ushort(static_cast<unsigned char>(p[i])))
            ++i;
        if (i == size)
            return word;
    }
    return QString::fromLatin1(p, size);
}

class Reader
{
public:
    Reader(const QByteArray& text, QDomDocument& document)
        : mp(text.constData())
        , mpEnd(text.constData() + text.size())
        , mrDocument(document)
    {}

    // The root element, detached, or null when the text is not for this reader.
    QDomElement parse()
    {
        skipBlanks();
        if (mp == mpEnd || *mp != '<')
            return QDomElement();
        ++mp;
        QDomElement root;
        bool closed = false;
        if (!startTag(root, closed))
            return QDomElement();
        if (!closed) {
            QVarLengthArray<QDomElement, 16> open;
            open.append(root);
            while (!open.isEmpty()) {
                if (!content(open.last()))
                    return QDomElement();
                // At a '<'.
                ++mp;
                if (mp == mpEnd)
                    return QDomElement();
                if (*mp == '/') {
                    ++mp;
                    if (!endTag(open.last()))
                        return QDomElement();
                    open.removeLast();
                    continue;
                }
                QDomElement element;
                if (!startTag(element, closed))
                    return QDomElement();
                open.last().appendChild(element);
                if (!closed) {
                    if (open.size() >= MaximumDepth)
                        return QDomElement();
                    open.append(element);
                }
            }
        }
        skipBlanks();
        return mp == mpEnd ? root : QDomElement();
    }

private:
    void skipBlanks()
    {
        while (mp < mpEnd && isBlank(*mp))
            ++mp;
    }

    bool name(const char*& start, int& size)
    {
        start = mp;
        if (mp == mpEnd || !isNameStart(*mp))
            return false;
        while (mp < mpEnd && isNameChar(*mp))
            ++mp;
        size = int(mp - start);
        return mp < mpEnd;
    }

    // After the '<': the element with its attributes; `closed` for "/>".
    bool startTag(QDomElement& element, bool& closed)
    {
        const char* start;
        int size;
        if (!name(start, size))
            return false;
        element = mrDocument.createElementNS(QString(), intern(start, size));
        closed = false;
        QVarLengthArray<QString, 4> names;
        for (;;) {
            const char* before = mp;
            skipBlanks();
            if (mp == mpEnd)
                return false;
            if (*mp == '>') {
                ++mp;
                return true;
            }
            if (*mp == '/') {
                if (mpEnd - mp < 2 || mp[1] != '>')
                    return false;
                mp += 2;
                closed = true;
                return true;
            }
            // An attribute must be set off by white space.
            if (mp == before || !name(start, size))
                return false;
            const QString attribute = intern(start, size);
            if (attribute == QLatin1String("xmlns") || names.contains(attribute))
                return false;
            names.append(attribute);
            skipBlanks();
            if (mp == mpEnd || *mp != '=')
                return false;
            ++mp;
            skipBlanks();
            QString value;
            if (!attributeValue(value))
                return false;
            element.setAttributeNS(QString(), attribute, value);
        }
    }

    // After the '</'.
    bool endTag(const QDomElement& element)
    {
        const char* start;
        int size;
        if (!name(start, size))
            return false;
        const QString& tag = element.tagName();
        if (tag.size() != size)
            return false;
        for (int i = 0; i < size; ++i)
            if (tag[i].unicode() != ushort(static_cast<unsigned char>(start[i])))
                return false;
        skipBlanks();
        if (mp == mpEnd || *mp != '>')
            return false;
        ++mp;
        return true;
    }

    bool attributeValue(QString& value)
    {
        if (mp == mpEnd || (*mp != '"' && *mp != '\''))
            return false;
        const char quote = *mp++;
        const char* start = mp;
        bool references = false;
        bool high = false;
        while (mp < mpEnd && *mp != quote) {
            const unsigned char c = static_cast<unsigned char>(*mp);
            // Raw white-space controls would be normalised to blanks, which
            // is for QDom to do.
            if (c == '<' || c < 0x20)
                return false;
            references |= c == '&';
            high |= c >= 0x80;
            ++mp;
        }
        if (mp == mpEnd)
            return false;
        const char* end = mp++;
        if (!references && !high) {
            value = intern(start, int(end - start));
            return true;
        }
        return decode(start, end, references, high, value);
    }

    // Character data up to the next '<', as a text node of `parent`; a run of
    // white space alone makes no node.
    bool content(QDomElement& parent)
    {
        const char* start = mp;
        bool references = false;
        bool high = false;
        bool blank = true;
        while (mp < mpEnd && *mp != '<') {
            const unsigned char c = static_cast<unsigned char>(*mp);
            if (c == '\r' || (c < 0x20 && c != '\t' && c != '\n'))
                return false;
            if (c == '>' && mp - start >= 2 && mp[-1] == ']' && mp[-2] == ']')
                return false;
            references |= c == '&';
            high |= c >= 0x80;
            blank &= c == ' ' || c == '\t' || c == '\n';
            ++mp;
        }
        if (mp == mpEnd)
            return false;
        if (blank)
            return true;
        QString text;
        if (!references && !high) {
            text = QString::fromLatin1(start, int(mp - start));
        } else {
            if (!decode(start, mp, references, high, text))
                return false;
            // QDom drops runs that are white space in Unicode's sense, not
            // only XML's; leave such text to it.
            if (text.trimmed().isEmpty())
                return false;
        }
        parent.appendChild(mrDocument.createTextNode(text));
        return true;
    }

    // UTF-8 with the predefined entities and character references.
    static bool decode(const char* start, const char* end, bool references, bool high, QString& value)
    {
        if (high &&
            !isValidUtf8(reinterpret_cast<const unsigned char*>(start), reinterpret_cast<const unsigned char*>(end)))
            return false;
        if (!references) {
            value = QString::fromUtf8(start, int(end - start));
            return true;
        }
        std::string plain;
        plain.reserve(size_t(end - start));
        for (const char* p = start; p < end;) {
            if (*p != '&') {
                plain += *p++;
                continue;
            }
            const char* semicolon = static_cast<const char*>(std::memchr(p, ';', size_t(end - p)));
            if (!semicolon)
                return false;
            const char* entity = p + 1;
            const int size = int(semicolon - entity);
            p = semicolon + 1;
            if (size == 2 && std::memcmp(entity, "lt", 2) == 0)
                plain += '<';
            else if (size == 2 && std::memcmp(entity, "gt", 2) == 0)
                plain += '>';
            else if (size == 3 && std::memcmp(entity, "amp", 3) == 0)
                plain += '&';
            else if (size == 4 && std::memcmp(entity, "quot", 4) == 0)
                plain += '"';
            else if (size == 4 && std::memcmp(entity, "apos", 4) == 0)
                plain += '\'';
            else if (size >= 2 && entity[0] == '#') {
                const bool hexadecimal = entity[1] == 'x';
                const char* digit = entity + (hexadecimal ? 2 : 1);
                if (digit == semicolon || semicolon - digit > 8)
                    return false;
                uint code = 0;
                for (; digit < semicolon; ++digit) {
                    const char c = *digit;
                    uint value;
                    if (c >= '0' && c <= '9')
                        value = uint(c - '0');
                    else if (hexadecimal && c >= 'a' && c <= 'f')
                        value = uint(c - 'a' + 10);
                    else if (hexadecimal && c >= 'A' && c <= 'F')
                        value = uint(c - 'A' + 10);
                    else
                        return false;
                    code = code * (hexadecimal ? 16 : 10) + value;
                }
                // QDom keeps only the low 16 bits of a reference beyond the
                // first plane; such text is left to it, to read alike.
                if (!isXmlChar(code) || code > 0xFFFF)
                    return false;
                appendUtf8(plain, code);
            } else {
                return false;
            }
        }
        value = QString::fromUtf8(plain.data(), int(plain.size()));
        return true;
    }

    const char* mp;
    const char* mpEnd;
    QDomDocument& mrDocument;
};

// True when the elements of the text nest deeper than MaximumDepth, with the
// line and column of the start tag that goes too deep. It counts tags without
// parsing them, so markup inside comments or CDATA counts too: it can only
// err towards refusing, and only for text far deeper than any list.
bool tooDeep(const QByteArray& text, int& line, int& column)
{
    const char* p = text.constData();
    const char* end = p + text.size();
    const char* lineStart = p;
    int depth = 0;
    bool inTag = false;
    char quote = 0;
    char previous = 0;
    line = 1;
    for (; p < end; previous = *p++) {
        const char c = *p;
        if (c == '\n') {
            ++line;
            lineStart = p + 1;
        }
        if (quote) {
            if (c == quote)
                quote = 0;
        } else if (inTag) {
            if (c == '"' || c == '\'')
                quote = c;
            else if (c == '>') {
                inTag = false;
                if (previous == '/')
                    --depth;
            }
        } else if (c == '<' && p + 1 < end) {
            if (p[1] == '/') {
                --depth;
            } else if (p[1] != '!' && p[1] != '?') {
                inTag = true;
                if (++depth > MaximumDepth) {
                    column = int(p - lineStart) + 1;
                    return true;
                }
            }
        }
    }
    return false;
}

} // namespace

bool parse(const QByteArray& text, QDomDocument& document, QString& error, int& line, int& column)
{
    if (tooDeep(text, line, column)) {
        error = QStringLiteral("elements nested more than %1 deep").arg(MaximumDepth);
        return false;
    }
    if (read(text, document))
        return true;
    return document.setContent(text, true, &error, &line, &column);
}

bool write(const QDomDocument& document, int indent, QByteArray& out)
{
    if (!document.doctype().name().isEmpty())
        return false;
    std::string text;
    text.reserve(4096);
    for (QDomNode node = document.firstChild(); !node.isNull(); node = node.nextSibling())
        if (!node.isElement() || !writeElement(text, node.toElement(), indent))
            return false;
    out.append(text.data(), int(text.size()));
    return true;
}

bool read(const QByteArray& text, QDomDocument& document)
{
    // A byte-order mark or any encoding but UTF-8 is for QDom to sort out.
    if (text.startsWith("\xEF\xBB\xBF"))
        return false;
    const QDomElement root = Reader(text, document).parse();
    if (root.isNull())
        return false;
    while (document.hasChildNodes())
        document.removeChild(document.firstChild());
    document.appendChild(root);
    return true;
}

} // namespace XmlListText
} // namespace Brevi
