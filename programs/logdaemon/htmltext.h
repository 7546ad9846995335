#ifndef PROGRAMS_LOGDAEMON_HTMLTEXT_H
#define PROGRAMS_LOGDAEMON_HTMLTEXT_H

#include <QString>

namespace Brevi {

// What the log daemon does with the HTML a log message carries (its h
// parameters). The text log is read with tail and grep, so there the HTML
// becomes words; a page made for a browser gets markup again, but only
// markup that cannot run anything, whatever the sender put in.
//
// Neither function fails: any text is taken as HTML, however broken, and a
// tag left unfinished at the end is dropped.
namespace HtmlText {

// The words of `html` without its markup: tags go; br, and the starts and
// ends of paragraphs, list items, table rows, headings and the like, become
// line ends; the content of script, style and other elements that hold no
// text for the reader goes whole, as do comments; character references are
// decoded; each run of white space is one blank, except inside pre.
QString toPlain(const QString& html);

// `html` reduced to a fixed set of formatting elements (b, i, p, br, lists,
// tables, headings, pre, code...) without any attribute; every other tag goes
// (its content stays, as text, except for what toPlain drops whole), every
// text is escaped afresh, and elements left open are closed at the end, so
// that one message cannot spoil the page around it.
QString toSafe(const QString& html);

// The text with &, <, > and " as character references.
QString escape(const QString& text);

} // namespace HtmlText
} // namespace Brevi

#endif
