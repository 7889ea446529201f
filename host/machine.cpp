#include "host/machine.h"

#include "host/checks/crash.h"
#include "host/dispatcher/dispatcher.h"
#include "host/framework/collections.h"
#include "host/framework/driver_load.h"
#include "host/framework/plug_play.h"
#include "host/image/exports.h"
#include "host/image/pe_file.h"

#include <unistd.h>

#include <cstdio>
#include <exception>

namespace host {

using framework::DriverInstance;
using framework::Framework;

namespace {

// Runs what is queued longest; false when nothing is.
bool Pump(Framework& framework, PumpResult& result)
{
    std::unique_lock lock(framework.mutex);
    Outcome outcome;
    if (!framework.work.RunOne(lock, outcome)) {
        return false;
    }
    ++result.runs;
    if (outcome.parked) {
        result.parked.push_back(outcome);
    }
    return true;
}

// What images import; the framework's table is not among it.
void RegisterExports()
{
    kernel::RegisterKernelExports();
    framework::RegisterLoaderExports();
    framework::RegisterPlugPlayExports();
    dispatcher::RegisterExports();
}

}  // namespace

Machine::Machine(MachineOptions options)
    : environment_(std::make_unique<Environment>(options)), kernel_(std::make_unique<kernel::Kernel>(*environment_)),
      tracing_(std::make_unique<tracing::Tracing>()), threads_(std::make_unique<schedule::Threads>()),
      framework_(std::make_unique<Framework>(*environment_, *kernel_, *threads_))
{
    if (const long bytes = sysconf(_SC_PAGESIZE); bytes != image::kPageSize) {
        throw HostError("this machine's pages have " + std::to_string(bytes) + " bytes; drivers are laid out for " +
                        std::to_string(image::kPageSize));
    }
    RegisterExports();
    checks::CatchMemoryFaults();
}

Machine::~Machine()
{
    framework_->work.StopWorkers();
    for (const auto& instance : framework_->drivers) {
        if (instance->loaded) {
            // Where a thread hangs the driver cannot be unloaded, which has been reported; an exception says by itself
            // why the drivers were left.
            if (!environment_->hasHung && std::uncaught_exceptions() == 0) {
                std::fprintf(stderr, "host: %s was still loaded at the machine's end\n", instance->service.c_str());
            }
            framework::AbandonDriver(*framework_, *instance);
        }
    }
}

Driver& Machine::Load(const std::filesystem::path& image, const std::string& serviceName)
{
    DriverInstance& instance = framework::LoadDriver(*framework_, *tracing_, image, serviceName);
    drivers_.push_back(std::unique_ptr<Driver>(new Driver(*this, instance)));
    return *drivers_.back();
}

Driver& Machine::Boot(const std::filesystem::path& image, const std::string& serviceName)
{
    const auto check = [&](const char* step, NTSTATUS status) {
        if (!NT_SUCCESS(status)) {
            char text[16];
            std::snprintf(text, sizeof(text), "0x%08X", static_cast<unsigned>(status));
            throw HostError(serviceName + ": " + step + " failed with " + text);
        }
    };
    Driver& driver = Load(image, serviceName);
    check("driver entry", driver.EntryStatus());
    check("device add", driver.AddDevice());
    check("device start", driver.StartDevice());
    return driver;
}

std::vector<std::string> Machine::PlatformFunctions()
{
    RegisterExports();
    std::vector<std::string> names = image::ExportNames();
    for (unsigned index = 0; index < framework::kFunctionCount; ++index) {
        if (const framework::TableEntry entry = framework::EntryAt(index); entry.isPlayed) {
            names.emplace_back(entry.name);
        }
    }
    names.emplace_back("WdfGetDriver");
    return names;
}

std::vector<std::string> Machine::FunctionsWithResult()
{
    RegisterExports();
    std::vector<std::string> names = image::ExportsWithResult();
    for (unsigned index = 0; index < framework::kFunctionCount; ++index) {
        if (const framework::TableEntry entry = framework::EntryAt(index); entry.hasResult) {
            names.emplace_back(entry.name);
        }
    }
    return names;
}

void Machine::SetRegistryValue(const std::string& serviceName, const std::string& name, std::uint32_t value)
{
    kernel_->registry().SetDword(serviceName, name, value);
}

void Machine::SetRegistryString(const std::string& serviceName, const std::string& name, const std::string& value)
{
    kernel_->registry().SetString(serviceName, name, value);
}

std::vector<RegistryNumber> Machine::RegistryNumbers(const std::string& serviceName) const
{
    return kernel_->registry().Numbers(serviceName);
}

PumpResult Machine::RunWorkItems()
{
    PumpResult result;
    while (Pump(*framework_, result)) {
    }
    return result;
}

PumpResult Machine::RunOneWorkItem()
{
    PumpResult result;
    (void)Pump(*framework_, result);
    return result;
}

std::size_t Machine::QueuedWorkItems() const
{
    const std::lock_guard lock(framework_->mutex);
    return framework_->work.Size();
}

std::string Machine::NextWorkItem() const
{
    const std::lock_guard lock(framework_->mutex);
    return framework_->work.NextItem();
}

bool Machine::IsNextWorkItemOf(const Driver& driver) const
{
    const std::lock_guard lock(framework_->mutex);
    return framework_->work.NextItemsDriver() == &driver.instance_;
}

void Machine::WaitForWorkItems()
{
    framework_->work.WaitUntilEmpty();
}

Outcome Machine::OnThread(const std::string& name, const std::function<void()>& work)
{
    return framework_->threads.RunOnThread(name, "client thread", nullptr, work);
}

void Machine::NotifyPowerState(std::uintptr_t argument1, std::uintptr_t argument2)
{
    kernel_->NotifyPowerState(argument1, argument2);
}

std::vector<std::string> Machine::DebugOutput() const
{
    return kernel_->DebugOutput();
}

std::string Machine::ServiceAt(const void* address) const
{
    const std::lock_guard lock(framework_->mutex);
    const DriverInstance* instance = framework_->drivers.At(address);
    return instance == nullptr ? std::string() : instance->service;
}

std::int64_t Machine::Now() const
{
    return kernel_->clock.Now();
}

void Machine::AdvanceClock(std::chrono::nanoseconds duration)
{
    constexpr std::int64_t kNanosecondsPerUnit = 100;
    kernel_->clock.Advance(duration.count() / kNanosecondsPerUnit);
}

std::vector<std::int64_t> Machine::Delays() const
{
    return kernel_->Delays();
}

checks::Violations& Machine::violations()
{
    return environment_->violations;
}

checks::FaultPlan& Machine::faults()
{
    return environment_->faults;
}

tracing::Tracing& Machine::tracing()
{
    return *tracing_;
}

Environment& Machine::environment()
{
    return *environment_;
}

framework::Inspector Machine::inspect()
{
    return {};
}

void Machine::NameObject(WDFOBJECT handle, const std::string& name)
{
    const std::lock_guard lock(framework_->mutex);
    if (framework::Object* object = framework_->handles.Peek(handle)) {
        object->name = name;
    }
}

void Machine::RankLock(WDFWAITLOCK handle, unsigned rank)
{
    const std::lock_guard lock(framework_->mutex);
    framework::Object* object = framework_->handles.Peek(handle);
    if (object == nullptr || object->type != framework::ObjectType::kWaitLock) {
        throw HostError("only a wait lock can have a place in the order of locks");
    }
    framework_->lockOrder.Rank(static_cast<framework::WaitLockObject&>(*object), rank);
}

std::uint64_t Machine::SecondDeletes() const
{
    const std::lock_guard lock(framework_->mutex);
    return framework_->objects.SecondDeletes();
}

std::uint64_t Machine::CollectionSteps() const
{
    const std::lock_guard lock(framework_->mutex);
    std::uint64_t steps = 0;
    framework_->handles.ForEach([&steps](const framework::Object& object) {
        if (object.type == framework::ObjectType::kCollection) {
            steps += static_cast<const framework::CollectionObject&>(object).Steps();
        }
    });
    return steps;
}

std::vector<Machine::PoolUse> Machine::PoolInUse() const
{
    std::vector<PoolUse> rows;
    for (const kernel::PoolUseRow& row : kernel_->PoolInUse()) {
        rows.push_back({row.tag, row.blockCount, row.sizeBytes});
    }
    return rows;
}

}  // namespace host
