#ifndef BASELIBRARY_LOGGING_TEXTFILE_P_H
#define BASELIBRARY_LOGGING_TEXTFILE_P_H

#include <QString>

namespace Brevi {
namespace TextFile {

// The whole of `directory` + "/" + `fileName` as UTF-8 text; empty, with a
// trace line in module LOG, when it will not open.
QString read(const QString& directory, const QString& fileName);

} // namespace TextFile
} // namespace Brevi

#endif
