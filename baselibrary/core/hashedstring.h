#ifndef BASELIBRARY_CORE_HASHEDSTRING_H
#define BASELIBRARY_CORE_HASHEDSTRING_H

#include "brevi_export.h"

#include <QString>

namespace Brevi {

// A string that carries its hash, computed once by qHash(QString) when the
// text is set, so that QHash look-ups and route hashes do not go over the text
// again. An empty HashedString has hash 0.
//
// Comparisons are on the text only, so order is plain string order and two
// equal texts always compare equal. A value type: copy freely; a const object
// may be read from any thread.
class BREVI_EXPORT HashedString
{
public:
    HashedString() = default;
    HashedString(const QString& text);

    bool isEmpty() const { return msString.isEmpty(); }
    // Empties the text and sets the hash to 0.
    void clear()
    {
        msString.clear();
        muiHash = 0;
    }
    const QString& string() const { return msString; }
    operator const QString&() const { return msString; }
    unsigned hash() const { return muiHash; }

    // QString::compare of the two texts: below, at or above 0.
    int compare(const HashedString& other) const { return msString.compare(other.msString); }

protected:
    QString msString;
    unsigned muiHash = 0;
};

inline bool operator==(const HashedString& a, const HashedString& b) { return a.string() == b.string(); }
inline bool operator!=(const HashedString& a, const HashedString& b) { return a.string() != b.string(); }
inline bool operator<(const HashedString& a, const HashedString& b) { return a.string() < b.string(); }
inline bool operator>(const HashedString& a, const HashedString& b) { return a.string() > b.string(); }
// Against a plain string, without building a HashedString for it.
inline bool operator==(const HashedString& a, const QString& b) { return a.string() == b; }
inline bool operator==(const QString& a, const HashedString& b) { return a == b.string(); }
inline bool operator!=(const HashedString& a, const QString& b) { return a.string() != b; }
inline bool operator!=(const QString& a, const HashedString& b) { return a != b.string(); }

// The stored hash, for QHash<HashedString, T> and QSet<HashedString>.
inline unsigned qHash(const HashedString& text) { return text.hash(); }

} // namespace Brevi

#endif
