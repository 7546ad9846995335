// Targets of the runtime core: the list text, configuration files, unpacking.

#include "fuzztargets.h"

#include "core/config.h"
#include "core/unpackbuffer.h"
#include "core/xmllist.h"

#include <QDomDocument>
#include <QFile>
#include <QStringList>
#include <QTemporaryDir>

#include <algorithm>

using namespace Brevi;

namespace BreviFuzz {

namespace {

QByteArray bytesOf(const std::uint8_t* data, std::size_t size)
{
    return QByteArray(reinterpret_cast<const char*>(data), int(size));
}

// Every property of a node that a parse sets, attributes in name order, its
// children after it. The depth is bounded by the list's own limit.
void describe(const QDomNode& node, QString& text)
{
    if (node.isElement()) {
        const QDomElement element = node.toElement();
        text += "E(" + element.tagName() + '|' + element.namespaceURI() + '[';
        QStringList attributes;
        const QDomNamedNodeMap map = element.attributes();
        for (int i = 0; i < map.count(); ++i)
            attributes << map.item(i).nodeName() + '=' + map.item(i).nodeValue();
        attributes.sort();
        text += attributes.join(',') + ']';
    } else {
        text += QString("N%1(").arg(int(node.nodeType())) + node.nodeName() + '=' + node.nodeValue();
    }
    for (QDomNode child = node.firstChild(); !child.isNull(); child = child.nextSibling())
        describe(child, text);
    text += ')';
}

QString described(const QDomNode& node)
{
    QString text;
    describe(node, text);
    return text;
}

// What the list's readers see: names, kinds and values, nested lists inside.
void items(const XmlList& list, XmlListIterator it, QString& text)
{
    for (; !it.isNull(); it.next()) {
        text += it.name() + ':' + QString::number(int(it.type())) + '=';
        if (it.type() == XmlList::ValueList) {
            text += '{';
            items(list, it.listIterator(), text);
            text += '}';
        } else {
            const QDomElement valueElement = it.element().firstChildElement("value");
            text += valueElement.text();
        }
        text += ';';
    }
}

QString itemsOf(const XmlList& list)
{
    QString text;
    items(list, list.first(), text);
    return text;
}

} // namespace

int xmlList(const std::uint8_t* data, std::size_t size)
{
    const QByteArray text = bytesOf(data, size);
    XmlList list;
    if (!list.fromBinary(text) || text.isEmpty())
        return 0;

    // Accepted text is read as QDom reads it.
    QDomDocument reference;
    BREVI_FUZZ_EXPECT(reference.setContent(text, true));
    BREVI_FUZZ_EXPECT(described(list.getXmlDoc()) == described(reference));

    // And it comes back: the written text reads into the same document, and
    // is written the same again.
    const QByteArray written = list.toBinary();
    XmlList again;
    BREVI_FUZZ_EXPECT(again.fromBinary(written));
    BREVI_FUZZ_EXPECT(described(again.getXmlDoc()) == described(list.getXmlDoc()));
    BREVI_FUZZ_EXPECT(again.toBinary() == written);
    BREVI_FUZZ_EXPECT(itemsOf(again) == itemsOf(list));
    BREVI_FUZZ_EXPECT(itemsOf(list.clone()) == itemsOf(list));
    return 0;
}

int config(const std::uint8_t* data, std::size_t size)
{
    // One scratch file for the life of the process, removed when it ends.
    static const QTemporaryDir directory;
    const QString path = directory.filePath("fuzz.cfg");
    {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            return 0;
        file.write(reinterpret_cast<const char*>(data), qint64(size));
    }
    Config loaded(path, QString());
    if (!loaded.isValid() || loaded.getXmlDoc().documentElement().isNull())
        return 0;
    const QString before = itemsOf(loaded);
    const int version = loaded.version();
    if (!loaded.save())
        return 0;
    BREVI_FUZZ_EXPECT(loaded.version() == (version == 0x7FFFFFFF ? 1 : version + 1));
    const Config read(path, QString());
    BREVI_FUZZ_EXPECT(read.isValid());
    BREVI_FUZZ_EXPECT(read.version() == loaded.version());
    BREVI_FUZZ_EXPECT(itemsOf(read) == before);
    return 0;
}

int unpack(const std::uint8_t* data, std::size_t size)
{
    if (size < 1)
        return 0;
    // The first byte says how many of the following bytes are the script.
    const std::size_t steps = std::min<std::size_t>(data[0] % 32, size - 1);
    const std::uint8_t* script = data + 1;
    UnpackBuffer buffer;
    buffer.reset(QByteArray(reinterpret_cast<const char*>(script + steps), int(size - 1 - steps)));
    for (std::size_t i = 0; i < steps; ++i) {
        bool ok = true;
        switch (script[i] % 10) {
        case 0:
            buffer.takeBool(&ok);
            break;
        case 1:
            buffer.takeInt32(&ok);
            break;
        case 2:
            buffer.takeUint32(&ok);
            break;
        case 3:
            buffer.takeInt64(&ok);
            break;
        case 4:
            buffer.takeUint64(&ok);
            break;
        case 5:
            buffer.takeQByteArray(&ok);
            break;
        case 6: {
            const QString text = buffer.takeQString(&ok);
            BREVI_FUZZ_EXPECT(ok || text.isEmpty());
            break;
        }
        case 7: {
            Buffer value;
            ok = buffer.take(value);
            break;
        }
        case 8: {
            char small[7];
            ok = buffer.take(small, sizeof small);
            break;
        }
        default: {
            QByteArray bytes;
            ok = buffer.take(bytes);
        }
        }
        (void)ok;
    }
    return 0;
}

} // namespace BreviFuzz
