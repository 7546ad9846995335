#ifndef BASELIBRARY_SOCKETS_TCPERROR_H
#define BASELIBRARY_SOCKETS_TCPERROR_H

#include "brevi_export.h"

namespace Brevi {

class Trace;

// The result of every socket operation, and what a socket keeps as its
// `lastError`. The numbers are fixed: they are traced, and the layers above
// compare against the names.
//
// Which system errors become which value, and which of them leave a socket
// usable, is written down in one place: TCPErrorTable (tcperrortable.h).
enum TCPError : int {
    eTCPErrorNone = 0,
    // The peer ended the stream or reset it.
    eTCPErrorClosed = 1,
    // Nothing could be done now; wait for readiness and try again.
    eTCPErrorWouldBlock = 2,
    eTCPErrorConnectionRefused = 3,
    // A wait or call was cut short; try again.
    eTCPErrorInterrupted = 4,
    eTCPErrorInvalidArgument = 5,
    eTCPErrorAlreadyBound = 6,
    eTCPErrorNotBound = 7,
    // There is no usable handle: never created, closed, or refused by the system.
    eTCPErrorSocketInvalid = 8,
    eTCPErrorNotAllowed = 9,
    eTCPErrorUnknown = 10,
    // An option the system does not offer.
    eTCPErrorUnavailable = 11,
    // A fault of the caller or of the library (a bad buffer, a broken invariant).
    eTCPErrorInternal = 12,
    // The system ran short of memory or descriptors for a moment.
    eTCPErrorResource = 13,
    eTCPErrorTimeout = 14,
    eTCPErrorConnected = 15,
    eTCPErrorUnreachable = 16,
    eTCPErrorLocalAddressInUse = 17,
    eTCPErrorNoBuffers = 18,
    eTCPErrorTooManyFiles = 19,
    // The socket was disabled by an earlier fatal error, or closed.
    eTCPErrorDisabled = 20
};

// How a data socket is shut down; the values are the system's own plus one.
enum TCPShutdownType : int { eTCPShutdownReceive = 1, eTCPShutdownSend = 2, eTCPShutdownBoth = 3 };

// The enumerator's name ("eTCPErrorWouldBlock"); a value out of range as its
// number.
BREVI_EXPORT Trace& operator<<(Trace& trace, TCPError error);
// "Receive", "Send", "Both"; another value as its number.
BREVI_EXPORT Trace& operator<<(Trace& trace, TCPShutdownType type);

} // namespace Brevi

#endif
