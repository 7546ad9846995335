#include "rules/expression.h"

#include "core/trace.h"

#include <QRegExp>

#include <algorithm>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleBackup;
} // namespace

Expression::Expression(OpType op, bool recursive)
    : meOpType(op)
    , mbRecursive(recursive)
{}

Expression::Expression(OpType op, bool recursive, const QString& fileName, Qt::CaseSensitivity sensitivity)
    : meOpType(op)
    , mbRecursive(recursive)
    , meCase(sensitivity)
{
    meKind = translate(fileName, sensitivity, msLiteral, msPattern);
}

Expression::Kind Expression::translate(const QString& fileName, Qt::CaseSensitivity sensitivity, QString& literal,
                                       QString& pattern)
{
    QString name = sensitivity == Qt::CaseInsensitive ? fileName.toLower() : fileName;
    if (name == QLatin1String("*.*"))
        name = QStringLiteral("*");
    bool anchorStart = true;
    bool anchorEnd = true;
    if (name.startsWith('*')) {
        anchorStart = name.size() == 1;
        name.remove(0, 1);
    }
    if (name.endsWith('*')) {
        anchorEnd = false;
        name.chop(1);
    }
    literal = name;
    if (name.isEmpty()) {
        pattern = QStringLiteral(".+");
        return eAnyName;
    }
    pattern = (anchorStart ? QStringLiteral("^") : QString()) + QRegExp::escape(name) +
              (anchorEnd ? QStringLiteral("$") : QString());
    if (anchorStart)
        return anchorEnd ? eExact : ePrefix;
    return anchorEnd ? eSuffix : eContains;
}

QString Expression::fileNamePattern(const QString& fileName, Qt::CaseSensitivity sensitivity)
{
    QString literal;
    QString pattern;
    translate(fileName, sensitivity, literal, pattern);
    return pattern;
}

void Expression::merge(OpType op, bool recursive)
{
    mbRecursive = mbRecursive || recursive;
    meOpType = std::max(meOpType, op);
}

bool Expression::matches(const QString& name) const
{
    bool match = false;
    switch (meKind) {
    case eAll:
        match = true;
        break;
    case eAnyName:
        match = !name.isEmpty();
        break;
    case eExact:
        match = name.compare(msLiteral, meCase) == 0;
        break;
    case ePrefix:
        match = name.startsWith(msLiteral, meCase);
        break;
    case eSuffix:
        match = name.endsWith(msLiteral, meCase);
        break;
    case eContains:
        match = name.contains(msLiteral, meCase);
        break;
    }
    return match != mbInverted;
}

void Expression::display() const
{
    BTRACE(TraceNormal) << "Expression" << meOpType << "Recursive" << mbRecursive << "Inverted" << mbInverted
                        << msPattern;
}

} // namespace Brevi
