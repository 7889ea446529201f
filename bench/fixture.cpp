#include <ntddk.h>

#include <initguid.h>

#include "bench/fixture.h"

#include <atomic>
#include <span>
#include <stdexcept>
#include <string>

namespace bench {
namespace {

std::atomic<std::uint64_t> g_deliveries{0};

NTSTATUS NTAPI OnState(PVOID, const ZepState*, PULONG)
{
    g_deliveries.store(g_deliveries.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI OnCommand(PVOID, ULONG, const ZepCommandInfo*, PULONG)
{
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI OnClientAdd(const ZEP_SUBSYSTEM_DESCRIPTOR*)
{
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI OnClientRemove(const ZEP_NOTIFIER_CLIENT_CONTEXT*)
{
    return STATUS_SUCCESS;
}

void Demand(NTSTATUS status, const char* what)
{
    if (status != STATUS_SUCCESS) {
        throw std::runtime_error(std::string(what) + " answered " + std::to_string(status));
    }
}

GUID GuidOf(ULONG number)
{
    return {number, 0x1234, 0x5678, {1, 2, 3, 4, 5, 6, 7, 8}};
}

}  // namespace

const char* Name(Subject subject)
{
    switch (subject) {
    case Subject::kNative:
        return "native";
    case Subject::kX64:
        return "x64 image";
    case Subject::kMinimal:
        return "minimal driver, native";
    case Subject::kMinimalX64:
        return "minimal driver, x64 image";
    }
    return "?";
}

std::filesystem::path ImageOf(Subject subject)
{
    switch (subject) {
    case Subject::kNative:
        return ZEPN_NATIVE_DRIVER;
    case Subject::kX64:
        return ZEPN_ROOT "/out/x64/zepn.sys";
    case Subject::kMinimal:
        return ZEPN_NATIVE_MINIMAL;
    case Subject::kMinimalX64:
        return ZEPN_ROOT "/out/x64/minimal.sys";
    }
    return {};
}

Fixture::Fixture(const FixtureOptions& options)
    : machine({.workItems = options.workItems,
               .workerCount = options.workers,
               .guardPages = options.guardPages,
               .recordsPaths = false}),
      driver(&machine.Boot(ImageOf(options.subject), "zepn")), poster_(options.clients + 1)
{
    const bool isMinimal = options.subject == Subject::kMinimal || options.subject == Subject::kMinimalX64;
    Demand(driver->QueryInterface(GUID_ZEP_NOTIFIER_HELPER_INTERFACE, std::as_writable_bytes(std::span(&helper, 1)),
                                  ZEP_NOTIFIER_INTERFACE_VERSION),
           "the query for the client interface");
    if (!isMinimal && options.attachesCrashDump) {
        Demand(driver->QueryInterface(GUID_ZEP_NOTIFIER_WPCD_INTERFACE, std::as_writable_bytes(std::span(&wpcd, 1)),
                                      ZEP_NOTIFIER_INTERFACE_VERSION),
               "the query for the crash-dump interface");
        WpcdClientRegistration registration{};
        registration.ZepClientAdd = OnClientAdd;
        registration.ZepClientRemove = OnClientRemove;
        Demand(wpcd.Notifier_WpcdClientInit(&registration), "attaching");
    }
    for (ULONG number = 1; number <= options.clients; ++number) {
        Register(number);
        for (ULONG state = 1; state <= options.subscriptionsEach; ++state) {
            Subscribe(number, poster_, state);
        }
    }
    Register(poster_);
    // Announced with its first state, once and for all.
    Post(poster_, 0x10000);
    if (options.workItems == host::WorkItems::kPumped) {
        machine.RunWorkItems();
    } else {
        machine.WaitForWorkItems();
    }
}

Fixture::~Fixture()
{
    driver->SurpriseRemoveDevice();
    (void)driver->RemoveDevice();
    driver->Unload();
}

void Fixture::Register(ULONG number)
{
    const GUID guid = GuidOf(number);
    ActionCallbackTable callbacks{};
    callbacks.CommandCallback = OnCommand;
    Demand(helper.Notifier_HelperInit(&guid, "name", "description", &callbacks, nullptr, 0, nullptr), "registering");
}

void Fixture::Subscribe(ULONG subscriber, ULONG target, ULONG state)
{
    const GUID guid = GuidOf(subscriber);
    const ZepState filter{.Size = sizeof(ZepState), .InterfaceGUID = GuidOf(target), .State = state, .Reserved = 0};
    Demand(helper.Notifier_HelperRegisterForStateNotification(&guid, &filter, &OnState), "subscribing");
}

void Fixture::Post(ULONG client, ULONG state)
{
    const ZepState record{.Size = sizeof(ZepState), .InterfaceGUID = GuidOf(client), .State = state, .Reserved = 0};
    Demand(helper.Notifier_HelperSendState(&record), "posting");
}

void Fixture::Command(ULONG sender, ULONG target)
{
    ZepCommand command{};
    command.Size = sizeof(command);
    command.TargetGuid = GuidOf(target);
    command.SourceGuid = GuidOf(sender);
    command.CommandId = 1;
    Demand(helper.Notifier_HelperSendCommand(&command), "commanding");
}

void Fixture::Leave(ULONG client)
{
    const GUID guid = GuidOf(client);
    Demand(helper.Notifier_HelperClientDeinit(&guid), "leaving");
}

std::uint64_t Fixture::Deliveries()
{
    return g_deliveries.load(std::memory_order_relaxed);
}

}  // namespace bench
