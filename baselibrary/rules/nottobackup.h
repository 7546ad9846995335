#ifndef BASELIBRARY_RULES_NOTTOBACKUP_H
#define BASELIBRARY_RULES_NOTTOBACKUP_H

#include "brevi_export.h"
#include "core/xmllist.h"
#include "rules/operation.h"
#include "rules/optype.h"

#include <QChar>
#include <QHash>
#include <QList>
#include <QString>
#include <QStringList>
#include <QVector>

namespace Brevi {

class Expressions;

// What a backup walker does with a directory or a file: take it (eNothing),
// leave it out (eExclude), or take it from the live file system rather than
// from a snapshot (eLiveOnly).
//
// The rules are gathered on the machine that is backed up, by the static
// details(), into an XmlList that can travel; a NotToBackup built from such a
// list classifies that machine's paths anywhere, a Windows machine's paths
// here included.
//
// The details list:
//   "OSType"               text  "Windows", "Linux" or "Posix"
//   "NotToBackup"          list  repeated "Entry"
//   "WriterNotToSnapshot"  list  lists of the same form, supplied by others;
//                                each is a file rule to exclude
// and each "Entry":
//   "Path"       text  the path, its variables expanded
//   "Recurse"    bool  the rule also applies below the path
//   "Pattern"    bool  path components may hold "*" (see Operation)
//   "Directory"  bool  the rule is about the directory itself (and so the
//                      files in it), not about files of the last component's
//                      name
//   "Operation"  text  "Nothing", "Exclude" or "LiveOnly"
//
// The rule file "nottobackup.cfg" (a configuration file, see Config) holds
// "IgnoreRegistry" (bool, default false) and repeated "Entry" lists with
// "Path", "Recurse", "Pattern", "Directory", "OS" (text) and "Operation"
// (default "Exclude"). An entry is taken when it says "Exclude" or "LiveOnly"
// with an empty "OS", or when its "OS" names this system ("Linux" here, "XP"
// or "Vista" on Windows). A path starting with "%UserProfile%" stands for
// each home directory ("/root" and "/home/*" here), one starting with "%TEMP%"
// for each temporary directory ("/tmp" and "/var/tmp"); other "%NAME%"
// variables are taken from the environment.
//
// Where the rules come from on this machine: the rule files, since there is
// no registry. The system's own list, which on Windows the registry keeps, is
// the rule file installed with the library (FixedPath::data()), read unless
// the local file says "IgnoreRegistry"; then the local rule file in the
// configuration directory (FixedPath::config()).
//
// Tables by "OSType":
//   "Windows"  delimiter "\", case-insensitive; a path starting with "\" or
//              "?:\" applies on every volume, one starting with "c:\" on that
//              volume only.
//   "Linux"    delimiter "/", case-sensitive, every rule on every volume.
//   any other  no rules: every lookup gives eNothing.
// A rule path without the delimiter, or neither absolute nor on a volume, is
// skipped with a trace.
//
// Which rule wins: every rule that applies is looked at and the greatest
// OpType wins, eLiveOnly over eExclude over eNothing. A more specific path or
// a later rule cannot lower a result, and a rule of "Nothing" changes
// nothing. With no rule the result is eNothing.
//
// Paths looked up are taken lexically: empty components, "." and ".." are
// resolved first (never above the volume), and on Windows a leading "\\?\"
// goes. A path without the delimiter is eNothing ("No delimiter").
//
// Nothing fails loudly: a rule file that is missing or not XML, an entry
// without a path, a path that cannot be placed, is traced at TraceAlways
// (module BACKUP) and skipped; a rule that cannot be read never excludes
// anything.
//
// Built by details(list), read-only afterwards: lookups take no lock, and any
// number of threads may look up through one object at once. Copies share the
// tables. details(list) itself belongs to one thread.
class BREVI_EXPORT NotToBackup
{
public:
    // No rules; delimiter "/", case-sensitive.
    NotToBackup();
    // As details(list).
    explicit NotToBackup(const XmlList& details);
    NotToBackup(const NotToBackup&) = default;
    NotToBackup& operator=(const NotToBackup&) = default;
    ~NotToBackup();

    // The rules of this machine, gathered as described above.
    static XmlList details();
    // The same, with the rule file at `ruleFile` in place of the local
    // "nottobackup.cfg". A file that is missing or not XML is traced ("Failed
    // to open") and gives no rules of its own.
    static XmlList detailsFromFile(const QString& ruleFile);
    // A "Windows" details list from the string values of `other`, each a path
    // as a Windows registry list holds it: a trailing " /s" (any case) makes
    // the rule recursive, a trailing "\*" makes it a directory rule as well,
    // and a leading "\\?\" goes. "%UserProfile%" and "%TEMP%" expand only when
    // this machine is Windows; elsewhere such values are dropped.
    static XmlList otherDetails(const XmlList& other);

    // Builds the tables from a details list, replacing what was there.
    void details(const XmlList& list);
    // The list the tables were built from (a copy of its own).
    const XmlList& currentDetails() const { return moDetails; }
    QChar delimiter() const { return moDelimiter; }
    bool isCaseSensitive() const { return mbCaseSensitive; }

    // A directory given as a whole path: "/var/cache/apt", "C:\Windows".
    OpType directoryOpType(const QString& path) const;
    // A directory given as its volume ("c:\", "C:", "/" or empty here) and
    // its path below the volume, with or without delimiters at the ends.
    OpType directoryOpType(const QString& volume, const QString& directory) const;
    // A directory given as the volume and then each component:
    // {"C:", "Windows", "Temp"}, {"/", "var", "cache"}.
    OpType directoryOpType(const QStringList& path) const;

    // A file given as a whole path: "/var/cache/apt/pkgcache.bin". A path
    // ending in the delimiter names its last component.
    OpType fileOpType(const QString& path) const;
    // A file given as its directory's whole path and its name.
    OpType fileOpType(const QString& directory, const QString& name) const;
    // A file given as its volume, its directory below the volume, and its
    // name (the fastest form for a walker that keeps the parts apart).
    OpType fileOpType(const QString& volume, const QString& directory, const QString& name) const;

    // Replaces `out` with the rules that reach the files of the directory
    // `path` (volume first, as for directoryOpType), so that out.opType(name)
    // gives what fileOpType gives for each name there. True when there is any
    // such rule: without one, every file of the directory is taken as far as
    // the rules go.
    bool expressions(Expressions& out, const QStringList& path) const;

    // The tables: "Start All Volumes", each Operation, "End All Volumes", and
    // for each volume "Start Volume", its Operations, "End Volume"; at
    // TraceNormal.
    void display() const;

private:
    // The Operations of all volumes or of one, sorted by path, and where
    // the pattern Operations stand among them: a lookup finds the plain ones
    // by the paths above the directory, and tries each pattern.
    struct Table {
        QList<Operation> operations;
        QVector<int> patterns;
    };

    void addOperation(OpType op, Table& table, QStringList components, bool recursive, bool pattern, bool directory);
    void addEntry(const XmlListIterator& entry, bool writer);
    bool splitPath(const QString& path, QString& volume, QString& directory) const;
    QString cleanDirectory(const QString& directory) const;
    QString volumeKey(const QString& volume) const;
    template <typename Apply>
    OpType walk(const Table& table, const QString& directory, OpType result, const Apply& apply) const;
    void gather(Expressions& out, const Table& table, const QString& directory) const;

    Table moAll;
    QHash<QString, Table> moVolumes;
    QChar moDelimiter;
    bool mbCaseSensitive;
    bool mbWindows;
    XmlList moDetails;
};

} // namespace Brevi

#endif
