// The crash-dump bridge: attaching, announcements and withdrawals, the descriptors that a crash-dump driver asks for,
// and the dump calls that pass through to it.
#include "tests/kit/driver_fixture.h"

namespace tests {
namespace {

class CrashDump : public OnDriver {};
FOR_ALL_CONTAINERS(CrashDump);

TEST_P(CrashDump, KeepsTheCallbacksOfTheFirstToAttach)
{
    EXPECT_EQ(Attach(), STATUS_SUCCESS);
    const WpcdClientRegistration other{};
    EXPECT_EQ(wpcd.Notifier_WpcdClientInit(&other), STATUS_OBJECT_NAME_EXISTS);
    using Callbacks = std::array<void*, 7>;
    const auto stored = [&] {
        return *machine.inspect().Context<Callbacks>(Context().wpcdClient, kWpcdContextName);
    };
    EXPECT_EQ(memcmp(stored().data(), &crashDump.registration.ZepClientAdd, 56), 0) << "the first callbacks stay";
    EXPECT_EQ(Detach(), STATUS_SUCCESS);
    EXPECT_EQ(wpcd.Notifier_WpcdClientInit(&other), STATUS_SUCCESS) << "null callbacks are accepted";
    EXPECT_EQ(stored(), Callbacks{});
}

TEST_P(CrashDump, TextTailsKeepWhatAnEarlierDescriptorLeft)
{
    ASSERT_EQ(Attach(), STATUS_SUCCESS);
    Peer first(1);
    Peer second(2);
    first.name = "a long name";
    second.name = "x";
    ASSERT_EQ(Register(first), STATUS_SUCCESS);
    ASSERT_EQ(Register(second), STATUS_SUCCESS);
    ASSERT_EQ(Post(first, 1), STATUS_SUCCESS);
    ASSERT_EQ(Post(second, 1), STATUS_SUCCESS);
    Deliver();
    ASSERT_EQ(crashDump.added.size(), 2u);
    EXPECT_EQ(std::string(crashDump.added[1].SubsystemName, 11), std::string("x\0long name", 11));
}

TEST_P(CrashDump, RemovalOfAnAnnouncedClientQueuesACopyOfAllOfIt)
{
    ASSERT_EQ(Attach(), STATUS_SUCCESS);
    Peer& leaving = Join(1);
    ASSERT_EQ(Post(leaving, 6), STATUS_SUCCESS);
    Deliver();
    const ClientContext before = *Client(leaving);
    ASSERT_EQ(Leave(leaving), STATUS_SUCCESS);
    const auto copies = machine.inspect().Find(Context().removeQueue)->items;
    ASSERT_EQ(copies.size(), 1u);
    EXPECT_EQ(machine.inspect().Find(copies[0])->parent, driver->Handle());
    const auto copy = machine.inspect().Context<ClientContext>(copies[0], kClientContextName);
    EXPECT_EQ(memcmp(&*copy, &before, sizeof(before)), 0);
}

TEST_P(CrashDump, DescriptorsAreWrittenWhereThereIsSomethingToSay)
{
    Join(1);
    std::vector<ZEP_SUBSYSTEM_DESCRIPTOR> array(2);
    memset(array.data(), 0xEE, array.size() * sizeof(array[0]));
    const auto untouched = array[1];
    ULONG count = 2;
    EXPECT_EQ(wpcd.Notifier_WpcdGetAllSubsystemDescriptors(array.data(), &count), STATUS_SUCCESS);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(array[0].InterfaceGUID.Data1, 1u);
    EXPECT_EQ(array[0].SubsystemName[5], '\xEE') << "bytes after the text are not written";
    unsigned char padding[7];
    memcpy(padding, array[0].Padding, sizeof(padding));
    EXPECT_EQ(padding[0] & padding[6], 0xEE);
    EXPECT_EQ(memcmp(&array[1], &untouched, sizeof(untouched)), 0);
}

// The five dump calls: name, the call with given first arguments, the values passed and traced.
struct DumpCall {
    const char* function;
    std::function<NTSTATUS(DriverFixture&, void* handle)> call;
    CrashDumpDriver::DumpCall recorded;  // first argument filled in by the test
    std::vector<std::uint32_t> traced;
};

std::uint32_t g_dumpRecord = 0xD0D0;
std::uint32_t g_dumpData = 0xDA7A;

constexpr ULONGLONG kWide = 0x1122334455667788;

const DumpCall kDumpCalls[] = {
    {"Notifier_HelperStartDump",
     [](DriverFixture& w, void* h) { return w.helper.Notifier_HelperStartDump(h, kWide, 2); },
     {"start", {0, kWide, 2}}, {0xD0D0}},
    {"Notifier_HelperAddDumpData",
     [](DriverFixture& w, void* h) { return w.helper.Notifier_HelperAddDumpData(h, &g_dumpData, kWide, 0xFFFFFFFF, 3); },
     {"data", {0, Number(&g_dumpData), kWide, 0xFFFFFFFF, 3}}, {0xD0D0, 0xDA7A}},
    {"Notifier_HelperAddDumpData",
     [](DriverFixture& w, void* h) { return w.helper.Notifier_HelperAddDumpData(h, nullptr, kWide, 2, 3); },
     {"data", {0, 0, kWide, 2, 3}}, {0xD0D0, 0}},
    {"Notifier_HelperStopDump",
     [](DriverFixture& w, void* h) { return w.helper.Notifier_HelperStopDump(h, kWide); }, {"stop", {0, kWide}}, {0xD0D0}},
    {"Notifier_HelperDumpQueryParam",
     [](DriverFixture& w, void* h) { return w.helper.Notifier_HelperDumpQueryParam(h, 0x80000001, kWide, 3); },
     {"query", {0, 0x80000001, kWide, 3}}, {0xD0D0}},
    {"Notifier_HelperDumpAddTriageData",
     [](DriverFixture& w, void* h) { return w.helper.Notifier_HelperDumpAddTriageData(h, kWide, 0xFFFFFFFE); },
     {"triage", {0, kWide, 0xFFFFFFFE}}, {0xD0D0, 0xFFFFFFFE}},
};

TEST_P(CrashDump, DumpCallsPassThroughUnchangedAtAnyLevel)
{
    ASSERT_EQ(Attach(), STATUS_SUCCESS);
    for (const DumpCall& dump : kDumpCalls) {
        SCOPED_TRACE(dump.function);
        crashDump.calls.clear();
        (void)TakeRecords();
        machine.tracing().ClearCaptured();
        const host::ScopedIrql irql(DISPATCH_LEVEL);
        EXPECT_EQ(dump.call(*this, &g_dumpRecord), STATUS_SUCCESS);
        CrashDumpDriver::DumpCall expected = dump.recorded;
        expected.arguments[0] = Number(&g_dumpRecord);
        EXPECT_EQ(crashDump.calls, std::vector<CrashDumpDriver::DumpCall>{expected});

        // Entry message, entry event, the look-up's two, the result with its values, the exit.
        Lines functions = TakeRecords();
        for (std::string& function : functions) {
            function.erase(0, function.find(' ') + 1);
        }
        EXPECT_EQ(functions, (Lines{dump.function, dump.function, "GetContext", "GetContext", dump.function,
                                    dump.function}));
        const auto messages = machine.tracing().Messages();
        ASSERT_EQ(messages.size(), 4u);
        for (const auto& message : messages) {
            EXPECT_EQ(memcmp(&message.messageGuid, &kMessageSetGuids[1], sizeof(GUID)), 0);
        }
        std::vector<std::uint32_t> traced(messages[2].payload.size() / 4);
        memcpy(traced.data(), messages[2].payload.data(), messages[2].payload.size());
        EXPECT_EQ(traced, dump.traced);
        EXPECT_EQ(machine.tracing().Events().size(), 2u);
    }
}

}  // namespace
}  // namespace tests
