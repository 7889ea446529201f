#include "tests/kit/operation.h"

#include "driver/include/zepn_notifier.h"
#include "tests/kit/callback_lines.h"

#include <nlohmann/json.hpp>

namespace tests {

nlohmann::ordered_json StepOf(const Operation& operation)
{
    nlohmann::ordered_json step = {{"do", operation.kind == Kind::kRunOne ? "deliver" : Name(operation.kind)}};
    if (IsOfClient(operation.kind)) {
        step["client"] = ClientName(operation.client);
    }
    switch (operation.kind) {
    case Kind::kSubscribe:
    case Kind::kUnsubscribe:
        step["to"] = ClientName(operation.other);
        step["state"] = operation.state;
        if (operation.state == ZEP_STATE_ANY) {
            step["state"] = "any";
        }
        break;
    case Kind::kPost:
        step["state"] = operation.state;
        break;
    case Kind::kCommand:
        step["to"] = ClientName(operation.other);
        step["id"] = operation.value;
        step["argument"] = CommandArgument(operation);
        break;
    case Kind::kRunOne:
        step["runs"] = 1;
        break;
    case Kind::kDescribe:
        step["capacity"] = operation.value;
        break;
    case Kind::kControl:
        step["id"] = operation.value;
        break;
    case Kind::kTimeout:
        step["argument"] = operation.value;
        break;
    default:
        break;
    }
    if (!operation.null.empty()) {
        step["null"] = operation.null;
    }
    return step;
}

std::string Text(const Operation& operation)
{
    return StepOf(operation).dump();
}

}  // namespace tests
