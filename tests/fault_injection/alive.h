// What exists after an operation, in one form for both sides of the comparison.
#pragma once

#include "tests/fault_injection/sequence.h"

#include <map>
#include <set>

namespace fault_injection {

struct ObjectRecord {
    std::string kind;  // "client", "state", "collection" ...
    bool deleted = false;
    ULONG number = 0;   // client, poster, sender, subscriber
    ULONG other = 0;    // target
    ULONG value = 0;    // current state, posted state, awaited state, command id
    ULONG size = 0;     // of a state record
    ULONG added = 0;    // announced to the crash-dump driver
    ULONG refresh = 0;  // to be announced again
};
[[nodiscard]] std::string Text(const ObjectRecord& object);
// As reports name it: "<client 3>", "<state>".
[[nodiscard]] std::string Name(const ObjectRecord& object);
// " 1@3": what a subscription stands for in the list of its client's.
[[nodiscard]] std::string SubscriptionText(const ObjectRecord& subscription);

struct Alive {
    Lines objects;                                            // each with its parent
    std::map<std::string, std::optional<Lines>> collections;  // of the driver context; none: not created
    std::map<std::string, std::int64_t> counts;
    std::set<std::string> heldLocks;
    std::set<std::string> queuedItems;

    [[nodiscard]] Lines Text() const;
};

}  // namespace fault_injection
