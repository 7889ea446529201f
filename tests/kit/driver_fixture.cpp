#include "tests/kit/driver_fixture.h"

#include "host/checks/unused_stack.h"
#include "tests/kit/reports_seen.h"
#include "tests/kit/settings.h"

#include <algorithm>

namespace tests {
namespace {

std::string OutFolder()
{
    return std::string(ZEPN_ROOT) + "/out";
}

}  // namespace

const host::tracing::Manifest& TheManifest()
{
    static const host::tracing::Manifest manifest(OutFolder() + "/manifest/zepn.man");
    return manifest;
}

const host::tracing::MessageFormats& TheFormats()
{
    static const host::tracing::MessageFormats formats(OutFolder() + "/manifest");
    return formats;
}

std::vector<Container> Containers()
{
    return {{"native", NativeDriver()}, {kMachine, OutFolder() + "/" + kMachine + "/zepn.sys"}};
}

DriverFixture::DriverFixture(const Container& container, FixtureOptions options)
    : machine(options.machine), container_(container), options_(options), manifest_(TheManifest()),
      formats_(TheFormats())
{
    if (options_.records) {
        machine.tracing().OpenEventSession({kProviderGuid, 0});
        machine.tracing().OpenMessageSession({kControlGuid, 5, 3});
    }
    if (options_.boots) {
        Boot();
        (void)TakeReports();
        (void)TakeRecords();
    }
}

void DriverFixture::Load()
{
    driver = &machine.Load(container_.image, kService);
}

void DriverFixture::Boot()
{
    Load();
    EXPECT_EQ(driver->AddDevice(), STATUS_SUCCESS);
    Start();
}

void DriverFixture::Start()
{
    EXPECT_EQ(driver->StartDevice(), STATUS_SUCCESS);
    TakeTables(machine, *driver, helper, wpcd);
}

void DriverFixture::TakeDown()
{
    machine.faults().Clear();
    if (driver == nullptr || !driver->IsLoaded()) {
        return;
    }
    if (driver->HasDevice()) {
        EXPECT_EQ(driver->SurpriseRemoveDevice(), STATUS_SUCCESS);
        if (driver->RemoveDevice().parked) {
            return;  // the driver cannot go; the test has taken the violation, or it shows below
        }
    }
    driver->Unload();
}

DriverFixture::~DriverFixture()
{
    TakeDown();
    for (const auto& violation : machine.violations().All()) {
        ADD_FAILURE() << violation.FullText();
    }
    CheckReports();
    if (options_.records) {
        NoteReportsSeen(machine.tracing(), manifest_);
    }
}

Peer& DriverFixture::Join(const Peer& peer)
{
    joined_.push_back(peer);
    EXPECT_EQ(Register(joined_.back()), STATUS_SUCCESS);
    return joined_.back();
}

NTSTATUS DriverFixture::Register(Peer& peer, ULONG entryCount, const ZepDataEntry* entries)
{
    host::checks::FillUnusedStack();
    return helper.Notifier_HelperInit(&peer.guid, peer.name.c_str(), peer.description.c_str(), &peer.callbacks, entries,
                                      entryCount, &peer);
}

NTSTATUS DriverFixture::Call(Kind kind, const Peer& peer, const peers::Record& record)
{
    host::checks::FillUnusedStack();
    return CallAsClient(helper, kind, peer.caller(), record);
}

void DriverFixture::Deliver()
{
    for (const host::Outcome& outcome : machine.RunWorkItems().parked) {
        ADD_FAILURE() << outcome.reason;
    }
}

NTSTATUS DriverFixture::Attach()
{
    host::checks::FillUnusedStack();
    return wpcd.Notifier_WpcdClientInit(&crashDump.registration);
}

NTSTATUS DriverFixture::Detach()
{
    host::checks::FillUnusedStack();
    return wpcd.Notifier_WpcdClientDeInit();
}

DriverContext DriverFixture::Context()
{
    const auto context = machine.inspect().Context<DriverContext>(driver->Handle(), kDriverContextName);
    EXPECT_TRUE(context.has_value());
    return context.value_or(DriverContext{});
}

std::size_t DriverFixture::Count(WDFCOLLECTION collection)
{
    const auto view = machine.inspect().Find(collection);
    EXPECT_TRUE(view.has_value());
    return view ? view->items.size() : 0;
}

std::optional<ClientContext> DriverFixture::Client(const Peer& peer)
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

std::size_t DriverFixture::Alive(const char* contextName)
{
    return machine.inspect().WithContext(contextName).size();
}

std::size_t DriverFixture::AnswersKept()
{
    const std::vector<host::framework::ObjectSnapshot> drivers =
        machine.inspect().Objects(host::framework::ObjectType::kDriver);
    return static_cast<std::size_t>(
        std::ranges::count_if(machine.inspect().WithContext(kStateContextName),
                              [&](const auto& state) { return state.parent == drivers.front().handle; }));
}

std::size_t DriverFixture::Queued()
{
    return machine.QueuedWorkItems();
}

void DriverFixture::Fail(const char* function, NTSTATUS status, unsigned skip)
{
    ++faultsArmed_;
    machine.faults().Add({.function = function, .caller = "", .detail = "", .skip = skip, .status = status});
}

void DriverFixture::Lose(const char* function, const char* detail, unsigned skip, unsigned count)
{
    ++faultsArmed_;
    machine.faults().Add({.function = function,
                          .caller = "",
                          .detail = detail,
                          .skip = skip,
                          .count = count,
                          .form = host::checks::FaultForm::kNull});
}

void DriverFixture::EndFaults()
{
    EXPECT_GE(machine.faults().InjectedCount(), faultsArmed_) << "a fault was never reached";
    faultsArmed_ = 0;
    machine.faults().Clear();
}

}  // namespace tests
