// Reporting sites of the crash-dump bridge, except the forwarders.
#pragma once

#include "driver/trace/catalogue.h"

inline constexpr Row kDumpRows[] = {
    // Notifier_WpcdClientInit
    EnteredQuietly(Site::kAttachEntered, "Notifier_WpcdClientInit", 210),
    // On purpose: the text is that of two callbacks, the test is that of the record.
    Refused(Site::kAttachNull, "Notifier_WpcdClientInit", "ZepClientAdd or ZepClientRemove is NULL!", 211),
    Refused(Site::kAttachNoDriver, "Notifier_WpcdClientInit", "WdfGetDriver returned NULL?!", 212),
    ContextMissingStatus(Site::kAttachNoContext, "Notifier_WpcdClientInit", "Driver object context", 213),
    Refused(Site::kAttachTwice, "Notifier_WpcdClientInit", "WPCD client already registered?!", 214),
    CallFailed(Site::kAttachObject, "Notifier_WpcdClientInit", "WdfObjectCreate", 215),
    ContextMissingStatus(Site::kAttachContext, "Notifier_WpcdClientInit", "WPCD client context", 216),

    // Notifier_WpcdClientDeInit
    EnteredQuietly(Site::kDetachEntered, "Notifier_WpcdClientDeInit", 217),
    Refused(Site::kDetachNoDriver, "Notifier_WpcdClientDeInit", "WdfGetDriver returned NULL?!", 218),
    ContextMissingStatus(Site::kDetachNoContext, "Notifier_WpcdClientDeInit", "Driver object context", 219),
    CallFailed(Site::kDetachLock, "Notifier_WpcdClientDeInit", "WdfWaitLockAcquire for wdfWaitLockClientsCollection",
               220),
    Refused(Site::kDetachNone, "Notifier_WpcdClientDeInit", "CDI client is not already registered?!", 221),

    // NotifierEvtWorkItemWpcdClientAdd
    EnteredQuietly(Site::kAnnounceEntered, "NotifierEvtWorkItemWpcdClientAdd", 222),
    Failed(Site::kAnnounceNoDriver, "NotifierEvtWorkItemWpcdClientAdd", "WdfGetDriver returned NULL?!", 223),
    Failed(Site::kAnnounceNoContext, "NotifierEvtWorkItemWpcdClientAdd", "Driver context is NULL?!", 224),
    // On purpose: a warning as an event, an error as a message; and nothing retries, whatever the text says.
    {Site::kAnnounceNotAttached,
     "NotifierEvtWorkItemWpcdClientAdd",
     22,
     "Connection to CDI driver is not yet available, will retry later",
     "ZEPN driver",
     Values::kNone,
     {.number = 225}},
    ContextMissing(Site::kAnnounceWpcdContext, "NotifierEvtWorkItemWpcdClientAdd", "WPCD client context", 226),
    ContextMissing(Site::kAnnounceClient, "NotifierEvtWorkItemWpcdClientAdd", "Client context", 227),
    // On purpose: an error as an event, a warning as a message.
    CrashDumpCallFailed(Site::kAnnounceRefused, "NotifierEvtWorkItemWpcdClientAdd", "Add client call to WPCD failed!",
                        228, kLevelWarning),

    // NotifierEvtWorkItemWpcdClientRemove
    EnteredQuietly(Site::kWithdrawEntered, "NotifierEvtWorkItemWpcdClientRemove", 229),
    Failed(Site::kWithdrawNoDriver, "NotifierEvtWorkItemWpcdClientRemove", "WdfGetDriver returned NULL?!", 230),
    Failed(Site::kWithdrawNoContext, "NotifierEvtWorkItemWpcdClientRemove", "Driver context is NULL?!", 231),
    CallFailed(Site::kWithdrawLock, "NotifierEvtWorkItemWpcdClientRemove",
               "WdfWaitLockAcquire for wdfWaitLockClientsCollection", 232),
    // On purpose: carries the add queue's handle, although the remove queue is the empty one.
    QueueEmpty(Site::kWithdrawEmpty, "NotifierEvtWorkItemWpcdClientRemove", 233),
    ContextMissing(Site::kWithdrawWpcdContext, "NotifierEvtWorkItemWpcdClientRemove", "WPCD client context", 234),
    ContextMissing(Site::kWithdrawClient, "NotifierEvtWorkItemWpcdClientRemove", "Client context", 235),
    // On purpose: under the add work item's name.
    CrashDumpCallFailed(Site::kWithdrawRefused, "NotifierEvtWorkItemWpcdClientAdd",
                        "Remove client call to WPCD failed!", 236, kLevelError),

    // Notifier_WpcdGetNumSubsystemDescriptors
    EnteredQuietly(Site::kCountEntered, "Notifier_WpcdGetNumSubsystemDescriptors", 237),
    Refused(Site::kCountNull, "Notifier_WpcdGetNumSubsystemDescriptors", "NumberDescriptors is NULL", 238),
    Refused(Site::kCountNoDriver, "Notifier_WpcdGetNumSubsystemDescriptors", "WdfGetDriver returned NULL?!", 239),
    ContextMissingStatus(Site::kCountNoContext, "Notifier_WpcdGetNumSubsystemDescriptors", "Driver object context",
                         240),
    CallFailed(Site::kCountLock, "Notifier_WpcdGetNumSubsystemDescriptors",
               "WdfWaitLockAcquire for wdfWaitLockClientsCollection", 241),
    ItemMissing(Site::kCountItem, "Notifier_WpcdGetNumSubsystemDescriptors", "WdfCollectionGetItem", 242),
    ContextMissing(Site::kCountClient, "Notifier_WpcdGetNumSubsystemDescriptors", "Client object context", 243),

    // Notifier_WpcdGetAllSubsystemDescriptors
    EnteredQuietly(Site::kDescribeEntered, "Notifier_WpcdGetAllSubsystemDescriptors", 244),
    Refused(Site::kDescribeArrayNull, "Notifier_WpcdGetAllSubsystemDescriptors", "Descriptors is NULL?!", 245),
    Refused(Site::kDescribeCountNull, "Notifier_WpcdGetAllSubsystemDescriptors", "NumberDescriptors is NULL?!", 246),
    Refused(Site::kDescribeNoDriver, "Notifier_WpcdGetAllSubsystemDescriptors", "WdfGetDriver returned NULL?!", 247),
    ContextMissingStatus(Site::kDescribeNoContext, "Notifier_WpcdGetAllSubsystemDescriptors", "Driver object context",
                         248),
    CallFailed(Site::kDescribeLock, "Notifier_WpcdGetAllSubsystemDescriptors",
               "WdfWaitLockAcquire for wdfWaitLockClientsCollection", 249),
    {Site::kDescribeTooSmall,
     "Notifier_WpcdGetAllSubsystemDescriptors",
     11,
     nullptr,
     nullptr,
     Values::kTooSmall,
     {.number = 250, .text = "room for %10!u! descriptors, %11!u! needed: %12!s!"}},
    ItemMissing(Site::kDescribeItem, "Notifier_WpcdGetAllSubsystemDescriptors", "WdfCollectionGetItem", 251),
    ContextMissing(Site::kDescribeClient, "Notifier_WpcdGetAllSubsystemDescriptors", "Client object context", 252),
    CallFailed(Site::kDescribeGeneralLock, "Notifier_WpcdGetAllSubsystemDescriptors",
               "WdfWaitLockAcquire (general lock)", 253),
};
