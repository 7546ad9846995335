#ifndef BASELIBRARY_CORE_XMLLISTITERATOR_H
#define BASELIBRARY_CORE_XMLLISTITERATOR_H

#include "brevi_export.h"
#include "core/xmllist.h"

#include <QByteArray>
#include <QDomElement>
#include <QString>

namespace Brevi {

// A place in an XmlList: the item element it stands on, or a null element at
// the end. It walks the items of one level in document order and steps into a
// nested list with listIterator().
//
// The iterator holds the element itself, which keeps its place in the
// document: changes to other items do not disturb it, and it shares the
// document like every copy of the list (same thread rules as XmlList).
//
//   for (XmlListIterator it = list.first(); !it.isNull(); it.next())
//       if (it.type() == XmlList::ValueString)
//           use(it.name(), it.getString());
//
// The get... members give the value of the item, or an empty value or 0 when
// it is of another type: the caller cannot tell a wrong type from an empty
// value. Use XmlList::get(value, iterator) when that matters.
class BREVI_EXPORT XmlListIterator
{
public:
    XmlListIterator() = default;
    XmlListIterator(const QDomElement& element)
        : moElement(element)
    {}
    XmlListIterator& operator=(const QDomElement& element)
    {
        moElement = element;
        return *this;
    }

    // True at the end (or never placed).
    bool isNull() const { return moElement.isNull(); }
    // True if no item follows at this level.
    bool isLast() const;
    // To the next item at this level; null at the end.
    XmlListIterator& next();
    // To the next item of the name at this level. An empty name makes the
    // iterator null.
    XmlListIterator& next(const QString& name);

    // The item's name attribute.
    QString name() const;
    // What the item holds; ValueUnknown for anything unrecognised.
    XmlList::ValueTypeE type() const;

    // Removes the item from its list and moves on to the next item of the
    // level. False if the iterator was null.
    bool remove();

    // On a list item, an iterator on its first child item. On anything else a
    // null iterator and the line "This is a <argtype> not a List".
    XmlListIterator listIterator() const;
    // The first child item of the name; null if there is none or the name is
    // empty ("<name> is invalid").
    XmlListIterator listIterator(const QString& name) const;

    // The value of this item; empty or 0 on another type.
    QString getString() const;
    unsigned int getUint32() const;
    int getInt32() const;
    unsigned long long getUint64() const;
    long long getInt64() const;
    bool getBool() const;
    // A new list with deep copies of this list item's children.
    XmlList getXmlList() const;
    QByteArray getQByteArray() const;

    // The value of the first child item of the name of this list item; empty
    // or 0 if there is none ("Failed to find" and the name are traced) or it is
    // of another type.
    QString getString(const QString& name) const;
    unsigned int getUint32(const QString& name) const;
    int getInt32(const QString& name) const;
    unsigned long long getUint64(const QString& name) const;
    long long getInt64(const QString& name) const;
    bool getBool(const QString& name) const;
    XmlList getXmlList(const QString& name) const;
    QByteArray getQByteArray(const QString& name) const;

    // The item element, null at the end.
    const QDomElement& element() const { return moElement; }

    // Same element (same place in the same document).
    bool operator==(const XmlListIterator& other) const { return moElement == other.moElement; }
    bool operator!=(const XmlListIterator& other) const { return !(*this == other); }

private:
    QDomElement childItem(const QString& name) const;

    QDomElement moElement;
};

} // namespace Brevi

#endif
