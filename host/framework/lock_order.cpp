#include "host/framework/lock_order.h"

#include "host/environment.h"

#include <set>

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
                call.Violation(Rule::kLockOrder, Describe(wanted) + " of rank " + std::to_string(wanted.rank) +
                                                     " is taken while " + Describe(*ranked) + " of rank " +
                                                     std::to_string(ranked->rank) + " is held");
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
        std::set<WDFOBJECT> reached;
        std::vector<WDFOBJECT> open{wanted.handle};
        while (!open.empty() && !reached.contains(held)) {
            const WDFOBJECT from = open.back();
            open.pop_back();
            if (reached.insert(from).second) {
                for (const auto& [to, where] : orders_[from]) {
                    open.push_back(to);
                }
            }
        }
        orders_[held][wanted.handle] = call.caller();
        const Object* heldLock = handles_.Peek(held);
        if (reached.contains(held) && heldLock != nullptr) {
            call.Violation(Rule::kLockOrder, Describe(wanted) + " is taken while " + Describe(*heldLock) +
                                                 " is held; elsewhere they are taken the other way round");
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
