#include "tools/test_client/peers.h"

#include <algorithm>

namespace test_client {
namespace {

constexpr GUID kStranger = {0x5F1E77C4, 0x2C5B, 0x4D0A, {0x8E, 0x21, 0x63, 0x0D, 0x4B, 0x9A, 0xF0, 0x01}};
constexpr GUID kOther = {0x5F1E77C4, 0x2C5B, 0x4D0A, {0x8E, 0x21, 0x63, 0x0D, 0x4B, 0x9A, 0xF0, 0x02}};

NTSTATUS NTAPI OnState(PVOID, const ZepState*, PULONG)
{
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI OnCommand(PVOID context, ULONG, const ZepCommandInfo*, PULONG)
{
    ++static_cast<Peer*>(context)->commandCount;
    return STATUS_SUCCESS;
}

// ---- The crash-dump driver ----

volatile ULONGLONG g_lastEntry;  // read from the clients' data

// A descriptor's entries are there as long as the callback runs.
NTSTATUS NTAPI OnClientAdd(const ZEP_SUBSYSTEM_DESCRIPTOR* descriptor)
{
    for (unsigned index = 0; descriptor->DataEntries != nullptr && index < descriptor->DataEntryCount; ++index) {
        g_lastEntry = descriptor->DataEntries[index].Value[0];
    }
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI OnClientRemove(const ZEP_NOTIFIER_CLIENT_CONTEXT*)
{
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI OnDumpStart(PVOID, ULONGLONG, ULONGLONG)
{
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI OnDumpAddData(PVOID, PVOID, ULONGLONG, ULONG, ULONG)
{
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI OnDumpStop(PVOID, ULONGLONG)
{
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI OnDumpQueryParam(PVOID, ULONG, ULONGLONG, ULONGLONG)
{
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI OnDumpAddTriageData(PVOID, ULONGLONG, ULONG)
{
    return STATUS_SUCCESS;
}

constexpr WpcdClientRegistration kCrashDumpDriver = {.Header = 0,
                                                     .ZepClientAdd = OnClientAdd,
                                                     .ZepClientRemove = OnClientRemove,
                                                     .ZepDumpStart = OnDumpStart,
                                                     .ZepDumpAddDumpData = OnDumpAddData,
                                                     .ZepDumpStop = OnDumpStop,
                                                     .ZepDumpQueryParam = OnDumpQueryParam,
                                                     .ZepDumpAddTriageData = OnDumpAddTriageData};

}  // namespace

Peers::Peers()
{
    peers_.push_back({{kStranger}, "a stranger"});
    peers_.push_back({{kOther}, "another stranger"});
}

Peers::~Peers() = default;

Peer& Peers::Find(const Identity& identity, const char* name)
{
    const auto found = std::ranges::find(peers_, identity, &Peer::identity);
    return found != peers_.end() ? *found : peers_.emplace_back(Peer{identity, name});
}

unsigned Peers::RegisteredCount() const
{
    return static_cast<unsigned>(std::ranges::count(peers_, true, &Peer::isRegistered));
}

void Peers::Forget()
{
    for (Peer& peer : peers_) {
        peer.isRegistered = false;
    }
    isAttached_ = false;
}

NTSTATUS Peers::Register(const ZEP_NOTIFIER_HELPER_INTERFACE& helper, Peer& peer)
{
    ActionCallbackTable callbacks{};
    callbacks.CommandCallback = OnCommand;
    const NTSTATUS status = helper.Notifier_HelperInit(&peer.identity.guid, peer.name, "a peer of the client",
                                                       &callbacks, nullptr, 0, &peer);
    peer.isRegistered = peer.isRegistered || NT_SUCCESS(status);
    return status;
}

NTSTATUS Peers::Watch(const ZEP_NOTIFIER_HELPER_INTERFACE& helper, const Peer& peer, const Identity& watched)
{
    const ZepState any{.Size = sizeof(any), .InterfaceGUID = watched.guid, .State = ZEP_STATE_ANY, .Reserved = 0};
    return helper.Notifier_HelperRegisterForStateNotification(&peer.identity.guid, &any, OnState);
}

NTSTATUS Peers::Send(const ZEP_NOTIFIER_HELPER_INTERFACE& helper, const Peer& from, const Identity& to, ULONG id,
                     ULONG argument)
{
    const ZepCommand command{.Size = sizeof(command),
                             .CommandArgument = argument,
                             .SourceGuid = from.identity.guid,
                             .TargetGuid = to.guid,
                             .CommandId = id};
    return helper.Notifier_HelperSendCommand(&command);
}

NTSTATUS Peers::Deregister(const ZEP_NOTIFIER_HELPER_INTERFACE& helper, Peer& peer)
{
    peer.isRegistered = false;
    return helper.Notifier_HelperClientDeinit(&peer.identity.guid);
}

void Peers::Dump(const ZEP_NOTIFIER_HELPER_INTERFACE& helper)
{
    // Crash-dump driver and client agree on the handle's record; a number that is followed by zeros suits most.
    static ULONG record[1024] = {1};
    static ULONG data[1024] = {};
    constexpr ULONG kBytes = sizeof(data);
    (void)helper.Notifier_HelperStartDump(record, 0, 0);
    (void)helper.Notifier_HelperAddDumpData(record, data, 0, kBytes, 0);
    (void)helper.Notifier_HelperDumpAddTriageData(record, 0, kBytes);
    (void)helper.Notifier_HelperDumpQueryParam(record, 0, 0, 0);
    (void)helper.Notifier_HelperStopDump(record, 0);
}

NTSTATUS Peers::Attach(const ZEP_NOTIFIER_WPCD_INTERFACE& wpcd)
{
    const NTSTATUS status = wpcd.Notifier_WpcdClientInit(&kCrashDumpDriver);
    isAttached_ = isAttached_ || status == STATUS_SUCCESS;
    return status;
}

NTSTATUS Peers::Detach(const ZEP_NOTIFIER_WPCD_INTERFACE& wpcd)
{
    isAttached_ = false;
    return wpcd.Notifier_WpcdClientDeInit();
}

}  // namespace test_client
