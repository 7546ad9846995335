#ifndef BASELIBRARY_CORE_XMLLISTTEXT_P_H
#define BASELIBRARY_CORE_XMLLISTTEXT_P_H

// The text form of a list without QDomDocument's general-purpose writer and
// reader, which cost most of a message's round trip.
//
// Both handle the plain XML the lists are made of: elements, attributes and
// text, without namespaces. Anything else (a declaration, a comment, CDATA, a
// DOCTYPE, a namespace, a character that is not plain) makes them decline,
// and the caller hands the job to QDomDocument, which then also reports the
// errors. Whatever they accept, they treat as QDomDocument does:
//
//  - write() gives the bytes of QDomDocument::toByteArray(indent): the same
//    indentation and line breaks, the same escapes ("&lt;", "&amp;", "&quot;"
//    in attributes, "&gt;" after "]]", "&#xa;" "&#xd;" "&#x9;" in attributes,
//    "&#xd;" in text), UTF-8, with the attributes of an element in name order
//    rather than in QDom's hash order;
//  - read() builds the nodes that QDomDocument::setContent with namespace
//    processing builds: elements and attributes made with the namespace
//    functions and no namespace, one text node per run of character data, and
//    no node for a run that is only white space.

#include <QByteArray>
#include <QDomDocument>

namespace Brevi {
namespace XmlListText {

// Appends the document's text to `out`. False, with `out` unspecified, when
// the document holds a node that is not a plain element or text.
bool write(const QDomDocument& document, int indent, QByteArray& out);

// Replaces the content of `document` (in place: copies sharing it see the new
// content) with the parsed text. False, with the document untouched, when the
// text is not plain or not well-formed.
bool read(const QByteArray& text, QDomDocument& document);

// Lists are a few levels deep. QDom's parser, copies and destructor recurse
// once per level and run out of stack some ten thousand levels down, so text
// that nests deeper than this is refused before QDom sees it.
const int MaximumDepth = 1000;

// The text into the document as QDomDocument::setContent with namespace
// processing does it: read() when it can, QDom otherwise. Text nested deeper
// than MaximumDepth fails with the place where it gets too deep. On failure
// the document holds whatever QDom left in it.
bool parse(const QByteArray& text, QDomDocument& document, QString& error, int& line, int& column);

} // namespace XmlListText
} // namespace Brevi

#endif
