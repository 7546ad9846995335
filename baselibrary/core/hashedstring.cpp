#include "core/hashedstring.h"

#include <QHash>

namespace Brevi {

// Qt's string hash with seed 0, so that the value is the same in every process
// and may be combined into route hashes that travel.
HashedString::HashedString(const QString& text)
    : msString(text)
    , muiHash(text.isEmpty() ? 0u : ::qHash(text, 0u))
{}

} // namespace Brevi
