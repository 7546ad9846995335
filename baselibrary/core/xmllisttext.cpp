#include "core/xmllisttext_p.h"

#include "core/xmllist_p.h"

#include <QDomElement>
#include <QDomProcessingInstruction>
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
// and the '>' of "]]>" everywhere. A lone surrogate and U+0000 have no form
// in the text and are written as U+FFFD.
void appendEscaped(std::string& out, const QString& text, bool attribute)
{
    const QChar* data = text.constData();
    const int size = text.size();
    for (int i = 0; i < size; ++i) {
        const ushort c = data[i].unicode();
        if (c < 0x80) {
            switch (c) {
            case 0:
                // No form in XML at all.
                appendUtf8(out, 0xFFFD);
                continue;
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
        } else if (c >= 0xFFFE) {
            // Not characters of XML: QDom writes them as they are and then
            // refuses its own text. A reference it reads back.
            out += c == 0xFFFE ? "&#xfffe;" : "&#xffff;";
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

// Character data for the layout: an element (or comment, or processing
// instruction) that follows it stays on its line.
bool isCharacterData(const QDomNode& node)
{
    return node.nodeType() == QDomNode::TextNode || node.nodeType() == QDomNode::CDATASectionNode;
}

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

// A node without children that the layout treats as an element: a comment or
// a processing instruction, on its own line. Text a reader gave cannot end
// either early; a comment holding "--" QDom drops when it reads it again.
bool appendMarkup(std::string& out, const QDomNode& node)
{
    if (node.nodeType() == QDomNode::CommentNode) {
        out += "<!--";
        appendName(out, node.nodeValue());
        out += "-->";
        return true;
    }
    if (node.nodeType() == QDomNode::ProcessingInstructionNode) {
        const QDomProcessingInstruction instruction = node.toProcessingInstruction();
        out += "<?";
        appendName(out, instruction.target());
        if (!instruction.data().isEmpty()) {
            out += ' ';
            appendName(out, instruction.data());
        }
        out += "?>";
        return true;
    }
    return false;
}

// QDom's layout: an element starts on a fresh indented line unless it follows
// text, and a line ends after an element unless text follows; an element whose
// first child is text keeps that text on its own line. Comments and processing
// instructions stand where an element would, CDATA sections where text would.
// Depth is counted as it goes, without recursion, so that no nesting can
// exhaust the stack.
bool writeElement(std::string& out, const QDomElement& top, int indent)
{
    QDomNode node = top;
    int depth = 0;
    for (;;) {
        if (node.isElement()) {
            const QDomElement element = node.toElement();
            if (!isCharacterData(node.previousSibling()))
                appendIndent(out, depth, indent);
            if (!appendStartTag(out, element))
                return false;
            const QDomNode child = node.firstChild();
            if (!child.isNull()) {
                out += '>';
                if (!isCharacterData(child) && indent != -1)
                    out += '\n';
                node = child;
                ++depth;
                continue;
            }
            out += "/>";
            if (!isCharacterData(node.nextSibling()) && indent != -1)
                out += '\n';
        } else if (node.nodeType() == QDomNode::TextNode) {
            appendEscaped(out, node.nodeValue(), false);
        } else if (node.nodeType() == QDomNode::CDATASectionNode) {
            out += "<![CDATA[";
            appendName(out, node.nodeValue());
            out += "]]>";
        } else {
            if (!isCharacterData(node.previousSibling()))
                appendIndent(out, depth, indent);
            if (!appendMarkup(out, node))
                return false;
            if (!isCharacterData(node.nextSibling()) && indent != -1)
                out += '\n';
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
            if (!isCharacterData(node.lastChild()))
                appendIndent(out, depth, indent);
            out += "</";
            appendName(out, node.toElement().tagName());
            out += '>';
            if (!isCharacterData(node.nextSibling()) && indent != -1)
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

// Text that isValidUtf8 passed, as UTF-16. QString::fromUtf8 would drop a
// byte-order mark at the start, and a value may begin with U+FEFF.
QString fromUtf8(const char* start, const char* end)
{
    QString text;
    text.resize(int(end - start));
    QChar* out = text.data();
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(start);
         p < reinterpret_cast<const unsigned char*>(end);) {
        const unsigned c = *p;
        uint code;
        if (c < 0x80) {
            code = c;
            p += 1;
        } else if (c < 0xE0) {
            code = ((c & 0x1F) << 6) | (p[1] & 0x3F);
            p += 2;
        } else if (c < 0xF0) {
            code = ((c & 0x0F) << 12) | ((p[1] & 0x3F) << 6) | (p[2] & 0x3F);
            p += 3;
        } else {
            code = ((c & 0x07) << 18) | ((p[1] & 0x3F) << 12) | ((p[2] & 0x3F) << 6) | (p[3] & 0x3F);
            p += 4;
        }
        if (code >= 0x10000) {
            *out++ = QChar(QChar::highSurrogate(code));
            *out++ = QChar(QChar::lowSurrogate(code));
        } else {
            *out++ = QChar(ushort(code));
        }
    }
    text.truncate(int(out - text.constData()));
    return text;
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
                    if (open.size() >= XmlList::MaximumDepth)
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
            value = fromUtf8(start, end);
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
        value = fromUtf8(plain.data(), plain.data() + plain.size());
        return true;
    }

    const char* mp;
    const char* mpEnd;
    QDomDocument& mrDocument;
};

// The screen every text passes before a parser builds a node from it. It
// follows the markup as a parser does (comments, CDATA sections, processing
// instructions and quoted attribute values hide what looks like tags inside
// them) and refuses what no list holds and what the text form cannot give
// back as it came:
//
//  - elements nested deeper than XmlList::MaximumDepth: the DOM recurses once
//    per level when it copies, writes or frees a tree;
//  - a document type declaration: its entities could nest elements that the
//    text does not show, and the writer does not keep it;
//  - names with ':' and xmlns attributes: lists have no namespaces, and QDom
//    renames or repeats such nodes when it writes them;
//  - an attribute given twice in one tag: QDom keeps both and answers with
//    either, so an item's name would change from one reading to the next;
//  - character references to NUL, to a surrogate or beyond the first plane,
//    which QDom cuts to 16 bits;
//  - any encoding but UTF-8 (a NUL byte, another byte-order mark, or a
//    declaration naming another encoding), since the screen reads bytes.
//
// Whatever it cannot follow it refuses too; a parser would refuse it anyway.
class Screen
{
public:
    explicit Screen(const QByteArray& text)
        : mp(text.constData())
        , mpEnd(text.constData() + text.size())
        , mpLine(text.constData())
    {}

    bool run(QString& error, int& line, int& column)
    {
        const bool passed = pass();
        if (!passed) {
            error = QLatin1String(mpcError);
            line = miLine;
            column = int(mpFault - mpLine) + 1;
        }
        return passed;
    }

private:
    bool pass()
    {
        if (startsWith("\xEF\xBB\xBF"))
            mp += 3;
        else if (mp < mpEnd && (static_cast<unsigned char>(*mp) == 0xFE || static_cast<unsigned char>(*mp) == 0xFF))
            return refuse("text that is not UTF-8");
        if (startsWith("<?xml") && !declaration())
            return false;
        int depth = 0;
        while (mp < mpEnd) {
            if (*mp != '<') {
                if (!character())
                    return false;
                continue;
            }
            if (startsWith("<!--")) {
                if (!skipPast(4, "-->"))
                    return false;
            } else if (startsWith("<![CDATA[")) {
                if (!skipPast(9, "]]>"))
                    return false;
            } else if (startsWith("<?")) {
                if (!skipPast(2, "?>"))
                    return false;
            } else if (startsWith("<!")) {
                return refuse("a document type declaration");
            } else if (startsWith("</")) {
                if (--depth < 0)
                    return refuse("an end tag without its start");
                if (!skipPast(2, ">"))
                    return false;
            } else {
                if (++depth > XmlList::MaximumDepth)
                    return refuse("elements nested too deep");
                bool closed = false;
                if (!startTag(closed))
                    return false;
                if (closed)
                    --depth;
            }
        }
        return true;
    }

    bool startsWith(const char* word) const
    {
        const size_t size = std::strlen(word);
        return size_t(mpEnd - mp) >= size && std::memcmp(mp, word, size) == 0;
    }

    bool refuse(const char* why)
    {
        mpcError = why;
        mpFault = mp;
        return false;
    }

    // One character of text or of an attribute value, keeping count of
    // lines for the error's place.
    bool character()
    {
        const char c = *mp;
        if (c == '\0')
            return refuse("text that is not UTF-8");
        if (c == '&')
            return reference();
        if (c == '\n') {
            ++miLine;
            mpLine = mp + 1;
        }
        ++mp;
        return true;
    }

    // At '&': one of the five predefined entities, or a reference to a
    // character the text form can give back. With no document type any other
    // name is undeclared; QDom would keep it as a node that no list reads.
    bool reference()
    {
        static const char* const entities[] = {"&lt;", "&gt;", "&amp;", "&quot;", "&apos;"};
        if (mpEnd - mp < 2 || mp[1] != '#') {
            for (const char* entity : entities)
                if (startsWith(entity)) {
                    mp += std::strlen(entity);
                    return true;
                }
            return refuse("a reference to an undeclared entity");
        }
        const char* p = mp + 2;
        const bool hexadecimal = p < mpEnd && *p == 'x';
        if (hexadecimal)
            ++p;
        unsigned long long code = 0;
        const char* digits = p;
        for (; p < mpEnd && *p != ';'; ++p) {
            const char c = *p;
            unsigned value;
            if (c >= '0' && c <= '9')
                value = unsigned(c - '0');
            else if (hexadecimal && c >= 'a' && c <= 'f')
                value = unsigned(c - 'a' + 10);
            else if (hexadecimal && c >= 'A' && c <= 'F')
                value = unsigned(c - 'A' + 10);
            else
                return refuse("a character reference that is not one");
            code = code * (hexadecimal ? 16 : 10) + value;
            if (code > 0xFFFF)
                return refuse("a character reference beyond the first plane");
        }
        if (p == mpEnd || p == digits)
            return refuse("a character reference that is not one");
        if (code == 0 || (code >= 0xD800 && code <= 0xDFFF))
            return refuse("a character reference to no character");
        mp = p + 1;
        return true;
    }

    // Moves behind `end`, starting `skip` bytes on; refuses when it is missing.
    bool skipPast(size_t skip, const char* end)
    {
        const size_t size = std::strlen(end);
        for (mp += skip; mp < mpEnd; ++mp) {
            if (size_t(mpEnd - mp) >= size && std::memcmp(mp, end, size) == 0) {
                mp += size;
                return true;
            }
            if (*mp == '\0')
                return refuse("text that is not UTF-8");
            if (*mp == '\n') {
                ++miLine;
                mpLine = mp + 1;
            }
        }
        return refuse("markup that does not end");
    }

    void skipBlanks()
    {
        for (; mp < mpEnd && isBlank(*mp); ++mp)
            if (*mp == '\n') {
                ++miLine;
                mpLine = mp + 1;
            }
    }

    // A name runs to white space or to one of `stops`.
    bool name(const char*& start, int& size, const char* stops)
    {
        start = mp;
        while (mp < mpEnd && !isBlank(*mp) && !std::strchr(stops, *mp)) {
            if (*mp == '\0')
                return refuse("text that is not UTF-8");
            ++mp;
        }
        size = int(mp - start);
        if (size == 0)
            return refuse("a tag without a name");
        if (std::memchr(start, ':', size_t(size))) {
            mp = start;
            return refuse("a name with a namespace prefix");
        }
        return true;
    }

    // After '<': the name, then the attributes up to '>' or "/>".
    bool startTag(bool& closed)
    {
        ++mp;
        const char* start;
        int size;
        if (!name(start, size, "/>"))
            return false;
        moNames.clear();
        for (;;) {
            skipBlanks();
            if (mp == mpEnd)
                return refuse("markup that does not end");
            if (*mp == '>') {
                ++mp;
                break;
            }
            if (*mp == '/') {
                if (mpEnd - mp < 2 || mp[1] != '>')
                    return refuse("a tag that is not one");
                mp += 2;
                closed = true;
                break;
            }
            // QDom takes attributes that no white space sets apart, and so
            // does the screen.
            const char* attribute = mp;
            if (!name(start, size, "=/>"))
                return false;
            if (size == 5 && std::memcmp(start, "xmlns", 5) == 0) {
                mp = attribute;
                return refuse("a namespace declaration");
            }
            moNames.push_back(std::make_pair(start, size));
            skipBlanks();
            if (mp == mpEnd || *mp != '=')
                return refuse("an attribute without a value");
            ++mp;
            skipBlanks();
            if (mp == mpEnd || (*mp != '"' && *mp != '\''))
                return refuse("an attribute without a value");
            const char quote = *mp++;
            while (mp < mpEnd && *mp != quote)
                if (!character())
                    return false;
            if (mp == mpEnd)
                return refuse("markup that does not end");
            ++mp;
        }
        return uniqueNames();
    }

    bool uniqueNames()
    {
        if (moNames.size() < 2)
            return true;
        const auto less = [](const std::pair<const char*, int>& a, const std::pair<const char*, int>& b) {
            const int compared = std::memcmp(a.first, b.first, size_t(std::min(a.second, b.second)));
            return compared < 0 || (compared == 0 && a.second < b.second);
        };
        std::sort(moNames.begin(), moNames.end(), less);
        for (size_t i = 1; i < moNames.size(); ++i)
            if (!less(moNames[i - 1], moNames[i])) {
                mp = moNames[i].first;
                return refuse("an attribute given twice");
            }
        return true;
    }

    // The XML declaration: its encoding, if it names one, must be UTF-8.
    bool declaration()
    {
        const char* start = mp;
        if (!skipPast(5, "?>"))
            return false;
        const QByteArray text = QByteArray(start, int(mp - start)).toLower();
        const int at = text.indexOf("encoding");
        if (at < 0)
            return true;
        const int equals = text.indexOf('=', at);
        QByteArray value = equals < 0 ? QByteArray() : text.mid(equals + 1).trimmed();
        if (!value.isEmpty() && (value.at(0) == '"' || value.at(0) == '\'')) {
            const int close = value.indexOf(value.at(0), 1);
            value = close < 0 ? QByteArray() : value.mid(1, close - 1);
        }
        if (value == "utf-8")
            return true;
        mp = start;
        return refuse("an encoding other than UTF-8");
    }

    const char* mp;
    const char* mpEnd;
    const char* mpLine;
    const char* mpFault = nullptr;
    const char* mpcError = "";
    int miLine = 1;
    std::vector<std::pair<const char*, int>> moNames;
};

} // namespace

bool parse(const QByteArray& text, QDomDocument& document, QString& error, int& line, int& column)
{
    if (!Screen(text).run(error, line, column))
        return false;
    if (!read(text, document) && !document.setContent(text, true, &error, &line, &column))
        return false;
    // An empty list is written as no bytes at all, which read as a bare
    // root: a document whose root is empty must be that already, or another
    // root name, its attributes or the nodes beside it would be lost.
    const QDomElement root = document.documentElement();
    if (root.hasChildNodes() ||
        (document.childNodes().count() == 1 && root.tagName() == XmlListDetail::rootTag() && !root.hasAttributes()))
        return true;
    error = QStringLiteral("an empty list holds more than its bare root");
    line = 1;
    column = 1;
    return false;
}

bool write(const QDomDocument& document, int indent, QByteArray& out)
{
    if (!document.doctype().name().isEmpty())
        return false;
    std::string text;
    text.reserve(4096);
    for (QDomNode node = document.firstChild(); !node.isNull(); node = node.nextSibling()) {
        if (node.isElement()) {
            if (!writeElement(text, node.toElement(), indent))
                return false;
        } else if (appendMarkup(text, node)) {
            if (indent != -1)
                text += '\n';
        } else {
            return false;
        }
    }
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
