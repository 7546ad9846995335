#ifndef BASELIBRARY_DATACHANNEL_DATACHANNELREQUEST_P_H
#define BASELIBRARY_DATACHANNEL_DATACHANNELREQUEST_P_H

#include "core/extent.h"
#include "datachannel/datachannelrequest.h"

namespace Brevi {

// What a request and its copies share; the group that serves it fills it in.
struct DatachannelRequest::Record {
    Datachannel moChannel;
    unsigned char* mpData = nullptr;
    unsigned muiSize = 0;
    unsigned muiWanted = 0;
    bool mbBufferMode = false;
    Datachannel::Result meResult = Datachannel::eOk;
    bool mbComplete = false;
    // The buffer of a complete buffer request.
    Extent moBuffer;
};

} // namespace Brevi

#endif
