#include "host/framework/holdings.h"

#include "host/framework/framework.h"

#include <map>
#include <utility>

namespace host::framework {

std::vector<Holding> HoldingsOf(Framework& framework, const DriverInstance& driver)
{
    std::map<std::pair<const void*, std::string>, Holding> holdings;
    const auto add = [&](const std::string& what, const checks::Addresses& madeBy) {
        if (!madeBy.empty() && framework.drivers.At(madeBy.back()) == &driver) {
            Holding& holding = holdings.try_emplace({madeBy.back(), what}, Holding{what, 0, madeBy}).first->second;
            ++holding.count;
        }
    };
    const std::lock_guard lock(framework.mutex);
    framework.handles.ForEach([&](const Object& object) {
        if (object.driver == &driver && !object.IsFinished()) {
            const std::string context =
                object.contexts.empty() ? "" : std::string(" (") + object.contexts.front().type->ContextName + ")";
            add(Name(object.type) + context, object.createdBy);
        }
    });
    framework.kernel.ForEachPoolBlock([&](const void*, const kernel::PoolBlock& block) {
        add("block of pool with tag " + kernel::QuotedTag(block.tag), block.path);
    });
    std::vector<Holding> all;
    for (auto& [place, holding] : holdings) {
        all.push_back(std::move(holding));
    }
    return all;
}

}  // namespace host::framework
