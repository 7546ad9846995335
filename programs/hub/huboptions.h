#ifndef PROGRAMS_HUB_HUBOPTIONS_H
#define PROGRAMS_HUB_HUBOPTIONS_H

#include "core/machinename.h"

#include <QString>
#include <QStringList>

namespace Brevi {

// How one Hub runs: its port and identity, the sizes it hands out and the
// limits it holds its links to. Filled from the command line by parse(); the
// defaults are those of a Hub started with no arguments.
//
// The port comes from --port, else from BREVI_HUB_PORT, else 30303. The
// machine name is "node@machineid": the node from --node or the host name,
// the id from --machine-id or /etc/machine-id. Neither part may be empty or
// hold "/" (the address separator), and the node may not hold "@".
struct HubOptions {
    unsigned port = 30303;
    QString node;
    QString machineId;
    // Bytes of each process's shared trace buffer.
    unsigned traceBufferSize = 1024 * 1024;
    // Where HubMgrCreateProcessRequest finds its programs.
    QString programsDirectory;
    // Run detached from the terminal; the starting process returns once the
    // Hub listens (status 0) or has failed (status 1).
    bool daemon = false;
    // A file to hold the process id of the Hub that serves the port, written
    // once it listens and removed when it ends; for a service manager that
    // starts it with --daemon.
    QString pidFile;
    // BREVI_HOME for the Hub and its children, if given.
    QString home;
    // How long a new link has to attach, and a created process to attach.
    unsigned attachTimeoutMs = 30000;
    // How long shutdown waits for the processes to leave.
    unsigned shutdownTimeoutMs = 10000;
    // The largest packet an enabled link may send.
    unsigned maximumPacketSize = 64 * 1024 * 1024;
    // A link whose unsent bytes pass this is dropped: it does not read. Never
    // below maximumPacketSize, so that one packet of the largest size fits.
    unsigned long long maximumQueueBytes = 128ull * 1024 * 1024;
    // Above this, the Hub stops reading from the links that send to it until
    // it has drained below it again.
    unsigned long long pauseQueueBytes = 4ull * 1024 * 1024;
    // A link that has had bytes waiting without taking any for this long is
    // dropped; so is one that has sent part of a packet and then nothing
    // more for this long.
    unsigned stallTimeoutMs = 30000;
    // Trace buffers of ended processes kept for reading; the oldest go first.
    unsigned keepExited = 64;

    MachineName machineName() const { return MachineName(node + '@' + machineId); }

    // Reads `arguments` (the program's name first). False with `error` set
    // for a value that does not parse or is out of range. With --help or
    // --version, `help` receives the text to print and the result is true.
    // Needs the QCoreApplication (for the help text and the program's own
    // directory).
    bool parse(const QStringList& arguments, QString& error, QString& help);

    // The host name and the machine id of this machine, as the defaults take
    // them; empty when they cannot be read.
    static QString hostNode();
    static QString hostMachineId();
};

} // namespace Brevi

#endif
