// Disposal and destruction of objects, references, contexts, collections.
#include "samples/probe/probe.h"

typedef struct _FIRST_CONTEXT {
    ULONG Value;
} FIRST_CONTEXT;
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(FIRST_CONTEXT, First)
typedef struct _SECOND_CONTEXT {
    ULONG Value;
} SECOND_CONTEXT;
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(SECOND_CONTEXT, Second)

static VOID AskTree(WDFDEVICE device)
{
    // 4 is the parent of 1 and 3, 1 is the parent of 2.
    WDFOBJECT parent = NULL;
    WDFOBJECT child = NULL;
    WDFOBJECT other = NULL;
    if (!NT_SUCCESS(MakeNoted(device, 4, &parent))) {
        return;
    }
    (void)MakeNoted(parent, 1, &child);
    (void)MakeNoted(child, 2, &other);
    (void)MakeNoted(parent, 3, &other);
    WdfObjectDelete(parent);
    Answer(L"Objects.DisposalOrder", TakeLog());

    // A child with a reference of its own outlives its parent's deletion, but is cleaned up with it.
    if (!NT_SUCCESS(MakeNoted(device, 1, &parent)) || !NT_SUCCESS(MakeNoted(parent, 2, &child))) {
        return;
    }
    WdfObjectReference(child);
    WdfObjectDelete(parent);
    Answer(L"Objects.ReferencedChild", TakeLog());
    WdfObjectDereference(child);
    Answer(L"Objects.ReferencedChildDestroyed", TakeLog());
}

static VOID AskSecondDelete(WDFDEVICE device)
{
    WDFOBJECT object = NULL;
    WDFOBJECT child = NULL;
    if (!NT_SUCCESS(MakeNoted(device, 1, &object))) {
        return;
    }
    WdfObjectReference(object);
    WdfObjectDelete(object);
    WdfObjectDelete(object);
    Answer(L"Objects.SecondDelete", TakeLog());
    Answer(L"Objects.ChildOfDeleted", (ULONG)MakeNoted(object, 2, &child));
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, FIRST_CONTEXT);
    Answer(L"Contexts.AllocateOnDeleted", (ULONG)WdfObjectAllocateContext(object, &attributes, NULL));
    WdfObjectDereference(object);
    Answer(L"Objects.SecondDeleteDestroyed", TakeLog());
}

static VOID AskContexts(WDFDEVICE device)
{
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, FIRST_CONTEXT);
    attributes.ParentObject = device;
    WDFOBJECT object = NULL;
    if (!NT_SUCCESS(WdfObjectCreate(&attributes, &object))) {
        return;
    }
    Answer(L"Contexts.AreZero", First(object)->Value == 0);
    Answer(L"Contexts.AbsentIsNull", Second(object) == NULL);
    PVOID context = NULL;
    Answer(L"Contexts.WithParent", (ULONG)WdfObjectAllocateContext(object, &attributes, &context));
    attributes.ParentObject = NULL;
    Answer(L"Contexts.Again", (ULONG)WdfObjectAllocateContext(object, &attributes, &context));
    Answer(L"Contexts.AgainIsSame", context == First(object));
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    Answer(L"Contexts.WithoutType", (ULONG)WdfObjectAllocateContext(object, &attributes, &context));
    WDF_OBJECT_ATTRIBUTES_SET_CONTEXT_TYPE(&attributes, SECOND_CONTEXT);
    Answer(L"Contexts.OfAnotherType", (ULONG)WdfObjectAllocateContext(object, &attributes, &context));
    Answer(L"Contexts.OfObject", WdfObjectContextGetObject(context) == object);
    WdfObjectReference(object);
    WdfObjectDelete(object);
    Answer(L"Contexts.AfterDelete", First(object) != NULL);
    WdfObjectDereference(object);
}

static VOID NTAPI FirstCleanup(WDFOBJECT)
{
    Note(1);
}

static VOID NTAPI FirstDestroy(WDFOBJECT)
{
    Note(9);
}

static VOID NTAPI SecondCleanup(WDFOBJECT)
{
    Note(2);
}

static VOID NTAPI SecondDestroy(WDFOBJECT)
{
    Note(10);
}

// The callbacks of an object's creation, which brings no context, and those of a context that it gets later.
static VOID AskCallbackOrder(WDFDEVICE device)
{
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ParentObject = device;
    attributes.EvtCleanupCallback = FirstCleanup;
    attributes.EvtDestroyCallback = FirstDestroy;
    WDFOBJECT object = NULL;
    if (!NT_SUCCESS(WdfObjectCreate(&attributes, &object))) {
        return;
    }
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, FIRST_CONTEXT);
    attributes.EvtCleanupCallback = SecondCleanup;
    attributes.EvtDestroyCallback = SecondDestroy;
    (void)WdfObjectAllocateContext(object, &attributes, NULL);
    WdfObjectDelete(object);
    Answer(L"Contexts.CallbackOrder", TakeLog());
}

VOID AskObjects(WDFDEVICE device)
{
    AskTree(device);
    AskSecondDelete(device);
    AskContexts(device);
    AskCallbackOrder(device);
}

VOID AskCollections(WDFDEVICE device)
{
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ParentObject = device;
    WDFCOLLECTION collection = NULL;
    WDFOBJECT one = NULL;
    WDFOBJECT two = NULL;
    if (!NT_SUCCESS(WdfCollectionCreate(&attributes, &collection)) || !NT_SUCCESS(MakeNoted(device, 1, &one)) ||
        !NT_SUCCESS(MakeNoted(device, 2, &two))) {
        return;
    }
    Answer(L"Collections.FirstOfEmpty", WdfCollectionGetFirstItem(collection) != NULL);
    Answer(L"Collections.LastOfEmpty", WdfCollectionGetLastItem(collection) != NULL);
    (void)WdfCollectionAdd(collection, one);
    (void)WdfCollectionAdd(collection, two);
    Answer(L"Collections.AddTwice", (ULONG)WdfCollectionAdd(collection, one));
    Answer(L"Collections.Count", WdfCollectionGetCount(collection));
    Answer(L"Collections.BeyondEnd", WdfCollectionGetItem(collection, 3) != NULL);
    WdfCollectionRemove(collection, one);
    Answer(L"Collections.RemoveTakesFirst", WdfCollectionGetFirstItem(collection) == two);

    // A deleted item stays, usable, until it is taken out; then it is destroyed.
    WdfObjectDelete(two);
    Answer(L"Collections.DeletedItem", TakeLog());
    Answer(L"Collections.DeletedItemStays", WdfCollectionGetFirstItem(collection) == two);
    WdfCollectionRemoveItem(collection, 0);
    Answer(L"Collections.DeletedItemDestroyed", TakeLog());
    Answer(L"Collections.CountAtEnd", WdfCollectionGetCount(collection));

    // A deleted collection keeps its items as long as somebody references it.
    WdfObjectReference(collection);
    WdfObjectDelete(collection);
    Answer(L"Collections.DeletedCount", WdfCollectionGetCount(collection));
    WdfObjectDelete(one);
    Answer(L"Collections.ItemOfDeleted", TakeLog());
    WdfObjectDereference(collection);
    Answer(L"Collections.ItemOfDeletedDestroyed", TakeLog());
}
