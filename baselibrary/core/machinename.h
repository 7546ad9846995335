#ifndef BASELIBRARY_CORE_MACHINENAME_H
#define BASELIBRARY_CORE_MACHINENAME_H

#include "brevi_export.h"
#include "core/hashedstring.h"

#include <QByteArray>
#include <QString>

namespace Brevi {

// The name of a machine in the system: node name, '@', machine id, as the Hub
// hands it out ("node@id"). It is a HashedString, so it hashes once and
// compares on the whole text; the hop lists of routes are made of these.
//
// Nothing checks the form: a text without '@' gives itself for both parts, and
// an empty name is the "no machine" value. A value type, like HashedString.
class BREVI_EXPORT MachineName : public HashedString
{
public:
    MachineName() = default;
    MachineName(const QString& text)
        : HashedString(text)
    {}

    // The whole text.
    const QString& fullName() const { return msString; }
    // The text before the first '@'; the whole text if there is none.
    QString nodeName() const;
    // The text after the first '@'; the whole text if there is none.
    QString machineId() const;
    // The whole text as UTF-8.
    QByteArray toUtf8() const { return msString.toUtf8(); }
};

} // namespace Brevi

#endif
