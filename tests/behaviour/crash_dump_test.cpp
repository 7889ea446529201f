// The crash-dump bridge: attaching, announcements and withdrawals, the descriptors that a crash-dump driver asks for, and
// the dump calls that pass through to it.
#include "tests/kit/driver_fixture.h"

namespace tests {
namespace {

class CrashDump : public OnContainer {};
FOR_ALL_CONTAINERS(CrashDump);

TEST_P(CrashDump, AttachesOnceAndDetachesOnce)
{
    DriverFixture fixture(GetParam());
    EXPECT_EQ(fixture.Detach(), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(fixture.wpcd.Notifier_WpcdClientInit(nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(fixture.Attach(), STATUS_SUCCESS);
    const WpcdClientRegistration other{};
    EXPECT_EQ(fixture.wpcd.Notifier_WpcdClientInit(&other), STATUS_OBJECT_NAME_EXISTS);
    EXPECT_EQ(fixture.TakeReports(),
              (Lines{"2 Notifier_WpcdClientDeInit: CDI client is not already registered?!, 0xC0000034",
                     "2 Notifier_WpcdClientInit: ZepClientAdd or ZepClientRemove is NULL!, 0xC000000D",
                     "2 Notifier_WpcdClientInit: WPCD client already registered?!, 0x40000000"}));
    using Callbacks = std::array<void*, 7>;
    const auto stored = [&] {
        return *fixture.machine.inspect().Context<Callbacks>(fixture.Context().wpcdClient, kWpcdContextName);
    };
    EXPECT_EQ(memcmp(stored().data(), &fixture.crashDump.registration.ZepClientAdd, 56), 0) << "the first callbacks stay";
    EXPECT_EQ(fixture.Queued(), 0u);

    EXPECT_EQ(fixture.Detach(), STATUS_SUCCESS);
    EXPECT_EQ(fixture.Context().wpcdClient, nullptr);
    EXPECT_EQ(fixture.Alive(kWpcdContextName), 0u);
    EXPECT_EQ(fixture.wpcd.Notifier_WpcdClientInit(&other), STATUS_SUCCESS) << "null callbacks are accepted";
    EXPECT_EQ(stored(), Callbacks{});
}

TEST_P(CrashDump, TextTailsKeepWhatAnEarlierDescriptorLeft)
{
    DriverFixture fixture(GetParam());
    ASSERT_EQ(fixture.Attach(), STATUS_SUCCESS);
    Peer first(1);
    Peer second(2);
    ASSERT_EQ(fixture.helper.Notifier_HelperInit(&first.guid, "a long name", "d", &first.callbacks, nullptr, 0, nullptr),
              STATUS_SUCCESS);
    ASSERT_EQ(fixture.helper.Notifier_HelperInit(&second.guid, "x", "d", &second.callbacks, nullptr, 0, nullptr),
              STATUS_SUCCESS);
    ASSERT_EQ(fixture.Post(first, 1), STATUS_SUCCESS);
    ASSERT_EQ(fixture.Post(second, 1), STATUS_SUCCESS);
    fixture.Deliver();
    ASSERT_EQ(fixture.crashDump.added.size(), 2u);
    EXPECT_EQ(std::string(fixture.crashDump.added[1].SubsystemName, 11), std::string("x\0long name", 11));
}

TEST_P(CrashDump, RemovalOfAnAnnouncedClientQueuesOneCopyAndOneRun)
{
    DriverFixture fixture(GetParam());
    ASSERT_EQ(fixture.Attach(), STATUS_SUCCESS);
    Peer& leaving = fixture.Join(1);
    ASSERT_EQ(fixture.Post(leaving, 6), STATUS_SUCCESS);
    fixture.Deliver();
    const ClientContext before = *fixture.Client(leaving);
    ASSERT_EQ(before.addedToWpcd, 1u);
    ASSERT_EQ(fixture.Leave(leaving), STATUS_SUCCESS);
    EXPECT_EQ(fixture.Queued(), 1u);
    const auto copies = fixture.machine.inspect().Find(fixture.Context().removeQueue)->items;
    ASSERT_EQ(copies.size(), 1u);
    EXPECT_EQ(fixture.machine.inspect().Find(copies[0])->parent, fixture.driver->Handle());
    const auto copy = fixture.machine.inspect().Context<ClientContext>(copies[0], kClientContextName);
    EXPECT_EQ(memcmp(&*copy, &before, sizeof(before)), 0);

    // Anew it starts unannounced.
    ASSERT_EQ(fixture.Register(leaving), STATUS_SUCCESS);
    EXPECT_EQ(fixture.Client(leaving)->addedToWpcd, 0u);
    fixture.Deliver();
    EXPECT_EQ(fixture.Alive(kClientContextName), 1u) << "the copy was withdrawn and deleted";
}

TEST_P(CrashDump, DescriptorsAreCountedAndFilledAndCountAsAnnounced)
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

    Peer& withState = fixture.Join(1);
    Peer& without = fixture.Join(2);
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

TEST_P(CrashDump, DumpCallsPassThroughUnchangedAtAnyLevel)
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

}  // namespace
}  // namespace tests
