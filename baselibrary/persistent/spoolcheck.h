#ifndef BASELIBRARY_PERSISTENT_SPOOLCHECK_H
#define BASELIBRARY_PERSISTENT_SPOOLCHECK_H

#include "brevi_export.h"
#include "persistent/spoollayout.h"

#include <QString>
#include <QStringList>

namespace Brevi {

// What a check of a spool found.
struct SpoolReport {
    // The state file was there and 48 bytes long (the states are from it).
    bool stateRead = false;
    SpoolState write;
    SpoolState read;
    // Data files walked, and the data records found between the read state
    // and the write state.
    quint64 files = 0;
    quint64 records = 0;
    // One line per fault; empty for a sound spool.
    QStringList problems;

    bool sound() const { return stateRead && problems.isEmpty(); }
};

// A read-only check of a spool on disk (persistent/spoollayout.h), for tests
// and inspection. It reads the files without the classes that write them, so
// that a fault in those cannot hide itself, and must not run while a writer or
// reader is at work on the spool.
//
// A sound spool: a whole state file whose read state is not ahead of its write
// state; every data file from the read state's to the write state's; from the
// read state on, well-formed records only, each file but the last ending in a
// next-file record that names the next number and is the file's last byte,
// and the last one's records ending exactly at the write state's offset (what
// lies behind it is a record never counted, and no fault); and as many data
// records in all as the write count less the read count.
class BREVI_EXPORT SpoolCheck
{
public:
    static bool check(const QString& base, SpoolReport& report);
};

} // namespace Brevi

#endif
