#include "tests/model/operations.h"

#include "tests/kit/callback_lines.h"

#include <iterator>
#include <random>

namespace model {
namespace {

constexpr std::size_t kMostOperations = 64;
constexpr std::uint32_t kStates[] = {1, 2, 3, 4, 0, ZEP_STATE_ANY, 1, 0x80000002};
constexpr NTSTATUS kAnswers[] = {STATUS_SUCCESS, STATUS_SUCCESS, STATUS_SUCCESS, STATUS_OBJECT_NAME_EXISTS,
                                 STATUS_UNSUCCESSFUL};

// How often each comes up: once for each time it stands here.
constexpr Kind kKinds[] = {
    Kind::kRegister,  Kind::kRegister,      Kind::kRegister,  Kind::kDeregister, Kind::kSubscribe,   Kind::kSubscribe,
    Kind::kSubscribe, Kind::kSubscribe,     Kind::kSubscribe, Kind::kSubscribe,  Kind::kUnsubscribe, Kind::kPost,
    Kind::kPost,      Kind::kPost,          Kind::kPost,      Kind::kPost,       Kind::kPost,        Kind::kPost,
    Kind::kCommand,   Kind::kCommand,       Kind::kCommand,   Kind::kCommand,    Kind::kRunOne,      Kind::kRunOne,
    Kind::kRunOne,    Kind::kDeliver,       Kind::kDeliver,   Kind::kDeliver,    Kind::kAttach,      Kind::kAttach,
    Kind::kDetach,    Kind::kCount,         Kind::kDescribe,  Kind::kDescribe,   Kind::kStartDump,   Kind::kAddDumpData,
    Kind::kQueryDump, Kind::kAddTriageData, Kind::kStopDump,  Kind::kControl,    Kind::kTimeout,     Kind::kSleep,
    Kind::kWake};

// Reads zeros after the end.
class Bytes {
public:
    explicit Bytes(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

    [[nodiscard]] bool AtEnd() const { return next_ >= bytes_.size(); }
    unsigned Below(unsigned limit) { return (AtEnd() ? 0u : bytes_[next_++]) % limit; }
    std::uint32_t State() { return kStates[Below(std::size(kStates))]; }

private:
    std::span<const std::uint8_t> bytes_;
    std::size_t next_ = 0;
};

// A rule that answers each time answers only clients of lower numbers, so that every chain of answers ends.
std::vector<Answer> DecodeAnswers(Bytes& bytes, unsigned self)
{
    std::vector<Answer> answers(bytes.Below(4));
    for (Answer& answer : answers) {
        answer.from = bytes.Below(kClients);
        const std::uint32_t state = bytes.State();
        answer.state = state == ZEP_STATE_ANY ? std::nullopt : std::optional(state);
        answer.answer = bytes.State();
        answer.once = answer.from >= self || bytes.Below(2) == 0;
    }
    return answers;
}

ClientScript DecodeClientScript(Bytes& bytes, unsigned self)
{
    constexpr std::uint32_t kEntryCounts[] = {0, 0, 1, 3, 300};
    ClientScript script;
    const unsigned form = bytes.Below(4);
    script.name = tests::ClientName(self) + std::string(form == 0 ? 70 : form, 'n');
    script.description = form == 1 ? std::string(140, 'd') : form == 2 ? "" : "described";
    script.entryCount = kEntryCounts[bytes.Below(std::size(kEntryCounts))];
    script.answers = DecodeAnswers(bytes, self);
    script.takesCommands = bytes.Below(4) != 0;
    for (std::uint32_t id = 1; script.takesCommands && id <= 2; ++id) {
        script.commands.emplace(id, bytes.State());
    }
    const unsigned apps = bytes.Below(4);
    script.wantsAppsState = apps != 0;
    if (apps > 1) {
        script.appsState = bytes.State();
    }
    return script;
}

// Two subscriptions to each state that the client has an answer to: with a rule that answers once, the second leaves
// the response alone.
void SubscribeToWhatIsAnswered(Sequence& sequence, unsigned client)
{
    for (const Answer& answer : sequence.clients[client].answers) {
        for (const std::uint32_t state : {answer.state.value_or(ZEP_STATE_ANY), std::uint32_t{ZEP_STATE_ANY}}) {
            sequence.operations.push_back(
                {.kind = Kind::kSubscribe, .client = client, .other = answer.from, .state = state});
        }
    }
}

// Mostly none.
std::string DecodeNull(Bytes& bytes, Kind kind)
{
    const std::vector<std::string> nulls = peers::NullArguments(kind);
    const unsigned which = bytes.Below(24);
    return which < nulls.size() ? nulls[which] : "";
}

std::uint32_t DecodeValue(Kind kind, unsigned number)
{
    switch (kind) {
    case Kind::kAttach:
        return number % 2;
    case Kind::kControl:
        return IOCTL_ZEPN_NOTIFY_APPS_STATE + (number == 6 ? 4 : 0);
    case Kind::kTimeout:
        return number * 50;
    default:
        return number;
    }
}

Operation DecodeOperation(Bytes& bytes)
{
    Operation operation;
    operation.kind = kKinds[bytes.Below(std::size(kKinds))];
    operation.client = bytes.Below(kClients);
    operation.other = bytes.Below(kClients);
    operation.state = bytes.State();
    operation.value = DecodeValue(operation.kind, bytes.Below(7));
    operation.null = DecodeNull(bytes, operation.kind);
    return operation;
}

}  // namespace

Sequence Decode(std::span<const std::uint8_t> input)
{
    Bytes bytes(input);
    Sequence sequence;
    sequence.mayHang = bytes.Below(64) == 1;
    sequence.addAnswer = kAnswers[bytes.Below(std::size(kAnswers))];
    sequence.removeAnswer = kAnswers[bytes.Below(std::size(kAnswers))];
    sequence.dumpAnswer = kAnswers[bytes.Below(std::size(kAnswers))];
    for (unsigned client = 0; client < kClients; ++client) {
        sequence.clients.push_back(DecodeClientScript(bytes, client));
    }
    const unsigned present = bytes.Below(32);
    for (unsigned client = 0; client < kClients; ++client) {
        if ((present >> client & 1) != 0) {
            sequence.operations.push_back({.kind = Kind::kRegister, .client = client});
        }
    }
    const unsigned watching = bytes.Below(32);
    for (unsigned client = 0; client < kClients; ++client) {
        if ((watching >> client & 1) != 0) {
            SubscribeToWhatIsAnswered(sequence, client);
        }
    }
    while (!bytes.AtEnd() && sequence.operations.size() < kMostOperations) {
        sequence.operations.push_back(DecodeOperation(bytes));
    }
    return sequence;
}

std::vector<std::uint8_t> RandomBytes(std::uint64_t seed, std::uint64_t number)
{
    std::mt19937_64 random(seed * 0x9E3779B97F4A7C15u + number);
    std::vector<std::uint8_t> bytes(100 + random() % 300);
    for (std::uint8_t& byte : bytes) {
        byte = static_cast<std::uint8_t>(random() >> 32);
    }
    return bytes;
}

GUID GuidOf(unsigned client)
{
    constexpr std::size_t kPlaces[kClients] = {0, 0, 15, 7, 8};
    GUID guid = {0x6f1b0001, 0x2c3d, 0x4a5b, {0x8c, 0x9d, 1, 2, 3, 4, 5, 6}};
    if (client != 0) {
        reinterpret_cast<std::uint8_t*>(&guid)[kPlaces[client]] ^= 0x80;
    }
    return guid;
}

std::optional<std::uint32_t> Script::OnState(unsigned from, std::uint32_t state)
{
    for (std::size_t index = 0; index < spent_.size(); ++index) {
        const Answer& rule = script_->answers[index];
        if (rule.from == from && (!rule.state || *rule.state == state) && !spent_[index]) {
            spent_[index] = rule.once;
            return rule.answer;
        }
    }
    return std::nullopt;
}

std::optional<std::uint32_t> Script::OnCommand(std::uint32_t id) const
{
    const auto found = script_->commands.find(id);
    return found == script_->commands.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace model
