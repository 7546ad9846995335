#ifndef PROGRAMS_HUB_PROCESSTABLE_H
#define PROGRAMS_HUB_PROCESSTABLE_H

#include "core/machinename.h"
#include "core/sharedmemoryprovider.h"
#include "core/sharedmemoryuser.h"
#include "core/xmllist.h"

#include <QHash>
#include <QPair>
#include <QString>

#include <boost/shared_ptr.hpp>

#include <deque>
#include <vector>

namespace Brevi {

// One process as the Hub knows it, from its attach to its end.
struct ProcessEntry {
    enum Kind { eAttached, eMonitored };
    enum State {
        // Attached, not yet enabled: it may speak only to the Hub.
        eStateAttached,
        eStateEnabled,
        // Enabled and ready (it said so, or never promised to).
        eStateReady,
        // A monitored process that has dropped its link and runs on.
        eStateDetached,
        eStateExited
    };

    // The Hub's registration number ("Id" in monitor messages), never reused.
    unsigned serial = 0;
    unsigned processId = 0;
    unsigned osPid = 0;
    unsigned contextId = 0;
    Kind kind = eAttached;
    State state = eStateAttached;
    QString title;
    QString name;
    QString group;
    // The attach request's promises.
    bool notifyReady = false;
    bool persistent = false;
    // Milliseconds since 1970.
    unsigned long long startTime = 0;
    // The link it speaks over; 0 once that has gone.
    unsigned linkSerial = 0;
    // The process that asked the Hub to start this one, as its address's
    // XmlList form; empty when nobody did.
    XmlList parentAddress;
    // The shared trace buffer: the name and the Hub's own mapping of it, to
    // read the trace and set its levels.
    SharedMemoryProvider traceProvider;
    SharedMemoryUser traceUser;
    // A pidfd on a monitored process, to learn when it ends; -1 if none.
    int pidfd = -1;

    bool live() const { return state != eStateExited; }
    bool ready() const { return state == eStateReady; }
    bool enabled() const { return state == eStateEnabled || state == eStateReady; }
    // The state word of the monitor messages.
    const QString& stateWord() const;
    // The address by which this process is found: "1/<id>/<machine>".
    QByteArray physicalText(const MachineName& machine) const;
};

typedef boost::shared_ptr<ProcessEntry> ProcessPointer;

// The processes of the machine: the live ones by ProcessId and by name and
// group, and the ended ones whose trace buffers are still kept.
//
// It hands out ProcessIds (see hubconstants.h: well-known names get their
// well-known id, everyone else a number never given before) and enforces that
// no two live processes share a name and group. An ended process moves to the
// list of exited ones; when that list is longer than the number to keep, the
// oldest is dropped and its trace buffer's name removed.
//
// Threads: the Hub's one thread.
class ProcessTable
{
public:
    explicit ProcessTable(unsigned keepExited);
    ~ProcessTable();
    ProcessTable(const ProcessTable&) = delete;
    ProcessTable& operator=(const ProcessTable&) = delete;

    // True when a live process has this name and group; an empty name never
    // conflicts.
    bool conflicts(const QString& name, const QString& group) const;
    // Registers a new process: gives it its serial and ProcessId. Null, with
    // nothing registered, when its name and group are taken.
    ProcessPointer add(const ProcessPointer& entry);
    // Marks the process ended and moves it to the exited list. Returns false
    // if it was not live.
    bool remove(unsigned processId);

    // Live processes only; null when there is none.
    ProcessPointer byId(unsigned processId) const;
    ProcessPointer byName(const QString& name, const QString& group) const;
    ProcessPointer bySerial(unsigned serial) const;

    // In order of attach.
    std::vector<ProcessPointer> live() const;
    const std::deque<ProcessPointer>& exited() const { return moExited; }

    // The well-known id of a name, 0 for any other. The group must be empty.
    static unsigned wellKnownId(const QString& name, const QString& group);

    // Removes the names of every trace buffer, live and exited: what the Hub
    // does on its way out, so that nothing outlives it in shared memory.
    void releaseTraceBuffers();

private:
    unsigned nextProcessId();

    QHash<unsigned, ProcessPointer> moById;
    QHash<QPair<QString, QString>, unsigned> moByName;
    std::deque<ProcessPointer> moExited;
    unsigned muiKeepExited;
    unsigned muiNextSerial = 1;
    unsigned muiNextProcessId;
};

} // namespace Brevi

#endif
