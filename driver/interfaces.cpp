// The two function tables that peers obtain, and their publication on the device.
//
// Each GUID names a device interface class, by which peers find the device, and a query interface, by which they get
// the table. The framework copies the tables, so they are built on the stack.
#include <initguid.h>

#include "driver/frame.h"

#include "context/operations.h"
#include "trace/report.h"

// On purpose empty: the tables carry no count of references; the device itself refuses to stop and to be removed.
static void NTAPI NoReference(PVOID)
{
}

static INTERFACE Header(USHORT size, WDFDEVICE device)
{
    return {
        .Size = size,
        .Version = ZEP_NOTIFIER_INTERFACE_VERSION,
        .Context = device,
        .InterfaceReference = NoReference,
        .InterfaceDereference = NoReference,
    };
}

static NTSTATUS AddWpcdInterface(WDFDEVICE device)
{
    ZEP_NOTIFIER_WPCD_INTERFACE table = {
        .InterfaceHeader = Header(sizeof(table), device),
        .Notifier_WpcdClientInit = Notifier_WpcdClientInit,
        .Notifier_WpcdClientDeInit = Notifier_WpcdClientDeInit,
        .Notifier_WpcdGetNumSubsystemDescriptors = Notifier_WpcdGetNumSubsystemDescriptors,
        .Notifier_WpcdGetAllSubsystemDescriptors = Notifier_WpcdGetAllSubsystemDescriptors,
    };
    WDF_QUERY_INTERFACE_CONFIG config;
    WDF_QUERY_INTERFACE_CONFIG_INIT(&config, &table.InterfaceHeader, &GUID_ZEP_NOTIFIER_WPCD_INTERFACE, nullptr);
    return WdfDeviceAddQueryInterface(device, &config);
}

static NTSTATUS AddHelperInterface(WDFDEVICE device)
{
    ZEP_NOTIFIER_HELPER_INTERFACE table = {
        .InterfaceHeader = Header(sizeof(table), device),
        .Notifier_HelperInit = Notifier_HelperInit,
        .Notifier_HelperClientDeinit = Notifier_HelperClientDeinit,
        .Notifier_HelperSendState = Notifier_HelperSendState,
        .Notifier_HelperSendCommand = Notifier_HelperSendCommand,
        .Notifier_HelperRegisterForStateNotification = Notifier_HelperRegisterForStateNotification,
        .Notifier_HelperDeregisterForStateNotification = Notifier_HelperDeregisterForStateNotification,
        .Notifier_HelperStartDump = Notifier_HelperStartDump,
        .Notifier_HelperStopDump = Notifier_HelperStopDump,
        .Notifier_HelperAddDumpData = Notifier_HelperAddDumpData,
        .Notifier_HelperDumpQueryParam = Notifier_HelperDumpQueryParam,
        .Notifier_HelperDumpAddTriageData = Notifier_HelperDumpAddTriageData,
    };
    WDF_QUERY_INTERFACE_CONFIG config;
    WDF_QUERY_INTERFACE_CONFIG_INIT(&config, &table.InterfaceHeader, &GUID_ZEP_NOTIFIER_HELPER_INTERFACE, nullptr);
    return WdfDeviceAddQueryInterface(device, &config);
}

NTSTATUS PublishInterfaces(WDFDEVICE device)
{
    NTSTATUS status = WdfDeviceCreateDeviceInterface(device, &GUID_ZEP_NOTIFIER_WPCD_INTERFACE, nullptr);
    if (!NT_SUCCESS(status)) {
        return ReportFailure<Site::kDeviceAddWpcdInterface>(status);
    }
    status = WdfDeviceCreateDeviceInterface(device, &GUID_ZEP_NOTIFIER_HELPER_INTERFACE, nullptr);
    if (!NT_SUCCESS(status)) {
        return ReportFailure<Site::kDeviceAddHelperInterface>(status);
    }

    status = AddWpcdInterface(device);
    if (!NT_SUCCESS(status)) {
        return ReportFailure<Site::kDeviceAddWpcdQuery>(status);
    }
    status = AddHelperInterface(device);
    if (!NT_SUCCESS(status)) {
        return ReportFailure<Site::kDeviceAddHelperQuery>(status);
    }
    return STATUS_SUCCESS;
}
