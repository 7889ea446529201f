// A sequence on the driver: what the host sees of each operation, in the words of the reference model.
#pragma once

#include "host/machine.h"
#include "host/tracing/decode.h"
#include "tests/fault_injection/alive.h"
#include "tests/kit/driver_fixture.h"

#include <functional>
#include <map>
#include <set>
#include <string_view>
#include <utility>

namespace fault_injection {

// What a platform function can do to the driver.
enum class FunctionKind {
    kFallible,    // every call of it is made to fail; the reference model predicts each
    kTracing,     // it can fail, and nothing but the records may change
    kCannotFail,  // no result, or one without failure
};
[[nodiscard]] std::optional<FunctionKind> KindOf(std::string_view function);

using Site = std::pair<std::uint32_t, std::uint16_t>;  // first number of the message GUID, message number

struct Options {
    std::optional<Fault> fault;
    std::uint64_t hideAt = 0;  // the driver object is gone from this platform call (from 1) to the next; 0: never
    host::TraceRoutes routes = host::TraceRoutes::kClassic;
    bool keepsRecords = false;
    std::function<void(std::uint64_t number, const host::ObservedCall&, FunctionKind)> onCall;
};

class ObservedRun final : host::tracing::Tracing::Listener {
public:
    ObservedRun(const tests::Container& container, Options options);
    ~ObservedRun() override;
    ObservedRun(const ObservedRun&) = delete;
    ObservedRun& operator=(const ObservedRun&) = delete;

    // Runs an operation whose outcome is known. None after Watch.
    void RunUnwatched(const Operation& operation);
    // Arms the fault and watches from now on, after so many platform calls, and so many of the function that fails.
    void Watch(std::uint64_t calls, unsigned callsOfFunction);

    // Without reading its reports when nobody compares them: decoding takes a good part of a run's time.
    Step Run(const Operation& operation, bool readsReports = true);
    [[nodiscard]] fault_injection::Alive Alive();

    [[nodiscard]] unsigned InjectedCount() const;
    [[nodiscard]] const std::set<Site>& sites() const { return sites_; }
    [[nodiscard]] std::uint64_t calls() const { return callNumber_; }
    [[nodiscard]] host::Machine& machine() { return harness_.machine; }
    // Every error event was followed by its own message, and every record decodes.
    [[nodiscard]] const Lines& badRecords() const { return badRecords_; }
    // All events ("E...") and trace messages ("M...") of the sequence in order, without the handles; only if they are
    // kept.
    [[nodiscard]] const Lines& records() const { return records_; }
    // Leaves word of the reports so far, for the test that asks for all of them.
    void NoteReportsSeen();

private:
    void OnEvent(const host::tracing::CapturedEvent& event) override;
    void OnMessage(const host::tracing::CapturedMessage& message) override;
    void OnCall(const host::ObservedCall& call);
    std::optional<NTSTATUS> Do(const Operation& operation);
    void Deliver();
    [[nodiscard]] std::string NameOf(std::uint64_t handle);
    [[nodiscard]] ObjectRecord RecordOf(const host::framework::ObjectSnapshot& object);
    [[nodiscard]] ObjectAlive Describe(const host::framework::ObjectSnapshot& object,
                                       const std::vector<host::framework::ObjectSnapshot>& all);

    Options options_;
    NTSTATUS dumpAnswer_ = STATUS_SUCCESS;  // of the crash-dump driver, to the operation under way
    tests::DriverHarness harness_;
    std::uint64_t callNumber_ = 0;
    long driverReferences_ = 0;
    std::optional<host::tracing::DecodedEvent> pending_;  // an error event whose message has not come yet
    std::set<Site> sites_;
    Lines badRecords_;
    Lines records_;
    Step step_;
    bool readsReports_ = true;  // of the operation under way
};

}  // namespace fault_injection
