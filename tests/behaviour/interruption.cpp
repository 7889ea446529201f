#include "tests/behaviour/interruption.h"

#include "host/schedule/single_step.h"

#include <csignal>
#include <stdexcept>
#include <ucontext.h>

namespace tests {

#if defined(__x86_64__)

namespace {

struct Stepping {
    std::uint64_t base;
    std::uint64_t sizeBytes;
    unsigned seen;
    const Interruption* interruption;
};
Stepping g_stepping;

// The action is an ordinary function: the interrupted code is the driver's, so no lock of the host's is held.
void OnStep(int, siginfo_t*, void* context)
{
    const auto* frame = static_cast<const ucontext_t*>(context);
    const auto address = static_cast<std::uint64_t>(frame->uc_mcontext.gregs[REG_RIP]);
    if (address - g_stepping.base < g_stepping.sizeBytes &&
        ++g_stepping.seen == g_stepping.interruption->instruction) {
        g_stepping.interruption->action();
    }
}

}  // namespace

unsigned RunInterrupted(host::Machine& machine, const host::Driver& driver, const Interruption& interruption,
                        const std::function<void()>& work)
{
    g_stepping = {.base = reinterpret_cast<std::uint64_t>(driver.ImageBase()),
                  .sizeBytes = driver.ImageSizeBytes(),
                  .seen = 0,
                  .interruption = &interruption};
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_sigaction = OnStep;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGTRAP, &action, &before);
    const std::uint64_t caller = host::ThreadState::Current().id;
    machine.environment().SetObserver([&, calls = 0u](const host::ObservedCall& call) mutable {
        if (host::ThreadState::Current().id == caller && call.function == std::string_view(interruption.function) &&
            calls++ == interruption.skip) {
            host::schedule::BeginSingleSteps();
        }
    });
    work();
    host::schedule::EndSingleSteps();
    machine.environment().SetObserver(nullptr);
    sigaction(SIGTRAP, &before, nullptr);
    return g_stepping.seen;
}

void EndInterruption()
{
    host::schedule::EndSingleSteps();
}

#else

unsigned RunInterrupted(host::Machine&, const host::Driver&, const Interruption&, const std::function<void()>&)
{
    throw std::logic_error("driver code can be interrupted on x86-64 machines only");
}

void EndInterruption()
{
}

#endif

}  // namespace tests
