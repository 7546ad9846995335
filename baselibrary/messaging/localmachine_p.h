#ifndef BASELIBRARY_MESSAGING_LOCALMACHINE_P_H
#define BASELIBRARY_MESSAGING_LOCALMACHINE_P_H

#include "core/context.h"

namespace Brevi {

// The name the Hub gave this machine, as the calling thread's Context holds it
// after the attach exchange; empty on a thread without one, and then addresses
// "on this machine" come out invalid.
inline const MachineName& localMachineName() { return Context::machineName(); }

} // namespace Brevi

#endif
