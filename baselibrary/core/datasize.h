#ifndef BASELIBRARY_CORE_DATASIZE_H
#define BASELIBRARY_CORE_DATASIZE_H

#include "brevi_export.h"

namespace Brevi {

// An amount of data for a log message: the number of bytes and a prefix that
// tells the log's reader how to scale it for people. The two travel as the
// keys "DataSize" and "DataSizePrfix" of a log body; nothing in this library
// interprets the prefix, the log daemon does. A plain value type.
class BREVI_EXPORT DataSize
{
public:
    // How the reader is to show the size. Passed through as a number.
    enum SizePrefixE {
        // The reader picks the unit that fits the size.
        PrefixAuto = 0,
        PrefixBytes = 1,
        PrefixKilo = 2,
        PrefixMega = 3,
        PrefixGiga = 4,
        PrefixTera = 5
    };

    DataSize(unsigned long long size = 0, SizePrefixE prefix = PrefixAuto)
        : mullSize(size)
        , mePrefix(prefix)
    {}

    unsigned long long size() const { return mullSize; }
    SizePrefixE prefix() const { return mePrefix; }
    void setSize(unsigned long long size) { mullSize = size; }
    void setPrefix(SizePrefixE prefix) { mePrefix = prefix; }

    bool operator==(const DataSize& other) const { return mullSize == other.mullSize && mePrefix == other.mePrefix; }
    bool operator!=(const DataSize& other) const { return !(*this == other); }

private:
    unsigned long long mullSize;
    SizePrefixE mePrefix;
};

} // namespace Brevi

#endif
