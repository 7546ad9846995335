#include "rules/nottobackup.h"

#include "core/config.h"
#include "core/configlocal.h"
#include "core/fixedpath.h"
#include "core/systeminfo.h"
#include "core/trace.h"
#include "rules/expressions.h"

#include <algorithm>

namespace Brevi {

namespace {

const unsigned TraceModule = TraceModuleBackup;

const char RuleFileName[] = "nottobackup.cfg";

// ExpandEnvironmentStrings' buffer: 65536 bytes of UTF-16, its terminator
// included. A longer result counts as a failed expansion.
const int ExpansionLimit = 65536 / 2 - 1;

// The registry lists a Windows machine keeps; there is no registry here, so
// they can only be named in the trace.
const char* const RegistryKeys[] = {
    "HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Control\\BackupRestore\\FilesNotToBackup",
    "HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Control\\BackupRestore\\FilesNotToSnapshot"};

QString key(const char* text) { return QString::fromLatin1(text); }

// "%NAME%" replaced by the variable's value wherever the variable is set;
// anything else is left as it stands, the percent signs too.
bool expandEnvironment(const QString& text, QString& out)
{
    QString result;
    int i = 0;
    while (i < text.size()) {
        const int open = text.indexOf('%', i);
        if (open < 0) {
            result += text.midRef(i);
            break;
        }
        result += text.midRef(i, open - i);
        const int close = text.indexOf('%', open + 1);
        if (close < 0) {
            result += text.midRef(open);
            break;
        }
        const QString name = text.mid(open + 1, close - open - 1);
        if (!name.isEmpty() && qEnvironmentVariableIsSet(name.toLocal8Bit().constData())) {
            result += qEnvironmentVariable(name.toLocal8Bit().constData());
            i = close + 1;
        } else {
            // The closing sign may open the next variable.
            result += text.midRef(open, close - open);
            i = close;
        }
    }
    if (result.size() > ExpansionLimit)
        return false;
    out = result;
    return true;
}

// What "%UserProfile%" and "%TEMP%" stand for on this system, and the name
// that rule file entries give in "OS".
struct SystemLists {
    unsigned osType = 0;
    QString osName;
    QStringList profiles;
    QStringList temps;
};

SystemLists setupSystem()
{
    SystemLists lists;
    lists.osType = SystemInfo::osType();
    if (lists.osType == SystemInfo::eLinux) {
        lists.osName = QStringLiteral("Linux");
        lists.profiles = QStringList{"/root", "/home/*"};
        lists.temps = QStringList{"/tmp", "/var/tmp"};
        return lists;
    }
    if (lists.osType != SystemInfo::eWindows)
        return lists;

    QStringList profiles;
    QStringList temps;
    switch (SystemInfo::osVersion()) {
    case 128:
    case 240:
    case 256:
        lists.osName = QStringLiteral("Vista");
        profiles << "%WINDIR%\\System32\\config\\systemprofile"
                 << "%SystemDrive%\\Users\\*";
        temps << "%WINDIR%\\TEMP"
              << "%SystemDrive%\\Users\\*\\AppData\\Local\\Temp";
        break;
    case 0:
    case 1:
    case 2:
    case 3:
    case 4:
    case 15:
    case 16:
    case 32:
    case 48:
    case 64:
        lists.osName = QStringLiteral("XP");
        profiles << "%WINDIR%\\System32\\config\\systemprofile"
                 << "%SystemDrive%\\Documents and Settings\\*";
        temps << "%WINDIR%\\TEMP"
              << "%SystemDrive%\\Documents and Settings\\*\\Local Settings\\Temp";
        break;
    default:
        break;
    }
    QString expanded;
    for (const QString& profile : profiles)
        if (expandEnvironment(profile, expanded))
            lists.profiles << expanded;
    for (const QString& temp : temps)
        if (expandEnvironment(temp, expanded))
            lists.temps << expanded;
    return lists;
}

QString osTypeText(unsigned osType)
{
    switch (osType) {
    case SystemInfo::eWindows:
        return QStringLiteral("Windows");
    case SystemInfo::eLinux:
        return QStringLiteral("Linux");
    default:
        return QStringLiteral("Posix");
    }
}

// Builds the "NotToBackup" list of a details list from rule files and
// registry strings.
class RuleGatherer
{
public:
    explicit RuleGatherer(const SystemLists& system)
        : moSystem(system)
    {}

    const XmlList& entries() const { return moEntries; }

    void addRuleFile(const Config& file, const QString& name)
    {
        for (XmlListIterator entry = file.first(QStringLiteral("Entry")); !entry.isNull();
             entry.next(QStringLiteral("Entry"))) {
            if (entry.type() != XmlList::ValueList) {
                BTRACE(TraceAlways) << "Entry that is not a list skipped in" << name;
                continue;
            }
            const QString path = entry.getString(QStringLiteral("Path"));
            const QString os = entry.getString(QStringLiteral("OS"));
            const QString operation = entry.listIterator(QStringLiteral("Operation")).isNull()
                                          ? QStringLiteral("Exclude")
                                          : entry.getString(QStringLiteral("Operation"));
            const OpType op = opTypeFromText(operation);
            if (path.isEmpty()) {
                BTRACE(TraceAlways) << "Entry without Path skipped in" << name;
                continue;
            }
            if (os.isEmpty() ? op == eNothing : os != moSystem.osName) {
                if (os.isEmpty())
                    BTRACE(TraceAlways) << "Entry dropped, Operation" << operation << "is neither Exclude nor LiveOnly"
                                        << path;
                else
                    BTRACE(TraceVerbose) << "Entry for OS" << os << "skipped" << path;
                continue;
            }
            addValue(op, path, entry.getBool(QStringLiteral("Recurse")), entry.getBool(QStringLiteral("Directory")),
                     entry.getBool(QStringLiteral("Pattern")));
        }
    }

    // One path as a registry list holds it: " /s" at the end for recursive,
    // and "\*" at the end for a directory rule as well as a file rule.
    void addRegistryString(QString text)
    {
        bool recursive = false;
        if (text.endsWith(QLatin1String(" /s"), Qt::CaseInsensitive)) {
            recursive = true;
            text.chop(3);
        }
        if (text.endsWith(QLatin1String("\\*")))
            addValue(eExclude, text, recursive, true, false);
        addValue(eExclude, text, recursive, false, false);
    }

    void addValue(OpType op, const QString& path, bool recursive, bool directory, bool pattern)
    {
        if (path.isEmpty())
            return;
        const struct {
            QLatin1String variable;
            const QStringList& list;
        } lists[] = {{QLatin1String("%UserProfile%"), moSystem.profiles}, {QLatin1String("%TEMP%"), moSystem.temps}};
        for (const auto& variable : lists) {
            if (!path.startsWith(variable.variable, Qt::CaseInsensitive))
                continue;
            if (variable.list.isEmpty())
                BTRACE(TraceAlways) << "Rule dropped, no directories for" << variable.variable << "here" << path;
            const QString rest = path.mid(variable.variable.size());
            for (const QString& place : variable.list)
                addExpanded(op, place + rest, recursive, directory, pattern || place.contains('*'));
            return;
        }
        addExpanded(op, path, recursive, directory, pattern);
    }

private:
    void addExpanded(OpType op, QString path, bool recursive, bool directory, bool pattern)
    {
        QString expanded;
        if (path.contains('%') && expandEnvironment(path, expanded))
            path = expanded;
        if (path.isEmpty())
            return;
        XmlList entry;
        entry.set(QStringLiteral("Path"), path);
        entry.set(QStringLiteral("Recurse"), recursive);
        entry.set(QStringLiteral("Pattern"), pattern);
        entry.set(QStringLiteral("Directory"), directory);
        entry.set(QStringLiteral("Operation"), opTypeText(op));
        moEntries.set(QStringLiteral("Entry"), entry, XmlList::SetCreate);
    }

    const SystemLists& moSystem;
    XmlList moEntries;
};

XmlList gatherRules(const Config& ruleFile, const QString& name)
{
    const SystemLists system = setupSystem();
    XmlList result;
    result.set(QStringLiteral("OSType"), osTypeText(system.osType));
    RuleGatherer gatherer(system);

    const bool opened = ruleFile.isValid() && !ruleFile.fileName().isEmpty();
    bool ignoreRegistry = false;
    if (opened)
        ruleFile.get(ignoreRegistry, QStringLiteral("IgnoreRegistry"));
    else
        BTRACE(TraceAlways) << "Failed to open" << name;

    if (!ignoreRegistry) {
        if (system.osType == SystemInfo::eWindows) {
            for (const char* registryKey : RegistryKeys)
                BTRACE(TraceAlways) << "Failed to open" << key(registryKey);
        } else if (system.osType == SystemInfo::eLinux) {
            // The system's own list, which the registry keeps on Windows.
            const QString data = FixedPath::data();
            const QString installed = data + '/' + key(RuleFileName);
            const Config defaults(installed);
            if (data.isEmpty() || !defaults.isValid() || defaults.fileName().isEmpty())
                BTRACE(TraceAlways) << "Failed to open" << installed;
            else
                gatherer.addRuleFile(defaults, installed);
        }
    }
    if (opened)
        gatherer.addRuleFile(ruleFile, name);
    result.set(QStringLiteral("NotToBackup"), gatherer.entries());
    return result;
}

// Where `path` stands, or would stand, in a list sorted by path.
int find(const QList<Operation>& operations, const QStringRef& path, Qt::CaseSensitivity sensitivity)
{
    const auto place = std::lower_bound(operations.begin(), operations.end(), path,
                                        [sensitivity](const Operation& operation, const QStringRef& p) {
                                            return p.compare(operation.path(), sensitivity) > 0;
                                        });
    return int(place - operations.begin());
}

} // namespace

NotToBackup::NotToBackup()
    : moDelimiter('/')
    , mbCaseSensitive(true)
    , mbWindows(false)
{}

NotToBackup::NotToBackup(const XmlList& details)
    : NotToBackup()
{
    this->details(details);
}

NotToBackup::~NotToBackup() = default;

XmlList NotToBackup::details()
{
    const ConfigLocal local(key(RuleFileName));
    return gatherRules(local, local.fileName().isEmpty() ? key(RuleFileName) : local.fileName());
}

XmlList NotToBackup::detailsFromFile(const QString& ruleFile) { return gatherRules(Config(ruleFile), ruleFile); }

XmlList NotToBackup::otherDetails(const XmlList& other)
{
    SystemLists system = setupSystem();
    if (system.osType != SystemInfo::eWindows) {
        // Where another host keeps its profiles is that host's business.
        system.profiles.clear();
        system.temps.clear();
    }
    RuleGatherer gatherer(system);
    for (XmlListIterator item = other.first(); !item.isNull(); item.next()) {
        if (item.type() != XmlList::ValueString) {
            BTRACE(TraceAlways) << "Value" << item.name() << "is not a path, skipped";
            continue;
        }
        QString text = item.getString();
        if (text.startsWith(QLatin1String("\\\\?\\")))
            text.remove(0, 4);
        gatherer.addRegistryString(text);
    }
    XmlList result;
    result.set(QStringLiteral("OSType"), QStringLiteral("Windows"));
    result.set(QStringLiteral("NotToBackup"), gatherer.entries());
    return result;
}

void NotToBackup::details(const XmlList& list)
{
    moAll = Table();
    moVolumes.clear();
    moDelimiter = '/';
    mbCaseSensitive = true;
    mbWindows = false;
    moDetails = list.clone();

    QString osType;
    moDetails.get(osType, QStringLiteral("OSType"));
    if (osType == QLatin1String("Windows")) {
        moDelimiter = '\\';
        mbCaseSensitive = false;
        mbWindows = true;
    } else if (osType != QLatin1String("Linux")) {
        BTRACE(TraceNormal) << "No rules for OSType" << osType;
        return;
    }

    const XmlListIterator rules = moDetails.first(QStringLiteral("NotToBackup"));
    if (!rules.isNull())
        for (XmlListIterator entry = rules.listIterator(QStringLiteral("Entry")); !entry.isNull();
             entry.next(QStringLiteral("Entry")))
            addEntry(entry, false);
    const XmlListIterator writers = moDetails.first(QStringLiteral("WriterNotToSnapshot"));
    if (!writers.isNull())
        for (XmlListIterator entry = writers.listIterator(); !entry.isNull(); entry.next())
            if (entry.type() == XmlList::ValueList)
                addEntry(entry, true);

    const auto index = [](Table& table) {
        for (int i = 0; i < table.operations.size(); ++i)
            if (table.operations[i].isPattern())
                table.patterns << i;
    };
    index(moAll);
    for (Table& table : moVolumes)
        index(table);
}

void NotToBackup::addEntry(const XmlListIterator& entry, bool writer)
{
    const QString path = entry.getString(QStringLiteral("Path"));
    const bool recursive = entry.getBool(QStringLiteral("Recurse"));
    // A writer's entry is always a plain file rule to exclude.
    const bool pattern = !writer && entry.getBool(QStringLiteral("Pattern"));
    const bool directory = !writer && entry.getBool(QStringLiteral("Directory"));
    const OpType op = writer ? eExclude : opTypeFromText(entry.getString(QStringLiteral("Operation")));

    if (!path.contains(moDelimiter)) {
        BTRACE(TraceAlways) << "Rule path without delimiter skipped" << path;
        return;
    }
    QString volume;
    QString rest;
    if (path.startsWith(moDelimiter)) {
        rest = path.mid(1);
    } else if (mbWindows && path.startsWith(QLatin1String("?:\\"))) {
        rest = path.mid(3);
    } else if (mbWindows && path.size() >= 3 && path[1] == ':' && path[2] == moDelimiter) {
        volume = path.left(3).toLower();
        rest = path.mid(3);
    } else {
        BTRACE(TraceAlways) << "Rule path neither absolute nor on a volume skipped" << path;
        return;
    }
    const QStringList components = rest.split(moDelimiter, Qt::SkipEmptyParts);
    if (components.isEmpty())
        return;
    addOperation(op, volume.isEmpty() ? moAll : moVolumes[volume], components, recursive, pattern, directory);
}

void NotToBackup::addOperation(OpType op, Table& table, QStringList components, bool recursive, bool pattern,
                               bool directory)
{
    QString fileName;
    if (!directory)
        fileName = components.takeLast();
    const QString path = components.isEmpty() ? QString() : components.join(moDelimiter) + moDelimiter;
    if (components.isEmpty())
        pattern = false;

    const Qt::CaseSensitivity sensitivity = mbCaseSensitive ? Qt::CaseSensitive : Qt::CaseInsensitive;
    QList<Operation>& operations = table.operations;
    const int place = find(operations, QStringRef(&path), sensitivity);
    if (place == operations.size() || QString::compare(operations[place].path(), path, sensitivity) != 0) {
        BTRACE(TraceVerbose) << (pattern ? "Insert new profile" : "Insert new path") << path;
        operations.insert(place, Operation(components, moDelimiter, sensitivity, pattern));
    }
    if (directory)
        operations[place].addDirectoryRule(op, recursive);
    else
        operations[place].addFileRule(op, recursive, fileName);
}

QString NotToBackup::cleanDirectory(const QString& directory) const
{
    // The common case, a path with nothing to resolve, costs one look at
    // each character.
    const int size = directory.size();
    bool clean = true;
    for (int start = 0, i = 0; i <= size && clean; ++i) {
        if (i < size && directory[i] != moDelimiter)
            continue;
        const int length = i - start;
        if (length == 0)
            clean = i == size;
        else if (directory[start] == '.')
            clean = !(length == 1 || (length == 2 && directory[start + 1] == '.'));
        start = i + 1;
    }
    if (clean)
        return size == 0 || directory.endsWith(moDelimiter) ? directory : directory + moDelimiter;

    QStringList components;
    for (const QString& component : directory.split(moDelimiter, Qt::SkipEmptyParts)) {
        if (component == QLatin1String("."))
            continue;
        if (component == QLatin1String("..")) {
            if (!components.isEmpty())
                components.removeLast();
            continue;
        }
        components << component;
    }
    return components.isEmpty() ? QString() : components.join(moDelimiter) + moDelimiter;
}

bool NotToBackup::splitPath(const QString& path, QString& volume, QString& directory) const
{
    QString text = path;
    if (mbWindows && text.startsWith(QLatin1String("\\\\?\\")))
        text.remove(0, 4);
    const int first = text.indexOf(moDelimiter);
    if (first < 0) {
        BTRACE(TraceNormal) << "No delimiter" << path;
        return false;
    }
    volume = text.left(first + 1);
    directory = cleanDirectory(text.mid(first + 1));
    return true;
}

QString NotToBackup::volumeKey(const QString& volume) const
{
    QString key = volume.endsWith(moDelimiter) ? volume : volume + moDelimiter;
    return mbCaseSensitive ? key : key.toLower();
}

template <typename Apply>
OpType NotToBackup::walk(const Table& table, const QString& directory, OpType result, const Apply& apply) const
{
    // A plain Operation applies when its path is the directory or one above
    // it: look each of those up rather than trying every Operation.
    const Qt::CaseSensitivity sensitivity = mbCaseSensitive ? Qt::CaseSensitive : Qt::CaseInsensitive;
    const QList<Operation>& operations = table.operations;
    for (int end = 0; end >= 0 && end <= directory.size();) {
        const QStringRef above = directory.leftRef(end);
        const int found = find(operations, above, sensitivity);
        if (found < operations.size() && !operations[found].isPattern() &&
            above.compare(operations[found].path(), sensitivity) == 0) {
            result = apply(operations[found], result);
            if (result == eLiveOnly)
                return result;
        }
        const int next = directory.indexOf(moDelimiter, end);
        end = next < 0 ? -1 : next + 1;
    }
    for (int i : table.patterns) {
        result = apply(operations[i], result);
        if (result == eLiveOnly)
            break;
    }
    return result;
}

OpType NotToBackup::directoryOpType(const QString& path) const
{
    QString volume;
    QString directory;
    if (!splitPath(path, volume, directory))
        return eNothing;
    const auto rules = [&directory](const Operation& operation, OpType result) {
        return operation.directoryOpType(directory, result);
    };
    OpType result = walk(moAll, directory, eNothing, rules);
    if (result == eLiveOnly || moVolumes.isEmpty())
        return result;
    const QString key = volumeKey(volume);
    BTRACE(TraceDebug) << "Check volume" << key;
    const auto table = moVolumes.constFind(key);
    if (table == moVolumes.constEnd()) {
        BTRACE(TraceDebug) << "Volume" << key << "not found";
        return result;
    }
    return walk(*table, directory, result, rules);
}

OpType NotToBackup::directoryOpType(const QString& volume, const QString& directory) const
{
    return directoryOpType(volumeKey(volume) + directory);
}

OpType NotToBackup::directoryOpType(const QStringList& path) const
{
    return path.isEmpty() ? eNothing : directoryOpType(path[0], path.mid(1).join(moDelimiter));
}

OpType NotToBackup::fileOpType(const QString& path) const
{
    QString volume;
    QString rest;
    if (!splitPath(path, volume, rest) || rest.isEmpty())
        return eNothing;
    // The last component is the name, whether or not the path ended in the
    // delimiter.
    const int last = rest.lastIndexOf(moDelimiter, rest.size() - 2);
    return fileOpType(volume, rest.left(last + 1), rest.mid(last + 1, rest.size() - last - 2));
}

OpType NotToBackup::fileOpType(const QString& directory, const QString& name) const
{
    QString volume;
    QString rest;
    if (!splitPath(directory, volume, rest))
        return eNothing;
    return fileOpType(volume, rest, name);
}

OpType NotToBackup::fileOpType(const QString& volume, const QString& directory, const QString& name) const
{
    if (name.isEmpty())
        return eNothing;
    const QString clean = cleanDirectory(directory);
    const auto rules = [&clean, &name](const Operation& operation, OpType result) {
        return operation.fileOpType(clean, name, result);
    };
    OpType result = walk(moAll, clean, eNothing, rules);
    if (result == eLiveOnly || moVolumes.isEmpty())
        return result;
    const auto table = moVolumes.constFind(volumeKey(volume));
    return table == moVolumes.constEnd() ? result : walk(*table, clean, result, rules);
}

void NotToBackup::gather(Expressions& out, const Table& table, const QString& directory) const
{
    const Qt::CaseSensitivity sensitivity = mbCaseSensitive ? Qt::CaseSensitive : Qt::CaseInsensitive;
    for (const Operation& operation : table.operations) {
        bool below = false;
        if (!operation.matches(directory, below)) {
            if (!operation.isPattern() && operation.path().startsWith(directory, sensitivity))
                BTRACE(TraceDebug) << "Possible"
                                   << "Location" << directory << "Path" << operation.path();
            continue;
        }
        BTRACE(TraceDebug) << "Matched"
                           << "Location" << directory << "Path" << operation.path();
        const Operation::ExpressionPtr& rule = operation.directoryRule();
        if (rule && (rule->recursive() || !below))
            out.append(rule);
        for (const Operation::ExpressionPtr& fileRule : operation.fileRules())
            if (fileRule->recursive() || !below)
                out.append(fileRule);
    }
}

bool NotToBackup::expressions(Expressions& out, const QStringList& path) const
{
    out.clear();
    if (path.isEmpty())
        return false;
    const QString directory = cleanDirectory(path.mid(1).join(moDelimiter));
    gather(out, moAll, directory);
    const auto table = moVolumes.constFind(volumeKey(path[0]));
    if (table != moVolumes.constEnd())
        gather(out, *table, directory);
    return !out.isEmpty();
}

void NotToBackup::display() const
{
    BTRACE(TraceNormal) << "Start All Volumes" << moAll.operations.size();
    for (const Operation& operation : moAll.operations)
        operation.display();
    BTRACE(TraceNormal) << "End All Volumes";
    for (auto volume = moVolumes.constBegin(); volume != moVolumes.constEnd(); ++volume) {
        BTRACE(TraceNormal) << "Start Volume" << volume.key() << volume->operations.size();
        for (const Operation& operation : volume->operations)
            operation.display();
        BTRACE(TraceNormal) << "End Volume";
    }
}

} // namespace Brevi
