#include "process/processcreate.h"

#include "core/context.h"
#include "core/machinename.h"
#include "core/trace.h"
#include "core/xmllist.h"
#include "messaging/managemsghandlers.h"
#include "messaging/msg.h"
#include "messaging/msgcatalogue.h"
#include "messaging/msgroute.h"

#include <boost/bind/bind.hpp>
#include <boost/make_shared.hpp>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModuleProcessCreate;
using namespace Catalogue;

// The local Hub's router, reached over this process's own link whatever
// machine the request went to: it is the one that tells this process when a
// watched process (here the target's manager) has gone.
MsgAddress localRouter() { return MsgAddress(eMsgAddressHub, eWellKnownHubRouter); }

MsgHandlerPointer bound(ProcessCreate* object, MsgResult (ProcessCreate::*member)(const Msg&))
{
    return boost::make_shared<MsgHandlerFunction>(boost::bind(member, object, boost::placeholders::_1));
}

// Sends HubRtrRegisterNotifyOnExitPost or HubRtrUnregisterNotifyOnExitPost
// for `watched`. Both posts carry the same key.
void notifyOnExit(const QString& name, const MsgAddress& watched)
{
    Msg post(localRouter(), name);
    post.set(HubRtrRegisterNotifyOnExitPost::Address, watched.toXml());
    if (!post.send())
        BTRACE(TraceNormal) << "Failed to send" << name << "for" << watched;
}
} // namespace

ProcessCreate::ProcessCreate(const MachineName& machine, const QString& program, const QString& title,
                             const QString& name, const QString& group)
    : msProgram(program)
    , muiInstance(Context::uniqueId())
    , meResult(eCreated)
{
    if (!checkArguments(machine, program))
        return;
    moManagerAddress = MsgAddress(machine, eWellKnownHubManager);
    moRouterAddress = MsgAddress(machine, eWellKnownHubRouter);
    doProcessCreate(title, name, group);
}

ProcessCreate::ProcessCreate(const MsgRoute& route, const QString& program, const QString& title, const QString& name,
                             const QString& group)
    : msProgram(program)
    , muiInstance(Context::uniqueId())
    , meResult(eCreated)
{
    if (!checkArguments(route.destination(), program))
        return;
    moManagerAddress = MsgAddress(route, eWellKnownHubManager);
    moRouterAddress = MsgAddress(route, eWellKnownHubRouter);
    doProcessCreate(title, name, group);
}

// A copy never takes part in an exchange: the handlers of the original were
// bound to the original and have gone with the end of its constructor.
ProcessCreate::ProcessCreate(const ProcessCreate& other) = default;
ProcessCreate& ProcessCreate::operator=(const ProcessCreate& other) = default;
ProcessCreate::~ProcessCreate() = default;

bool ProcessCreate::checkArguments(const MachineName& target, const QString& program)
{
    if (!target.isEmpty() && !program.isEmpty())
        return true;
    BTRACE(TraceAlways) << "Invalid argument(s)"
                        << "machine" << target.string() << "program" << program;
    meResult = eInvalidArguments;
    return false;
}

void ProcessCreate::doProcessCreate(const QString& title, const QString& name, const QString& group)
{
    BTRACE(TraceNormal) << "IN:doProcessCreate" << msProgram << "instance" << muiInstance << "on" << moManagerAddress;

    Msg request(moManagerAddress, HubMgrCreateProcessRequest::Message, XmlList());
    request.set(HubMgrCreateProcessRequest::Program, msProgram);
    request.set(HubMgrCreateProcessRequest::Instance, muiInstance);
    if (!title.isEmpty())
        request.set(HubMgrCreateProcessRequest::Title, title);
    if (!name.isEmpty()) {
        request.set(HubMgrCreateProcessRequest::Name, name);
        if (!group.isEmpty())
            request.set(HubMgrCreateProcessRequest::Group, group);
    }
    if (!request.send()) {
        BTRACE(TraceAlways) << "Failed to send create process request" << msProgram << "to" << moManagerAddress;
        meResult = eSendFailed;
        return;
    }

    // Registered after the send: nothing is dispatched before the wait below,
    // so the answer cannot slip past them.
    {
        ManageMsgHandlers handlers;
        handlers.add(HubRtrUndeliverableMessagePost::Message, bound(this, &ProcessCreate::handlerUndeliverable));
        handlers.add(HubRtrProcessExitedPost::Message, bound(this, &ProcessCreate::handlerProcessExited));
        handlers.add(HubMgrCreateProcessReply::Message, bound(this, &ProcessCreate::handlerProcessCreateReply));

        notifyOnExit(HubRtrRegisterNotifyOnExitPost::Message, moManagerAddress);

        const MsgResult waited = Msg::wait(*this, -1);
        if (waited != eMsgResultOk) {
            BTRACE(TraceAlways) << "Wait for create process reply failed" << int(waited);
            meResult = eWaitFailed;
        }

        notifyOnExit(HubRtrUnregisterNotifyOnExitPost::Message, moManagerAddress);
    }

    BTRACE(TraceNormal) << "OUT:doProcessCreate ," << msProgram << "result" << unsigned(meResult) << "address"
                        << moCreatedAddress;
}

MsgResult ProcessCreate::handlerProcessCreateReply(const Msg& message)
{
    if (mbDone)
        return eMsgResultNotHandled;
    if (message.source() != moRouterAddress && message.source() != moManagerAddress)
        return eMsgResultNotHandled;
    if (message.getUint32(HubMgrCreateProcessReply::Instance) != muiInstance)
        return eMsgResultNotHandled; // another request of this process

    const QString status = message.getString(HubMgrCreateProcessReply::Status);
    if (status == HubMgrCreateProcessReply::StatusSuccess) {
        moCreatedAddress = MsgAddress(message.getXmlList(HubMgrCreateProcessReply::Address));
        if (moCreatedAddress) {
            finish(eCreated);
        } else {
            // Nothing to talk to: as good as a failure, and the boolean test
            // agrees with error().
            BTRACE(TraceAlways) << "Reply status" << status << "without a valid address";
            finish(eOtherFailure);
        }
        return eMsgResultHandled;
    }

    BTRACE(TraceVerbose) << "Reply status" << status;
    if (status == HubMgrCreateProcessReply::StatusInvalid)
        finish(eInvalid);
    else if (status == HubMgrCreateProcessReply::StatusDoesNotExist)
        finish(eDoesNotExist);
    else if (status == HubMgrCreateProcessReply::StatusSpawnFailed)
        finish(eSpawnFailed);
    else if (status == HubMgrCreateProcessReply::StatusExecuteFailed)
        finish(eExecuteFailed);
    else if (status == HubMgrCreateProcessReply::StatusNameConflict)
        finish(eNameConflict);
    else
        finish(eOtherFailure);
    return eMsgResultHandled;
}

MsgResult ProcessCreate::handlerUndeliverable(const Msg& message)
{
    if (mbDone || message.source().id() != eWellKnownHubRouter)
        return eMsgResultNotHandled;
    if (MsgAddress(message.getXmlList(HubRtrUndeliverableMessagePost::Destination)) != moManagerAddress)
        return eMsgResultNotHandled;
    // The returned request itself tells whose it was: any other request of
    // this process to the same manager may be the one that bounced.
    const XmlList body = message.getXmlList(HubRtrUndeliverableMessagePost::Body);
    unsigned instance = 0;
    QString program;
    body.get(instance, HubMgrCreateProcessRequest::Instance);
    body.get(program, HubMgrCreateProcessRequest::Program);
    if (instance != muiInstance || program != msProgram)
        return eMsgResultNotHandled;
    BTRACE(TraceNormal) << "Create process request undeliverable to" << moManagerAddress;
    finish(eUnavailable);
    return eMsgResultHandled;
}

MsgResult ProcessCreate::handlerProcessExited(const Msg& message)
{
    // Never taken: every other watcher of the same manager is to hear of it too.
    if (mbDone || message.source().id() != eWellKnownHubRouter)
        return eMsgResultNotHandled;
    if (MsgAddress(message.getXmlList(HubRtrProcessExitedPost::Address)) == moManagerAddress) {
        BTRACE(TraceDebug) << "Destination machine has become unavailable";
        finish(eUnavailable);
    }
    return eMsgResultNotHandled;
}

void ProcessCreate::finish(Result result)
{
    meResult = result;
    setDone(true);
}

} // namespace Brevi
