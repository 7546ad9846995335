#include "index/results.h"

#include "core/packbuffer.h"
#include "core/trace.h"
#include "core/unpackbuffer.h"

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleLucene;
}

QString Results::Result::value(bool* found, const QString& name) const
{
    for (const Field& field : moFields)
        if (field.name() == name) {
            if (found)
                *found = true;
            return field.value();
        }
    if (found)
        *found = false;
    return QString();
}

void Results::pack(PackBuffer& buffer) const
{
    buffer.append(unsigned(moResults.size()));
    for (const Result& result : moResults) {
        buffer.append(result.fieldCount());
        for (const Field& field : result) {
            buffer.append(field.name());
            buffer.append(field.value());
        }
    }
}

boost::shared_ptr<Buffer> Results::pack() const
{
    PackBuffer buffer;
    pack(buffer);
    return buffer.messageBuffer();
}

void Results::pack(PackBuffer& buffer, const QList<LuceneComm::Reply>& replies)
{
    buffer.append(unsigned(replies.size()));
    for (const LuceneComm::Reply& reply : replies) {
        buffer.append(reply.fieldCount());
        for (const LuceneComm::Reply::ClauseEntry& clause : reply.clauses())
            if (clause.first == LuceneComm::eClauseField && clause.second.size() >= 2) {
                buffer.append(clause.second.at(0));
                buffer.append(clause.second.at(1));
            }
    }
}

bool Results::unpack(UnpackBuffer& buffer)
{
    moResults.clear();
    unsigned results = 0;
    if (!buffer.take(results)) {
        BTRACE(TraceAlways) << "Failed to unpack result count";
        return false;
    }
    for (unsigned r = 0; r < results; ++r) {
        unsigned fields = 0;
        if (!buffer.take(fields)) {
            BTRACE(TraceAlways) << "Failed to unpack field count" << r;
            return false;
        }
        Result result;
        for (unsigned f = 0; f < fields; ++f) {
            QString name;
            QString value;
            if (!buffer.take(name) || !buffer.take(value)) {
                BTRACE(TraceAlways) << "Failed to unpack field name and value" << r << f;
                return false;
            }
            result.add(name, value);
        }
        moResults.append(result);
    }
    return true;
}

bool Results::unpack(const boost::shared_ptr<Buffer>& buffer)
{
    if (!buffer) {
        BTRACE(TraceAlways) << "No data supplied";
        moResults.clear();
        return false;
    }
    UnpackBuffer view;
    view.fromRawData(Extent(buffer->data(), buffer->size()));
    return unpack(view);
}

} // namespace Brevi
