#include "rules/operation.h"

#include "core/trace.h"

#include <QRegExp>

#include <boost/make_shared.hpp>

#include <algorithm>

namespace Brevi {

namespace {

const unsigned TraceModule = TraceModuleBackup;

bool onlyStars(const QString& component)
{
    return std::all_of(component.begin(), component.end(), [](QChar c) { return c == '*'; });
}

// One component of a pattern path as a regular expression: a component of
// stars alone is one or more characters; a star inside it at most one.
QString componentExpression(const QString& component)
{
    if (onlyStars(component))
        return QStringLiteral(".+");
    QStringList pieces = component.split('*', Qt::SkipEmptyParts);
    for (QString& piece : pieces)
        piece = QRegExp::escape(piece);
    QString expression = component.startsWith('*') ? QStringLiteral(".?") : QString();
    expression += pieces.join(QStringLiteral(".?"));
    if (component.endsWith('*'))
        expression += QStringLiteral(".?");
    return expression;
}

} // namespace

Operation::Operation()
    : moDelimiter('/')
    , meCase(Qt::CaseSensitive)
    , mbPattern(false)
{}

Operation::Operation(const QStringList& components, QChar delimiter, Qt::CaseSensitivity sensitivity, bool pattern)
    : moDelimiter(delimiter)
    , meCase(sensitivity)
    , mbPattern(pattern && !components.isEmpty())
{
    if (!components.isEmpty())
        msPath = components.join(delimiter) + delimiter;
    if (!mbPattern)
        return;

    const QString delimiterExpression = QRegExp::escape(QString(delimiter));
    QString expression = QStringLiteral("^");
    bool fixed = true;
    QString run;
    for (const QString& component : components) {
        expression += componentExpression(component) + delimiterExpression;
        const bool wild = component.contains('*');
        fixed = fixed && !wild;
        if (fixed)
            msFixedStart += component + delimiter;
        // Components after a star stand in the text between two delimiters.
        if (wild)
            run = delimiter;
        else if (!fixed && !run.isEmpty())
            run += component + delimiter;
        if (run.size() > msInnerRun.size() + 1 && !wild)
            msInnerRun = run;
    }
    // Minimal, so that a match ends as early as it can and the rest of the
    // text counts as below the rule.
    QRegularExpression::PatternOptions options =
        QRegularExpression::InvertedGreedinessOption | QRegularExpression::DotMatchesEverythingOption;
    if (sensitivity == Qt::CaseInsensitive)
        options |= QRegularExpression::CaseInsensitiveOption;
    moRegExp.setPattern(expression);
    moRegExp.setPatternOptions(options);
    moRegExp.optimize();
}

void Operation::addDirectoryRule(OpType op, bool recursive)
{
    if (mptDirectory)
        mptDirectory->merge(op, recursive);
    else
        mptDirectory = boost::make_shared<Expression>(op, recursive);
}

void Operation::addFileRule(OpType op, bool recursive, const QString& fileName)
{
    const QString pattern = Expression::fileNamePattern(fileName, meCase);
    for (const ExpressionPtr& rule : moFileRules) {
        if (rule->pattern() == pattern) {
            rule->merge(op, recursive);
            return;
        }
    }
    BTRACE(TraceVerbose) << "Add Expresion" << msPath << pattern << op << "Recursive" << recursive;
    moFileRules.append(boost::make_shared<Expression>(op, recursive, fileName, meCase));
}

bool Operation::matches(const QString& directory, bool& below) const
{
    if (!mbPattern) {
        if (!directory.startsWith(msPath, meCase))
            return false;
        below = directory.size() > msPath.size();
        return true;
    }
    if (!directory.startsWith(msFixedStart, meCase) ||
        (!msInnerRun.isEmpty() && directory.indexOf(msInnerRun, msFixedStart.size(), meCase) < 0))
        return false;
    const QRegularExpressionMatch match = moRegExp.match(directory);
    if (!match.hasMatch())
        return false;
    below = directory.size() > match.capturedEnd();
    return true;
}

OpType Operation::directoryOpType(const QString& directory, OpType result) const
{
    bool below = false;
    if (mptDirectory && mptDirectory->opType() > result && matches(directory, below) &&
        (mptDirectory->recursive() || !below))
        result = mptDirectory->opType();
    return result;
}

OpType Operation::fileOpType(const QString& directory, const QString& name, OpType result) const
{
    bool below = false;
    if (!matches(directory, below))
        return result;
    if (mptDirectory && (mptDirectory->recursive() || !below))
        result = std::max(result, mptDirectory->opType());
    for (const ExpressionPtr& rule : moFileRules) {
        if (result == eLiveOnly)
            break;
        if (rule->opType() > result)
            result = std::max(result, rule->opType(name, below));
    }
    return result;
}

void Operation::display() const
{
    BTRACE(TraceNormal) << "Start Operation" << msPath;
    if (mbPattern)
        BTRACE(TraceNormal) << "Pattern" << moRegExp.pattern();
    if (mptDirectory) {
        BTRACE(TraceNormal) << "Start Directory Expression";
        mptDirectory->display();
        BTRACE(TraceNormal) << "End Directory Expression List";
    }
    BTRACE(TraceNormal) << "Start File Expression List" << moFileRules.size();
    for (const ExpressionPtr& rule : moFileRules)
        rule->display();
    BTRACE(TraceNormal) << "End File Expression List";
    BTRACE(TraceNormal) << "End Operation";
}

} // namespace Brevi
