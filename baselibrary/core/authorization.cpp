#include "core/authorization.h"

#include <cstring>

namespace Brevi {

QByteArray Authorization::binary(const QString& other) const
{
    if (msText.isEmpty() || other.isEmpty())
        return QByteArray();
    return msText.toUtf8() + '-' + other.toUtf8();
}

bool Authorization::equal(const QByteArray& a, const QByteArray& b)
{
    return a.size() == b.size() && std::memcmp(a.constData(), b.constData(), size_t(a.size())) == 0;
}

} // namespace Brevi
