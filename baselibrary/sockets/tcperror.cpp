#include "sockets/tcperror.h"

#include "core/trace.h"

namespace Brevi {

namespace {
const char* const ErrorNames[] = {"eTCPErrorNone",          "eTCPErrorClosed",
                                  "eTCPErrorWouldBlock",    "eTCPErrorConnectionRefused",
                                  "eTCPErrorInterrupted",   "eTCPErrorInvalidArgument",
                                  "eTCPErrorAlreadyBound",  "eTCPErrorNotBound",
                                  "eTCPErrorSocketInvalid", "eTCPErrorNotAllowed",
                                  "eTCPErrorUnknown",       "eTCPErrorUnavailable",
                                  "eTCPErrorInternal",      "eTCPErrorResource",
                                  "eTCPErrorTimeout",       "eTCPErrorConnected",
                                  "eTCPErrorUnreachable",   "eTCPErrorLocalAddressInUse",
                                  "eTCPErrorNoBuffers",     "eTCPErrorTooManyFiles",
                                  "eTCPErrorDisabled"};

const char* const ShutdownNames[] = {"Receive", "Send", "Both"};
} // namespace

Trace& operator<<(Trace& trace, TCPError error)
{
    if (unsigned(error) < sizeof(ErrorNames) / sizeof(ErrorNames[0]))
        return trace << ErrorNames[error];
    return trace << int(error);
}

Trace& operator<<(Trace& trace, TCPShutdownType type)
{
    if (unsigned(type) - 1 < sizeof(ShutdownNames) / sizeof(ShutdownNames[0]))
        return trace << ShutdownNames[type - 1];
    return trace << int(type);
}

} // namespace Brevi
