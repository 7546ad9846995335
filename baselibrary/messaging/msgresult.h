#ifndef BASELIBRARY_MESSAGING_MSGRESULT_H
#define BASELIBRARY_MESSAGING_MSGRESULT_H

namespace Brevi {

// What the message layer reports: the result of a wait, of a handler, and the
// `lastError` of an invalid Msg. The link below it answers with IpcResult
// (ipcresult.h). The numbers are traced and compared by value: they do not
// change.
enum MsgResult : int {
    // Not yet known: where a result starts before anything happened.
    eMsgResultUnknown = -1,
    eMsgResultOk = 0,
    // A handler took the message: no other handler is asked.
    eMsgResultHandled = 1,
    // A handler declines: the next older handler of the name is asked.
    eMsgResultNotHandled = 2,
    // The wait ended by time.
    eMsgResultTimeout = 3,
    // The link failed, or the thread has no working messaging.
    eMsgResultIpcError = 4,
    eMsgResultInvalidArgs = 5,
    // The wait is to end: the Hub is gone, or the owner's loop is over.
    eMsgResultExit = 6,
    eMsgResultFailed = 7
};

// Whether the sender wishes a message's body compressed on the link. The
// packet layer applies it only where that makes the packet strictly smaller.
enum MsgCompression : unsigned { eMsgDoNotCompress = 0, eMsgCompressOnSend = 1 };

} // namespace Brevi

#endif
