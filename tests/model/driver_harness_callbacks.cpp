// What the driver tells its clients and the crash-dump driver, put down line by line.
#include "tests/model/driver_harness_peer.h"

#include "tests/kit/contexts.h"

#include <cstdio>
#include <cstring>

namespace model {
namespace {

std::string Bounded(const char* text, std::size_t sizeBytes)
{
    return std::string(text, strnlen(text, sizeBytes));
}

}  // namespace

NTSTATUS NTAPI DriverHarness::Callbacks::OnState(PVOID context, const ZepState* state, PULONG response)
{
    auto& peer = *static_cast<Peer*>(context);
    const std::string from = NameOf(state->InterfaceGUID);
    peer.harness.Tell(lines::State(peer.number, from, state->Size, state->State, state->Reserved, *response));
    for (unsigned client = 0; client < kClients; ++client) {
        if (ClientName(client) == from) {
            *response = peer.script.OnState(client, state->State).value_or(*response);
        }
    }
    return STATUS_UNSUCCESSFUL;  // nobody may care
}

NTSTATUS NTAPI DriverHarness::Callbacks::OnCommand(PVOID context, ULONG id, const ZepCommandInfo* info, PULONG state)
{
    auto& peer = *static_cast<Peer*>(context);
    peer.harness.Tell(lines::Command(peer.number, id, info->Size, info->CommandArgument, NameOf(info->SourceGuid),
                                     info->SourceState, *state));
    *state = peer.script.OnCommand(id).value_or(*state);
    return STATUS_UNSUCCESSFUL;
}

NTSTATUS NTAPI DriverHarness::Callbacks::OnAppsState(PVOID context, ULONG reason, PULONG state)
{
    auto& peer = *static_cast<Peer*>(context);
    peer.harness.Tell(lines::AppsState(peer.number, reason, *state));
    *state = peer.script.OnAppsState().value_or(*state);
    return STATUS_UNSUCCESSFUL;
}

// The crash-dump driver's callbacks; the table's number stands in what they tell.
template <unsigned table>
struct DriverHarness::Callbacks::CrashDump {
    static NTSTATUS Answer(const std::string& line, NTSTATUS answer)
    {
        current->Tell(FromTable(table, line));
        return answer;
    }

    static NTSTATUS NTAPI OnAdd(const ZEP_SUBSYSTEM_DESCRIPTOR* descriptor)
    {
        return Answer(current->DescriptorLine(*descriptor), current->sequence_.addAnswer);
    }

    static NTSTATUS NTAPI OnRemove(const ZEP_NOTIFIER_CLIENT_CONTEXT* client)
    {
        layout::ClientContext copy;
        std::memcpy(&copy, client, sizeof(copy));
        return Answer(lines::Removed(NameOf(copy.guid), Bounded(copy.name, sizeof(copy.name)),
                                     Bounded(copy.description, sizeof(copy.description))),
                      current->sequence_.removeAnswer);
    }

    template <class... Values>
    static NTSTATUS Dump(const char* what, PVOID record, Values... values)
    {
        char text[16];
        std::snprintf(text, sizeof(text), "0x%08X", *static_cast<std::uint32_t*>(record));
        std::string line = std::string(what) + " " + text;
        ((line += " " + std::to_string(values)), ...);
        return Answer(line, current->sequence_.dumpAnswer);
    }

    static NTSTATUS NTAPI OnDumpStart(PVOID record, ULONGLONG first, ULONGLONG second)
    {
        return Dump("start", record, first, second);
    }
    static NTSTATUS NTAPI OnDumpAddData(PVOID record, PVOID data, ULONGLONG address, ULONG size, ULONG flags)
    {
        return Dump("data", record, *static_cast<std::uint32_t*>(data), address, size, flags);
    }
    static NTSTATUS NTAPI OnDumpStop(PVOID record, ULONGLONG result) { return Dump("stop", record, result); }
    static NTSTATUS NTAPI OnDumpQuery(PVOID record, ULONG parameter, ULONGLONG first, ULONGLONG second)
    {
        return Dump("query", record, parameter, first, second);
    }
    static NTSTATUS NTAPI OnDumpTriage(PVOID record, ULONGLONG address, ULONG size)
    {
        return Dump("triage", record, address, size);
    }

    static WpcdClientRegistration Registration()
    {
        WpcdClientRegistration registration{};
        registration.ZepClientAdd = &OnAdd;
        registration.ZepClientRemove = &OnRemove;
        registration.ZepDumpStart = &OnDumpStart;
        registration.ZepDumpAddDumpData = &OnDumpAddData;
        registration.ZepDumpStop = &OnDumpStop;
        registration.ZepDumpQueryParam = &OnDumpQuery;
        registration.ZepDumpAddTriageData = &OnDumpTriage;
        return registration;
    }
};

WpcdClientRegistration DriverHarness::Callbacks::Registration(unsigned number)
{
    return number == 0 ? CrashDump<0>::Registration() : CrashDump<1>::Registration();
}

std::string DriverHarness::DescriptorLine(const ZEP_SUBSYSTEM_DESCRIPTOR& descriptor) const
{
    std::string line = lines::Descriptor(
        NameOf(descriptor.InterfaceGUID), Bounded(descriptor.SubsystemName, sizeof(descriptor.SubsystemName)),
        Bounded(descriptor.SubsystemDescription, sizeof(descriptor.SubsystemDescription)),
        descriptor.AppsStateNotificationCallback != nullptr, descriptor.DataEntries != nullptr,
        descriptor.DataEntryCount);
    CheckDescriptor(descriptor, line);
    return line;
}

// What a descriptor hands on of its client: the very pointers, and a copy of the entries.
void DriverHarness::CheckDescriptor(const ZEP_SUBSYSTEM_DESCRIPTOR& descriptor, std::string& line) const
{
    for (const Peer& peer : peers_) {
        if (descriptor.CallbackContext != &peer) {
            continue;
        }
        const ActionCallbackTable& table = peer.callbacks;
        if (std::memcmp(&descriptor.InterfaceGUID, &peer.guid, sizeof(GUID)) != 0 ||
            descriptor.AppsStateNotificationCallback != table.AppsStateNotificationCallback ||
            descriptor.DescriptorCallbackA != table.DescriptorCallbackA ||
            descriptor.DescriptorCallbackB != table.DescriptorCallbackB ||
            descriptor.DescriptorCallbackC != table.DescriptorCallbackC || descriptor.Reserved1 != 0 ||
            descriptor.Reserved2 != 0) {
            line += ", callbacks of another";
        }
        if (descriptor.DataEntries != nullptr && (descriptor.DataEntries == peer.entries.data() ||
                                                  std::memcmp(descriptor.DataEntries, peer.entries.data(),
                                                              peer.entries.size() * sizeof(ZepDataEntry)) != 0)) {
            line += ", entries that are no copy";
        }
        return;
    }
    line += ", callback context of nobody";
}

}  // namespace model
