// What a random sequence is made of: clients with their habits, and operations. Any string of bytes means one.
#pragma once

#include "driver/include/zepn_notifier.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace model {

inline constexpr unsigned kClients = 5;

// When told that `from` is in `state` (empty: in any), a client takes the state `answer`.
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
    std::vector<std::pair<std::uint32_t, std::uint32_t>> commands;  // id, the state taken in answer; no id twice
    bool wantsAppsState = false;
    std::optional<std::uint32_t> appsState;  // state wanted in answer
};

enum class Kind : std::uint8_t {
    kRegister,
    kLeave,
    kSubscribe,
    kUnsubscribe,
    kPost,
    kCommand,
    kRunOne,   // the oldest queued work item runs
    kDeliver,  // all queued work runs
    kAttach,
    kDetach,
    kCount,
    kDescribe,
    kStartDump,
    kAddDumpData,
    kQueryDump,
    kAddTriageData,
    kStopDump,
    kControl,
    kTimeout,
    kSleep,
    kWake,
};

struct Operation {
    Kind kind = Kind::kDeliver;
    unsigned client = 0;      // who acts
    unsigned other = 0;       // whom it watches or commands
    std::uint32_t state = 0;  // posted or awaited; ZEP_STATE_ANY awaits every state
    std::uint32_t value = 0;  // command id, capacity, milliseconds, control code, table of the crash-dump driver
    std::string null;         // the argument passed as NULL, by its name in scenario files; empty: none
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

// The bytes of one sequence of a seed's endless row of sequences.
[[nodiscard]] std::vector<std::uint8_t> RandomBytes(std::uint64_t seed, std::uint64_t number);

// "client1 post state 4".
[[nodiscard]] std::string Text(const Operation& operation);
[[nodiscard]] std::string ClientName(unsigned client);

// GUIDs that differ from the first client's in one byte each: the first, the last, and two in the middle.
[[nodiscard]] GUID GuidOf(unsigned client);
[[nodiscard]] std::string NameOf(const GUID& guid);

// A client's answers within one sequence: what the scenario player's clients do, too.
class Script {
public:
    explicit Script(const ClientScript& habits) : habits_(&habits), spent_(habits.answers.size()) {}

    [[nodiscard]] std::optional<std::uint32_t> OnState(unsigned from, std::uint32_t state);
    [[nodiscard]] std::optional<std::uint32_t> OnCommand(std::uint32_t id) const;
    [[nodiscard]] std::optional<std::uint32_t> OnAppsState() const { return habits_->appsState; }

private:
    const ClientScript* habits_;
    std::vector<bool> spent_;  // rules that answer once and have answered
};

}  // namespace model
