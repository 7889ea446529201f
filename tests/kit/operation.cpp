#include "tests/kit/operation.h"

#include "driver/include/zepn_notifier.h"
#include "tests/kit/callback_lines.h"

#include <iterator>

namespace tests {

const char* Name(Kind kind)
{
    constexpr const char* kNames[] = {
        "register",  "deregister",    "subscribe", "unsubscribe", "post",     "command",   "startDump", "addDumpData",
        "queryDump", "addTriageData", "stopDump",  "attach",      "detach",   "count",     "describe",  "runOne",
        "deliver",   "control",       "timeout",   "sleep",       "wake",     "powerDown", "powerUp",   "open",
        "close",     "load",          "addDevice", "start",       "surprise", "remove",    "unload"};
    static_assert(std::size(kNames) == static_cast<std::size_t>(Kind::kUnload) + 1);
    return kNames[static_cast<std::size_t>(kind)];
}

bool IsOfClient(Kind kind)
{
    return kind <= Kind::kStopDump;
}

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
    return text + (operation.null.empty() ? "" : ", null " + std::string(operation.null));
}

}  // namespace tests
