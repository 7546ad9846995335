#ifndef BASELIBRARY_CORE_TRACEPOSITION_H
#define BASELIBRARY_CORE_TRACEPOSITION_H

#include "core/trace.h"

namespace Brevi {

// A place in a trace: the buffer's instance and a record's sequence number.
// TracePosition(true) is where the thread's Trace will write next, so a dump
// from it shows only what came after.
class BREVI_EXPORT TracePosition
{
public:
    explicit TracePosition(bool current = false);
    TracePosition(unsigned instance, unsigned sequence)
        : muiInstance(instance)
        , muiSequence(sequence)
    {}

    unsigned getInstance() const { return muiInstance; }
    unsigned getSequence() const { return muiSequence; }
    void setInstance(unsigned instance) { muiInstance = instance; }
    void setSequence(unsigned sequence) { muiSequence = sequence; }
    bool operator==(const TracePosition& other) const
    {
        return muiInstance == other.muiInstance && muiSequence == other.muiSequence;
    }

    // "(instance:sequence)", or "(Unknown)" when the instance is 0.
    QString toString() const;

private:
    unsigned muiInstance = 0;
    unsigned muiSequence = 0;
};

BREVI_EXPORT Trace& operator<<(Trace& trace, const TracePosition& position);

} // namespace Brevi

#endif
