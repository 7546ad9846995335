#include "core/tracefilter.h"

#include <QSharedData>

#include <cstring>

namespace Brevi {

class TraceFilterData : public QSharedData
{
public:
    unsigned char levels[TraceLayout::LevelsSize];
};

TraceFilter::TraceFilter(TraceLevelE level)
    : d(new TraceFilterData)
{
    setLevel(level, 0);
}

TraceFilter::TraceFilter(const TraceFilter& other) = default;
TraceFilter& TraceFilter::operator=(const TraceFilter& other) = default;
TraceFilter::~TraceFilter() = default;

void TraceFilter::setLevel(TraceLevelE level, unsigned module)
{
    if (module > TraceLayout::ModuleCount)
        return;
    if (module == 0)
        std::memset(d->levels, (unsigned(level) & 0x0F) * 0x11, TraceLayout::LevelsSize);
    else
        TraceLayout::setLevelNibble(d->levels, module, unsigned(level));
}

TraceLevelE TraceFilter::getLevel(unsigned module) const
{
    if (module == 0 || module > TraceLayout::ModuleCount)
        return TraceLevelNone;
    const unsigned level = TraceLayout::levelNibble(d->levels, module);
    return level > TraceDebug ? TraceLevelNone : TraceLevelE(level);
}

const unsigned char* TraceFilter::levels() const { return d->levels; }

void TraceFilter::setLevels(const unsigned char* levels) { std::memcpy(d->levels, levels, TraceLayout::LevelsSize); }

} // namespace Brevi
