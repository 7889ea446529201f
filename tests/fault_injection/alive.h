// What exists after an operation, in one form for both sides of the comparison.
#pragma once

#include "tests/fault_injection/sequence.h"

#include <compare>
#include <map>
#include <set>
#include <string_view>

namespace fault_injection {

struct ObjectRecord {
    std::string_view kind;  // "client", "state", "collection" ...; of a text that stays
    bool deleted = false;
    ULONG number = 0;   // client, poster, sender, subscriber
    ULONG other = 0;    // target
    ULONG value = 0;    // current state, posted state, awaited state, command id
    ULONG size = 0;     // of a state record
    ULONG added = 0;    // announced to the crash-dump driver
    ULONG refresh = 0;  // to be announced again

    auto operator<=>(const ObjectRecord&) const = default;
};
[[nodiscard]] std::string Text(const ObjectRecord& object);
// As reports name it: "<client 3>", "<state>".
[[nodiscard]] std::string Name(const ObjectRecord& object);

struct ObjectAlive {
    ObjectRecord record;
    bool isSubscribed = false;  // it has a collection of subscriptions
    std::vector<ObjectRecord> subscriptions = {};
    std::string_view parent = {};  // its kind
    ULONG client = 0;              // the parent's number, where it is a client

    auto operator<=>(const ObjectAlive&) const = default;
    [[nodiscard]] std::string Text() const;  // without the parent
};

struct Alive {
    std::vector<ObjectAlive> objects;
    // Of the driver context; none: not created.
    std::map<std::string_view, std::optional<std::vector<ObjectAlive>>> collections;
    std::map<std::string_view, std::int64_t> counts;
    std::set<std::string> heldLocks;
    std::set<std::string> queuedItems;

    // Without the order of the objects, which it sorts. Two that are equal have the same text, which takes long to
    // make.
    [[nodiscard]] static bool AreEqual(Alive& one, Alive& other);
    [[nodiscard]] Lines Text() const;  // nothing when no driver is loaded
};

}  // namespace fault_injection
