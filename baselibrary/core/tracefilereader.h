#ifndef BASELIBRARY_CORE_TRACEFILEREADER_H
#define BASELIBRARY_CORE_TRACEFILEREADER_H

#include "core/tracedumpentry.h"

#include <QFile>

#include <boost/shared_ptr.hpp>

namespace Brevi {

// Reads a binary trace file (TraceFileBinary) back, one record at a time.
//
// Such a file holds each ring record without its 17-byte header: a 32-bit
// little-endian length, then that many bytes from the record's time field to
// its end mark. Sequence numbers are not in the file; entries are numbered in
// file order from 1. A truncated last record ends the file: atEnd() is then
// true and truncated() tells why.
class BREVI_EXPORT TraceFileReader
{
public:
    explicit TraceFileReader(const QString& path);

    bool isOpen() const { return moFile.isOpen(); }
    QString errorString() const { return moFile.errorString(); }
    // The next record, or an empty pointer at the end of the file.
    boost::shared_ptr<TraceDumpEntry> next();
    bool truncated() const { return mbTruncated; }

private:
    QFile moFile;
    unsigned muiSequence = 0;
    bool mbTruncated = false;
};

} // namespace Brevi

#endif
