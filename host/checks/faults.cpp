#include "host/checks/faults.h"

#include "host/armed.h"

#include <utility>

namespace host::checks {
namespace {

bool IsFrom(const Fault& fault, const std::function<CallSite()>& site)
{
    if (fault.module.empty() && fault.caller.empty()) {
        return true;
    }
    const CallSite here = site();
    return (fault.module.empty() || fault.module == here.module) &&
           (fault.caller.empty() || fault.caller == here.function);
}

}  // namespace

void FaultPlan::Add(Fault fault)
{
    const bool hidesDriver = fault.function == "WdfGetDriver";
    {
        const std::lock_guard lock(mutex_);
        armed_.push_back({std::move(fault)});
        Arm(kArmedFaults, true);
        injected_ += hidesDriver ? 1 : 0;
    }
    if (hidesDriver && onHideDriver) {
        onHideDriver(true);
    }
}

void FaultPlan::Clear()
{
    {
        const std::lock_guard lock(mutex_);
        armed_.clear();
        Arm(kArmedFaults, false);
        injected_ = 0;
    }
    if (onHideDriver) {
        onHideDriver(false);
    }
}

unsigned FaultPlan::InjectedCount() const
{
    const std::lock_guard lock(mutex_);
    return injected_;
}

std::optional<Fault> FaultPlan::Inject(const char* function, const std::function<CallSite()>& site, const char* detail)
{
    const std::lock_guard lock(mutex_);
    for (Armed& armed : armed_) {
        const Fault& fault = armed.fault;
        if (fault.function != function || (!fault.detail.empty() && fault.detail != detail) || !IsFrom(fault, site)) {
            continue;
        }
        const unsigned seen = armed.seen++;
        if (seen >= fault.skip && (fault.count == Fault::kAll || seen - fault.skip < fault.count)) {
            ++injected_;
            return fault;
        }
    }
    return std::nullopt;
}

}  // namespace host::checks
