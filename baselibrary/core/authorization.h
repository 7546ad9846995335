#ifndef BASELIBRARY_CORE_AUTHORIZATION_H
#define BASELIBRARY_CORE_AUTHORIZATION_H

#include "brevi_export.h"

#include <QByteArray>
#include <QString>

namespace Brevi {

// The pass value that lets a message or a data buffer through: a sender
// attaches the binary form for the destination's machine, and a handler
// registered with an authorization lets in only what matches.
//
// An empty authorization, or an empty machine, gives an empty binary form,
// which means "not checked". A plain value type.
class BREVI_EXPORT Authorization
{
public:
    Authorization() = default;
    Authorization(const QString& text)
        : msText(text)
    {}

    bool isEmpty() const { return msText.isEmpty(); }
    const QString& string() const { return msText; }

    // The UTF-8 of this text, '-', and the UTF-8 of `other` (the machine the
    // value is for); empty if either is empty.
    QByteArray binary(const QString& other) const;
    // Same size and same bytes.
    static bool equal(const QByteArray& a, const QByteArray& b);

    bool operator==(const Authorization& other) const { return msText == other.msText; }
    bool operator!=(const Authorization& other) const { return msText != other.msText; }

private:
    QString msText;
};

} // namespace Brevi

#endif
