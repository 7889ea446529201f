// What a client was seen to do with the Notifier in a run without faults: whom it registers, whom it watches and
// commands. Its peers in the later runs are made from it. A plain type, for a child process fills it for its parent.
#pragma once

#include "driver/include/zepn_notifier.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <span>
#include <string_view>

namespace test_client {

// As many as fit; the rest is dropped.
template <class Type, unsigned maximum = 32>
class List {
public:
    void Add(const Type& item)
    {
        const std::span<const Type> all = *this;
        if (count_ < maximum && std::find(all.begin(), all.end(), item) == all.end()) {
            items_[count_++] = item;
        }
    }
    [[nodiscard]] const Type* begin() const { return items_.data(); }
    [[nodiscard]] const Type* end() const { return items_.data() + count_; }
    [[nodiscard]] std::size_t size() const { return count_; }

private:
    std::array<Type, maximum> items_{};
    unsigned count_ = 0;
};

struct Text {
    Text() = default;
    explicit Text(std::string_view text) { text.copy(characters, sizeof(characters) - 1); }
    bool operator==(const Text& other) const { return std::strcmp(characters, other.characters) == 0; }

    char characters[64]{};
};

// GUID has no comparison in the platform's headers.
struct Identity {
    GUID guid;
    bool operator==(const Identity& other) const { return std::memcmp(&guid, &other.guid, sizeof(guid)) == 0; }
};

struct OwnClient {
    Identity identity;
    Text name;
    bool takesCommands;
    bool wantsAppsState;
    bool operator==(const OwnClient& other) const { return identity == other.identity; }
};

struct Subscription {
    Identity watched;
    ULONG state;
    bool operator==(const Subscription&) const = default;
};

struct Seen {
    List<OwnClient> clients;
    List<Subscription> subscriptions;
    List<Identity> targets;    // of its commands, also of refused ones
    List<Text> parameters;     // registry values that it asked for
    bool attaches = false;     // as the crash-dump driver
    int registeredCount = -1;  // its clients that are registered when all is up; negative: not known
};

}  // namespace test_client
