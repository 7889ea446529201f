// What is done to the Notifier: by client drivers, the crash-dump driver, an application, and the system. A scenario's
// steps and the sequences of the tests are made of these operations.
#pragma once

#include <cstdint>
#include <iterator>
#include <string>
#include <vector>

namespace peers {

enum class Kind : std::uint8_t {
    // A client's.
    kRegister,
    kDeregister,
    kSubscribe,
    kUnsubscribe,
    kPost,
    kCommand,
    kStartDump,
    kAddDumpData,
    kQueryDump,
    kAddTriageData,
    kStopDump,
    // The crash-dump driver's.
    kAttach,
    kDetach,
    kCount,
    kDescribe,
    // An application's, with the control device.
    kOpen,
    kControl,
    kClose,
    // The system's.
    kDeliver,  // queued work runs
    kRunOne,   // the oldest queued work item runs
    kTimeout,
    kWait,
    kSleep,
    kWake,
    kPowerDown,  // the device
    kPowerUp,
    kLoad,
    kAddDevice,
    kStart,
    kAskToStop,
    kAskToRemove,
    kSurpriseRemoval,
    kRemove,
    kUnload,
    kStop,  // a client's device, asked first
    kPull,  // ... and not
    // Nobody's: what a scenario says or looks at.
    kNote,
    kExpect,
};

// The name that a step of this kind has in scenario files, where it is one.
[[nodiscard]] inline const char* Name(Kind kind)
{
    constexpr const char* kNames[] = {
        "register",    "deregister", "subscribe",     "unsubscribe",     "post",    "command", "startDump",
        "addDumpData", "queryDump",  "addTriageData", "stopDump",        "attach",  "detach",  "count",
        "describe",    "open",       "control",       "close",           "deliver", "runOne",  "timeout",
        "wait",        "sleep",      "wake",          "powerDown",       "powerUp", "load",    "addDevice",
        "start",       "askToStop",  "askToRemove",   "surpriseRemoval", "remove",  "unload",  "stop",
        "pull",        "note",       "expect"};
    static_assert(std::size(kNames) == static_cast<std::size_t>(Kind::kExpect) + 1);
    return kNames[static_cast<std::size_t>(kind)];
}

[[nodiscard]] constexpr bool IsOfClient(Kind kind)
{
    return kind <= Kind::kStopDump;
}

// The arguments that may be passed as NULL, by their names in scenario files.
[[nodiscard]] inline std::vector<std::string> NullArguments(Kind kind)
{
    switch (kind) {
    case Kind::kRegister:
        return {"guid", "callbacks"};
    case Kind::kDeregister:
        return {"guid"};
    case Kind::kSubscribe:
        return {"guid", "record", "callback"};
    case Kind::kUnsubscribe:
        return {"guid", "record"};
    case Kind::kCount:
        return {"count"};
    case Kind::kDescribe:
        return {"descriptors", "count"};
    default:
        return kind <= Kind::kAttach ? std::vector<std::string>{"record"} : std::vector<std::string>{};
    }
}

}  // namespace peers
