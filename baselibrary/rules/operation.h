#ifndef BASELIBRARY_RULES_OPERATION_H
#define BASELIBRARY_RULES_OPERATION_H

#include "brevi_export.h"
#include "rules/expression.h"

#include <QList>
#include <QRegularExpression>
#include <QString>
#include <QStringList>

#include <boost/shared_ptr.hpp>

namespace Brevi {

// The rules of one directory path of a NotToBackup table: an optional
// directory rule and a list of file rules (Expressions).
//
// The path is held as its components joined by the delimiter with a final
// delimiter ("Windows\System32\", "var/cache/"), relative to the volume; the
// empty path stands for the top of the volume. A pattern Operation's
// components may hold "*": a component that is "*" (or only stars) stands for
// one or more characters of any kind, the delimiter included, and a "*" inside
// a component for at most one character:
//
//   "home/*/.cache/"  matches "home/ann/.cache/" and "home/a/b/.cache/"
//   "Temp*/"          matches "Temp/" and "Temp1/", not "Temporary/"
//
// Every other character, brackets and dots included, stands for itself.
//
// Lookup: matches() tells whether a directory text (relative to the volume,
// ending in the delimiter) is the path or lies below it; a pattern matches the
// shortest start of the text it can. A rule that is not recursive reaches only
// the path itself; a directory rule reaches the files in the directory too.
//
// Built by NotToBackup and read-only afterwards: any number of threads may
// look up through one Operation at once. Copies share the rules.
class BREVI_EXPORT Operation
{
public:
    typedef boost::shared_ptr<Expression> ExpressionPtr;

    // The top of the volume, plain.
    Operation();
    // `components` without delimiters; with `pattern` they may hold "*". No
    // components (the top of the volume) is never a pattern.
    Operation(const QStringList& components, QChar delimiter, Qt::CaseSensitivity sensitivity, bool pattern);

    const QString& path() const { return msPath; }
    bool isPattern() const { return mbPattern; }
    // The regular expression of a pattern Operation; empty for a plain one.
    QString pattern() const { return moRegExp.pattern(); }
    QChar delimiter() const { return moDelimiter; }
    Qt::CaseSensitivity caseSensitivity() const { return meCase; }

    // Sets the directory rule, or merges into it: recursive ORed, the greater
    // OpType.
    void addDirectoryRule(OpType op, bool recursive);
    // Adds a file rule for `fileName`, merged into a rule of the same pattern
    // if there is one ("Add Expresion").
    void addFileRule(OpType op, bool recursive, const QString& fileName);
    const ExpressionPtr& directoryRule() const { return mptDirectory; }
    const QList<ExpressionPtr>& fileRules() const { return moFileRules; }

    // Whether `directory` (relative, ending in the delimiter, or empty for
    // the top) is this path or lies below it; `below` tells which.
    bool matches(const QString& directory, bool& below) const;

    // `result` raised by the directory rule, if it applies to `directory`.
    OpType directoryOpType(const QString& directory, OpType result) const;
    // `result` raised by the directory rule and the file rules that apply to
    // the file `name` in `directory`, stopping at eLiveOnly.
    OpType fileOpType(const QString& directory, const QString& name, OpType result) const;

    // "Start Operation" with the path, "Pattern", the directory rule between
    // "Start Directory Expression" and "End Directory Expression List", the
    // file rules between "Start File Expression List" and "End File
    // Expression List", then "End Operation"; at TraceNormal.
    void display() const;

private:
    QString msPath;
    // The plain start every match of a pattern shares, tested before the
    // regular expression runs.
    QString msFixedStart;
    // The longest run of plain components after a star, with its delimiters,
    // which every match holds further on.
    QString msInnerRun;
    QRegularExpression moRegExp;
    QList<ExpressionPtr> moFileRules;
    ExpressionPtr mptDirectory;
    QChar moDelimiter;
    Qt::CaseSensitivity meCase;
    bool mbPattern;
};

} // namespace Brevi

#endif
