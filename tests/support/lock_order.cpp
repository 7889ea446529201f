#include "tests/support/lock_order.h"

#include "context/driver_context.h"

namespace tests {

void DeclareLockOrder(host::Machine& machine, const void* context)
{
    for (const ZEP_NOTIFIER_LOCK_RANK& entry : kLockOrder) {
        const auto* lock = static_cast<const char*>(context) + entry.Offset;
        machine.RankLock(*reinterpret_cast<const WDFWAITLOCK*>(lock), entry.Rank);
    }
}

}  // namespace tests
