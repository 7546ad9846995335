#include "logging/html.h"

#include "logging/textfile_p.h"

namespace Brevi {

Html::Html(const QString& directory, const QString& fileName)
    : msContents(TextFile::read(directory, fileName))
{}

} // namespace Brevi
