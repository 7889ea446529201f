// What all framework objects have: references, typed contexts, their place in the tree, and the handle that names them.
//
// The framework's mutex guards all of it. It is never held while driver code runs.
#pragma once

#include "host/checks/call_path.h"
#include "host/framework/inspector.h"
#include "host/framework/kept_memory.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace host::framework {

class Framework;
struct DriverInstance;
struct Slot;

struct Context : KeepsKind<Context> {
    PCWDF_OBJECT_CONTEXT_TYPE_INFO type;  // look-up goes by this address
    void* memory;
    std::size_t sizeBytes;
    PFN_WDF_OBJECT_CONTEXT_CLEANUP cleanup;
    PFN_WDF_OBJECT_CONTEXT_DESTROY destroy;
    Context* next = nullptr;
};

// An object's contexts in the order in which they were added.
class ContextList {
public:
    ContextList() = default;
    ~ContextList();
    ContextList(const ContextList&) = delete;
    ContextList& operator=(const ContextList&) = delete;

    class Iterator {
    public:
        explicit Iterator(const Context* at) : at_(at) {}
        const Context& operator*() const { return *at_; }
        Iterator& operator++()
        {
            at_ = at_->next;
            return *this;
        }
        bool operator==(const Iterator&) const = default;

    private:
        const Context* at_;
    };
    [[nodiscard]] Iterator begin() const { return Iterator(first_); }
    [[nodiscard]] static Iterator end() { return Iterator(nullptr); }
    [[nodiscard]] bool empty() const { return first_ == nullptr; }
    [[nodiscard]] const Context& front() const { return *first_; }

    // Null when there is none of this type.
    [[nodiscard]] const Context* Find(PCWDF_OBJECT_CONTEXT_TYPE_INFO type) const
    {
        const Context* context = first_;
        while (context != nullptr && context->type != type) {
            context = context->next;
        }
        return context;
    }

    void Add(std::unique_ptr<Context> context);

private:
    Context* first_ = nullptr;
    Context* last_ = nullptr;
};

class Object : public KeepsKind<Object> {
public:
    Object(ObjectType objectType, DriverInstance* owner) : type(objectType), driver(owner) {}
    virtual ~Object() = default;
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;

    // ---- What a type of objects adds to the end of an object; the object tree calls it ----

    // After the children are disposed, before the clean-up callbacks: waits for what is under way, closes what is open.
    // The lock is released meanwhile.
    virtual void OnDispose(Framework& /*framework*/, std::unique_lock<std::mutex>& /*lock*/) {}
    // When an object that was deleted itself, not with its parent, and all below it have given up their creation
    // references.
    virtual void OnFinished(Framework& /*framework*/, std::unique_lock<std::mutex>& /*lock*/) {}
    // After the destroy callbacks: gives up what it holds of others.
    virtual void OnDestroy(Framework& /*framework*/, std::unique_lock<std::mutex>& /*lock*/) {}
    // Its memory goes next, perhaps without callbacks: nothing may lead to it any more.
    virtual void OnFree(Framework& /*framework*/) {}
    // Whether its callbacks must run at PASSIVE_LEVEL.
    [[nodiscard]] virtual bool NeedsPassiveLevel() const { return false; }

    // Adds what the inspector shows of this type.
    virtual void Show(ObjectSnapshot& /*view*/) const {}

    // ---- Its state, which the object tree changes ----

    [[nodiscard]] bool IsDeleted() const { return deleted_; }    // delete or the parent's end has begun
    [[nodiscard]] bool IsFinished() const { return finished_; }  // the creation reference is given up
    // The creation reference, the driver's own and those of collections.
    [[nodiscard]] long References() const { return references_; }
    [[nodiscard]] Object* parent() const { return parent_; }
    [[nodiscard]] Object* firstChild() const { return firstChild_; }
    [[nodiscard]] Object* nextSibling() const { return nextSibling_; }

    // ---- Set at its creation ----

    const ObjectType type;
    DriverInstance* const driver;
    WDFOBJECT handle = nullptr;
    Slot* slot = nullptr;
    ContextList contexts;
    std::string name;  // for reports; may be empty
    checks::Addresses createdBy;
    bool noDelete = false;  // not for the driver to delete

    // From the creation attributes when these name no context type; a context carries its own.
    PFN_WDF_OBJECT_CONTEXT_CLEANUP cleanup = nullptr;
    PFN_WDF_OBJECT_CONTEXT_DESTROY destroy = nullptr;

    // Taken from the parent when the object gets its place, unless its attributes say otherwise.
    WDF_EXECUTION_LEVEL executionLevel = WdfExecutionLevelInheritFromParent;
    WDF_SYNCHRONIZATION_SCOPE synchronizationScope = WdfSynchronizationScopeInheritFromParent;

private:
    friend class ObjectTree;
    friend class HandleTable;
    friend std::string Describe(const Object& object);

    long references_ = 1;
    long driverReferences_ = 0;                    // the driver's own: what it may give back
    std::vector<checks::Addresses> referencedBy_;  // the calls that took these, each once, while there are any
    bool deleted_ = false;
    bool finished_ = false;
    unsigned serial_ = 0;  // among the objects of its type, for reports

    // Children in creation order, as a list through the siblings: clients have many short-lived ones.
    Object* parent_ = nullptr;
    Object* firstChild_ = nullptr;
    Object* lastChild_ = nullptr;
    Object* previousSibling_ = nullptr;
    Object* nextSibling_ = nullptr;

    // All objects alive, in creation order.
    Object* previousAlive_ = nullptr;
    Object* nextAlive_ = nullptr;
};

struct GeneralObject final : Object {
    explicit GeneralObject(DriverInstance* owner) : Object(ObjectType::kGeneral, owner) {}
    [[nodiscard]] bool NeedsPassiveLevel() const override { return executionLevel == WdfExecutionLevelPassive; }
};

// The C++ type of each handle type.
template <class T>
inline constexpr ObjectType kTypeOf = ObjectType::kGeneral;

// "wait lock #3 (clients lock)"
[[nodiscard]] std::string Describe(const Object& object);

}  // namespace host::framework
