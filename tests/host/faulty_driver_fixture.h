// A machine with the faulty driver started. The test may call the framework as that driver: wdf.h's functions go
// through the driver's own table and globals, which every new fixture puts in place.
#pragma once

#include "host/machine.h"
#include "tests/faulty_drivers/creation.h"
#include "tests/kit/death.h"
#include "tests/kit/texts.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tests {

using host::checks::Rule;
using host::checks::Violation;
using Steps = std::vector<std::string>;

#if defined(ZEPN_SANITIZED)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

// Writes a mark that the faulty driver broke this rule in its own code and was caught, for the test
// every_rule_has_a_faulty_driver.
void NoteFaulty(Rule rule);

class FaultyDriverFixture {
public:
    explicit FaultyDriverFixture(host::MachineOptions options = {});

    // Takes the driver down unless that is done, and expects that nothing is left to report.
    ~FaultyDriverFixture();
    FaultyDriverFixture(const FaultyDriverFixture&) = delete;
    FaultyDriverFixture& operator=(const FaultyDriverFixture&) = delete;

    // Surprise removal and removal; with a new device after it, which `init` may have set up.
    void EndDevice();
    void RenewDevice(void(NTAPI* init)(PWDFDEVICE_INIT init) = [](PWDFDEVICE_INIT) NTAPI {});

    // The same and unload.
    void TakeDown();

    // The driver cannot be taken down: one of its threads is parked.
    void Abandon() { isDown_ = true; }

    // The rules of all violations so far, oldest first, which are taken; Text shows them.
    std::vector<Rule> TakeRules();
    [[nodiscard]] const std::string& Text() const { return text_; }

    // Takes all violations: they are of this rule, so many, and the first, which it returns, names the place in the
    // driver that broke it: a function of the driver's, or none (empty) for what the driver has not done.
    Violation TakeFaulty(Rule rule, const std::string& place, std::size_t count = 1);

    // Calls a function of the driver that breaks a rule: one of tests/faulty_drivers/scenarios.cpp, by its name.
    void Call(const std::string& scenario) const;

    // Runs driver code on a thread of its own and expects that it returns.
    void OnThread(const std::string& name, const std::function<void()>& work);
    // ... that it is parked. Gives the reason.
    std::string Park(const std::string& name, const std::function<void()>& work);

    // What the driver's power and plug-and-play callbacks were called for since the last call.
    Steps TakeSteps();

    host::Machine machine;
    host::Driver& driver;
    FaultyTable table{};

private:
    void TakeTable();

    std::string text_;
    bool isDown_ = false;
};

// The base of cases that need such a machine as it is.
class FaultyDriverTest : public testing::Test, public FaultyDriverFixture {};

// The driver's callbacks for plug and play note their steps here, and fail at one of them; empty: at none.
NTSTATUS NTAPI RecordStep(const char* step);
extern std::string failingStep;

[[nodiscard]] WDFSPINLOCK NewSpinLock();
// And gives them back.
void TakeBoth(WDFWAITLOCK outer, WDFWAITLOCK inner);

}  // namespace tests
