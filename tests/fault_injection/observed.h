// A sequence comparison on the real driver: what the host sees of each operation, in the words of the expectation.
#pragma once

#include "host/machine.h"
#include "host/tracing/decode.h"
#include "tests/fault_injection/sequence.h"
#include "tests/kit/driver_fixture.h"

#include <functional>
#include <map>
#include <set>
#include <string_view>
#include <utility>

namespace fault_injection {

// What a platform function can do to the driver.
enum class Kind {
    kFallible,    // its failures are the sweep's; the expectation foresees each of its calls
    kTracing,     // it can fail, and nothing but the records may change
    kCannotFail,  // no result, or one without failure
};
[[nodiscard]] std::optional<Kind> KindOf(std::string_view function);

using Site = std::pair<std::uint32_t, std::uint16_t>;  // first number of the message GUID, message number

struct Options {
    std::optional<Fault> fault;
    std::uint64_t hideAt = 0;  // the driver object is gone from this platform call (from 1) to the next; 0: never
    host::TraceRoutes routes = host::TraceRoutes::kClassic;
    bool keepsRecords = false;
    std::function<void(std::uint64_t number, const host::ObservedCall&)> onCall;
};

class ObservedRun final : host::tracing::Tracing::Listener {
public:
    ObservedRun(const tests::Container& container, Options options);
    ~ObservedRun() override;
    ObservedRun(const ObservedRun&) = delete;
    ObservedRun& operator=(const ObservedRun&) = delete;

    Step Run(const Op& op);
    [[nodiscard]] Lines Alive();

    [[nodiscard]] unsigned StruckCount() const;
    [[nodiscard]] const std::set<Site>& sites() const { return sites_; }
    [[nodiscard]] std::uint64_t calls() const { return callNumber_; }
    [[nodiscard]] host::Machine& machine() { return machine_; }
    // Every error event was followed by its own message, and every record decodes.
    [[nodiscard]] const Lines& badRecords() const { return badRecords_; }
    // All events ("E...") and trace messages ("M...") of the sequence in order, without the handles; only if they are kept.
    [[nodiscard]] const Lines& records() const { return records_; }
    // Leaves word of the reports so far, for the test that asks for all of them.
    void NoteReportsSeen();

private:
    void OnEvent(const host::tracing::CapturedEvent& event) override;
    void OnMessage(const host::tracing::CapturedMessage& message) override;
    void OnCall(const host::ObservedCall& call);
    std::optional<NTSTATUS> Act(const Op& op);
    std::optional<NTSTATUS> ActOnInterfaces(const Op& op);
    NTSTATUS Describe(const Op& op);
    void Deliver();
    [[nodiscard]] std::string NameOf(std::uint64_t handle);
    [[nodiscard]] std::string Describe(const host::framework::ObjectView& view);

    const tests::Container container_;
    Options options_;
    host::Machine machine_;
    host::Driver* driver_ = nullptr;
    ZEP_NOTIFIER_HELPER_INTERFACE helper_{};
    ZEP_NOTIFIER_WPCD_INTERFACE wpcd_{};
    host::FileId file_ = 0;
    std::uint64_t callNumber_ = 0;
    long driverReferences_ = 0;
    std::optional<host::tracing::DecodedEvent> pending_;  // an error event whose message has not come yet
    std::set<Site> sites_;
    Lines badRecords_;
    Lines records_;
    Step step_;
};

}  // namespace fault_injection
