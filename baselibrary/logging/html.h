#ifndef BASELIBRARY_LOGGING_HTML_H
#define BASELIBRARY_LOGGING_HTML_H

#include "brevi_export.h"

#include <QByteArray>
#include <QString>

namespace Brevi {

// A text that is HTML, so that a log message can carry it as a parameter of
// its own kind (the letter h of a format string) and the log's reader shows it
// as markup rather than as plain words. Nothing here checks the markup.
//
// A plain value type: copy freely; each copy belongs to whoever holds it.
// Failure: a file that will not open leaves the text empty, and an empty Html
// is what a Log refuses to carry.
class BREVI_EXPORT Html
{
public:
    Html() = default;
    explicit Html(const QString& contents)
        : msContents(contents)
    {}
    // The whole of the file `directory` + "/" + `fileName`, read as UTF-8;
    // empty when the file will not open.
    Html(const QString& directory, const QString& fileName);

    bool isEmpty() const { return msContents.isEmpty(); }
    const QString& contents() const { return msContents; }
    void setContents(const QString& contents) { msContents = contents; }

    // The same, under the names the system's value types share.
    QString toString() const { return msContents; }
    void fromString(const QString& text) { msContents = text; }
    // The text as UTF-8 bytes.
    QByteArray toBinary() const { return msContents.toUtf8(); }
    void fromBinary(const QByteArray& bytes) { msContents = QString::fromUtf8(bytes); }

    bool operator==(const Html& other) const { return msContents == other.msContents; }
    bool operator!=(const Html& other) const { return msContents != other.msContents; }

private:
    QString msContents;
};

} // namespace Brevi

#endif
