#include "tests/fault_injection/sequences.h"

#include "driver/include/zepn_notifier.h"

#include <cstdio>
#include <iterator>

namespace fault_injection {

std::string Text(const Op& op)
{
    constexpr const char* kNames[] = {"load",        "add device", "start",    "sleep",  "wake",    "surprise",
                                      "remove",      "unload",     "register", "leave",  "post",    "subscribe",
                                      "unsubscribe", "send",       "deliver",  "attach", "detach",  "count",
                                      "describe",    "dump",       "open",     "close",  "control", "power"};
    static_assert(std::size(kNames) == static_cast<std::size_t>(Do::kPower) + 1);
    return std::string(kNames[static_cast<std::size_t>(op.what)]) + " " + std::to_string(op.a) + " " +
           std::to_string(op.b) + " " + std::to_string(op.c);
}

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

std::string Hex(NTSTATUS status)
{
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08X", static_cast<unsigned>(status));
    return text;
}

std::string GuidText(ULONG client)
{
    char text[64];
    std::snprintf(text, sizeof(text), "{%08x-1111-2222-0102-030405060708}", static_cast<unsigned>(client));
    return text;
}

Sequence WholeLife()
{
    constexpr ULONG kFailed = 0xC0000001;
    return {
        {Do::kLoad},
        {Do::kAddDevice},
        {Do::kStart},

        {Do::kRegister, 0},
        {Do::kRegister, 1, kNullTable},
        {Do::kRegister, 1, kApps},
        {Do::kRegister, 2, kEntries | kCommands | kApps},
        {Do::kRegister, 3, kEntries},
        {Do::kRegister, 4, kApps},
        {Do::kRegister, 1, kApps},

        {Do::kPost, 0},
        {Do::kPost, 9, 1},
        {Do::kSubscribe, 0, 1, 3},
        {Do::kSubscribe, 9, 1, 3},
        {Do::kSubscribe, 2, 1, 3},
        {Do::kSubscribe, 1, 2, ZEP_STATE_ANY},  // at once, with state 0
        {Do::kSubscribe, 1, 9, 3},
        {Do::kSubscribe, 4, 2, 12},
        {Do::kPost, 1, 3},  // 2 answers with 12, which 1 and 4 hear
        {Do::kDeliver},

        {Do::kDump, 0, 1, 0},
        {Do::kDetach},
        {Do::kAttach, 0},
        {Do::kAttach, 1},
        {Do::kAttach, 1},
        {Do::kPost, 1, 4},
        {Do::kPost, 2, 5},
        {Do::kPost, 4, 1},
        {Do::kDeliver},
        {Do::kSubscribe, 3, 1, 4},  // at once, and 3 answers with 33
        {Do::kDeliver},

        {Do::kSend, 0},
        {Do::kSend, 9, 2, 7},
        {Do::kSend, 1, 9, 7},
        {Do::kSend, 1, 3, 7},
        {Do::kSend, 1, 2, 7},  // 2 changes its state
        {Do::kSend, 1, 2, 8},
        {Do::kDeliver},
        {Do::kSend, 3, 2, 8},
        {Do::kDeliver},
        {Do::kSend, 3, 2, 7},
        {Do::kDeliver},

        {Do::kCount, 0},
        {Do::kCount, 1},
        {Do::kDescribe, 9, 1},
        {Do::kDescribe, 9, 2},
        {Do::kDescribe, 2},
        {Do::kRegister, 5, kPlain},
        {Do::kDescribe, 6},
        {Do::kPost, 5, 1},
        {Do::kDeliver},

        {Do::kDump, 0, 1, 0},
        {Do::kDump, 1, 1, 0},
        {Do::kDump, 2, 1, 0},
        {Do::kDump, 3, 1, 0},
        {Do::kDump, 4, 1, 0x40000000},
        {Do::kDump, 0, 1, kFailed},
        {Do::kDump, 1, 1, kFailed},
        {Do::kDump, 2, 1, kFailed},
        {Do::kDump, 3, 1, kFailed},
        {Do::kDump, 4, 1, kFailed},
        {Do::kDump, 0, 0, 0},
        {Do::kDump, 1, 0, 0},
        {Do::kDump, 2, 0, 0},
        {Do::kDump, 3, 0, 0},
        {Do::kDump, 4, 0, 0},

        {Do::kOpen},
        {Do::kControl, IOCTL_ZEPN_NOTIFY_APPS_STATE},
        {Do::kControl, 0x01002140},
        {Do::kDeliver},
        {Do::kClose},
        {Do::kPower, 0},
        {Do::kPower, 1},
        {Do::kDeliver},

        {Do::kUnsubscribe, 0, 2, 3},
        {Do::kUnsubscribe, 9, 2, 3},
        {Do::kUnsubscribe, 1, 9, 3},
        {Do::kUnsubscribe, 1, 9, 3},
        {Do::kUnsubscribe, 1, 2, ZEP_STATE_ANY},

        {Do::kLeave, 0},
        {Do::kLeave, 9},
        {Do::kPost, 4, 2},
        {Do::kPost, 5, 6},
        {Do::kLeave, 4},  // refused by the crash-dump driver, so still waiting
        {Do::kLeave, 3},
        {Do::kDeliver},
        {Do::kLeave, 2},
        {Do::kDeliver},
        {Do::kRegister, 3, kEntries},
        {Do::kSubscribe, 3, 1, ZEP_STATE_ANY},
        {Do::kDetach},
        {Do::kPost, 3, 8},
        {Do::kDeliver},
        {Do::kLeave, 5},  // nobody is there to be told
        {Do::kDeliver},
        {Do::kPost, 1, 9},

        {Do::kSleep},
        {Do::kWake},
        {Do::kDeliver},
        {Do::kSurprise},
        {Do::kRemove},
        {Do::kUnload},
    };
}

namespace {

const Sequence kBegin = {
    {Do::kLoad}, {Do::kAddDevice}, {Do::kStart}, {Do::kRegister, 1, kCommands}, {Do::kRegister, 2, kCommands}};

Sequence After(Sequence begin, const Sequence& rest)
{
    begin.insert(begin.end(), rest.begin(), rest.end());
    return begin;
}

}  // namespace

Sequence ClassicProvider()
{
    return After(kBegin, {{Do::kPost, 1, 3}, {Do::kDeliver}, {Do::kSurprise}, {Do::kRemove}, {Do::kUnload}});
}

Sequence SecondDevice()
{
    return After(kBegin, {{Do::kRegister, 3, kApps | kEntries},
                          {Do::kPost, 1, 3},
                          {Do::kDeliver},
                          {Do::kSurprise},
                          {Do::kRemove},
                          {Do::kAddDevice},
                          {Do::kPower, 0},  // also when there is no second device
                          {Do::kStart},
                          {Do::kRegister, 1, kApps},
                          {Do::kRegister, 2, kApps},
                          {Do::kPower, 0},
                          {Do::kDeliver},
                          {Do::kSurprise},
                          {Do::kRemove},
                          {Do::kUnload}});
}

Sequence CommandToOneself()
{
    return After(kBegin, {{Do::kSend, 1, 1, 7}, {Do::kDeliver}});
}

Sequence CommandOfTheDeparted()
{
    return After(kBegin, {{Do::kSend, 2, 1, 7}, {Do::kLeave, 2}, {Do::kDeliver}});
}

Sequence CommandToTheChanged()
{
    return After(kBegin, {{Do::kSend, 1, 2, 7},
                          {Do::kLeave, 2},
                          {Do::kRegister, 2, kPlain},
                          {Do::kDeliver},
                          {Do::kSurprise},
                          {Do::kRemove},
                          {Do::kUnload}});
}

}  // namespace fault_injection
