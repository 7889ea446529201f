#include "bench/instruction_counter.h"

#include "host/schedule/single_step.h"

#include <csignal>
#include <stdexcept>
#include <ucontext.h>
#include <vector>

namespace bench {

#if defined(__x86_64__)

namespace {

// Plain words: the handler must not call anything.
std::uint64_t g_base;
std::uint64_t g_size;
std::uint32_t* g_steps;  // one for each byte of the module

void OnStep(int, siginfo_t*, void* context)
{
    const auto* frame = static_cast<const ucontext_t*>(context);
    const auto address = static_cast<std::uint64_t>(frame->uc_mcontext.gregs[REG_RIP]);
    if (address - g_base < g_size) {
        __atomic_fetch_add(&g_steps[address - g_base], 1, __ATOMIC_RELAXED);
    }
}

// Switches on the system threads that run work items; one that counts already goes on counting.
class Stepper final : public host::schedule::Controller {
public:
    void OnYield(host::schedule::YieldKind kind, const char*) override
    {
        if (kind == host::schedule::YieldKind::kThreadBegins) {
            Begin();
        } else if (kind == host::schedule::YieldKind::kThreadEnds) {
            End();
        }
    }
    static void Begin()
    {
        ++t_depth;
        host::schedule::BeginSingleSteps();
    }
    static void End()
    {
        if (--t_depth == 0) {
            host::schedule::EndSingleSteps();
        }
    }
    void OnBlock(std::unique_lock<std::mutex>& lock) override
    {
        lock.unlock();
        lock.lock();
    }

private:
    static inline thread_local unsigned t_depth = 0;
};

Stepper g_stepper;
std::vector<std::uint32_t> g_memory;

}  // namespace

InstructionCounter::InstructionCounter(const host::Driver& driver)
{
    if (g_steps != nullptr) {
        throw std::logic_error("one instruction counter at a time");
    }
    g_base = reinterpret_cast<std::uint64_t>(driver.ImageBase());
    g_size = driver.ImageSizeBytes();
    g_memory.assign(g_size, 0);
    g_steps = g_memory.data();
}

InstructionCounter::~InstructionCounter()
{
    g_steps = nullptr;
}

std::uint64_t InstructionCounter::Count(const std::function<void()>& work)
{
    std::fill(g_memory.begin(), g_memory.end(), 0);
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_sigaction = OnStep;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigaction(SIGTRAP, &action, &before);
    host::schedule::SetController(&g_stepper);
    Stepper::Begin();
    work();
    Stepper::End();
    host::schedule::SetController(nullptr);
    sigaction(SIGTRAP, &before, nullptr);
    std::uint64_t sum = 0;
    for (const std::uint32_t steps : g_memory) {
        sum += steps;
    }
    return sum;
}

std::map<std::uint64_t, std::uint64_t> InstructionCounter::ByOffset() const
{
    std::map<std::uint64_t, std::uint64_t> counts;
    for (std::uint64_t offset = 0; offset < g_size; ++offset) {
        if (g_memory[offset] != 0) {
            counts[offset] = g_memory[offset];
        }
    }
    return counts;
}

bool InstructionCounter::IsSupported()
{
    return true;
}

#else

InstructionCounter::InstructionCounter(const host::Driver&)
{
}
InstructionCounter::~InstructionCounter() = default;
std::uint64_t InstructionCounter::Count(const std::function<void()>&)
{
    throw std::runtime_error("instructions are counted on x86-64 machines only");
}
std::map<std::uint64_t, std::uint64_t> InstructionCounter::ByOffset() const
{
    return {};
}
bool InstructionCounter::IsSupported()
{
    return false;
}

#endif

}  // namespace bench
