#include <initguid.h>  // before all: this file holds the interfaces' identifiers

#include "tests/kit/driver_harness.h"

#include "driver/context/driver_context.h"
#include "host/checks/unused_stack.h"
#include "tests/kit/callback_lines.h"

#include <cstddef>
#include <cstring>

namespace tests {
namespace {

constexpr unsigned kNobody = ~0u;

std::string Bounded(const char* text, std::size_t sizeBytes)
{
    return std::string(text, strnlen(text, sizeBytes));
}

// A descriptor callback: only ever passed on.
PZEP_DESCRIPTOR_CALLBACK NeverCalled(unsigned client, unsigned slot)
{
    return reinterpret_cast<PZEP_DESCRIPTOR_CALLBACK>(std::uintptr_t{0x1000} * (client + 1) + slot);
}

// The locks and collections by the driver's own names. With its order of locks they are all that is read from the
// driver.
struct NamedMember {
    std::size_t offset;
    const char* name;
};
#define NAMED(member) {offsetof(ZEP_NOTIFIER_DRIVER_CONTEXT, member), #member}
constexpr NamedMember kNamed[] = {
    NAMED(wdfCollectionWpcdClientAddQueue),   NAMED(wdfCollectionWpcdClientRemoveQueue),
    NAMED(wdfCollectionZepClients),           NAMED(wdfCollectionZepStates),
    NAMED(wdfCollectionZepCommands),          NAMED(wdfWaitLockGeneral),
    NAMED(wdfWaitLockClientsCollection),      NAMED(wdfWaitLockStatesCollection),
    NAMED(wdfWaitLockCommandsCollection),     NAMED(wdfWaitLockNotifyStatesWorkItem),
    NAMED(wdfWaitLockNotifyCommandsWorkItem), NAMED(wdfWaitLockNotifyAppsStateWorkItem),
};
#undef NAMED

// Gives the machine the order in which a driver whose device has started may take its locks, and names for its reports.
void DeclareLockOrder(host::Machine& machine, const host::Driver& driver)
{
    const auto context = machine.inspect().Context<layout::DriverContext>(driver.Handle(), layout::kDriverContextName);
    if (!context) {
        throw host::HostError("the driver has no context, so no order of locks");
    }
    const char* members = reinterpret_cast<const char*>(&*context);
    for (const ZEP_NOTIFIER_LOCK_RANK& entry : kLockOrder) {
        machine.RankLock(*reinterpret_cast<const WDFWAITLOCK*>(members + entry.Offset), entry.Rank);
    }
    for (const NamedMember& member : kNamed) {
        machine.NameObject(*reinterpret_cast<const WDFOBJECT*>(members + member.offset), member.name);
    }
}

}  // namespace

void TakeTables(host::Machine& machine, host::Driver& driver, ZEP_NOTIFIER_HELPER_INTERFACE& helper,
                ZEP_NOTIFIER_WPCD_INTERFACE& wpcd)
{
    const auto query = [&](const GUID& type, auto& table) {
        if (!NT_SUCCESS(driver.QueryInterface(type, std::as_writable_bytes(std::span(&table, 1)),
                                              ZEP_NOTIFIER_INTERFACE_VERSION))) {
            throw host::HostError("the driver did not give out its interface");
        }
    };
    query(GUID_ZEP_NOTIFIER_HELPER_INTERFACE, helper);
    query(GUID_ZEP_NOTIFIER_WPCD_INTERFACE, wpcd);
    DeclareLockOrder(machine, driver);
}

DriverHarness::DriverHarness(std::filesystem::path image, const host::MachineOptions& options, Answers answers)
    : machine(options), image_(std::move(image)), answers_(std::move(answers))
{
    ConnectCallbacks(answers_, crashDump_[0], 0);
    ConnectCallbacks(answers_, crashDump_[1], 1);
}

// ---- Callbacks ----

Peer& DriverHarness::AddPeer(unsigned number)
{
    Peer& peer = peers_.try_emplace(number, number).first->second;
    peer.callbacks.ReservedCallback = &peer;
    peer.callbacks.DescriptorCallbackA = NeverCalled(number, 2);
    peer.callbacks.DescriptorCallbackB = NeverCalled(number, 3);
    peer.callbacks.DescriptorCallbackC = NeverCalled(number, 5);
    peer.onState = [this, number](const ZepState& state, ULONG& response) {
        called.push_back(
            lines::State(number, NameOf(state.InterfaceGUID), state.Size, state.State, state.Reserved, response));
        const Peer* from = Find(state.InterfaceGUID);
        response = answers_.toState(number, from != nullptr ? from->number : kNobody, state.State, response);
    };
    peer.onCommand = [this, number, &peer](ULONG id, ULONG& state) {
        const ZepCommandInfo& info = peer.commands.back().second;
        called.push_back(lines::Command(number, id, info.Size, info.CommandArgument, NameOf(info.SourceGuid),
                                        info.SourceState, state));
        state = answers_.toCommand(number, id, state);
    };
    peer.onAppsState = [this, number, &peer, calls = 0u](ULONG& state) mutable {
        const bool isKnown = peer.appsStateCalls == ++calls;
        called.push_back(lines::AppsState(number, isKnown ? ZEP_APPS_STATE_REASON_CHANGED : 0, state));
        state = answers_.toAppsState(number, state);
    };
    return peer;
}

void DriverHarness::ConnectCallbacks(const Answers& answers, CrashDumpDriver& crashDump, unsigned table)
{
    crashDump.onAdd = [this, &answers, table](const ZEP_SUBSYSTEM_DESCRIPTOR& descriptor) {
        called.push_back(lines::FromTable(table, DescriptorLine(descriptor)));
        const Peer* client = Find(descriptor.InterfaceGUID);
        return answers.toAdd(client != nullptr ? client->number : kNobody);
    };
    crashDump.onRemove = [this, &answers, table](const layout::ClientContext& context) {
        called.push_back(
            lines::FromTable(table, lines::Withdrawal(NameOf(context.guid), Bounded(context.name, sizeof(context.name)),
                                                      Bounded(context.description, sizeof(context.description)))));
        const Peer* client = Find(context.guid);
        return answers.toRemove(client != nullptr ? client->number : kNobody);
    };
    // Record and data are pointers: what they point to is what has to arrive.
    crashDump.onDump = [this, &answers, table](const CrashDumpDriver::DumpCall& call) {
        std::string line = call.name;
        for (std::size_t index = 0; index < call.arguments.size(); ++index) {
            const bool isData = index == 1 && call.name == "data";
            const auto* pointed = reinterpret_cast<const std::uint32_t*>(call.arguments[index]);
            line += " " + (index == 0 ? Hex(*pointed) : std::to_string(isData ? *pointed : call.arguments[index]));
        }
        called.push_back(lines::FromTable(table, line));
        return answers.toDump();
    };
}

const Peer* DriverHarness::Find(const GUID& guid) const
{
    for (const auto& [number, peer] : peers_) {
        if (std::memcmp(&peer.guid, &guid, sizeof(guid)) == 0) {
            return &peer;
        }
    }
    return nullptr;
}

std::string DriverHarness::NameOf(const GUID& guid) const
{
    const Peer* peer = Find(guid);
    return peer != nullptr ? ClientName(peer->number) : "somebody unknown";
}

// What a descriptor hands on of its client: the very pointers, and a copy of the entries.
std::string DriverHarness::DescriptorLine(const ZEP_SUBSYSTEM_DESCRIPTOR& descriptor) const
{
    std::string line = lines::Descriptor(
        NameOf(descriptor.InterfaceGUID), Bounded(descriptor.SubsystemName, sizeof(descriptor.SubsystemName)),
        Bounded(descriptor.SubsystemDescription, sizeof(descriptor.SubsystemDescription)),
        descriptor.AppsStateNotificationCallback != nullptr, descriptor.DataEntries != nullptr,
        descriptor.DataEntryCount);
    const Peer* peer = Find(descriptor.InterfaceGUID);
    if (peer == nullptr || descriptor.CallbackContext != peer) {
        return line + ", callback context of another";
    }
    const ActionCallbackTable& table = peer->callbacks;
    if (descriptor.AppsStateNotificationCallback != table.AppsStateNotificationCallback ||
        descriptor.DescriptorCallbackA != table.DescriptorCallbackA ||
        descriptor.DescriptorCallbackB != table.DescriptorCallbackB ||
        descriptor.DescriptorCallbackC != table.DescriptorCallbackC || descriptor.Reserved1 != 0 ||
        descriptor.Reserved2 != 0) {
        line += ", callbacks of another";
    }
    if (descriptor.DataEntries != nullptr &&
        (descriptor.DataEntries == peer->entries.data() ||
         std::memcmp(descriptor.DataEntries, peer->entries.data(), peer->entries.size() * sizeof(ZepDataEntry)) != 0)) {
        line += ", entries that are no copy";
    }
    return line;
}

// ---- Operations ----

std::optional<NTSTATUS> DriverHarness::Do(const Operation& operation)
{
    const bool isNull = !operation.null.empty();
    host::checks::FillUnusedStack();
    switch (operation.kind) {
    case Kind::kLoad:
        driver = &machine.Load(image_, kService);
        return driver->EntryStatus();
    case Kind::kAddDevice:
        return driver->AddDevice();
    case Kind::kStart: {
        const NTSTATUS status = driver->StartDevice();
        TakeTables(machine, *driver, helper_, wpcd_);
        return status;
    }
    case Kind::kPowerDown:
        return driver->Sleep();
    case Kind::kPowerUp:
        return driver->Wake();
    case Kind::kSurpriseRemoval:
        driver->SurpriseRemoveDevice();
        return std::nullopt;
    case Kind::kUnload:
        driver->Unload();
        return std::nullopt;
    case Kind::kOpen:
        return driver->Open(file_).status;
    case Kind::kClose:
        driver->Close(file_);
        return std::nullopt;
    case Kind::kControl: {
        const host::IoResult result = driver->DeviceControl(file_, operation.value);
        if (!result.completed || result.information != 0) {
            called.push_back(result.completed ? "information " + std::to_string(result.information) : "not completed");
        }
        return result.status;
    }
    case Kind::kTimeout:
        machine.SetRegistryValue(kService, "SubsystemNotificationTimeout", operation.value);
        return STATUS_SUCCESS;
    case Kind::kSleep:
    case Kind::kWake:
        machine.NotifyPowerState(PO_CB_SYSTEM_STATE_LOCK, operation.kind == Kind::kWake ? 1 : 0);
        return std::nullopt;
    case Kind::kAttach:
        return wpcd_.Notifier_WpcdClientInit(isNull ? nullptr : &crashDump_[operation.value].registration);
    case Kind::kDetach:
        return wpcd_.Notifier_WpcdClientDeInit();
    case Kind::kCount: {
        ULONG count = 99;
        const NTSTATUS status = wpcd_.Notifier_WpcdGetNumSubsystemDescriptors(isNull ? nullptr : &count);
        if (!isNull) {
            called.push_back(lines::Count(count));
        }
        return status;
    }
    case Kind::kDescribe:
        return Describe(operation);
    default:
        return DoAsClient(operation, PeerOf(operation.client));
    }
}

NTSTATUS DriverHarness::DoAsClient(const Operation& operation, Peer& peer)
{
    const auto other = peers_.find(operation.other);
    const GUID otherGuid = other != peers_.end() ? other->second.guid : GUID{};
    const ZepState posted{
        .Size = kPostedSize, .InterfaceGUID = peer.guid, .State = operation.state, .Reserved = kPostedReserved};
    const ZepState filter{
        .Size = sizeof(ZepState), .InterfaceGUID = otherGuid, .State = operation.state, .Reserved = operation.value};
    const peers::Record record{.state = operation.kind == Kind::kPost ? posted : filter,
                               .command = {.Size = 1,
                                           .CommandArgument = CommandArgument(operation),
                                           .SourceGuid = peer.guid,
                                           .TargetGuid = otherGuid,
                                           .CommandId = operation.value}};
    return CallAsClient(helper_, operation.kind, peer.caller(), record, operation.null);
}

NTSTATUS DriverHarness::Describe(const Operation& operation)
{
    constexpr int kUntouched = 0x5A;
    std::vector<ZEP_SUBSYSTEM_DESCRIPTOR> descriptors(operation.value + 1);
    std::memset(descriptors.data(), kUntouched, descriptors.size() * sizeof(descriptors[0]));
    const ZEP_SUBSYSTEM_DESCRIPTOR untouched = descriptors[0];
    ULONG count = operation.value;
    const NTSTATUS status = wpcd_.Notifier_WpcdGetAllSubsystemDescriptors(
        operation.null == "descriptors" ? nullptr : descriptors.data(), operation.null == "count" ? nullptr : &count);
    for (const ZEP_SUBSYSTEM_DESCRIPTOR& descriptor : descriptors) {
        if (std::memcmp(&descriptor, &untouched, sizeof(untouched)) != 0) {
            called.push_back(DescriptorLine(descriptor));
        }
    }
    if (operation.null.empty()) {
        called.push_back(lines::Count(count));
    }
    return status;
}

}  // namespace tests
