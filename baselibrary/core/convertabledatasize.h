#ifndef BASELIBRARY_CORE_CONVERTABLEDATASIZE_H
#define BASELIBRARY_CORE_CONVERTABLEDATASIZE_H

#include "brevi_export.h"

#include <QString>

namespace Brevi {

// A size of data for people to read: an amount and its unit, which can be
// converted, normalised to the unit that fits, and printed with three
// significant figures ("1.50 KB", "12.3 MB", "512 B").
//
// The text is for people: it uses the system locale, so decimal point and
// group separators follow the machine's settings, and the unit text goes
// through translation. Never parse it back. A plain value type.
class BREVI_EXPORT ConvertableDataSize
{
public:
    // The unit, as the power of 2 of its size in bytes.
    enum SizeScaleE { ScaleBytes = 0, ScaleKilo = 10, ScaleMega = 20, ScaleGiga = 30, ScaleTera = 40 };

    explicit ConvertableDataSize(double size = 0, SizeScaleE scale = ScaleBytes)
        : mdSize(size)
        , meScale(scale)
    {}

    double size() const { return mdSize; }
    SizeScaleE scale() const { return meScale; }
    void setSize(double size) { mdSize = size; }
    // Changes the unit only: the number stays, so the amount changes.
    void setScale(SizeScaleE scale) { meScale = scale; }

    // Changes the unit and keeps the amount: 1.5 KB becomes 1536 B.
    void convertUnits(SizeScaleE scale);
    // Picks the largest unit in which the amount is at least 1 (bytes for 0).
    // A number from 1 up to below 1024 is left as it is, in whatever unit.
    void normalise();
    // The number with three significant figures (two decimals below 10, none
    // for bytes), in the system locale, then the unit (" B", " KB", " MB",
    // " GB", " TB").
    QString toString() const;

    // A size in bytes, normalised and printed.
    static QString normalised(unsigned long long bytes);
    // The number in decimal with a ',' before each group of three digits from
    // the right: 1234567 gives "1,234,567". Not localised.
    static QString addDelimiters(unsigned long long number);

private:
    double mdSize;
    SizeScaleE meScale;
};

} // namespace Brevi

#endif
