// The tracing functions that drivers call: EtwRegister, EtwWrite, EtwUnregister, EtwRegisterClassicProvider,
// WmiTraceMessage.
#include "host/environment.h"
#include "host/tracing/state.h"

#include <cstring>

using host::PlatformCall;
using host::checks::Rule;
using host::tracing::CapturedEvent;
using host::tracing::CapturedMessage;
using host::tracing::Provider;
using host::tracing::ProviderKind;
using host::tracing::SameGuid;
using host::tracing::Tracing;

#define HOST_EXPORT extern "C" __attribute__((visibility("default"), used))

namespace {

constexpr ULONG kFieldsMaximum = 128;
constexpr std::size_t kEventBytesMaximum = 64 * 1024;
constexpr ULONG kExpectedMessageFlags = 43;
constexpr unsigned kPairsMaximum = 16;

REGHANDLE AddProvider(Tracing::State& state, Provider provider)
{
    const std::lock_guard lock(state.mutex);
    provider.handle = state.nextHandle++;
    state.providers.push_back(provider);
    return provider.handle;
}

const Provider* FindProvider(const Tracing::State& state, REGHANDLE handle)
{
    for (const Provider& provider : state.providers) {
        if (provider.handle == handle) {
            return &provider;
        }
    }
    return nullptr;
}

bool Passes(const host::tracing::EventSessionOptions& session, const EVENT_DESCRIPTOR& event)
{
    const bool level = session.level == 0 || event.Level <= session.level;
    const bool any = session.matchAny == 0 || (event.Keyword & session.matchAny) != 0;
    const bool keyword = event.Keyword == 0 || (any && (event.Keyword & session.matchAll) == session.matchAll);
    return level && keyword;
}

}  // namespace

HOST_EXPORT NTSTATUS NTAPI EtwRegister(LPCGUID guid, PETWENABLECALLBACK callback, PVOID context, PREGHANDLE handle)
{
    const PlatformCall call("EtwRegister", HOST_CALLER, PASSIVE_LEVEL);
    if (call.fault()) {
        return call.fault()->status;
    }
    if (guid == nullptr || handle == nullptr) {
        call.Violation(Rule::kTraceArguments, "a required pointer is null");
        return STATUS_INVALID_PARAMETER;
    }
    Tracing::State& state = Tracing::State::Current();
    *handle = AddProvider(
        state, {ProviderKind::kEvents, 0, *guid, reinterpret_cast<const void*>(callback), context, call.caller()});
    bool armed;
    {
        const std::lock_guard lock(state.mutex);
        armed = state.Merged(*guid).has_value();
    }
    if (armed) {
        state.NotifyEvents(*guid);
    }
    return STATUS_SUCCESS;
}

HOST_EXPORT NTSTATUS NTAPI EtwUnregister(REGHANDLE handle)
{
    const PlatformCall call("EtwUnregister", HOST_CALLER, PASSIVE_LEVEL);
    if (call.fault()) {
        return call.fault()->status;
    }
    Tracing::State& state = Tracing::State::Current();
    std::size_t removed;
    {
        const std::lock_guard lock(state.mutex);
        removed = state.providers.remove_if([&](const Provider& provider) { return provider.handle == handle; });
    }
    if (removed == 0) {
        call.Violation(Rule::kTraceHandle, "no such registration, or it was given back before");
        return STATUS_INVALID_HANDLE;
    }
    return STATUS_SUCCESS;
}

HOST_EXPORT NTSTATUS NTAPI EtwWrite(REGHANDLE handle, PCEVENT_DESCRIPTOR descriptor, LPCGUID, ULONG fieldCount,
                                    PEVENT_DATA_DESCRIPTOR fields)
{
    const PlatformCall call("EtwWrite", HOST_CALLER, DISPATCH_LEVEL);
    if (call.fault()) {
        return call.fault()->status;
    }
    Tracing::State& state = Tracing::State::Current();
    const std::lock_guard lock(state.mutex);
    const Provider* provider = FindProvider(state, handle);
    if (provider == nullptr || provider->kind != ProviderKind::kEvents) {
        call.Violation(Rule::kTraceHandle, "an event is written with a handle that is not registered");
        return STATUS_INVALID_HANDLE;
    }
    if (fieldCount > kFieldsMaximum) {
        call.Violation(Rule::kTraceArguments, std::to_string(fieldCount) + " data descriptors");
        return STATUS_INVALID_PARAMETER;
    }

    CapturedEvent event{.order = 0,
                        .provider = provider->guid,
                        .descriptor = *descriptor,
                        .payload = {},
                        .thread = host::ThreadState::Current().name,
                        .irql = host::ThreadState::Current().irql,
                        .session = 0};
    for (ULONG index = 0; index < fieldCount; ++index) {
        if (fields[index].Reserved != 0) {
            call.Violation(Rule::kTraceArguments, "Reserved of data descriptor " + std::to_string(index) + " is not 0");
        }
        if (event.payload.size() + fields[index].Size > kEventBytesMaximum) {
            call.Violation(Rule::kTraceArguments, "the payload exceeds 64 KiB");
            return STATUS_INVALID_PARAMETER;
        }
        const auto* bytes = reinterpret_cast<const std::byte*>(fields[index].Ptr);
        event.payload.insert(event.payload.end(), bytes, bytes + fields[index].Size);
    }

    bool isEnabled = false;
    for (const auto& session : state.eventSessions) {
        if (SameGuid(session.options.provider, provider->guid) && Passes(session.options, *descriptor)) {
            isEnabled = true;
            event.session = session.id;
            event.order = state.nextOrder++;
            state.events.push_back(event);
            if (state.listener != nullptr) {
                state.listener->OnEvent(event);
            }
        }
    }
    state.disabledEvents += isEnabled ? 0 : 1;
    return STATUS_SUCCESS;
}

HOST_EXPORT NTSTATUS NTAPI EtwRegisterClassicProvider(LPCGUID guid, ULONG type, PVOID callback, PVOID context,
                                                      PREGHANDLE handle)
{
    const PlatformCall call("EtwRegisterClassicProvider", HOST_CALLER, PASSIVE_LEVEL);
    if (call.fault()) {
        return call.fault()->status;
    }
    if (guid == nullptr || handle == nullptr || callback == nullptr || type != 0) {
        call.Violation(Rule::kTraceArguments, "a required pointer is null, or the type is not 0");
        return STATUS_INVALID_PARAMETER;
    }
    Tracing::State& state = Tracing::State::Current();
    Provider provider{ProviderKind::kClassic, 0, *guid, callback, context, call.caller()};
    *handle = provider.handle = AddProvider(state, provider);
    bool armed;
    {
        const std::lock_guard lock(state.mutex);
        armed = state.Receiver(*guid) != nullptr;
    }
    if (armed) {
        state.NotifyMessages(provider);
    }
    return STATUS_SUCCESS;
}

HOST_EXPORT NTSTATUS NTAPI_VARIADIC WmiTraceMessage(TRACEHANDLE logger, ULONG flags, const GUID* guid, ULONG number,
                                                    ...)
{
    const PlatformCall call("WmiTraceMessage", HOST_CALLER, DISPATCH_LEVEL);
    if (call.fault()) {
        return call.fault()->status;
    }
    if (flags != kExpectedMessageFlags) {
        call.Violation(Rule::kTraceArguments, "message flags " + std::to_string(flags) + " instead of 43");
    }
    CapturedMessage message{.order = 0,
                            .messageGuid = *guid,
                            .number = static_cast<std::uint16_t>(number & 0xFFFF),
                            .payload = {},
                            .argumentSizes = {},
                            .thread = host::ThreadState::Current().name,
                            .irql = host::ThreadState::Current().irql,
                            .session = 0};
    __builtin_ms_va_list arguments;
    __builtin_ms_va_start(arguments, number);
    for (unsigned pair = 0;; ++pair) {
        const auto* bytes = static_cast<const std::byte*>(__builtin_va_arg(arguments, void*));
        if (bytes == nullptr) {
            break;
        }
        const auto size = __builtin_va_arg(arguments, unsigned long long);
        if (pair == kPairsMaximum || size > kEventBytesMaximum) {
            call.Violation(Rule::kTraceArguments, "argument " + std::to_string(pair) + " has length " +
                                                      std::to_string(size) +
                                                      "; the list has no end or lengths are "
                                                      "not 64-bit");
            break;
        }
        message.payload.insert(message.payload.end(), bytes, bytes + size);
        message.argumentSizes.push_back(static_cast<std::uint32_t>(size));
    }
    __builtin_ms_va_end(arguments);

    Tracing::State& state = Tracing::State::Current();
    const std::lock_guard lock(state.mutex);
    const auto* session = state.ByLogger(logger);
    if (session == nullptr) {
        ++state.disabledMessages;
        return STATUS_INVALID_HANDLE;
    }
    message.session = session->id;
    message.order = state.nextOrder++;
    state.messages.push_back(message);
    if (state.listener != nullptr) {
        state.listener->OnMessage(message);
    }
    return STATUS_SUCCESS;
}
