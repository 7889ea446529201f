#include <initguid.h>  // before all: this file holds the interfaces' identifiers

#include "tools/fuzz/witness.h"

#include "host/schedule/parking.h"
#include "tools/layout/contexts.h"

#include <cstring>
#include <functional>

namespace fuzz {
namespace {

constexpr const char* kService = "zepn";
constexpr unsigned kMostCalls = 50000;  // an operation makes a few thousand at most
constexpr std::size_t kMostLines = 5000;

std::string Bounded(const char* text, std::size_t sizeBytes)
{
    return std::string(text, strnlen(text, sizeBytes));
}

// A descriptor callback: only ever passed on.
PZEP_DESCRIPTOR_CALLBACK NeverCalled(unsigned client, unsigned slot)
{
    return reinterpret_cast<PZEP_DESCRIPTOR_CALLBACK>(std::uintptr_t{0x1000} * (client + 1) + slot);
}

}  // namespace

// A client driver. Its address is the callback context.
struct Witness::Peer {
    Peer(Witness& owner, unsigned who, const Habits& itsHabits)
        : witness(owner), number(who), guid(GuidOf(who)), habits(itsHabits), script(itsHabits),
          entries(itsHabits.entryCount), dumpRecord(0xD0D00000u + who)
    {
        for (std::size_t index = 0; index < entries.size(); ++index) {
            entries[index].Value[0] = index * 3 + who;
        }
    }

    Witness& witness;
    const unsigned number;
    const GUID guid;
    const Habits& habits;
    Script script;
    std::vector<ZepDataEntry> entries;
    std::uint32_t dumpRecord;
    ActionCallbackTable callbacks{};
};

struct Witness::Callbacks {
    static inline Witness* current = nullptr;  // the crash-dump driver's callbacks carry no context of their own

    static NTSTATUS NTAPI OnState(PVOID context, const ZepState* state, PULONG response)
    {
        auto& peer = *static_cast<Peer*>(context);
        const std::string from = NameOf(state->InterfaceGUID);
        peer.witness.Tell(lines::State(peer.number, from, state->Size, state->State, state->Reserved, *response));
        for (unsigned client = 0; client < kClients; ++client) {
            if (ClientName(client) == from) {
                *response = peer.script.OnState(client, state->State).value_or(*response);
            }
        }
        return STATUS_UNSUCCESSFUL;  // nobody may care
    }

    static NTSTATUS NTAPI OnCommand(PVOID context, ULONG id, const ZepCommandInfo* info, PULONG state)
    {
        auto& peer = *static_cast<Peer*>(context);
        peer.witness.Tell(lines::Command(peer.number, id, info->Size, info->CommandArgument, NameOf(info->SourceGuid),
                                         info->SourceState, *state));
        *state = peer.script.OnCommand(id).value_or(*state);
        return STATUS_UNSUCCESSFUL;
    }

    static NTSTATUS NTAPI OnAppsState(PVOID context, ULONG reason, PULONG state)
    {
        auto& peer = *static_cast<Peer*>(context);
        peer.witness.Tell(lines::AppsState(peer.number, reason, *state));
        *state = peer.script.OnAppsState().value_or(*state);
        return STATUS_UNSUCCESSFUL;
    }

    template <unsigned table>
    static NTSTATUS Answer(const std::string& line, NTSTATUS answer)
    {
        current->Tell(FromTable(table, line));
        return answer;
    }

    template <unsigned table>
    static NTSTATUS NTAPI OnAdd(const ZEP_SUBSYSTEM_DESCRIPTOR* descriptor)
    {
        return Answer<table>(current->DescriptorLine(*descriptor), current->life_.addAnswer);
    }

    template <unsigned table>
    static NTSTATUS NTAPI OnRemove(const ZEP_NOTIFIER_CLIENT_CONTEXT* client)
    {
        layout::ClientContext copy;
        std::memcpy(&copy, client, sizeof(copy));
        return Answer<table>(lines::Removed(NameOf(copy.guid), Bounded(copy.name, sizeof(copy.name)),
                                            Bounded(copy.description, sizeof(copy.description))),
                             current->life_.removeAnswer);
    }

    template <unsigned table, class... Values>
    static NTSTATUS Dump(const char* what, PVOID record, Values... values)
    {
        char text[16];
        std::snprintf(text, sizeof(text), "0x%08X", *static_cast<std::uint32_t*>(record));
        std::string line = std::string(what) + " " + text;
        ((line += " " + std::to_string(values)), ...);
        return Answer<table>(line, current->life_.dumpAnswer);
    }

    template <unsigned table>
    static NTSTATUS NTAPI OnDumpStart(PVOID record, ULONGLONG first, ULONGLONG second)
    {
        return Dump<table>("start", record, first, second);
    }
    template <unsigned table>
    static NTSTATUS NTAPI OnDumpAddData(PVOID record, PVOID data, ULONGLONG address, ULONG size, ULONG flags)
    {
        return Dump<table>("data", record, *static_cast<std::uint32_t*>(data), address, size, flags);
    }
    template <unsigned table>
    static NTSTATUS NTAPI OnDumpStop(PVOID record, ULONGLONG result)
    {
        return Dump<table>("stop", record, result);
    }
    template <unsigned table>
    static NTSTATUS NTAPI OnDumpQuery(PVOID record, ULONG parameter, ULONGLONG first, ULONGLONG second)
    {
        return Dump<table>("query", record, parameter, first, second);
    }
    template <unsigned table>
    static NTSTATUS NTAPI OnDumpTriage(PVOID record, ULONGLONG address, ULONG size)
    {
        return Dump<table>("triage", record, address, size);
    }

    template <unsigned table>
    static WpcdClientRegistration Registration()
    {
        WpcdClientRegistration registration{};
        registration.ZepClientAdd = &OnAdd<table>;
        registration.ZepClientRemove = &OnRemove<table>;
        registration.ZepDumpStart = &OnDumpStart<table>;
        registration.ZepDumpAddDumpData = &OnDumpAddData<table>;
        registration.ZepDumpStop = &OnDumpStop<table>;
        registration.ZepDumpQueryParam = &OnDumpQuery<table>;
        registration.ZepDumpAddTriageData = &OnDumpTriage<table>;
        return registration;
    }
};

Witness::Witness(const Life& life, const std::filesystem::path& image) : life_(life)
{
    Callbacks::current = this;
    for (unsigned client = 0; client < kClients; ++client) {
        Peer& peer = peers_.emplace_back(*this, client, life.clients[client]);
        peer.callbacks.ReservedCallback = &peer;
        peer.callbacks.DescriptorCallbackA = NeverCalled(client, 2);
        peer.callbacks.DescriptorCallbackB = NeverCalled(client, 3);
        peer.callbacks.DescriptorCallbackC = NeverCalled(client, 5);
        peer.callbacks.CommandCallback = peer.habits.takesCommands ? &Callbacks::OnCommand : nullptr;
        peer.callbacks.AppsStateNotificationCallback = peer.habits.hearsAppsState ? &Callbacks::OnAppsState : nullptr;
    }
    driver_ = &machine_.Boot(image, kService);
    const auto query = [&](const GUID& type, auto& table) {
        if (!NT_SUCCESS(driver_->QueryInterface(type, std::as_writable_bytes(std::span(&table, 1)),
                                                ZEP_NOTIFIER_INTERFACE_VERSION))) {
            throw host::HostError("the driver did not give out its interface");
        }
    };
    query(GUID_ZEP_NOTIFIER_HELPER_INTERFACE, helper_);
    query(GUID_ZEP_NOTIFIER_WPCD_INTERFACE, wpcd_);
    if (!NT_SUCCESS(driver_->Open(file_).status)) {
        throw host::HostError("the control device does not open");
    }
    // A driver that goes round and round makes platform calls; it is set aside like a thread that waits for ever.
    machine_.environment().observer = [this](const host::ObservedCall& call) {
        if (onPlatformCall) {
            onPlatformCall(reinterpret_cast<std::uintptr_t>(call.caller) -
                           reinterpret_cast<std::uintptr_t>(driver_->ImageBase()));
        }
        if (callsLeft_ != 0 && (--callsLeft_ == 0 || outcome_.told.size() > kMostLines)) {
            host::schedule::ParkThisThread("goes on without end");
        }
    };
}

Witness::~Witness()
{
    Callbacks::current = nullptr;
}

Outcome Witness::Do(const Operation& operation)
{
    outcome_ = {};
    callsLeft_ = kMostCalls;
    if (operation.kind == Kind::kRunOne) {
        Run(machine_.RunOneWorkItem());
    } else if (operation.kind == Kind::kDeliver) {
        while (machine_.QueuedWorkItems() != 0 && !outcome_.standsStill) {
            Run(machine_.RunOneWorkItem());
        }
    } else {
        NTSTATUS status = STATUS_PENDING;
        outcome_.standsStill = machine_.OnThread("client", [&] { status = Call(operation); }).parked;
        outcome_.status = status;
    }
    callsLeft_ = 0;
    outcome_.workItems = machine_.QueuedWorkItems();
    return outcome_;
}

void Witness::Run(const host::PumpResult& result)
{
    outcome_.standsStill = outcome_.standsStill || !result.parked.empty();
}

NTSTATUS Witness::Call(const Operation& operation)
{
    switch (operation.kind) {
    case Kind::kAttach: {
        const WpcdClientRegistration registration =
            operation.value % 2 == 0 ? Callbacks::Registration<0>() : Callbacks::Registration<1>();
        return wpcd_.Notifier_WpcdClientInit(operation.null.empty() ? &registration : nullptr);
    }
    case Kind::kDetach:
        return wpcd_.Notifier_WpcdClientDeInit();
    case Kind::kCount: {
        ULONG count = 99;
        const NTSTATUS status =
            wpcd_.Notifier_WpcdGetNumSubsystemDescriptors(operation.null.empty() ? &count : nullptr);
        if (operation.null.empty()) {
            Tell("count " + std::to_string(count));
        }
        return status;
    }
    case Kind::kDescribe:
        return CallDescribe(operation);
    case Kind::kControl:
        return driver_->DeviceControl(file_, ControlCode(operation)).status;
    case Kind::kTimeout:
        machine_.SetRegistryValue(kService, "SubsystemNotificationTimeout", TimeoutMs(operation));
        return STATUS_SUCCESS;
    case Kind::kSleep: {
        const std::size_t before = machine_.Delays().size();
        machine_.NotifyPowerState(PO_CB_SYSTEM_STATE_LOCK, 0);
        const std::vector<std::int64_t> delays = machine_.Delays();
        for (std::size_t index = before; index < delays.size(); ++index) {
            Tell("waits " + std::to_string(delays[index] / -10000) + " ms");
        }
        return STATUS_SUCCESS;
    }
    case Kind::kWake:
        machine_.NotifyPowerState(PO_CB_SYSTEM_STATE_LOCK, 1);
        return STATUS_SUCCESS;
    default:
        return CallForClient(operation, peers_[operation.client]);
    }
}

NTSTATUS Witness::CallForClient(const Operation& operation, Peer& peer)
{
    const std::string& null = operation.null;
    const GUID* guid = null == "guid" ? nullptr : &peer.guid;
    const ZepState filter{.Size = sizeof(ZepState),
                          .InterfaceGUID = GuidOf(operation.other),
                          .State = operation.state,
                          .Reserved = operation.value};
    switch (operation.kind) {
    case Kind::kRegister:
        return helper_.Notifier_HelperInit(guid, peer.habits.name.c_str(), peer.habits.description.c_str(),
                                           null == "callbacks" ? nullptr : &peer.callbacks,
                                           peer.entries.empty() ? nullptr : peer.entries.data(), peer.habits.entryCount,
                                           &peer);
    case Kind::kLeave:
        return helper_.Notifier_HelperClientDeinit(guid);
    case Kind::kSubscribe:
        return helper_.Notifier_HelperRegisterForStateNotification(guid, null == "record" ? nullptr : &filter,
                                                                   null == "callback" ? nullptr : &Callbacks::OnState);
    case Kind::kUnsubscribe:
        return helper_.Notifier_HelperDeregisterForStateNotification(guid, null == "record" ? nullptr : &filter);
    case Kind::kPost: {
        const ZepState record{
            .Size = kPostedSize, .InterfaceGUID = peer.guid, .State = operation.state, .Reserved = kPostedReserved};
        return helper_.Notifier_HelperSendState(null.empty() ? &record : nullptr);
    }
    case Kind::kCommand: {
        const ZepCommand command{.Size = 1,
                                 .CommandArgument = CommandArgument(operation),
                                 .SourceGuid = peer.guid,
                                 .TargetGuid = GuidOf(operation.other),
                                 .CommandId = operation.value};
        return helper_.Notifier_HelperSendCommand(null.empty() ? &command : nullptr);
    }
    default:
        return CallDump(operation, peer);
    }
}

NTSTATUS Witness::CallDump(const Operation& operation, Peer& peer)
{
    PVOID record = operation.null.empty() ? &peer.dumpRecord : nullptr;
    std::uint32_t data = 0xDA7A;
    switch (operation.kind) {
    case Kind::kStartDump:
        return helper_.Notifier_HelperStartDump(record, 0x1000, 0x2000);
    case Kind::kAddDumpData:
        return helper_.Notifier_HelperAddDumpData(record, &data, 0x80000000, 4096, 1);
    case Kind::kQueryDump:
        return helper_.Notifier_HelperDumpQueryParam(record, 7, 11, 12);
    case Kind::kAddTriageData:
        return helper_.Notifier_HelperDumpAddTriageData(record, 0x90000000, 256);
    default:
        return helper_.Notifier_HelperStopDump(record, 13);
    }
}

NTSTATUS Witness::CallDescribe(const Operation& operation)
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
            Tell(DescriptorLine(descriptor));
        }
    }
    if (operation.null.empty()) {
        Tell("count " + std::to_string(count));
    }
    return status;
}

std::string Witness::DescriptorLine(const ZEP_SUBSYSTEM_DESCRIPTOR& descriptor) const
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
void Witness::CheckDescriptor(const ZEP_SUBSYSTEM_DESCRIPTOR& descriptor, std::string& line) const
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

std::vector<std::string> Witness::TakeViolations()
{
    std::vector<std::string> texts;
    for (const auto& violation : machine_.violations().Take()) {
        texts.push_back(violation.Text());
    }
    return texts;
}

bool Witness::TakeDown()
{
    return !machine_
                .OnThread("system",
                          [&] {
                              driver_->Close(file_);
                              driver_->SurpriseRemoveDevice();
                              if (!driver_->RemoveDevice().parked) {
                                  driver_->Unload();
                              }
                          })
                .parked &&
           !driver_->IsLoaded();
}

}  // namespace fuzz
