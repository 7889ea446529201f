// Every routine that the platform, a peer driver or another folder calls, declared by its role.
//
// The folders call one another only through these names, so that none includes another's header for it.
#pragma once

#include "driver/include/zepn_notifier.h"

#include <wdf.h>

EXTERN_C_START

// ---- Driver frame ----

DRIVER_INITIALIZE DriverEntry;
EVT_WDF_DRIVER_DEVICE_ADD NotifierEvtDeviceAdd;
EVT_WDF_DRIVER_UNLOAD NotifierEvtDriverUnload;
EVT_WDF_DEVICE_CONTEXT_CLEANUP NotifierEvtDeviceContextCleanup;
EVT_WDF_DEVICE_PREPARE_HARDWARE NotifierEvtDevicePrepareHardware;
EVT_WDF_DEVICE_RELEASE_HARDWARE NotifierEvtDeviceReleaseHardware;
EVT_WDF_DEVICE_D0_ENTRY NotifierEvtDeviceD0Entry;
EVT_WDF_DEVICE_D0_EXIT NotifierEvtDeviceD0Exit;
EVT_WDF_DEVICE_SURPRISE_REMOVAL NotifierEvtDeviceSurpriseRemoval;
EVT_WDF_DEVICE_FILE_CREATE NotifierEvtDeviceFileCreate;
EVT_WDF_FILE_CLOSE NotifierEvtDeviceFileClose;
EVT_WDF_IO_QUEUE_IO_DEVICE_CONTROL NotifierEvtIoDeviceControl;
CALLBACK_FUNCTION EvtPowerStateCallback;

// ---- Client registry ----

ZEP_NOTIFIER_HELPER_INIT Notifier_HelperInit;
ZEP_NOTIFIER_HELPER_CLIENT_DEINIT Notifier_HelperClientDeinit;
ZEP_NOTIFIER_HELPER_REGISTER Notifier_HelperRegisterForStateNotification;
ZEP_NOTIFIER_HELPER_DEREGISTER Notifier_HelperDeregisterForStateNotification;

// Drops every client at the device's clean-up. The crash-dump driver is not notified.
NTSTATUS NotifierClientCleanup(void);

// ---- Delivery ----

ZEP_NOTIFIER_HELPER_SEND_STATE Notifier_HelperSendState;
EVT_WDF_WORKITEM NotifierEvtWorkItemNotifyStates;
ZEP_NOTIFIER_HELPER_SEND_COMMAND Notifier_HelperSendCommand;
EVT_WDF_WORKITEM NotifierEvtWorkItemNotifyCommands;

// Notifies every client of an application-state change, then posts the states that clients want in answer. Holds the
// clients lock while it calls them; each post then takes it again, so the caller holds none. The reason is not used:
// clients always get ZEP_APPS_STATE_REASON_CHANGED.
[[nodiscard]] NTSTATUS Notifier_NotifyAppsState(ULONG Reason);

// ---- Crash-dump bridge ----

ZEP_NOTIFIER_WPCD_CLIENT_INIT Notifier_WpcdClientInit;
ZEP_NOTIFIER_WPCD_CLIENT_DEINIT Notifier_WpcdClientDeInit;
ZEP_NOTIFIER_WPCD_GET_COUNT Notifier_WpcdGetNumSubsystemDescriptors;
ZEP_NOTIFIER_WPCD_GET_ALL Notifier_WpcdGetAllSubsystemDescriptors;
EVT_WDF_WORKITEM NotifierEvtWorkItemWpcdClientAdd;
EVT_WDF_WORKITEM NotifierEvtWorkItemWpcdClientRemove;
ZEP_DUMP_START Notifier_HelperStartDump;
ZEP_DUMP_STOP Notifier_HelperStopDump;
ZEP_DUMP_ADD_DUMP_DATA Notifier_HelperAddDumpData;
ZEP_DUMP_QUERY_PARAM Notifier_HelperDumpQueryParam;
ZEP_DUMP_ADD_TRIAGE_DATA Notifier_HelperDumpAddTriageData;

EXTERN_C_END
