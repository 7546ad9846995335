#ifndef BASELIBRARY_CORE_XMLLIST_P_H
#define BASELIBRARY_CORE_XMLLIST_P_H

// The DOM walking that XmlList, XmlListIterator and Config share. Everything
// here works on elements of whatever document they belong to, so that an
// iterator on a nested item is served by the same code as a look-up at the top.

#include "core/xmllist.h"

#include <QDomElement>
#include <QString>

namespace Brevi {
namespace XmlListDetail {

// The words of the format. QStringLiteral keeps them static: no allocation
// on the look-up path.
inline QString rootTag() { return QStringLiteral("brevixmllist"); }
inline QString itemTag() { return QStringLiteral("item"); }
inline QString valueTag() { return QStringLiteral("value"); }
inline QString argTypeAttribute() { return QStringLiteral("argtype"); }
inline QString nameAttribute() { return QStringLiteral("name"); }
inline QString typeAttribute() { return QStringLiteral("type"); }
inline QString argTypeSingle() { return QStringLiteral("single"); }
inline QString argTypeList() { return QStringLiteral("list"); }

// The first item child of `parent` with the name; null if none.
QDomElement findItem(const QDomNode& parent, const QString& name);
// The next item sibling with the name; null if none.
QDomElement nextItem(const QDomElement& item, const QString& name);
bool isList(const QDomElement& item);
XmlList::ValueTypeE itemType(const QDomElement& item);

// The text of a single item whose value has exactly the type; traces the
// missing value element and a type mismatch at TraceAlways.
bool readValue(const QDomElement& item, XmlList::ValueTypeE type, QString& text);
// Replaces the text of an existing single item of the same type; traces as
// set with SetModify does.
bool writeValue(const QDomElement& item, XmlList::ValueTypeE type, const QString& text);

// A new single item, not yet attached anywhere.
QDomElement newSingle(QDomDocument& document, const QString& name, XmlList::ValueTypeE type, const QString& text);
// A new, empty list item, not yet attached anywhere.
QDomElement newList(QDomDocument& document, const QString& name);

// The depth of `node` in the text of its document: the root element is at 1.
int depthOf(const QDomNode& node);
// How many levels of elements stand below `node`: 0 when it has no element
// child. Walks without recursion, so any tree can be measured.
int depthBelow(const QDomNode& node);
// True when an item placed at `depth` and holding copies of the children of
// `content` (null for a single value, which adds its value element) stays
// within XmlList::MaximumDepth; otherwise traces, at TraceAlways, that the
// item `name` would nest too deep.
bool fitsAt(int depth, const QDomNode& content, const QString& name);

void removeChildren(QDomNode node);
// Appends deep copies of every child of `source` to `target`, which may be in
// another document. The copies are all made before the first is appended, so
// a list copied into itself does not chase its own tail.
void appendCopies(QDomNode target, const QDomNode& source);

} // namespace XmlListDetail
} // namespace Brevi

#endif
