#ifndef BASELIBRARY_INDEX_RESULTS_H
#define BASELIBRARY_INDEX_RESULTS_H

#include "brevi_export.h"
#include "index/lucenecomm.h"

#include <QList>
#include <QString>

#include <boost/shared_ptr.hpp>

namespace Brevi {

class Buffer;
class PackBuffer;
class UnpackBuffer;

// The hits of a search, as plain values that can travel in a message: the
// process that owns the index runs the search and packs the hits; the one
// that asked unpacks them.
//
//     PackBuffer packed;
//     Results::pack(packed, page);            // straight from SearchMatch replies
//     ...
//     Results hits;
//     if (!hits.unpack(received))
//         ... truncated: the complete results before the cut are kept
//     for (const Results::Result& hit : hits)
//         hit.value(nullptr, "path");
//
// Packed form (PackBuffer's encoding): the result count (unsigned 32-bit);
// for each result its field count (unsigned 32-bit), then for each field its
// name and its value (QString).
//
// Failure: unpack returns false and traces why at TraceAlways ("No data
// supplied", "Failed to unpack result count", "Failed to unpack field
// count", "Failed to unpack field name and value").
//
// A value type; copies are independent. One thread at a time.
class BREVI_EXPORT Results
{
public:
    class BREVI_EXPORT Field
    {
    public:
        Field(const QString& name, const QString& value)
            : msName(name)
            , msValue(value)
        {}
        const QString& name() const { return msName; }
        const QString& value() const { return msValue; }

    private:
        QString msName;
        QString msValue;
    };

    // One hit: its fields in the order of adding; a name may repeat.
    class BREVI_EXPORT Result
    {
    public:
        void clear() { moFields.clear(); }
        unsigned fieldCount() const { return unsigned(moFields.size()); }
        const QList<Field>& fieldList() const { return moFields; }
        QList<Field>::const_iterator begin() const { return moFields.begin(); }
        QList<Field>::const_iterator end() const { return moFields.end(); }

        void add(const QString& name, const QString& value) { moFields.append(Field(name, value)); }
        void add(const QString& name, int value) { add(name, QString::number(value)); }
        void add(const QString& name, unsigned int value) { add(name, QString::number(value)); }
        void add(const QString& name, long long value) { add(name, QString::number(value)); }
        void add(const QString& name, unsigned long long value) { add(name, QString::number(value)); }

        // The value of the first field of `name`; a null string, and `found`
        // false, when there is none.
        QString value(bool* found, const QString& name) const;

    private:
        QList<Field> moFields;
    };

    void clear() { moResults.clear(); }
    unsigned resultCount() const { return unsigned(moResults.size()); }
    const QList<Result>& resultList() const { return moResults; }
    QList<Result>::const_iterator begin() const { return moResults.begin(); }
    QList<Result>::const_iterator end() const { return moResults.end(); }
    void add(const Result& result) { moResults.append(result); }

    void pack(PackBuffer& buffer) const;
    // The packed items without PackBuffer's size field, as a message carries
    // them.
    boost::shared_ptr<Buffer> pack() const;
    // The same form straight from SearchMatch replies: each reply's field
    // clauses that have a name and a value.
    static void pack(PackBuffer& buffer, const QList<LuceneComm::Reply>& replies);

    // Replaces the list with what `buffer` holds from its cursor on.
    bool unpack(UnpackBuffer& buffer);
    bool unpack(const boost::shared_ptr<Buffer>& buffer);

private:
    QList<Result> moResults;
};

} // namespace Brevi

#endif
