#ifndef BASELIBRARY_LOGGING_UISCREEN_H
#define BASELIBRARY_LOGGING_UISCREEN_H

#include "brevi_export.h"

#include <QDomDocument>
#include <QDomElement>
#include <QString>

namespace Brevi {

// A screen for the log daemon's viewer: a definition read from an XML file,
// and the values that fill it in (its attributes), in one document:
//
//     <root>
//       <LogDaemonUiScreenDefinition> the file's document element </LogDaemonUiScreenDefinition>
//       <LogDaemonUiScreenAttributes> the attributes element given </LogDaemonUiScreenAttributes>
//     </root>
//
// The same definition file serves many messages; each screen sent carries
// its own attributes, which setAttributeValues replaces.
//
// Failure: a file that will not open, or is not XML, is traced in module LOG
// (with the line and column where the parse stopped), and the screen keeps a
// bare root: isNull() is then true. Nothing here interprets the definition.
//
// Threads: one owner. Copies share the document, as QDomDocument's do.
class BREVI_EXPORT UiScreen
{
public:
    // Reads the definition from `fileName` and puts `attributes` (deep
    // copies; a null element puts nothing) under the attributes element.
    UiScreen(const QString& fileName, const QDomElement& attributes = QDomElement());

    // Replaces what the attributes element holds with a copy of `attributes`.
    // Does nothing on a screen without a definition.
    void setAttributeValues(const QDomElement& attributes);
    // The LogDaemonUiScreenAttributes element; null without a definition.
    QDomElement attributes() const;
    // The LogDaemonUiScreenDefinition element; null without a definition.
    QDomElement definition() const;

    // True when no definition could be read.
    bool isNull() const;

    // The whole document, and its text, as the viewer takes it.
    const QDomDocument& document() const { return moDocument; }
    QString toString() const { return moDocument.toString(-1); }

private:
    QDomDocument moDocument;
};

} // namespace Brevi

#endif
