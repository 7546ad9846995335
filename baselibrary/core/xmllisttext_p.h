#ifndef BASELIBRARY_CORE_XMLLISTTEXT_P_H
#define BASELIBRARY_CORE_XMLLISTTEXT_P_H

// The text form of a list without QDomDocument's general-purpose writer and
// reader, which cost most of a message's round trip, and the screen that
// every text passes first.
//
// The reader handles the plain XML the lists are made of: elements,
// attributes and text, without namespaces. Anything else (a declaration, a
// comment, CDATA, a character that is not plain) makes it decline, and the
// caller hands the job to QDomDocument, which then also reports the errors.
// The writer also writes the comments, CDATA sections and processing
// instructions such a text leaves in the document, so that QDom's writer,
// which recurses and writes some characters it cannot read back, is not used
// for anything that was read. Whatever they handle, they treat as
// QDomDocument does:
//
//  - write() gives the bytes of QDomDocument::toByteArray(indent) for a
//    plain list: the same indentation and line breaks, the same escapes
//    ("&lt;", "&amp;", "&quot;" in attributes, "&gt;" after "]]", "&#xa;"
//    "&#xd;" "&#x9;" in attributes, "&#xd;" in text), UTF-8, with the
//    attributes of an element in name order rather than in QDom's hash order.
//    It parts from QDom where QDom's text would not read back: U+FFFE and
//    U+FFFF are written as references, U+0000 and lone surrogates as U+FFFD;
//  - read() builds the nodes that QDomDocument::setContent with namespace
//    processing builds: elements and attributes made with the namespace
//    functions and no namespace, one text node per run of character data, and
//    no node for a run that is only white space.
//
// The rule that holds them together: what parse() accepts, write() gives
// back as text that parse() reads into the same tree. What the text form
// cannot give back, parse() refuses (see the screen in the .cpp: namespaces,
// repeated attributes, document types, references QDom would change, and
// nesting deeper than XmlList::MaximumDepth).

#include "core/xmllist.h"

#include <QByteArray>
#include <QDomDocument>

namespace Brevi {
namespace XmlListText {

// Appends the document's text to `out`. False, with `out` unspecified, when
// the document holds a node no text reading makes (a document type, an entity
// reference, a namespace).
bool write(const QDomDocument& document, int indent, QByteArray& out);

// Replaces the content of `document` (in place: copies sharing it see the new
// content) with the parsed text. False, with the document untouched, when the
// text is not plain or not well-formed.
bool read(const QByteArray& text, QDomDocument& document);

// The text into the document as QDomDocument::setContent with namespace
// processing does it, once the screen has passed it: read() when it can, QDom
// otherwise. On failure `error`, `line` and `column` say what and where; the
// document holds whatever QDom left in it, or is untouched when the screen
// refused the text.
bool parse(const QByteArray& text, QDomDocument& document, QString& error, int& line, int& column);

} // namespace XmlListText
} // namespace Brevi

#endif
