#include "core/xmllist.h"

#include "core/buffer.h"
#include "core/machinename.h"
#include "core/trace.h"
#include "core/xmllist_p.h"
#include "core/xmllisttext_p.h"

namespace Brevi {

// The limit is taken by reference in places (std::min, the trace stream), so
// it needs its one definition.
const int XmlList::MaximumDepth;

namespace {
const unsigned TraceModule = TraceModuleXmlList;
} // namespace

using namespace XmlListDetail;

// --- helpers shared with the iterator and Config ------------------------------

namespace XmlListDetail {

QDomElement findItem(const QDomNode& parent, const QString& name)
{
    const QString tag = itemTag();
    const QString attribute = nameAttribute();
    for (QDomElement item = parent.firstChildElement(tag); !item.isNull(); item = item.nextSiblingElement(tag))
        if (item.attribute(attribute) == name)
            return item;
    return QDomElement();
}

QDomElement nextItem(const QDomElement& item, const QString& name)
{
    const QString tag = itemTag();
    const QString attribute = nameAttribute();
    for (QDomElement next = item.nextSiblingElement(tag); !next.isNull(); next = next.nextSiblingElement(tag))
        if (next.attribute(attribute) == name)
            return next;
    return QDomElement();
}

bool isList(const QDomElement& item) { return item.attribute(argTypeAttribute()) == argTypeList(); }

XmlList::ValueTypeE itemType(const QDomElement& item)
{
    if (item.isNull())
        return XmlList::ValueUnknown;
    if (isList(item))
        return XmlList::ValueList;
    const QDomElement value = item.firstChildElement(valueTag());
    if (value.isNull())
        return XmlList::ValueUnknown;
    return XmlList::typeFromName(value.attribute(typeAttribute()));
}

bool readValue(const QDomElement& item, XmlList::ValueTypeE type, QString& text)
{
    const QDomElement value = item.firstChildElement(valueTag());
    if (value.isNull()) {
        BTRACE(TraceAlways) << "Failed to find a value element for config item" << item.attribute(nameAttribute());
        return false;
    }
    const QString typeName = XmlList::typeName(type);
    if (value.attribute(typeAttribute()) != typeName) {
        BTRACE(TraceAlways) << "config item" << item.attribute(nameAttribute()) << "is not a" << typeName << "type";
        return false;
    }
    text = value.text();
    return true;
}

bool writeValue(const QDomElement& item, XmlList::ValueTypeE type, const QString& text)
{
    QDomElement value = item.firstChildElement(valueTag());
    if (value.isNull()) {
        BTRACE(TraceAlways) << "Failed to find a value for config item " << item.attribute(nameAttribute());
        return false;
    }
    const QString typeName = XmlList::typeName(type);
    if (value.attribute(typeAttribute()) != typeName) {
        BTRACE(TraceAlways) << "config item is not a" << typeName << "argument type" << item.attribute(nameAttribute());
        return false;
    }
    // An empty string that went through the text form has lost its text node:
    // there is nothing to replace, and the item keeps its (empty) value.
    QDomNode old = value.firstChild();
    if (old.isNull()) {
        BTRACE(TraceAlways) << "Failed to replace the value of config item" << item.attribute(nameAttribute())
                            << "it has no text";
        return false;
    }
    QDomDocument document = item.ownerDocument();
    value.replaceChild(document.createTextNode(text), old);
    // Parsed text may come in more than one node; the new text is the whole value.
    for (QDomNode rest = value.firstChild().nextSibling(); !rest.isNull();) {
        QDomNode after = rest.nextSibling();
        value.removeChild(rest);
        rest = after;
    }
    return true;
}

QDomElement newSingle(QDomDocument& document, const QString& name, XmlList::ValueTypeE type, const QString& text)
{
    QDomElement item = document.createElement(itemTag());
    item.setAttribute(argTypeAttribute(), argTypeSingle());
    item.setAttribute(nameAttribute(), name);
    QDomElement value = document.createElement(valueTag());
    value.setAttribute(typeAttribute(), XmlList::typeName(type));
    // Always a text node, even for an empty string, so that the value can be
    // modified in place until the list goes through its text form.
    value.appendChild(document.createTextNode(text));
    item.appendChild(value);
    return item;
}

QDomElement newList(QDomDocument& document, const QString& name)
{
    QDomElement item = document.createElement(itemTag());
    item.setAttribute(argTypeAttribute(), argTypeList());
    item.setAttribute(nameAttribute(), name);
    return item;
}

int depthOf(const QDomNode& node)
{
    int depth = 0;
    for (QDomNode at = node; !at.isNull() && !at.isDocument(); at = at.parentNode())
        ++depth;
    return depth;
}

int depthBelow(const QDomNode& top)
{
    int deepest = 0;
    int depth = 0;
    QDomNode node = top;
    for (;;) {
        const QDomNode child = node.firstChild();
        if (!child.isNull()) {
            node = child;
            ++depth;
        } else {
            while (node != top && node.nextSibling().isNull()) {
                node = node.parentNode();
                --depth;
            }
            if (node == top)
                return deepest;
            node = node.nextSibling();
        }
        if (node.isElement() && depth > deepest)
            deepest = depth;
    }
}

bool fitsAt(int depth, const QDomNode& content, const QString& name)
{
    const int deepest = depth + (content.isNull() ? 1 : depthBelow(content));
    if (deepest <= XmlList::MaximumDepth)
        return true;
    BTRACE(TraceAlways) << "Failed to store item" << name << "it would be nested deeper than" << XmlList::MaximumDepth
                        << "levels";
    return false;
}

void removeChildren(QDomNode node)
{
    while (node.hasChildNodes())
        node.removeChild(node.firstChild());
}

void appendCopies(QDomNode target, const QDomNode& source)
{
    QDomDocument document = target.isDocument() ? target.toDocument() : target.ownerDocument();
    QList<QDomNode> copies;
    for (QDomNode child = source.firstChild(); !child.isNull(); child = child.nextSibling())
        copies.append(document.importNode(child, true));
    for (QDomNode& copy : copies)
        target.appendChild(copy);
}

} // namespace XmlListDetail

// --- value conversions --------------------------------------------------------

namespace {

QString textOf(unsigned int value) { return QString::number(value); }
QString textOf(int value) { return QString::number(value); }
QString textOf(unsigned long long value) { return QString::number(value); }
QString textOf(long long value) { return QString::number(value); }
QString textOf(bool value) { return value ? QStringLiteral("True") : QStringLiteral("False"); }
QString textOf(const QByteArray& value) { return QString::fromLatin1(value.toBase64()); }
// The Extent's bytes are only viewed, never copied, on the way to base64.
QString textOf(const Extent& value) { return textOf(value.toQByteArray()); }

void valueOf(const QString& text, unsigned int& value) { value = text.toUInt(nullptr, 10); }
void valueOf(const QString& text, int& value) { value = text.toInt(nullptr, 10); }
void valueOf(const QString& text, unsigned long long& value) { value = text.toULongLong(nullptr, 10); }
void valueOf(const QString& text, long long& value) { value = text.toLongLong(nullptr, 10); }
void valueOf(const QString& text, bool& value) { value = XmlList::boolFromString(text); }
void valueOf(const QString& text, QByteArray& value) { value = QByteArray::fromBase64(text.toLatin1()); }

} // namespace

// --- whole list ---------------------------------------------------------------

XmlList::XmlList()
    : mbValid(true)
{
    moDoc.appendChild(moDoc.createElement(rootTag()));
}

XmlList::~XmlList() = default;

bool XmlList::isEmpty() const
{
    const QDomElement root = moDoc.documentElement();
    return root.isNull() || !root.hasChildNodes();
}

int XmlList::size() const
{
    const QString tag = itemTag();
    int count = 0;
    for (QDomElement item = moDoc.documentElement().firstChildElement(tag); !item.isNull();
         item = item.nextSiblingElement(tag))
        ++count;
    return count;
}

bool XmlList::clear()
{
    // Emptied in place rather than replaced, so that every copy sharing the
    // document sees the same fresh list.
    removeChildren(moDoc);
    moDoc.appendChild(moDoc.createElement(rootTag()));
    mbValid = true;
    return true;
}

XmlList XmlList::clone() const
{
    XmlList copy;
    copy.mbValid = mbValid;
    const QDomElement root = moDoc.documentElement();
    if (!root.isNull())
        appendCopies(copy.moDoc.documentElement(), root);
    return copy;
}

QByteArray XmlList::toBinary() const
{
    if (isEmpty())
        return QByteArray();
    QByteArray bytes;
    if (XmlListText::write(moDoc, 1, bytes))
        return bytes;
    return moDoc.toByteArray(1);
}

bool XmlList::fromBinary(const QByteArray& bytes)
{
    if (bytes.isEmpty())
        return clear();
    QString error;
    int line = 0;
    int column = 0;
    mbValid = XmlListText::parse(bytes, moDoc, error, line, column);
    if (!mbValid) {
        BTRACE(TraceAlways) << "Error parsing XML at line" << line << "column" << column << error;
        // What the parser built before it gave up is not a list: drop it, so
        // that nothing reads or extends half a document.
        removeChildren(moDoc);
    }
    return mbValid;
}

bool XmlList::remove(const QString& name)
{
    QDomElement item = findItem(moDoc.documentElement(), name);
    if (item.isNull())
        return false;
    moDoc.documentElement().removeChild(item);
    return true;
}

XmlListIterator XmlList::first() const { return XmlListIterator(moDoc.documentElement().firstChildElement(itemTag())); }

XmlListIterator XmlList::first(const QString& name) const
{
    if (name.isEmpty())
        return XmlListIterator();
    return XmlListIterator(findItem(moDoc.documentElement(), name));
}

QString XmlList::typeName(ValueTypeE type)
{
    switch (type) {
    case ValueList:
        return QStringLiteral("list");
    case ValueString:
        return QStringLiteral("string");
    case ValueInt32:
        return QStringLiteral("int32");
    case ValueUint32:
        return QStringLiteral("uint32");
    case ValueInt64:
        return QStringLiteral("int64");
    case ValueUint64:
        return QStringLiteral("uint64");
    case ValueBool:
        return QStringLiteral("bool");
    case ValueData:
        return QStringLiteral("data");
    case ValueUnknown:
        break;
    }
    return QString();
}

XmlList::ValueTypeE XmlList::typeFromName(const QString& name)
{
    for (int type = ValueList; type <= ValueData; ++type)
        if (name == typeName(ValueTypeE(type)))
            return ValueTypeE(type);
    return ValueUnknown;
}

bool XmlList::boolFromString(const QString& text)
{
    if (text == QLatin1String("1") || text.compare(QLatin1String("true"), Qt::CaseInsensitive) == 0)
        return true;
    if (text == QLatin1String("0") || text.compare(QLatin1String("false"), Qt::CaseInsensitive) == 0)
        return false;
    BTRACE(TraceAlways) << "Invalid bool value needs to be"
                        << "1, true, True, TRUE or 0, false, False, FALSE not" << text;
    return false;
}

// --- get by name --------------------------------------------------------------

bool XmlList::getSingle(const QString& name, ValueTypeE type, QString& text) const
{
    if (name.isEmpty()) {
        BTRACE(TraceAlways) << "Invalid configitem name";
        return false;
    }
    const QDomElement item = findItem(moDoc.documentElement(), name);
    if (item.isNull()) {
        // A missing item is how optional settings and keys are absent.
        BTRACE(TraceVerbose) << "Failed to find config item to get" << name;
        return false;
    }
    return readValue(item, type, text);
}

bool XmlList::get(QString& value, const QString& name) const { return getSingle(name, ValueString, value); }

bool XmlList::get(MachineName& value, const QString& name) const
{
    QString text;
    if (!getSingle(name, ValueString, text))
        return false;
    value = MachineName(text);
    return true;
}

#define BREVI_XMLLIST_GET_BY_NAME(T, TYPE)                                                                             \
    bool XmlList::get(T& value, const QString& name) const                                                             \
    {                                                                                                                  \
        QString text;                                                                                                  \
        if (!getSingle(name, TYPE, text))                                                                              \
            return false;                                                                                              \
        valueOf(text, value);                                                                                          \
        return true;                                                                                                   \
    }

BREVI_XMLLIST_GET_BY_NAME(unsigned int, ValueUint32)
BREVI_XMLLIST_GET_BY_NAME(int, ValueInt32)
BREVI_XMLLIST_GET_BY_NAME(unsigned long long, ValueUint64)
BREVI_XMLLIST_GET_BY_NAME(long long, ValueInt64)
BREVI_XMLLIST_GET_BY_NAME(bool, ValueBool)
BREVI_XMLLIST_GET_BY_NAME(QByteArray, ValueData)
#undef BREVI_XMLLIST_GET_BY_NAME

bool XmlList::get(Buffer& value, const QString& name) const
{
    QByteArray bytes;
    if (!get(bytes, name))
        return false;
    value.copy(bytes);
    return true;
}

bool XmlList::get(XmlList& value, const QString& name) const
{
    const QDomElement item = name.isEmpty() ? QDomElement() : findItem(moDoc.documentElement(), name);
    if (item.isNull() || !isList(item)) {
        BTRACE(TraceAlways) << "Failed to get list" << name << "it is not of type list";
        return false;
    }
    if (value.moDoc.documentElement().isNull())
        value.clear();
    appendCopies(value.moDoc.documentElement(), item);
    return true;
}

// --- get by iterator ----------------------------------------------------------

namespace {

bool readAt(const XmlListIterator& item, XmlList::ValueTypeE type, QString& text)
{
    if (item.isNull()) {
        BTRACE(TraceVerbose) << "Failed to find config item to get"
                             << "at the end of the list";
        return false;
    }
    return readValue(item.element(), type, text);
}

} // namespace

bool XmlList::get(QString& value, const XmlListIterator& item) const { return readAt(item, ValueString, value); }

bool XmlList::get(MachineName& value, const XmlListIterator& item) const
{
    QString text;
    if (!readAt(item, ValueString, text))
        return false;
    value = MachineName(text);
    return true;
}

#define BREVI_XMLLIST_GET_AT(T, TYPE)                                                                                  \
    bool XmlList::get(T& value, const XmlListIterator& item) const                                                     \
    {                                                                                                                  \
        QString text;                                                                                                  \
        if (!readAt(item, TYPE, text))                                                                                 \
            return false;                                                                                              \
        valueOf(text, value);                                                                                          \
        return true;                                                                                                   \
    }

BREVI_XMLLIST_GET_AT(unsigned int, ValueUint32)
BREVI_XMLLIST_GET_AT(int, ValueInt32)
BREVI_XMLLIST_GET_AT(unsigned long long, ValueUint64)
BREVI_XMLLIST_GET_AT(long long, ValueInt64)
BREVI_XMLLIST_GET_AT(bool, ValueBool)
BREVI_XMLLIST_GET_AT(QByteArray, ValueData)
#undef BREVI_XMLLIST_GET_AT

bool XmlList::get(Buffer& value, const XmlListIterator& item) const
{
    QByteArray bytes;
    if (!get(bytes, item))
        return false;
    value.copy(bytes);
    return true;
}

bool XmlList::get(XmlList& value, const XmlListIterator& item) const
{
    if (item.type() != ValueList) {
        BTRACE(TraceAlways) << "Failed to get list" << item.name() << "it is not of type list";
        return false;
    }
    if (value.moDoc.documentElement().isNull())
        value.clear();
    appendCopies(value.moDoc.documentElement(), item.element());
    return true;
}

// --- set by name --------------------------------------------------------------

bool XmlList::setSingle(const QString& name, ValueTypeE type, const QString& text, SetTypeE setType, const char* word)
{
    if (name.isEmpty()) {
        BTRACE(TraceAlways) << "Failed to set" << word << "value, config name invalid";
        return false;
    }
    QDomElement root = moDoc.documentElement();
    if (root.isNull()) {
        BTRACE(TraceAlways) << "Failed to set" << word << "value" << name << "the list is not valid";
        return false;
    }
    if (setType == SetModify) {
        const QDomElement item = findItem(root, name);
        if (!item.isNull())
            return writeValue(item, type, text);
    }
    root.appendChild(newSingle(moDoc, name, type, text));
    return true;
}

bool XmlList::set(const QString& name, const QString& value, SetTypeE type)
{
    return setSingle(name, ValueString, value, type, "string");
}

bool XmlList::set(const QString& name, const char* value, SetTypeE type)
{
    return setSingle(name, ValueString, QString::fromLatin1(value), type, "string");
}

bool XmlList::set(const QString& name, unsigned int value, SetTypeE type)
{
    return setSingle(name, ValueUint32, textOf(value), type, "uint32");
}

bool XmlList::set(const QString& name, int value, SetTypeE type)
{
    return setSingle(name, ValueInt32, textOf(value), type, "int32");
}

bool XmlList::set(const QString& name, unsigned long long value, SetTypeE type)
{
    return setSingle(name, ValueUint64, textOf(value), type, "uint64");
}

bool XmlList::set(const QString& name, long long value, SetTypeE type)
{
    return setSingle(name, ValueInt64, textOf(value), type, "int64");
}

bool XmlList::set(const QString& name, bool value, SetTypeE type)
{
    return setSingle(name, ValueBool, textOf(value), type, "bool");
}

bool XmlList::set(const QString& name, const QByteArray& value, SetTypeE type)
{
    return setSingle(name, ValueData, textOf(value), type, "QByteArray");
}

bool XmlList::set(const QString& name, const Extent& value, SetTypeE type)
{
    return setSingle(name, ValueData, textOf(value), type, "QByteArray");
}

bool XmlList::set(const QString& name, const XmlList& value, SetTypeE type)
{
    if (name.isEmpty()) {
        BTRACE(TraceAlways) << "Invalid item name";
        return false;
    }
    QDomElement root = moDoc.documentElement();
    if (root.isNull()) {
        BTRACE(TraceAlways) << "failed to set list," << name << "the list is not valid";
        return false;
    }
    const QDomElement source = value.moDoc.documentElement();
    if (!fitsAt(depthOf(root) + 1, source, name))
        return false;
    if (type == SetModify) {
        QDomElement item = findItem(root, name);
        if (!item.isNull()) {
            if (!isList(item)) {
                BTRACE(TraceAlways) << "failed to set list," << name << "is not a list type";
                return false;
            }
            removeChildren(item);
            appendCopies(item, source);
            return true;
        }
    }
    BTRACE(TraceVerbose) << "configitem" << name << "does not exist (or creating not modifiying) - creating it";
    // Filled before it is attached, so that a list stored into itself copies
    // what it held before.
    QDomElement item = newList(moDoc, name);
    appendCopies(item, source);
    root.appendChild(item);
    return true;
}

// --- modify under an iterator -------------------------------------------------

namespace {

bool modifyAt(const XmlListIterator& item, XmlList::ValueTypeE type, const QString& text)
{
    if (item.isNull()) {
        BTRACE(TraceAlways) << "Failed to modify config item, the iterator is at the end";
        return false;
    }
    return writeValue(item.element(), type, text);
}

} // namespace

bool XmlList::modify(const XmlListIterator& item, const QString& value) { return modifyAt(item, ValueString, value); }

bool XmlList::modify(const XmlListIterator& item, const char* value)
{
    return modifyAt(item, ValueString, QString::fromLatin1(value));
}

bool XmlList::modify(const XmlListIterator& item, unsigned int value)
{
    return modifyAt(item, ValueUint32, textOf(value));
}

bool XmlList::modify(const XmlListIterator& item, int value) { return modifyAt(item, ValueInt32, textOf(value)); }

bool XmlList::modify(const XmlListIterator& item, unsigned long long value)
{
    return modifyAt(item, ValueUint64, textOf(value));
}

bool XmlList::modify(const XmlListIterator& item, long long value) { return modifyAt(item, ValueInt64, textOf(value)); }

bool XmlList::modify(const XmlListIterator& item, bool value) { return modifyAt(item, ValueBool, textOf(value)); }

bool XmlList::modify(const XmlListIterator& item, const QByteArray& value)
{
    return modifyAt(item, ValueData, textOf(value));
}

bool XmlList::modify(const XmlListIterator& item, const Extent& value)
{
    return modifyAt(item, ValueData, textOf(value));
}

bool XmlList::modify(const XmlListIterator& item, const XmlList& value)
{
    if (item.type() != ValueList) {
        BTRACE(TraceAlways) << "failed to set list," << item.name() << "is not a list type";
        return false;
    }
    QDomElement element = item.element();
    if (!fitsAt(depthOf(element), value.moDoc.documentElement(), item.name()))
        return false;
    removeChildren(element);
    appendCopies(element, value.moDoc.documentElement());
    return true;
}

// --- create under a list item -------------------------------------------------

namespace {

// The list element under `list` that a new item named `name` may go into, or
// null after tracing why not.
QDomElement createTarget(const XmlListIterator& list, const QString& name)
{
    if (list.isNull() || !isList(list.element())) {
        BTRACE(TraceAlways) << "Failed to create item" << name << "the iterator is not on a list";
        return QDomElement();
    }
    if (name.isEmpty()) {
        BTRACE(TraceAlways) << "Invalid item name";
        return QDomElement();
    }
    return list.element();
}

bool createAt(const XmlListIterator& list, const QString& name, XmlList::ValueTypeE type, const QString& text)
{
    QDomElement target = createTarget(list, name);
    if (target.isNull() || !fitsAt(depthOf(target) + 1, QDomNode(), name))
        return false;
    QDomDocument document = target.ownerDocument();
    target.appendChild(newSingle(document, name, type, text));
    return true;
}

} // namespace

bool XmlList::create(const XmlListIterator& list, const QString& name, const QString& value)
{
    return createAt(list, name, ValueString, value);
}

bool XmlList::create(const XmlListIterator& list, const QString& name, const char* value)
{
    return createAt(list, name, ValueString, QString::fromLatin1(value));
}

bool XmlList::create(const XmlListIterator& list, const QString& name, unsigned int value)
{
    return createAt(list, name, ValueUint32, textOf(value));
}

bool XmlList::create(const XmlListIterator& list, const QString& name, int value)
{
    return createAt(list, name, ValueInt32, textOf(value));
}

bool XmlList::create(const XmlListIterator& list, const QString& name, unsigned long long value)
{
    return createAt(list, name, ValueUint64, textOf(value));
}

bool XmlList::create(const XmlListIterator& list, const QString& name, long long value)
{
    return createAt(list, name, ValueInt64, textOf(value));
}

bool XmlList::create(const XmlListIterator& list, const QString& name, bool value)
{
    return createAt(list, name, ValueBool, textOf(value));
}

bool XmlList::create(const XmlListIterator& list, const QString& name, const QByteArray& value)
{
    return createAt(list, name, ValueData, textOf(value));
}

bool XmlList::create(const XmlListIterator& list, const QString& name, const Extent& value)
{
    return createAt(list, name, ValueData, textOf(value));
}

bool XmlList::create(const XmlListIterator& list, const QString& name, const XmlList& value)
{
    QDomElement target = createTarget(list, name);
    if (target.isNull() || !fitsAt(depthOf(target) + 1, value.moDoc.documentElement(), name))
        return false;
    QDomDocument document = target.ownerDocument();
    QDomElement item = newList(document, name);
    appendCopies(item, value.moDoc.documentElement());
    target.appendChild(item);
    return true;
}

} // namespace Brevi
