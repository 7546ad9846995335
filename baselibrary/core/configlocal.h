#ifndef BASELIBRARY_CORE_CONFIGLOCAL_H
#define BASELIBRARY_CORE_CONFIGLOCAL_H

#include "brevi_export.h"
#include "core/config.h"

namespace Brevi {

// A Config in this machine's configuration directory (FixedPath::config()),
// made on first use:
//
//   ConfigLocal settings("nottobackup.cfg");
//   settings.set("IgnoreRegistry", true, XmlList::SetModify);
//   settings.save();
//
// The directory is created if missing (a plain file in its place is removed
// first), and a missing file is created holding only the empty list, so the
// object always has a file name and its first save writes version 1. Without
// a home directory (no context has come up) the object is an empty Config
// with no file. Failures are traced as Config traces them.
class BREVI_EXPORT ConfigLocal : public Config
{
public:
    ConfigLocal() = default;
    // `fileName` is a name inside the configuration directory.
    explicit ConfigLocal(const QString& fileName);
};

} // namespace Brevi

#endif
