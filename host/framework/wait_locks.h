// Wait locks: an auto-reset event each, not recursive, owned by nobody as far as the real framework knows. The host
// knows the holder, so that a wait that can never end is found instead of hung on.
#pragma once

#include "host/framework/handle_table.h"

#include <array>
#include <string>
#include <vector>

namespace host::framework {

// What a callback still held when it returned.
struct KeptLock {
    std::string name;
    const void* takenAt;  // where in an image
};

// Held by whom its slot says: taken and given back by one atomic exchange, under the framework's mutex or without. The
// mutex guards the rest.
struct WaitLockObject final : Object {
    explicit WaitLockObject(DriverInstance* owner) : Object(ObjectType::kWaitLock, owner) {}
    [[nodiscard]] std::uint64_t Holder() const { return slot->owner.load(); }  // ThreadState::id; 0: nobody
    void OnFree(Framework& framework) override;
    void Show(ObjectSnapshot& view) const override { view.held = Holder() != 0; }

    bool abandoned = false;      // its holder's callback is over: nobody will give it back
    std::string abandonedBy;     // that thread's name
    unsigned rank = 0;           // in the declared order; 0: in none
    std::uint64_t robbedId = 0;  // whose hold a stranger's release ended

    // Locks under which this one was taken before, in an order that has been looked at; the rest is in the lock orders.
    std::array<std::atomic<WDFOBJECT>, 4> takenUnder{};
};

template <>
inline constexpr ObjectType kTypeOf<WaitLockObject> = ObjectType::kWaitLock;

// Those that the calling thread took since and still holds although its callback is over: nobody will give them back.
// The mutex is held.
[[nodiscard]] std::vector<KeptLock> AbandonWaitLocks(const HandleTable& handles, const std::vector<WDFOBJECT>& before);

}  // namespace host::framework
