#include "tests/host/faulty_driver_fixture.h"

#include <dlfcn.h>

#include <filesystem>
#include <fstream>

const WDFFUNC* WdfFunctions_01015;
PWDF_DRIVER_GLOBALS WdfDriverGlobals;

namespace tests {
namespace {

Steps g_steps;

}  // namespace

std::string failingStep;

NTSTATUS NTAPI RecordStep(const char* step)
{
    g_steps.emplace_back(step);
    return step == failingStep ? STATUS_IO_DEVICE_ERROR : STATUS_SUCCESS;
}

FaultyDriverFixture::FaultyDriverFixture(host::MachineOptions options)
    : machine(options), driver(machine.Boot(FAULTY_DRIVER, "faulty"))
{
    TakeTable();
    WdfFunctions_01015 = table.Functions;
    WdfDriverGlobals = table.Globals;
    table.Hooks->Step = RecordStep;
    g_steps.clear();
    failingStep.clear();
}

FaultyDriverFixture::~FaultyDriverFixture()
{
    if (!isDown_) {
        TakeDown();
    }
    EXPECT_EQ(TakeRules(), std::vector<Rule>{}) << Text();
}

void FaultyDriverFixture::EndDevice()
{
    driver.SurpriseRemoveDevice();
    EXPECT_FALSE(driver.RemoveDevice().parked);
}

void FaultyDriverFixture::RenewDevice(void(NTAPI* init)(PWDFDEVICE_INIT init))
{
    EndDevice();
    table.Hooks->Init = init;
    EXPECT_EQ(driver.AddDevice(), STATUS_SUCCESS);
    EXPECT_EQ(driver.StartDevice(), STATUS_SUCCESS);
    TakeTable();
}

void FaultyDriverFixture::TakeTable()
{
    EXPECT_EQ(driver.QueryInterface(kFaultyInterface, std::as_writable_bytes(std::span(&table, 1)), 2), STATUS_SUCCESS);
}

void FaultyDriverFixture::TakeDown()
{
    isDown_ = true;
    if (driver.HasDevice()) {
        EndDevice();
    }
    driver.Unload();
}

void NoteFaulty(Rule rule)
{
    const std::filesystem::path folder = ZEPN_RULES_PROVEN;
    std::filesystem::create_directories(folder);
    std::ofstream(folder / Name(rule)) << "";
}

std::vector<Rule> FaultyDriverFixture::TakeRules()
{
    text_.clear();
    std::vector<Rule> rules;
    for (const Violation& violation : machine.violations().Take()) {
        rules.push_back(violation.rule);
        text_ += violation.Text() + "\n";
    }
    return rules;
}

Violation FaultyDriverFixture::TakeFaulty(Rule rule, const std::string& place, std::size_t count)
{
    const std::vector<Violation> all = machine.violations().All();
    EXPECT_EQ(TakeRules(), std::vector(count, rule)) << Text();
    if (all.empty()) {
        return {};
    }
    const std::string& caller = all[0].caller;  // a routine itself, or a place in it
    EXPECT_EQ(caller.substr(0, caller.find('+')), place.empty() ? "host" : "faulty.so!" + place);
    if (!testing::Test::HasFailure()) {
        NoteFaulty(rule);
    }
    return all[0];
}

void FaultyDriverFixture::Call(const std::string& scenario) const
{
    Dl_info module{};
    ASSERT_NE(dladdr(table.Hooks, &module), 0);
    void* const library = dlopen(module.dli_fname, RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(library, nullptr) << dlerror();
    auto* const run = reinterpret_cast<void (*)()>(dlsym(library, scenario.c_str()));
    dlclose(library);  // the host has it open
    ASSERT_NE(run, nullptr) << scenario;
    run();
}

void FaultyDriverFixture::OnThread(const std::string& name, const std::function<void()>& work)
{
    const host::Outcome outcome = machine.OnThread(name, work);
    EXPECT_FALSE(outcome.parked) << outcome.reason;
}

std::string FaultyDriverFixture::Park(const std::string& name, const std::function<void()>& work)
{
    const host::Outcome outcome = machine.OnThread(name, work);
    EXPECT_TRUE(outcome.parked);
    return outcome.reason;
}

Steps FaultyDriverFixture::TakeSteps()
{
    return std::exchange(g_steps, {});
}

WDFSPINLOCK NewSpinLock()
{
    WDFSPINLOCK lock = nullptr;
    EXPECT_EQ(WdfSpinLockCreate(nullptr, &lock), STATUS_SUCCESS);
    return lock;
}

void TakeBoth(WDFWAITLOCK outer, WDFWAITLOCK inner)
{
    (void)WdfWaitLockAcquire(outer, nullptr);
    (void)WdfWaitLockAcquire(inner, nullptr);
    WdfWaitLockRelease(inner);
    WdfWaitLockRelease(outer);
}

}  // namespace tests
