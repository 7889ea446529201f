// Object attributes: checked in the framework's order, then applied; and the contexts that they ask for.
#include "host/framework/attributes.h"

#include "host/framework/framework.h"

namespace host::framework {
namespace {

bool MayHaveLevel(ObjectType type)
{
    return type == ObjectType::kGeneral || type == ObjectType::kDriver || type == ObjectType::kDevice ||
           type == ObjectType::kQueue || type == ObjectType::kFileObject || type == ObjectType::kTimer;
}

bool MayHaveScope(ObjectType type)
{
    return type == ObjectType::kDriver || type == ObjectType::kDevice || type == ObjectType::kQueue ||
           type == ObjectType::kFileObject;
}

}  // namespace

NTSTATUS CheckAttributes(const WDF_OBJECT_ATTRIBUTES* attributes, ObjectType type, ParentRule parentRule)
{
    if (attributes == nullptr) {
        return parentRule == ParentRule::kRequired ? STATUS_WDF_PARENT_NOT_SPECIFIED : STATUS_SUCCESS;
    }
    if (attributes->Size != sizeof(WDF_OBJECT_ATTRIBUTES)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    const WDF_OBJECT_CONTEXT_TYPE_INFO* info = attributes->ContextTypeInfo;
    if (info != nullptr && info->Size != sizeof(WDF_OBJECT_CONTEXT_TYPE_INFO)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    if (info != nullptr && info->ContextSize > 0 && info->ContextName == nullptr) {
        return STATUS_WDF_OBJECT_ATTRIBUTES_INVALID;
    }
    if (attributes->ContextSizeOverride != 0 &&
        (info == nullptr || attributes->ContextSizeOverride < info->ContextSize)) {
        return STATUS_WDF_OBJECT_ATTRIBUTES_INVALID;
    }
    if (attributes->ParentObject != nullptr && parentRule == ParentRule::kForbidden) {
        return STATUS_WDF_PARENT_ASSIGNMENT_NOT_ALLOWED;
    }
    if (attributes->ParentObject == nullptr && parentRule == ParentRule::kRequired) {
        return STATUS_WDF_PARENT_NOT_SPECIFIED;
    }
    const int level = attributes->ExecutionLevel;
    const int scope = attributes->SynchronizationScope;
    if (level <= WdfExecutionLevelInvalid || level > WdfExecutionLevelDispatch ||
        scope <= WdfSynchronizationScopeInvalid || scope > WdfSynchronizationScopeNone) {
        return STATUS_WDF_OBJECT_ATTRIBUTES_INVALID;
    }
    if ((scope == WdfSynchronizationScopeDevice || scope == WdfSynchronizationScopeQueue) && !MayHaveScope(type)) {
        return STATUS_WDF_SYNCHRONIZATION_SCOPE_INVALID;
    }
    if ((level == WdfExecutionLevelPassive || level == WdfExecutionLevelDispatch) && !MayHaveLevel(type)) {
        return STATUS_WDF_EXECUTION_LEVEL_INVALID;
    }
    if (attributes->ContextSizeOverride > Environment::Current().options.poolBytesMaximum) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
}

Object* ObjectTree::ParentFor(const PlatformCall& call, const WDF_OBJECT_ATTRIBUTES* attributes, Object* defaultParent,
                              NTSTATUS& status) const
{
    Object* parent = defaultParent;
    if (attributes != nullptr && attributes->ParentObject != nullptr) {
        parent = ResolveAny(call, attributes->ParentObject, "ParentObject");
        if (parent == nullptr) {
            status = STATUS_INVALID_PARAMETER;
            return nullptr;
        }
    }
    if (parent->IsDeleted()) {
        status = STATUS_DELETE_PENDING;
        return nullptr;
    }
    return parent;
}

void ObjectTree::ApplyAttributes(Object& object, const WDF_OBJECT_ATTRIBUTES* attributes)
{
    if (attributes == nullptr) {
        return;
    }
    if (attributes->ExecutionLevel != WdfExecutionLevelInheritFromParent) {
        object.executionLevel = attributes->ExecutionLevel;
    }
    if (attributes->SynchronizationScope != WdfSynchronizationScopeInheritFromParent) {
        object.synchronizationScope = attributes->SynchronizationScope;
    }
    if (attributes->ContextTypeInfo != nullptr) {
        AddContext(object, *attributes);
    } else {
        object.cleanup = attributes->EvtCleanupCallback;
        object.destroy = attributes->EvtDestroyCallback;
    }
}

const Context& ObjectTree::AddContext(Object& object, const WDF_OBJECT_ATTRIBUTES& attributes)
{
    constexpr std::size_t kAlignment = 16;
    const std::size_t size =
        attributes.ContextSizeOverride != 0 ? attributes.ContextSizeOverride : attributes.ContextTypeInfo->ContextSize;
    auto made = std::make_unique<Context>();
    Context& context = *made;
    context.type = attributes.ContextTypeInfo->UniqueType;
    context.memory = framework_.kernel.contextMemory().Allocate(size, kAlignment);
    context.sizeBytes = size;
    context.cleanup = attributes.EvtCleanupCallback;
    context.destroy = attributes.EvtDestroyCallback;
    object.contexts.Add(std::move(made));
    return context;
}

}  // namespace host::framework
