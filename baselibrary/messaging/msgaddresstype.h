#ifndef BASELIBRARY_MESSAGING_MSGADDRESSTYPE_H
#define BASELIBRARY_MESSAGING_MSGADDRESSTYPE_H

namespace Brevi {

// What an address names, and how it is found. The value is the first
// character of the flat form ("1/7/node@1"), so the numbers are fixed.
enum MsgAddressType : unsigned {
    // Nothing: the one shared invalid address.
    eMsgAddressInvalid = 0,
    // A context reached over a one-hop route: the route holds just its machine.
    eMsgAddressAttached = 1,
    // A thread context in this same process, found by context id; no machine.
    eMsgAddressContext = 2,
    // The Hub at the other end of this process's attached link, found by id.
    eMsgAddressHub = 3,
    // A context reached over a route of two or more hops.
    eMsgAddressRouted = 4
};

// The context ids that the system's own processes bear on every machine.
enum WellKnownE : unsigned {
    // Never a valid id: an address built from it is the invalid address.
    eWellKnownNone = 0,
    // The Hub's manager: answers attach and trace buffer requests.
    eWellKnownHubManager = 1,
    // The Hub's router: enables connections and tells of undeliverable messages.
    eWellKnownHubRouter = 2,
    // The log daemon; an attached context logs to (its machine, 8).
    eWellKnownLogDaemon = 8
};

} // namespace Brevi

#endif
