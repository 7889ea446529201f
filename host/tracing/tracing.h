// The tracing runtime: event sessions and trace-message sessions, what they captured, and its decoding.
//
// Sessions can be opened before a driver is loaded (registration then calls the enable callback before it returns) and
// at any time. Captured records are kept raw, exactly the bytes that a session buffer would hold; decoding is done from
// the manifest and the message-format files alone.
#pragma once

#include <ntddk.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace host::tracing {

// An event as a session recorded it.
struct CapturedEvent {
    std::uint64_t order;  // place among all records of the machine, events and messages alike
    GUID provider;
    EVENT_DESCRIPTOR descriptor;
    std::vector<std::byte> payload;  // concatenated data descriptors
    std::string thread;
    KIRQL irql;
    unsigned session;
};

// A trace message as a session recorded it.
struct CapturedMessage {
    std::uint64_t order;
    GUID messageGuid;
    std::uint16_t number;
    std::vector<std::byte> payload;            // concatenated arguments
    std::vector<std::uint32_t> argumentSizes;  // bytes of each (address, length) pair
    std::string thread;
    KIRQL irql;
    unsigned session;
};

struct EventSessionOptions {
    GUID provider;
    std::uint8_t level;          // 0 means every level
    std::uint64_t matchAny = 0;  // 0 means no keyword filter
    std::uint64_t matchAll = 0;
};

struct MessageSessionOptions {
    GUID control;
    std::uint8_t level;
    std::uint32_t flags;
};

using SessionId = unsigned;

class Tracing {
public:
    Tracing();
    ~Tracing();

    SessionId OpenEventSession(const EventSessionOptions& options);
    SessionId OpenMessageSession(const MessageSessionOptions& options);

    // Level, masks and flags of an open session can be changed while it runs.
    void ChangeEventSession(SessionId session, const EventSessionOptions& options);
    void ChangeMessageSession(SessionId session, const MessageSessionOptions& options);
    void Close(SessionId session);

    [[nodiscard]] std::vector<CapturedEvent> Events() const;
    [[nodiscard]] std::vector<CapturedMessage> Messages() const;
    void ClearCaptured();

    // Writes that no session took: a driver that tests its enable bits makes none.
    [[nodiscard]] std::uint64_t DisabledEvents() const;
    [[nodiscard]] std::uint64_t DisabledMessages() const;

    // Registrations alive now.
    [[nodiscard]] std::size_t EventProviders() const;
    [[nodiscard]] std::size_t MessageProviders() const;

    // What a provider of the classic (WMI) registration answered to the last enable or disable request.
    [[nodiscard]] LONG LastWmiStatus() const;

    // Calls an enable callback directly, to show a provider codes and contexts that the system may send.
    void SendEventControl(const GUID& provider, std::uint32_t code, std::uint8_t level, std::uint64_t matchAny,
                          std::uint64_t matchAll, bool nullContext = false);
    void SendMessageControl(const GUID& control, std::uint8_t code, bool nullContext = false);

    // Observer of every captured record in order, for live display; empty by default.
    struct Listener {
        virtual ~Listener() = default;
        virtual void OnEvent(const CapturedEvent& event) = 0;
        virtual void OnMessage(const CapturedMessage& message) = 0;
    };
    void SetListener(Listener* listener);

    // Registrations whose callback lies in an image that is about to be unmapped: each is reported and dropped.
    void ReportLeaksOf(const void* imageBase, std::size_t imageSizeBytes);

    struct State;

private:
    std::unique_ptr<State> state_;
};

}  // namespace host::tracing
