#ifndef PROGRAMS_LOGDAEMON_LOGQUERY_H
#define PROGRAMS_LOGDAEMON_LOGQUERY_H

#include "logrecord.h"

#include <QList>
#include <QString>

namespace Brevi {

// Which stored records to show: those of one process, those of one category
// (compared without regard to case), those at a level or above (more
// serious), and of what is left only the last so many. With nothing set,
// every record.
//
// A process is named by its title (any case), by its address as the record
// has it ("1/12/node@id"), by its ProcessId ("12", of any machine), or by
// the name a named process sends under ("LogDaemonLocal").
//
// Lines of the store that are not records (a line cut short by a crash) are
// counted and skipped, never shown.
struct LogQuery {
    bool mbProcess = false;
    QString msProcess;
    bool mbCategory = false;
    QString msCategory;
    bool mbLevel = false;
    unsigned muiLevel = 0;
    // Negative: no limit.
    int miTail = -1;

    bool matches(const LogRecord& record) const;
    bool fromProcess(const LogRecord& record) const;

    // The matching records of the store at `path`, its older files first,
    // in file order. False with `error` set when a file cannot be read; a
    // store that does not exist yet holds no records and is no error.
    bool run(const QString& path, QList<LogRecord>& records, QString& error, int* skipped = nullptr) const;
};

} // namespace Brevi

#endif
