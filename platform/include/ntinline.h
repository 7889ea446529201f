// What the kernel's headers bring as inline code and macros, beside the functions that an image imports: assertions,
// debug prints of checked builds, doubly linked lists, interlocked operations. Included by ntddk.h.
#pragma once

#include <ntplatform.h>

#ifndef DBG
#define DBG 0  // 1 in checked builds, which the builder chooses
#endif

#define CONTAINING_RECORD(address, type, field) ((type*)((PCHAR)(address) - offsetof(type, field)))
#define ARRAYSIZE(array) (sizeof(array) / sizeof((array)[0]))
#define RTL_NUMBER_OF(array) ARRAYSIZE(array)

#define DECLARE_CONST_UNICODE_STRING(name, text)  \
    const WCHAR name##_buffer[] = text;           \
    const UNICODE_STRING name = {sizeof(text) - sizeof((text)[0]), sizeof(text), (PWCHAR)name##_buffer}

// ---- Stops ----

// Ends everything at once: bugcheck 0x139 with this code.
FORCEINLINE DECLSPEC_NORETURN VOID RtlFailFast(ULONG Code)
{
#if defined(__x86_64__)
    __asm__ volatile("int $0x29" : : "c"(Code));
#else
    register ULONG code __asm__("w0") = Code;
    __asm__ volatile("brk #0xF003" : : "r"(code));
#endif
    __builtin_unreachable();
}
#define FAST_FAIL_CORRUPT_LIST_ENTRY 3

// Stops in the debugger; without one, with bugcheck 0x1E (0xC0000420).
FORCEINLINE VOID DbgRaiseAssertionFailure(VOID)
{
#if defined(__x86_64__)
    __asm__ volatile("int $0x2C");
#else
    __asm__ volatile("brk #0xF001");
#endif
}

// Only checked builds look. In the others the expression is compiled and never evaluated.
#if DBG
#define NT_ASSERT(expression) ((expression) ? TRUE : (DbgRaiseAssertionFailure(), FALSE))
#define KdPrint(arguments) DbgPrint arguments
#define KdPrintEx(arguments) DbgPrintEx arguments
#else
#define NT_ASSERT(expression) ((void)sizeof(!(expression)))
#define KdPrint(arguments) ((void)0)
#define KdPrintEx(arguments) ((void)0)
#endif
#define ASSERT(expression) NT_ASSERT(expression)

// Says that a function may be paged out, and so runs at PASSIVE_LEVEL or APC_LEVEL. Checked builds look at the level
// here; the host looks at it in each platform function that such code calls.
#if DBG
#define PAGED_CODE() NT_ASSERT(KeGetCurrentIrql() <= APC_LEVEL)
#else
#define PAGED_CODE() ((void)0)
#endif

// ---- Doubly linked lists: a head, and entries inside the records; whoever shares one locks it ----

FORCEINLINE VOID InitializeListHead(PLIST_ENTRY ListHead)
{
    ListHead->Flink = ListHead->Blink = ListHead;
}

FORCEINLINE BOOLEAN IsListEmpty(const LIST_ENTRY* ListHead)
{
    return (BOOLEAN)(ListHead->Flink == ListHead);
}

// TRUE: the list is empty now.
FORCEINLINE BOOLEAN RemoveEntryList(PLIST_ENTRY Entry)
{
    PLIST_ENTRY next = Entry->Flink;
    PLIST_ENTRY previous = Entry->Blink;
    if (next->Blink != Entry || previous->Flink != Entry) {
        RtlFailFast(FAST_FAIL_CORRUPT_LIST_ENTRY);
    }
    previous->Flink = next;
    next->Blink = previous;
    return (BOOLEAN)(next == previous);
}

// The head itself when the list is empty.
FORCEINLINE PLIST_ENTRY RemoveHeadList(PLIST_ENTRY ListHead)
{
    PLIST_ENTRY entry = ListHead->Flink;
    (void)RemoveEntryList(entry);
    return entry;
}

FORCEINLINE PLIST_ENTRY RemoveTailList(PLIST_ENTRY ListHead)
{
    PLIST_ENTRY entry = ListHead->Blink;
    (void)RemoveEntryList(entry);
    return entry;
}

FORCEINLINE VOID InsertTailList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry)
{
    PLIST_ENTRY last = ListHead->Blink;
    if (last->Flink != ListHead) {
        RtlFailFast(FAST_FAIL_CORRUPT_LIST_ENTRY);
    }
    Entry->Flink = ListHead;
    Entry->Blink = last;
    last->Flink = Entry;
    ListHead->Blink = Entry;
}

FORCEINLINE VOID InsertHeadList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry)
{
    PLIST_ENTRY first = ListHead->Flink;
    if (first->Blink != ListHead) {
        RtlFailFast(FAST_FAIL_CORRUPT_LIST_ENTRY);
    }
    Entry->Flink = first;
    Entry->Blink = ListHead;
    first->Blink = Entry;
    ListHead->Flink = Entry;
}

// ---- Interlocked operations: each a full barrier ----

// New value.
FORCEINLINE LONG InterlockedIncrement(LONG volatile* Addend)
{
    return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}

FORCEINLINE LONG InterlockedDecrement(LONG volatile* Addend)
{
    return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}

FORCEINLINE LONG64 InterlockedIncrement64(LONG64 volatile* Addend)
{
    return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}

FORCEINLINE LONG64 InterlockedDecrement64(LONG64 volatile* Addend)
{
    return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}

// Value before.
FORCEINLINE LONG InterlockedExchange(LONG volatile* Target, LONG Value)
{
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}

FORCEINLINE LONG64 InterlockedExchange64(LONG64 volatile* Target, LONG64 Value)
{
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}

FORCEINLINE PVOID InterlockedExchangePointer(PVOID volatile* Target, PVOID Value)
{
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}

FORCEINLINE LONG InterlockedExchangeAdd(LONG volatile* Addend, LONG Value)
{
    return __atomic_fetch_add(Addend, Value, __ATOMIC_SEQ_CST);
}

FORCEINLINE LONG InterlockedAnd(LONG volatile* Destination, LONG Value)
{
    return __atomic_fetch_and(Destination, Value, __ATOMIC_SEQ_CST);
}

FORCEINLINE LONG InterlockedOr(LONG volatile* Destination, LONG Value)
{
    return __atomic_fetch_or(Destination, Value, __ATOMIC_SEQ_CST);
}

FORCEINLINE LONG InterlockedCompareExchange(LONG volatile* Destination, LONG Exchange, LONG Comperand)
{
    (void)__atomic_compare_exchange_n(Destination, &Comperand, Exchange, 0, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comperand;
}

FORCEINLINE LONG64 InterlockedCompareExchange64(LONG64 volatile* Destination, LONG64 Exchange, LONG64 Comperand)
{
    (void)__atomic_compare_exchange_n(Destination, &Comperand, Exchange, 0, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comperand;
}

FORCEINLINE PVOID InterlockedCompareExchangePointer(PVOID volatile* Destination, PVOID Exchange, PVOID Comperand)
{
    (void)__atomic_compare_exchange_n(Destination, &Comperand, Exchange, 0, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comperand;
}
