#include "core/convertabledatasize.h"

#include <QLocale>
#include <QObject>

#include <cmath>

namespace Brevi {

void ConvertableDataSize::convertUnits(SizeScaleE scale)
{
    mdSize = std::ldexp(mdSize, int(meScale) - int(scale));
    meScale = scale;
}

void ConvertableDataSize::normalise()
{
    if (mdSize == 0) {
        meScale = ScaleBytes;
        return;
    }
    if (mdSize >= 1 && mdSize < 1024)
        return;
    // log2 of the amount in bytes.
    const double bits = std::log2(std::fabs(mdSize)) + int(meScale);
    if (bits >= 40)
        convertUnits(ScaleTera);
    else if (bits >= 30)
        convertUnits(ScaleGiga);
    else if (bits >= 20)
        convertUnits(ScaleMega);
    else if (bits >= 10)
        convertUnits(ScaleKilo);
    else
        convertUnits(ScaleBytes);
}

QString ConvertableDataSize::toString() const
{
    int decimals = 2;
    const double magnitude = std::fabs(mdSize);
    if (magnitude >= 10) {
        const int digits = int(std::floor(std::log10(magnitude))) + 1;
        decimals = digits < 3 ? 3 - digits : 0;
    }
    // A byte does not divide.
    if (meScale == ScaleBytes)
        decimals = 0;

    QString unit;
    switch (meScale) {
    case ScaleBytes:
        unit = QObject::tr(" B");
        break;
    case ScaleKilo:
        unit = QObject::tr(" KB");
        break;
    case ScaleMega:
        unit = QObject::tr(" MB");
        break;
    case ScaleGiga:
        unit = QObject::tr(" GB");
        break;
    case ScaleTera:
        unit = QObject::tr(" TB");
        break;
    }
    return QLocale::system().toString(mdSize, 'f', decimals) + unit;
}

QString ConvertableDataSize::normalised(unsigned long long bytes)
{
    ConvertableDataSize size(double(bytes), ScaleBytes);
    size.normalise();
    return size.toString();
}

QString ConvertableDataSize::addDelimiters(unsigned long long number)
{
    const QString digits = QString::number(number);
    QString text;
    text.reserve(digits.size() + digits.size() / 3);
    for (int i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0)
            text += QLatin1Char(',');
        text += digits[i];
    }
    return text;
}

} // namespace Brevi
