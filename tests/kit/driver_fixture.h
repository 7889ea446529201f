// A machine with the driver loaded and its device started, peers that answer as set, and every report recorded.
//
// At its end a fixture takes everything down, expects no violation that the test did not take, and checks that every
// error event was written together with its trace message and decodes by the files that ship.
#pragma once

#include "host/machine.h"
#include "host/tracing/decode.h"
#include "driver/trace/identifiers.h"
#include "tests/kit/driver_harness.h"
#include "tests/kit/texts.h"

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tests {

using namespace layout;  // the contexts of the driver, by their names

// Where the driver runs: the same cases for each.
struct Container {
    const char* name;
    std::string image;
};
inline void PrintTo(const Container& container, std::ostream* out)
{
    *out << container.name;
}
// The sample that belongs to a Notifier's image: zepn_client.sys beside zepn.sys, zepn_client.so beside zepn.so.
[[nodiscard]] inline std::filesystem::path SampleImage(const std::filesystem::path& notifier, const std::string& sample)
{
    return notifier.parent_path() / (sample + notifier.extension().string());
}
// The native driver, and the image of this machine.
[[nodiscard]] std::vector<Container> Containers();

// The files that decode the driver's reports, read once in a process.
[[nodiscard]] const host::tracing::Manifest& TheManifest();
[[nodiscard]] const host::tracing::MessageFormats& TheFormats();

// Registers a suite of cases for all containers.
#define FOR_ALL_CONTAINERS(suite)                                                                                      \
    INSTANTIATE_TEST_SUITE_P(On, suite, testing::ValuesIn(::tests::Containers()), testing::PrintToStringParamName())

struct FixtureOptions {
    host::MachineOptions machine{};
    bool records = true;  // event and trace-message sessions at full level from before the load
    bool boots = true;
};

class DriverFixture {
public:
    explicit DriverFixture(const Container& container, FixtureOptions options = {});
    ~DriverFixture();
    DriverFixture(const DriverFixture&) = delete;
    DriverFixture& operator=(const DriverFixture&) = delete;

    host::Machine machine;
    host::Driver* driver = nullptr;
    ZEP_NOTIFIER_HELPER_INTERFACE helper{};
    ZEP_NOTIFIER_WPCD_INTERFACE wpcd{};

    void Load();
    void Start();
    // Both, with the device added between.
    void Boot();

    // Ends whatever still exists: device, driver. Called by the destructor too.
    void TakeDown();

    // The driver cannot be taken down: a thread hangs inside it. Its machine is destroyed as it is.
    void Abandon() { driver = nullptr; }

    // ---- Peers ----

    // A registered client, for as long as the fixture.
    Peer& Join(const Peer& peer);
    Peer& Join(ULONG number) { return Join(Peer(number)); }
    NTSTATUS Register(Peer& peer, ULONG entryCount = 0, const ZepDataEntry* entries = nullptr);
    NTSTATUS Post(const Peer& peer, ULONG state)
    {
        return Call(Kind::kPost, peer, {.state = {sizeof(ZepState), peer.guid, state, 0}});
    }
    NTSTATUS Subscribe(const Peer& subscriber, const Peer& target, ULONG state)
    {
        return Call(Kind::kSubscribe, subscriber, {.state = {sizeof(ZepState), target.guid, state, 0}});
    }
    // Size and the last word take no part.
    NTSTATUS Unsubscribe(const Peer& subscriber, const Peer& target, ULONG state)
    {
        return Call(Kind::kUnsubscribe, subscriber, {.state = {1, target.guid, state, 7}});
    }
    NTSTATUS Leave(const Peer& peer) { return Call(Kind::kDeregister, peer); }
    NTSTATUS Send(const Peer& sender, const Peer& target, ULONG id, ULONG argument = 0)
    {
        return Call(Kind::kCommand, sender, {.command = {0xBAD, argument, sender.guid, target.guid, id}});
    }
    // Runs queued work; no run may park.
    void Deliver();

    // ---- The crash-dump driver ----

    CrashDumpDriver crashDump;
    NTSTATUS Attach();
    NTSTATUS Detach();

    // ---- Inner state ----

    [[nodiscard]] DriverContext Context();
    [[nodiscard]] std::size_t Count(WDFCOLLECTION collection);
    [[nodiscard]] std::optional<ClientContext> Client(const Peer& peer);
    // Live objects that carry a context of this type.
    [[nodiscard]] std::size_t Alive(const char* contextName);
    // Of the live objects with a state: those that broadcasts keep until unload, one for each answer.
    [[nodiscard]] std::size_t AnswersKept();
    [[nodiscard]] std::size_t Queued();

    // ---- Faults ----

    // The next call (after `skip` others) of a platform function fails with a status.
    void Fail(const char* function, NTSTATUS status, unsigned skip = 0);
    // ... returns NULL. Detail narrows typed-context look-ups to one context type.
    void Lose(const char* function, const char* detail = "", unsigned skip = 0, unsigned count = 1);
    // Clears all faults; every one of them must have been injected.
    void EndFaults();

    // ---- Reports ----

    // Error and warning events since the last call, one line each: "1 Notifier_HelperInit: WdfObjectCreate,
    // 0xC0000001". Handles read as what they are: <driver>, <clients>, <object>.
    [[nodiscard]] std::vector<std::string> TakeReports();
    // Every record since the last call, in order: "E44 DriverEntry", "M10 DriverEntry".
    [[nodiscard]] std::vector<std::string> TakeRecords();

private:
    NTSTATUS Call(Kind kind, const Peer& peer, const peers::Record& record = {});
    [[nodiscard]] std::string HandleName(std::uint64_t handle);
    void CheckReports();

    const Container container_;
    const FixtureOptions options_;
    const host::tracing::Manifest& manifest_;
    const host::tracing::MessageFormats& formats_;
    std::size_t eventsSeen_ = 0;
    std::uint64_t recordsSeen_ = 0;
    unsigned faultsArmed_ = 0;
    std::deque<Peer> joined_;
};

// The base of behaviour tests: one container each.
class OnContainer : public testing::TestWithParam<Container> {};

// ... with the driver loaded and started.
class OnDriver : public OnContainer, public DriverFixture {
protected:
    OnDriver() : DriverFixture(GetParam()) {}
};

using Lines = std::vector<std::string>;

}  // namespace tests
