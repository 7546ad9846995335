#ifndef BASELIBRARY_MESSAGING_TIMER_P_H
#define BASELIBRARY_MESSAGING_TIMER_P_H

#include "messaging/binaryaddress.h"
#include "messaging/msgaddress.h"

#include <QHash>
#include <QList>
#include <QPair>
#include <QString>

namespace Brevi {

// One timed message: to `moSource`, the context that asked for it.
struct TimerEvent {
    unsigned long long muiWhen = 0;
    MsgAddress moSource;
    QString msName;
    QString msCookie;
};

// The timer thread's events, sorted by time; of equal times, the one set
// first stands first. A source has at most one event of a name: the index
// keeps that event's time, so that replacing and cancelling find it by a
// binary search instead of a walk through the list.
//
// Threads: the timer thread's alone.
class TimerEvents
{
public:
    bool isEmpty() const { return moEvents.isEmpty(); }
    int count() const { return moEvents.size(); }
    const TimerEvent& first() const { return moEvents.first(); }
    TimerEvent takeFirst();

    // Replaces the source's event of the same name, if any; stands in front
    // of the first later event.
    void add(const TimerEvent& event);
    // The source's event of `name`; false when there was none.
    bool remove(const MsgAddress& source, const QString& name);
    // Every event of the source; how many there were.
    int removeSource(const MsgAddress& source);

private:
    typedef QPair<BinaryAddress, QString> Key;
    static Key key(const MsgAddress& source, const QString& name) { return Key(source.binary(), name); }

    QList<TimerEvent> moEvents;
    QHash<Key, unsigned long long> moWhen;
};

} // namespace Brevi

#endif
