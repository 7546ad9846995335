#ifndef BASELIBRARY_RULES_EXPRESSIONS_H
#define BASELIBRARY_RULES_EXPRESSIONS_H

#include "brevi_export.h"
#include "rules/expression.h"

#include <QList>

#include <boost/shared_ptr.hpp>

namespace Brevi {

// The rules that reach the files of one directory, gathered once by
// NotToBackup::expressions(), so that a walker tests each name of the
// directory without going through the path rules again:
//
//   Expressions rules;
//   rules.clear();
//   notToBackup.expressions(rules, QStringList{"/", "home", "ann"});
//   for (const QString& name : namesInThatDirectory)
//       if (rules.opType(name) == eExclude)
//           continue;
//
// opType(name) gives what NotToBackup::fileOpType gives for that name in that
// directory. The rules are shared with the NotToBackup they came from and are
// only read here; the object belongs to one thread, or is only read.
class BREVI_EXPORT Expressions
{
public:
    typedef boost::shared_ptr<const Expression> ExpressionPtr;

    // The greatest OpType of the rules that apply to `name`; eNothing when
    // none does. Stops early at eLiveOnly.
    OpType opType(const QString& name) const;

    void append(const ExpressionPtr& expression) { moList.append(expression); }
    void clear() { moList.clear(); }
    bool isEmpty() const { return moList.isEmpty(); }
    int size() const { return moList.size(); }
    const QList<ExpressionPtr>& list() const { return moList; }

    // "Start Expressions", one "Expression" line each, "End Expressions", at
    // TraceNormal.
    void display() const;

private:
    QList<ExpressionPtr> moList;
};

} // namespace Brevi

#endif
