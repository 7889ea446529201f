#include "tests/kit/lock_order.h"

#include "driver/context/driver_context.h"
#include "tests/kit/contexts.h"

namespace layout {

void DeclareLockOrder(host::Machine& machine, const host::Driver& driver)
{
    const auto context = machine.inspect().Context<DriverContext>(driver.Handle(), kDriverContextName);
    if (!context) {
        throw host::HostError("the driver has no context, so no order of locks");
    }
    for (const ZEP_NOTIFIER_LOCK_RANK& entry : kLockOrder) {
        const char* lock = reinterpret_cast<const char*>(&*context) + entry.Offset;
        machine.RankLock(*reinterpret_cast<const WDFWAITLOCK*>(lock), entry.Rank);
    }
}

}  // namespace layout
