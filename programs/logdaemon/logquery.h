#ifndef PROGRAMS_LOGDAEMON_LOGQUERY_H
#define PROGRAMS_LOGDAEMON_LOGQUERY_H

#include "logrecord.h"

#include <QString>
#include <QStringList>

namespace Brevi {

// Which stored records to show: those of one category (compared without
// regard to case), those at a level or above (more serious), and of what is
// left only the last so many. With nothing set, every record.
//
// Lines of the store that are not records (a line cut short by a crash) are
// counted and skipped, never shown.
struct LogQuery {
    bool mbCategory = false;
    QString msCategory;
    bool mbLevel = false;
    unsigned muiLevel = 0;
    // Negative: no limit.
    int miTail = -1;

    bool matches(const LogRecord& record) const;

    // The matching lines of the store at `path`, in file order. False with
    // `error` set when the file cannot be read; a file that does not exist
    // yet holds no records and is no error.
    bool run(const QString& path, QStringList& lines, QString& error, int* skipped = nullptr) const;
};

} // namespace Brevi

#endif
