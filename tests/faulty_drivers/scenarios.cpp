// One function for each rule that the driver can break; reports name it as the caller.
#include "tests/faulty_drivers/creation.h"

namespace {

constexpr ULONG kTag = 'ytlF';
constexpr ULONG kOtherTag = 'rhtO';

WDFWAITLOCK g_lock;  // what callbacks take and release

WDFWORKITEM EnqueueNew(PFN_WDF_WORKITEM callback)
{
    WDF_WORKITEM_CONFIG config;
    WDF_WORKITEM_CONFIG_INIT(&config, callback);
    WDF_OBJECT_ATTRIBUTES attributes = Attributes(TheDevice());
    WDFWORKITEM item = nullptr;
    (void)WdfWorkItemCreate(&config, &attributes, &item);
    WdfWorkItemEnqueue(item);
    return item;
}

void NTAPI OnPowerState(PVOID, PVOID, PVOID)
{
}

void NTAPI OnTraceControl(LPCGUID, ULONG, UCHAR, ULONGLONG, ULONGLONG, PEVENT_FILTER_DESCRIPTOR, PVOID)
{
}

REGHANDLE RegisterTracing()
{
    REGHANDLE handle = 0;
    (void)EtwRegister(&kFaultyInterface, OnTraceControl, nullptr, &handle);
    return handle;
}

volatile ULONG g_sink;
WDFOBJECT g_racyObject;
WDFWAITLOCK g_racyLock;

}  // namespace

// Tests call these by their names.
extern "C" {

void NullHandle()
{
    WdfObjectDelete(nullptr);
}

void WrongType()
{
    (void)WdfCollectionGetCount(reinterpret_cast<WDFCOLLECTION>(NewLock()));
}

void DeadHandle()
{
    const WDFOBJECT object = NewObject();
    WdfObjectDelete(object);
    WdfObjectReference(object);
}

void ForeignHandle()
{
    ULONG number = 0;
    WdfObjectDelete(&number);
}

void RequiredParameter()
{
    (void)WdfObjectCreate(WDF_NO_OBJECT_ATTRIBUTES, nullptr);
}

void BadParameter()
{
    ExFreePoolWithTag(ExAllocatePoolWithTag(NonPagedPoolNx, 16, 0), 0);
}

void PoolOfNothing()
{
    ExFreePoolWithTag(ExAllocatePoolWithTag(NonPagedPoolNx, 0, kTag), kTag);
}

void DeleteNotAllowed()
{
    WdfObjectDelete(TheDevice());
}

void ReferenceUnderflow()
{
    WdfObjectDereference(NewObject());
}

// The reference that is dropped is the collection's.
void StolenReference()
{
    const WDFOBJECT object = NewObject();
    (void)WdfCollectionAdd(NewCollection(), object);
    WdfObjectDereference(object);
}

void CollectionIndex()
{
    WdfCollectionRemoveItem(NewCollection(), 0);
}

void CollectionStranger()
{
    WdfCollectionRemove(NewCollection(), NewObject());
}

void LockNotOwned()
{
    WdfWaitLockRelease(NewLock());
}

// Anybody may have the lock then.
void NTAPI ReleasesForAnother(WDFWORKITEM)
{
    WdfWaitLockRelease(g_lock);
    (void)WdfWaitLockAcquire(g_lock, nullptr);
    WdfWaitLockRelease(g_lock);
}

void StrangersRelease()
{
    g_lock = NewLock();
    (void)WdfWaitLockAcquire(g_lock, nullptr);
    WdfWorkItemFlush(EnqueueNew(ReleasesForAnother));
    WdfWaitLockRelease(g_lock);
}

// No lock is ever taken straight against an earlier order: the last pair closes a circle of three.
void OrderInversion()
{
    const WDFWAITLOCK locks[3] = {NewLock(), NewLock(), NewLock()};
    for (unsigned outer = 0; outer < 3; ++outer) {
        const unsigned inner = (outer + 1) % 3;
        (void)WdfWaitLockAcquire(locks[outer], nullptr);
        (void)WdfWaitLockAcquire(locks[inner], nullptr);
        WdfWaitLockRelease(locks[inner]);
        WdfWaitLockRelease(locks[outer]);
    }
}

void NTAPI KeepsLock(WDFWORKITEM)
{
    (void)WdfWaitLockAcquire(g_lock, nullptr);
}

// The run that keeps the lock is queued.
void LockKept()
{
    g_lock = NewLock();
    (void)EnqueueNew(KeepsLock);
}

// Run at DISPATCH_LEVEL.
void AboveItsLevel()
{
    WdfDeviceSetDeviceInterfaceState(TheDevice(), &kFaultyInterface, nullptr, TRUE);
}

void SelfWait()
{
    const WDFWAITLOCK lock = NewLock();
    (void)WdfWaitLockAcquire(lock, nullptr);
    (void)WdfWaitLockAcquire(lock, nullptr);
    WdfWaitLockRelease(lock);
}

void NTAPI WaitsForItsDeleter(WDFWORKITEM)
{
    (void)WdfWaitLockAcquire(g_lock, nullptr);
    WdfWaitLockRelease(g_lock);
}

void Deadlock()
{
    g_lock = NewLock();
    (void)WdfWaitLockAcquire(g_lock, nullptr);
    WdfObjectDelete(EnqueueNew(WaitsForItsDeleter));
    WdfWaitLockRelease(g_lock);
}

void NTAPI EnqueuesItself(WDFWORKITEM item)
{
    WdfWorkItemEnqueue(item);
}

void WorkItemGone()
{
    WdfObjectDelete(EnqueueNew(EnqueuesItself));
}

void PoolWrongTag()
{
    ExFreePoolWithTag(ExAllocatePoolWithTag(NonPagedPoolNx, 40, kTag), kOtherTag);
}

void PoolDoubleFree()
{
    PVOID const block = ExAllocatePoolWithTag(NonPagedPoolNx, 40, kTag);
    ExFreePoolWithTag(block, kTag);
    ExFreePoolWithTag(block, kTag);
}

// Only where no guard page stops it.
void PoolOverrun()
{
    auto* block = static_cast<volatile UCHAR*>(ExAllocatePoolWithTag(NonPagedPoolNx, 40, kTag));
    block[40] = 1;
    ExFreePoolWithTag(const_cast<UCHAR*>(block), kTag);
}

void TraceHandle()
{
    const EVENT_DESCRIPTOR event{};
    (void)EtwWrite(0x1234, &event, nullptr, 0, nullptr);
}

void TraceHandleTwice()
{
    const REGHANDLE handle = RegisterTracing();
    (void)EtwUnregister(handle);
    (void)EtwUnregister(handle);
}

void NotProvided()
{
    constexpr unsigned kObjectQuery = 209;
    using Function = NTSTATUS(NTAPI*)(PWDF_DRIVER_GLOBALS, WDFOBJECT, const GUID*, ULONG, PVOID);
    (void)reinterpret_cast<Function>(WdfFunctions[kObjectQuery])(WdfDriverGlobals, nullptr, nullptr, 0, nullptr);
}

void BugCheck()
{
    KeBugCheckEx(0xE2, 1, 2, 3, 4);
}

void FastFail()
{
    constexpr ULONG kFatalExit = 7;
#if defined(__x86_64__)
    asm volatile("int $0x29" ::"c"(kFatalExit));
#else
    register ULONG code asm("w0") = kFatalExit;
    asm volatile("brk #0xF003" ::"r"(code));
#endif
}

void KernelReference()
{
    PCALLBACK_OBJECT const object = OpenPowerState();
    ObDereferenceObject(object);
    ObDereferenceObject(object);
}

void LeavesPool()
{
    g_sink = ExAllocatePoolWithTag(NonPagedPoolNx, 40, kTag) != nullptr ? 1 : 0;
}

void LeavesRegistration()
{
    PCALLBACK_OBJECT const object = OpenPowerState();
    (void)ExRegisterCallback(object, OnPowerState, nullptr);
    ObDereferenceObject(object);
}

void LeavesReference()
{
    WdfObjectReference(NewObject());
}

void LeavesTracing()
{
    (void)RegisterTracing();
}

void TouchesHandle()
{
    g_sink = *static_cast<volatile ULONG*>(NewObject());
}

void TouchesFreedContext()
{
    const WDFOBJECT object = NewObject();
    const volatile FAULTY_CONTEXT* context = WdfObjectGet_FAULTY_CONTEXT(object);
    WdfObjectDelete(object);
    g_sink = context->Numbers[0];
}

void TouchesPastPool()
{
    auto* block = static_cast<volatile UCHAR*>(ExAllocatePoolWithTag(NonPagedPoolNx, 48, kTag));
    block[48] = 1;
}

void Trap()
{
    __builtin_trap();
}

void TraceNull()
{
    REGHANDLE handle = 0;
    (void)EtwRegister(nullptr, OnTraceControl, nullptr, &handle);
    g_sink = handle != 0 ? 1 : 0;
}

void CallbackStranger()
{
    static ULONG noObject;
    g_sink = ExRegisterCallback(reinterpret_cast<PCALLBACK_OBJECT>(&noObject), OnPowerState, nullptr) != nullptr;
}

// Makes the object that the next one deletes.
void RacyPrepare()
{
    g_racyObject = NewObject();
    g_racyLock = NewLock();
}

// Looks before it has the lock: right on one thread; on two both may find the object.
void RacyDelete()
{
    if (g_racyObject == nullptr) {
        return;
    }
    (void)WdfWaitLockAcquire(g_racyLock, nullptr);
    WdfObjectDelete(g_racyObject);
    g_racyObject = nullptr;
    WdfWaitLockRelease(g_racyLock);
}
}
