// The two function tables that peers obtain, and their publication on the device.
//
// Each GUID names a device interface class, by which peers find the device, and a query interface, by which they get
// the table. The framework copies the tables, so they are built on the stack.
#include <ntddk.h>

#include <initguid.h>

#include "driver/entry/driver_private.h"

#include "driver/context/operations.h"
#include "driver/trace/report.h"

// On purpose: empty: the tables carry no count of references; the device itself refuses to stop and to be removed.
static void NTAPI NoReference(PVOID)
{
}

// The functions are left to the caller. Peers get a byte copy of the table, so its padding must not carry stack
// contents.
template <class Table>
static void BeginTable(Table& table, WDFDEVICE device)
{
    RtlZeroMemory(&table, sizeof(table));
    INTERFACE& header = table.InterfaceHeader;
    header.Size = sizeof(table);
    header.Version = ZEP_NOTIFIER_INTERFACE_VERSION;
    header.Context = device;
    header.InterfaceReference = NoReference;
    header.InterfaceDereference = NoReference;
}

static NTSTATUS AddWpcdInterface(WDFDEVICE device)
{
    ZEP_NOTIFIER_WPCD_INTERFACE table;
    BeginTable(table, device);
    table.Notifier_WpcdClientInit = Notifier_WpcdClientInit;
    table.Notifier_WpcdClientDeInit = Notifier_WpcdClientDeInit;
    table.Notifier_WpcdGetNumSubsystemDescriptors = Notifier_WpcdGetNumSubsystemDescriptors;
    table.Notifier_WpcdGetAllSubsystemDescriptors = Notifier_WpcdGetAllSubsystemDescriptors;

    WDF_QUERY_INTERFACE_CONFIG config;
    WDF_QUERY_INTERFACE_CONFIG_INIT(&config, &table.InterfaceHeader, &GUID_ZEP_NOTIFIER_WPCD_INTERFACE, nullptr);
    return WdfDeviceAddQueryInterface(device, &config);
}

static NTSTATUS AddHelperInterface(WDFDEVICE device)
{
    ZEP_NOTIFIER_HELPER_INTERFACE table;
    BeginTable(table, device);
    table.Notifier_HelperInit = Notifier_HelperInit;
    table.Notifier_HelperClientDeinit = Notifier_HelperClientDeinit;
    table.Notifier_HelperSendState = Notifier_HelperSendState;
    table.Notifier_HelperSendCommand = Notifier_HelperSendCommand;
    table.Notifier_HelperRegisterForStateNotification = Notifier_HelperRegisterForStateNotification;
    table.Notifier_HelperDeregisterForStateNotification = Notifier_HelperDeregisterForStateNotification;
    table.Notifier_HelperStartDump = Notifier_HelperStartDump;
    table.Notifier_HelperStopDump = Notifier_HelperStopDump;
    table.Notifier_HelperAddDumpData = Notifier_HelperAddDumpData;
    table.Notifier_HelperDumpQueryParam = Notifier_HelperDumpQueryParam;
    table.Notifier_HelperDumpAddTriageData = Notifier_HelperDumpAddTriageData;

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
