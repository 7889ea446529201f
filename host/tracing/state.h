// The tracing runtime's inner state, shared by its platform functions and its façade.
#pragma once

#include "host/tracing/tracing.h"

#include <wmistr.h>

#include <atomic>
#include <list>
#include <mutex>
#include <optional>

namespace host::tracing {

using ClassicCallback = VOID(NTAPI*)(LPCGUID guid, UCHAR code, PVOID enableContext, PVOID callbackContext);

// Offset 0 of a control block that is registered for WMI requests.
using WmiCallback = LONG(NTAPI*)(UCHAR minor, PVOID path, ULONG bufferLength, PVOID buffer, PVOID context, PULONG size);

// What a session gives a classic provider; 16 bytes with the extended form's rest.
struct ClassicEnableContext {
    std::uint16_t loggerId;
    std::uint8_t level;
    std::uint8_t internalFlag;
    std::uint32_t enableFlags;
    std::uint32_t enableFlagsHigh;
    std::uint32_t reserved;
};
static_assert(sizeof(ClassicEnableContext) == 16);

enum class ProviderKind { kEvents, kClassic, kWmi };

struct Provider {
    ProviderKind kind;
    REGHANDLE handle;
    GUID guid;
    const void* callback;  // PETWENABLECALLBACK, ClassicCallback or WmiCallback
    void* context;         // WMI: the control block
    const void* caller;
};

struct EventSession {
    SessionId id;
    EventSessionOptions options;
};

struct MessageSession {
    SessionId id;
    MessageSessionOptions options;
    bool receives;  // a later session on the same provider takes over
};

struct Tracing::State {
    mutable std::mutex mutex;
    std::list<Provider> providers;
    std::vector<EventSession> eventSessions;
    std::vector<MessageSession> messageSessions;
    std::vector<CapturedEvent> events;
    std::vector<CapturedMessage> messages;
    std::uint64_t nextOrder = 1;
    std::uint64_t disabledEvents = 0;
    std::uint64_t disabledMessages = 0;
    REGHANDLE nextHandle = 0x1000;
    SessionId nextSession = 0x21;  // doubles as logger id
    Listener* listener = nullptr;
    std::atomic<LONG> lastWmiStatus = 0;

    static State& Current();

    // Handle of a session's logger as a provider reads it from its enable context.
    [[nodiscard]] static TRACEHANDLE LoggerHandle(const MessageSession& session);

    // The session that a provider's messages go to now; null when none. The caller holds the mutex.
    MessageSession* Receiver(const GUID& control);
    MessageSession* ByLogger(TRACEHANDLE logger);

    // The level and masks that all sessions on a provider make together; empty when there is none.
    std::optional<EventSessionOptions> Merged(const GUID& provider) const;

    // Calls providers' enable callbacks with the state as it is now; without the mutex held.
    void NotifyEvents(const GUID& provider);
    void NotifyMessages(const GUID& control);
    void NotifyMessages(const Provider& provider);

    [[nodiscard]] std::vector<Provider> ProvidersOf(const GUID& guid, bool ofEvents) const;
};

[[nodiscard]] inline bool SameGuid(const GUID& first, const GUID& second)
{
    return memcmp(&first, &second, sizeof(GUID)) == 0;
}

// Classic (WMI) registration: asks a new control block for its data and reports what is wrong with the answer.
void QueryWmiRegistration(const Provider& provider, GUID& control);

// Classic (WMI) registration: enable (minor 4) or disable (minor 5) request.
void SendWmiRequest(const Provider& provider, std::uint8_t minor, const GUID& control, TRACEHANDLE logger);

}  // namespace host::tracing
