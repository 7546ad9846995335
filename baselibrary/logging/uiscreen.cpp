#include "logging/uiscreen.h"

#include "core/trace.h"
#include "messaging/msgcatalogue.h"

#include <QFile>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleLog;
const QString RootName = QStringLiteral("root");
} // namespace

UiScreen::UiScreen(const QString& fileName, const QDomElement& attributes)
{
    QDomElement root = moDocument.createElement(RootName);
    moDocument.appendChild(root);

    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly)) {
        BTRACE(TraceAlways) << "UiScreen: cannot open" << fileName << file.errorString();
        return;
    }
    QDomDocument definition;
    QString error;
    int line = 0;
    int column = 0;
    if (!definition.setContent(&file, &error, &line, &column)) {
        BTRACE(TraceAlways) << "UiScreen: cannot read xml from" << fileName << "line" << line << "column" << column
                            << error;
        return;
    }
    BTRACE(TraceNormal) << "UiScreen: set xml contents from" << fileName;
    root.appendChild(moDocument.createElement(Catalogue::LogDaemonUiScreenDefinition::Message))
        .appendChild(moDocument.importNode(definition.documentElement(), true));
    root.appendChild(moDocument.createElement(Catalogue::LogDaemonUiScreenAttributes::Message));
    setAttributeValues(attributes);
}

QDomElement UiScreen::definition() const
{
    return moDocument.documentElement().firstChildElement(Catalogue::LogDaemonUiScreenDefinition::Message);
}

QDomElement UiScreen::attributes() const
{
    return moDocument.documentElement().firstChildElement(Catalogue::LogDaemonUiScreenAttributes::Message);
}

void UiScreen::setAttributeValues(const QDomElement& values)
{
    QDomElement element = attributes();
    if (element.isNull())
        return;
    while (!element.firstChild().isNull())
        element.removeChild(element.firstChild());
    if (!values.isNull())
        element.appendChild(moDocument.importNode(values, true));
}

bool UiScreen::isNull() const { return moDocument.isNull() || definition().isNull(); }

} // namespace Brevi
