#include "htmltext.h"

#include <QSet>
#include <QStringList>

namespace Brevi {

namespace {

// Elements whose content is no text for the reader, and that a page must
// never get back: their whole content goes with them.
const QSet<QString> DroppedWhole = {"script",   "style", "iframe", "object",   "embed",  "noscript",
                                    "template", "head",  "title",  "textarea", "xmp",    "noembed",
                                    "noframes", "svg",   "math",   "select",   "applet", "frameset"};
// The formatting a page keeps, always without attributes.
const QSet<QString> Allowed = {"b",     "i",     "u",     "em",    "strong", "small", "sub", "sup",     "code",
                               "pre",   "p",     "br",    "hr",    "div",    "span",  "ul",  "ol",      "li",
                               "table", "thead", "tbody", "tfoot", "tr",     "td",    "th",  "h1",      "h2",
                               "h3",    "h4",    "h5",    "h6",    "dl",     "dt",    "dd",  "caption", "blockquote"};
// Elements that begin and end a line of text.
const QSet<QString> Blocks = {"p",       "div",    "li",     "tr",      "table", "ul",      "ol",         "h1",
                              "h2",      "h3",     "h4",     "h5",      "h6",    "pre",     "hr",         "dl",
                              "dt",      "dd",     "thead",  "tbody",   "tfoot", "caption", "blockquote", "section",
                              "article", "header", "footer", "address", "form"};

struct Reference {
    const char* name;
    ushort code;
};
const Reference References[] = {{"lt", '<'},        {"gt", '>'},      {"amp", '&'},      {"quot", '"'},
                                {"apos", '\''},     {"nbsp", 0xa0},   {"copy", 0xa9},    {"reg", 0xae},
                                {"laquo", 0xab},    {"raquo", 0xbb},  {"ndash", 0x2013}, {"mdash", 0x2014},
                                {"hellip", 0x2026}, {"euro", 0x20ac}, {"trade", 0x2122}};

// The character a reference such as "amp" or "#x41" stands for; false for
// anything else, which then stays as written.
bool reference(const QStringRef& name, QString& out)
{
    if (name.startsWith(QLatin1Char('#'))) {
        bool ok = false;
        const bool hex = name.size() > 1 && (name.at(1) == QLatin1Char('x') || name.at(1) == QLatin1Char('X'));
        const uint code = hex ? name.mid(2).toUInt(&ok, 16) : name.mid(1).toUInt(&ok, 10);
        if (!ok || code == 0 || code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff))
            return false;
        out += QString::fromUcs4(&code, 1);
        return true;
    }
    for (const Reference& entry : References)
        if (name == QLatin1String(entry.name)) {
            out += QChar(entry.code);
            return true;
        }
    return false;
}

QString decode(const QString& text)
{
    if (!text.contains(QLatin1Char('&')))
        return text;
    QString out;
    out.reserve(text.size());
    for (int i = 0; i < text.size(); ++i) {
        const int end = text.at(i) == QLatin1Char('&') ? text.indexOf(QLatin1Char(';'), i + 1) : -1;
        if (end > i + 1 && end - i <= 10 && reference(text.midRef(i + 1, end - i - 1), out))
            i = end;
        else
            out += text.at(i);
    }
    return out;
}

bool isNameChar(QChar c) { return c.isLetterOrNumber() || c == QLatin1Char('-') || c == QLatin1Char(':'); }

// Where the element `name` that starts before `from` ends: just past its
// closing tag, or the end of the text when it has none.
int pastClosingTag(const QString& html, const QString& name, int from)
{
    const QString closing = QLatin1String("</") + name;
    for (int at = html.indexOf(closing, from, Qt::CaseInsensitive); at >= 0;
         at = html.indexOf(closing, at + 1, Qt::CaseInsensitive)) {
        const int after = at + closing.size();
        if (after < html.size() && isNameChar(html.at(after)))
            continue;
        const int end = html.indexOf(QLatin1Char('>'), after);
        return end < 0 ? html.size() : end + 1;
    }
    return html.size();
}

// The end of the tag whose name ends at `from`: the index of its '>', past
// quoted attribute values; -1 when the text ends first.
int tagEnd(const QString& html, int from)
{
    QChar quote;
    bool afterEquals = false;
    for (int i = from; i < html.size(); ++i) {
        const QChar c = html.at(i);
        if (!quote.isNull()) {
            if (c == quote)
                quote = QChar();
        } else if (c == QLatin1Char('>')) {
            return i;
        } else if (afterEquals && (c == QLatin1Char('"') || c == QLatin1Char('\''))) {
            quote = c;
            afterEquals = false;
        } else if (c == QLatin1Char('=')) {
            afterEquals = true;
        } else if (!c.isSpace()) {
            afterEquals = false;
        }
    }
    return -1;
}

// Goes through `html` once: `onText` gets each stretch of text, references
// decoded; `onTag` each tag's lower-case name and whether it closes.
// Comments, declarations and the elements dropped whole give nothing.
template <typename OnText, typename OnTag>
void walk(const QString& html, OnText onText, OnTag onTag)
{
    QString text;
    const auto flush = [&] {
        if (!text.isEmpty())
            onText(decode(text));
        text.clear();
    };
    int i = 0;
    while (i < html.size()) {
        const QChar c = html.at(i);
        if (c != QLatin1Char('<') || i + 1 == html.size()) {
            text += c;
            ++i;
            continue;
        }
        const QChar next = html.at(i + 1);
        if (html.midRef(i, 4) == QLatin1String("<!--")) {
            flush();
            const int end = html.indexOf(QLatin1String("-->"), i + 4);
            i = end < 0 ? html.size() : end + 3;
            continue;
        }
        if (next == QLatin1Char('!') || next == QLatin1Char('?')) {
            flush();
            const int end = html.indexOf(QLatin1Char('>'), i);
            i = end < 0 ? html.size() : end + 1;
            continue;
        }
        const bool closing = next == QLatin1Char('/');
        const int start = i + (closing ? 2 : 1);
        if (start == html.size() || !html.at(start).isLetter()) {
            // A '<' that opens no tag is text, as a browser takes it.
            text += c;
            ++i;
            continue;
        }
        int nameEnd = start;
        while (nameEnd < html.size() && isNameChar(html.at(nameEnd)))
            ++nameEnd;
        const QString name = html.mid(start, nameEnd - start).toLower();
        const int end = tagEnd(html, nameEnd);
        flush();
        if (end < 0)
            return; // a tag cut off by the end of the text
        i = end + 1;
        if (DroppedWhole.contains(name)) {
            if (!closing)
                i = pastClosingTag(html, name, i);
            continue;
        }
        onTag(name, closing);
    }
    flush();
}

void chopBlanks(QString& out)
{
    while (out.endsWith(QLatin1Char(' ')))
        out.chop(1);
}

} // namespace

QString HtmlText::escape(const QString& text)
{
    QString out;
    out.reserve(text.size() + text.size() / 8);
    for (const QChar c : text) {
        switch (c.unicode()) {
        case '&':
            out += QLatin1String("&amp;");
            break;
        case '<':
            out += QLatin1String("&lt;");
            break;
        case '>':
            out += QLatin1String("&gt;");
            break;
        case '"':
            out += QLatin1String("&quot;");
            break;
        default:
            out += c;
        }
    }
    return out;
}

QString HtmlText::toPlain(const QString& html)
{
    QString out;
    int pre = 0;
    bool blank = false;
    const auto lineEnd = [&](bool always) {
        chopBlanks(out);
        if (always || (!out.isEmpty() && !out.endsWith(QLatin1Char('\n'))))
            out += QLatin1Char('\n');
        blank = false;
    };
    walk(
        html,
        [&](const QString& text) {
            if (pre > 0) {
                out += text;
                return;
            }
            for (const QChar c : text) {
                if (c.isSpace()) {
                    blank = true;
                    continue;
                }
                if (blank && !out.isEmpty() && !out.endsWith(QLatin1Char('\n')))
                    out += QLatin1Char(' ');
                blank = false;
                out += c;
            }
        },
        [&](const QString& name, bool closing) {
            if (name == QLatin1String("br")) {
                lineEnd(true);
            } else if (Blocks.contains(name)) {
                if (name == QLatin1String("pre"))
                    pre = closing ? qMax(0, pre - 1) : pre + 1;
                lineEnd(false);
            } else if (name == QLatin1String("td") || name == QLatin1String("th")) {
                blank = true;
            }
        });
    while (out.endsWith(QLatin1Char(' ')) || out.endsWith(QLatin1Char('\n')))
        out.chop(1);
    return out;
}

QString HtmlText::toSafe(const QString& html)
{
    QString out;
    QStringList open;
    walk(
        html, [&](const QString& text) { out += escape(text); },
        [&](const QString& name, bool closing) {
            if (!Allowed.contains(name))
                return;
            if (name == QLatin1String("br") || name == QLatin1String("hr")) {
                if (!closing)
                    out += QLatin1Char('<') + name + QLatin1Char('>');
                return;
            }
            if (!closing) {
                out += QLatin1Char('<') + name + QLatin1Char('>');
                open.append(name);
                return;
            }
            // A closing tag closes what was opened since its element; one
            // that matches nothing open is dropped.
            const int at = open.lastIndexOf(name);
            while (at >= 0 && open.size() > at)
                out += QLatin1String("</") + open.takeLast() + QLatin1Char('>');
        });
    while (!open.isEmpty())
        out += QLatin1String("</") + open.takeLast() + QLatin1Char('>');
    return out;
}

} // namespace Brevi
