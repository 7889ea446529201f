// The samples as images: a run beside the Notifier, and the probe's answers.
#include "host/machine.h"
#include "tests/kit/driver_fixture.h"
#include "tests/play/played.h"
#include "tools/image_check/checks.h"

#include <algorithm>
#include <sstream>

namespace {

using tests::Container;
using tests::CountMatches;
using tests::OnContainer;
using tests::SampleImage;

class Samples : public OnContainer {};

void End(host::Driver& driver)
{
    driver.SurpriseRemoveDevice();
    EXPECT_FALSE(driver.RemoveDevice().parked);
    driver.Unload();
}

void ExpectNoViolation(host::Machine& machine)
{
    for (const auto& violation : machine.violations().Take()) {
        ADD_FAILURE() << violation.FullText();
    }
}

TEST_P(Samples, RunBesideTheNotifierWithoutAViolation)
{
    const auto [isGood, text] =
        tests::PlayWith({.image = GetParam().image}, play::ReadScenario(ZEPN_ROOT "/scenarios/samples.json"));
    EXPECT_TRUE(isGood) << text;
    // Registered three times each (arrival, refused removal, return), each time deregistered before the Notifier's own
    // end.
    EXPECT_EQ(CountMatches(text, "client 1 +registers: 0x00000000"), 3u);
    EXPECT_EQ(CountMatches(text, "client 2 +registers: 0x00000000"), 3u);
    EXPECT_EQ(CountMatches(text, "client [12] +deregisters: 0x00000000"), 6u);
    EXPECT_EQ(CountMatches(text, "crash dump +attaches: 0x00000000"), 3u);
    EXPECT_EQ(CountMatches(text, "crash dump +detaches: 0x00000000"), 3u);
    EXPECT_EQ(CountMatches(text, "finds \"client 1\""), 2u);  // when it came, and after the refusal
    EXPECT_EQ(CountMatches(text, "\"client 2\" was removed"), 1u);
    EXPECT_EQ(CountMatches(text, "client 2 +gets command 1"), 3u);
    EXPECT_EQ(CountMatches(text, "crash dump +dump 2 (starts|stops)"), 6u);
    EXPECT_EQ(CountMatches(text, "client 2 +has recorded a dump: 0x00000000"), 3u);
    EXPECT_EQ(CountMatches(text, "client [12] +posts state 4: 0x00000000"),
              2u);  // posted: an answer might outlive them
    EXPECT_EQ(CountMatches(text, "is notified: client [12] is in state 4"), 2u);
}

// A peer's device is removed while its arrival notification or its work is still queued: nothing may run afterwards.
TEST_P(Samples, ClientThatGoesAtOnceLeavesNothing)
{
    host::Machine machine;
    const auto client = SampleImage(GetParam().image, "zepn_client");
    host::Driver& notifier = machine.Boot(GetParam().image, "zepn");
    for (unsigned runs = 0; runs < 6; ++runs) {
        host::Driver& driver = machine.Boot(client, "client");
        for (unsigned run = 0; run < runs; ++run) {
            machine.RunOneWorkItem();
        }
        End(driver);
        EXPECT_TRUE(machine.RunWorkItems().parked.empty());
    }
    End(notifier);
    ExpectNoViolation(machine);
    EXPECT_TRUE(machine.PoolInUse().empty());
}

// It cannot deregister, and does not mind.
TEST_P(Samples, ClientThatIsUnloadedWhileRegisteredIsNamedAtOnceAndWhenItIsCalled)
{
#if defined(ZEPN_SANITIZED)
    GTEST_SKIP() << "native drivers stay mapped, for the sanitizer's reports";
#endif
    const auto end = [] {
        host::Machine machine;
        (void)machine.Boot(GetParam().image, "zepn");
        host::Driver& client = machine.Boot(SampleImage(GetParam().image, "zepn_client"), "client");
        (void)machine.RunWorkItems();
        machine.faults().Add(
            {.function = "WdfWaitLockAcquire", .caller = "Notifier_HelperClientDeinit", .status = STATUS_UNSUCCESSFUL});
        client.SurpriseRemoveDevice();
        (void)client.RemoveDevice();
        (void)client.Unload();
        machine.NotifyPowerState(PO_CB_SYSTEM_STATE_LOCK, 0);
    };
    EXPECT_EXIT(end(), testing::ExitedWithCode(4),
                "memory fault at zepn_client[.]s[oys]+!OnAppsState, which is unloaded .*\n"
                "  by zepn[.].*\\(apps_state[.]cpp:[0-9]+\\) \u2192 zepn_client[.].*!OnAppsState "
                "\\(client[.]cpp:[0-9]+\\), which is unloaded\n"
                "before that: registration at unload: others still hold pointers into "
                "client, .*\\(ZEP_NOTIFIER_CLIENT_CONTEXT\\) of zepn holds .*OnAppsState.*"
                "\\(ZEP_NOTIFIER_STATE_NOTIFICATION_CONTEXT\\) of zepn holds .*OnWatchedState.*\n"
                "  registered by zepn_client[.].*!ClientConnect \\(client[.]cpp:[0-9]+\\)\n");
}

// Arrivals, work and removals on real threads at once: the Notifier comes and goes under clients that follow it.
TEST_P(Samples, FollowTheNotifierOnRealThreads)
{
    host::MachineOptions options;
    options.workItems = host::WorkItems::kThreads;
    host::Machine machine(options);
    // Not the crash-dump driver: its attach shows for a moment without callbacks, and an announcement may meet it then.
    std::vector<host::Driver*> peers;
    for (const std::uint32_t number : {1u, 2u}) {
        const std::string service = "client_" + std::to_string(number);
        machine.SetRegistryValue(service, "ClientNumber", number);
        machine.SetRegistryValue(service, "WatchedNumber", 3 - number);
        peers.push_back(&machine.Boot(SampleImage(GetParam().image, "zepn_client"), service));
    }
    for (unsigned round = 0; round < 20; ++round) {
        host::Driver& notifier = machine.Boot(GetParam().image, "zepn");
        if (round % 2 == 0) {
            machine.WaitForWorkItems();
        }
        notifier.SurpriseRemoveDevice();
        machine.WaitForWorkItems();
        EXPECT_FALSE(notifier.RemoveDevice().parked);
        notifier.Unload();
    }
    for (host::Driver* peer : peers) {
        End(*peer);
    }
    ExpectNoViolation(machine);
}

// An open target holds the device: the removal waits for the client, and the client's own failing steps close it.
TEST_P(Samples, FailedJoinLetsTheNotifierGo)
{
    for (const char* function : {"WdfIoTargetOpen", "WdfIoTargetQueryForInterface", "IoGetDeviceInterfaces"}) {
        SCOPED_TRACE(function);
        host::Machine machine;
        host::Driver& notifier = machine.Boot(GetParam().image, "zepn");
        machine.faults().Add({.function = function, .status = STATUS_INSUFFICIENT_RESOURCES});
        host::Driver& client = machine.Boot(SampleImage(GetParam().image, "zepn_client"), "client");
        machine.RunWorkItems();
        EXPECT_EQ(machine.faults().InjectedCount(), 1u);
        machine.faults().Clear();
        notifier.SurpriseRemoveDevice();
        EXPECT_FALSE(notifier.RemoveDevice().parked);  // throws while a handle is open
        notifier.Unload();
        machine.RunWorkItems();

        // The next Notifier finds a client that is none the worse.
        host::Driver& next = machine.Boot(GetParam().image, "zepn");
        machine.RunWorkItems();
        const std::vector<std::string> lines = machine.DebugOutput();
        EXPECT_EQ(std::ranges::count(lines, "client 1: registers: 0x00000000\n"), 1);
        EXPECT_THROW((void)next.RemoveDevice(), host::HostError);
        End(client);
        End(next);
        machine.RunWorkItems();
        ExpectNoViolation(machine);
    }
}

// In the form of Windows' own tool: "    Device.CallbackOrder    REG_DWORD    0x12345678".
std::string ProbeAnswers(const host::Machine& machine)
{
    std::ostringstream text;
    for (const host::RegistryNumber& number : machine.RegistryNumbers("zepn_probe")) {
        text << "    " << number.name << "    REG_DWORD    0x" << std::hex << number.value << "\n";
    }
    return text.str();
}

TEST_P(Samples, ProbeAnswersAsWritten)
{
    constexpr GUID kProbe = {0x2E0C3C5B, 0x6C0A, 0x4F0E, {0x8C, 0x7B, 0x6D, 0x1B, 0x0A, 0x54, 0xB9, 0xF3}};
    // As on a system: runs of work items may overlap, and delays last.
    host::Machine machine({.workItems = host::WorkItems::kThreads, .realTime = true});
    machine.tracing().OpenEventSession({kProbe, 4});
    host::Driver& probe = machine.Boot(SampleImage(GetParam().image, "zepn_probe"), "zepn_probe");
    EXPECT_EQ(probe.QueryRemoveDevice(), STATUS_SUCCESS);
    EXPECT_FALSE(probe.RemoveDevice().parked);
    probe.Unload();

    const std::string answers = ProbeAnswers(machine);
    EXPECT_EQ(answers, tests::ReadAll(ZEPN_ROOT "/samples/probe/answers.txt"));
    EXPECT_EQ(machine.tracing().Events().size(), CountMatches(answers, "REG_DWORD"));
    ExpectNoViolation(machine);
}

TEST(SampleImages, AreRight)
{
    for (const char* machine : {"arm64", "x64"}) {
        for (const char* sample : {"zepn_client", "zepn_crashdump", "zepn_probe"}) {
            const std::string image = std::string(ZEPN_ROOT "/out/") + machine + "/" + sample + ".sys";
            for (const auto& finding : image_check::CheckStructure(image_check::PeReader::FromFile(image),
                                                                   image_check::ReportResources::kNotNeeded)) {
                ADD_FAILURE() << image << ": " << finding.check << ": " << finding.text;
            }
        }
    }
}

FOR_ALL_CONTAINERS(Samples);

}  // namespace
