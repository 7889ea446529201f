#include "tests/kit/operation.h"

#include "driver/include/zepn_notifier.h"
#include "tests/kit/callback_lines.h"

namespace tests {

std::string Text(const Operation& operation)
{
    std::string text = IsOfClient(operation.kind) ? ClientName(operation.client) + " " : "";
    text += Name(operation.kind);
    const std::string state = ", state " + (operation.state == ZEP_STATE_ANY ? "any" : std::to_string(operation.state));
    const std::string value = std::to_string(operation.value);
    switch (operation.kind) {
    case Kind::kSubscribe:
    case Kind::kUnsubscribe:
        text += " to " + ClientName(operation.other) + state;
        break;
    case Kind::kPost:
        text += state;
        break;
    case Kind::kCommand:
        text += " to " + ClientName(operation.other) + ", id " + value;
        break;
    case Kind::kAttach:
    case Kind::kDescribe:
    case Kind::kControl:
    case Kind::kTimeout:
        text += " " + value;
        break;
    default:
        break;
    }
    return text + (operation.null.empty() ? "" : ", null " + operation.null);
}

}  // namespace tests
