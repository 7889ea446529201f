// The Notifier as its peers see it, written down plainly: a list of clients, four queues, and who is notified of what.
// It knows nothing of the driver's code; a sequence that goes otherwise on the driver is a fault of one of the two.
#pragma once

#include "tests/kit/callback_lines.h"
#include "tests/model/operations.h"

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace model {

using tests::ClientName;
namespace lines = tests::lines;

// What one operation shows.
struct Outcome {
    NTSTATUS status = STATUS_SUCCESS;
    bool hangs = false;               // a thread waits for ever
    std::vector<std::string> called;  // callbacks with their arguments, and what was written back, in order
    std::size_t workItems = 0;        // queued afterwards

    bool operator==(const Outcome&) const = default;
    [[nodiscard]] std::string Text() const;
};

// What the driver holds, mostly by count: its lines.
struct InternalState {
    std::size_t states = 0;  // undelivered
    std::size_t commands = 0;
    std::size_t toAnnounce = 0;
    std::size_t toWithdraw = 0;
    bool attached = false;
    std::size_t clientObjects = 0;  // with the copies that wait to be withdrawn
    std::size_t subscriptionObjects = 0;
    std::size_t stateObjects = 0;
    std::size_t commandObjects = 0;
    std::size_t entryBytes = 0;
    std::string clients;  // oldest first, a line each

    void AddClient(unsigned who, std::uint32_t state, bool announced, bool refreshPending, std::size_t subscriptions);
    [[nodiscard]] std::string Text() const;
};

class Model {
public:
    // Seeded in the model, for tests of what happens when model and driver disagree.
    enum class ModelBug { kNone, kNotifiesOfOwnStates, kForgetsWithdrawals };

    explicit Model(const Sequence& sequence, ModelBug bug = ModelBug::kNone);

    [[nodiscard]] Outcome Do(const Operation& operation);
    [[nodiscard]] InternalState Internal() const;
    [[nodiscard]] std::size_t UndeliveredCommands() const { return commands_.size(); }

private:
    struct Subscription {
        unsigned target;
        std::uint32_t state;
    };
    struct Client {
        unsigned who;
        std::uint64_t birth;  // distinguishes a client from its predecessor of the same GUID
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

    NTSTATUS StatusOf(const Operation& operation);
    NTSTATUS Register(const Operation& operation);
    NTSTATUS Deregister(const Operation& operation);
    NTSTATUS Subscribe(const Operation& operation);
    NTSTATUS Unsubscribe(const Operation& operation);
    NTSTATUS Send(const Operation& operation);
    NTSTATUS Post(const State& state);
    NTSTATUS Attach(const Operation& operation);
    NTSTATUS Detach();
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
    void Calls(std::string line) { outcome_.called.push_back(std::move(line)); }

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

// The sequence without what nobody may do: operations after which a thread would hang are left out or, where the
// sequence may end so, are its last.
[[nodiscard]] Sequence Playable(Sequence sequence);

}  // namespace model
