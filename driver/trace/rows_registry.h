// Reporting sites of the client registry: look-up, registration, removal, subscriptions.
#pragma once

#include "driver/trace/catalogue.h"

inline constexpr Row kRegistryRows[] = {
    // _getClientContextByGUID
    EnteredQuietly(Site::kLookupEntered, "_getClientContextByGUID", 63),
    Failed(Site::kLookupNoDriver, "_getClientContextByGUID", "WdfGetDriver returned NULL?! Returning NULL", 64),
    Failed(Site::kLookupNoContext, "_getClientContextByGUID", "Driver context is NULL?! Returning NULL", 65),
    CallFailed(Site::kLookupLock, "_getClientContextByGUID", "WdfWaitLockAcquire for wdfWaitLockClientsCollection", 66),
    ItemMissing(Site::kLookupItem, "_getClientContextByGUID", "WdfCollectionGetItem", 67),
    ContextMissing(Site::kLookupClient, "_getClientContextByGUID", "Client context", 68),

    // _getClientContextByGUID_unsafe
    EnteredQuietly(Site::kLookupUnsafeEntered, "_getClientContextByGUID_unsafe", 69),
    Failed(Site::kLookupUnsafeNoDriver, "_getClientContextByGUID_unsafe", "WdfGetDriver returned NULL?! Returning NULL",
           70),
    Failed(Site::kLookupUnsafeNoContext, "_getClientContextByGUID_unsafe", "Driver context is NULL?! Returning NULL",
           71),
    ItemMissing(Site::kLookupUnsafeItem, "_getClientContextByGUID_unsafe", "WdfCollectionGetItem", 72),
    ContextMissing(Site::kLookupUnsafeClient, "_getClientContextByGUID_unsafe", "Client context", 73),

    // Notifier_HelperInit
    Entered(Site::kInitEntered, "Notifier_HelperInit", 74, Order::kEventFirst),
    Refused(Site::kInitGuidNull, "Notifier_HelperInit", "InterfaceGUID is NULL", 75),
    ClientUnusable(Site::kInitAlreadyRegistered, "Notifier_HelperInit", "InterfaceGUID is already initialized!", 76),
    Refused(Site::kInitTableNull, "Notifier_HelperInit", "ActionCallbackTable is NULL!", 77),
    CallFailed(Site::kInitObject, "Notifier_HelperInit", "WdfObjectCreate for client", 78),
    ContextMissingStatus(Site::kInitContext, "Notifier_HelperInit", "Client context", 79),
    CallFailed(Site::kInitEntries, "Notifier_HelperInit", "ExAllocatePoolWithTag failed!", 80),
    CallFailed(Site::kInitRegistrations, "Notifier_HelperInit",
               "WdfCollectionObjectCreate for wdfCollectionStateRegistrations", 81),
    // On purpose: this one report stands under the crash-dump driver's attach.
    Refused(Site::kInitNoDriver, "Notifier_WpcdClientInit", "WdfGetDriver returned NULL?!", 82),
    ContextMissingStatus(Site::kInitNoContext, "Notifier_HelperInit", "Driver object context", 83),
    CallFailed(Site::kInitLock, "Notifier_HelperInit", "WdfWaitLockAcquire for wdfWaitLockClientsCollection", 84),
    CallFailed(Site::kInitAdd, "Notifier_HelperInit", "WdfCollectionAdd for wdfCollectionZepClients", 85),
    Traced(Site::kInitDone, "Notifier_HelperInit", 86, kLevelVerbose, Values::kWords1, "client %10!08X! registered"),

    // Notifier_HelperClientDeinit
    EnteredQuietly(Site::kDeinitEntered, "Notifier_HelperClientDeinit", 87),
    Refused(Site::kDeinitGuidNull, "Notifier_HelperClientDeinit", "InterfaceGUID is NULL", 88),
    Refused(Site::kDeinitNoDriver, "Notifier_HelperClientDeinit", "WdfGetDriver returned NULL?!", 89),
    ContextMissingStatus(Site::kDeinitNoContext, "Notifier_HelperClientDeinit", "Driver object context", 90),
    CallFailed(Site::kDeinitLock, "Notifier_HelperClientDeinit", "WdfWaitLockAcquire for wdfWaitLockClientsCollection",
               91),
    ItemMissing(Site::kDeinitItem, "Notifier_HelperClientDeinit", "WdfCollectionGetItem", 92),
    ContextMissing(Site::kDeinitClient, "Notifier_HelperClientDeinit", "Client object context", 93),
    Traced(Site::kDeinitFound, "Notifier_HelperClientDeinit", 94, kLevelVerbose, Values::kWords1,
           "client %10!08X! leaves"),
    CallFailed(Site::kDeinitCopy, "Notifier_HelperClientDeinit", "WdfObjectCreate for client copy", 95),
    ContextMissingStatus(Site::kDeinitCopyContext, "Notifier_HelperClientDeinit", "Client context", 96),
    CallFailed(Site::kDeinitCopyAdd, "Notifier_HelperClientDeinit",
               "WdfCollectionAdd for wdfCollectionWpcdClientRemoveQueue", 97),
    ItemMissing(Site::kDeinitDrain, "Notifier_HelperClientDeinit", "WdfCollectionGetFirstItem", 98),

    // NotifierClientCleanup
    EnteredQuietly(Site::kCleanupEntered, "NotifierClientCleanup", 99),
    Refused(Site::kCleanupNoDriver, "NotifierClientCleanup", "WdfGetDriver returned NULL?!", 100),
    ContextMissingStatus(Site::kCleanupNoContext, "NotifierClientCleanup", "Driver object context", 101),
    CallFailed(Site::kCleanupLock, "NotifierClientCleanup", "WdfWaitLockAcquire for wdfWaitLockClientsCollection", 102),
    ContextMissing(Site::kCleanupClient, "NotifierClientCleanup", "Client object context", 103),
    ItemMissing(Site::kCleanupDrain, "NotifierClientCleanup", "WdfCollectionGetFirstItem", 104),

    // Notifier_HelperRegisterForStateNotification
    Entered(Site::kRegisterEntered, "Notifier_HelperRegisterForStateNotification", 105, Order::kEventFirst),
    Refused(Site::kRegisterNull, "Notifier_HelperRegisterForStateNotification", "One of the parameters is NULL!", 106),
    Refused(Site::kRegisterNoDriver, "Notifier_HelperRegisterForStateNotification", "WdfGetDriver returned NULL?!",
            107),
    ContextMissingStatus(Site::kRegisterNoContext, "Notifier_HelperRegisterForStateNotification",
                         "Driver object context", 108),
    CallFailed(Site::kRegisterLock, "Notifier_HelperRegisterForStateNotification",
               "WdfWaitLockAcquire for wdfWaitLockClientsCollection", 109),
    ClientUnusable(Site::kRegisterNoSubscriber, "Notifier_HelperRegisterForStateNotification",
                   "Unable to find client with ", 110),
    // On purpose: carries the subscriber's GUID and status 0; the watched client may register later.
    ClientUnusable(Site::kRegisterNoTarget, "Notifier_HelperRegisterForStateNotification",
                   "Unable to find client with ", 111),
    CallFailed(Site::kRegisterObject, "Notifier_HelperRegisterForStateNotification",
               "WdfObjectCreate for state notification", 112),
    ContextMissingStatus(Site::kRegisterContext, "Notifier_HelperRegisterForStateNotification",
                         "State notification context", 113),
    CallFailed(Site::kRegisterAdd, "Notifier_HelperRegisterForStateNotification",
               "WdfCollectionAdd for wdfCollectionStateRegistrations", 114),
    Traced(Site::kRegisterPost, "Notifier_HelperRegisterForStateNotification", 115, kLevelError, Values::kStatus,
           "posting the subscriber's answer failed: %10!s!"),

    // Notifier_HelperDeregisterForStateNotification
    Entered(Site::kDeregisterEntered, "Notifier_HelperDeregisterForStateNotification", 116, Order::kEventFirst),
    Refused(Site::kDeregisterNull, "Notifier_HelperDeregisterForStateNotification", "One of the parameters is NULL!",
            117),
    Refused(Site::kDeregisterNoDriver, "Notifier_HelperDeregisterForStateNotification", "WdfGetDriver returned NULL?!",
            118),
    ContextMissingStatus(Site::kDeregisterNoContext, "Notifier_HelperDeregisterForStateNotification",
                         "Driver object context", 119),
    CallFailed(Site::kDeregisterLock, "Notifier_HelperDeregisterForStateNotification",
               "WdfWaitLockAcquire for wdfWaitLockClientsCollection", 120),
    // On purpose: reported under the registering operation's name.
    ClientUnusable(Site::kDeregisterNoSubscriber, "Notifier_HelperRegisterForStateNotification",
                   "Unable to find client with ", 121),
    {Site::kDeregisterNotFound,
     "Notifier_HelperDeregisterForStateNotification",
     22,
     "State notification registration",
     "Client's registrations",
     Values::kNone,
     {}},

    // _getStateNotificationContextByZepState_unsafe
    EnteredQuietly(Site::kFindRegistrationEntered, "_getStateNotificationContextByZepState_unsafe", 122),
    ItemMissing(Site::kFindRegistrationItem, "_getStateNotificationContextByZepState_unsafe", "WdfCollectionGetItem",
                123),
    ContextMissing(Site::kFindRegistrationContext, "_getStateNotificationContextByZepState_unsafe",
                   "State notification context", 124),
};
