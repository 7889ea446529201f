// The handler runs on an alternate stack, because a driver that ran out of stack faults too. It uses ordinary memory
// and locks, which is safe while driver code faults and may hang when the host itself does; an alarm ends the process
// then. It may be entered anew while it prints the crash contexts: each is removed before it is printed, so that it
// comes to an end.
#include "host/checks/crash.h"

#include "host/checks/call_path.h"
#include "host/checks/fast_fail.h"
#include "host/checks/source_lines.h"
#include "host/checks/watchdog.h"
#include "host/environment.h"

#include <signal.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define HOST_SANITIZED
#include <sanitizer/common_interface_defs.h>

// libFuzzer's own last act is to write down its input: there it stays the only one.
extern "C" __attribute__((weak)) int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size);
#endif
#endif

namespace host::checks {
namespace {

#if defined(HOST_SANITIZED)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

constexpr std::size_t kStackBytes = 256 * 1024;
constexpr unsigned kWatchdogSeconds = 30;

std::atomic<CrashContext*> g_crashContexts{nullptr};  // the newest

// The thread that reports how the process ends. Others that fault meanwhile wait until it has ended the process.
std::atomic<pid_t> g_reporter{0};

// Whether the calling thread reports already; returns only to the one that does.
bool ReportsAlready()
{
    pid_t nobody = 0;
    if (g_reporter.compare_exchange_strong(nobody, gettid()) || nobody == gettid()) {
        return nobody != 0;
    }
    for (;;) {
        pause();
    }
}

const void* ProgramCounter(const void* context)
{
    const auto* state = static_cast<const ucontext_t*>(context);
#if defined(__x86_64__)
    return reinterpret_cast<const void*>(state->uc_mcontext.gregs[REG_RIP]);
#elif defined(__aarch64__)
    return reinterpret_cast<const void*>(state->uc_mcontext.pc);
#endif
}

// A call that led into memory that is no code: puts the thread back into the call's instruction. Nothing was pushed
// since.
void UndoCall(void* context)
{
    auto* state = static_cast<ucontext_t*>(context);
#if defined(__x86_64__)
    greg_t* registers = state->uc_mcontext.gregs;
    registers[REG_RIP] = *reinterpret_cast<const greg_t*>(registers[REG_RSP]) - 1;
    registers[REG_RSP] += sizeof(greg_t);
#elif defined(__aarch64__)
    constexpr unsigned kLinkRegister = 30;
    state->uc_mcontext.pc = state->uc_mcontext.regs[kLinkRegister] - 1;
#endif
}

// The place of a fault as a sentence names it: the driver's code or, where host code faults for a driver, or a driver
// calls what is no code, the driver code that made the call. What led there is left in `path`. The thread never goes on
// from where it faulted.
std::string PlaceOf(const Modules& modules, const siginfo_t& information, const void* at, void* context,
                    std::vector<CodePlace>& path)
{
    const bool isNoCode = information.si_addr == at;
    if (isNoCode) {
        UndoCall(context);
    }
    for (const void* address : CallPath(modules)) {
        path.push_back(*modules.PlaceOf(address));
    }
    const std::string caller = path.empty() ? "" : ", called by " + path.back().Text();
    if (const std::optional<CodePlace> place = modules.PlaceOf(at)) {
        if (isNoCode) {
            path.push_back(*place);
        }
        return place->Text();
    }
    return (isNoCode && !path.empty() ? "no code" : "host") + caller;
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

void ReportFault(int signal, const siginfo_t& information, const void* at, void* context)
{
    std::string place = "host";
    std::string thread = "?";
    std::vector<CodePlace> path;
    if (Environment::Exists()) {
        place = PlaceOf(Environment::Current().modules, information, at, context, path);
        thread = ThreadState::Current().name;
    }
    if (const char* what = What(signal)) {
        std::fprintf(stderr, "memory fault at %s (%p): %s, on thread \"%s\"\n", place.c_str(), at, what,
                     thread.c_str());
    } else {
        std::fprintf(stderr, "memory fault at %s (%p) touching %p, on thread \"%s\"\n", place.c_str(), at,
                     information.si_addr, thread.c_str());
    }
    if (!path.empty()) {
        std::fprintf(stderr, "  by %s\n", PathText(path).c_str());
    }
    if (Environment::Exists() && Environment::Current().findFreed) {
        const Environment& environment = Environment::Current();
        if (const auto freed = environment.findFreed(information.si_addr)) {
            const std::string by = PathText(environment.PlacesOf(freed->freedBy));
            std::fprintf(stderr, "  in a block of %zu bytes that was freed%s%s\n", freed->sizeBytes,
                         by.empty() ? "" : " by ", by.c_str());
        }
    }
    if (Environment::Exists()) {
        for (const Violation& violation : Environment::Current().violations.All()) {
            std::fprintf(stderr, "before that: %s\n", violation.FullText().c_str());
        }
    }
}

// A watchdog may have taken the alarm for itself.
void SetAlarm()
{
    signal(SIGALRM, SIG_DFL);
    alarm(kWatchdogSeconds);
}

void OnFault(int signal, siginfo_t* information, void* context)
{
    EndFaultingWalk();
    ReportFastFail(ProgramCounter(context), context);
    SetAlarm();
    if (ReportsAlready()) {
        std::fprintf(stderr, "another fault while the first is reported\n");
    } else {
        ReportFault(signal, *information, ProgramCounter(context), context);
    }
    PrintCrashContexts();
    std::fflush(stderr);
    _exit(kMemoryFaultExit);
}

// Returns, and abort goes on to end the process as ever; one inside a crash context ends it here.
void OnAbort(int)
{
    SetAlarm();
    const bool again = ReportsAlready();
    PrintCrashContexts();
    std::fflush(stderr);
    if (again) {
        _exit(kMemoryFaultExit);
    }
}

// The alternate stack of one thread, for as long as the thread exists.
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
#if defined(HOST_SANITIZED)
    if (LLVMFuzzerTestOneInput == nullptr) {
        __sanitizer_set_death_callback(PrintCrashContexts);
    }
#endif
    if (!kSanitized) {
        struct sigaction action{};
        action.sa_sigaction = OnFault;
        action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
        for (const int signal : {SIGSEGV, SIGBUS, SIGILL, SIGTRAP}) {
            sigaction(signal, &action, nullptr);
        }
        struct sigaction onAbort{};
        onAbort.sa_handler = OnAbort;
        onAbort.sa_flags = SA_ONSTACK;
        sigaction(SIGABRT, &onAbort, nullptr);
    }
}

}  // namespace

void CatchMemoryFaults()
{
    static std::once_flag installed;
    std::call_once(installed, InstallHandlers);
    if (!kSanitized) {
        thread_local AlternateStack stack;
        (void)stack;
    }
}

CrashContext::CrashContext(std::function<std::string()> describe)
    : describe_(std::move(describe)), outer_(g_crashContexts.load(std::memory_order_relaxed))
{
    Watchdog::Progress();
    g_crashContexts.store(this, std::memory_order_release);
}

CrashContext::~CrashContext()
{
    g_crashContexts.store(outer_, std::memory_order_release);
}

void PrintCrashContexts()
{
    while (CrashContext* context = g_crashContexts.load(std::memory_order_acquire)) {
        g_crashContexts.store(context->outer_, std::memory_order_release);
        std::fprintf(stderr, "%s\n", context->describe_().c_str());
    }
}

}  // namespace host::checks
