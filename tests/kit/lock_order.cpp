#include "tests/kit/lock_order.h"

#include "driver/context/driver_context.h"
#include "tests/kit/contexts.h"

#include <cstddef>

namespace layout {
namespace {

struct NamedMember {
    std::size_t offset;
    const char* name;
};
#define NAMED(member) {offsetof(ZEP_NOTIFIER_DRIVER_CONTEXT, member), #member}
constexpr NamedMember kNamed[] = {
    NAMED(wdfCollectionWpcdClientAddQueue),   NAMED(wdfCollectionWpcdClientRemoveQueue),
    NAMED(wdfCollectionZepClients),           NAMED(wdfCollectionZepStates),
    NAMED(wdfCollectionZepCommands),          NAMED(wdfWaitLockGeneral),
    NAMED(wdfWaitLockClientsCollection),      NAMED(wdfWaitLockStatesCollection),
    NAMED(wdfWaitLockCommandsCollection),     NAMED(wdfWaitLockNotifyStatesWorkItem),
    NAMED(wdfWaitLockNotifyCommandsWorkItem), NAMED(wdfWaitLockNotifyAppsStateWorkItem),
};
#undef NAMED

}  // namespace

void DeclareLockOrder(host::Machine& machine, const host::Driver& driver)
{
    const auto context = machine.inspect().Context<DriverContext>(driver.Handle(), kDriverContextName);
    if (!context) {
        throw host::HostError("the driver has no context, so no order of locks");
    }
    const char* members = reinterpret_cast<const char*>(&*context);
    for (const ZEP_NOTIFIER_LOCK_RANK& entry : kLockOrder) {
        machine.RankLock(*reinterpret_cast<const WDFWAITLOCK*>(members + entry.Offset), entry.Rank);
    }
    for (const NamedMember& member : kNamed) {
        machine.NameObject(*reinterpret_cast<const WDFOBJECT*>(members + member.offset), member.name);
    }
}

}  // namespace layout
