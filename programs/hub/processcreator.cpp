#include "processcreator.h"

#include "hubconstants.h"

#include "core/trace.h"
#include "messaging/msgcatalogue.h"
#include "process/spawn.h"

#include <QDir>
#include <QFileInfo>

#include <algorithm>
#include <chrono>

#include <cerrno>
#include <csignal>

#include <poll.h>

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
    spawn.setProcessGroup();
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
            end(it->osPid, now);
        } else {
            BTRACE(TraceAlways) << "Process" << it->osPid << "of" << it->request.program << "ended before it" << step;
        }
        result.push_back(*it);
        it = moPending.erase(it);
    }
    return result;
}

std::vector<ProcessCreator::Pending> ProcessCreator::takeAll(unsigned long long now)
{
    std::vector<Pending> result;
    result.swap(moPending);
    for (const Pending& pending : result)
        if (running(pending.osPid)) {
            BTRACE(TraceNormal) << "Process" << pending.osPid << "of" << pending.request.program
                                << "has not attached before shutdown, ending it";
            end(pending.osPid, now);
        }
    return result;
}

void ProcessCreator::end(unsigned osPid, unsigned long long now)
{
    for (Child& child : moChildren)
        if (child.osPid == osPid && !child.killAt) {
            // The child is not collected before its group is killed: until
            // then its pid names the group and nothing else.
            ::kill(-pid_t(osPid), SIGTERM);
            child.killAt = now + GraceMs;
        }
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

bool ProcessCreator::reap(unsigned long long now)
{
    for (auto it = moChildren.begin(); it != moChildren.end();) {
        if (it->killAt && now >= it->killAt) {
            // Whatever of the group is still there ignored SIGTERM.
            ::kill(-pid_t(it->osPid), SIGKILL);
            it->killAt = 0;
        }
        if (!it->killAt && (!it->handle || !it->handle->running())) {
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

void ProcessCreator::endAll(unsigned graceMs)
{
    if (moChildren.empty())
        return;
    BTRACE(TraceNormal) << "Ending the process groups of" << unsigned(moChildren.size()) << "children";
    std::vector<pollfd> ends;
    for (const Child& child : moChildren) {
        if (!child.killAt)
            ::kill(-pid_t(child.osPid), SIGTERM);
        if (child.handle && child.handle->isValid())
            ends.push_back(pollfd{child.handle->get(), POLLIN, 0});
    }
    // Each child's pidfd becomes readable when it ends; the wait ends with
    // the last of them, or with the grace time.
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        int waiting = 0;
        for (pollfd& end : ends)
            if (end.fd >= 0) {
                end.revents = 0;
                ++waiting;
            }
        const auto spent =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
        if (waiting == 0 || spent >= graceMs)
            break;
        if (::poll(ends.data(), ends.size(), int(graceMs - spent)) < 0 && errno != EINTR)
            break;
        for (pollfd& end : ends)
            if (end.revents)
                end.fd = -1;
    }
    for (Child& child : moChildren) {
        ::kill(-pid_t(child.osPid), SIGKILL);
        child.killAt = 0;
        int code = 0;
        int signal = 0;
        if (child.handle && child.handle->wait(&code, &signal))
            BTRACE(TraceNormal) << "Child" << child.osPid << "ended, exit code" << code << "signal" << signal;
    }
    moChildren.clear();
}

} // namespace Brevi
