#ifndef BASELIBRARY_DATACHANNEL_DATACHANNELGROUP_H
#define BASELIBRARY_DATACHANNEL_DATACHANNELGROUP_H

#include "brevi_export.h"
#include "core/operatorboolgenerator.h"
#include "datachannel/datachannelrequest.h"
#include "messaging/msgresult.h"

#include <QHash>

#include <boost/shared_ptr.hpp>

namespace Brevi {

class Messaging;

// One thread waiting for data on many IPC channels at once, the way a select
// waits on sockets: a DatachannelRequest per channel says what is wanted from
// it, and `wait` returns when one or more are complete, or when a message has
// ended the wait.
//
//     DatachannelGroup group;
//     for (DatachannelRequest& request : requests) group.add(request);
//     MsgResult why;
//     while (group.wait(why))
//         for (DatachannelRequest& request : requests)
//             if (request.complete()) { ... use it, then ask again or remove it ... }
//     // false: `why` is the handler's result that ended the wait
//     // (eMsgResultExit, say), or eMsgResultIpcError when the link failed.
//
// While it waits, the thread's messages are handled as Msg::wait handles
// them, and the acknowledgements of windowed channels go out. A request that
// is complete stays so until it is asked again: `wait` returns at once while
// any is.
//
// A handle: copies are the same group. Owner's thread only, like its
// channels.
class BREVI_EXPORT DatachannelGroup
{
public:
    DatachannelGroup();
    DatachannelGroup(const DatachannelGroup& other);
    DatachannelGroup& operator=(const DatachannelGroup& other);
    ~DatachannelGroup();

    bool isValid() const { return bool(mptRecord); }
    operator OperatorBoolGenerator<DatachannelGroup>::Result() const
    {
        return OperatorBoolGenerator<DatachannelGroup>::make(isValid());
    }

    // Keyed by its channel's id: false for a second request on a channel, and
    // for a request without a valid IPC channel.
    bool add(const DatachannelRequest& request);
    // False when the request's channel has none here.
    bool remove(const DatachannelRequest& request);
    int size() const;

    // Serves the requests until one is complete (true), or a message handler
    // ends the wait or the link fails (false, `result` says which).
    bool wait(MsgResult& result);

private:
    // One request's turn: takes what its channel has in hand and what has
    // come for it, as far as the request wants.
    static void serve(const DatachannelRequest& request, Messaging& messaging, bool& closed, bool& received);

    struct Record {
        QHash<unsigned, DatachannelRequest> moRequests;
    };

    boost::shared_ptr<Record> mptRecord;
};

} // namespace Brevi

#endif
