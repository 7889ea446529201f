// The tree of framework objects: their creation, references, disposal and destruction.
//
// Deleting an object disposes it: its children first, each one's subtree before the child itself; then what its type
// has to wait for or close; then its clean-up callbacks. After that its children and the object give up their creation
// references. References postpone only this last step, the destruction, for the object they are on.
#pragma once

#include "host/environment.h"
#include "host/framework/attributes.h"
#include "host/framework/object.h"

namespace host::framework {

// All calls are made with the framework's mutex held. Those that take the lock release it while driver code runs.
class ObjectTree {
public:
    explicit ObjectTree(Framework& framework) : framework_(framework) {}

    // Gives the object its handle and its place below the parent.
    void Register(std::unique_ptr<Object> object, Object* parent);

    // The object of a handle, whatever its type; null, with a violation, for a null, dead or foreign one.
    Object* ResolveAny(const PlatformCall& call, const void* handle, const char* argument) const;

    // The object of a handle of one type.
    template <class T>
    T* Resolve(const PlatformCall& call, const void* handle, const char* argument) const
    {
        Object* object = ResolveAny(call, handle, argument);
        if (object != nullptr && object->type != kTypeOf<T>) {
            ReportWrongType(call, *object, argument, kTypeOf<T>);
            return nullptr;
        }
        return static_cast<T*>(object);
    }

    // The parent named by the attributes, or the default; null when it cannot have children (status says why).
    Object* ParentFor(const PlatformCall& call, const WDF_OBJECT_ATTRIBUTES* attributes, Object* defaultParent,
                      NTSTATUS& status) const;
    // Callbacks, level and scope, and the context that the attributes ask for.
    void ApplyAttributes(Object& object, const WDF_OBJECT_ATTRIBUTES* attributes);
    const Context& AddContext(Object& object, const WDF_OBJECT_ATTRIBUTES& attributes);

    static void Reference(Object& object) { ++object.references_; }
    // Gives up one reference; at 0 destroy callbacks run and the memory goes.
    void Dereference(std::unique_lock<std::mutex>& lock, Object& object);
    // The same for references of the driver's own. False, and nothing is done, when the object is being destroyed, and
    // when the driver has none to give up.
    [[nodiscard]] bool ReferenceForDriver(Object& object) const;
    [[nodiscard]] bool DereferenceForDriver(std::unique_lock<std::mutex>& lock, Object& object);

    // Disposes a live object and gives up its creation reference; later, on a system thread, when the level does not
    // allow it now. Ignored when the object is deleted already.
    void Delete(std::unique_lock<std::mutex>& lock, Object& object);
    // Gives up the creation reference of an object that has no disposal, and of all below it.
    void Finish(std::unique_lock<std::mutex>& lock, Object& object);
    // Deletes that found the object deleted already: legal as long as somebody references it.
    [[nodiscard]] std::uint64_t SecondDeletes() const { return secondDeletes_; }

    // Reports and frees what a driver left when it was unloaded, without running any of its code.
    void ReportLeftBy(const DriverInstance& driver);

private:
    static void ReportWrongType(const PlatformCall& call, const Object& object, const char* argument,
                                ObjectType wanted);
    static void Unlink(Object& object);
    void Dispose(std::unique_lock<std::mutex>& lock, Object& object);
    void DisposeAndFinish(std::unique_lock<std::mutex>& lock, Object& object);
    void CallBack(std::unique_lock<std::mutex>& lock, const char* name, void(NTAPI* callback)(WDFOBJECT),
                  const Object& object);
    void Destroy(std::unique_lock<std::mutex>& lock, Object& object);
    void Free(Object& object);

    Framework& framework_;
    std::uint64_t secondDeletes_ = 0;
};

}  // namespace host::framework
