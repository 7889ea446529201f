#include <initguid.h>  // before all: this file holds the interfaces' identifiers

#include "tests/support/world.h"

#include "host/schedule/yield.h"
#include "tests/support/reports_seen.h"
#include "tools/layout/lock_order.h"

#include <algorithm>
#include <cstdio>
#include <set>

namespace tests {
namespace {

using host::schedule::YieldKind;
using host::schedule::YieldPoint;

std::string OutFolder()
{
    return std::string(ZEPN_ROOT) + "/out";
}

NTSTATUS NTAPI OnCommandCallback(PVOID context, ULONG id, const ZepCommandInfo* info, PULONG state)
{
    YieldPoint(YieldKind::kClientCode, "CommandCallback");
    auto& peer = *static_cast<Peer*>(context);
    peer.commands.emplace_back(id, *info);
    if (peer.onCommand) {
        peer.onCommand(id, *state);
    }
    return STATUS_UNSUCCESSFUL;  // nobody may care
}

NTSTATUS NTAPI OnAppsStateCallback(PVOID context, ULONG reason, PULONG state)
{
    YieldPoint(YieldKind::kClientCode, "AppsStateNotificationCallback");
    auto& peer = *static_cast<Peer*>(context);
    EXPECT_EQ(reason, ZEP_APPS_STATE_REASON_CHANGED);
    ++peer.appsStateCalls;
    if (peer.onAppsState) {
        peer.onAppsState(*state);
    }
    return STATUS_UNSUCCESSFUL;
}

}  // namespace

std::vector<Container> Containers()
{
    std::vector<Container> containers = {{"native", ZEPN_NATIVE_DRIVER}};
#if defined(__x86_64__)
    containers.push_back({"x64", OutFolder() + "/x64/zepn.sys"});
#else
    containers.push_back({"arm64", OutFolder() + "/arm64/zepn.sys"});
#endif
    return containers;
}

std::string ContainerName(const testing::TestParamInfo<Container>& info)
{
    return info.param.name;
}

Peer::Peer(ULONG number) : guid{number, 0x1111, 0x2222, {1, 2, 3, 4, 5, 6, 7, 8}}
{
}

Peer& Peer::TakesCommands()
{
    callbacks.CommandCallback = &OnCommandCallback;
    return *this;
}

Peer& Peer::HearsAppsState()
{
    callbacks.AppsStateNotificationCallback = &OnAppsStateCallback;
    return *this;
}

World::World(const Container& container, WorldOptions options)
    : machine(options.machine), container_(container), options_(options), manifest_(OutFolder() + "/manifest/zepn.man"),
      formats_(OutFolder() + "/manifest")
{
    if (options_.records) {
        machine.tracing().OpenEventSession({kProvider, 0});
        machine.tracing().OpenMessageSession({kControl, 5, 3});
    }
    if (options_.boots) {
        Load();
        EXPECT_EQ(driver->AddDevice(), STATUS_SUCCESS);
        Start();
        (void)TakeReports();
        (void)TakeRecords();
    }
}

void World::Load()
{
    driver = &machine.Load(container_.image, kService);
}

void World::Start()
{
    EXPECT_EQ(driver->StartDevice(), STATUS_SUCCESS);
    EXPECT_EQ(driver->QueryInterface(GUID_ZEP_NOTIFIER_HELPER_INTERFACE, std::as_writable_bytes(std::span(&helper, 1)),
                                     ZEP_NOTIFIER_INTERFACE_VERSION),
              STATUS_SUCCESS);
    EXPECT_EQ(driver->QueryInterface(GUID_ZEP_NOTIFIER_WPCD_INTERFACE, std::as_writable_bytes(std::span(&wpcd, 1)),
                                     ZEP_NOTIFIER_INTERFACE_VERSION),
              STATUS_SUCCESS);
    DeclareLockOrder(machine, *driver);
}

void World::TakeDown()
{
    machine.faults().Clear();
    if (driver == nullptr || !driver->IsLoaded()) {
        return;
    }
    if (driver->HasDevice()) {
        driver->SurpriseRemoveDevice();
        if (driver->RemoveDevice().parked) {
            return;  // the driver cannot go; the test has taken the violation, or it shows below
        }
    }
    driver->Unload();
}

World::~World()
{
    TakeDown();
    for (const auto& violation : machine.violations().All()) {
        ADD_FAILURE() << violation.Text();
    }
    CheckReports();
    if (options_.records) {
        NoteReportsSeen(machine.tracing(), manifest_);
    }
}

NTSTATUS World::Register(Peer& peer, ULONG entryCount, const ZepDataEntry* entries)
{
    return helper.Notifier_HelperInit(&peer.guid, "name", "description", &peer.callbacks, entries, entryCount, &peer);
}

NTSTATUS World::Post(const Peer& peer, ULONG state)
{
    const ZepState record{.Size = 32, .InterfaceGUID = peer.guid, .State = state, .Reserved = 0};
    return helper.Notifier_HelperSendState(&record);
}

NTSTATUS World::Subscribe(Peer& subscriber, const Peer& target, ULONG state)
{
    const ZepState filter{.Size = 32, .InterfaceGUID = target.guid, .State = state, .Reserved = 0};
    return helper.Notifier_HelperRegisterForStateNotification(&subscriber.guid, &filter, &OnState);
}

NTSTATUS World::Unsubscribe(const Peer& subscriber, const Peer& target, ULONG state)
{
    // Size and the last word take no part.
    const ZepState filter{.Size = 1, .InterfaceGUID = target.guid, .State = state, .Reserved = 7};
    return helper.Notifier_HelperDeregisterForStateNotification(&subscriber.guid, &filter);
}

NTSTATUS World::Leave(const Peer& peer)
{
    return helper.Notifier_HelperClientDeinit(&peer.guid);
}

NTSTATUS World::Send(const Peer& sender, const Peer& target, ULONG id, ULONG argument)
{
    const ZepCommand command{.Size = 0xBAD,
                             .CommandArgument = argument,
                             .SourceGuid = sender.guid,
                             .TargetGuid = target.guid,
                             .CommandId = id};
    return helper.Notifier_HelperSendCommand(&command);
}

void World::Deliver()
{
    for (const host::Outcome& outcome : machine.RunWorkItems().parked) {
        ADD_FAILURE() << outcome.reason;
    }
}

NTSTATUS World::OnState(PVOID context, const ZepState* state, PULONG response)
{
    YieldPoint(YieldKind::kClientCode, "StateNotificationCallback");
    auto& peer = *static_cast<Peer*>(context);
    peer.deliveries.push_back(*state);
    peer.responsesAtEntry.push_back(*response);
    if (peer.onState) {
        peer.onState(*state, *response);
    }
    return STATUS_UNSUCCESSFUL;
}

DriverContext World::Context()
{
    const auto context = machine.inspect().Context<DriverContext>(driver->Handle(), kDriverContextName);
    EXPECT_TRUE(context.has_value());
    return context.value_or(DriverContext{});
}

std::size_t World::Count(WDFCOLLECTION collection)
{
    const auto view = machine.inspect().Find(collection);
    EXPECT_TRUE(view.has_value());
    return view ? view->items.size() : 0;
}

std::optional<ClientContext> World::Client(const Peer& peer)
{
    const auto clients = machine.inspect().Find(Context().clients);
    for (const WDFOBJECT item : clients->items) {
        const auto context = machine.inspect().Context<ClientContext>(item, kClientContextName);
        if (context && memcmp(&context->guid, &peer.guid, sizeof(GUID)) == 0) {
            return context;
        }
    }
    return std::nullopt;
}

std::size_t World::Alive(const char* contextName)
{
    return machine.inspect().WithContext(contextName).size();
}

std::size_t World::AnswersKept()
{
    const std::vector<host::framework::ObjectView> drivers =
        machine.inspect().Objects(host::framework::ObjectType::kDriver);
    return static_cast<std::size_t>(
        std::ranges::count_if(machine.inspect().WithContext(kStateContextName),
                              [&](const auto& state) { return state.parent == drivers.front().handle; }));
}

std::size_t World::Queued()
{
    return machine.QueuedWorkItems();
}

void World::Fail(const char* function, NTSTATUS status, unsigned skip)
{
    ++faultsArmed_;
    machine.faults().Add({.function = function, .caller = "", .detail = "", .skip = skip, .status = status});
}

void World::Lose(const char* function, const char* detail, unsigned skip, unsigned count)
{
    ++faultsArmed_;
    machine.faults().Add({.function = function,
                          .caller = "",
                          .detail = detail,
                          .skip = skip,
                          .count = count,
                          .form = host::checks::FaultForm::kNull});
}

void World::HideDriver()
{
    ++faultsArmed_;
    machine.faults().Add({.function = "WdfGetDriver", .caller = "", .detail = ""});
}

void World::EndFaults()
{
    EXPECT_GE(machine.faults().StruckCount(), faultsArmed_) << "a fault was never reached";
    faultsArmed_ = 0;
    machine.faults().Clear();
}

std::string World::HandleName(std::uint64_t handle)
{
    const auto pointer = reinterpret_cast<WDFOBJECT>(handle);
    if (driver != nullptr && driver->IsLoaded() && pointer == driver->Handle()) {
        return "<driver>";
    }
    if (driver != nullptr && driver->IsLoaded()) {
        const auto context = machine.inspect().Context<DriverContext>(driver->Handle(), kDriverContextName);
        if (context && pointer == context->clients) {
            return "<clients>";
        }
        if (context && pointer == context->states) {
            return "<states>";
        }
        if (context && pointer == context->commands) {
            return "<commands>";
        }
        if (context && pointer == context->addQueue) {
            return "<add queue>";
        }
        if (context && pointer == context->removeQueue) {
            return "<remove queue>";
        }
    }
    const auto object = machine.inspect().Find(pointer);
    if (!object) {
        return "<gone>";
    }
    return object->type == host::framework::ObjectType::kGeneral
               ? "<object>"
               : std::string("<") + host::framework::Name(object->type) + ">";
}

Lines World::TakeReports()
{
    constexpr std::uint8_t kWarning = 3;
    Lines lines;
    const auto events = machine.tracing().Events();
    for (; eventsSeen_ < events.size(); ++eventsSeen_) {
        if (events[eventsSeen_].descriptor.Level > kWarning) {
            continue;
        }
        const auto decoded = manifest_.Decode(events[eventsSeen_]);
        if (!decoded) {
            lines.push_back("undecodable event " + std::to_string(events[eventsSeen_].descriptor.Id));
            continue;
        }
        std::string line = std::to_string(decoded->id) + " " + decoded->fields[0].text + ":";
        for (std::size_t index = 1; index < decoded->fields.size(); ++index) {
            const auto& field = decoded->fields[index];
            const bool isHandle = field.name == "Object" || field.name == "Collection";
            line += (index == 1 ? " " : ", ") + (isHandle ? HandleName(field.number) : field.text);
        }
        lines.push_back(line);
    }
    return lines;
}

Lines World::TakeRecords()
{
    std::vector<std::pair<std::uint64_t, std::string>> records;
    for (const auto& event : machine.tracing().Events()) {
        const auto decoded = manifest_.Decode(event);
        records.emplace_back(event.order, "E" + std::to_string(event.descriptor.Id) + " " +
                                              (decoded ? decoded->fields[0].text : "undecodable"));
    }
    for (const auto& message : machine.tracing().Messages()) {
        const auto decoded = formats_.Decode(message);
        records.emplace_back(message.order, "M" + std::to_string(message.number) + " " +
                                                (decoded ? decoded->function : "undecodable"));
    }
    std::sort(records.begin(), records.end());
    Lines lines;
    for (const auto& [order, line] : records) {
        if (order > recordsSeen_) {
            lines.push_back(line);
            recordsSeen_ = order;
        }
    }
    return lines;
}

namespace {

using Numbers = std::vector<std::uint64_t>;

// A GUID counts by its first number.
Numbers NumbersOf(const host::tracing::DecodedEvent& event)
{
    using host::tracing::FieldType;
    Numbers numbers;
    for (const auto& field : event.fields) {
        if (field.type == FieldType::kGuid) {
            numbers.push_back(host::tracing::ParseGuid(field.text)->Data1);
        } else if (field.type != FieldType::kAnsiString) {
            numbers.push_back(field.number);
        }
    }
    return numbers;
}

Numbers NumbersOf(const host::tracing::CapturedMessage& message)
{
    Numbers numbers;
    std::size_t at = 0;
    for (const std::uint32_t size : message.argumentSizes) {
        memcpy(&numbers.emplace_back(0), message.payload.data() + at, std::min<std::size_t>(size, 8));
        at += size;
    }
    return numbers;
}

}  // namespace

// An error event and its trace message are one report: same site, same values, one right behind the other. All must
// decode.
void World::CheckReports()
{
    if (!options_.records) {
        return;
    }
    std::map<std::uint64_t, std::pair<std::string, Numbers>> errorMessages;
    for (const auto& message : machine.tracing().Messages()) {
        const auto decoded = formats_.Decode(message);
        ASSERT_TRUE(decoded) << "trace message " << message.number << " does not decode";
        if (decoded->level == "TRACE_LEVEL_ERROR" || decoded->level == "TRACE_LEVEL_WARNING") {
            errorMessages[message.order] = {decoded->function, NumbersOf(message)};
        }
    }
    for (const auto& event : machine.tracing().Events()) {
        const auto decoded = manifest_.Decode(event);
        ASSERT_TRUE(decoded) << "event " << event.descriptor.Id << " does not decode";
        EXPECT_EQ(decoded->level, manifest_.events().at(decoded->id).level);
        if (decoded->level == 2) {
            const auto message = errorMessages.find(event.order + 1);
            ASSERT_NE(message, errorMessages.end()) << "no trace message behind: " << decoded->message;
            const auto& [function, numbers] = message->second;
            EXPECT_EQ(function, decoded->fields[0].text);
            if (!numbers.empty()) {  // some messages are bare
                EXPECT_EQ(numbers, NumbersOf(*decoded)) << decoded->message;
            }
        }
    }
}

}  // namespace tests
