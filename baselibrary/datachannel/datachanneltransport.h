#ifndef BASELIBRARY_DATACHANNEL_DATACHANNELTRANSPORT_H
#define BASELIBRARY_DATACHANNEL_DATACHANNELTRANSPORT_H

namespace Brevi {

// The ways a data channel's bytes can travel. The two ends name them in
// their details by text ("Best", "IPC", "Memory", "File"); the numbers are
// kept in the receive queue of the thread that owns the channel.
//
// Datachannel derives from this, so that its users write
// Datachannel::Transport and Datachannel::Memory.
struct DatachannelTransport {
    enum Transport {
        // No transport: what is answered when none is possible.
        None = 0,
        // Let the receiving end choose: shared memory on one machine if the
        // thread can take it, the IPC link otherwise.
        Best = 1,
        // Data packets over the context's Hub link.
        IPC = 2,
        // A ring of buffers in shared memory; one such channel per thread.
        Memory = 3,
        // A spool of files that survives a restart; one per thread.
        File = 4
    };
};

} // namespace Brevi

#endif
