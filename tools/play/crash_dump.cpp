#include "tools/play/crash_dump.h"

#include "tools/play/clients.h"
#include "tools/play/statuses.h"

#include <cstdio>
#include <cstring>
#include <utility>

namespace play {
namespace {

using Callbacks = peers::CrashDumpCallbacks<0>;
using peers::DumpCallback;

std::string Hex(std::uint64_t value)
{
    char text[24];
    std::snprintf(text, sizeof(text), "0x%llX", static_cast<unsigned long long>(value));
    return text;
}

// The name that answers and spans have for a callback, and what it was called with.
std::pair<const char*, std::string> DumpText(DumpCallback callback, const std::vector<std::uint64_t>& arguments)
{
    const auto number = [&arguments](std::size_t index) { return std::to_string(arguments[index]); };
    switch (callback) {
    case DumpCallback::kStart:
        return {"start", " starts (" + Hex(arguments[1]) + ", " + Hex(arguments[2]) + ")"};
    case DumpCallback::kAddData:
        return {"addData", ": " + number(3) + " bytes at " + Hex(arguments[2]) + ", flags " + number(4)};
    case DumpCallback::kStop:
        return {"stop", " stops (" + Hex(arguments[1]) + ")"};
    case DumpCallback::kQuery:
        return {"query", ": parameter " + number(1) + " is asked for"};
    case DumpCallback::kTriage:
        break;
    }
    return {"triage", ": triage data, " + number(2) + " bytes at " + Hex(arguments[1])};
}

}  // namespace

CrashDump::CrashDump(Peers& peers) : peers_(peers), registration_(Callbacks::Registration(0))
{
    Callbacks::receiver = this;
}

CrashDump::~CrashDump()
{
    Callbacks::receiver = nullptr;
}

void CrashDump::CallFromInside(const std::string& callback)
{
    for (const InsideCall& inside : peers_.scenario.crashDump.inside) {
        if (inside.callback != callback) {
            continue;
        }
        peers_.timeline.Add({EntryKind::kCall, kCrashDump, kNotifier,
                             std::string("calls from inside its callback: ") + Name(inside.call), "", true});
        ULONG count = 1;
        ZEP_SUBSYSTEM_DESCRIPTOR descriptor;
        if (inside.call == Kind::kDetach) {
            (void)peers_.wpcd->Notifier_WpcdClientDeInit();
        } else if (inside.call == Kind::kCount) {
            (void)peers_.wpcd->Notifier_WpcdGetNumSubsystemDescriptors(&count);
        } else {
            (void)peers_.wpcd->Notifier_WpcdGetAllSubsystemDescriptors(&descriptor, &count);
        }
    }
}

NTSTATUS CrashDump::Answer(const std::string& callback, const std::string& what, const std::string& causedBy)
{
    const CallbackScope scope(peers_.timeline, kCrashDump, callback, causedBy);
    const auto& answers = peers_.scenario.crashDump.answers;
    const auto found = answers.find(callback);
    const NTSTATUS status = found == answers.end() ? STATUS_SUCCESS : found->second;
    peers_.timeline.Add({EntryKind::kCallback, kNotifier, kCrashDump, what,
                         status == STATUS_SUCCESS ? "" : "answers " + StatusText(status), true});
    CallFromInside(callback);
    return status;
}

NTSTATUS CrashDump::OnAdd(const ZEP_SUBSYSTEM_DESCRIPTOR& descriptor)
{
    ++peers_.counts.announced;
    const std::string client = peers_.NameOf(descriptor.InterfaceGUID);
    return Answer("add",
                  "announces " + client + ", \"" + descriptor.SubsystemName + "\", " +
                      std::to_string(descriptor.DataEntryCount) + " data entries",
                  "client " + client);
}

NTSTATUS CrashDump::OnRemove(const ZEP_NOTIFIER_CLIENT_CONTEXT* client)
{
    GUID guid;
    std::memcpy(&guid, client, sizeof(guid));  // it begins with its identity
    return Answer("remove", "withdraws " + peers_.NameOf(guid), "end " + peers_.NameOf(guid));
}

NTSTATUS CrashDump::OnDump(DumpCallback callback, std::vector<std::uint64_t> arguments)
{
    ++peers_.counts.dumpCalls;
    const auto [name, what] = DumpText(callback, arguments);
    std::uint32_t record;
    std::memcpy(&record, reinterpret_cast<const void*>(arguments[0]), sizeof(record));
    return Answer(name, "dump " + Hex(record) + what, "dump");
}

}  // namespace play
