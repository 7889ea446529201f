// The Notifier as those outside see it, written down plainly: a list of clients, four queues, and who is told what.
// It knows nothing of the driver's code; a sequence that goes otherwise on the driver is a fault of one of the two.
#pragma once

#include "tests/model/operations.h"

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace model {

// What came of one operation.
struct Outcome {
    NTSTATUS status = STATUS_SUCCESS;
    bool standsStill = false;       // the work item's thread never comes back
    std::vector<std::string> told;  // callbacks with all their arguments, and what was written back, in order
    std::size_t workItems = 0;      // queued afterwards

    bool operator==(const Outcome&) const = default;
    [[nodiscard]] std::string Text() const;
};

// How the lines of `told` read; the harness of the driver's side writes the same.
namespace lines {

[[nodiscard]] std::string State(unsigned subscriber, const std::string& from, std::uint64_t sizeBytes,
                                std::uint32_t state, std::uint32_t reserved, std::uint32_t response);
[[nodiscard]] std::string Command(unsigned target, std::uint32_t id, std::uint64_t sizeBytes, std::uint32_t argument,
                                  const std::string& source, std::uint32_t sourceState, std::uint32_t ownState);
[[nodiscard]] std::string AppsState(unsigned client, std::uint32_t reason, std::uint32_t ownState);
[[nodiscard]] std::string Descriptor(const std::string& client, const std::string& name, const std::string& description,
                                     bool wantsAppsState, bool hasEntries, unsigned entryCount);
[[nodiscard]] std::string Removed(const std::string& client, const std::string& name, const std::string& description);

}  // namespace lines

// What the driver holds, by count.
struct InternalState {
    struct Client {
        unsigned who = 0;
        std::uint32_t state = 0;
        bool announced = false;
        bool refreshPending = false;
        std::size_t subscriptions = 0;
        bool operator==(const Client&) const = default;
    };
    std::vector<Client> clients;  // oldest first
    std::size_t states = 0;       // undelivered
    std::size_t commands = 0;
    std::size_t toAnnounce = 0;
    std::size_t toWithdraw = 0;
    bool attached = false;
    std::size_t clientObjects = 0;  // with the copies that wait to be withdrawn
    std::size_t subscriptionObjects = 0;
    std::size_t stateObjects = 0;
    std::size_t commandObjects = 0;
    std::size_t entryBytes = 0;

    bool operator==(const InternalState&) const = default;
    [[nodiscard]] std::string Text() const;
};

class Model {
public:
    // One thing that the model gets wrong on purpose: for tests of what happens when model and driver disagree.
    enum class ModelBug { kNone, kNotifiesOfOwnStates, kForgetsWithdrawals };

    explicit Model(const Sequence& sequence, ModelBug bug = ModelBug::kNone);

    [[nodiscard]] Outcome Do(const Operation& operation);
    [[nodiscard]] InternalState Count() const;

private:
    struct Subscription {
        unsigned target;
        std::uint32_t state;
    };
    struct Client {
        unsigned who;
        std::uint64_t birth;  // tells a client from its predecessor under the same GUID
        std::uint32_t state = 0;
        bool announced = false;
        bool refreshPending = false;
        std::vector<Subscription> subscriptions;
        std::size_t commandsSent = 0;  // delivered ones: they are kept until the sender leaves
    };
    struct State {
        unsigned who;
        std::uint64_t sizeBytes;
        std::uint32_t state;
        std::uint32_t reserved;
    };
    struct Command {
        unsigned source;
        std::uint64_t sourceBirth;
        unsigned target;
        std::uint32_t id;
        std::uint32_t argument;
    };
    enum class Work { kStates, kCommands, kAnnounce, kWithdraw };

    NTSTATUS Register(const Operation& operation);
    NTSTATUS Leave(const Operation& operation);
    NTSTATUS Subscribe(const Operation& operation);
    NTSTATUS Unsubscribe(const Operation& operation);
    NTSTATUS Send(const Operation& operation);
    NTSTATUS Post(const State& state);
    NTSTATUS Attach(const Operation& operation);
    NTSTATUS Detach();
    NTSTATUS CountClients(const Operation& operation);
    NTSTATUS Describe(const Operation& operation);
    NTSTATUS Dump(const Operation& operation);
    void Broadcast();
    void RunOne();
    void RunStates();
    void RunCommands();
    void RunAnnounce();
    void RunWithdraw();
    void Enqueue(Work work);
    void Announced(Client& client) const;
    [[nodiscard]] Client* Find(unsigned who);
    [[nodiscard]] std::string DescriptorOf(unsigned who) const;
    void Tell(std::string line) { outcome_.told.push_back(std::move(line)); }

    const Sequence& sequence_;
    const ModelBug bug_;
    std::vector<Script> scripts_;
    std::vector<Client> clients_;  // in the order of registration
    std::deque<State> states_;
    std::deque<Command> commands_;
    std::deque<unsigned> toAnnounce_;
    std::deque<unsigned> toWithdraw_;
    std::deque<Work> work_;
    std::optional<unsigned> table_;  // of the crash-dump driver that is attached
    std::uint32_t timeoutMs_ = 0;
    std::uint64_t births_ = 0;
    std::size_t broadcastStates_ = 0;  // records that broadcasts leave until the driver goes
    Outcome outcome_;
};

// The sequence without what nobody may do: operations after which a thread would stand still are left out or, where the
// sequence may end so, are its last.
[[nodiscard]] Sequence Playable(Sequence sequence);

// Arguments that depend on nothing but the operation; both sides use them.
inline constexpr std::uint64_t kPostedSize = 77;
inline constexpr std::uint32_t kPostedReserved = 0xABCD;
[[nodiscard]] std::uint32_t CommandArgument(const Operation& operation);
[[nodiscard]] std::uint32_t ControlCode(const Operation& operation);
[[nodiscard]] std::uint32_t TimeoutMs(const Operation& operation);

// "dump startDump <record> <values>", as the crash-dump driver sees it.
[[nodiscard]] std::string DumpLine(Kind kind, unsigned client);
[[nodiscard]] std::string FromTable(unsigned table, const std::string& line);

}  // namespace model
