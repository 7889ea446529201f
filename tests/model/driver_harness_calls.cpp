// The calls that operations make into the driver.
#include "tests/model/driver_harness_peer.h"

#include <cstring>

namespace model {

NTSTATUS DriverHarness::Call(const Operation& operation)
{
    switch (operation.kind) {
    case Kind::kAttach: {
        const WpcdClientRegistration registration = Callbacks::Registration(operation.value % 2);
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

NTSTATUS DriverHarness::CallForClient(const Operation& operation, Peer& peer)
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

NTSTATUS DriverHarness::CallDump(const Operation& operation, Peer& peer)
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

NTSTATUS DriverHarness::CallDescribe(const Operation& operation)
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

}  // namespace model
