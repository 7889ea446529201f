// Classic (WMI) provider registration, as old systems have it: requests to the callback of a control block, and the
// query that it makes.
#include "host/checks/unused_stack.h"
#include "host/environment.h"
#include "host/tracing/state.h"

#include <algorithm>
#include <cstring>

using host::PlatformCall;
using host::checks::Rule;
using host::tracing::Provider;
using host::tracing::ProviderKind;
using host::tracing::Tracing;

namespace {

constexpr std::uint8_t kEnableEvents = 4;
constexpr std::uint8_t kDisableEvents = 5;
constexpr std::uint8_t kRegisterInfo = 8;
constexpr std::uint8_t kEnableCollection = 6;
constexpr std::uint8_t kDisableCollection = 7;
constexpr std::uint8_t kUnknownMinor = 12;
constexpr std::size_t kRegisterInfoSize = 56;
constexpr std::uint32_t kRegisterFlags = WMIREG_FLAG_TRACED_GUID | WMIREG_FLAG_TRACE_CONTROL_GUID;
constexpr ULONG kActionRegister = 0x80010001u;
constexpr ULONG kActionDeregister = 0x80000002u;

LONG Request(const Provider& provider, std::uint8_t minor, void* buffer, ULONG length, ULONG& size)
{
    const auto callback = reinterpret_cast<host::tracing::WmiCallback>(const_cast<void*>(provider.callback));
    host::checks::FillUnusedStack();
    return callback(minor, nullptr, length, buffer, provider.context, &size);
}

void Expect(bool holds, const Provider& provider, const char* what)
{
    if (!holds) {
        host::Environment::Current().Report(Rule::kTraceArguments, "IoWMIRegistrationControl", what, provider.caller);
    }
}

}  // namespace

namespace host::tracing {

void QueryWmiRegistration(const Provider& provider, GUID& control)
{
    alignas(8) unsigned char buffer[kRegisterInfoSize + sizeof(std::uint64_t)];
    ULONG size = 0;
    // Only the first bytes are the driver's to write.
    const auto query = [&](ULONG length, std::size_t writable) {
        std::memset(buffer, 0xEE, sizeof(buffer));
        const LONG status = Request(provider, kRegisterInfo, buffer, length, size);
        Expect(std::all_of(buffer + writable, std::end(buffer), [](unsigned char byte) { return byte == 0xEE; }),
               provider, "more is written than the registration buffer or the answer is long");
        return status;
    };
    ULONG needed = 0;
    for (const ULONG length : {ULONG{sizeof(needed)}, ULONG{kRegisterInfoSize - 1}}) {
        const LONG status = query(length, sizeof(needed));
        std::memcpy(&needed, buffer, sizeof(needed));
        Expect(status == STATUS_BUFFER_TOO_SMALL && size == sizeof(needed) && needed == kRegisterInfoSize, provider,
               "a small registration buffer is not answered with the size that is needed");
    }
    needed = kRegisterInfoSize;

    LONG status = query(sizeof(needed) - 1, 0);
    Expect(status == STATUS_BUFFER_TOO_SMALL && size == 0, provider,
           "a buffer too small for the size itself is not refused untouched");

    status = query(needed, kRegisterInfoSize);
    std::memcpy(&control, buffer + 24, sizeof(control));
    unsigned char expected[kRegisterInfoSize] = {};
    constexpr ULONG kGuidCount = 1;
    std::memcpy(expected, &needed, sizeof(needed));
    std::memcpy(expected + 16, &kGuidCount, sizeof(kGuidCount));
    std::memcpy(expected + 24, &control, sizeof(control));
    std::memcpy(expected + 40, &kRegisterFlags, sizeof(kRegisterFlags));
    Expect(status == STATUS_SUCCESS && size == kRegisterInfoSize &&
               std::memcmp(buffer, expected, sizeof(expected)) == 0,
           provider, "the registration data are not one traced control GUID in 56 bytes");

    // Requests that every control block gets now and then.
    WNODE_HEADER header{};
    Expect(Request(provider, kEnableCollection, &header, sizeof(header), size) == STATUS_SUCCESS &&
               Request(provider, kDisableCollection, &header, sizeof(header), size) == STATUS_SUCCESS,
           provider, "a collection request is refused");
    for (const std::uint8_t minor : {kEnableEvents, kDisableEvents}) {
        header.Guid = {};  // somebody else's
        Expect(Request(provider, minor, &header, sizeof(header), size) == STATUS_WMI_GUID_NOT_FOUND &&
                   Request(provider, minor, &header, sizeof(header) - 1, size) == STATUS_INVALID_PARAMETER,
               provider, "a request for another control GUID, or a short one, is not refused as such");
    }
    // The field after the control GUID takes no part in the comparison, whatever it holds.
    header.Guid = control;
    for (header.ClientContext = 0; header.ClientContext < 256; ++header.ClientContext) {
        Expect(Request(provider, kDisableEvents, &header, sizeof(header), size) == STATUS_SUCCESS, provider,
               "a request for the control GUID is refused");
    }
    Expect(Request(provider, kUnknownMinor, &header, sizeof(header), size) == STATUS_INVALID_DEVICE_REQUEST, provider,
           "an unknown request is not refused");
}

void SendWmiRequest(const Provider& provider, std::uint8_t minor, const GUID& control, TRACEHANDLE logger)
{
    WNODE_HEADER header{};
    header.BufferSize = sizeof(header);
    header.HistoricalContext = logger;
    header.Guid = control;
    header.Flags = WNODE_FLAG_TRACED_GUID;
    ULONG size = 0;
    Tracing::State::Current().lastWmiStatus = Request(provider, minor, &header, sizeof(header), size);
}

}  // namespace host::tracing

extern "C" __attribute__((visibility("default"), used)) NTSTATUS NTAPI IoWMIRegistrationControl(PDEVICE_OBJECT block,
                                                                                                ULONG action)
{
    const PlatformCall call("IoWMIRegistrationControl", HOST_CALLER, PASSIVE_LEVEL);
    if (call.fault()) {
        return call.fault()->status;
    }
    Tracing::State& state = Tracing::State::Current();
    if (action == kActionRegister) {
        const void* callback;
        std::memcpy(&callback, block, sizeof(callback));
        Provider provider{ProviderKind::kWmi, 0, {}, callback, block, call.caller()};
        QueryWmiRegistration(provider, provider.guid);
        bool armed;
        {
            const std::lock_guard lock(state.mutex);
            provider.handle = state.nextHandle++;
            state.providers.push_back(provider);
            armed = state.Receiver(provider.guid) != nullptr;
        }
        if (armed) {
            state.NotifyMessages(provider);
        }
        return STATUS_SUCCESS;
    }
    if (action == kActionDeregister) {
        const std::lock_guard lock(state.mutex);
        const std::size_t removed = state.providers.remove_if(
            [&](const Provider& provider) { return provider.kind == ProviderKind::kWmi && provider.context == block; });
        if (removed != 0) {
            return STATUS_SUCCESS;
        }
    }
    call.Violation(Rule::kTraceHandle, "unknown action, or a control block that is not registered");
    return STATUS_INVALID_PARAMETER;
}

extern "C" __attribute__((visibility("default"), used)) NTSTATUS NTAPI
WmiQueryTraceInformation(ULONG informationClass, PVOID information, ULONG length, PULONG required, PVOID buffer)
{
    const PlatformCall call("WmiQueryTraceInformation", HOST_CALLER, PASSIVE_LEVEL,
                            informationClass == TraceEnableLevelClass ? "level" : "flags");
    if (call.fault()) {
        return call.fault()->status;
    }
    if (required != nullptr) {
        *required = sizeof(ULONG);
    }
    if (length != sizeof(ULONG)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    if (information == nullptr || buffer == nullptr ||
        (informationClass != TraceEnableFlagsClass && informationClass != TraceEnableLevelClass)) {
        return STATUS_INVALID_PARAMETER;
    }
    Tracing::State& state = Tracing::State::Current();
    const std::lock_guard lock(state.mutex);
    const auto* session = state.ByLogger(static_cast<const WNODE_HEADER*>(buffer)->HistoricalContext);
    if (session == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    const ULONG value =
        informationClass == TraceEnableFlagsClass ? session->options.flags : ULONG{session->options.level};
    std::memcpy(information, &value, sizeof(value));
    return STATUS_SUCCESS;
}
