#ifndef BASELIBRARY_MESSAGING_MSGCATALOGUE_H
#define BASELIBRARY_MESSAGING_MSGCATALOGUE_H

#include <QString>

// The vocabulary every process of the system speaks: each message name and each
// body key, once. The texts are what travels, exact and case-sensitive; a key
// that reads oddly (DataSizePrfix, "Shared Memory  Window Size" with two
// blanks, "LogDaemonChanging filter") reads so in every program and must stay.
//
// A message is a namespace named after it: Message is its name, and its keys
// stand beside it, in body order:
//     Msg request(hub, HubMgrAttachRequest::Message, body);
//     body.set(HubMgrAttachRequest::Title, title);
// Request wants a Reply; Post wants none. Words that belong to no single
// message stand in groups of their own (NodeKey, LogKey, LogAttachment...).

namespace Brevi {
namespace Catalogue {

// ---------------------------------------------------------------------------
// Words every source file shares.

inline const QString BreviObjectName = QStringLiteral("BreviObjectName");
inline const QString TrueWord = QStringLiteral("true");
inline const QString FalseWord = QStringLiteral("false");
inline const QString SharedMemoryIdKey = QStringLiteral("Shared Memory Id");
inline const QString SharedMemorySizeKey = QStringLiteral("Shared Memory Size");
inline const QString SharedMemoryWindowOffsetKey = QStringLiteral("Shared Memory Window Offset");
inline const QString SharedMemoryWindowSizeKey = QStringLiteral("Shared Memory  Window Size");
inline const QString DefaultTraceLevel = QStringLiteral("DefaultTraceLevel");
inline const QString BoolTraceToFile = QStringLiteral("BoolTraceToFile");
inline const QString DefaultTraceLinesPerFile = QStringLiteral("DefaultTraceLinesPerFile");
inline const QString DefaultTraceFilesToKeep = QStringLiteral("DefaultTraceFilesToKeep");
inline const QString ContextTitleVariable = QStringLiteral("BREVI_CONTEXT_TITLE");
inline const QString ContextNameVariable = QStringLiteral("BREVI_CONTEXT_NAME");
inline const QString ContextGroupVariable = QStringLiteral("BREVI_CONTEXT_GROUP");
inline const QString ContextTraceFileVariable = QStringLiteral("BREVI_CONTEXT_TRACE_FILE");

// ---------------------------------------------------------------------------
// Between contexts of one process.

namespace MsgConnectedPost {
inline const QString Message = QStringLiteral("MsgConnectedPost");
} // namespace MsgConnectedPost
namespace MsgDisconnectedPost {
inline const QString Message = QStringLiteral("MsgDisconnectedPost");
} // namespace MsgDisconnectedPost
namespace MsgIpcClosedPost {
inline const QString Message = QStringLiteral("MsgIpcClosedPost");
} // namespace MsgIpcClosedPost

// ---------------------------------------------------------------------------
// The Hub's process manager. Keys are in body order.

namespace HubMgrAttachRequest {
inline const QString Message = QStringLiteral("HubMgrAttachRequest");
inline const QString Type = QStringLiteral("Type");
inline const QString Title = QStringLiteral("Title");
inline const QString OSPid = QStringLiteral("OSPid");
inline const QString ContextId = QStringLiteral("ContextId");
inline const QString Group = QStringLiteral("Group");
inline const QString Name = QStringLiteral("Name");
inline const QString NotifyReady = QStringLiteral("NotifyReady");
inline const QString WaitForDisconnect = QStringLiteral("WaitForDisconnect");
inline const QString DoNotWaitAtStartOfDay = QStringLiteral("DoNotWaitAtStartOfDay");
inline const QString WaitForEndOfDay = QStringLiteral("WaitForEndOfDay");
inline const QString Persistent = QStringLiteral("Persistent");
inline const QString TypeAttached = QStringLiteral("Attached");
inline const QString TypeMonitored = QStringLiteral("Monitored");
} // namespace HubMgrAttachRequest
namespace HubMgrAttachReply {
inline const QString Message = QStringLiteral("HubMgrAttachReply");
inline const QString ProcessId = QStringLiteral("ProcessId");
inline const QString MachineName = QStringLiteral("MachineName");
inline const QString ParentAddress = QStringLiteral("ParentAddress");
} // namespace HubMgrAttachReply
namespace HubMgrTraceBufferRequest {
inline const QString Message = QStringLiteral("HubMgrTraceBufferRequest");
} // namespace HubMgrTraceBufferRequest
namespace HubMgrTraceBufferReply {
inline const QString Message = QStringLiteral("HubMgrTraceBufferReply");
inline const QString Id = QStringLiteral("Id");
} // namespace HubMgrTraceBufferReply
namespace HubMgrSetTitlePost {
inline const QString Message = QStringLiteral("HubMgrSetTitlePost");
inline const QString Title = QStringLiteral("Title");
} // namespace HubMgrSetTitlePost
namespace HubMgrMonitorRequest {
inline const QString Message = QStringLiteral("HubMgrMonitorRequest");
} // namespace HubMgrMonitorRequest
namespace HubMgrMonitorReply {
inline const QString Message = QStringLiteral("HubMgrMonitorReply");
inline const QString EntryCount = QStringLiteral("EntryCount");
inline const QString Id = QStringLiteral("Id");
inline const QString ProcessId = QStringLiteral("ProcessId");
inline const QString OSPid = QStringLiteral("OSPid");
inline const QString ContextId = QStringLiteral("ContextId");
inline const QString State = QStringLiteral("State");
inline const QString Title = QStringLiteral("Title");
inline const QString TraceId = QStringLiteral("TraceId");
inline const QString StartTime = QStringLiteral("StartTime");
inline const QString Group = QStringLiteral("Group");
inline const QString Name = QStringLiteral("Name");
} // namespace HubMgrMonitorReply
namespace HubMgrMonitorProcessChangePost {
inline const QString Message = QStringLiteral("HubMgrMonitorProcessChangePost");
inline const QString Id = QStringLiteral("Id");
inline const QString ProcessId = QStringLiteral("ProcessId");
inline const QString State = QStringLiteral("State");
inline const QString Title = QStringLiteral("Title");
} // namespace HubMgrMonitorProcessChangePost
namespace HubMgrMonitorProcessNewPost {
inline const QString Message = QStringLiteral("HubMgrMonitorProcessNewPost");
inline const QString Id = QStringLiteral("Id");
inline const QString ProcessId = QStringLiteral("ProcessId");
inline const QString OSPid = QStringLiteral("OSPid");
inline const QString ContextId = QStringLiteral("ContextId");
inline const QString State = QStringLiteral("State");
inline const QString Title = QStringLiteral("Title");
inline const QString TraceId = QStringLiteral("TraceId");
inline const QString StartTime = QStringLiteral("StartTime");
inline const QString Group = QStringLiteral("Group");
inline const QString Name = QStringLiteral("Name");
} // namespace HubMgrMonitorProcessNewPost
namespace HubMgrMonitorProcessEndPost {
inline const QString Message = QStringLiteral("HubMgrMonitorProcessEndPost");
inline const QString Id = QStringLiteral("Id");
inline const QString ProcessId = QStringLiteral("ProcessId");
} // namespace HubMgrMonitorProcessEndPost
namespace HubMgrCreateProcessRequest {
inline const QString Message = QStringLiteral("HubMgrCreateProcessRequest");
inline const QString Program = QStringLiteral("Program");
inline const QString Instance = QStringLiteral("Instance");
inline const QString Name = QStringLiteral("Name");
inline const QString Group = QStringLiteral("Group");
inline const QString Title = QStringLiteral("Title");
inline const QString TraceFile = QStringLiteral("TraceFile");
} // namespace HubMgrCreateProcessRequest
namespace HubMgrCreateProcessReply {
inline const QString Message = QStringLiteral("HubMgrCreateProcessReply");
inline const QString Instance = QStringLiteral("Instance");
inline const QString Status = QStringLiteral("Status");
inline const QString Address = QStringLiteral("Address");
inline const QString StatusSuccess = QStringLiteral("Success");
inline const QString StatusInvalid = QStringLiteral("Invalid");
inline const QString StatusShutdown = QStringLiteral("Shutdown");
inline const QString StatusDoesNotExist = QStringLiteral("Does Not Exist");
inline const QString StatusNoExecutable = QStringLiteral("No Executable");
inline const QString StatusSpawnFailed = QStringLiteral("Spawn Failed");
inline const QString StatusExecuteFailed = QStringLiteral("Execute Failed");
inline const QString StatusAttachFailed = QStringLiteral("Attach Failed");
inline const QString StatusNameConflict = QStringLiteral("Name Conflict");
} // namespace HubMgrCreateProcessReply
namespace HubMgrNamedProcessListRequest {
inline const QString Message = QStringLiteral("HubMgrNamedProcessListRequest");
} // namespace HubMgrNamedProcessListRequest
namespace HubMgrNamedProcessListReply {
inline const QString Message = QStringLiteral("HubMgrNamedProcessListReply");
inline const QString Entry = QStringLiteral("Entry");
inline const QString Id = QStringLiteral("Id");
inline const QString ProcessId = QStringLiteral("ProcessId");
inline const QString Title = QStringLiteral("Title");
inline const QString Group = QStringLiteral("Group");
inline const QString Name = QStringLiteral("Name");
} // namespace HubMgrNamedProcessListReply
namespace HubMgrContextReadyPost {
inline const QString Message = QStringLiteral("HubMgrContextReadyPost");
} // namespace HubMgrContextReadyPost
namespace HubMgrConnectionEnableRequest {
inline const QString Message = QStringLiteral("HubMgrConnectionEnableRequest");
} // namespace HubMgrConnectionEnableRequest
namespace HubMgrShutdownPost {
inline const QString Message = QStringLiteral("HubMgrShutdownPost");
} // namespace HubMgrShutdownPost
namespace HubMgrGlobalTraceLevelPost {
inline const QString Message = QStringLiteral("HubMgrGlobalTraceLevelPost");
inline const QString Value = QStringLiteral("Value");
} // namespace HubMgrGlobalTraceLevelPost
namespace HubMgrPersistentProcessListRequest {
inline const QString Message = QStringLiteral("HubMgrPersistentProcessListRequest");
} // namespace HubMgrPersistentProcessListRequest
namespace HubMgrPersistentProcessListReply {
inline const QString Message = QStringLiteral("HubMgrPersistentProcessListReply");
inline const QString Entry = QStringLiteral("Entry");
inline const QString Title = QStringLiteral("Title");
inline const QString Running = QStringLiteral("Running");
} // namespace HubMgrPersistentProcessListReply
namespace HubMgrRemovePersistencePost {
inline const QString Message = QStringLiteral("HubMgrRemovePersistencePost");
} // namespace HubMgrRemovePersistencePost

// ---------------------------------------------------------------------------
// The Hub's router.

namespace HubRtrConnectionEnableReply {
inline const QString Message = QStringLiteral("HubRtrConnectionEnableReply");
} // namespace HubRtrConnectionEnableReply
namespace HubRtrConnectionDetachPost {
inline const QString Message = QStringLiteral("HubRtrConnectionDetachPost");
} // namespace HubRtrConnectionDetachPost
namespace HubRtrUndeliverableMessagePost {
inline const QString Message = QStringLiteral("HubRtrUndeliverableMessagePost");
inline const QString Destination = QStringLiteral("Destination");
inline const QString Name = QStringLiteral("Name");
inline const QString Body = QStringLiteral("Body");
inline const QString Cookie = QStringLiteral("Cookie");
} // namespace HubRtrUndeliverableMessagePost
namespace HubRtrUndeliverableDataPost {
inline const QString Message = QStringLiteral("HubRtrUndeliverableDataPost");
inline const QString Destination = QStringLiteral("Destination");
} // namespace HubRtrUndeliverableDataPost
namespace HubRtrShutdownPost {
inline const QString Message = QStringLiteral("HubRtrShutdownPost");
} // namespace HubRtrShutdownPost
namespace HubRtrRegisterNotifyOnExitPost {
inline const QString Message = QStringLiteral("HubRtrRegisterNotifyOnExitPost");
inline const QString Address = QStringLiteral("Address");
} // namespace HubRtrRegisterNotifyOnExitPost
namespace HubRtrUnregisterNotifyOnExitPost {
inline const QString Message = QStringLiteral("HubRtrUnregisterNotifyOnExitPost");
inline const QString Address = QStringLiteral("Address");
} // namespace HubRtrUnregisterNotifyOnExitPost
namespace HubRtrProcessExitedPost {
inline const QString Message = QStringLiteral("HubRtrProcessExitedPost");
inline const QString Address = QStringLiteral("Address");
} // namespace HubRtrProcessExitedPost
namespace HubRtrRegisterNotifyOnReadyPost {
inline const QString Message = QStringLiteral("HubRtrRegisterNotifyOnReadyPost");
inline const QString Address = QStringLiteral("Address");
} // namespace HubRtrRegisterNotifyOnReadyPost
namespace HubRtrUnregisterNotifyOnReadyPost {
inline const QString Message = QStringLiteral("HubRtrUnregisterNotifyOnReadyPost");
inline const QString Address = QStringLiteral("Address");
} // namespace HubRtrUnregisterNotifyOnReadyPost
namespace HubRtrProcessReadyPost {
inline const QString Message = QStringLiteral("HubRtrProcessReadyPost");
inline const QString Address = QStringLiteral("Address");
inline const QString Success = QStringLiteral("Success");
} // namespace HubRtrProcessReadyPost
namespace HubRtrBroadcastMessagePost {
inline const QString Message = QStringLiteral("HubRtrBroadcastMessagePost");
inline const QString Name = QStringLiteral("Name");
inline const QString Cookie = QStringLiteral("Cookie");
inline const QString Body = QStringLiteral("Body");
} // namespace HubRtrBroadcastMessagePost
namespace HubRtrContextDonePost {
inline const QString Message = QStringLiteral("HubRtrContextDonePost");
} // namespace HubRtrContextDonePost

// ---------------------------------------------------------------------------
// The Hub's multiplexer: the links between machines.

namespace HubMpxConnectRequest {
inline const QString Message = QStringLiteral("HubMpxConnectRequest");
} // namespace HubMpxConnectRequest
namespace HubMpxConnectReply {
inline const QString Message = QStringLiteral("HubMpxConnectReply");
inline const QString Defer = QStringLiteral("Defer");
inline const QString Authorized = QStringLiteral("Authorized");
} // namespace HubMpxConnectReply
namespace HubMpxRegisterNotifyMachineStatePost {
inline const QString Message = QStringLiteral("HubMpxRegisterNotifyMachineStatePost");
inline const QString Route = QStringLiteral("Route");
inline const QString Id = QStringLiteral("Id");
} // namespace HubMpxRegisterNotifyMachineStatePost
namespace HubMpxUnregisterNotifyMachineStatePost {
inline const QString Message = QStringLiteral("HubMpxUnregisterNotifyMachineStatePost");
inline const QString Name = QStringLiteral("Name");
inline const QString Route = QStringLiteral("Route");
} // namespace HubMpxUnregisterNotifyMachineStatePost
namespace HubMpxMachineStatePost {
inline const QString Message = QStringLiteral("HubMpxMachineStatePost");
inline const QString Route = QStringLiteral("Route");
inline const QString State = QStringLiteral("State");
inline const QString StateUnavailable = QStringLiteral("Unavailable");
inline const QString StateConnecting = QStringLiteral("Connecting");
inline const QString StateAuthorized = QStringLiteral("Authorized");
inline const QString StateUnauthorized = QStringLiteral("Unauthorized");
inline const QString StateConnected = QStringLiteral("Connected");
inline const QString StateDisconnecting = QStringLiteral("Disconnecting");
inline const QString StateUnknown = QStringLiteral("Unknown");
inline const QString StateInvalid = QStringLiteral("Invalid");
} // namespace HubMpxMachineStatePost
namespace HubMpxInstallPost {
inline const QString Message = QStringLiteral("HubMpxInstallPost");
inline const QString Destination = QStringLiteral("Destination");
} // namespace HubMpxInstallPost
namespace HubMpxAddNodeRequest {
inline const QString Message = QStringLiteral("HubMpxAddNodeRequest");
inline const QString Name = QStringLiteral("Name");
inline const QString Data = QStringLiteral("Data");
} // namespace HubMpxAddNodeRequest
namespace HubMpxAddNodeReply {
inline const QString Message = QStringLiteral("HubMpxAddNodeReply");
inline const QString Name = QStringLiteral("Name");
inline const QString Success = QStringLiteral("Success");
} // namespace HubMpxAddNodeReply
namespace HubMpxUpdateNodeRequest {
inline const QString Message = QStringLiteral("HubMpxUpdateNodeRequest");
inline const QString Name = QStringLiteral("Name");
inline const QString Data = QStringLiteral("Data");
} // namespace HubMpxUpdateNodeRequest
namespace HubMpxUpdateNodeReply {
inline const QString Message = QStringLiteral("HubMpxUpdateNodeReply");
inline const QString Name = QStringLiteral("Name");
inline const QString Success = QStringLiteral("Success");
} // namespace HubMpxUpdateNodeReply
namespace HubMpxRemoveNodeRequest {
inline const QString Message = QStringLiteral("HubMpxRemoveNodeRequest");
inline const QString Name = QStringLiteral("Name");
} // namespace HubMpxRemoveNodeRequest
namespace HubMpxRemoveNodeReply {
inline const QString Message = QStringLiteral("HubMpxRemoveNodeReply");
inline const QString Name = QStringLiteral("Name");
inline const QString Success = QStringLiteral("Success");
} // namespace HubMpxRemoveNodeReply
namespace HubMpxProbePost {
inline const QString Message = QStringLiteral("HubMpxProbePost");
inline const QString DestinationDetails = QStringLiteral("Destination Details");
} // namespace HubMpxProbePost
namespace HubMpxPingRequest {
inline const QString Message = QStringLiteral("HubMpxPingRequest");
} // namespace HubMpxPingRequest
namespace HubMpxPingReply {
inline const QString Message = QStringLiteral("HubMpxPingReply");
inline const QString Authorized = QStringLiteral("Authorized");
} // namespace HubMpxPingReply
namespace HubMpxDisconnectingPost {
inline const QString Message = QStringLiteral("HubMpxDisconnectingPost");
} // namespace HubMpxDisconnectingPost
namespace HubMpxStartNetworkPost {
inline const QString Message = QStringLiteral("HubMpxStartNetworkPost");
} // namespace HubMpxStartNetworkPost
namespace HubMpxKeepAlivePost {
inline const QString Message = QStringLiteral("HubMpxKeepAlivePost");
} // namespace HubMpxKeepAlivePost

// ---------------------------------------------------------------------------
// The Hub's trace writer. A freeze is answered under the request's own name, with Success.

namespace HubWriterExitPost {
inline const QString Message = QStringLiteral("HubWriterExitPost");
} // namespace HubWriterExitPost
namespace HubWriterPost {
inline const QString Message = QStringLiteral("HubWriterPost");
inline const QString Text = QStringLiteral("Text");
} // namespace HubWriterPost
namespace HubWriterFreezeRequest {
inline const QString Message = QStringLiteral("HubWriterFreezeRequest");
inline const QString Success = QStringLiteral("Success");
} // namespace HubWriterFreezeRequest
namespace HubWriterThawRequest {
inline const QString Message = QStringLiteral("HubWriterThawRequest");
} // namespace HubWriterThawRequest

// ---------------------------------------------------------------------------
// The child manager's freeze, thaw and shutdown.

namespace ChildMgrShutdownPost {
inline const QString Message = QStringLiteral("ChildMgrShutdownPost");
} // namespace ChildMgrShutdownPost
namespace ChildMgrFreezeRequest {
inline const QString Message = QStringLiteral("ChildMgrFreezeRequest");
} // namespace ChildMgrFreezeRequest
namespace ChildMgrFreezeReply {
inline const QString Message = QStringLiteral("ChildMgrFreezeReply");
inline const QString Success = QStringLiteral("Success");
inline const QString Reason = QStringLiteral("Reason");
} // namespace ChildMgrFreezeReply
namespace ChildMgrThawRequest {
inline const QString Message = QStringLiteral("ChildMgrThawRequest");
} // namespace ChildMgrThawRequest
namespace ChildMgrThawReply {
inline const QString Message = QStringLiteral("ChildMgrThawReply");
inline const QString Success = QStringLiteral("Success");
inline const QString Reason = QStringLiteral("Reason");
} // namespace ChildMgrThawReply
inline const QString ChildMgrStateStarting = QStringLiteral("Starting");
inline const QString ChildMgrStateShutdown = QStringLiteral("Shutdown");
inline const QString ChildMgrStateFreezing = QStringLiteral("Freezing");
inline const QString ChildMgrStateFrozen = QStringLiteral("Frozen");
inline const QString ChildMgrStateThawing = QStringLiteral("Thawing");
inline const QString ChildMgrStateNotFrozen = QStringLiteral("NotFrozen");
inline const QString ChildMgrStateDidNotFreeze = QStringLiteral("DidNotFreeze");
inline const QString ChildMgrStateFailed = QStringLiteral("Failed");

// ---------------------------------------------------------------------------
// The timer thread of a process.

namespace TimerSetPost {
inline const QString Message = QStringLiteral("TimerSetPost");
inline const QString Name = QStringLiteral("Name");
inline const QString When = QStringLiteral("When");
inline const QString Cookie = QStringLiteral("Cookie");
} // namespace TimerSetPost
namespace TimerCancelPost {
inline const QString Message = QStringLiteral("TimerCancelPost");
inline const QString Name = QStringLiteral("Name");
} // namespace TimerCancelPost
namespace TimerSignalPost {
inline const QString Message = QStringLiteral("TimerSignalPost");
} // namespace TimerSignalPost
namespace TimerShutdownPost {
inline const QString Message = QStringLiteral("TimerShutdownPost");
} // namespace TimerShutdownPost
inline const QString TimerTitleWord = QStringLiteral("Timer");
inline const QString TimerGreeting = QStringLiteral("Hello");

// ---------------------------------------------------------------------------
// The node manager; a master node holds the system's rules and distributes them.

inline const QString NodeManagerService = QStringLiteral("NodeManager");
inline const QString NodeMgrUnnamedMaster = QStringLiteral("NodeMgrUnnamedMaster");
namespace NodeMgrInstallPost {
inline const QString Message = QStringLiteral("NodeMgrInstallPost");
} // namespace NodeMgrInstallPost
namespace NodeMgrProbePost {
inline const QString Message = QStringLiteral("NodeMgrProbePost");
} // namespace NodeMgrProbePost
namespace NodeMgrMasterRequest {
inline const QString Message = QStringLiteral("NodeMgrMasterRequest");
} // namespace NodeMgrMasterRequest
namespace NodeMgrMasterReply {
inline const QString Message = QStringLiteral("NodeMgrMasterReply");
inline const QString Name = QStringLiteral("Name");
} // namespace NodeMgrMasterReply
namespace NodeMgrGetRulesIdRequest {
inline const QString Message = QStringLiteral("NodeMgrGetRulesIdRequest");
} // namespace NodeMgrGetRulesIdRequest
namespace NodeMgrGetRulesIdReply {
inline const QString Message = QStringLiteral("NodeMgrGetRulesIdReply");
inline const QString ActiveRulesId = QStringLiteral("ActiveRulesId");
inline const QString PreviousRules = QStringLiteral("PreviousRules");
inline const QString RulesId = QStringLiteral("RulesId");
} // namespace NodeMgrGetRulesIdReply
namespace NodeMgrRegisterNotifyRulesIdPost {
inline const QString Message = QStringLiteral("NodeMgrRegisterNotifyRulesIdPost");
} // namespace NodeMgrRegisterNotifyRulesIdPost
namespace NodeMgrNotifyRulesIdPost {
inline const QString Message = QStringLiteral("NodeMgrNotifyRulesIdPost");
} // namespace NodeMgrNotifyRulesIdPost
namespace NodeMgrUnregisterNotifyRulesIdPost {
inline const QString Message = QStringLiteral("NodeMgrUnregisterNotifyRulesIdPost");
} // namespace NodeMgrUnregisterNotifyRulesIdPost
namespace NodeMgrRegisterNotifyNetworkRulesIdPost {
inline const QString Message = QStringLiteral("NodeMgrRegisterNotifyNetworkRulesIdPost");
} // namespace NodeMgrRegisterNotifyNetworkRulesIdPost
namespace NodeMgrNotifyNetworkRulesIdPost {
inline const QString Message = QStringLiteral("NodeMgrNotifyNetworkRulesIdPost");
} // namespace NodeMgrNotifyNetworkRulesIdPost
namespace NodeMgrUnregisterNotifyNetworkRulesIdPost {
inline const QString Message = QStringLiteral("NodeMgrUnregisterNotifyNetworkRulesIdPost");
} // namespace NodeMgrUnregisterNotifyNetworkRulesIdPost
namespace NodeInfoRequest {
inline const QString Message = QStringLiteral("NodeInfoRequest");
inline const QString Machines = QStringLiteral("Machines");
inline const QString Machine = QStringLiteral("Machine");
inline const QString Name = QStringLiteral("Name");
inline const QString OsDetails = QStringLiteral("OsDetails");
inline const QString Details = QStringLiteral("Details");
inline const QString AgentlessDetails = QStringLiteral("AgentlessDetails");
} // namespace NodeInfoRequest
namespace NodeInfoReply {
inline const QString Message = QStringLiteral("NodeInfoReply");
inline const QString NodeInfoList = QStringLiteral("NodeInfoList");
} // namespace NodeInfoReply
namespace NodeMgrRegisterNotifyNodeInfoPost {
inline const QString Message = QStringLiteral("NodeMgrRegisterNotifyNodeInfoPost");
} // namespace NodeMgrRegisterNotifyNodeInfoPost
namespace NodeMgrNotifyNodeInfoPost {
inline const QString Message = QStringLiteral("NodeMgrNotifyNodeInfoPost");
} // namespace NodeMgrNotifyNodeInfoPost
namespace NodeMgrUnregisterNotifyNodeInfoPost {
inline const QString Message = QStringLiteral("NodeMgrUnregisterNotifyNodeInfoPost");
} // namespace NodeMgrUnregisterNotifyNodeInfoPost
namespace NodeAuthorizeRequest {
inline const QString Message = QStringLiteral("NodeAuthorizeRequest");
inline const QString Name = QStringLiteral("Name");
inline const QString State = QStringLiteral("State");
inline const QString AwaitValidation = QStringLiteral("AwaitValidation");
} // namespace NodeAuthorizeRequest
namespace NodeAuthorizeReply {
inline const QString Message = QStringLiteral("NodeAuthorizeReply");
inline const QString Result = QStringLiteral("Result");
inline const QString String = QStringLiteral("String");
} // namespace NodeAuthorizeReply
namespace NodeMgrAddAgentlessNodeRequest {
inline const QString Message = QStringLiteral("NodeMgrAddAgentlessNodeRequest");
inline const QString Name = QStringLiteral("Name");
inline const QString NodeDetails = QStringLiteral("NodeDetails");
} // namespace NodeMgrAddAgentlessNodeRequest
namespace NodeMgrAddAgentlessNodeReply {
inline const QString Message = QStringLiteral("NodeMgrAddAgentlessNodeReply");
inline const QString Result = QStringLiteral("Result");
inline const QString String = QStringLiteral("String");
} // namespace NodeMgrAddAgentlessNodeReply
namespace NodeMgrNodeRemoveRequest {
inline const QString Message = QStringLiteral("NodeMgrNodeRemoveRequest");
inline const QString Name = QStringLiteral("Name");
} // namespace NodeMgrNodeRemoveRequest
namespace NodeMgrNodeRemoveReply {
inline const QString Message = QStringLiteral("NodeMgrNodeRemoveReply");
inline const QString Result = QStringLiteral("Result");
inline const QString String = QStringLiteral("String");
} // namespace NodeMgrNodeRemoveReply
namespace DistributeRulesRequest {
inline const QString Message = QStringLiteral("DistributeRulesRequest");
inline const QString RestartType = QStringLiteral("RestartType");
inline const QString RestartAllNodes = QStringLiteral("AllNodes");
inline const QString RestartAllAccessible = QStringLiteral("AllAccessible");
inline const QString RestartImmediate = QStringLiteral("Immediate");
} // namespace DistributeRulesRequest
namespace DistributeRulesReply {
inline const QString Message = QStringLiteral("DistributeRulesReply");
inline const QString Result = QStringLiteral("Result");
inline const QString String = QStringLiteral("String");
inline const QString Log = QStringLiteral("Log");
} // namespace DistributeRulesReply
namespace LatestDistributionRequest {
inline const QString Message = QStringLiteral("LatestDistributionRequest");
} // namespace LatestDistributionRequest
namespace LatestDistributionReply {
inline const QString Message = QStringLiteral("LatestDistributionReply");
inline const QString Result = QStringLiteral("Result");
inline const QString Log = QStringLiteral("Log");
} // namespace LatestDistributionReply
namespace DiscoverNodePost {
inline const QString Message = QStringLiteral("DiscoverNodePost");
inline const QString Discover = QStringLiteral("Discover");
inline const QString Data = QStringLiteral("Data");
} // namespace DiscoverNodePost
namespace NodeMgrRegisterNotifyMasterStatePost {
inline const QString Message = QStringLiteral("NodeMgrRegisterNotifyMasterStatePost");
} // namespace NodeMgrRegisterNotifyMasterStatePost
namespace NodeMgrUnregisterNotifyMasterStatePost {
inline const QString Message = QStringLiteral("NodeMgrUnregisterNotifyMasterStatePost");
} // namespace NodeMgrUnregisterNotifyMasterStatePost
namespace NodeMgrMasterStatePost {
inline const QString Message = QStringLiteral("NodeMgrMasterStatePost");
inline const QString Master = QStringLiteral("Master");
inline const QString Authorized = QStringLiteral("Authorized");
inline const QString State = QStringLiteral("State");
} // namespace NodeMgrMasterStatePost
namespace NodeMgrSetMasterRequest {
inline const QString Message = QStringLiteral("NodeMgrSetMasterRequest");
inline const QString Name = QStringLiteral("Name");
inline const QString Details = QStringLiteral("Details");
inline const QString Force = QStringLiteral("Force");
} // namespace NodeMgrSetMasterRequest
namespace NodeMgrSetMasterReply {
inline const QString Message = QStringLiteral("NodeMgrSetMasterReply");
inline const QString Result = QStringLiteral("Result");
inline const QString String = QStringLiteral("String");
} // namespace NodeMgrSetMasterReply
namespace NodeMgrSetConfigRequest {
inline const QString Message = QStringLiteral("NodeMgrSetConfigRequest");
inline const QString Force = QStringLiteral("Force");
inline const QString Details = QStringLiteral("Details");
inline const QString AddressLists = QStringLiteral("AddressLists");
inline const QString PreferredAddresses = QStringLiteral("PreferredAddresses");
inline const QString BarredAddresses = QStringLiteral("BarredAddresses");
inline const QString FixedAddresses = QStringLiteral("FixedAddresses");
inline const QString RemoveAddresses = QStringLiteral("RemoveAddresses");
inline const QString Capabilities = QStringLiteral("Capabilities");
} // namespace NodeMgrSetConfigRequest
namespace NodeMgrSetConfigReply {
inline const QString Message = QStringLiteral("NodeMgrSetConfigReply");
inline const QString Result = QStringLiteral("Result");
inline const QString String = QStringLiteral("String");
inline const QString Profile = QStringLiteral("Profile");
} // namespace NodeMgrSetConfigReply
namespace DiskSpaceCriticalPost {
inline const QString Message = QStringLiteral("DiskSpaceCriticalPost");
} // namespace DiskSpaceCriticalPost
namespace NodeMgrEnableTempConnectionRequest {
inline const QString Message = QStringLiteral("NodeMgrEnableTempConnectionRequest");
} // namespace NodeMgrEnableTempConnectionRequest
namespace NodeMgrEnableTempConnectionReply {
inline const QString Message = QStringLiteral("NodeMgrEnableTempConnectionReply");
inline const QString TempNodeA = QStringLiteral("TempNodeA");
inline const QString TempNodeB = QStringLiteral("TempNodeB");
inline const QString TempCookie = QStringLiteral("TempCookie");
inline const QString Timeout = QStringLiteral("Timeout");
inline const QString Result = QStringLiteral("Result");
} // namespace NodeMgrEnableTempConnectionReply
namespace NodeMgrDisableTempConnectionRequest {
inline const QString Message = QStringLiteral("NodeMgrDisableTempConnectionRequest");
} // namespace NodeMgrDisableTempConnectionRequest
namespace NodeMgrDisableTempConnectionReply {
inline const QString Message = QStringLiteral("NodeMgrDisableTempConnectionReply");
} // namespace NodeMgrDisableTempConnectionReply
namespace NodeMgrRepositoryFreezeRequest {
inline const QString Message = QStringLiteral("NodeMgrRepositoryFreezeRequest");
} // namespace NodeMgrRepositoryFreezeRequest
namespace NodeMgrRepositoryThawRequest {
inline const QString Message = QStringLiteral("NodeMgrRepositoryThawRequest");
} // namespace NodeMgrRepositoryThawRequest
namespace NodeMgrRepositoryFreezeReply {
inline const QString Message = QStringLiteral("NodeMgrRepositoryFreezeReply");
inline const QString Success = QStringLiteral("Success");
} // namespace NodeMgrRepositoryFreezeReply
namespace NodeMgrRepositoryThawReply {
inline const QString Message = QStringLiteral("NodeMgrRepositoryThawReply");
inline const QString Success = QStringLiteral("Success");
} // namespace NodeMgrRepositoryThawReply
namespace NodeMgrRulesManagerReadyPost {
inline const QString Message = QStringLiteral("NodeMgrRulesManagerReadyPost");
} // namespace NodeMgrRulesManagerReadyPost
namespace NodeKey {
inline const QString OsName = QStringLiteral("OsName");
inline const QString EditionName = QStringLiteral("EditionName");
inline const QString ChassisName = QStringLiteral("ChassisName");
inline const QString OsLevel = QStringLiteral("OsLevel");
inline const QString States = QStringLiteral("States");
inline const QString Capabilities = QStringLiteral("Capabilities");
inline const QString Actualities = QStringLiteral("Actualities");
inline const QString Authorized = QStringLiteral("Authorized");
inline const QString HasRules = QStringLiteral("HasRules");
inline const QString UpToDate = QStringLiteral("UpToDate");
inline const QString HubState = QStringLiteral("HubState");
inline const QString ActiveRules = QStringLiteral("ActiveRules");
inline const QString LatestRules = QStringLiteral("LatestRules");
inline const QString NetworkRules = QStringLiteral("NetworkRules");
inline const QString Agentless = QStringLiteral("Agentless");
inline const QString Temporary = QStringLiteral("Temporary");
inline const QString Filter = QStringLiteral("Filter");
inline const QString FilterAvailable = QStringLiteral("FilterAvailable");
inline const QString Batch = QStringLiteral("Batch");
inline const QString Mirror = QStringLiteral("Mirror");
inline const QString Repository = QStringLiteral("Repository");
inline const QString Backup = QStringLiteral("Backup");
inline const QString DisasterRecovery = QStringLiteral("DisasterRecovery");
inline const QString Forward = QStringLiteral("Forward");
inline const QString Name = QStringLiteral("Name");
inline const QString Type = QStringLiteral("Type");
inline const QString FileName = QStringLiteral("filename");
inline const QString Configuration = QStringLiteral("Configuration");
inline const QString Provider = QStringLiteral("Provider");
inline const QString Address = QStringLiteral("Address");
inline const QString Authorization = QStringLiteral("Authorization");
inline const QString Version = QStringLiteral("Version");
} // namespace NodeKey
inline const QString RulesManagerError = QStringLiteral("RulesManagerError");
inline const QString RulesManagerWarning = QStringLiteral("RulesManagerWarning");
inline const QString RulesManagerInfo = QStringLiteral("RulesManagerInfo");
inline const QString RulesManagerText = QStringLiteral("RulesManagerText");
inline const QString RDFinished = QStringLiteral("RDFinished");
inline const QString RDStatus = QStringLiteral("RDStatus");
inline const QString RDErrorCount = QStringLiteral("RDErrorCount");
inline const QString RCWarningCount = QStringLiteral("RCWarningCount");

// ---------------------------------------------------------------------------
// The log service, local and central.

inline const QString LogDaemonLocalService = QStringLiteral("LogDaemonLocal");
inline const QString LogDaemonService = QStringLiteral("LogDaemon");
namespace LogDaemonErrorLogUpdateRegister {
inline const QString Message = QStringLiteral("LogDaemonErrorLogUpdateRegister");
} // namespace LogDaemonErrorLogUpdateRegister
namespace LogDaemonErrorLogUpdateUnregister {
inline const QString Message = QStringLiteral("LogDaemonErrorLogUpdateUnregister");
} // namespace LogDaemonErrorLogUpdateUnregister
namespace LogDaemonErrorLogUpdateReply {
inline const QString Message = QStringLiteral("LogDaemonErrorLogUpdateReply");
} // namespace LogDaemonErrorLogUpdateReply
namespace LogDaemonNodeName {
inline const QString Message = QStringLiteral("LogDaemonNodeName");
} // namespace LogDaemonNodeName
namespace LogDaemonErrorCount {
inline const QString Message = QStringLiteral("LogDaemonErrorCount");
} // namespace LogDaemonErrorCount
namespace LogDaemonUnclearedErrorCount {
inline const QString Message = QStringLiteral("LogDaemonUnclearedErrorCount");
} // namespace LogDaemonUnclearedErrorCount
namespace LogDaemonRecountErrors {
inline const QString Message = QStringLiteral("LogDaemonRecountErrors");
} // namespace LogDaemonRecountErrors
namespace LogDaemonLocalWriteLog {
inline const QString Message = QStringLiteral("LogDaemonLocalWriteLog");
} // namespace LogDaemonLocalWriteLog
namespace LogDaemonWriteLog {
inline const QString Message = QStringLiteral("LogDaemonWriteLog");
} // namespace LogDaemonWriteLog
namespace LogDaemonBufferedWriteLog {
inline const QString Message = QStringLiteral("LogDaemonBufferedWriteLog");
} // namespace LogDaemonBufferedWriteLog
namespace LogDaemonStartReaderRequest {
inline const QString Message = QStringLiteral("LogDaemonStartReaderRequest");
} // namespace LogDaemonStartReaderRequest
namespace LogDaemonChangeFilterPost {
inline const QString Message = QStringLiteral("LogDaemonChangeFilterPost");
} // namespace LogDaemonChangeFilterPost
namespace LogDaemonAcked {
inline const QString Message = QStringLiteral("LogDaemonAcked");
} // namespace LogDaemonAcked
namespace LogDaemonUpdate {
inline const QString Message = QStringLiteral("LogDaemonUpdate");
} // namespace LogDaemonUpdate
namespace LogDaemonLiveLog {
inline const QString Message = QStringLiteral("LogDaemonLiveLog");
} // namespace LogDaemonLiveLog
namespace LogDaemonStartReaderReply {
inline const QString Message = QStringLiteral("LogDaemonStartReaderReply");
} // namespace LogDaemonStartReaderReply
namespace LogDaemonLogPost {
inline const QString Message = QStringLiteral("LogDaemonLogPost");
} // namespace LogDaemonLogPost
namespace LogDaemonCancelGetLog {
inline const QString Message = QStringLiteral("LogDaemonCancelGetLog");
} // namespace LogDaemonCancelGetLog
namespace LogDaemonRequestReturnFields {
inline const QString Message = QStringLiteral("LogDaemonRequestReturnFields");
} // namespace LogDaemonRequestReturnFields
namespace LogDaemonViewerExited {
inline const QString Message = QStringLiteral("LogDaemonViewerExited");
} // namespace LogDaemonViewerExited
namespace LogDaemonFinishedUpdate {
inline const QString Message = QStringLiteral("LogDaemonFinishedUpdate");
} // namespace LogDaemonFinishedUpdate
namespace LogDaemonFinishedSendingMessages {
inline const QString Message = QStringLiteral("LogDaemonFinishedSendingMessages");
} // namespace LogDaemonFinishedSendingMessages
namespace LogDaemonChangeNotificationCriteria {
inline const QString Message = QStringLiteral("LogDaemonChangeNotificationCriteria");
inline const QString Reason = QStringLiteral("Reason");
} // namespace LogDaemonChangeNotificationCriteria
namespace LogDaemonNoMatchFound {
inline const QString Message = QStringLiteral("LogDaemonNoMatchFound");
} // namespace LogDaemonNoMatchFound
namespace LogDaemonErrorGettingLog {
inline const QString Message = QStringLiteral("LogDaemonErrorGettingLog");
} // namespace LogDaemonErrorGettingLog
namespace LogDaemonErrorSearchingDb {
inline const QString Message = QStringLiteral("LogDaemonErrorSearchingDb");
} // namespace LogDaemonErrorSearchingDb
inline const QString LogDaemonChangingFilter = QStringLiteral("LogDaemonChanging filter");
namespace LogDaemonSuccess {
inline const QString Message = QStringLiteral("LogDaemonSuccess");
} // namespace LogDaemonSuccess
namespace LogDaemonPurgedLogs {
inline const QString Message = QStringLiteral("LogDaemonPurgedLogs");
} // namespace LogDaemonPurgedLogs
namespace LogDaemonClearItem {
inline const QString Message = QStringLiteral("LogDaemonClearItem");
} // namespace LogDaemonClearItem
namespace LogDaemonUiScreenDefinition {
inline const QString Message = QStringLiteral("LogDaemonUiScreenDefinition");
} // namespace LogDaemonUiScreenDefinition
namespace LogDaemonUiScreenAttributes {
inline const QString Message = QStringLiteral("LogDaemonUiScreenAttributes");
} // namespace LogDaemonUiScreenAttributes
namespace LogKey {
inline const QString ReturnField = QStringLiteral("ReturnField");
inline const QString RequiredField = QStringLiteral("RequiredField");
inline const QString SequenceNumber = QStringLiteral("SequenceNumber");
inline const QString MasterDate = QStringLiteral("MasterDate");
inline const QString LocalDate = QStringLiteral("LocalDate");
inline const QString Source = QStringLiteral("Source");
inline const QString PID = QStringLiteral("PID");
inline const QString Category = QStringLiteral("Category");
inline const QString Level = QStringLiteral("Level");
inline const QString ErrorClear = QStringLiteral("ErrorClear");
inline const QString Historical = QStringLiteral("Historical");
inline const QString UnackLogsOnly = QStringLiteral("UnackLogsOnly");
inline const QString BuildNumber = QStringLiteral("BuildNumber");
inline const QString Attachments = QStringLiteral("Attachments");
inline const QString Arg = QStringLiteral("Arg");
inline const QString DataSize = QStringLiteral("DataSize");
inline const QString DataSizePrfix = QStringLiteral("DataSizePrfix");
inline const QString FromNumber = QStringLiteral("FromNumber");
inline const QString ToNumber = QStringLiteral("ToNumber");
inline const QString FromDate = QStringLiteral("FromDate");
inline const QString ToDate = QStringLiteral("ToDate");
inline const QString Keywords = QStringLiteral("Keywords");
inline const QString ForcedLive = QStringLiteral("ForcedLive");
inline const QString Purge = QStringLiteral("Purge");
inline const QString PurgeBeforeDate = QStringLiteral("PurgeBeforeDate");
inline const QString LogTag = QStringLiteral("LogTag");
inline const QString SuppressConnection = QStringLiteral("SuppressConnection");
inline const QString SuppressConnectionTrue = QStringLiteral("SuppressConnectionTrue");
inline const QString buffer = QStringLiteral("buffer");
inline const QString FieldName = QStringLiteral("FieldName");
inline const QString FieldValue = QStringLiteral("FieldValue");
inline const QString Comparator = QStringLiteral("Comparator");
inline const QString DataType = QStringLiteral("DataType");
inline const QString SearchItem = QStringLiteral("SearchItem");
inline const QString MaxResults = QStringLiteral("MaxResults");
inline const QString LogFilter = QStringLiteral("LogFilter");
inline const QString DatePattern = QStringLiteral("yyyyMMddhhmmss");
} // namespace LogKey
namespace LogAttachment {
inline const QString Acked = QStringLiteral("Acked");
inline const QString Attachments = QStringLiteral("Attachments");
inline const QString Category = QStringLiteral("Category");
inline const QString Level = QStringLiteral("Level");
inline const QString MasterDate = QStringLiteral("MasterDate");
inline const QString LocalDate = QStringLiteral("LocalDate");
inline const QString SequenceNumber = QStringLiteral("SequenceNumber");
inline const QString Source = QStringLiteral("Source");
inline const QString Log = QStringLiteral("Log");
inline const QString ErrorClear = QStringLiteral("ErrorClear");
inline const QString TokenInfo = QStringLiteral("TokenInfo");
inline const QString Immutable = QStringLiteral("Immutable");
inline const QString Historical = QStringLiteral("Historical");
inline const QString ContextFileList = QStringLiteral("ContextFileList");
inline const QString BuildNumber = QStringLiteral("BuildNumber");
inline const QString AuditUserAction = QStringLiteral("AuditUserAction");
inline const QString AuditUserName = QStringLiteral("AuditUserName");
inline const QString AuditProcess = QStringLiteral("AuditProcess");
inline const QString AuditOpTime = QStringLiteral("AuditOpTime");
inline const QString AuditFileLocation = QStringLiteral("AuditFileLocation");
inline const QString AuditFileLocationElements = QStringLiteral("AuditFileLocationElements");
inline const QString AuditNewFileLocation = QStringLiteral("AuditNewFileLocation");
inline const QString AuditNewFileLocationElements = QStringLiteral("AuditNewFileLocationElements");
inline const QString ProxyStoreMachine = QStringLiteral("ProxyStoreMachine");
inline const QString ProxyStoreProcName = QStringLiteral("ProxyStoreProcName");
inline const QString ProxyStoreAction = QStringLiteral("ProxyStoreAction");
inline const QString RestoreInstigator = QStringLiteral("RestoreInstigator");
inline const QString GroupName = QStringLiteral("GroupName");
inline const QString GroupNode = QStringLiteral("GroupNode");
inline const QString GroupAction = QStringLiteral("GroupAction");
inline const QString ProcessName = QStringLiteral("ProcessName");
inline const QString ProcessState = QStringLiteral("ProcessState");
inline const QString ResyncSource = QStringLiteral("ResyncSource");
inline const QString ResyncDestination = QStringLiteral("ResyncDestination");
inline const QString ResyncStoreName = QStringLiteral("ResyncStoreName");
inline const QString ResyncRequired = QStringLiteral("ResyncRequired");
inline const QString ResyncReason = QStringLiteral("ResyncReason");
inline const QString ProcessStateStarting = QStringLiteral("Starting");
inline const QString ProcessStateStarted = QStringLiteral("Started");
inline const QString ProcessStateShutdown = QStringLiteral("Shutdown");
} // namespace LogAttachment

// ---------------------------------------------------------------------------
// The details of a data channel: the two lists that its ends exchange in the
// applications' own messages to agree on a transport (datachannel.h).

namespace DatachannelKey {
inline const QString Type = QStringLiteral("Type");
inline const QString TypeSend = QStringLiteral("Send");
inline const QString TypeReceive = QStringLiteral("Receive");
inline const QString Transport = QStringLiteral("Transport");
inline const QString PeerAddress = QStringLiteral("PeerAddress");
inline const QString ReceiveId = QStringLiteral("ReceiveId");
inline const QString IpcBufferSize = QStringLiteral("IpcBufferSize");
inline const QString IpcBufferCount = QStringLiteral("IpcBufferCount");
inline const QString IpcSynchronization = QStringLiteral("IpcSynchronization");
inline const QString IpcCompression = QStringLiteral("IpcCompression");
inline const QString IpcAckId = QStringLiteral("IpcAckId");
inline const QString ShmBufferSize = QStringLiteral("ShmBufferSize");
inline const QString ShmBufferCount = QStringLiteral("ShmBufferCount");
inline const QString MemoryId = QStringLiteral("MemoryId");
inline const QString ProcessId = QStringLiteral("ProcessId");
inline const QString SendHandle = QStringLiteral("SendHandle");
inline const QString ReceiveHandle = QStringLiteral("ReceiveHandle");
inline const QString FileBasePath = QStringLiteral("FileBasePath");
inline const QString FileBufferSize = QStringLiteral("FileBufferSize");
inline const QString FilePageSize = QStringLiteral("FilePageSize");
inline const QString MutexHandle = QStringLiteral("MutexHandle");
inline const QString GateHandle = QStringLiteral("GateHandle");
inline const QString QueueHandle = QStringLiteral("QueueHandle");
// The configuration file under the configuration directory whose list
// "Default" holds a machine's defaults for the Ipc and Shm keys.
inline const QString ConfigFile = QStringLiteral("datachannel.cfg");
inline const QString ConfigDefault = QStringLiteral("Default");
} // namespace DatachannelKey

} // namespace Catalogue
} // namespace Brevi

#endif
