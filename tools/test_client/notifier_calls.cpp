#include <initguid.h>  // before all: this file holds the interfaces' identifiers

#include "tools/test_client/notifier_calls.h"

#include <cstring>
#include <utility>

namespace test_client {
namespace {

NotifierCalls* g_current = nullptr;

// ---- What the calls show ----

void Note(Seen& seen, const GUID* guid, const CHAR* name, const CHAR*, const ActionCallbackTable* callbacks,
          const ZepDataEntry*, ULONG, PVOID)
{
    if (guid != nullptr && name != nullptr && callbacks != nullptr) {
        seen.clients.Add({.identity = {*guid},
                          .name = Text(name),
                          .takesCommands = callbacks->CommandCallback != nullptr,
                          .wantsAppsState = callbacks->AppsStateNotificationCallback != nullptr});
    }
}

void Note(Seen& seen, const GUID*, const ZepState* state, PZEP_STATE_NOTIFICATION_CALLBACK)
{
    if (state != nullptr) {
        seen.subscriptions.Add({{state->InterfaceGUID}, state->State});
    }
}

void Note(Seen& seen, const ZepCommand* command)
{
    if (command != nullptr) {
        seen.targets.Add({command->TargetGuid});
    }
}

void Note(Seen& seen, const WpcdClientRegistration*)
{
    seen.attaches = true;
}

template <class... Arguments>
void Note(Seen&, Arguments...)
{
}

// ---- The functions in the table ----

template <auto kSlot>
struct Interposed;

template <class Table, class... Arguments, NTSTATUS (NTAPI* Table::*kSlot)(Arguments...)>
struct Interposed<kSlot> {
    static inline NTSTATUS(NTAPI* original)(Arguments...) = nullptr;
    static inline Operation operation{};

    static NTSTATUS NTAPI Call(Arguments... arguments)
    {
        if (NotifierCalls* calls = NotifierCalls::Current()) {
            Note(calls->seen(), arguments...);
            if (const std::optional<NTSTATUS> failure = calls->Begin(operation, HOST_CALLER)) {
                return *failure;
            }
        }
        return original(arguments...);
    }

    static void Install(Table& table, const char* name, NTSTATUS failure)
    {
        original = table.*kSlot;
        operation = {name, failure};
        table.*kSlot = &Call;
    }
};

void Interpose(ZEP_NOTIFIER_HELPER_INTERFACE& table)
{
    using Helper = ZEP_NOTIFIER_HELPER_INTERFACE;
#define INTERPOSE(slot, failure) Interposed<&Helper::slot>::Install(table, #slot, failure)
    INTERPOSE(Notifier_HelperInit, STATUS_ZEP_NOTIFIER_NO_MEMORY);
    // A client that cannot deregister can do nothing about it.
    INTERPOSE(Notifier_HelperClientDeinit, STATUS_SUCCESS);
    INTERPOSE(Notifier_HelperSendState, STATUS_INSUFFICIENT_RESOURCES);
    INTERPOSE(Notifier_HelperSendCommand, STATUS_INVALID_DEVICE_REQUEST);
    INTERPOSE(Notifier_HelperRegisterForStateNotification, STATUS_INSUFFICIENT_RESOURCES);
    INTERPOSE(Notifier_HelperDeregisterForStateNotification, STATUS_SUCCESS);
    INTERPOSE(Notifier_HelperStartDump, STATUS_IO_DEVICE_ERROR);
    INTERPOSE(Notifier_HelperStopDump, STATUS_IO_DEVICE_ERROR);
    INTERPOSE(Notifier_HelperAddDumpData, STATUS_IO_DEVICE_ERROR);
    INTERPOSE(Notifier_HelperDumpQueryParam, STATUS_IO_DEVICE_ERROR);
    INTERPOSE(Notifier_HelperDumpAddTriageData, STATUS_IO_DEVICE_ERROR);
#undef INTERPOSE
}

void Interpose(ZEP_NOTIFIER_WPCD_INTERFACE& table)
{
    using Wpcd = ZEP_NOTIFIER_WPCD_INTERFACE;
#define INTERPOSE(slot, failure) Interposed<&Wpcd::slot>::Install(table, #slot, failure)
    INTERPOSE(Notifier_WpcdClientInit, STATUS_INSUFFICIENT_RESOURCES);
    INTERPOSE(Notifier_WpcdClientDeInit, STATUS_SUCCESS);
    INTERPOSE(Notifier_WpcdGetNumSubsystemDescriptors, STATUS_IO_DEVICE_ERROR);
    INTERPOSE(Notifier_WpcdGetAllSubsystemDescriptors, STATUS_IO_DEVICE_ERROR);
#undef INTERPOSE
}

template <class Table>
void InterposeIn(std::span<std::byte> bytes)
{
    if (bytes.size() >= sizeof(Table)) {
        Interpose(*reinterpret_cast<Table*>(bytes.data()));
    }
}

}  // namespace

NotifierCalls::NotifierCalls(host::Machine& machine, Seen& seen, FindNotifier notifier)
    : machine_(machine), seen_(seen), notifier_(std::move(notifier))
{
    g_current = this;
    machine.environment().onInterface = [](const GUID& type, std::span<std::byte> table) {
        if (std::memcmp(&type, &GUID_ZEP_NOTIFIER_HELPER_INTERFACE, sizeof(type)) == 0) {
            InterposeIn<ZEP_NOTIFIER_HELPER_INTERFACE>(table);
        } else if (std::memcmp(&type, &GUID_ZEP_NOTIFIER_WPCD_INTERFACE, sizeof(type)) == 0) {
            InterposeIn<ZEP_NOTIFIER_WPCD_INTERFACE>(table);
        }
    };
}

// A driver that still has the table goes on by the functions here.
NotifierCalls::~NotifierCalls()
{
    machine_.environment().onInterface = nullptr;
    g_current = nullptr;
}

NotifierCalls* NotifierCalls::Current()
{
    return g_current;
}

std::optional<NTSTATUS> NotifierCalls::Begin(const Operation& operation, const void* caller)
{
    const host::Driver* notifier = notifier_();
    const bool isOpen = notifier != nullptr && notifier->OpenHandles() != 0;
    if (wasOpen_ && !isOpen) {
        machine_.environment().Report(host::checks::Rule::kDeadHandle, operation.name,
                                      "the caller has closed the Notifier's device, which alone keeps this function "
                                      "loaded",
                                      caller);
    }
    wasOpen_ = wasOpen_ || isOpen;
    made_.push_back(&operation);
    return failing_ && made_.size() - 1 == *failing_ ? std::optional(operation.failure) : std::nullopt;
}

}  // namespace test_client
