// What creation refuses, what the device answers, and the kernel routines that a small driver needs.
#include "samples/probe/probe.h"

static EVT_WDF_WORKITEM NoWork;

static VOID NTAPI NoWork(WDFWORKITEM)
{
}

static EVT_WDF_IO_QUEUE_IO_DEFAULT NoRequest;

// No queue that names it is ever created.
static VOID NTAPI NoRequest(WDFQUEUE, WDFREQUEST)
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
    attributes.Size = sizeof(attributes) - sizeof(PVOID);
    object = device;
    collection = (WDFCOLLECTION)object;
    lock = (WDFWAITLOCK)object;
    WDFKEY key = (WDFKEY)object;
    Answer(L"Attributes.WrongSize", (ULONG)WdfObjectCreate(&attributes, &object));
    (void)WdfCollectionCreate(&attributes, &collection);
    (void)WdfWaitLockCreate(&attributes, &lock);
    (void)WdfDriverOpenParametersRegistryKey(WdfGetDriver(), KEY_READ, &attributes, &key);
    Answer(L"Attributes.WrongSizeObjectIsKept", object == device);
    Answer(L"Attributes.WrongSizeCollectionIsNull", collection == NULL);
    Answer(L"Attributes.WrongSizeWaitLockIsNull", lock == NULL);
    Answer(L"Attributes.WrongSizeKeyIsNull", key == NULL);
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
    item = (WDFWORKITEM)(WDFOBJECT)device;
    Answer(L"WorkItems.ConfigSize", (ULONG)WdfWorkItemCreate(&config, &attributes, &item));
    Answer(L"WorkItems.FailedIsKept", (WDFOBJECT)item == (WDFOBJECT)device);
}

VOID AskDevice(WDFDEVICE device)
{
    Answer(L"Device.DriverIsOurs", WdfDeviceGetDriver(device) == WdfGetDriver());
    Answer(L"Device.DefaultQueueOfNone", WdfDeviceGetDefaultQueue(device) != NULL);

    WDF_IO_QUEUE_CONFIG queue;
    WDF_IO_QUEUE_CONFIG_INIT(&queue, WdfIoQueueDispatchSequential);
    WDFQUEUE handle = NULL;
    Answer(L"Queues.WithoutCallback", (ULONG)WdfIoQueueCreate(device, &queue, NULL, &handle));
    queue.EvtIoDefault = NoRequest;
    queue.Settings.Parallel.NumberOfPresentedRequests = 1;
    Answer(L"Queues.SequentialWithNumber", (ULONG)WdfIoQueueCreate(device, &queue, NULL, &handle));
    queue.DispatchType = (WDF_IO_QUEUE_DISPATCH_TYPE)(WdfIoQueueDispatchManual + 1);
    Answer(L"Queues.UnknownType", (ULONG)WdfIoQueueCreate(device, &queue, NULL, &handle));
    queue.Size = 0;
    handle = (WDFQUEUE)(WDFOBJECT)device;
    Answer(L"Queues.ConfigSize", (ULONG)WdfIoQueueCreate(device, &queue, NULL, &handle));
    Answer(L"Queues.FailedIsKept", (WDFOBJECT)handle == (WDFOBJECT)device);

    UNICODE_STRING link;
    RtlInitUnicodeString(&link, L"\\DosDevices\\ZepnProbe");
    Answer(L"Device.SymbolicLink", (ULONG)WdfDeviceCreateSymbolicLink(device, &link));
    Answer(L"Device.SymbolicLinkAgain", (ULONG)WdfDeviceCreateSymbolicLink(device, &link));
}

static CALLBACK_FUNCTION NoteCallback;

// Notes the number that it was registered with.
static VOID NTAPI NoteCallback(PVOID number, PVOID, PVOID)
{
    Note((ULONG)(ULONG_PTR)number);
}

static NTSTATUS OpenCallback(PCWSTR name, BOOLEAN create, PCALLBACK_OBJECT* object)
{
    UNICODE_STRING text;
    RtlInitUnicodeString(&text, name);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &text, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
    return ExCreateCallback(object, &attributes, create, TRUE);
}

// In which order registered routines are called.
static VOID AskCallbackOrder(VOID)
{
    PCALLBACK_OBJECT object = NULL;
    if (!NT_SUCCESS(OpenCallback(L"\\Callback\\ZepnProbe", TRUE, &object))) {
        return;
    }
    PVOID registrations[3];
    for (ULONG index = 0; index < 3; ++index) {
        registrations[index] = ExRegisterCallback(object, NoteCallback, (PVOID)(ULONG_PTR)(index + 1));
    }
    ExNotifyCallback(object, NULL, NULL);
    Answer(L"Callback.Order", TakeLog());
    for (PVOID registration : registrations) {
        if (registration != NULL) {
            ExUnregisterCallback(registration);
        }
    }
    ObDereferenceObject(object);
}

// More than any machine has; a pool that cannot give it says so.
static VOID AskPool(VOID)
{
    const SIZE_T kTooMuch = (SIZE_T)1 << 46;
    PVOID block = ExAllocatePoolWithTag(PagedPool, kTooMuch, 'borP');
    Answer(L"Kernel.PoolBeyondMemory", block != NULL);
    if (block != NULL) {
        ExFreePoolWithTag(block, 'borP');
    }
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
    Answer(L"Callback.Missing", (ULONG)OpenCallback(L"\\Callback\\ZepnNoSuchCallback", FALSE, &object));
    const NTSTATUS status = OpenCallback(L"\\Callback\\POWERSTATE", FALSE, &object);
    Answer(L"Callback.PowerState", (ULONG)status);
    if (NT_SUCCESS(status)) {
        PVOID first = ExRegisterCallback(object, NoteCallback, NULL);
        PVOID second = ExRegisterCallback(object, NoteCallback, NULL);
        Answer(L"Callback.SeveralRegister", first != NULL && second != NULL && first != second);
        if (second != NULL) {
            ExUnregisterCallback(second);
        }
        if (first != NULL) {
            ExUnregisterCallback(first);
        }
        ObDereferenceObject(object);
    }
    AskCallbackOrder();
    AskPool();
}
