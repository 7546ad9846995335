#ifndef BASELIBRARY_CORE_TRACEDUMP_H
#define BASELIBRARY_CORE_TRACEDUMP_H

#include "core/operatorboolgenerator.h"
#include "core/tracedumpentry.h"
#include "core/traceposition.h"

#include <boost/shared_ptr.hpp>

namespace Brevi {

class TraceFilter;

// Reads the records of a trace buffer, the thread's own or any other (the Hub
// reads those of its processes), without a lock: update() copies the ring
// first, then walks back from the newest record until a record fails its
// checks. A record overwritten by the ring is the normal end of a full ring,
// not an error.
//
// next() is the position behind the newest record read; passing it as the
// start of the next update() gives only what is new.
class BREVI_EXPORT TraceDump
{
public:
    TraceDump();
    // The thread's own Trace; each update asks it for its buffer afresh.
    TraceDump(TraceFilter* filter, TracePosition* start, TracePosition* end);
    // A given Trace, as Trace::dump uses it.
    TraceDump(const Trace& trace, TraceFilter* filter, TracePosition* start, TracePosition* end);
    TraceDump(const unsigned char* buffer, unsigned size, TraceFilter* filter, TracePosition* start,
              TracePosition* end);

    // Replaces the buffer; the next position goes back to (0, 0).
    void setBuffer(const unsigned char* buffer, unsigned size);
    bool update(TraceFilter* filter, TracePosition* start, TracePosition* end);

    TracePosition next() const { return moNext; }
    unsigned entryCount() const { return unsigned(moEntries.size()); }
    // The oldest entry left, or an empty pointer.
    boost::shared_ptr<TraceDumpEntry> popEntry();
    bool isValid() const { return mbValid; }
    operator OperatorBoolGenerator<TraceDump>::Result() const
    {
        return OperatorBoolGenerator<TraceDump>::make(mbValid);
    }

    // Names for the module column; the built-in ones unless set.
    void setModuleNames(const QHash<unsigned, QString>& names) { moNames = names; }

private:
    // Read the Trace afresh at each update: the given one, or the thread's.
    bool mbOwnTrace = false;
    const Trace* mpoTrace = nullptr;
    const unsigned char* mpucBuffer = nullptr;
    unsigned muiSize = 0;
    unsigned muiInstance = 0;
    TracePosition moNext;
    QList<boost::shared_ptr<TraceDumpEntry>> moEntries;
    QHash<unsigned, QString> moNames;
    bool mbValid = false;
};

} // namespace Brevi

#endif
