#ifndef BASELIBRARY_CORE_CONFIG_H
#define BASELIBRARY_CORE_CONFIG_H

#include "brevi_export.h"
#include "core/xmllist.h"

#include <QString>

namespace Brevi {

// An XmlList bound to a ".cfg" file, with a version number that protects the
// file against two writers.
//
// The file is the list's XML text with nested levels indented by 4, and one
// addition: the root's first child is
//     <version number="7" time="240131-09:15:02.123"/>
// where number counts the saves of the file and time is when the element was
// first written (local time); later saves change only the number. Item
// look-ups and iteration pass over it; isEmpty() does not.
//
// save() is an optimistic lock: it writes only if the file still holds the
// version that load() found, and then writes that version plus one. If the
// file has changed, save() fails and leaves both the file and this object as
// they are: reload, apply the change again, save again. The check is not
// atomic between processes; it catches a file edited between load and save.
// There is no temporary file: a crash while writing leaves a truncated file,
// which the next load refuses.
//
// A missing file is an empty configuration, not an error, but one that has
// no file name and so cannot be saved (ConfigLocal creates the file first).
// Configuration on another machine is not supported: a machine name gives an
// empty, valid list that cannot be saved.
//
// Failures are false and a line at TraceAlways in module CONFIG; nothing
// throws. Copies share the document as XmlList copies do, but each copy keeps
// its own version number. No lock: one thread per object.
class BREVI_EXPORT Config : public XmlList
{
public:
    // Empty, valid, no file.
    Config();
    // As Config(), then load(fileName, machine).
    explicit Config(const QString& fileName, const QString& machine = QString());

    // Replaces the list with the file's content. True for a loaded file, and
    // also for a missing file or a remote machine (empty list, see above).
    // False when the file does not parse: the list is then invalid and empty,
    // and has no file name.
    bool load(const QString& fileName, const QString& machine = QString());
    // Writes the list over the file under the version check; see above.
    bool save();
    // Writes the document to another file as it stands, indent 4, without
    // touching the version or the file name.
    bool dumpToFile(const QString& fileName) const;

    const XmlList& xmllist() const { return *this; }
    // The file loaded from; empty if none.
    const QString& fileName() const { return msFileName; }
    const QString& machineName() const { return msMachineName; }
    // The version held: as loaded, then as last saved; 0 for a file without.
    int version() const { return miVersion; }

private:
    QString msFileName;
    QString msMachineName;
    int miVersion = 0;
};

} // namespace Brevi

#endif
