// Framework objects: tree, references, typed contexts, and the handles that name them.
//
// One mutex (Framework::mutex) guards all of it. It is never held while driver code runs.
#pragma once

#include "host/framework/inspector.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace host::framework {

struct DriverInstance;
struct DeviceState;
struct QueueState;

struct Slot;

// Memory for values of one kind. What was given back serves others of that kind only, so that a thread may still look
// at it and then find that the handle is dead.
template <class Kind>
// NOLINTNEXTLINE(bugprone-crtp-constructor-accessibility): its kinds are aggregates, which construct their base.
struct KeepsKind {
    static void* operator new(std::size_t bytes);
    static void operator delete(void* memory, std::size_t bytes);
};

struct Context : KeepsKind<Context> {
    PCWDF_OBJECT_CONTEXT_TYPE_INFO type;  // look-up goes by this address
    void* memory;
    std::size_t sizeBytes;
    PFN_WDF_OBJECT_CONTEXT_CLEANUP cleanup;
    PFN_WDF_OBJECT_CONTEXT_DESTROY destroy;
    std::atomic<Context*> next{nullptr};
};

// An object's contexts in the order in which they were added. They stay as long as the object, so any thread may look
// while one is added.
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
            at_ = at_->next.load(std::memory_order_acquire);
            return *this;
        }
        bool operator==(const Iterator&) const = default;

    private:
        const Context* at_;
    };
    [[nodiscard]] Iterator begin() const { return Iterator(first_.load(std::memory_order_acquire)); }
    [[nodiscard]] static Iterator end() { return Iterator(nullptr); }
    [[nodiscard]] bool empty() const { return begin() == end(); }
    [[nodiscard]] const Context& front() const { return *begin(); }

    // Null when there is none of this type.
    [[nodiscard]] const Context* Find(PCWDF_OBJECT_CONTEXT_TYPE_INFO type) const
    {
        const Context* context = first_.load(std::memory_order_acquire);
        while (context != nullptr && context->type != type) {
            context = context->next.load(std::memory_order_acquire);
        }
        return context;
    }

    void Add(std::unique_ptr<Context> context);

private:
    std::atomic<Context*> first_{nullptr};
    Context* last_ = nullptr;
};

struct Object : KeepsKind<Object> {
    Object(ObjectType objectType, DriverInstance* owner) : type(objectType), driver(owner) {}
    virtual ~Object() = default;
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;

    const ObjectType type;
    DriverInstance* const driver;
    WDFOBJECT handle = nullptr;
    Slot* slot = nullptr;
    ContextList contexts;
    long references = 1;        // the creation reference, the driver's own and those of collections
    long driverReferences = 0;  // the driver's own: what it may give back
    bool deleted = false;       // delete or the parent's end has begun
    bool finished = false;      // the creation reference is given up
    bool noDelete = false;      // not for the driver to delete
    unsigned serial = 0;        // among the objects of its type, for reports

    // Children in creation order, as a list through the siblings: clients have many short-lived ones.
    Object* parent = nullptr;
    Object* firstChild = nullptr;
    Object* lastChild = nullptr;
    Object* previousSibling = nullptr;
    Object* nextSibling = nullptr;

    // All objects alive, in creation order.
    Object* previousAlive = nullptr;
    Object* nextAlive = nullptr;

    std::string name;  // for reports; may be empty

    // From the creation attributes when these name no context type; a context carries its own.
    PFN_WDF_OBJECT_CONTEXT_CLEANUP cleanup = nullptr;
    PFN_WDF_OBJECT_CONTEXT_DESTROY destroy = nullptr;

    // Taken from the parent when the object gets its place, unless its attributes say otherwise.
    WDF_EXECUTION_LEVEL executionLevel = WdfExecutionLevelInheritFromParent;
    WDF_SYNCHRONIZATION_SCOPE synchronizationScope = WdfSynchronizationScopeInheritFromParent;
};

struct GeneralObject final : Object {
    explicit GeneralObject(DriverInstance* owner) : Object(ObjectType::kGeneral, owner) {}
};

struct DriverObject final : Object {
    explicit DriverObject(DriverInstance* owner) : Object(ObjectType::kDriver, owner) { noDelete = true; }
    WDF_DRIVER_CONFIG config{};
};

struct CollectionObject final : Object {
    explicit CollectionObject(DriverInstance* owner) : Object(ObjectType::kCollection, owner) {}

    // One reference each. Changed under the framework's mutex and the slot's lock, so either is enough to look.
    std::deque<Object*> items;
    std::atomic<std::uint32_t> count{0};  // of them, for who takes neither

    // The framework keeps a list and walks it from the head to an index; here the place is found at once, and the steps
    // that the walks would take are counted under the slot's lock.
    std::uint64_t listSteps = 0;
};

// Held by whom the slot says: taken and given back by one atomic exchange, under the framework's mutex or without.
struct WaitLockObject final : Object {
    explicit WaitLockObject(DriverInstance* owner) : Object(ObjectType::kWaitLock, owner) {}
    bool abandoned = false;      // its holder's callback is over: nobody will give it back
    std::string abandonedBy;     // that thread's name
    unsigned rank = 0;           // in the declared order; 0: in none
    std::uint64_t robbedId = 0;  // whose hold a stranger's release ended

    // Locks under which this one was taken before, in an order that has been looked at; the rest is in the lock orders.
    std::array<std::atomic<WDFOBJECT>, 4> takenUnder{};
};

struct SpinLockObject final : Object {
    explicit SpinLockObject(DriverInstance* owner) : Object(ObjectType::kSpinLock, owner) {}
    bool held = false;
    bool abandoned = false;      // its holder's callback is over: nobody will give it back
    std::uint64_t holderId = 0;  // ThreadState::id
    std::string holderName;
    KIRQL levelBefore = PASSIVE_LEVEL;  // its holder's, which the release brings back
};

struct WorkItemObject final : Object {
    explicit WorkItemObject(DriverInstance* owner) : Object(ObjectType::kWorkItem, owner) {}
    PFN_WDF_WORKITEM routine = nullptr;
    bool queued = false;
    bool disposing = false;                // disposal has begun: enqueue is dropped
    unsigned starting = 0;                 // taken off the queue, not on their thread yet
    std::vector<std::uint64_t> runningOn;  // thread ids
    std::uint64_t callbackThread = 0;  // of the run that began last, until any run ends: all that the framework keeps
};

struct KeyObject final : Object {
    explicit KeyObject(DriverInstance* owner) : Object(ObjectType::kKey, owner) {}
    std::string service;
    ACCESS_MASK access = 0;  // that it was opened for
};

// Which C++ type stands behind a handle type.
template <class T>
inline constexpr ObjectType kTypeOf = ObjectType::kGeneral;
template <>
inline constexpr ObjectType kTypeOf<DriverObject> = ObjectType::kDriver;
template <>
inline constexpr ObjectType kTypeOf<CollectionObject> = ObjectType::kCollection;
template <>
inline constexpr ObjectType kTypeOf<WaitLockObject> = ObjectType::kWaitLock;
template <>
inline constexpr ObjectType kTypeOf<SpinLockObject> = ObjectType::kSpinLock;
template <>
inline constexpr ObjectType kTypeOf<WorkItemObject> = ObjectType::kWorkItem;
template <>
inline constexpr ObjectType kTypeOf<KeyObject> = ObjectType::kKey;

}  // namespace host::framework
