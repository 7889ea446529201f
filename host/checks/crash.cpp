// The handler runs on an alternate stack, because a driver that ran out of stack faults too. It uses ordinary memory
// and locks, which is safe while driver code faults and may hang when the host itself does; an alarm ends the process
// then.
#include "host/checks/crash.h"

#include "host/environment.h"

#include <signal.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>

namespace host::checks {
namespace {

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

constexpr std::size_t kStackBytes = 64 * 1024;
constexpr unsigned kPatienceSeconds = 5;

const void* ProgramCounter(const void* context)
{
    const auto* state = static_cast<const ucontext_t*>(context);
#if defined(__x86_64__)
    return reinterpret_cast<const void*>(state->uc_mcontext.gregs[REG_RIP]);
#elif defined(__aarch64__)
    return reinterpret_cast<const void*>(state->uc_mcontext.pc);
#endif
}

const char* What(int signal)
{
    switch (signal) {
    case SIGILL:
        return "an illegal instruction";
    case SIGTRAP:
        return "a break instruction";
    default:
        return nullptr;
    }
}

void OnFault(int signal, siginfo_t* information, void* context)
{
    alarm(kPatienceSeconds);
    const void* at = ProgramCounter(context);
    std::string place = "host";
    std::string thread = "?";
    if (Environment::Exists()) {
        place = Environment::Current().modules.Describe(at);
        thread = ThreadState::Current().name;
    }
    if (const char* what = What(signal)) {
        std::fprintf(stderr, "memory fault at %s (%p): %s, on thread \"%s\"\n", place.c_str(), at, what,
                     thread.c_str());
    } else {
        std::fprintf(stderr, "memory fault at %s (%p) touching %p, on thread \"%s\"\n", place.c_str(), at,
                     information->si_addr, thread.c_str());
    }
    if (Environment::Exists()) {
        for (const Violation& violation : Environment::Current().violations.All()) {
            std::fprintf(stderr, "before that: %s\n", violation.Text().c_str());
        }
    }
    std::fflush(stderr);
    _exit(kMemoryFaultExit);
}

// The alternate stack of one thread, for as long as the thread lives.
class AlternateStack {
public:
    AlternateStack() : memory_(mmap(nullptr, kStackBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))
    {
        if (memory_ != MAP_FAILED) {
            stack_t stack{};
            stack.ss_sp = memory_;
            stack.ss_size = kStackBytes;
            sigaltstack(&stack, nullptr);
        }
    }
    ~AlternateStack()
    {
        if (memory_ != MAP_FAILED) {
            stack_t none{};
            none.ss_flags = SS_DISABLE;
            sigaltstack(&none, nullptr);
            munmap(memory_, kStackBytes);
        }
    }
    AlternateStack(const AlternateStack&) = delete;
    AlternateStack& operator=(const AlternateStack&) = delete;

private:
    void* memory_;
};

void InstallHandlers()
{
    struct sigaction action{};
    action.sa_sigaction = OnFault;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESETHAND;
    for (const int signal : {SIGSEGV, SIGBUS, SIGILL, SIGTRAP}) {
        sigaction(signal, &action, nullptr);
    }
}

}  // namespace

void CatchMemoryFaults()
{
    if (!kSanitized) {
        static std::once_flag installed;
        std::call_once(installed, InstallHandlers);
        thread_local AlternateStack stack;
        (void)stack;
    }
}

}  // namespace host::checks
