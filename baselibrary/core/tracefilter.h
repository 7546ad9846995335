#ifndef BASELIBRARY_CORE_TRACEFILTER_H
#define BASELIBRARY_CORE_TRACEFILTER_H

#include "core/trace.h"

#include <QSharedDataPointer>

namespace Brevi {

class TraceFilterData;

// One level for each of modules 1 to 1024, in the same nibble form as a trace
// buffer. Copies share their levels until one of them changes.
class BREVI_EXPORT TraceFilter
{
public:
    explicit TraceFilter(TraceLevelE level = TraceNormal);
    TraceFilter(const TraceFilter& other);
    TraceFilter& operator=(const TraceFilter& other);
    ~TraceFilter();

    // Module 0 means all modules; a module above 1024 is ignored.
    void setLevel(TraceLevelE level, unsigned module);
    // 5 for module 0, a module above 1024, or a nibble above 4.
    TraceLevelE getLevel(unsigned module) const;

    // The 512 bytes of nibbles.
    const unsigned char* levels() const;
    void setLevels(const unsigned char* levels);

private:
    QSharedDataPointer<TraceFilterData> d;
};

} // namespace Brevi

#endif
