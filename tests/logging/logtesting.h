#ifndef TESTS_LOGGING_LOGTESTING_H
#define TESTS_LOGGING_LOGTESTING_H

#include "core/trace.h"
#include "core/xmllist.h"
#include "core/xmllistiterator.h"

#include "tracelines.h"

#include <QStringList>

#include <gtest/gtest.h>

#include <ostream>

// Failed comparisons of texts print the texts.
inline void PrintTo(const QString& text, std::ostream* out) { *out << '"' << text.toStdString() << '"'; }

namespace BreviTest {

// The items of a log body in order, "name=value" joined by "|"; a value that
// is not a string is marked with its type: u uint32, U uint64, i int32.
inline QString items(const Brevi::XmlList& body)
{
    QStringList result;
    for (Brevi::XmlListIterator it = body.first(); !it.isNull(); it.next()) {
        const Brevi::XmlList::ValueTypeE type = it.type();
        result << it.name() + "=" +
                      (type == Brevi::XmlList::ValueUint32   ? "u" + QString::number(it.getUint32())
                       : type == Brevi::XmlList::ValueUint64 ? "U" + QString::number(it.getUint64())
                       : type == Brevi::XmlList::ValueInt32  ? "i" + QString::number(it.getInt32())
                                                             : it.getString());
    }
    return result.join('|');
}

// The lines of `module` the calling thread has traced since it was made.
class LogLines
{
public:
    explicit LogLines(unsigned module = Brevi::TraceModuleLog)
        : muiModule(module)
    {}
    QStringList all() const
    {
        for (const TracedLine& line : moReader.next()) {
            if (line.module == muiModule)
                moSeen << line.text;
        }
        return moSeen;
    }
    int count(const QString& text) const { return all().filter(text).size(); }

private:
    mutable TraceReader moReader;
    mutable QStringList moSeen;
    unsigned muiModule;
};

// A Trace on the test's thread, without a context, with module LOG in full.
using LogTraceTest = TraceTest<Brevi::TraceModuleLog>;

} // namespace BreviTest

#endif
