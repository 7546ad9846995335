#ifndef BASELIBRARY_DATACHANNEL_DATACHANNELREQUEST_H
#define BASELIBRARY_DATACHANNEL_DATACHANNELREQUEST_H

#include "brevi_export.h"
#include "core/operatorboolgenerator.h"
#include "datachannel/datachannel.h"

#include <QtGlobal>

#include <boost/shared_ptr.hpp>

namespace Brevi {

class Extent;

// What one thread wants from one IPC receive channel while a DatachannelGroup
// waits on many: so many bytes into the caller's memory, or one whole buffer
// to read in place. The group fills it in; `complete` and `result` tell how
// it ended (eOk, eEOD, or the failure that ended the channel).
//
//     DatachannelRequest request(channel);
//     request.request(block, sizeof block);   // false even when stored: see below
//     group.add(request);
//     ... group.wait(why) ... if (request.complete()) use block
//
// A handle: copies are the same request. Owner's thread only, like its
// channel.
class BREVI_EXPORT DatachannelRequest
{
public:
    // A request without a channel.
    DatachannelRequest();
    // On `channel`; one that is not an IPC channel gives the result eDown.
    explicit DatachannelRequest(const Datachannel& channel);
    DatachannelRequest(const DatachannelRequest& other);
    DatachannelRequest& operator=(const DatachannelRequest& other);
    ~DatachannelRequest();

    // The same request.
    bool operator==(const DatachannelRequest& other) const { return mptRecord == other.mptRecord; }
    bool operator!=(const DatachannelRequest& other) const { return mptRecord != other.mptRecord; }
    // A valid IPC channel.
    bool isValid() const;
    operator OperatorBoolGenerator<DatachannelRequest>::Result() const
    {
        return OperatorBoolGenerator<DatachannelRequest>::make(isValid());
    }
    // The channel's id, by which a group keys its requests.
    unsigned hash() const;

    // Replaces the channel; false, with the result eDown, for one that is not
    // an IPC channel.
    bool datachannel(const Datachannel& channel);
    const Datachannel& datachannel() const;

    // Asks for `size` bytes into `data`, which must stay until the request is
    // complete. A request on a bad channel, or for no memory or no bytes,
    // changes nothing. Both forms answer false, whether or not the request
    // was stored: look at the request, not at the answer.
    bool request(void* data, unsigned size);
    bool request(const Extent& data);
    // Asks for the next whole buffer, releasing one the channel still holds.
    bool requestBuffer();
    // The buffer of a complete buffer request, to read in place until
    // releaseBuffer.
    bool getBuffer(Extent& buffer) const;
    // Gives the buffer back to the channel; the request then asks for
    // nothing.
    bool releaseBuffer();

    Datachannel::Result result() const;
    bool complete() const;
    // Bytes still wanted by a byte request.
    unsigned wanted() const;
    bool bufferMode() const;

private:
    friend class DatachannelGroup;
    struct Record;

    boost::shared_ptr<Record> mptRecord;
};

BREVI_EXPORT uint qHash(const DatachannelRequest& request);

} // namespace Brevi

#endif
