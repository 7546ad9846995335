#ifndef BASELIBRARY_MESSAGING_LOCALMACHINE_P_H
#define BASELIBRARY_MESSAGING_LOCALMACHINE_P_H

#include "core/context.h"
#include "core/machinename.h"

#include <type_traits>

namespace Brevi {
namespace LocalMachineDetail {

// The name the Hub gave this machine, as the calling thread's Context holds it
// after the attach exchange; empty on a thread without one. Context offers it
// through a static machineName() once the attached handler fills it in; a
// Context that does not (yet) offer it leaves every process without a machine
// name, and addresses "on this machine" then come out invalid, as they do on
// a standalone thread.
template <typename C, typename = void> struct Lookup {
    static MachineName name() { return MachineName(); }
};

template <typename C> struct Lookup<C, std::void_t<decltype(C::machineName())>> {
    static MachineName name() { return C::machineName(); }
};

} // namespace LocalMachineDetail

inline MachineName localMachineName() { return LocalMachineDetail::Lookup<Context>::name(); }

} // namespace Brevi

#endif
