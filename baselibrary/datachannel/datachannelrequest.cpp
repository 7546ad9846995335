#include "datachannel/datachannelrequest.h"

#include "datachannel/datachannelrequest_p.h"

#include "core/extent.h"
#include "core/trace.h"

#include <boost/make_shared.hpp>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleDatachannel;

bool usable(const Datachannel& channel)
{
    return channel.isValid() && channel.transport() == DatachannelTransport::IPC;
}
} // namespace

DatachannelRequest::DatachannelRequest()
    : mptRecord(boost::make_shared<Record>())
{
    mptRecord->meResult = Datachannel::eDown;
}

DatachannelRequest::DatachannelRequest(const Datachannel& channel)
    : mptRecord(boost::make_shared<Record>())
{
    datachannel(channel);
}

DatachannelRequest::DatachannelRequest(const DatachannelRequest& other) = default;

DatachannelRequest& DatachannelRequest::operator=(const DatachannelRequest& other) = default;

DatachannelRequest::~DatachannelRequest() = default;

bool DatachannelRequest::isValid() const { return usable(mptRecord->moChannel); }

unsigned DatachannelRequest::hash() const { return mptRecord->moChannel.id(); }

bool DatachannelRequest::datachannel(const Datachannel& channel)
{
    Record& record = *mptRecord;
    record.moChannel = channel;
    record.mpData = nullptr;
    record.muiSize = record.muiWanted = 0;
    record.mbBufferMode = record.mbComplete = false;
    record.moBuffer = Extent();
    if (!usable(channel)) {
        BTRACE(TraceAlways) << "A request needs a valid IPC channel, not" << unsigned(channel.transport());
        record.meResult = Datachannel::eDown;
        return false;
    }
    record.meResult = Datachannel::eOk;
    return true;
}

const Datachannel& DatachannelRequest::datachannel() const { return mptRecord->moChannel; }

bool DatachannelRequest::request(void* data, unsigned size)
{
    Record& record = *mptRecord;
    if (!usable(record.moChannel) || !data || !size)
        return false;
    record.mpData = static_cast<unsigned char*>(data);
    record.muiSize = record.muiWanted = size;
    record.mbBufferMode = false;
    record.meResult = Datachannel::eOk;
    record.mbComplete = false;
    record.moBuffer = Extent();
    // Callers have always had false here, stored or not; they look at the
    // request itself.
    return false;
}

bool DatachannelRequest::request(const Extent& data) { return request(data.data(), data.size()); }

bool DatachannelRequest::requestBuffer()
{
    Record& record = *mptRecord;
    if (!usable(record.moChannel))
        return false;
    unsigned held = 0;
    record.moChannel.available(held);
    if (held || (record.mbBufferMode && record.mbComplete))
        record.moChannel.releaseBuffer();
    record.mpData = nullptr;
    record.muiSize = record.muiWanted = 0;
    record.moBuffer = Extent();
    record.meResult = Datachannel::eOk;
    record.mbComplete = false;
    record.mbBufferMode = true;
    return true;
}

bool DatachannelRequest::getBuffer(Extent& buffer) const
{
    const Record& record = *mptRecord;
    if (!record.mbBufferMode || !record.mbComplete || record.meResult != Datachannel::eOk)
        return false;
    buffer = record.moBuffer;
    return true;
}

bool DatachannelRequest::releaseBuffer()
{
    Record& record = *mptRecord;
    if (!record.mbBufferMode)
        return false;
    const bool held = record.mbComplete && record.meResult == Datachannel::eOk;
    record.mbBufferMode = record.mbComplete = false;
    record.moBuffer = Extent();
    return !held || record.moChannel.releaseBuffer() == Datachannel::eOk;
}

Datachannel::Result DatachannelRequest::result() const { return mptRecord->meResult; }

bool DatachannelRequest::complete() const { return mptRecord->mbComplete; }

unsigned DatachannelRequest::wanted() const { return mptRecord->muiWanted; }

bool DatachannelRequest::bufferMode() const { return mptRecord->mbBufferMode; }

uint qHash(const DatachannelRequest& request) { return request.hash(); }

} // namespace Brevi
