#include "processtable.h"

#include "hubconstants.h"

#include "core/trace.h"

#include <algorithm>

#include <unistd.h>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleHub;

void releaseBuffer(ProcessEntry& entry)
{
    entry.traceUser = SharedMemoryUser();
    entry.traceProvider.release();
}
} // namespace

const QString& ProcessEntry::stateWord() const
{
    switch (state) {
    case eStateAttached:
        return HubConstants::StateAttached;
    case eStateEnabled:
        return HubConstants::StateEnabled;
    case eStateReady:
        return HubConstants::StateReady;
    case eStateDetached:
        return HubConstants::StateDetached;
    case eStateExited:
        break;
    }
    return HubConstants::StateExited;
}

QByteArray ProcessEntry::physicalText(const MachineName& machine) const
{
    return "1/" + QByteArray::number(processId) + '/' + machine.toUtf8();
}

ProcessTable::ProcessTable(unsigned keepExited)
    : muiKeepExited(keepExited)
    , muiNextProcessId(HubConstants::FirstProcessId)
{}

ProcessTable::~ProcessTable()
{
    for (const ProcessPointer& entry : moById)
        if (entry->pidfd >= 0)
            ::close(entry->pidfd);
}

unsigned ProcessTable::wellKnownId(const QString& name, const QString& group)
{
    if (group.isEmpty() && name == HubConstants::LogDaemonName)
        return eWellKnownLogDaemon;
    return 0;
}

bool ProcessTable::conflicts(const QString& name, const QString& group) const
{
    return !name.isEmpty() && moByName.contains(qMakePair(name, group));
}

unsigned ProcessTable::nextProcessId()
{
    // Ids run up to the top of 32 bits before they wrap; a live id, a
    // reserved one and 0 are passed over.
    for (;;) {
        const unsigned id = muiNextProcessId++;
        if (muiNextProcessId == 0)
            muiNextProcessId = HubConstants::FirstProcessId;
        if (id >= HubConstants::FirstProcessId && !moById.contains(id))
            return id;
    }
}

ProcessPointer ProcessTable::add(const ProcessPointer& entry)
{
    if (conflicts(entry->name, entry->group))
        return ProcessPointer();
    const unsigned wellKnown = wellKnownId(entry->name, entry->group);
    entry->processId = wellKnown && !moById.contains(wellKnown) ? wellKnown : nextProcessId();
    entry->serial = muiNextSerial++;
    moById.insert(entry->processId, entry);
    if (!entry->name.isEmpty())
        moByName.insert(qMakePair(entry->name, entry->group), entry->processId);
    return entry;
}

bool ProcessTable::remove(unsigned processId)
{
    const ProcessPointer entry = moById.take(processId);
    if (!entry)
        return false;
    if (!entry->name.isEmpty())
        moByName.remove(qMakePair(entry->name, entry->group));
    entry->state = ProcessEntry::eStateExited;
    entry->linkSerial = 0;
    if (entry->pidfd >= 0) {
        ::close(entry->pidfd);
        entry->pidfd = -1;
    }
    // Only a trace buffer is worth keeping an ended process for.
    if (muiKeepExited == 0 || !entry->traceProvider) {
        releaseBuffer(*entry);
        return true;
    }
    moExited.push_back(entry);
    while (moExited.size() > muiKeepExited) {
        BTRACE(TraceVerbose) << "Drop the trace buffer of exited process" << moExited.front()->processId
                             << moExited.front()->title;
        releaseBuffer(*moExited.front());
        moExited.pop_front();
    }
    return true;
}

ProcessPointer ProcessTable::byId(unsigned processId) const { return moById.value(processId); }

ProcessPointer ProcessTable::byName(const QString& name, const QString& group) const
{
    const auto it = moByName.constFind(qMakePair(name, group));
    return it == moByName.constEnd() ? ProcessPointer() : moById.value(it.value());
}

ProcessPointer ProcessTable::bySerial(unsigned serial) const
{
    for (const ProcessPointer& entry : moById)
        if (entry->serial == serial)
            return entry;
    return ProcessPointer();
}

std::vector<ProcessPointer> ProcessTable::live() const
{
    std::vector<ProcessPointer> result(moById.cbegin(), moById.cend());
    std::sort(result.begin(), result.end(),
              [](const ProcessPointer& a, const ProcessPointer& b) { return a->serial < b->serial; });
    return result;
}

void ProcessTable::releaseTraceBuffers()
{
    for (const ProcessPointer& entry : moById)
        releaseBuffer(*entry);
    for (const ProcessPointer& entry : moExited)
        releaseBuffer(*entry);
}

} // namespace Brevi
