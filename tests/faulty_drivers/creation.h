// What the faulty driver and its tests create, each with no more than its test needs.
#pragma once

#include "tests/faulty_drivers/faulty.h"

inline WDF_OBJECT_ATTRIBUTES Attributes(WDFOBJECT parent = nullptr)
{
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ParentObject = parent;
    return attributes;
}

// With a FAULTY_CONTEXT.
inline WDFOBJECT NewObject(WDFOBJECT parent = nullptr)
{
    WDF_OBJECT_ATTRIBUTES attributes = Attributes(parent);
    WDF_OBJECT_ATTRIBUTES_SET_CONTEXT_TYPE(&attributes, FAULTY_CONTEXT);
    WDFOBJECT object = nullptr;
    (void)WdfObjectCreate(&attributes, &object);
    return object;
}

inline WDFWAITLOCK NewLock()
{
    WDFWAITLOCK lock = nullptr;
    (void)WdfWaitLockCreate(WDF_NO_OBJECT_ATTRIBUTES, &lock);
    return lock;
}

inline WDFCOLLECTION NewCollection()
{
    WDFCOLLECTION collection = nullptr;
    (void)WdfCollectionCreate(WDF_NO_OBJECT_ATTRIBUTES, &collection);
    return collection;
}

inline PCALLBACK_OBJECT OpenPowerState()
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, reinterpret_cast<PCWSTR>(u"\\Callback\\PowerState"));  // either size of wchar_t
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    PCALLBACK_OBJECT object = nullptr;
    (void)ExCreateCallback(&object, &attributes, FALSE, TRUE);
    return object;
}
