// Trace sessions: what they get at which level, when they are enabled and disabled, and that disabled tracing writes
// nothing.
#include "tests/kit/driver_fixture.h"

namespace tests {
namespace {

class Reporting : public OnContainer {};
FOR_ALL_CONTAINERS(Reporting);

std::set<unsigned> EventIds(DriverFixture& fixture)
{
    std::set<unsigned> ids;
    for (const auto& event : fixture.machine.tracing().Events()) {
        ids.insert(event.descriptor.Id);
    }
    return ids;
}

// A bit of everything: entries, an error, a warning, a delivery.
void ReportAtEachLevel(DriverFixture& fixture)
{
    Peer& one = fixture.Join(1);
    Peer& other = fixture.Join(2);
    EXPECT_EQ(fixture.Register(one), STATUS_ZEP_NOTIFIER_ALREADY_REGISTERED);
    EXPECT_EQ(fixture.Unsubscribe(one, other, 3), STATUS_SUCCESS);
    EXPECT_EQ(fixture.Subscribe(one, other, ZEP_STATE_ANY), STATUS_SUCCESS);
    EXPECT_EQ(fixture.Post(other, 3), STATUS_SUCCESS);
    fixture.Deliver();
    EXPECT_EQ(one.deliveries.size(), 2u);
    EXPECT_EQ(fixture.Leave(one), STATUS_SUCCESS);
    EXPECT_EQ(fixture.Leave(other), STATUS_SUCCESS);
}

// Those of it alone.
std::set<unsigned> EventIdsOfABit(DriverFixture& fixture)
{
    fixture.machine.tracing().ClearCaptured();
    ReportAtEachLevel(fixture);
    return EventIds(fixture);
}

std::set<unsigned> MessageNumbers(DriverFixture& fixture)
{
    std::set<unsigned> numbers;
    for (const auto& message : fixture.machine.tracing().Messages()) {
        numbers.insert(message.number);
    }
    return numbers;
}

TEST_P(Reporting, WithoutListenersNothingIsWrittenAndAllWorksTheSame)
{
    DriverFixture fixture(GetParam(), {.records = false});
    ReportAtEachLevel(fixture);
    fixture.TakeDown();
    EXPECT_EQ(fixture.machine.tracing().DisabledEvents(), 0u);
    EXPECT_EQ(fixture.machine.tracing().DisabledMessages(), 0u);
}

TEST_P(Reporting, EventLevelsSelectAsTheSystemDefinesThem)
{
    struct Row {
        std::uint8_t level;
        std::set<unsigned> ids;
    };
    const Row kRows[] = {
        {1, {}},
        {2, {10, 12}},
        {3, {10, 12, 22}},
        {4, {10, 12, 22, 41, 43, 44}},
        {5, {10, 12, 22, 41, 43, 44, 61}},
        {0, {10, 12, 22, 41, 43, 44, 61}},
        {200, {10, 12, 22, 41, 43, 44, 61}},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(int{row.level});
        DriverFixture fixture(GetParam(), {.records = false, .boots = false});
        fixture.machine.tracing().OpenEventSession({kProviderGuid, row.level});
        fixture.Boot();
        ReportAtEachLevel(fixture);
        fixture.TakeDown();
        EXPECT_EQ(EventIds(fixture), row.ids);
        EXPECT_EQ(fixture.machine.tracing().DisabledEvents(), 0u);
    }
}

TEST_P(Reporting, ListenersComeChangeAndGoWhileTheDriverRuns)
{
    DriverFixture fixture(GetParam(), {.records = false});
    auto& tracing = fixture.machine.tracing();
    const auto errors = tracing.OpenEventSession({kProviderGuid, 2});
    EXPECT_EQ(EventIdsOfABit(fixture), (std::set<unsigned>{10, 12}));
    const auto all = tracing.OpenEventSession({kProviderGuid, 5});
    EXPECT_EQ(EventIdsOfABit(fixture), (std::set<unsigned>{10, 12, 22, 61}));

    // The level falls back to what the session that stays wants.
    tracing.Close(all);
    EXPECT_EQ(EventIdsOfABit(fixture), (std::set<unsigned>{10, 12}));
    tracing.ChangeEventSession(errors, {kProviderGuid, 1});
    EXPECT_EQ(EventIdsOfABit(fixture), std::set<unsigned>{});
    tracing.Close(errors);
    EXPECT_EQ(tracing.DisabledEvents(), 0u);
}

TEST_P(Reporting, OtherControlCodesAndANullContextChangeNothing)
{
    DriverFixture fixture(GetParam(), {.records = false});
    auto& tracing = fixture.machine.tracing();
    tracing.OpenEventSession({kProviderGuid, 2});
    tracing.SendEventControl(kProviderGuid, 2, 5, 0, 0);
    tracing.SendEventControl(kProviderGuid, 7, 5, 0, 0);
    tracing.SendEventControl(kProviderGuid, 0, 0, 0, 0, true);
    EXPECT_EQ(EventIdsOfABit(fixture), (std::set<unsigned>{10, 12}));
    tracing.SendEventControl(kProviderGuid, 0, 0, 0, 0);
    EXPECT_EQ(EventIdsOfABit(fixture), std::set<unsigned>{});
}

// Both registration routes: who listens with which flags and level gets which messages.
TEST_P(Reporting, TraceMessagesAreSelectedByFlagAndLevelOnBothRoutes)
{
    struct Row {
        std::uint32_t flags;
        std::uint8_t level;
        bool entry;
        bool error;
        bool progress;
        bool detail;
    };
    constexpr Row kRows[] = {
        {3, 5, true, true, true, true},     {3, 4, true, true, true, false},
        {3, 3, false, true, false, false},  {3, 1, false, false, false, false},
        {3, 0, false, false, false, false}, {1, 5, true, false, false, false},
        {2, 5, false, true, true, true},    {2, 2, false, true, false, false},
        {4, 5, false, false, false, false}, {0xFFFFFFFF, 255, true, true, true, true},
    };
    for (const auto route : {host::TraceRoutes::kClassic, host::TraceRoutes::kWmi}) {
        for (const Row& row : kRows) {
            SCOPED_TRACE(testing::Message() << "flags " << row.flags << " level " << int{row.level} << " route "
                                            << static_cast<int>(route));
            DriverFixture fixture(GetParam(), {.machine = {.traceRoutes = route}, .records = false, .boots = false});
            fixture.machine.tracing().OpenMessageSession({kControlGuid, row.level, row.flags});
            fixture.Boot();
            ReportAtEachLevel(fixture);
            fixture.TakeDown();
            const std::set<unsigned> numbers = MessageNumbers(fixture);
            EXPECT_EQ(numbers.contains(10), row.entry);
            EXPECT_EQ(numbers.contains(76), row.error);      // the GUID that is registered already
            EXPECT_EQ(numbers.contains(137), row.progress);  // a posted state
            EXPECT_EQ(numbers.contains(57), row.detail);     // the power callback is unregistered
            EXPECT_EQ(fixture.machine.tracing().DisabledMessages(), 0u);
            EXPECT_EQ(fixture.machine.tracing().MessageProviders(), 0u);
        }
    }
}

TEST_P(Reporting, ClosedAndUnknownControlsSilenceMessagesOnBothRoutes)
{
    for (const auto route : {host::TraceRoutes::kClassic, host::TraceRoutes::kWmi}) {
        DriverFixture fixture(GetParam(), {.machine = {.traceRoutes = route}, .records = false});
        auto& tracing = fixture.machine.tracing();
        auto session = tracing.OpenMessageSession({kControlGuid, 5, 3});
        tracing.SendMessageControl(kControlGuid, 2);
        for (const std::uint8_t code : {0, 1, 4, 5}) {
            tracing.SendMessageControl(kControlGuid, code, true);
        }
        if (route == host::TraceRoutes::kClassic) {
            tracing.Close(session);  // the null contexts of a disable reached the block itself
            session = tracing.OpenMessageSession({kControlGuid, 5, 3});
        }
        ReportAtEachLevel(fixture);
        EXPECT_FALSE(tracing.Messages().empty());
        tracing.Close(session);
        tracing.ClearCaptured();
        ReportAtEachLevel(fixture);
        EXPECT_TRUE(tracing.Messages().empty());
        EXPECT_EQ(tracing.DisabledMessages(), 0u);
    }
}

// What messages without an event say, in the order in which it happens.
TEST_P(Reporting, MessagesSayWhoDidWhat)
{
    DriverFixture fixture(GetParam());
    Peer& poster = fixture.Join(Peer(1).WantsAppsState());
    Peer& other = fixture.Join(Peer(2).TakesCommands());
    other.onState = [](const ZepState&, ULONG& response) { response = 8; };
    poster.onAppsState = [](ULONG& state) { state = 5; };
    ASSERT_EQ(fixture.Subscribe(other, poster, 4), STATUS_SUCCESS);
    ASSERT_EQ(fixture.Post(poster, 4), STATUS_SUCCESS);
    fixture.Deliver();
    ASSERT_EQ(fixture.Send(poster, other, 77, 1234), STATUS_SUCCESS);
    fixture.machine.SetRegistryValue(kService, "SubsystemNotificationTimeout", 250);
    fixture.machine.NotifyPowerState(PO_CB_SYSTEM_STATE_LOCK, 0);
    fixture.Deliver();
    ASSERT_EQ(fixture.Leave(poster), STATUS_SUCCESS);
    ASSERT_EQ(fixture.Leave(other), STATUS_SUCCESS);

    Lines texts;
    for (const auto& message : fixture.machine.tracing().Messages()) {
        const auto decoded = TheFormats().Decode(message);
        ASSERT_TRUE(decoded);
        if (!decoded->arguments.empty() && decoded->flags == "TRACE_FLAG_GENERAL" &&
            (decoded->level == "TRACE_LEVEL_INFORMATION" || decoded->level == "TRACE_LEVEL_VERBOSE")) {
            texts.push_back(decoded->text);
        }
    }
    EXPECT_EQ(texts, (Lines{"client 00000001 registered", "client 00000002 registered",
                            "client 00000001 posted state 4", "state 4 of client 00000001 goes to client 00000002",
                            "client 00000002 answers with state 8",
                            "command 77 (1234) from client 00000001 to client 00000002",
                            "client 00000001 wants state 5", "client 00000001 posted state 5", "ends with 0x00000000",
                            "holding the transition for 250 ms", "client 00000001 deregisters",
                            "client 00000002 deregisters"}));
}

// Handles in messages of their own: the context that the power callback was registered with, device and file object.
TEST_P(Reporting, MessagesCarryTheHandlesOfTheirObjects)
{
    DriverFixture fixture(GetParam());
    auto& tracing = fixture.machine.tracing();
    const auto handles = [&] {
        std::vector<const void*> values(tracing.Messages().front().payload.size() / sizeof(void*));
        memcpy(values.data(), tracing.Messages().front().payload.data(), values.size() * sizeof(void*));
        return values;
    };
    tracing.ClearCaptured();
    fixture.machine.NotifyPowerState(PO_CB_SYSTEM_STATE_LOCK, 1);
    const auto context = fixture.machine.inspect().Find(fixture.driver->Handle())->contexts.front().bytes;
    EXPECT_EQ(handles(), std::vector<const void*>{context.data()});
    tracing.ClearCaptured();
    host::FileId file = 0;
    ASSERT_EQ(fixture.driver->Open(file).status, STATUS_SUCCESS);
    const auto files = fixture.machine.inspect().Objects(host::framework::ObjectType::kFileObject);
    EXPECT_EQ(handles(), (std::vector<const void*>{fixture.driver->Device(), files[0].handle}));
    fixture.driver->Close(file);
}

// A missing item is reported by event alone when only events are wanted.
TEST_P(Reporting, EventsAndMessagesAreChosenApart)
{
    DriverFixture fixture(GetParam(), {.records = false});
    fixture.machine.tracing().OpenEventSession({kProviderGuid, 5});
    Peer& peer = fixture.Join(1);
    fixture.Lose("WdfCollectionGetItem");
    EXPECT_NE(fixture.Post(peer, 1), STATUS_SUCCESS);
    fixture.EndFaults();
    EXPECT_TRUE(EventIds(fixture).contains(5));
    EXPECT_TRUE(fixture.machine.tracing().Messages().empty());
}

// The level from before: that of the session, and none after it.
TEST_P(Reporting, OldRouteKeepsALevelThatItCannotAskForAndNoFlags)
{
    DriverFixture fixture(GetParam(), {.machine = {.traceRoutes = host::TraceRoutes::kWmi}, .records = false});
    auto& tracing = fixture.machine.tracing();
    const auto numbers = [&] {
        tracing.ClearCaptured();
        ReportAtEachLevel(fixture);
        return MessageNumbers(fixture);
    };
    fixture.machine.faults().Add({.function = "WmiQueryTraceInformation", .detail = "flags"});
    const auto session = tracing.OpenMessageSession({kControlGuid, 5, 3});
    EXPECT_EQ(numbers(), std::set<unsigned>{});
    tracing.ChangeMessageSession(session, {kControlGuid, 2, 3});
    fixture.machine.faults().Add({.function = "WmiQueryTraceInformation", .detail = "level"});
    tracing.ChangeMessageSession(session, {kControlGuid, 5, 3});
    const std::set<unsigned> errors = numbers();
    EXPECT_TRUE(errors.contains(76));
    EXPECT_FALSE(errors.contains(137));

    tracing.Close(session);
    fixture.machine.faults().Add({.function = "WmiQueryTraceInformation", .detail = "level"});
    tracing.OpenMessageSession({kControlGuid, 5, 3});
    EXPECT_EQ(numbers(), std::set<unsigned>{});
}

TEST_P(Reporting, OldRouteAnswersWhatItCannotDo)
{
    DriverFixture fixture(GetParam(), {.machine = {.traceRoutes = host::TraceRoutes::kWmi}, .boots = false});
    fixture.Lose("MmGetSystemRoutineAddress", "WmiQueryTraceInformation");
    fixture.Load();
    fixture.EndFaults();
    auto& tracing = fixture.machine.tracing();
    EXPECT_EQ(tracing.LastWmiStatus(), STATUS_UNSUCCESSFUL) << "the sessions were open before the load";
    EXPECT_TRUE(tracing.Messages().empty());
    for (const std::uint8_t minor : {4, 5}) {
        tracing.SendMessageControl(kControlGuid, minor, true);
        EXPECT_EQ(tracing.LastWmiStatus(), STATUS_WMI_GUID_NOT_FOUND);
    }
    fixture.TakeDown();
    fixture.machine.violations().Take(host::checks::Rule::kReferenceUnderflow);
}

// Also of the oldest system that has it; where it is not looked for, or not there, the old route serves.
TEST_P(Reporting, ClassicRouteIsLookedForFromVersionSixOn)
{
    const std::pair<host::MachineOptions, unsigned> kRows[] = {{{.majorVersion = 6}, 1},
                                                               {{.majorVersion = 10}, 1},
                                                               {{.majorVersion = 5}, 0},
                                                               {{.exportsPsGetVersion = false}, 0}};
    for (const auto& [machine, lookedFor] : kRows) {
        DriverFixture fixture(GetParam(), {.machine = machine, .boots = false});
        fixture.machine.faults().Add({.function = "MmGetSystemRoutineAddress",
                                      .detail = "EtwRegisterClassicProvider",
                                      .form = host::checks::FaultForm::kNull});
        fixture.Load();
        EXPECT_EQ(fixture.machine.faults().InjectedCount(), lookedFor) << machine.majorVersion;
        EXPECT_EQ(fixture.TakeRecords(), (Lines{"E44 DriverEntry", "M10 DriverEntry"})) << machine.majorVersion;
        fixture.TakeDown();
        fixture.machine.violations().Take(host::checks::Rule::kReferenceUnderflow);
        EXPECT_EQ(fixture.machine.tracing().MessageProviders(), 0u);
    }
}

}  // namespace
}  // namespace tests
