#include "notifications.h"

#include <algorithm>

namespace Brevi {

std::vector<Notifications::Post> Notifications::watchExit(unsigned watcher, const XmlList& address, Target target,
                                                          unsigned serial)
{
    if (target == eProcess || target == eHub) {
        moExit.push_back(Watch{watcher, address.clone(), MsgAddress(address), target, serial});
        return {};
    }
    // Gone already, or never there: a process that is not there has ended.
    return {Post{watcher, address.clone(), true}};
}

std::vector<Notifications::Post> Notifications::watchReady(unsigned watcher, const XmlList& address, Target target,
                                                           const ProcessPointer& process)
{
    if (target == eHub || (target == eProcess && process && process->ready()))
        return {Post{watcher, address.clone(), true}};
    if (target == eNothing)
        return {Post{watcher, address.clone(), false}};
    moReady.push_back(Watch{watcher, address.clone(), MsgAddress(address), target, process ? process->serial : 0});
    return {};
}

void Notifications::unwatch(std::vector<Watch>& watches, unsigned watcher, const MsgAddress& address)
{
    watches.erase(
        std::remove_if(watches.begin(), watches.end(),
                       [&](const Watch& watch) { return watch.watcher == watcher && watch.parsed == address; }),
        watches.end());
}

void Notifications::unwatchExit(unsigned watcher, const MsgAddress& address) { unwatch(moExit, watcher, address); }

void Notifications::unwatchReady(unsigned watcher, const MsgAddress& address) { unwatch(moReady, watcher, address); }

bool Notifications::names(const Watch& watch, const ProcessEntry& process)
{
    const MsgAddress& address = watch.parsed;
    if (address.id())
        return address.id() == process.processId;
    return !process.name.isEmpty() && address.name() == process.name && address.group() == process.group;
}

void Notifications::attached(const ProcessEntry& process)
{
    for (Watch& watch : moReady)
        if (watch.target == eFuture && names(watch, process)) {
            watch.target = eProcess;
            watch.serial = process.serial;
        }
}

std::vector<Notifications::Post> Notifications::ready(const ProcessEntry& process)
{
    std::vector<Post> posts;
    auto fires = [&](const Watch& watch) {
        return (watch.target == eProcess && watch.serial == process.serial) ||
               (watch.target == eFuture && names(watch, process));
    };
    for (const Watch& watch : moReady)
        if (fires(watch))
            posts.push_back(Post{watch.watcher, watch.address, true});
    moReady.erase(std::remove_if(moReady.begin(), moReady.end(), fires), moReady.end());
    return posts;
}

void Notifications::exited(const ProcessEntry& process, std::vector<Post>& exits, std::vector<Post>& readies)
{
    auto onIt = [&](const Watch& watch) { return watch.target == eProcess && watch.serial == process.serial; };
    for (const Watch& watch : moExit)
        if (onIt(watch) && watch.watcher != process.processId)
            exits.push_back(Post{watch.watcher, watch.address, true});
    for (const Watch& watch : moReady)
        if (onIt(watch) && watch.watcher != process.processId)
            readies.push_back(Post{watch.watcher, watch.address, false});
    auto gone = [&](const Watch& watch) { return onIt(watch) || watch.watcher == process.processId; };
    moExit.erase(std::remove_if(moExit.begin(), moExit.end(), gone), moExit.end());
    moReady.erase(std::remove_if(moReady.begin(), moReady.end(), gone), moReady.end());
}

} // namespace Brevi
