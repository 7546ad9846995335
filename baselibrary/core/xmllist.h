#ifndef BASELIBRARY_CORE_XMLLIST_H
#define BASELIBRARY_CORE_XMLLIST_H

#include "brevi_export.h"
#include "core/operatorboolgenerator.h"

#include <QByteArray>
#include <QDomDocument>
#include <QString>

namespace Brevi {

class Buffer;
class Extent;
class MachineName;
class XmlListIterator;

// The system's one structured value: an ordered list of named, typed items,
// where an item is a single value or a nested list. It is the body of every
// message and the content of every configuration file.
//
// The QDomDocument is the only representation: every get walks the DOM and
// every set edits it, and toBinary()/fromBinary() are the document's XML text.
// The text of a list holding the string Host = "a" and a list Disks holding the
// unsigned Size = 7 is (attribute order is whatever QDomDocument prints):
//
//   <brevixmllist>
//    <item argtype="single" name="Host">
//     <value type="string">a</value>
//    </item>
//    <item argtype="list" name="Disks">
//     <item argtype="single" name="Size">
//      <value type="uint32">7</value>
//     </item>
//    </item>
//   </brevixmllist>
//
// The line break between an item's start tag and its value is relied on: the
// trace settings reader finds a value on the line after its name.
//
// Items:
//  - a name is valid when it is not empty; any text will do, it is an attribute;
//  - names repeat freely (that is how repeated entries are stored) and every
//    look-up by name finds the first item of the name in document order;
//  - look-up by name covers one level; nested items are reached through a
//    nested XmlList (a copy) or an XmlListIterator (in place).
//
// Types are matched strictly: an int stored is not an unsigned read, and set
// with SetModify never changes an item's type. A missing item is a normal
// event (false, and a line at TraceVerbose); a mistake (wrong type, invalid
// name, broken structure) is false and a line at TraceAlways, module XMLLIST.
// Nothing throws. A get leaves its target alone when it returns false; the
// caller chooses the default.
//
// Copies share the document: a write through one copy shows in the other.
// clone() is the only deep copy. A list stored into another (set, modify,
// create with an XmlList) is copied, so later changes to the source do not
// reach it.
//
// An XmlList has no lock. A document may be shared between threads only if
// nobody writes it, and since copies share, hand another thread a clone().
//
// Look-up by name is a linear walk, which suits tens of items; read large
// bodies with an iterator. Bulk data belongs in a data channel, not here.
class BREVI_EXPORT XmlList
{
public:
    // What an item holds, from its argtype and the type of its value.
    enum ValueTypeE {
        ValueUnknown = 0,
        ValueList = 1,   // argtype "list" (or a value of type "list")
        ValueString = 2, // "string"
        ValueInt32 = 3,  // "int32", decimal
        ValueUint32 = 4, // "uint32", decimal
        ValueInt64 = 5,  // "int64", decimal
        ValueUint64 = 6, // "uint64", decimal
        ValueBool = 7,   // "bool", "True" or "False"
        ValueData = 8    // "data", base64 of the bytes
    };

    // How deep a list nests, counted in the elements of its text: the root
    // at 1, a top-level item at 2, its value or a nested item at 3, and so
    // on. No list goes deeper: fromBinary refuses text that does, and set,
    // modify and create refuse to build it ("nested deeper than"). Walks of
    // the tree (copies, the writer, the document's own teardown) may then
    // take a frame per level without exhausting a thread's stack.
    static const int MaximumDepth = 1000;

    // The last argument of every set.
    enum SetTypeE {
        // Always append a new item, even when the name exists: repeated entries.
        SetCreate = 0,
        // Change the first item of the name if there is one, else append.
        SetModify = 1
    };

    // A new document with its root element; valid.
    XmlList();
    XmlList(const XmlList& other) = default;
    XmlList& operator=(const XmlList& other) = default;
    virtual ~XmlList();

    // False after fromBinary() of text that does not parse; then the document
    // has no root at all, and every get and set fails until clear() or a
    // successful fromBinary().
    bool isValid() const { return mbValid; }
    operator OperatorBoolGenerator<XmlList>::Result() const { return OperatorBoolGenerator<XmlList>::make(mbValid); }

    // True when the root has no child nodes at all (a configuration's version
    // element counts).
    bool isEmpty() const;
    // The number of items at the top level.
    int size() const;
    // Empties the document, makes the root again and sets the list valid. True.
    bool clear();
    // A new list with its own deep copy of every item.
    XmlList clone() const;

    // The document's XML text, UTF-8, indent 1. An empty list gives an empty
    // array, so an empty message body costs no bytes.
    QByteArray toBinary() const;
    // Replaces the document with the parsed text (namespace processing on). An
    // empty array gives a valid empty list. Text that does not parse traces
    // "Error parsing XML at line" with line and column, leaves the list invalid
    // with an empty document (no root) and gives false: callers must test the
    // result.
    //
    // What it accepts, toBinary() writes back as text that reads into the
    // same list; what the text form cannot give back it refuses the same way:
    // nesting deeper than MaximumDepth, namespaces (names with ':', xmlns), an
    // attribute given twice, a document type, references to characters XML
    // does not have, and any encoding but UTF-8.
    bool fromBinary(const QByteArray& bytes);

    // The document itself, shared with every copy of this list.
    QDomDocument& getXmlDoc() { return moDoc; }
    const QDomDocument& getXmlDoc() const { return moDoc; }

    // Removes the first item of the name; false if there is none.
    bool remove(const QString& name);

    // An iterator on the first item, or on the first item of the name; null
    // when there is none.
    XmlListIterator first() const;
    XmlListIterator first(const QString& name) const;

    // --- get by name: true when the item exists with the right type --------
    bool get(QString& value, const QString& name) const;
    // A string item, as a MachineName (hash computed on the way).
    bool get(MachineName& value, const QString& name) const;
    // Numbers: text that does not parse gives 0 and still returns true.
    bool get(unsigned int& value, const QString& name) const;
    bool get(int& value, const QString& name) const;
    bool get(unsigned long long& value, const QString& name) const;
    bool get(long long& value, const QString& name) const;
    // "1" or "true" in any case is true; "0" or "false" in any case is false;
    // anything else is false with a line at TraceAlways, and still returns true.
    bool get(bool& value, const QString& name) const;
    bool get(QByteArray& value, const QString& name) const;
    bool get(Buffer& value, const QString& name) const;
    // Appends deep copies of the list item's children to `value`'s root. The
    // target is not cleared first: hand in a fresh list.
    bool get(XmlList& value, const QString& name) const;

    // --- get from the item under an iterator (which may be nested) ---------
    bool get(QString& value, const XmlListIterator& item) const;
    bool get(MachineName& value, const XmlListIterator& item) const;
    bool get(unsigned int& value, const XmlListIterator& item) const;
    bool get(int& value, const XmlListIterator& item) const;
    bool get(unsigned long long& value, const XmlListIterator& item) const;
    bool get(long long& value, const XmlListIterator& item) const;
    bool get(bool& value, const XmlListIterator& item) const;
    bool get(QByteArray& value, const XmlListIterator& item) const;
    bool get(Buffer& value, const XmlListIterator& item) const;
    bool get(XmlList& value, const XmlListIterator& item) const;

    // --- set by name at the top level: true when stored --------------------
    // With SetModify an existing item keeps its type: a value of another type
    // is refused (false), and so is an item whose value element lost its text
    // (an empty string that went through the text form).
    bool set(const QString& name, const QString& value, SetTypeE type = SetModify);
    // The text is taken as Latin-1.
    bool set(const QString& name, const char* value, SetTypeE type = SetModify);
    bool set(const QString& name, unsigned int value, SetTypeE type = SetModify);
    bool set(const QString& name, int value, SetTypeE type = SetModify);
    bool set(const QString& name, unsigned long long value, SetTypeE type = SetModify);
    bool set(const QString& name, long long value, SetTypeE type = SetModify);
    bool set(const QString& name, bool value, SetTypeE type = SetModify);
    bool set(const QString& name, const QByteArray& value, SetTypeE type = SetModify);
    // The Extent's whole view, stored as data.
    bool set(const QString& name, const Extent& value, SetTypeE type = SetModify);
    // Stores deep copies of `value`'s items; with SetModify an existing list
    // item is emptied and refilled, an existing single item refuses.
    bool set(const QString& name, const XmlList& value, SetTypeE type = SetModify);

    // --- modify the item under an iterator: same rules as set/SetModify ----
    bool modify(const XmlListIterator& item, const QString& value);
    bool modify(const XmlListIterator& item, const char* value);
    bool modify(const XmlListIterator& item, unsigned int value);
    bool modify(const XmlListIterator& item, int value);
    bool modify(const XmlListIterator& item, unsigned long long value);
    bool modify(const XmlListIterator& item, long long value);
    bool modify(const XmlListIterator& item, bool value);
    bool modify(const XmlListIterator& item, const QByteArray& value);
    bool modify(const XmlListIterator& item, const Extent& value);
    // Empties the list item and refills it with deep copies of `value`'s items.
    bool modify(const XmlListIterator& item, const XmlList& value);

    // --- create: append a new item to the list item under `list` -----------
    // False when `list` does not stand on a list item or the name is invalid.
    bool create(const XmlListIterator& list, const QString& name, const QString& value);
    bool create(const XmlListIterator& list, const QString& name, const char* value);
    bool create(const XmlListIterator& list, const QString& name, unsigned int value);
    bool create(const XmlListIterator& list, const QString& name, int value);
    bool create(const XmlListIterator& list, const QString& name, unsigned long long value);
    bool create(const XmlListIterator& list, const QString& name, long long value);
    bool create(const XmlListIterator& list, const QString& name, bool value);
    bool create(const XmlListIterator& list, const QString& name, const QByteArray& value);
    bool create(const XmlListIterator& list, const QString& name, const Extent& value);
    bool create(const XmlListIterator& list, const QString& name, const XmlList& value);

    // The texts of a value type as stored in the type attribute, and back.
    static QString typeName(ValueTypeE type);
    static ValueTypeE typeFromName(const QString& name);
    // "1"/"true" and "0"/"false" in any case; anything else is false and a
    // line at TraceAlways.
    static bool boolFromString(const QString& text);

protected:
    // For Config, which parses files into the same document.
    void setValid(bool valid) { mbValid = valid; }

private:
    bool setSingle(const QString& name, ValueTypeE type, const QString& text, SetTypeE setType, const char* word);
    bool getSingle(const QString& name, ValueTypeE type, QString& text) const;

    bool mbValid;
    QDomDocument moDoc;
};

} // namespace Brevi

#include "core/xmllistiterator.h"

#endif
