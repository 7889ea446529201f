#include <initguid.h>  // before all: this file holds the interfaces' identifiers

#include "tests/model/driver_harness_peer.h"

#include "host/schedule/parking.h"
#include "tests/kit/lock_order.h"

#include <span>

namespace model {
namespace {

constexpr unsigned kMostCalls = 50000;  // an operation makes a few thousand at most
constexpr std::size_t kMostLines = 5000;

// A descriptor callback: only ever passed on.
PZEP_DESCRIPTOR_CALLBACK NeverCalled(unsigned client, unsigned slot)
{
    return reinterpret_cast<PZEP_DESCRIPTOR_CALLBACK>(std::uintptr_t{0x1000} * (client + 1) + slot);
}

}  // namespace

DriverHarness::DriverHarness(const Sequence& sequence, const std::filesystem::path& image) : sequence_(sequence)
{
    Callbacks::current = this;
    for (unsigned client = 0; client < kClients; ++client) {
        Peer& peer = peers_.emplace_back(*this, client, sequence.clients[client]);
        peer.callbacks.ReservedCallback = &peer;
        peer.callbacks.DescriptorCallbackA = NeverCalled(client, 2);
        peer.callbacks.DescriptorCallbackB = NeverCalled(client, 3);
        peer.callbacks.DescriptorCallbackC = NeverCalled(client, 5);
        peer.callbacks.CommandCallback = peer.habits.takesCommands ? &Callbacks::OnCommand : nullptr;
        peer.callbacks.AppsStateNotificationCallback = peer.habits.wantsAppsState ? &Callbacks::OnAppsState : nullptr;
    }
    driver_ = &machine_.Boot(image, kService);
    const auto query = [&](const GUID& type, auto& table) {
        if (!NT_SUCCESS(driver_->QueryInterface(type, std::as_writable_bytes(std::span(&table, 1)),
                                                ZEP_NOTIFIER_INTERFACE_VERSION))) {
            throw host::HostError("the driver did not give out its interface");
        }
    };
    layout::DeclareLockOrder(machine_, *driver_);
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

DriverHarness::~DriverHarness()
{
    Callbacks::current = nullptr;
}

Outcome DriverHarness::Do(const Operation& operation)
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

void DriverHarness::Run(const host::PumpResult& result)
{
    outcome_.standsStill = outcome_.standsStill || !result.parked.empty();
}

std::vector<std::string> DriverHarness::TakeViolations()
{
    std::vector<std::string> texts;
    for (const auto& violation : machine_.violations().Take()) {
        texts.push_back(violation.Text());
    }
    return texts;
}

bool DriverHarness::TakeDown()
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

}  // namespace model
