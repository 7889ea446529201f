// Sessions: opening, changing, closing, and what providers are notified of.
#include "host/tracing/tracing.h"

#include "host/checks/unused_stack.h"
#include "host/environment.h"
#include "host/tracing/state.h"

#include <algorithm>
#include <cstring>

namespace host::tracing {
namespace {

Tracing::State* g_current = nullptr;

}  // namespace

Tracing::State& Tracing::State::Current()
{
    return *g_current;
}

TRACEHANDLE Tracing::State::LoggerHandle(const MessageSession& session)
{
    return session.id | std::uint64_t{session.options.level} << 16 | std::uint64_t{session.options.flags} << 32;
}

MessageSession* Tracing::State::Receiver(const GUID& control)
{
    for (MessageSession& session : messageSessions) {
        if (session.receives && SameGuid(session.options.control, control)) {
            return &session;
        }
    }
    return nullptr;
}

MessageSession* Tracing::State::ByLogger(TRACEHANDLE logger)
{
    for (MessageSession& session : messageSessions) {
        if (session.id == (logger & 0xFFFF)) {
            return &session;
        }
    }
    return nullptr;
}

std::optional<EventSessionOptions> Tracing::State::Merged(const GUID& provider) const
{
    std::optional<EventSessionOptions> merged;
    for (const EventSession& session : eventSessions) {
        if (!SameGuid(session.options.provider, provider)) {
            continue;
        }
        if (!merged) {
            merged = session.options;
            continue;
        }
        const bool all = merged->level == 0 || session.options.level == 0;
        merged->level = all ? std::uint8_t{0} : std::max(merged->level, session.options.level);
        merged->matchAny |= session.options.matchAny;
        merged->matchAll &= session.options.matchAll;
    }
    return merged;
}

std::vector<Provider> Tracing::State::ProvidersOf(const GUID& guid, bool ofEvents) const
{
    const std::lock_guard lock(mutex);
    std::vector<Provider> found;
    for (const Provider& provider : providers) {
        if ((provider.kind == ProviderKind::kEvents) == ofEvents && SameGuid(provider.guid, guid)) {
            found.push_back(provider);
        }
    }
    return found;
}

void Tracing::State::NotifyEvents(const GUID& guid)
{
    std::optional<EventSessionOptions> merged;
    {
        const std::lock_guard lock(mutex);
        merged = Merged(guid);
    }
    const GUID source{};
    for (const Provider& provider : ProvidersOf(guid, true)) {
        if (provider.callback == nullptr) {
            continue;
        }
        const auto callback = reinterpret_cast<PETWENABLECALLBACK>(const_cast<void*>(provider.callback));
        checks::FillUnusedStack();
        if (merged) {
            callback(&source, EVENT_CONTROL_CODE_ENABLE_PROVIDER, merged->level, merged->matchAny, merged->matchAll,
                     nullptr, provider.context);
        } else {
            callback(&source, EVENT_CONTROL_CODE_DISABLE_PROVIDER, 0, 0, 0, nullptr, provider.context);
        }
    }
}

void Tracing::State::NotifyMessages(const Provider& provider)
{
    std::optional<MessageSession> receiver;
    {
        const std::lock_guard lock(mutex);
        if (const MessageSession* session = Receiver(provider.guid)) {
            receiver = *session;
        }
    }
    if (provider.kind == ProviderKind::kWmi) {
        constexpr std::uint8_t kEnableEvents = 4;
        constexpr std::uint8_t kDisableEvents = 5;
        SendWmiRequest(provider, receiver ? kEnableEvents : kDisableEvents, provider.guid,
                       receiver ? LoggerHandle(*receiver) : 0);
        return;
    }
    const auto callback = reinterpret_cast<ClassicCallback>(const_cast<void*>(provider.callback));
    ClassicEnableContext context;
    std::memset(&context, 0xEE, sizeof(context));  // on a disable nothing in it may be read
    if (receiver) {
        context = {.loggerId = static_cast<std::uint16_t>(receiver->id),
                   .level = receiver->options.level,
                   .internalFlag = 0,
                   .enableFlags = receiver->options.flags,
                   .enableFlagsHigh = 0,
                   .reserved = 0};
    }
    checks::FillUnusedStack();
    callback(&provider.guid, receiver ? 1 : 0, &context, provider.context);
    // Valid only during the call: what a provider kept of it would read this.
    std::memset(&context, 0xEE, sizeof(context));
    __asm__ volatile("" : : "r"(&context) : "memory");
}

void Tracing::State::NotifyMessages(const GUID& control)
{
    for (const Provider& provider : ProvidersOf(control, false)) {
        NotifyMessages(provider);
    }
}

Tracing::Tracing() : state_(std::make_unique<State>())
{
    g_current = state_.get();
}

Tracing::~Tracing()
{
    g_current = nullptr;
}

SessionId Tracing::OpenEventSession(const EventSessionOptions& options)
{
    SessionId id;
    {
        const std::lock_guard lock(state_->mutex);
        id = state_->nextSession++;
        state_->eventSessions.push_back({id, options});
    }
    state_->NotifyEvents(options.provider);
    return id;
}

SessionId Tracing::OpenMessageSession(const MessageSessionOptions& options)
{
    SessionId id;
    {
        const std::lock_guard lock(state_->mutex);
        for (MessageSession& session : state_->messageSessions) {
            if (SameGuid(session.options.control, options.control)) {
                session.receives = false;
            }
        }
        id = state_->nextSession++;
        state_->messageSessions.push_back({id, options, true});
    }
    state_->NotifyMessages(options.control);
    return id;
}

void Tracing::ChangeEventSession(SessionId id, const EventSessionOptions& options)
{
    {
        const std::lock_guard lock(state_->mutex);
        for (EventSession& session : state_->eventSessions) {
            if (session.id == id) {
                session.options = options;
            }
        }
    }
    state_->NotifyEvents(options.provider);
}

void Tracing::ChangeMessageSession(SessionId id, const MessageSessionOptions& options)
{
    {
        const std::lock_guard lock(state_->mutex);
        for (MessageSession& session : state_->messageSessions) {
            if (session.id == id) {
                session.options = options;
            }
        }
    }
    state_->NotifyMessages(options.control);
}

void Tracing::Close(SessionId id)
{
    std::optional<GUID> provider;
    std::optional<GUID> control;
    {
        const std::lock_guard lock(state_->mutex);
        std::erase_if(state_->eventSessions, [&](const EventSession& session) {
            if (session.id != id) {
                return false;
            }
            provider = session.options.provider;
            return true;
        });
        std::erase_if(state_->messageSessions, [&](const MessageSession& session) {
            if (session.id != id) {
                return false;
            }
            if (session.receives) {
                control = session.options.control;
            }
            return true;
        });
    }
    if (provider) {
        state_->NotifyEvents(*provider);
    }
    if (control) {
        state_->NotifyMessages(*control);
    }
}

std::vector<CapturedEvent> Tracing::Events() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->events;
}

std::vector<CapturedMessage> Tracing::Messages() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->messages;
}

void Tracing::ClearCaptured()
{
    const std::lock_guard lock(state_->mutex);
    state_->events.clear();
    state_->messages.clear();
    state_->disabledEvents = 0;
    state_->disabledMessages = 0;
}

std::uint64_t Tracing::DisabledEvents() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->disabledEvents;
}

std::uint64_t Tracing::DisabledMessages() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->disabledMessages;
}

std::size_t Tracing::EventProviders() const
{
    const std::lock_guard lock(state_->mutex);
    return static_cast<std::size_t>(std::count_if(state_->providers.begin(), state_->providers.end(),
                                                  [](const auto& p) { return p.kind == ProviderKind::kEvents; }));
}

std::size_t Tracing::MessageProviders() const
{
    const std::size_t events = EventProviders();
    const std::lock_guard lock(state_->mutex);
    return state_->providers.size() - events;
}

void Tracing::SendEventControl(const GUID& guid, std::uint32_t code, std::uint8_t level, std::uint64_t matchAny,
                               std::uint64_t matchAll, bool nullContext)
{
    for (const Provider& provider : state_->ProvidersOf(guid, true)) {
        const auto callback = reinterpret_cast<PETWENABLECALLBACK>(const_cast<void*>(provider.callback));
        callback(nullptr, code, level, matchAny, matchAll, nullptr, nullContext ? nullptr : provider.context);
    }
}

LONG Tracing::LastWmiStatus() const
{
    return state_->lastWmiStatus;
}

void Tracing::SendMessageControl(const GUID& control, std::uint8_t code, bool nullContext)
{
    for (const Provider& provider : state_->ProvidersOf(control, false)) {
        if (provider.kind == ProviderKind::kClassic) {
            ClassicEnableContext context{};
            const auto callback = reinterpret_cast<ClassicCallback>(const_cast<void*>(provider.callback));
            callback(&provider.guid, code, nullContext ? nullptr : &context, provider.context);
            if (nullContext) {
                callback(&provider.guid, code, &context, nullptr);
            }
        } else {
            Provider addressed = provider;
            addressed.context = nullContext ? nullptr : provider.context;
            SendWmiRequest(addressed, code, control, 0);
        }
    }
}

void Tracing::SetListener(Listener* listener)
{
    const std::lock_guard lock(state_->mutex);
    state_->listener = listener;
}

void Tracing::ReportLeaksOf(const void* imageBase, std::size_t imageSizeBytes)
{
    const auto begin = reinterpret_cast<std::uintptr_t>(imageBase);
    const std::lock_guard lock(state_->mutex);
    state_->providers.remove_if([&](const Provider& provider) {
        if (reinterpret_cast<std::uintptr_t>(provider.callback) - begin >= imageSizeBytes) {
            return false;
        }
        Environment::Current().ReportLeft(
            checks::Rule::kUnloadRegistration,
            std::string(provider.kind == ProviderKind::kEvents ? "an event provider" : "a trace-message provider") +
                " is still registered; its callback would be called in unmapped code",
            {{"registered", {provider.caller}}});
        return true;
    });
}

}  // namespace host::tracing
