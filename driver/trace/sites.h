// The names of the reporting sites, in the order of the rows that describe them.
#pragma once

#include <ntddk.h>

enum class Site : USHORT {
    // DriverEntry
    kDriverEntryStarted,
    kDriverEntryCreate,

    // NotifierEvtDriverUnload
    kDriverUnloadEntered,
    kDriverUnloadNoContext,
    kDriverUnloadUnregister,
    kDriverUnloadDereference,

    // NotifierEvtDeviceAdd
    kDeviceAddEntered,
    kDeviceAddNoContext,
    kDeviceAddAssignName,
    kDeviceAddCreate,
    kDeviceAddCreated,
    kDeviceAddSymbolicLink,
    kDeviceAddQueue,
    kDeviceAddClientAddQueue,
    kDeviceAddClientRemoveQueue,
    kDeviceAddClients,
    kDeviceAddStates,
    kDeviceAddCommands,
    kDeviceAddClientAddItem,
    kDeviceAddClientRemoveItem,
    kDeviceAddNotifyStatesItem,
    kDeviceAddNotifyCommandsItem,
    kDeviceAddLockGeneral,
    kDeviceAddLockClients,
    kDeviceAddLockStates,
    kDeviceAddLockCommands,
    kDeviceAddLockNotifyStates,
    kDeviceAddLockNotifyCommands,
    kDeviceAddLockNotifyAppsState,
    kDeviceAddWpcdInterface,
    kDeviceAddHelperInterface,
    kDeviceAddWpcdQuery,
    kDeviceAddHelperQuery,
    kDeviceAddPowerCallback,

    // NotifierEvtDeviceFileCreate
    kFileCreateEntered,
    kFileCreateAllocateContext,
    kFileCreateNoContext,

    // NotifierEvtDeviceFileClose
    kFileCloseEntered,
    kFileCloseNoContext,

    // Device callbacks
    kDeviceCleanupEntered,
    kPrepareHardwareEntered,
    kReleaseHardwareEntered,
    kD0EntryEntered,
    kD0ExitEntered,
    kSurpriseRemovalEntered,

    // _getClientContextByGUID
    kLookupEntered,
    kLookupNoDriver,
    kLookupNoContext,
    kLookupLock,
    kLookupItem,
    kLookupClient,

    // _getClientContextByGUID_unsafe
    kLookupUnsafeEntered,
    kLookupUnsafeNoDriver,
    kLookupUnsafeNoContext,
    kLookupUnsafeItem,
    kLookupUnsafeClient,

    // Notifier_HelperInit
    kInitEntered,
    kInitGuidNull,
    kInitAlreadyRegistered,
    kInitTableNull,
    kInitObject,
    kInitContext,
    kInitEntries,
    kInitRegistrations,
    kInitNoDriver,
    kInitNoContext,
    kInitLock,
    kInitAdd,
    kInitDone,

    // Notifier_HelperClientDeinit
    kDeinitEntered,
    kDeinitGuidNull,
    kDeinitNoDriver,
    kDeinitNoContext,
    kDeinitLock,
    kDeinitItem,
    kDeinitClient,
    kDeinitFound,
    kDeinitCopy,
    kDeinitCopyContext,
    kDeinitCopyAdd,
    kDeinitDrain,

    // NotifierClientCleanup
    kCleanupEntered,
    kCleanupNoDriver,
    kCleanupNoContext,
    kCleanupLock,
    kCleanupClient,
    kCleanupDrain,

    // Notifier_HelperRegisterForStateNotification
    kRegisterEntered,
    kRegisterNull,
    kRegisterNoDriver,
    kRegisterNoContext,
    kRegisterLock,
    kRegisterNoSubscriber,
    kRegisterNoTarget,
    kRegisterObject,
    kRegisterContext,
    kRegisterAdd,
    kRegisterPost,

    // Notifier_HelperDeregisterForStateNotification
    kDeregisterEntered,
    kDeregisterNull,
    kDeregisterNoDriver,
    kDeregisterNoContext,
    kDeregisterLock,
    kDeregisterNoSubscriber,
    kDeregisterNotFound,

    // _getStateNotificationContextByZepState_unsafe
    kFindRegistrationEntered,
    kFindRegistrationItem,
    kFindRegistrationContext,

    // Notifier_HelperSendState
    kSendStateEntered,
    kSendStateNull,
    kSendStateNoDriver,
    kSendStateNoContext,
    kSendStateNoClient,
    kSendStateGeneralLock,
    kSendStateClientsLock,
    kSendStateAddQueue,
    kSendStateObject,
    kSendStateContext,
    kSendStateStatesLock,
    kSendStateAdd,
    kSendStatePosted,

    // NotifierEvtWorkItemNotifyStates
    kNotifyStatesEntered,
    kNotifyStatesNoDriver,
    kNotifyStatesNoContext,
    kNotifyStatesItemLock,
    kNotifyStatesClientsLock,
    kNotifyStatesStatesLock,
    kNotifyStatesEmpty,
    kNotifyStatesState,
    kNotifyStatesClientItem,
    kNotifyStatesClient,
    kNotifyStatesRegistrationItem,
    kNotifyStatesRegistration,
    kNotifyStatesDelivering,
    kNotifyStatesAnswered,
    kNotifyStatesFollowUpObject,
    kNotifyStatesFollowUpContext,
    kNotifyStatesFollowUpLock,
    kNotifyStatesFollowUpAdd,

    // Notifier_HelperSendCommand
    kSendCommandEntered,
    kSendCommandNull,
    kSendCommandNoDriver,
    kSendCommandNoContext,
    kSendCommandNoSource,
    kSendCommandNoTarget,
    kSendCommandNoCallback,
    kSendCommandObject,
    kSendCommandContext,
    kSendCommandPosted,
    kSendCommandLock,
    kSendCommandAdd,

    // NotifierEvtWorkItemNotifyCommands
    kNotifyCommandsEntered,
    kNotifyCommandsNoDriver,
    kNotifyCommandsNoContext,
    kNotifyCommandsItemLock,
    kNotifyCommandsClientsLock,
    kNotifyCommandsCommandsLock,
    kNotifyCommandsEmpty,
    kNotifyCommandsCommand,
    kNotifyCommandsItem,
    kNotifyCommandsClient,
    kNotifyCommandsNoSource,
    kNotifyCommandsNoTarget,
    kNotifyCommandsNoCallback,
    kNotifyCommandsPost,

    // Notifier_NotifyAppsState
    kAppsStateEntered,
    kAppsStateNoDriver,
    kAppsStateNoContext,
    kAppsStateLock,
    kAppsStateParent,
    kAppsStateCollection,
    kAppsStateClientItem,
    kAppsStateClient,
    kAppsStateNoCallback,
    kAppsStateState,
    kAppsStateStateContext,
    kAppsStateAdd,
    kAppsStatePostItem,
    kAppsStatePostContext,
    kAppsStatePosting,
    kAppsStatePost,
    kAppsStateDone,

    // EvtPowerStateCallback
    kPowerStateEntered,
    kPowerStateWaiting,
    kPowerStateResumed,
    kPowerStateDone,

    // ZEPReadRegistry
    kReadRegistryEntered,
    kReadRegistryNoDriver,
    kReadRegistryOpen,
    kReadRegistryQuery,

    // NotifierEvtIoDeviceControl
    kIoControlNoDevice,
    kIoControlEntered,
    kIoControlUnknown,

    // Notifier_WpcdClientInit
    kAttachEntered,
    kAttachNull,
    kAttachNoDriver,
    kAttachNoContext,
    kAttachTwice,
    kAttachObject,
    kAttachContext,

    // Notifier_WpcdClientDeInit
    kDetachEntered,
    kDetachNoDriver,
    kDetachNoContext,
    kDetachLock,
    kDetachNone,

    // NotifierEvtWorkItemWpcdClientAdd
    kAnnounceEntered,
    kAnnounceNoDriver,
    kAnnounceNoContext,
    kAnnounceNotAttached,
    kAnnounceWpcdContext,
    kAnnounceClient,
    kAnnounceRefused,

    // NotifierEvtWorkItemWpcdClientRemove
    kWithdrawEntered,
    kWithdrawNoDriver,
    kWithdrawNoContext,
    kWithdrawLock,
    kWithdrawEmpty,
    kWithdrawWpcdContext,
    kWithdrawClient,
    kWithdrawRefused,

    // Notifier_WpcdGetNumSubsystemDescriptors
    kCountEntered,
    kCountNull,
    kCountNoDriver,
    kCountNoContext,
    kCountLock,
    kCountItem,
    kCountClient,

    // Notifier_WpcdGetAllSubsystemDescriptors
    kDescribeEntered,
    kDescribeArrayNull,
    kDescribeCountNull,
    kDescribeNoDriver,
    kDescribeNoContext,
    kDescribeLock,
    kDescribeTooSmall,
    kDescribeItem,
    kDescribeClient,
    kDescribeGeneralLock,

    // GetContext
    kGetContextEntered,
    kGetContextNull,
    kGetContextNoDriver,
    kGetContextNoContext,
    kGetContextNotAttached,
    kGetContextWpcdContext,

    // Notifier_HelperStartDump
    kStartDumpEntered,
    kStartDumpNoContext,
    kStartDumpFailed,
    kStartDumpDone,
    kStartDumpLeft,

    // Notifier_HelperAddDumpData
    kAddDumpDataEntered,
    kAddDumpDataNoContext,
    kAddDumpDataFailed,
    kAddDumpDataDone,
    kAddDumpDataLeft,

    // Notifier_HelperStopDump
    kStopDumpEntered,
    kStopDumpNoContext,
    kStopDumpFailed,
    kStopDumpDone,
    kStopDumpLeft,

    // Notifier_HelperDumpQueryParam
    kDumpQueryParamEntered,
    kDumpQueryParamNoContext,
    kDumpQueryParamFailed,
    kDumpQueryParamDone,
    kDumpQueryParamLeft,

    // Notifier_HelperDumpAddTriageData
    kDumpAddTriageDataEntered,
    kDumpAddTriageDataNoContext,
    kDumpAddTriageDataFailed,
    kDumpAddTriageDataDone,
    kDumpAddTriageDataLeft,

    kCount
};
