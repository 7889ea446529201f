// The faulty driver without its faults: an ordinary small driver, correct in itself.
#include "tests/faulty_drivers/faulty.h"

namespace {

// Until a test takes them over.
FaultyHooks g_hooks = {
    .Work = [](WDFWORKITEM) NTAPI {},
    .Control = nullptr,
    .Init = [](PWDFDEVICE_INIT) NTAPI {},
    .Resources = [](WDFCMRESLIST) NTAPI {},
    .FileCreate = [](WDFREQUEST request, WDFFILEOBJECT) NTAPI { WdfRequestComplete(request, STATUS_SUCCESS); },
    .FileClose = [](WDFFILEOBJECT) NTAPI {},
    .QueueCleanup = [](WDFOBJECT) NTAPI {},
    .Step = [](const char*) NTAPI -> NTSTATUS { return STATUS_SUCCESS; },
};
WDFDEVICE g_device;
WDFQUEUE g_queue;
WDFWORKITEM g_workItem;
WDFREQUEST g_pending;

NTSTATUS NTAPI EvtPrepareHardware(WDFDEVICE, WDFCMRESLIST raw, WDFCMRESLIST translated)
{
    g_hooks.Resources(raw);
    g_hooks.Resources(translated);
    return g_hooks.Step("prepare");
}

NTSTATUS NTAPI EvtReleaseHardware(WDFDEVICE, WDFCMRESLIST translated)
{
    g_hooks.Resources(translated);
    return g_hooks.Step("release");
}

NTSTATUS NTAPI EvtD0Entry(WDFDEVICE, WDF_POWER_DEVICE_STATE previous)
{
    return g_hooks.Step(previous == WdfPowerDeviceD3Final ? "D0 entry from D3Final" : "D0 entry from D3");
}

NTSTATUS NTAPI EvtD0Exit(WDFDEVICE, WDF_POWER_DEVICE_STATE target)
{
    return g_hooks.Step(target == WdfPowerDeviceD3Final ? "D0 exit to D3Final" : "D0 exit to D3");
}

void NTAPI EvtSurpriseRemoval(WDFDEVICE)
{
    (void)g_hooks.Step("surprise removal");
}

void NTAPI EvtDeviceCleanup(WDFOBJECT)
{
    (void)g_hooks.Step("cleanup");
}

void NTAPI EvtWork(WDFWORKITEM item)
{
    g_hooks.Work(item);
}

void NTAPI EvtFileCreate(WDFDEVICE, WDFREQUEST request, WDFFILEOBJECT file)
{
    g_hooks.FileCreate(request, file);
}

void NTAPI EvtFileClose(WDFFILEOBJECT file)
{
    g_hooks.FileClose(file);
}

void NTAPI EvtDeviceControl(WDFQUEUE, WDFREQUEST request, size_t outputBytes, size_t, ULONG code)
{
    switch (code) {
    case kCompletesTwice:
        WdfRequestComplete(request, STATUS_SUCCESS);
        WdfRequestComplete(request, STATUS_SUCCESS);
        break;
    case kClaimsTooMuch:
        WdfRequestCompleteWithInformation(request, STATUS_SUCCESS, outputBytes + 1);
        break;
    case kNeverCompletes:
        g_pending = request;
        break;
    default:
        if (g_hooks.Control != nullptr) {
            g_hooks.Control(request);
            break;
        }
        WdfRequestCompleteWithInformation(request, STATUS_SUCCESS, outputBytes);
        break;
    }
}

// A function of its own in the image too: a test makes its calls fail by its name.
__attribute__((noinline)) NTSTATUS CreateParts()
{
    WDF_IO_QUEUE_CONFIG queue;
    WDF_IO_QUEUE_CONFIG_INIT_DEFAULT_QUEUE(&queue, WdfIoQueueDispatchSequential);
    queue.EvtIoDeviceControl = EvtDeviceControl;
    queue.PowerManaged = WdfFalse;
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.EvtCleanupCallback = [](WDFOBJECT ended) NTAPI { g_hooks.QueueCleanup(ended); };
    NTSTATUS status = WdfIoQueueCreate(g_device, &queue, &attributes, &g_queue);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    WDF_WORKITEM_CONFIG work;
    WDF_WORKITEM_CONFIG_INIT(&work, EvtWork);
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ParentObject = g_device;
    status = WdfWorkItemCreate(&work, &attributes, &g_workItem);
    if (NT_SUCCESS(status)) {
        status = WdfDeviceCreateDeviceInterface(g_device, &kFaultyInterface, nullptr);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    FaultyTable table{};
    table.Header.Size = sizeof(table);
    table.Header.Version = 2;
    table.Hooks = &g_hooks;
    table.Functions = WdfFunctions;
    table.Globals = WdfDriverGlobals;
    table.Device = g_device;
    table.Queue = g_queue;
    table.WorkItem = g_workItem;
    table.Pending = &g_pending;
    WDF_QUERY_INTERFACE_CONFIG query;
    WDF_QUERY_INTERFACE_CONFIG_INIT(&query, &table.Header, &kFaultyInterface, nullptr);
    return WdfDeviceAddQueryInterface(g_device, &query);
}

NTSTATUS NTAPI EvtDeviceAdd(WDFDRIVER, PWDFDEVICE_INIT init)
{
    WDF_PNPPOWER_EVENT_CALLBACKS power;
    WDF_PNPPOWER_EVENT_CALLBACKS_INIT(&power);
    power.EvtDevicePrepareHardware = EvtPrepareHardware;
    power.EvtDeviceReleaseHardware = EvtReleaseHardware;
    power.EvtDeviceD0Entry = EvtD0Entry;
    power.EvtDeviceD0Exit = EvtD0Exit;
    power.EvtDeviceSurpriseRemoval = EvtSurpriseRemoval;
    WdfDeviceInitSetPnpPowerEventCallbacks(init, &power);

    g_hooks.Init(init);
    WDF_FILEOBJECT_CONFIG files;
    WDF_FILEOBJECT_CONFIG_INIT(&files, EvtFileCreate, EvtFileClose, nullptr);
    WdfDeviceInitSetFileObjectConfig(init, &files, WDF_NO_OBJECT_ATTRIBUTES);

    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.EvtCleanupCallback = EvtDeviceCleanup;
    const NTSTATUS status = WdfDeviceCreate(&init, &attributes, &g_device);
    return NT_SUCCESS(status) ? CreateParts() : status;
}

}  // namespace

WDFDEVICE TheDevice()
{
    return g_device;
}

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath)
{
    WDF_DRIVER_CONFIG config;
    WDF_DRIVER_CONFIG_INIT(&config, EvtDeviceAdd);
    return WdfDriverCreate(driverObject, registryPath, WDF_NO_OBJECT_ATTRIBUTES, &config, WDF_NO_HANDLE);
}
