// What creation refuses, what the device answers, and the kernel routines that a small driver stands on.
#include "samples/probe/probe.h"

static EVT_WDF_WORKITEM NoWork;

static VOID NTAPI NoWork(WDFWORKITEM)
{
}

VOID AskAttributes(WDFDEVICE device)
{
    WDFOBJECT object = NULL;
    WDF_OBJECT_ATTRIBUTES attributes;
    RtlZeroMemory(&attributes, sizeof(attributes));
    attributes.Size = sizeof(attributes);
    Answer(L"Attributes.NotInitialised", (ULONG)WdfObjectCreate(&attributes, &object));
    // What the failure leaves in the caller's handle.
    object = device;
    WDFCOLLECTION collection = (WDFCOLLECTION)object;
    WDFWAITLOCK lock = (WDFWAITLOCK)object;
    (void)WdfObjectCreate(&attributes, &object);
    (void)WdfCollectionCreate(&attributes, &collection);
    (void)WdfWaitLockCreate(&attributes, &lock);
    Answer(L"Attributes.FailedObjectIsKept", object == device);
    Answer(L"Attributes.FailedCollectionIsNull", collection == NULL);
    Answer(L"Attributes.FailedWaitLockIsNull", lock == NULL);
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ParentObject = device;
    attributes.SynchronizationScope = WdfSynchronizationScopeDevice;
    Answer(L"Attributes.Scope", (ULONG)WdfObjectCreate(&attributes, &object));

    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    WDF_WORKITEM_CONFIG config;
    WDF_WORKITEM_CONFIG_INIT(&config, NoWork);
    WDFWORKITEM item = NULL;
    Answer(L"WorkItems.WithoutAttributes", (ULONG)WdfWorkItemCreate(&config, NULL, &item));
    Answer(L"WorkItems.WithoutParent", (ULONG)WdfWorkItemCreate(&config, &attributes, &item));
    attributes.ParentObject = WdfGetDriver();
    Answer(L"WorkItems.OfTheDriver", (ULONG)WdfWorkItemCreate(&config, &attributes, &item));
    attributes.ParentObject = device;
    config.EvtWorkItemFunc = NULL;
    Answer(L"WorkItems.WithoutRoutine", (ULONG)WdfWorkItemCreate(&config, &attributes, &item));
    config.Size = 0;
    Answer(L"WorkItems.ConfigSize", (ULONG)WdfWorkItemCreate(&config, &attributes, &item));
}

VOID AskDevice(WDFDEVICE device)
{
    Answer(L"Device.DriverIsOurs", WdfDeviceGetDriver(device) == WdfGetDriver());
    Answer(L"Device.DefaultQueueOfNone", WdfDeviceGetDefaultQueue(device) != NULL);

    WDF_IO_QUEUE_CONFIG queue;
    WDF_IO_QUEUE_CONFIG_INIT(&queue, WdfIoQueueDispatchSequential);
    WDFQUEUE handle = NULL;
    Answer(L"Queues.WithoutCallback", (ULONG)WdfIoQueueCreate(device, &queue, NULL, &handle));
    queue.Size = 0;
    Answer(L"Queues.ConfigSize", (ULONG)WdfIoQueueCreate(device, &queue, NULL, &handle));

    INTERFACE table;
    RtlZeroMemory(&table, sizeof(table));
    table.Size = sizeof(table) - 1;
    static const GUID kType = {0x6C7C7C9F, 0x0FD6, 0x4C4F, {0x8E, 0x55, 0x90, 0x2C, 0x7B, 0x8F, 0x1A, 0x01}};
    WDF_QUERY_INTERFACE_CONFIG config;
    WDF_QUERY_INTERFACE_CONFIG_INIT(&config, &table, &kType, NULL);
    Answer(L"QueryInterface.SmallTable", (ULONG)WdfDeviceAddQueryInterface(device, &config));
    config.Interface = NULL;
    Answer(L"QueryInterface.NoTable", (ULONG)WdfDeviceAddQueryInterface(device, &config));

    WDFKEY key = NULL;
    if (NT_SUCCESS(WdfDriverOpenParametersRegistryKey(WdfGetDriver(), KEY_READ, WDF_NO_OBJECT_ATTRIBUTES, &key))) {
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, L"NeverWritten");
        ULONG value = 0;
        Answer(L"Registry.Missing", (ULONG)WdfRegistryQueryULong(key, &name, &value));
        WdfRegistryClose(key);
    }
}

static CALLBACK_FUNCTION NoCallback;

static VOID NTAPI NoCallback(PVOID, PVOID, PVOID)
{
}

static NTSTATUS OpenCallback(PCWSTR name, PCALLBACK_OBJECT* object)
{
    UNICODE_STRING text;
    RtlInitUnicodeString(&text, name);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &text, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
    return ExCreateCallback(object, &attributes, FALSE, TRUE);
}

VOID AskKernel(VOID)
{
    UNICODE_STRING text;
    RtlInitUnicodeString(&text, NULL);
    Answer(L"Kernel.StringOfNothing", text.Buffer == NULL && text.Length == 0 && text.MaximumLength == 0);
    WCHAR room[3];
    UNICODE_STRING copy = {.Length = 0, .MaximumLength = 2 * sizeof(WCHAR), .Buffer = room};
    RtlInitUnicodeString(&text, L"abc");
    RtlCopyUnicodeString(&copy, &text);
    Answer(L"Kernel.CopyIsCut", copy.Length);
    Answer(L"Kernel.EqualBytes", (ULONG)RtlCompareMemory("abcd", "abxd", 4));

    RtlInitUnicodeString(&text, L"EtwRegisterClassicProvider");
    Answer(L"Kernel.HasClassicProvider", MmGetSystemRoutineAddress(&text) != NULL);
    RtlInitUnicodeString(&text, L"ZepnNoSuchRoutine");
    Answer(L"Kernel.MissingRoutine", MmGetSystemRoutineAddress(&text) != NULL);

    PCALLBACK_OBJECT object = NULL;
    Answer(L"Callback.Missing", (ULONG)OpenCallback(L"\\Callback\\ZepnNoSuchCallback", &object));
    const NTSTATUS status = OpenCallback(L"\\Callback\\POWERSTATE", &object);
    Answer(L"Callback.PowerState", (ULONG)status);
    if (NT_SUCCESS(status)) {
        PVOID first = ExRegisterCallback(object, NoCallback, NULL);
        PVOID second = ExRegisterCallback(object, NoCallback, NULL);
        Answer(L"Callback.SeveralRegister", first != NULL && second != NULL && first != second);
        if (second != NULL) {
            ExUnregisterCallback(second);
        }
        if (first != NULL) {
            ExUnregisterCallback(first);
        }
        ObDereferenceObject(object);
    }
}
