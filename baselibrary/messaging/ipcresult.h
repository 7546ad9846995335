#ifndef BASELIBRARY_MESSAGING_IPCRESULT_H
#define BASELIBRARY_MESSAGING_IPCRESULT_H

namespace Brevi {

// What the link layer reports: the packet state machines, the queues and the
// handlers of Messaging all answer with one of these. The numbers have gaps
// and are the code's vocabulary, not part of any wire format; they are traced
// as numbers, so they do not change.
enum IpcResult : unsigned {
    eIpcResultOk = 0,
    // A packet is already held: a finished one not yet taken, or one being
    // sent when none was asked for.
    eIpcResultPending = 2,
    // Nothing more can move now; wait for the socket and call again, which
    // goes on where this call stopped.
    eIpcResultAgain = 3,
    // The link is gone (the peer closed it, or it failed); nothing more will
    // move on it.
    eIpcResultClosed = 4,
    // The stream does not frame: an unknown magic.
    eIpcResultCorrupt = 6,
    // A packet announced above the receiver's maximum.
    eIpcResultTooBig = 7,
    eIpcResultTimeout = 9,
    // A packet announced below the minimum of 9 bytes.
    eIpcResultTooSmall = 12,
    // A message is waiting and should be handled before the caller goes on.
    eIpcResultMessagePending = 13,
    eIpcResultReady = 14,
    // Any other value.
    eIpcResultNotHandled = 15
};

} // namespace Brevi

#endif
