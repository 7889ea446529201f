#include "host/framework/lock_order.h"

#include "host/environment.h"

#include <map>
#include <utility>
#include <vector>

namespace host::framework {

using checks::Rule;

namespace {

void NoteLookedAt(WaitLockObject& wanted, WDFOBJECT held)
{
    if (LockOrder::IsLookedAt(wanted, held)) {
        return;
    }
    for (std::atomic<WDFOBJECT>& known : wanted.takenUnder) {
        if (known.load(std::memory_order_relaxed) == nullptr) {
            known.store(held, std::memory_order_relaxed);
            return;
        }
    }
}

Made AcquireOf(const WaitLockObject& held)
{
    return {"acquired", {held.slot->takenAt.load(std::memory_order_relaxed)}};
}

}  // namespace

void LockOrder::Rank(WaitLockObject& lock, unsigned rank)
{
    lock.rank = rank;
    // Every pair is looked at again.
    handles_.ForEach([](Object& object) {
        if (object.type == ObjectType::kWaitLock) {
            for (std::atomic<WDFOBJECT>& held : static_cast<WaitLockObject&>(object).takenUnder) {
                held.store(nullptr, std::memory_order_relaxed);
            }
        }
    });
}

void LockOrder::Check(const PlatformCall& call, WaitLockObject& wanted, const std::vector<WDFOBJECT>& heldLocks)
{
    for (const WDFOBJECT held : heldLocks) {
        if (held == wanted.handle) {
            continue;
        }
        const auto* ranked = static_cast<const WaitLockObject*>(handles_.Peek(held));
        if (ranked != nullptr && ranked->rank != 0 && wanted.rank != 0) {
            if (ranked->rank >= wanted.rank) {
                call.Violation(Rule::kLockOrder,
                               Describe(wanted) + " of rank " + std::to_string(wanted.rank) + " is taken while " +
                                   Describe(*ranked) + " of rank " + std::to_string(ranked->rank) + " is held",
                               {AcquireOf(*ranked)});
            } else {
                NoteLookedAt(wanted, held);
            }
            continue;
        }
        NoteLookedAt(wanted, held);
        if (orders_[held].contains(wanted.handle)) {
            continue;
        }
        // Does a chain of earlier orders lead from the wanted lock to the held one?
        std::map<WDFOBJECT, const void*> reached;  // and where that was taken
        std::vector<std::pair<WDFOBJECT, const void*>> open{{wanted.handle, nullptr}};
        while (!open.empty() && !reached.contains(held)) {
            const auto [from, takenAt] = open.back();
            open.pop_back();
            if (reached.emplace(from, takenAt).second) {
                for (const auto& [to, where] : orders_[from]) {
                    open.emplace_back(to, where);
                }
            }
        }
        orders_[held][wanted.handle] = call.caller();
        if (reached.contains(held) && ranked != nullptr) {
            call.Violation(Rule::kLockOrder,
                           Describe(wanted) + " is taken while " + Describe(*ranked) +
                               " is held; elsewhere they are taken the other way round",
                           {AcquireOf(*ranked), {"taken the other way round", {reached[held]}}});
        }
    }
}

void LockOrder::Forget(WDFOBJECT handle)
{
    orders_.erase(handle);
    for (auto& [held, later] : orders_) {
        later.erase(handle);
    }
}

}  // namespace host::framework
