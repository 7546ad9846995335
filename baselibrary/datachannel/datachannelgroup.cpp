#include "datachannel/datachannelgroup.h"

#include "datachannel/datachannelrequest_p.h"

#include "core/context.h"
#include "core/extent.h"
#include "core/trace.h"
#include "messaging/messaging.h"
#include "messaging/msg.h"

#include <boost/make_shared.hpp>

#include <algorithm>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleDatachannel;
} // namespace

DatachannelGroup::DatachannelGroup()
    : mptRecord(boost::make_shared<Record>())
{}

DatachannelGroup::DatachannelGroup(const DatachannelGroup& other) = default;

DatachannelGroup& DatachannelGroup::operator=(const DatachannelGroup& other) = default;

DatachannelGroup::~DatachannelGroup() = default;

bool DatachannelGroup::add(const DatachannelRequest& request)
{
    if (!request.isValid()) {
        BTRACE(TraceAlways) << "Cannot add a request without a valid IPC channel";
        return false;
    }
    const unsigned id = request.hash();
    if (mptRecord->moRequests.contains(id)) {
        BTRACE(TraceAlways) << "Channel" << id << "already has a request in the group";
        return false;
    }
    mptRecord->moRequests.insert(id, request);
    return true;
}

bool DatachannelGroup::remove(const DatachannelRequest& request)
{
    return mptRecord->moRequests.remove(request.hash());
}

int DatachannelGroup::size() const { return mptRecord->moRequests.size(); }

// Notes a channel whose queue is closed, and whether data was taken off a
// queue (its acknowledgement is to go out).
void DatachannelGroup::serve(const DatachannelRequest& handle, Messaging& messaging, bool& closed, bool& received)
{
    typedef Datachannel::Result Result;
    DatachannelRequest::Record& request = *handle.mptRecord;
    Datachannel& channel = request.moChannel;
    const auto finish = [&request](Result result) {
        request.meResult = result;
        request.mbComplete = true;
    };
    for (;;) {
        unsigned count = 0;
        Result result = channel.available(count);
        if (result != Datachannel::eOk) {
            BTRACE(TraceAlways) << "available returned error" << Datachannel::resultName(result);
            return finish(result);
        }
        if (count == 0) {
            const IpcResult waiting = messaging.dataAvailable(channel.id());
            if (waiting == eIpcResultClosed)
                closed = true; // the channel's read below tells why
            else if (waiting != eIpcResultOk)
                return;
            received = true;
            if (request.mbBufferMode) {
                Extent buffer;
                result = channel.getReceiveBuffer(buffer);
                if (result == Datachannel::eOk) {
                    request.moBuffer = buffer;
                    return finish(Datachannel::eOk);
                }
            } else {
                // Into hand, for the next round of this loop.
                Extent scratch;
                result = channel.available(scratch);
                if (result == Datachannel::eOk)
                    continue;
            }
            if (result != Datachannel::eMessagePending && result != Datachannel::eInvalidRequest) {
                BTRACE(TraceAlways) << "receive returned error" << Datachannel::resultName(result);
                finish(result);
            }
            return;
        }
        if (request.mbBufferMode)
            return; // bytes in hand that are not this request's buffer
        unsigned got = 0;
        result = channel.receive(got, request.mpData + (request.muiSize - request.muiWanted),
                                 std::min(count, request.muiWanted));
        request.muiWanted -= got;
        if (result != Datachannel::eOk) {
            BTRACE(TraceAlways) << "receive returned error" << Datachannel::resultName(result);
            return finish(result);
        }
        if (request.muiWanted == 0)
            return finish(Datachannel::eOk);
    }
}

bool DatachannelGroup::wait(MsgResult& result)
{
    const boost::shared_ptr<Messaging> messaging = Context::messaging();
    if (!messaging) {
        BTRACE(TraceAlways) << "No messaging subsystem";
        result = eMsgResultIpcError;
        return false;
    }
    for (;;) {
        bool closed = false;
        bool received = false;
        bool completed = false;
        QList<unsigned> waiting;
        // A copy: a handler may change the group while the requests are served.
        const QList<DatachannelRequest> requests = mptRecord->moRequests.values();
        for (const DatachannelRequest& request : requests) {
            DatachannelRequest::Record& record = *request.mptRecord;
            if (!record.mbComplete && (record.mbBufferMode || record.muiWanted))
                serve(request, *messaging, closed, received);
            if (record.mbComplete)
                completed = true;
            else if (record.mbBufferMode || record.muiWanted)
                waiting.append(record.moChannel.id());
        }
        if (completed) {
            result = eMsgResultOk;
            return true;
        }
        if (!closed) {
            if (received) {
                IpcResult flushed = eIpcResultOk;
                messaging->flush(flushed);
            }
            const IpcResult waited = messaging->dataAvailable(waiting, -1);
            if (waited != eIpcResultOk && waited != eIpcResultMessagePending)
                BTRACE(TraceAlways) << "dataAvailable returned error" << unsigned(waited);
        }
        // Until the queue is empty, when data is again what is awaited.
        while (Msg::handle(result, messaging, 0)) {
        }
        if (result == eMsgResultTimeout)
            continue;
        BTRACE(TraceAlways) << "Msg::wait returned error" << int(result);
        return false;
    }
}

} // namespace Brevi
