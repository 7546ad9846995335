#ifndef BASELIBRARY_RULES_OPTYPE_H
#define BASELIBRARY_RULES_OPTYPE_H

#include "brevi_export.h"

#include <QString>

namespace Brevi {

class Trace;

// What a backup does with a directory or a file. The numeric order is the
// order of precedence: when several rules apply, the greatest value wins, so
// no rule can lower what another one gave.
enum OpType {
    eIgnore = -1, // no rule applies (an Expression that does not match)
    eNothing = 0, // take it as usual; also the result when no rule applies
    eExclude = 1, // leave it out
    eLiveOnly = 2 // take it only from the live file system, not a snapshot
};

// The text of "Operation" in a rule: "Exclude" 1, "LiveOnly" 2, anything
// else (including "Nothing") 0. Exact, case and all.
BREVI_EXPORT OpType opTypeFromText(const QString& text);
// "Nothing" for eIgnore and eNothing, "Exclude", "LiveOnly".
BREVI_EXPORT QString opTypeText(OpType op);
// "eIgnore", "eNothing", "eExclude", "eLiveOnly"; a value out of range
// writes its number.
BREVI_EXPORT Trace& operator<<(Trace& trace, OpType op);

} // namespace Brevi

#endif
