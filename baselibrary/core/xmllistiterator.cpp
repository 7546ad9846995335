#include "core/xmllistiterator.h"

#include "core/trace.h"
#include "core/xmllist_p.h"

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleXmlList;
} // namespace

using namespace XmlListDetail;

bool XmlListIterator::isLast() const { return moElement.nextSiblingElement(itemTag()).isNull(); }

XmlListIterator& XmlListIterator::next()
{
    moElement = moElement.nextSiblingElement(itemTag());
    return *this;
}

XmlListIterator& XmlListIterator::next(const QString& name)
{
    moElement = name.isEmpty() ? QDomElement() : nextItem(moElement, name);
    return *this;
}

QString XmlListIterator::name() const { return moElement.attribute(nameAttribute()); }

XmlList::ValueTypeE XmlListIterator::type() const { return itemType(moElement); }

bool XmlListIterator::remove()
{
    if (moElement.isNull())
        return false;
    QDomElement following = moElement.nextSiblingElement(itemTag());
    moElement.parentNode().removeChild(moElement);
    moElement = following;
    return true;
}

XmlListIterator XmlListIterator::listIterator() const
{
    if (!isList(moElement)) {
        BTRACE(TraceAlways) << "This is a" << moElement.attribute(argTypeAttribute()) << "not a List";
        return XmlListIterator();
    }
    return XmlListIterator(moElement.firstChildElement(itemTag()));
}

XmlListIterator XmlListIterator::listIterator(const QString& name) const
{
    if (name.isEmpty()) {
        BTRACE(TraceAlways) << name << "is invalid";
        return XmlListIterator();
    }
    if (!isList(moElement)) {
        BTRACE(TraceAlways) << "This is a" << moElement.attribute(argTypeAttribute()) << "not a List";
        return XmlListIterator();
    }
    return XmlListIterator(findItem(moElement, name));
}

QDomElement XmlListIterator::childItem(const QString& name) const
{
    const QDomElement child = name.isEmpty() || !isList(moElement) ? QDomElement() : findItem(moElement, name);
    if (child.isNull())
        BTRACE(TraceVerbose) << "Failed to find" << name;
    return child;
}

namespace {

// The text of `item` when it holds a value of the type; empty otherwise. The
// same checks (and lines) as a get through XmlList.
QString textAt(const QDomElement& item, XmlList::ValueTypeE type)
{
    QString text;
    if (item.isNull() || !readValue(item, type, text))
        return QString();
    return text;
}

QByteArray dataAt(const QDomElement& item)
{
    return QByteArray::fromBase64(textAt(item, XmlList::ValueData).toLatin1());
}

bool boolAt(const QDomElement& item)
{
    QString text;
    if (item.isNull() || !readValue(item, XmlList::ValueBool, text))
        return false;
    return XmlList::boolFromString(text);
}

XmlList listAt(const QDomElement& item)
{
    XmlList list;
    if (!item.isNull())
        list.get(list, XmlListIterator(item));
    return list;
}

} // namespace

QString XmlListIterator::getString() const { return textAt(moElement, XmlList::ValueString); }
unsigned int XmlListIterator::getUint32() const { return textAt(moElement, XmlList::ValueUint32).toUInt(); }
int XmlListIterator::getInt32() const { return textAt(moElement, XmlList::ValueInt32).toInt(); }
unsigned long long XmlListIterator::getUint64() const { return textAt(moElement, XmlList::ValueUint64).toULongLong(); }
long long XmlListIterator::getInt64() const { return textAt(moElement, XmlList::ValueInt64).toLongLong(); }
bool XmlListIterator::getBool() const { return boolAt(moElement); }
XmlList XmlListIterator::getXmlList() const { return listAt(moElement); }
QByteArray XmlListIterator::getQByteArray() const { return dataAt(moElement); }

QString XmlListIterator::getString(const QString& name) const { return textAt(childItem(name), XmlList::ValueString); }

unsigned int XmlListIterator::getUint32(const QString& name) const
{
    return textAt(childItem(name), XmlList::ValueUint32).toUInt();
}

int XmlListIterator::getInt32(const QString& name) const
{
    return textAt(childItem(name), XmlList::ValueInt32).toInt();
}

unsigned long long XmlListIterator::getUint64(const QString& name) const
{
    return textAt(childItem(name), XmlList::ValueUint64).toULongLong();
}

long long XmlListIterator::getInt64(const QString& name) const
{
    return textAt(childItem(name), XmlList::ValueInt64).toLongLong();
}

bool XmlListIterator::getBool(const QString& name) const { return boolAt(childItem(name)); }
XmlList XmlListIterator::getXmlList(const QString& name) const { return listAt(childItem(name)); }
QByteArray XmlListIterator::getQByteArray(const QString& name) const { return dataAt(childItem(name)); }

} // namespace Brevi
