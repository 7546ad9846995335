#ifndef TESTS_SUPPORT_DELIVERIES_H
#define TESTS_SUPPORT_DELIVERIES_H

#include <QByteArray>
#include <QList>

#include <gtest/gtest.h>

namespace BreviTest {

// What the receiving peer of a spool's crash test said, across all its lives:
// "got N" when record N came and "rel N" once its release returned, one line
// a write (spoolrecords.h). Records must come in order; one comes again only
// first thing after a restart of a receiver that was killed between its "got"
// and its "rel", which is what delivery at least once allows.
class Deliveries
{
public:
    // A new receiver process starts.
    void restart() { mbFirst = true; }

    ::testing::AssertionResult take(const QByteArray& output)
    {
        msRest += output;
        int end;
        while ((end = msRest.indexOf('\n')) >= 0) {
            const QByteArray line = msRest.left(end);
            msRest.remove(0, end + 1);
            const QList<QByteArray> words = line.split(' ');
            const quint64 number = words.value(1).toULongLong();
            if (words.value(0) == "got") {
                if (mbFirst && !mbConfirmed && number + 1 == mullNext) {
                    ++muiDuplicates;
                } else if (number != mullNext) {
                    return ::testing::AssertionFailure() << "got " << number << " where " << mullNext << " was due"
                                                         << (mbFirst ? " after a restart" : "");
                }
                mullNext = number + 1;
                mbConfirmed = false;
                mbFirst = false;
            } else if (words.value(0) == "rel" && number + 1 == mullNext) {
                mbConfirmed = true;
            } else {
                return ::testing::AssertionFailure() << "the receiver said: " << line.constData();
            }
        }
        return ::testing::AssertionSuccess();
    }

    quint64 next() const { return mullNext; }
    bool confirmed() const { return mbConfirmed; }
    unsigned duplicates() const { return muiDuplicates; }

private:
    QByteArray msRest;
    quint64 mullNext = 0;
    bool mbConfirmed = true;
    bool mbFirst = true;
    unsigned muiDuplicates = 0;
};

} // namespace BreviTest

#endif
