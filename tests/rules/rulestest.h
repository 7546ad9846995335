#ifndef TESTS_RULES_RULESTEST_H
#define TESTS_RULES_RULESTEST_H

#include "core/config.h"
#include "core/xmllist.h"

#include <QString>

#include <vector>

namespace BreviTest {

// One "Entry" of a details list or a rule file.
struct Rule {
    Rule(const QString& path, const QString& operation = "Exclude", bool recurse = false, bool pattern = false,
         bool directory = false, const QString& os = QString())
        : path(path)
        , operation(operation)
        , recurse(recurse)
        , pattern(pattern)
        , directory(directory)
        , os(os)
    {}

    QString path;
    QString operation;
    bool recurse;
    bool pattern;
    bool directory;
    QString os; // rule files only
};

inline Brevi::XmlList entryOf(const Rule& rule, bool withOs)
{
    Brevi::XmlList entry;
    entry.set("Path", rule.path);
    entry.set("Recurse", rule.recurse);
    entry.set("Pattern", rule.pattern);
    entry.set("Directory", rule.directory);
    if (withOs)
        entry.set("OS", rule.os);
    entry.set("Operation", rule.operation);
    return entry;
}

// A details list of `osType` holding `rules`.
inline Brevi::XmlList detailsOf(const QString& osType, const std::vector<Rule>& rules)
{
    Brevi::XmlList entries;
    for (const Rule& rule : rules)
        entries.set("Entry", entryOf(rule, false), Brevi::XmlList::SetCreate);
    Brevi::XmlList details;
    details.set("OSType", osType);
    details.set("NotToBackup", entries);
    return details;
}

// Writes a rule file in the form of "nottobackup.cfg".
inline void writeRuleFile(const QString& path, const std::vector<Rule>& rules, bool ignoreRegistry = false)
{
    Brevi::Config file;
    if (ignoreRegistry)
        file.set("IgnoreRegistry", true);
    for (const Rule& rule : rules)
        file.set("Entry", entryOf(rule, true), Brevi::XmlList::SetCreate);
    file.dumpToFile(path);
}

} // namespace BreviTest

#endif
