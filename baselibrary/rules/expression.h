#ifndef BASELIBRARY_RULES_EXPRESSION_H
#define BASELIBRARY_RULES_EXPRESSION_H

#include "brevi_export.h"
#include "rules/optype.h"

#include <QString>

namespace Brevi {

// One rule of an Operation: what to do (an OpType), whether it reaches into
// the subdirectories below the Operation's path (recursive), and which names
// it is about.
//
// A directory rule is about the directory itself and, with it, every file in
// it: it has no name test. A file rule tests a file name against a pattern
// made from the rule's last path component, where "*" may stand first or last:
//
//   "name"   exactly this name           "^name$"
//   "name*"  names starting with it      "^name"
//   "*name"  names ending with it        "name$"
//   "*name*" names holding it            "name"
//   "*", "*.*", "**"  any name           ".+"
//
// A "*" anywhere else is an ordinary character. The pattern text is a regular
// expression, escaped so that only the anchors and ".+" are special; the name
// test is the search for it in the name, done here without running a regular
// expression engine since the pattern is always a literal. In a
// case-insensitive list the pattern is made from the name in lower case and
// the test ignores case.
//
// The inverted flag reverses the name test; rules read from lists never set
// it.
//
// A value type, read-only once built: any number of threads may test names
// against one Expression at once.
class BREVI_EXPORT Expression
{
public:
    // A directory rule.
    Expression(OpType op, bool recursive);
    // A file rule for `fileName`.
    Expression(OpType op, bool recursive, const QString& fileName, Qt::CaseSensitivity sensitivity);

    OpType opType() const { return meOpType; }
    bool recursive() const { return mbRecursive; }
    bool inverted() const { return mbInverted; }
    void setInverted(bool inverted) { mbInverted = inverted; }
    bool isDirectoryRule() const { return meKind == eAll; }
    // The regular expression text; empty for a directory rule.
    const QString& pattern() const { return msPattern; }

    // Takes another rule of the same pattern in: the recursive flags are
    // ORed and the greater OpType stays.
    void merge(OpType op, bool recursive);

    // Whether the name test passes (always, for a directory rule), reversed
    // when inverted.
    bool matches(const QString& name) const;
    // What this rule gives a file `name` in a directory that lies `below` the
    // rule's path (or is the path itself): its OpType when it applies (it
    // reaches there and the name passes), eIgnore when it does not.
    OpType opType(const QString& name, bool below) const
    {
        return (mbRecursive || !below) && matches(name) ? meOpType : eIgnore;
    }

    // "Expression", the OpType, the flags and the pattern, at TraceNormal.
    void display() const;

    // The pattern text a file name gives, as described above.
    static QString fileNamePattern(const QString& fileName, Qt::CaseSensitivity sensitivity);

private:
    enum Kind { eAll, eAnyName, eExact, ePrefix, eSuffix, eContains };

    static Kind translate(const QString& fileName, Qt::CaseSensitivity sensitivity, QString& literal, QString& pattern);

    OpType meOpType;
    bool mbRecursive;
    bool mbInverted = false;
    Kind meKind = eAll;
    Qt::CaseSensitivity meCase = Qt::CaseSensitive;
    QString msLiteral;
    QString msPattern;
};

} // namespace Brevi

#endif
