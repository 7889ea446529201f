#include "tests/fault_injection/sequences.h"

#include "driver/include/zepn_notifier.h"

#include <cstdio>
#include <iterator>

namespace fault_injection {

const char* Name(FaultKind form)
{
    switch (form) {
    case FaultKind::kError:
        return "error status";
    case FaultKind::kRefuses:
        return "success-class status, nothing done";
    case FaultKind::kInforms:
        return "success-class status, work done";
    case FaultKind::kNull:
        return "nothing returned";
    case FaultKind::kNullOutput:
        return "null output";
    }
    return "?";
}

NTSTATUS Fault::Status() const
{
    if (form == FaultKind::kError) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return function == "WdfWaitLockAcquire" ? STATUS_TIMEOUT : STATUS_OBJECT_NAME_EXISTS;
}

std::string Fault::Text() const
{
    return function + " call " + std::to_string(index) + (persistent ? " and later, " : ", ") + Name(form);
}

std::string GuidText(ULONG client)
{
    char text[64];
    std::snprintf(text, sizeof(text), "{%08x-1111-2222-0102-030405060708}", static_cast<unsigned>(client));
    return text;
}

namespace {

constexpr auto Register = [](unsigned client, ULONG traits = kPlain) {
    return Operation{.kind = Kind::kRegister, .client = client, .value = traits};
};
constexpr auto Deregister = [](unsigned client) { return Operation{.kind = Kind::kDeregister, .client = client}; };
constexpr auto Post = [](unsigned client, ULONG state) {
    return Operation{.kind = Kind::kPost, .client = client, .state = state};
};
constexpr auto Subscribe = [](unsigned client, unsigned target, ULONG state) {
    return Operation{.kind = Kind::kSubscribe, .client = client, .other = target, .state = state};
};
constexpr auto Unsubscribe = [](unsigned client, unsigned target, ULONG state) {
    return Operation{.kind = Kind::kUnsubscribe, .client = client, .other = target, .state = state};
};
constexpr auto Command = [](unsigned client, unsigned target, ULONG id) {
    return Operation{.kind = Kind::kCommand, .client = client, .other = target, .value = id};
};
constexpr auto Describe = [](ULONG capacity) { return Operation{.kind = Kind::kDescribe, .value = capacity}; };
constexpr auto Control = [](ULONG code) { return Operation{.kind = Kind::kControl, .value = code}; };
// What the crash-dump driver answers.
constexpr auto Dump = [](Kind kind, ULONG answer = 0) { return Operation{.kind = kind, .client = 1, .value = answer}; };
Operation Null(Operation operation, const char* argument)
{
    operation.null = argument;
    return operation;
}

}  // namespace

Sequence WholeSequence()
{
    constexpr ULONG kFailed = 0xC0000001;
    return {
        {Kind::kLoad},
        {Kind::kAddDevice},
        {Kind::kStart},

        Null(Register(1), "guid"),
        Null(Register(1), "callbacks"),
        Register(1, kApps),
        Register(2, kEntries | kCommands | kApps),
        Register(3, kEntries),
        Register(4, kApps),
        Register(1, kApps),
        Null(Register(1, kApps), "callbacks"),  // a taken GUID is refused even so

        Null(Post(1, 0), "record"),
        Post(9, 1),
        Null(Subscribe(2, 1, 3), "guid"),
        Null(Subscribe(2, 1, 3), "record"),
        Null(Subscribe(2, 1, 3), "callback"),
        Subscribe(9, 1, 3),
        Subscribe(2, 1, 3),
        Subscribe(1, 2, ZEP_STATE_ANY),  // at once, with state 0
        Subscribe(1, 9, 3),
        Subscribe(4, 2, 12),
        Post(3, 1),
        Post(1, 3),  // 2 answers with 12, which 1 and 4 await
        {Kind::kDeliver},

        Dump(Kind::kStartDump),
        {Kind::kDetach},
        Null({Kind::kAttach}, "record"),
        {Kind::kAttach},
        {Kind::kAttach},
        Post(1, 4),
        Post(2, 5),
        Post(4, 1),
        {Kind::kDeliver},
        Subscribe(3, 1, 4),  // at once, and 3 answers with 33
        {Kind::kDeliver},

        Null(Command(1, 2, 7), "record"),
        Command(9, 2, 7),
        Command(1, 9, 7),
        Command(1, 3, 7),
        Command(1, 2, 7),  // 2 changes its state
        Command(1, 2, 8),
        {Kind::kDeliver},
        Command(3, 2, 8),
        {Kind::kDeliver},
        Command(3, 2, 7),
        {Kind::kDeliver},

        Null({Kind::kCount}, "count"),
        {Kind::kCount},
        Null(Describe(9), "descriptors"),
        Null(Describe(9), "count"),
        Describe(2),
        Register(5),
        Describe(6),
        Post(5, 1),
        {Kind::kDeliver},

        Dump(Kind::kStartDump),
        Dump(Kind::kAddDumpData, 0x00000103),
        Dump(Kind::kStopDump),
        Dump(Kind::kQueryDump),
        Dump(Kind::kAddTriageData, 0x40000000),
        Dump(Kind::kStartDump, kFailed),
        Dump(Kind::kAddDumpData, kFailed),
        Dump(Kind::kStopDump, 0x80000005),
        Dump(Kind::kQueryDump, kFailed),
        Dump(Kind::kAddTriageData, kFailed),
        Null(Dump(Kind::kStartDump), "record"),
        Null(Dump(Kind::kAddDumpData), "record"),
        Null(Dump(Kind::kStopDump), "record"),
        Null(Dump(Kind::kQueryDump), "record"),
        Null(Dump(Kind::kAddTriageData), "record"),

        {Kind::kOpen},
        Control(IOCTL_ZEPN_NOTIFY_APPS_STATE),
        Control(0x01002140),
        {Kind::kDeliver},
        {Kind::kClose},
        {Kind::kSleep},
        {Kind::kWake},
        {Kind::kDeliver},

        Null(Unsubscribe(2, 2, 3), "guid"),
        Null(Unsubscribe(2, 2, 3), "record"),
        Unsubscribe(9, 2, 3),
        Unsubscribe(1, 9, 3),
        Unsubscribe(1, 9, 3),
        Unsubscribe(1, 2, ZEP_STATE_ANY),

        Null(Deregister(1), "guid"),
        Deregister(9),
        Post(4, 2),
        Post(5, 6),
        Deregister(4),  // refused by the crash-dump driver, so still waiting
        Deregister(3),
        {Kind::kDeliver},
        Deregister(2),
        {Kind::kDeliver},
        Register(3, kEntries),
        Subscribe(3, 1, ZEP_STATE_ANY),
        {Kind::kDetach},
        Post(3, 8),
        {Kind::kDeliver},
        Deregister(5),  // no crash-dump driver is attached
        {Kind::kDeliver},
        Post(1, 9),

        {Kind::kPowerDown},
        {Kind::kPowerUp},
        {Kind::kDeliver},
        {Kind::kSurpriseRemoval},
        {Kind::kRemove},
        {Kind::kUnload},
    };
}

namespace {

const Sequence kBegin = {
    {Kind::kLoad}, {Kind::kAddDevice}, {Kind::kStart}, Register(1, kCommands), Register(2, kCommands)};

Sequence After(Sequence begin, const Sequence& rest)
{
    begin.insert(begin.end(), rest.begin(), rest.end());
    return begin;
}

}  // namespace

Sequence ShortSequence()
{
    return After(kBegin, {Post(1, 3), {Kind::kDeliver}, {Kind::kSurpriseRemoval}, {Kind::kRemove}, {Kind::kUnload}});
}

Sequence SecondDevice()
{
    return After(kBegin, {Register(3, kApps | kEntries),
                          Post(1, 3),
                          {Kind::kDeliver},
                          {Kind::kSurpriseRemoval},
                          {Kind::kRemove},
                          {Kind::kAddDevice},
                          {Kind::kSleep},  // also when there is no second device
                          {Kind::kStart},
                          Register(1, kApps),
                          Register(2, kApps),
                          {Kind::kSleep},
                          {Kind::kDeliver},
                          {Kind::kSurpriseRemoval},
                          {Kind::kRemove},
                          {Kind::kUnload}});
}

Sequence CommandToOneself()
{
    return After(kBegin, {Command(1, 1, 7), {Kind::kDeliver}});
}

Sequence CommandOfADeregisteredClient()
{
    return After(kBegin, {Command(2, 1, 7), Deregister(2), {Kind::kDeliver}});
}

Sequence CommandToAClientWithoutCallback()
{
    return After(kBegin, {Command(1, 2, 7),
                          Deregister(2),
                          Register(2),
                          {Kind::kDeliver},
                          {Kind::kSurpriseRemoval},
                          {Kind::kRemove},
                          {Kind::kUnload}});
}

}  // namespace fault_injection
