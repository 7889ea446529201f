// A random sequence: what five clients answer, and operations. Any string of bytes means one.
#pragma once

#include "driver/include/zepn_notifier.h"
#include "tests/kit/operation.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace model {

using tests::Kind;
using tests::Operation;

inline constexpr unsigned kClients = 5;

// When notified that `from` is in `state` (empty: in any), a client takes the state `answer`.
struct Answer {
    unsigned from = 0;
    std::optional<std::uint32_t> state;
    std::uint32_t answer = 0;
    bool once = true;
};

struct ClientScript {
    std::string name;
    std::string description;
    std::uint32_t entryCount = 0;
    std::vector<Answer> answers;
    bool takesCommands = false;
    std::map<std::uint32_t, std::uint32_t> commands;  // by id: the state taken in answer
    bool wantsAppsState = false;
    std::optional<std::uint32_t> appsState;  // state wanted in answer
};

struct Sequence {
    std::vector<ClientScript> clients;    // kClients of them
    NTSTATUS addAnswer = STATUS_SUCCESS;  // what the crash-dump driver answers
    NTSTATUS removeAnswer = STATUS_SUCCESS;
    NTSTATUS dumpAnswer = STATUS_SUCCESS;
    bool mayHang = false;  // it may end in a command that stops its delivery for good
    std::vector<Operation> operations;
};

[[nodiscard]] Sequence Decode(std::span<const std::uint8_t> bytes);

// The bytes of one of a seed's sequences.
[[nodiscard]] std::vector<std::uint8_t> RandomBytes(std::uint64_t seed, std::uint64_t number);

// GUIDs that differ from the first client's in one byte each: the first, the last, and two in the middle.
[[nodiscard]] GUID GuidOf(unsigned client);

// A client's answers within one sequence; the scenario player's clients answer so, too.
class Script {
public:
    explicit Script(const ClientScript& script) : script_(&script), spent_(script.answers.size()) {}

    [[nodiscard]] std::optional<std::uint32_t> OnState(unsigned from, std::uint32_t state);
    [[nodiscard]] std::optional<std::uint32_t> OnCommand(std::uint32_t id) const;
    [[nodiscard]] std::optional<std::uint32_t> OnAppsState() const { return script_->appsState; }

private:
    const ClientScript* script_;
    std::vector<bool> spent_;  // rules that answer once and have answered
};

}  // namespace model
