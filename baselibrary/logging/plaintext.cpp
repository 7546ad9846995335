#include "logging/plaintext.h"

#include "logging/textfile_p.h"

namespace Brevi {

PlainText::PlainText(const QString& directory, const QString& fileName)
    : msContents(TextFile::read(directory, fileName))
{}

void PlainText::appendLine(const QString& text)
{
    msContents += text;
    msContents += '\n';
}

void PlainText::append(const QStringList& texts)
{
    for (const QString& text : texts)
        append(text);
}

void PlainText::appendLine(const QStringList& texts)
{
    for (const QString& text : texts)
        appendLine(text);
}

} // namespace Brevi
