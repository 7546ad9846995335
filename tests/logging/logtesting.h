#ifndef TESTS_LOGGING_LOGTESTING_H
#define TESTS_LOGGING_LOGTESTING_H

#include "core/trace.h"
#include "core/tracedump.h"
#include "core/traceposition.h"
#include "core/xmllist.h"
#include "core/xmllistiterator.h"

#include <QStringList>

#include <gtest/gtest.h>

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
        : moStart(true)
        , muiModule(module)
    {}
    QStringList all() const
    {
        Brevi::TracePosition from = moStart;
        Brevi::TraceDump dump(nullptr, &from, nullptr);
        QStringList lines;
        while (auto entry = dump.popEntry())
            if (entry->getModuleId() == muiModule)
                lines << entry->getMessage();
        return lines;
    }
    int count(const QString& text) const { return all().filter(text).size(); }

private:
    Brevi::TracePosition moStart;
    unsigned muiModule;
};

// A Trace on the test's thread, without a context, with module LOG in full.
class LogTraceTest : public ::testing::Test
{
protected:
    LogTraceTest() { Brevi::Trace::setLevel(Brevi::TraceDebug, Brevi::TraceModuleLog); }
    Brevi::Trace moTrace;
};

} // namespace BreviTest

#endif
