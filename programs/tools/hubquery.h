#ifndef PROGRAMS_TOOLS_HUBQUERY_H
#define PROGRAMS_TOOLS_HUBQUERY_H

#include "core/sharedmemoryid.h"
#include "core/sharedmemoryuser.h"
#include "core/trace.h"
#include "core/xmllist.h"
#include "messaging/msgaddress.h"

#include <QList>
#include <QString>

namespace Brevi {

// One process as the Hub's monitor reply lists it: live, or ended with its
// trace buffer still kept ("Exited").
struct MonitorEntry {
    // The Hub's registration number: never given twice, live or ended.
    unsigned id = 0;
    unsigned processId = 0;
    unsigned osPid = 0;
    unsigned contextId = 0;
    QString state;
    QString title;
    QString name;
    QString group;
    // Invalid when the process has no shared trace buffer.
    SharedMemoryId traceId;
    // Milliseconds since 1970.
    unsigned long long startTime = 0;
    // The process that had the Hub start this one, in MsgAddress's XmlList
    // form; empty for a process started otherwise.
    XmlList parentAddress;

    bool live() const;
    // "name" or "name/group"; empty for a process without a name.
    QString nameAndGroup() const;
    // How a person calls it: name/group, else the title with the ProcessId.
    QString label() const;
    // Where messages reach it, and where its own come from: by name for a
    // named process (its messages carry that address), else by number.
    MsgAddress address() const;
    // Whether `candidate` is the address in `parentAddress`.
    bool startedBy(const MonitorEntry& candidate) const;
    // Maps the process's trace buffer into this process, to read its records
    // or set its levels; a null user, with `error`, when it has none, when
    // the Hub has let it go, or when it is too small to be one.
    SharedMemoryUser traceBuffer(QString& error) const;
    // Reads one nested entry of the reply; keys that are missing stay empty.
    static MonitorEntry fromXml(const XmlList& entry);
};

// What a command-line tool asks of the Hub, from inside an attached context
// (see ToolCommon::runAttached): the process list, and the global trace level.
//
// The process list is the Hub's HubMgrMonitorRequest answer: its live
// processes in order of attach, then the ended ones whose trace buffers it
// still keeps. The tool's own process is left out.
//
// Failure: false, with `error` saying why in words for the person at the
// terminal.
//
// Threads: the thread of the tool's context.
class HubQuery
{
public:
    // Asks for the process list, waiting up to `seconds` for the answer.
    bool refresh(int seconds = 10);
    const QList<MonitorEntry>& entries() const { return moEntries; }

    // The live processes the Hub started, directly or not, for `root`, in
    // the order of the list.
    QList<MonitorEntry> descendants(const MonitorEntry& root) const;

    // The process `selector` names, among those of the last refresh: a
    // number is a ProcessId, "pid:<n>" an operating-system pid, "#<n>" the
    // Hub's registration number, any other text a name ("name" or
    // "name/group") or else a title. A live process is preferred to an ended
    // one; among ended ones the latest wins. Null, with `error`, when none
    // matches or several live ones do.
    const MonitorEntry* select(const QString& selector, QString& error) const;

    // HubMgrGlobalTraceLevelPost: the Hub sets `level` on all modules of
    // every live process, and of itself. Returns once the Hub has taken it
    // (a process list asked after it comes back), with the list refreshed.
    bool postGlobalLevel(TraceLevelE level, int seconds = 10);

    const QString& error() const { return msError; }

private:
    bool fail(const QString& error);

    QList<MonitorEntry> moEntries;
    QString msError;
};

} // namespace Brevi

#endif
