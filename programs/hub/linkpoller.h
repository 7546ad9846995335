#ifndef PROGRAMS_HUB_LINKPOLLER_H
#define PROGRAMS_HUB_LINKPOLLER_H

#include <QtGlobal>

#include <vector>

namespace Brevi {

// The Hub's wait on its sockets, by epoll: the system keeps the interest of
// every socket between turns, and a wait costs what is ready, not what is
// open. A Hub with a thousand idle links then turns nearly as fast as with
// none, where a poll of all of them took longer every turn.
//
//     poller.watch(fd, link.watched(), read, write, tag);   // every turn
//     poller.wait(ms, ready);                               // what came, by tag
//
// The owner of each socket keeps what it is watched for (`watched`, 0 at
// first), so that interest that does not change costs neither a system call
// nor a look-up. A socket's registration goes with its close, so a new socket
// on a reused descriptor starts from 0 again with its new owner. The tag
// names the owner in what the wait gives.
//
// Threads: the Hub's one thread.
class LinkPoller
{
public:
    struct Ready {
        quint64 tag;
        bool readable;
        bool writable;
    };

    LinkPoller();
    ~LinkPoller();
    LinkPoller(const LinkPoller&) = delete;
    LinkPoller& operator=(const LinkPoller&) = delete;

    // False when the system gave no epoll instance.
    bool isValid() const { return miEpoll >= 0; }

    // Watches `fd` for reading and writing as asked; `watched` holds what it
    // was watched for and is brought up to date. With neither, the socket is
    // not watched at all (not even for a hang-up, which would wake every
    // turn of a link the Hub does not read). False, traced, when the system
    // refuses.
    bool watch(int fd, unsigned& watched, bool read, bool write, quint64 tag);
    // Waits up to `ms` (0: only look) and gives what is ready; an error or a
    // hang-up counts as both readable and writable, for the reader and the
    // writer to find. False when the wait failed for another reason than a
    // signal; errno tells why.
    bool wait(int ms, std::vector<Ready>& ready);

private:
    int miEpoll = -1;
};

} // namespace Brevi

#endif
