#ifndef BASELIBRARY_LOGGING_PLAINTEXT_H
#define BASELIBRARY_LOGGING_PLAINTEXT_H

#include "brevi_export.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace Brevi {

// A block of plain text, often several lines, that a log message carries as a
// parameter of its own kind (the letter p of a format string), so that the
// log's reader shows it as it stands, line breaks included, rather than as
// one word of a sentence. It is built up line by line or read from a file.
//
// A plain value type: copy freely; each copy belongs to whoever holds it.
// Failure: a file that will not open leaves the text empty, and an empty
// PlainText is what a Log refuses to carry.
class BREVI_EXPORT PlainText
{
public:
    PlainText() = default;
    explicit PlainText(const QString& contents)
        : msContents(contents)
    {}
    // The whole of the file `directory` + "/" + `fileName`, read as UTF-8;
    // empty when the file will not open.
    PlainText(const QString& directory, const QString& fileName);

    bool isEmpty() const { return msContents.isEmpty(); }
    const QString& contents() const { return msContents; }
    void setContents(const QString& contents) { msContents = contents; }
    void clear() { msContents.clear(); }

    // Adds the text as it is.
    void append(const QString& text) { msContents += text; }
    // Adds the text and a line end.
    void appendLine(const QString& text);
    // The same for each string, in order.
    void append(const QStringList& texts);
    void appendLine(const QStringList& texts);

    // The same, under the names the system's value types share.
    QString toString() const { return msContents; }
    void fromString(const QString& text) { msContents = text; }
    // The text as UTF-8 bytes.
    QByteArray toBinary() const { return msContents.toUtf8(); }
    void fromBinary(const QByteArray& bytes) { msContents = QString::fromUtf8(bytes); }

    bool operator==(const PlainText& other) const { return msContents == other.msContents; }
    bool operator!=(const PlainText& other) const { return msContents != other.msContents; }

private:
    QString msContents;
};

} // namespace Brevi

#endif
