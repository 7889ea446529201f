// Work items and wait locks.
#include "samples/probe/probe.h"

typedef struct _WORK_CONTEXT {
    ULONG Runs;
    ULONG EnqueuesLeft;  // from inside the run
    WDFWAITLOCK Lock;    // to be tried
    ULONG Overlapped;
    NTSTATUS TryNow;
    NTSTATUS TryShortly;
} WORK_CONTEXT;
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(WORK_CONTEXT, Work)

static LARGE_INTEGER Milliseconds(LONGLONG milliseconds)
{
    LARGE_INTEGER interval;
    interval.QuadPart = -milliseconds * 10000;
    return interval;
}

static EVT_WDF_WORKITEM CountingWork;

// Each run takes a while, so that enqueues meet a queued item.
static VOID NTAPI CountingWork(WDFWORKITEM item)
{
    WORK_CONTEXT* work = Work(item);
    __atomic_fetch_add(&work->Runs, 1, __ATOMIC_RELAXED);
    if (work->EnqueuesLeft != 0) {
        --work->EnqueuesLeft;
        WdfWorkItemEnqueue(item);
        return;
    }
    LARGE_INTEGER interval = Milliseconds(20);
    (void)KeDelayExecutionThread(KernelMode, FALSE, &interval);
}

// Waits, a few seconds at most, until another thread has done something.
static ULONG Happens(ULONG (*isDone)(const WORK_CONTEXT*), const WORK_CONTEXT* work)
{
    for (ULONG round = 0; round < 300; ++round) {
        if (isDone(work)) {
            return 1;
        }
        LARGE_INTEGER interval = Milliseconds(10);
        (void)KeDelayExecutionThread(KernelMode, FALSE, &interval);
    }
    return 0;
}

static ULONG IsSecondRun(const WORK_CONTEXT* work)
{
    return __atomic_load_n(&work->Runs, __ATOMIC_ACQUIRE) >= 2;
}

static EVT_WDF_WORKITEM OverlappingWork;

// The first run queues the second and does not return before that has begun.
static VOID NTAPI OverlappingWork(WDFWORKITEM item)
{
    WORK_CONTEXT* work = Work(item);
    if (__atomic_fetch_add(&work->Runs, 1, __ATOMIC_ACQ_REL) == 0) {
        WdfWorkItemEnqueue(item);
        work->Overlapped = Happens(IsSecondRun, work);
    }
}

static ULONG IsNoted(const WORK_CONTEXT*)
{
    return NotesSoFar() != 0;
}

static EVT_WDF_WORKITEM NotingWork;

// Gives the clean-up of the item's child time to come first, if it does.
static VOID NTAPI NotingWork(WDFWORKITEM item)
{
    (void)Happens(IsNoted, Work(item));
    Note(7);
}

static VOID NTAPI ItemCleanup(WDFOBJECT)
{
    Note(2);
}

static VOID NTAPI ItemDestroy(WDFOBJECT)
{
    Note(10);
}

static EVT_WDF_WORKITEM TryingWork;

static VOID NTAPI TryingWork(WDFWORKITEM item)
{
    WORK_CONTEXT* work = Work(item);
    LONGLONG now = 0;
    LONGLONG shortly = Milliseconds(10).QuadPart;
    work->TryNow = WdfWaitLockAcquire(work->Lock, &now);
    work->TryShortly = WdfWaitLockAcquire(work->Lock, &shortly);
}

static NTSTATUS MakeWorkWith(WDFDEVICE device, PFN_WDF_WORKITEM routine, PFN_WDF_OBJECT_CONTEXT_CLEANUP cleanup,
                             PFN_WDF_OBJECT_CONTEXT_DESTROY destroy, WDFWORKITEM* item)
{
    WDF_WORKITEM_CONFIG config;
    WDF_WORKITEM_CONFIG_INIT(&config, routine);
    config.AutomaticSerialization = FALSE;
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, WORK_CONTEXT);
    attributes.ParentObject = device;
    attributes.EvtCleanupCallback = cleanup;
    attributes.EvtDestroyCallback = destroy;
    return WdfWorkItemCreate(&config, &attributes, item);
}

static NTSTATUS MakeWork(WDFDEVICE device, PFN_WDF_WORKITEM routine, WDFWORKITEM* item)
{
    return MakeWorkWith(device, routine, NULL, NULL, item);
}

// An item with a child, deleted while a run is queued: which callback is first.
static VOID AskItemWithChild(WDFDEVICE device)
{
    WDFWORKITEM item = NULL;
    WDFOBJECT child = NULL;
    if (!NT_SUCCESS(MakeWorkWith(device, NotingWork, ItemCleanup, ItemDestroy, &item)) ||
        !NT_SUCCESS(MakeNoted((WDFOBJECT)item, 1, &child))) {
        return;
    }
    WdfWorkItemEnqueue(item);
    WdfObjectDelete(item);
    Answer(L"WorkItems.WithChild", TakeLog());
}

static VOID AskOverlap(WDFDEVICE device)
{
    WDFWORKITEM item = NULL;
    if (!NT_SUCCESS(MakeWork(device, OverlappingWork, &item))) {
        return;
    }
    WdfWorkItemEnqueue(item);
    WdfWorkItemFlush(item);
    Answer(L"WorkItems.RunsOverlap", Work(item)->Overlapped);
    WdfObjectDelete(item);
}

VOID AskWorkItems(WDFDEVICE device)
{
    constexpr ULONG kEnqueues = 1000;
    WDFWORKITEM item = NULL;
    if (!NT_SUCCESS(MakeWork(device, CountingWork, &item))) {
        return;
    }
    WORK_CONTEXT* work = Work(item);
    Answer(L"WorkItems.ParentIsDevice", WdfWorkItemGetParentObject(item) == device);
    for (ULONG index = 0; index < kEnqueues; ++index) {
        WdfWorkItemEnqueue(item);
    }
    WdfWorkItemFlush(item);
    Answer(L"WorkItems.EnqueueOfQueuedMerges", work->Runs != 0 && work->Runs < kEnqueues);

    // From inside its run an item can be queued again: two more runs.
    work->Runs = 0;
    work->EnqueuesLeft = 2;
    WdfWorkItemEnqueue(item);
    while (__atomic_load_n(&work->Runs, __ATOMIC_ACQUIRE) < 3) {
        WdfWorkItemFlush(item);
    }
    Answer(L"WorkItems.EnqueueOfRunningRuns", work->Runs);

    // The disposal of an item waits for what is queued.
    work->Runs = 0;
    WdfWorkItemEnqueue(item);
    WdfObjectReference(item);
    WdfObjectDelete(item);
    Answer(L"WorkItems.DeleteWaitsForQueued", work->Runs);
    WdfObjectDereference(item);
    AskItemWithChild(device);
    AskOverlap(device);
}

VOID AskWaitLocks(WDFDEVICE device)
{
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ParentObject = device;
    WDFWAITLOCK lock = NULL;
    WDFWORKITEM item = NULL;
    if (!NT_SUCCESS(WdfWaitLockCreate(&attributes, &lock)) || !NT_SUCCESS(MakeWork(device, TryingWork, &item))) {
        return;
    }
    LONGLONG now = 0;
    const NTSTATUS free = WdfWaitLockAcquire(lock, &now);
    Answer(L"WaitLocks.FreeNow", (ULONG)free);
    if (free == STATUS_SUCCESS) {
        WORK_CONTEXT* work = Work(item);
        work->Lock = lock;
        WdfWorkItemEnqueue(item);
        WdfWorkItemFlush(item);
        Answer(L"WaitLocks.HeldNow", (ULONG)work->TryNow);
        Answer(L"WaitLocks.HeldShortly", (ULONG)work->TryShortly);
        WdfWaitLockRelease(lock);
        Answer(L"WaitLocks.FreeForEver", (ULONG)WdfWaitLockAcquire(lock, NULL));
        WdfWaitLockRelease(lock);
    }
    WdfObjectDelete(item);
    WdfObjectDelete(lock);
}
