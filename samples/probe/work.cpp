// Work items and wait locks.
#include "samples/probe/probe.h"

typedef struct _WORK_CONTEXT {
    ULONG Runs;
    ULONG EnqueuesLeft;  // from inside the run
    WDFWAITLOCK Lock;    // to be tried
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

static EVT_WDF_WORKITEM TryingWork;

static VOID NTAPI TryingWork(WDFWORKITEM item)
{
    WORK_CONTEXT* work = Work(item);
    LONGLONG now = 0;
    LONGLONG shortly = Milliseconds(10).QuadPart;
    work->TryNow = WdfWaitLockAcquire(work->Lock, &now);
    work->TryShortly = WdfWaitLockAcquire(work->Lock, &shortly);
}

static NTSTATUS MakeWork(WDFDEVICE device, PFN_WDF_WORKITEM routine, WDFWORKITEM* item)
{
    WDF_WORKITEM_CONFIG config;
    WDF_WORKITEM_CONFIG_INIT(&config, routine);
    config.AutomaticSerialization = FALSE;
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, WORK_CONTEXT);
    attributes.ParentObject = device;
    return WdfWorkItemCreate(&config, &attributes, item);
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

    // The end of an item waits for what is queued.
    work->Runs = 0;
    WdfWorkItemEnqueue(item);
    WdfObjectReference(item);
    WdfObjectDelete(item);
    Answer(L"WorkItems.DeleteWaitsForQueued", work->Runs);
    WdfObjectDereference(item);
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
