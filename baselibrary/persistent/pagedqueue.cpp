#include "persistent/pagedqueue.h"

#include "core/trace.h"
#include "persistent/pagedqueueimpl.h"

#include <boost/make_shared.hpp>

namespace Brevi {

namespace {
const char* const ResultNames[] = {"eOk",   "eSendError",      "eReceiveError",  "eInvalidArgument", "eMessagePending",
                                   "eDown", "eInvalidRequest", "eInternalError", "eTryAgain",        "eEndOfData"};
// The pointer and size forms of receiving.
PagedQueue::Result handOut(PagedQueue::Result result, const Extent& record, void*& data, unsigned& size)
{
    if (result == PagedQueue::eOk) {
        data = record.data();
        size = record.size();
    }
    return result;
}
} // namespace

Trace& operator<<(Trace& trace, PagedQueue::Result result)
{
    if (unsigned(result) < sizeof(ResultNames) / sizeof(ResultNames[0]))
        trace << ResultNames[result];
    return trace;
}

PagedQueue::PagedQueue() = default;

PagedQueue::PagedQueue(const QString& path, quint64 maximumFileSize, quint64 pollInterval)
    : mptImpl(boost::make_shared<PagedQueueImpl>(path, maximumFileSize, pollInterval))
{}

PagedQueue::operator OperatorBoolGenerator<PagedQueue>::Result() const
{
    return OperatorBoolGenerator<PagedQueue>::make(mptImpl && mptImpl->valid());
}

PagedQueue::Result PagedQueue::send(const Extent& data) { return send(data.data(), data.size()); }

PagedQueue::Result PagedQueue::send(const void* data, unsigned size)
{
    return mptImpl ? mptImpl->send(data, size) : eDown;
}

PagedQueue::Result PagedQueue::receive(Extent& data) { return mptImpl ? mptImpl->receive(data) : eDown; }

PagedQueue::Result PagedQueue::receive(void*& data, unsigned& size)
{
    Extent record;
    return handOut(receive(record), record, data, size);
}

PagedQueue::Result PagedQueue::receivePolled(Extent& data) { return mptImpl ? mptImpl->receivePolled(data) : eDown; }

PagedQueue::Result PagedQueue::receivePolled(void*& data, unsigned& size)
{
    Extent record;
    return handOut(receivePolled(record), record, data, size);
}

PagedQueue::Result PagedQueue::release() { return mptImpl ? mptImpl->release() : eDown; }

PagedQueue::Result PagedQueue::relinquish() { return mptImpl ? mptImpl->relinquish() : eDown; }

PagedQueue::Result PagedQueue::available(quint64& count) { return mptImpl ? mptImpl->available(count) : eDown; }

PagedQueue::Result PagedQueue::receiver() { return mptImpl ? mptImpl->receiver() : eDown; }

MsgResult PagedQueue::pollResult() const { return mptImpl ? mptImpl->pollResult() : eMsgResultFailed; }

void PagedQueue::discard(const QString& path) { PagedQueueImpl::discard(path); }

} // namespace Brevi
