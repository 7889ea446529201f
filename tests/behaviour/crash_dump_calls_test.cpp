// The crash-dump bridge: the descriptors that a crash-dump driver asks for, and the dump calls that pass through to it.
#include "tests/kit/driver_fixture.h"

namespace tests {
namespace {

class CrashDumpCalls : public OnContainer {};
FOR_ALL_CONTAINERS(CrashDumpCalls);

TEST_P(CrashDumpCalls, DescriptorsAreCountedAndFilledAndCountAsAnnounced)
{
    DriverFixture fixture(GetParam());
    ASSERT_EQ(fixture.Attach(), STATUS_SUCCESS);
    ULONG count = 77;
    std::vector<ZEP_SUBSYSTEM_DESCRIPTOR> array(3);
    memset(array.data(), 0xEE, array.size() * sizeof(array[0]));
    const auto untouched = array;
    const auto isUntouched = [&](std::size_t index) {
        return memcmp(&array[index], &untouched[index], sizeof(array[0])) == 0;
    };
    EXPECT_EQ(fixture.wpcd.Notifier_WpcdGetNumSubsystemDescriptors(&count), STATUS_SUCCESS);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(fixture.wpcd.Notifier_WpcdGetAllSubsystemDescriptors(array.data(), &count), STATUS_SUCCESS);
    EXPECT_TRUE(isUntouched(0));

    Peer withState(1);
    Peer without(2);
    ASSERT_EQ(fixture.Register(withState), STATUS_SUCCESS);
    ASSERT_EQ(fixture.Register(without), STATUS_SUCCESS);
    ASSERT_EQ(fixture.Post(withState, 5), STATUS_SUCCESS);
    EXPECT_EQ(fixture.wpcd.Notifier_WpcdGetNumSubsystemDescriptors(&count), STATUS_SUCCESS);
    EXPECT_EQ(count, 2u);

    count = 1;
    EXPECT_EQ(fixture.wpcd.Notifier_WpcdGetAllSubsystemDescriptors(array.data(), &count), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(count, 2u);
    EXPECT_TRUE(isUntouched(0));
    EXPECT_EQ(fixture.TakeReports(),
              (Lines{"11 Notifier_WpcdGetAllSubsystemDescriptors: 1, 2, 0xC0000023"}));
    EXPECT_EQ(fixture.Client(withState)->addedToWpcd, 0u);

    count = 3;
    EXPECT_EQ(fixture.wpcd.Notifier_WpcdGetAllSubsystemDescriptors(array.data(), &count), STATUS_SUCCESS);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(array[0].InterfaceGUID.Data1, 1u);
    EXPECT_EQ(array[1].InterfaceGUID.Data1, 2u);
    EXPECT_EQ(array[0].SubsystemName[5], '\xEE') << "bytes after the text are not written";
    unsigned char padding[7];
    memcpy(padding, array[0].Padding, sizeof(padding));
    EXPECT_EQ(padding[0] & padding[6], 0xEE);
    EXPECT_TRUE(isUntouched(2));
    EXPECT_EQ(fixture.Client(withState)->addedToWpcd, 1u);
    EXPECT_EQ(fixture.Client(withState)->wpcdRefreshPending, 0u);
    EXPECT_EQ(fixture.Client(without)->wpcdRefreshPending, 1u);
}

TEST_P(CrashDumpCalls, DescriptorArgumentsAreCheckedInOrder)
{
    DriverFixture fixture(GetParam());
    ASSERT_EQ(fixture.Attach(), STATUS_SUCCESS);
    const auto& wpcd = fixture.wpcd;
    const std::string kCount = "Notifier_WpcdGetNumSubsystemDescriptors: ";
    const std::string kAll = "Notifier_WpcdGetAllSubsystemDescriptors: ";
    EXPECT_EQ(wpcd.Notifier_WpcdGetNumSubsystemDescriptors(nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(wpcd.Notifier_WpcdGetAllSubsystemDescriptors(nullptr, nullptr), STATUS_INVALID_PARAMETER);
    std::vector<ZEP_SUBSYSTEM_DESCRIPTOR> array(2);
    EXPECT_EQ(wpcd.Notifier_WpcdGetAllSubsystemDescriptors(array.data(), nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(fixture.TakeReports(), (Lines{"2 " + kCount + "NumberDescriptors is NULL, 0xC000000D",
                                            "2 " + kAll + "Descriptors is NULL?!, 0xC000000D",
                                            "2 " + kAll + "NumberDescriptors is NULL?!, 0xC000000D"}));
}

// The five dump calls: name, the call with given first arguments, the values passed, the row's name in reports.
struct DumpCall {
    const char* function;
    const char* callback;
    std::function<NTSTATUS(DriverFixture&, void* handle)> call;
    CrashDumpDriver::DumpCall recorded;  // first argument filled in by the test
    std::vector<std::uint32_t> traced;
};

std::uint32_t g_dumpRecord = 0xD0D0;
std::uint32_t g_dumpData = 0xDA7A;

const std::vector<DumpCall>& DumpCalls()
{
    constexpr ULONGLONG kWide = 0x1122334455667788;
    static const std::vector<DumpCall> kCalls = {
        {"Notifier_HelperStartDump", "ZepDumpStart",
         [](DriverFixture& w, void* h) { return w.helper.Notifier_HelperStartDump(h, kWide, 2); },
         {"start", {0, kWide, 2}}, {0xD0D0}},
        {"Notifier_HelperAddDumpData", "ZepDumpAddDumpData",
         [](DriverFixture& w, void* h) { return w.helper.Notifier_HelperAddDumpData(h, &g_dumpData, kWide, 0xFFFFFFFF, 3); },
         {"data", {0, Number(&g_dumpData), kWide, 0xFFFFFFFF, 3}}, {0xD0D0, 0xDA7A}},
        {"Notifier_HelperAddDumpData", "ZepDumpAddDumpData",
         [](DriverFixture& w, void* h) { return w.helper.Notifier_HelperAddDumpData(h, nullptr, kWide, 2, 3); },
         {"data", {0, 0, kWide, 2, 3}}, {0xD0D0, 0}},
        {"Notifier_HelperStopDump", "ZepDumpStop",
         [](DriverFixture& w, void* h) { return w.helper.Notifier_HelperStopDump(h, kWide); }, {"stop", {0, kWide}}, {0xD0D0}},
        {"Notifier_HelperDumpQueryParam", "ZepDumpQueryParam",
         [](DriverFixture& w, void* h) { return w.helper.Notifier_HelperDumpQueryParam(h, 0x80000001, kWide, 3); },
         {"query", {0, 0x80000001, kWide, 3}}, {0xD0D0}},
        {"Notifier_HelperDumpAddTriageData", "ZepDumpAddTriageData",
         [](DriverFixture& w, void* h) { return w.helper.Notifier_HelperDumpAddTriageData(h, kWide, 0xFFFFFFFE); },
         {"triage", {0, kWide, 0xFFFFFFFE}}, {0xD0D0, 0xFFFFFFFE}},
    };
    return kCalls;
}

TEST_P(CrashDumpCalls, DumpCallsPassThroughUnchangedAtAnyLevel)
{
    for (const DumpCall& dump : DumpCalls()) {
        SCOPED_TRACE(dump.function);
        DriverFixture fixture(GetParam());
        ASSERT_EQ(fixture.Attach(), STATUS_SUCCESS);
        (void)fixture.TakeRecords();
        fixture.machine.tracing().ClearCaptured();
        const host::ScopedIrql irql(DISPATCH_LEVEL);
        EXPECT_EQ(dump.call(fixture, &g_dumpRecord), STATUS_SUCCESS);
        CrashDumpDriver::DumpCall expected = dump.recorded;
        expected.arguments[0] = Number(&g_dumpRecord);
        EXPECT_EQ(fixture.crashDump.calls, std::vector<CrashDumpDriver::DumpCall>{expected});

        // Entry message, entry event, the look-up's two, the result with its values, the exit.
        Lines functions = fixture.TakeRecords();
        for (std::string& function : functions) {
            function.erase(0, function.find(' ') + 1);
        }
        EXPECT_EQ(functions, (Lines{dump.function, dump.function, "GetContext", "GetContext", dump.function,
                                    dump.function}));
        const auto messages = fixture.machine.tracing().Messages();
        ASSERT_EQ(messages.size(), 4u);
        for (const auto& message : messages) {
            EXPECT_EQ(memcmp(&message.messageGuid, &kMessageSetGuids[1], sizeof(GUID)), 0);
        }
        std::vector<std::uint32_t> traced(messages[2].payload.size() / 4);
        memcpy(traced.data(), messages[2].payload.data(), messages[2].payload.size());
        EXPECT_EQ(traced, dump.traced);
        EXPECT_EQ(fixture.machine.tracing().Events().size(), 2u);
    }
}

TEST_P(CrashDumpCalls, DumpAnswersAreJudgedByTheirSignAndReturned)
{
    for (const DumpCall& dump : DumpCalls()) {
        SCOPED_TRACE(dump.function);
        DriverFixture fixture(GetParam());
        ASSERT_EQ(fixture.Attach(), STATUS_SUCCESS);
        for (const NTSTATUS answer : {STATUS_PENDING, STATUS_OBJECT_NAME_EXISTS}) {
            fixture.crashDump.answer = answer;
            EXPECT_EQ(dump.call(fixture, &g_dumpRecord), answer);
            EXPECT_EQ(fixture.TakeReports(), Lines{});
        }
        for (const std::uint32_t answer : {0xC0000001u, 0x80000005u}) {
            fixture.crashDump.answer = static_cast<NTSTATUS>(answer);
            EXPECT_EQ(dump.call(fixture, &g_dumpRecord), static_cast<NTSTATUS>(answer));
            char status[16];
            std::snprintf(status, sizeof(status), "0x%08X", answer);
            EXPECT_EQ(fixture.TakeReports(), (Lines{std::string("1 pWpcdClientContext->") + dump.callback +
                                                    ": Failed with an error code., " + status}));
        }
    }
}

}  // namespace
}  // namespace tests
