#include "processcreator.h"

#include "hubconstants.h"

#include "core/trace.h"
#include "messaging/msgcatalogue.h"
#include "process/spawn.h"

#include <QDir>
#include <QFileInfo>

#include <algorithm>

#include <csignal>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleHub;
using namespace Catalogue;
} // namespace

ProcessCreator::ProcessCreator(const QString& programsDirectory, unsigned hubPort)
    : msDirectory(programsDirectory)
    , muiPort(hubPort)
{}

QString ProcessCreator::start(const Request& request, unsigned long long deadline)
{
    const QString& program = request.program;
    if (program.isEmpty() || program.contains('/') || program == "." || program == "..") {
        BTRACE(TraceAlways) << "Invalid program name" << program;
        return HubMgrCreateProcessReply::StatusInvalid;
    }
    const QString path = QDir(msDirectory).absoluteFilePath(program);
    const QFileInfo info(path);
    if (!info.exists()) {
        BTRACE(TraceAlways) << "Program does not exist" << path;
        return HubMgrCreateProcessReply::StatusDoesNotExist;
    }
    if (!info.isFile() || !info.isExecutable()) {
        BTRACE(TraceAlways) << "Program is not executable" << path;
        return HubMgrCreateProcessReply::StatusNoExecutable;
    }

    Spawn spawn;
    spawn.setProgram(path);
    spawn.addEnvironment(ContextTitleVariable, request.title);
    spawn.addEnvironment(ContextNameVariable, request.name);
    spawn.addEnvironment(ContextGroupVariable, request.name.isEmpty() ? QString() : request.group);
    spawn.addEnvironment(ContextTraceFileVariable, request.traceFile);
    spawn.addEnvironment(QString::fromLatin1(HubConstants::PortVariable), muiPort);
    if (!spawn.spawn() || !spawn) {
        BTRACE(TraceAlways) << "Failed to start" << path << "error" << unsigned(spawn.error());
        return HubMgrCreateProcessReply::StatusSpawnFailed;
    }
    BTRACE(TraceNormal) << "Started" << path << "pid" << spawn.getOSPid() << "for instance" << request.instance;
    moChildren.push_back(Child{spawn.getOSPid(), spawn.getOSHandle()});
    Pending pending;
    pending.request = request;
    pending.osPid = spawn.getOSPid();
    pending.deadline = deadline;
    moPending.push_back(pending);
    return QString();
}

bool ProcessCreator::find(unsigned osPid, Pending& pending) const
{
    const auto it = std::find_if(moPending.begin(), moPending.end(),
                                 [osPid](const Pending& item) { return item.osPid == osPid && !item.processId; });
    if (it == moPending.end())
        return false;
    pending = *it;
    return true;
}

bool ProcessCreator::take(unsigned osPid, Pending& pending)
{
    const auto it = std::find_if(moPending.begin(), moPending.end(),
                                 [osPid](const Pending& item) { return item.osPid == osPid && !item.processId; });
    if (it == moPending.end())
        return false;
    pending = *it;
    moPending.erase(it);
    return true;
}

void ProcessCreator::attached(unsigned osPid, unsigned processId)
{
    for (Pending& item : moPending)
        if (item.osPid == osPid && !item.processId) {
            item.processId = processId;
            return;
        }
}

bool ProcessCreator::takeChild(unsigned processId, Pending& pending)
{
    const auto it = std::find_if(moPending.begin(), moPending.end(),
                                 [processId](const Pending& item) { return item.processId == processId; });
    if (it == moPending.end())
        return false;
    pending = *it;
    moPending.erase(it);
    return true;
}

bool ProcessCreator::running(unsigned osPid) const
{
    for (const Child& child : moChildren)
        if (child.osPid == osPid)
            return child.handle && child.handle->running();
    return false;
}

std::vector<ProcessCreator::Pending> ProcessCreator::expired(unsigned long long now)
{
    std::vector<Pending> result;
    for (auto it = moPending.begin(); it != moPending.end();) {
        const bool alive = running(it->osPid);
        if (alive && now < it->deadline) {
            ++it;
            continue;
        }
        const char* step = it->processId ? "enabled its connection" : "attached";
        if (alive) {
            // Its starter is told it failed: nobody wants it now.
            BTRACE(TraceAlways) << "Process" << it->osPid << "of" << it->request.program << "has not" << step
                                << "in time, ending it";
            ::kill(pid_t(it->osPid), SIGTERM);
        } else {
            BTRACE(TraceAlways) << "Process" << it->osPid << "of" << it->request.program << "ended before it" << step;
        }
        result.push_back(*it);
        it = moPending.erase(it);
    }
    return result;
}

std::vector<ProcessCreator::Pending> ProcessCreator::takeAll()
{
    std::vector<Pending> result;
    result.swap(moPending);
    for (const Pending& pending : result)
        if (running(pending.osPid)) {
            BTRACE(TraceNormal) << "Process" << pending.osPid << "of" << pending.request.program
                                << "has not attached before shutdown, ending it";
            ::kill(pid_t(pending.osPid), SIGTERM);
        }
    return result;
}

bool ProcessCreator::claims(const QString& name, const QString& group) const
{
    if (name.isEmpty())
        return false;
    return std::any_of(moPending.begin(), moPending.end(),
                       [&](const Pending& item) { return item.request.name == name && item.request.group == group; });
}

void ProcessCreator::forget(unsigned requester)
{
    moPending.erase(std::remove_if(moPending.begin(), moPending.end(),
                                   [requester](const Pending& item) { return item.request.requester == requester; }),
                    moPending.end());
}

bool ProcessCreator::reap()
{
    for (auto it = moChildren.begin(); it != moChildren.end();) {
        if (!it->handle || !it->handle->running()) {
            int code = 0;
            int signal = 0;
            if (it->handle && it->handle->wait(&code, &signal))
                BTRACE(TraceNormal) << "Child" << it->osPid << "ended, exit code" << code << "signal" << signal;
            it = moChildren.erase(it);
        } else {
            ++it;
        }
    }
    return !moChildren.empty();
}

} // namespace Brevi
