#ifndef BASELIBRARY_PERSISTENT_SPOOLSTATEFILE_H
#define BASELIBRARY_PERSISTENT_SPOOLSTATEFILE_H

#include "brevi_export.h"
#include "core/operatorboolgenerator.h"
#include "persistent/rawfile.h"
#include "persistent/spoollayout.h"

namespace Brevi {

// The state file of a spool (persistent/spoollayout.h): the writer's and the
// reader's state, each written in one piece by its own side and read by
// either at any time.
//
// The two sides may be two threads or two processes with the file open at the
// same time. Every transfer is positioned, so there is no shared file position,
// and a read of a state that the other side may be writing is repeated until
// two reads agree, so that a state is never taken half old and half new.
//
// Failure: false, with the file's lastError() and its "Open of", "Read from" or
// "Write to" trace line; the caller traces what the failure means to it.
// Nothing locks: one object may serve a writer thread and a reader thread at
// once as long as neither opens or closes it then.
class BREVI_EXPORT SpoolStateFile
{
public:
    // Opens the state file of an existing spool; false if there is none.
    bool open(const QString& base);
    // Makes the state file of a new spool, both states at file 1, offset 0,
    // count 0, and opens it. The file appears whole or not at all: it is
    // written under a name of the caller's own and then linked into place.
    // If another maker was first, its file is opened instead and `existed`
    // is set.
    bool create(const QString& base, bool& existed);
    bool close() { return moFile.close(); }
    // The file is removed when closed.
    void deleteOnClose() { moFile.deleteOnClose(); }

    // Both states, each whole; false unless all 48 bytes were there. The read
    // state is read first, so that it is not ahead of the write state even
    // while both sides are at work.
    bool readStates(SpoolState& write, SpoolState& read);
    bool readWriteState(SpoolState& state) { return readState(SpoolLayout::WriteStateOffset, state); }
    bool readReadState(SpoolState& state) { return readState(SpoolLayout::ReadStateOffset, state); }
    bool writeWriteState(const SpoolState& state) { return writeState(SpoolLayout::WriteStateOffset, state); }
    bool writeReadState(const SpoolState& state) { return writeState(SpoolLayout::ReadStateOffset, state); }

    const RawFile& file() const { return moFile; }

    operator OperatorBoolGenerator<SpoolStateFile>::Result() const
    {
        return OperatorBoolGenerator<SpoolStateFile>::make(bool(moFile));
    }

private:
    bool readState(unsigned offset, SpoolState& state);
    bool writeState(unsigned offset, const SpoolState& state);

    RawFile moFile;
};

} // namespace Brevi

#endif
