#include "tests/behaviour/interruption.h"

#include <string_view>

namespace tests {

unsigned RunInterrupted(host::Machine& machine, const host::Driver& driver, const Interruption& interruption,
                        const std::function<void()>& work)
{
    SingleSteps steps(driver.ImageBase(), driver.ImageSizeBytes(), interruption.instruction, interruption.action);
    const std::uint64_t caller = host::ThreadState::Current().id;
    machine.environment().SetObserver([&, calls = 0u](const host::ObservedCall& call) mutable {
        if (host::ThreadState::Current().id == caller && call.function == std::string_view(interruption.function) &&
            calls++ == interruption.skip) {
            SingleSteps::Begin();
        }
    });
    work();
    SingleSteps::End();
    machine.environment().SetObserver(nullptr);
    return steps.Seen();
}

}  // namespace tests
