// Reporting sites of delivery: states, commands, application state.
#pragma once

#include "trace/catalogue.h"

inline constexpr Row kDeliveryRows[] = {
    // Notifier_HelperSendState
    EnteredQuietly(Site::kSendStateEntered, "Notifier_HelperSendState", 125),
    Refused(Site::kSendStateNull, "Notifier_HelperSendState", "ZepState is NULL", 126),
    Refused(Site::kSendStateNoDriver, "Notifier_HelperSendState", "WdfGetDriver returned NULL?!", 127),
    ContextMissingStatus(Site::kSendStateNoContext, "Notifier_HelperSendState", "Driver object context", 128),
    ClientUnusable(Site::kSendStateNoClient, "Notifier_HelperSendState", "Unable to find client with ", 129),
    CallFailed(Site::kSendStateGeneralLock, "Notifier_HelperSendState", "WdfWaitLockAcquire (general lock)", 130),
    CallFailed(Site::kSendStateClientsLock, "Notifier_HelperSendState", "WdfWaitLockAcquire for wdfWaitLockClientsCollection", 131),
    CallFailed(Site::kSendStateAddQueue, "Notifier_HelperSendState", "WdfCollectionAdd for wdfCollectionWpcdClientAddQueue", 132),
    CallFailed(Site::kSendStateObject, "Notifier_HelperSendState", "WdfObjectCreate", 133),
    ContextMissingStatus(Site::kSendStateContext, "Notifier_HelperSendState", "Client state context", 134),
    CallFailed(Site::kSendStateStatesLock, "Notifier_HelperSendState", "WdfWaitLockAcquire for wdfWaitLockStatesCollection", 135),
    CallFailed(Site::kSendStateAdd, "Notifier_HelperSendState", "WdfCollectionAdd for wdfCollectionZepStates", 136),
    Traced(Site::kSendStatePosted, "Notifier_HelperSendState", 137, kLevelInformation, Values::kWords2, "client %10!08X! posted state %11!u!"),

    // NotifierEvtWorkItemNotifyStates
    Entered(Site::kNotifyStatesEntered, "NotifierEvtWorkItemNotifyStates", 138, Order::kMessageFirst),
    Failed(Site::kNotifyStatesNoDriver, "NotifierEvtWorkItemNotifyStates", "WdfGetDriver returned NULL?!", 139),
    Failed(Site::kNotifyStatesNoContext, "NotifierEvtWorkItemNotifyStates", "Driver context is NULL?!", 140),
    CallFailed(Site::kNotifyStatesItemLock, "NotifierEvtWorkItemNotifyStates", "WdfWaitLockAcquire for wdfWaitLockNotifyStatesWorkItem", 141),
    CallFailed(Site::kNotifyStatesClientsLock, "NotifierEvtWorkItemNotifyStates", "WdfWaitLockAcquire for wdfWaitLockClientsCollection", 142),
    CallFailed(Site::kNotifyStatesStatesLock, "NotifierEvtWorkItemNotifyStates", "WdfWaitLockAcquire for wdfWaitLockStatesCollection", 143),
    QueueEmpty(Site::kNotifyStatesEmpty, "NotifierEvtWorkItemNotifyStates", 144),
    ContextMissing(Site::kNotifyStatesState, "NotifierEvtWorkItemNotifyStates", "State context", 145),
    ItemMissing(Site::kNotifyStatesClientItem, "NotifierEvtWorkItemNotifyStates", "WdfCollectionGetItem", 146),
    ContextMissing(Site::kNotifyStatesClient, "NotifierEvtWorkItemNotifyStates", "Client context", 147),
    ItemMissing(Site::kNotifyStatesRegistrationItem, "NotifierEvtWorkItemNotifyStates", "WdfCollectionGetItem", 148),
    ContextMissing(Site::kNotifyStatesRegistration, "NotifierEvtWorkItemNotifyStates", "State notification context", 149),
    Traced(Site::kNotifyStatesDelivering, "NotifierEvtWorkItemNotifyStates", 150, kLevelInformation, Values::kWords3, "state %11!u! of client %10!08X! goes to client %12!08X!"),
    Traced(Site::kNotifyStatesAnswered, "NotifierEvtWorkItemNotifyStates", 151, kLevelInformation, Values::kWords2, "client %10!08X! answers with state %11!u!"),
    CallFailed(Site::kNotifyStatesFollowUpObject, "NotifierEvtWorkItemNotifyStates", "WdfObjectCreate for state notification", 152),
    ContextMissing(Site::kNotifyStatesFollowUpContext, "NotifierEvtWorkItemNotifyStates", "State context", 153),
    // The comma at the end is part of the text; it tells this lock apart from the one of the drain loop.
    CallFailed(Site::kNotifyStatesFollowUpLock, "NotifierEvtWorkItemNotifyStates", "WdfWaitLockAcquire for wdfWaitLockStatesCollection,", 154),
    CallFailed(Site::kNotifyStatesFollowUpAdd, "NotifierEvtWorkItemNotifyStates", "WdfCollectionAdd for wdfCollectionZepStates", 155),

    // Notifier_HelperSendCommand
    EnteredQuietly(Site::kSendCommandEntered, "Notifier_HelperSendCommand", 156),
    Refused(Site::kSendCommandNull, "Notifier_HelperSendCommand", "ZepCommand is NULL", 157),
    Refused(Site::kSendCommandNoDriver, "Notifier_HelperSendCommand", "WdfGetDriver returned NULL?!", 158),
    ContextMissingStatus(Site::kSendCommandNoContext, "Notifier_HelperSendCommand", "Driver object context", 159),
    ClientUnusable(Site::kSendCommandNoSource, "Notifier_HelperSendCommand", "Unable to find client with ", 160),
    ClientUnusable(Site::kSendCommandNoTarget, "Notifier_HelperSendCommand", "Unable to find client with ", 161),
    ClientUnusable(Site::kSendCommandNoCallback, "Notifier_HelperSendCommand", "No command callback function for target client with ", 162),
    CallFailed(Site::kSendCommandObject, "Notifier_HelperSendCommand", "WdfObjectCreate", 163),
    // On purpose: the small c stands in this one report.
    ContextMissingStatus(Site::kSendCommandContext, "Notifier_HelperSendcommand", "Client command context", 164),
    Traced(Site::kSendCommandPosted, "Notifier_HelperSendCommand", 165, kLevelInformation, Values::kWords4, "command %12!u! (%13!u!) from client %10!08X! to client %11!08X!"),
    CallFailed(Site::kSendCommandLock, "Notifier_HelperSendCommand", "WdfWaitLockAcquire for wdfWaitLockCommandsCollection", 166),
    CallFailed(Site::kSendCommandAdd, "Notifier_HelperSendCommand", "WdfCollectionAdd for wdfCollectionZepCommands", 167),

    // NotifierEvtWorkItemNotifyCommands
    Entered(Site::kNotifyCommandsEntered, "NotifierEvtWorkItemNotifyCommands", 168, Order::kMessageFirst),
    Failed(Site::kNotifyCommandsNoDriver, "NotifierEvtWorkItemNotifyCommands", "WdfGetDriver returned NULL?!", 169),
    Failed(Site::kNotifyCommandsNoContext, "NotifierEvtWorkItemNotifyCommands", "Driver context is NULL?!", 170),
    CallFailed(Site::kNotifyCommandsItemLock, "NotifierEvtWorkItemNotifyCommands", "WdfWaitLockAcquire for wdfWaitLockNotifyCommandsWorkItem", 171),
    CallFailed(Site::kNotifyCommandsClientsLock, "NotifierEvtWorkItemNotifyCommands", "WdfWaitLockAcquire for wdfWaitLockClientsCollection", 172),
    CallFailed(Site::kNotifyCommandsCommandsLock, "NotifierEvtWorkItemNotifyCommands", "WdfWaitLockAcquire for wdfWaitLockCommandsCollection", 173),
    QueueEmpty(Site::kNotifyCommandsEmpty, "NotifierEvtWorkItemNotifyCommands", 174),
    ContextMissing(Site::kNotifyCommandsCommand, "NotifierEvtWorkItemNotifyCommands", "Command context", 175),
    ItemMissing(Site::kNotifyCommandsItem, "NotifierEvtWorkItemNotifyCommands", "WdfCollectionGetItem", 176),
    ContextMissing(Site::kNotifyCommandsClient, "NotifierEvtWorkItemNotifyCommands", "Client context", 177),
    ClientUnusable(Site::kNotifyCommandsNoSource, "NotifierEvtWorkItemNotifyCommands", "Unable to find client with ", 178),
    ClientUnusable(Site::kNotifyCommandsNoTarget, "NotifierEvtWorkItemNotifyCommands", "Unable to find client with ", 179),
    ClientUnusable(Site::kNotifyCommandsNoCallback, "NotifierEvtWorkItemNotifyCommands", "Target Client has NULL CommandCallback()", 180),
    Traced(Site::kNotifyCommandsPost, "NotifierEvtWorkItemNotifyCommands", 181, kLevelError, Values::kStatus,
           "posting the target's new state failed: %10!s!"),

    // Notifier_NotifyAppsState
    Entered(Site::kAppsStateEntered, "Notifier_NotifyAppsState", 182, Order::kMessageFirst),
    Failed(Site::kAppsStateNoDriver, "Notifier_NotifyAppsState", "WdfGetDriver returned NULL?! Returning NULL", 183),
    Failed(Site::kAppsStateNoContext, "Notifier_NotifyAppsState", "Driver context is NULL?! Returning NULL", 184),
    CallFailed(Site::kAppsStateLock, "Notifier_NotifyAppsState", "WdfWaitLockAcquire for wdfWaitLockClientsCollection", 185),
    CallFailed(Site::kAppsStateParent, "Notifier_NotifyAppsState", "WdfObjectCreate", 186),
    CallFailed(Site::kAppsStateCollection, "Notifier_NotifyAppsState", "WdfCollectionObjectCreate for for wdfCollectionAttributes", 187),
    ItemMissing(Site::kAppsStateClientItem, "Notifier_NotifyAppsState", "WdfCollectionGetItem", 188),
    ContextMissing(Site::kAppsStateClient, "Notifier_NotifyAppsState", "Client context", 189),
    ContextMissing(Site::kAppsStateNoCallback, "Notifier_NotifyAppsState", "ActionCallbackTable.AppsStateNotificationCallback", 190),
    CallFailed(Site::kAppsStateState, "Notifier_NotifyAppsState", "WdfObjectCreate", 191),
    // On purpose: the registration context's words, although a state context is missing.
    ContextMissing(Site::kAppsStateStateContext, "Notifier_NotifyAppsState", "State notification context", 192),
    CallFailed(Site::kAppsStateAdd, "Notifier_NotifyAppsState", "WdfCollectionAdd for wdfClientCollection", 193),
    ItemMissing(Site::kAppsStatePostItem, "Notifier_NotifyAppsState", "WdfCollectionGetItem", 194),
    ContextMissing(Site::kAppsStatePostContext, "Notifier_NotifyAppsState", "State notification context", 195),
    Traced(Site::kAppsStatePosting, "Notifier_NotifyAppsState", 196, kLevelInformation, Values::kWords2, "client %10!08X! wants state %11!u!"),
    Traced(Site::kAppsStatePost, "Notifier_NotifyAppsState", 197, kLevelError, Values::kStatus, "posting the wanted state failed: %10!s!"),
    Traced(Site::kAppsStateDone, "Notifier_NotifyAppsState", 198, kLevelInformation, Values::kStatus, "ends with %10!s!"),

    // EvtPowerStateCallback
    {Site::kPowerStateEntered, "EvtPowerStateCallback", 0, nullptr, nullptr, Values::kObject,
     {.number = 199, .flag = TraceFlag::kEntry, .level = kLevelInformation, .text = "context %10!p!"}},
    Traced(Site::kPowerStateWaiting, "EvtPowerStateCallback", 200, kLevelInformation, Values::kWords1, "holding the transition for %10!u! ms"),
    Traced(Site::kPowerStateResumed, "EvtPowerStateCallback", 201, kLevelInformation, Values::kNone, "back in the working state"),
    Traced(Site::kPowerStateDone, "EvtPowerStateCallback", 202, kLevelInformation, Values::kNone, "done"),

    // ZEPReadRegistry
    EnteredQuietly(Site::kReadRegistryEntered, "ZEPReadRegistry", 203),
    Failed(Site::kReadRegistryNoDriver, "ZEPReadRegistry", "WdfGetDriver returned NULL?!", 204),
    Failed(Site::kReadRegistryOpen, "ZEPReadRegistry", "WdfDriverOpenParametersRegistryKey failed with status NULL?!", 205),
    Failed(Site::kReadRegistryQuery, "ZEPReadRegistry", "WdfRegistryQueryULong returned NULL?!", 206),

    // NotifierEvtIoDeviceControl
    {Site::kIoControlNoDevice, "NotifierEvtIoDeviceControl", 9,
     "Received device object NULL for this request's queue", nullptr, Values::kObjectStatus, {.number = 207}},
    {Site::kIoControlEntered, "NotifierEvtIoDeviceControl", 64, nullptr, nullptr, Values::kControlCode,
     {.number = 208, .flag = TraceFlag::kEntry, .level = kLevelInformation, .text = "I/O control %10!08X!"}, true},
    Traced(Site::kIoControlUnknown, "NotifierEvtIoDeviceControl", 209, kLevelError, Values::kWords1, "I/O control %10!08X! is not supported"),
};
