#include "host/environment.h"

#include "host/armed.h"
#include "host/schedule/yield.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>

namespace host {
namespace {

Environment* g_current = nullptr;
std::atomic<std::uint64_t> g_nextThreadId{1};

struct KnownThreads {
    std::mutex mutex;
    std::map<std::uint64_t, const ThreadState*> byId;
};

KnownThreads& TheThreads()
{
    static auto* threads = new KnownThreads;  // threads may outlive everything
    return *threads;
}

}  // namespace

Environment::Environment(MachineOptions machineOptions) : options(machineOptions)
{
    if (g_current != nullptr) {
        throw HostError("a machine exists already; one at a time");
    }
    g_current = this;
    ThreadState::Current().BeginWork(ThreadState::Current().name);  // whatever hung on it in an earlier machine
#if defined(HOST_THREAD_SANITIZER)
    schedule::onlyDriverLocks = options.onlyDriverLocks;
    Arm(kArmedHiding, options.onlyDriverLocks);
#endif
    Arm(kArmedNoMachine, false);
}

Environment::~Environment()
{
    for (const Armed ended : {kArmedObserver, kArmedFaults, kArmedHiding, kArmedStrangers}) {
        Arm(ended, false);
    }
    Arm(kArmedNoMachine, true);
    g_current = nullptr;
}

Environment& Environment::Current()
{
    if (g_current == nullptr) {
        std::fprintf(stderr, "host: driver code called the platform while no machine exists\n");
        std::abort();
    }
    return *g_current;
}

bool Environment::Exists()
{
    return g_current != nullptr;
}

void Environment::SetObserver(Observer observer)
{
    observer_ = std::move(observer);
    Arm(kArmedObserver, observer_ != nullptr);
}

checks::Violation Environment::ViolationAt(checks::Rule rule, std::string function, std::string message,
                                           const void* caller) const
{
    checks::Addresses path = checks::CallPath(modules);
    // A place that the thread does not stand in: a routine that has returned.
    if (caller != nullptr && std::ranges::find(path, caller) == path.end()) {
        path.assign(1, caller);
    }
    checks::Violation violation{.rule = rule,
                                .function = std::move(function),
                                .message = std::move(message),
                                .caller = modules.Describe(caller),
                                .thread = ThreadState::Current().name};
    violation.path = PlacesOf(path);
    return violation;
}

std::vector<checks::CodePlace> Environment::PlacesOf(const checks::Addresses& path) const
{
    std::vector<checks::CodePlace> places;
    for (const void* address : path) {
        if (std::optional<checks::CodePlace> place = modules.PlaceOf(address)) {
            places.push_back(std::move(*place));
        }
    }
    return places;
}

void Environment::AddOrigins(checks::Violation& violation, const std::vector<Made>& origins) const
{
    for (const Made& made : origins) {
        if (std::vector<checks::CodePlace> path = PlacesOf(made.path); !path.empty()) {
            violation.origins.push_back({made.how, std::move(path)});
        }
    }
}

checks::Addresses Environment::PathNow(const void* caller) const
{
    checks::Addresses path = options.recordsPaths ? checks::CallPath(modules) : checks::Addresses();
    if (path.empty() && caller != nullptr) {
        path.push_back(caller);
    }
    return path;
}

void Environment::Report(checks::Rule rule, std::string function, std::string message, const void* caller,
                         const std::vector<Made>& origins)
{
    checks::Violation violation = ViolationAt(rule, std::move(function), std::move(message), caller);
    AddOrigins(violation, origins);
    Add(std::move(violation));
}

void Environment::ReportCallback(checks::Rule rule, std::string name, std::string message, const void* routine,
                                 const std::vector<Made>& origins)
{
    checks::Violation violation = ViolationAt(rule, std::move(name), std::move(message), routine);
    violation.isOfCallback = true;
    AddOrigins(violation, origins);
    Add(std::move(violation));
}

void Environment::ReportLeft(checks::Rule rule, std::string message, const std::vector<Made>& origins)
{
    checks::Violation violation{.rule = rule,
                                .function = checks::kAtUnload,
                                .message = std::move(message),
                                .caller = "host",
                                .thread = ThreadState::Current().name};
    AddOrigins(violation, origins);
    if (!violation.origins.empty()) {
        violation.caller = violation.origins.front().path.back().Text();
    }
    Add(std::move(violation));
}

void Environment::Add(checks::Violation violation)
{
    if (hasHung && violation.function == checks::kAtUnload) {
        violations.AddConsequence(std::move(violation));
    } else {
        violations.Add(std::move(violation));
    }
}

void Environment::ReportWait(checks::Rule rule, std::string function, std::string message, const void* caller,
                             std::string waitsFor, const void* heldSince)
{
    checks::Violation violation = ViolationAt(rule, std::move(function), std::move(message), caller);
    violation.waitsFor = std::move(waitsFor);
    violation.heldSince = modules.PlaceOf(heldSince);
    violations.Add(std::move(violation));
}

ThreadState::ThreadState() : id(g_nextThreadId++)
{
    const std::lock_guard lock(TheThreads().mutex);
    TheThreads().byId[id] = this;
}

ThreadState::~ThreadState()
{
    const std::lock_guard lock(TheThreads().mutex);
    TheThreads().byId.erase(id);
}

void ThreadState::Rename(const std::string& newName)
{
    const std::lock_guard lock(TheThreads().mutex);
    name = newName;
}

void ThreadState::BeginWork(const std::string& newName)
{
    Rename(newName);
    irql = PASSIVE_LEVEL;
    criticalRegions = 0;
    heldLocks.clear();
    scheduledAs = ~0u;
}

std::string ThreadState::NameOf(std::uint64_t id)
{
    const std::lock_guard lock(TheThreads().mutex);
    const auto found = TheThreads().byId.find(id);
    return found == TheThreads().byId.end() ? "a thread that has ended" : found->second->name;
}

std::vector<std::uint64_t> ThreadState::ThatRun()
{
    const std::lock_guard lock(TheThreads().mutex);
    std::vector<std::uint64_t> ids;
    for (const auto& [id, state] : TheThreads().byId) {
        if (state->isSystemThread_ && !state->isIdle_) {
            ids.push_back(id);
        }
    }
    return ids;
}

ThreadState& ThreadState::OfSystemThread()
{
    thread_local ThreadState state;
    current_ = &state;
    const std::lock_guard lock(TheThreads().mutex);
    state.isSystemThread_ = true;
    return state;
}

IdleScope::IdleScope() : state_(ThreadState::Current()), before_(state_.isIdle_)
{
    const std::lock_guard lock(TheThreads().mutex);
    state_.isIdle_ = true;
}

IdleScope::~IdleScope()
{
    const std::lock_guard lock(TheThreads().mutex);
    state_.isIdle_ = before_;
}

ScopedIrql::ScopedIrql(KIRQL level) : before_(ThreadState::Current().irql)
{
    ThreadState::Current().irql = level;
}

ScopedIrql::~ScopedIrql()
{
    ThreadState::Current().irql = before_;
}

PlatformCall::PlatformCall(const char* function, const void* caller, KIRQL maximum, const char* detail)
    : function_(function), caller_(caller)
{
    schedule::YieldPoint(schedule::YieldKind::kPlatformCall, function);
    Environment& environment = Environment::Current();
    const KIRQL level = ThreadState::Current().irql;
    if (level > maximum) {
        Violation(checks::Rule::kIrql,
                  "called at IRQL " + std::to_string(level) + ", allowed up to " + std::to_string(maximum));
    } else if (level > APC_LEVEL && environment.pagedCode.Contains(caller)) {
        Violation(checks::Rule::kIrql, "called at IRQL " + std::to_string(level) +
                                           " from code that may be paged out, which runs up to " +
                                           std::to_string(APC_LEVEL));
    }
    const unsigned armed = theArmed.load(std::memory_order_relaxed);
    if ((armed & kArmedObserver) != 0) {
        environment.observer()({function, caller, detail});
    }
    if ((armed & kArmedFaults) != 0) {
        fault_ = environment.faults.Inject(
            function,
            [&] {
                return checks::CallSite{environment.modules.NameAt(caller), environment.modules.FunctionAt(caller)};
            },
            detail);
        if (fault_ && environment.onFault) {
            environment.onFault(*fault_, caller);
        }
    }
}

void PlatformCall::Violation(checks::Rule rule, std::string message, const std::vector<Made>& origins) const
{
    Environment::Current().Report(rule, function_, std::move(message), caller_, origins);
}

}  // namespace host
