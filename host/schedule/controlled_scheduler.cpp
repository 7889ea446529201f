#include "host/schedule/controlled_scheduler.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string_view>
#include <thread>

namespace host::schedule {
namespace {

constexpr unsigned kNoThread = ~0u;
constexpr const char* kEveryCall = "calls";
constexpr const char* kLocksOnly = "locks";

// Which of the scheduler's threads the calling one runs for.
unsigned& Self()
{
    return ThreadState::Current().scheduledAs;
}

bool IsLockOrWorkItem(std::string_view what)
{
    return what.starts_with("WdfWaitLock") || what.starts_with("WdfWorkItem") ||
           what.find("SpinLock") != std::string_view::npos || what == "KeSetEvent" || what == "KeWaitForSingleObject";
}

// What may end another thread's wait.
bool MayRelease(std::string_view what)
{
    return what == "WdfWaitLockRelease" || what == "WdfSpinLockRelease" || what == "WdfObjectDelete" ||
           what == "WdfWorkItemEnqueue" || what == "KeSetEvent" || what.starts_with("KeReleaseSpinLock");
}

bool IsEveryCall(const SchedulerOptions& options)
{
    return options.everyCall || options.replay.starts_with(kEveryCall);
}

}  // namespace

ControlledScheduler::ControlledScheduler(SchedulerOptions options)
    : options_(std::move(options)), random_(options_.seed)
{
    std::istringstream words(options_.replay);
    std::string word;
    while (words >> word) {
        unsigned point = 0;
        unsigned thread = 0;
        if (std::sscanf(word.c_str(), "%u>%u", &point, &thread) == 2) {
            replay_.emplace_back(point, thread);
        } else if (word != kEveryCall && word != kLocksOnly) {
            throw HostError("schedule \"" + options_.replay + "\": \"" + word + "\" is not like 12>1");
        }
    }
}

ControlledScheduler::~ControlledScheduler()
{
    SetController(nullptr);
}

bool ControlledScheduler::Next()
{
    if (!options_.replay.empty() || options_.random != 0) {
        if (count_ >= std::max(1u, options_.random)) {
            return false;
        }
        changePoints_.clear();
        for (unsigned change = 0; options_.random != 0 && change < options_.preemptions; ++change) {
            changePoints_.push_back(static_cast<unsigned>(random_() % longest_));
        }
        choices_.clear();
        ++count_;
        return true;
    }
    if (count_ >= options_.maximumSchedules) {
        return false;
    }
    if (count_ != 0) {
        // The deepest point that has an untried choice within the bound.
        unsigned used = 0;
        std::vector<unsigned> usedBefore;
        for (const Choice& choice : choices_) {
            usedBefore.push_back(used);
            used += choice.canStay && choice.taken != 0 ? 1 : 0;
        }
        while (!choices_.empty()) {
            Choice& choice = choices_.back();
            const bool mayPreempt = !choice.canStay || usedBefore[choices_.size() - 1] < options_.preemptions;
            if (choice.taken + 1 < choice.enabled.size() && mayPreempt) {
                ++choice.taken;
                break;
            }
            choices_.pop_back();
        }
        if (choices_.empty()) {
            isComplete_ = true;
            return false;
        }
    }
    expected_ = std::move(choices_);
    choices_.clear();
    ++count_;
    return true;
}

std::vector<Outcome> ControlledScheduler::Run(Machine& machine, const std::vector<Thread>& threads)
{
    states_.assign(threads.size(), State::kReady);
    priorities_.resize(threads.size());
    for (unsigned index = 0; index < threads.size(); ++index) {
        priorities_[index] = options_.preemptions + 1 + index;
    }
    std::shuffle(priorities_.begin(), priorities_.end(), random_);
    released_.assign(threads.size(), false);
    idle_ = 0;
    current_ = kNoThread;
    SetController(this);

    left_.clear();
    std::vector<Outcome> outcomes(threads.size());
    std::vector<std::thread> runners;
    for (unsigned index = 0; index < threads.size(); ++index) {
        runners.emplace_back([this, &machine, &threads, &outcomes, index] {
            {
                std::unique_lock lock(mutex_);
                turn_.wait(lock, [&] { return current_ == index; });
            }
            outcomes[index] = machine.OnThread(threads[index].name, threads[index].work);
            // It may have parked: its turn ends all the same.
            const IdleScope idle;
            std::unique_lock lock(mutex_);
            states_[index] = State::kFinished;
            WakeBlocked();
            current_ = Choose(index);
            turn_.notify_all();
        });
    }
    {
        const std::lock_guard lock(mutex_);
        current_ = Choose(kNoThread);
        turn_.notify_all();
    }
    {
        const IdleScope idle;
        for (std::thread& runner : runners) {
            runner.join();
        }
    }
    SetController(nullptr);
    longest_ = std::max(longest_, static_cast<unsigned>(choices_.size()));
    CheckKept();
    return outcomes;
}

// The schedule was played to its last choice, each where it said.
void ControlledScheduler::CheckKept() const
{
    std::string where = left_;
    std::size_t points = expected_.size();
    for (const auto& [point, thread] : replay_) {
        points = std::max<std::size_t>(points, point + 1);
    }
    if (where.empty() && choices_.size() < points) {
        where = "there were only " + std::to_string(choices_.size()) + " scheduling points";
    }
    if (!where.empty()) {
        throw HostError("schedule \"" + (options_.replay.empty() ? Schedule() : options_.replay) +
                        "\" was left: " + where);
    }
}

void ControlledScheduler::OnYield(YieldKind kind, const char* what)
{
    if (kind == YieldKind::kThreadBegins) {
        // Work that a thread of ours hands out and waits for runs in its name.
        const std::lock_guard lock(mutex_);
        Self() = current_;
        return;
    }
    if (kind == YieldKind::kThreadEnds) {
        if (Self() != kNoThread) {
            const std::lock_guard lock(mutex_);
            released_[Self()] = true;  // a flush may wait for this run's end
        }
        Self() = kNoThread;
        return;
    }
    if (Self() == kNoThread) {
        return;
    }
    std::unique_lock lock(mutex_);
    idle_ = 0;
    // The call of the point before has acted by now.
    if (released_[Self()]) {
        WakeBlocked();
    }
    released_[Self()] = MayRelease(what);
    if (kind == YieldKind::kClientCode || IsEveryCall(options_) || IsLockOrWorkItem(what)) {
        Switch(lock, Self());
    }
}

void ControlledScheduler::OnBlock(std::unique_lock<std::mutex>& hostLock)
{
    if (Self() == kNoThread) {
        hostLock.unlock();
        std::this_thread::yield();
        hostLock.lock();
        return;
    }
    hostLock.unlock();
    {
        std::unique_lock lock(mutex_);
        if (released_[Self()]) {  // what it did before it had to wait
            released_[Self()] = false;
            WakeBlocked();
        }
        states_[Self()] = State::kBlocked;
        if (std::ranges::find(states_, State::kReady) == states_.end()) {
            // Nobody can go on: all look again, once each; what has no end is found by the host, which parks it.
            if (++idle_ > 4 * states_.size()) {
                std::fprintf(stderr, "controlled scheduler: all threads wait for ever in schedule \"%s\"\n",
                             Schedule().c_str());
                std::abort();
            }
            WakeBlocked();
        }
        Switch(lock, Self());
    }
    hostLock.lock();
}

void ControlledScheduler::WakeBlocked()
{
    std::ranges::replace(states_, State::kBlocked, State::kReady);
}

void ControlledScheduler::Switch(std::unique_lock<std::mutex>& lock, unsigned self)
{
    current_ = Choose(self);
    if (current_ != self) {
        turn_.notify_all();
        turn_.wait(lock, [&] { return current_ == self; });
    }
}

unsigned ControlledScheduler::Choose(unsigned self)
{
    Choice choice;
    if (self != kNoThread && states_[self] == State::kReady) {
        choice.canStay = true;
        choice.enabled.push_back(self);
    }
    for (unsigned index = 0; index < states_.size(); ++index) {
        if (index != self && states_[index] == State::kReady) {
            choice.enabled.push_back(index);
        }
    }
    if (choice.enabled.empty()) {
        return kNoThread;  // all have finished
    }
    if (choice.enabled.size() == 1) {
        return choice.enabled.front();
    }
    choice.taken = Pick(choice);
    choices_.push_back(choice);
    return choice.enabled[choice.taken];
}

std::size_t ControlledScheduler::Pick(const Choice& choice)
{
    const std::size_t point = choices_.size();
    if (!options_.replay.empty()) {
        const auto ordered = std::ranges::find(replay_, point, &std::pair<unsigned, unsigned>::first);
        if (ordered == replay_.end()) {
            return 0;
        }
        const auto found = std::ranges::find(choice.enabled, ordered->second);
        if (found == choice.enabled.end()) {
            left_ =
                "at point " + std::to_string(point) + " thread " + std::to_string(ordered->second) + " cannot go on";
            return 0;
        }
        return static_cast<std::size_t>(found - choice.enabled.begin());
    }
    if (options_.random != 0) {
        const auto highest = [&] {
            return std::ranges::max_element(choice.enabled, {}, [&](unsigned thread) { return priorities_[thread]; });
        };
        for (unsigned change = 0; change < changePoints_.size(); ++change) {
            if (changePoints_[change] == point) {
                priorities_[*highest()] = change;
            }
        }
        return static_cast<std::size_t>(highest() - choice.enabled.begin());
    }
    if (point >= expected_.size()) {
        return 0;
    }
    if (choice.enabled != expected_[point].enabled && left_.empty()) {
        left_ = "at point " + std::to_string(point) + " other threads can go on than the time before";
    }
    return std::min(expected_[point].taken, choice.enabled.size() - 1);
}

std::string ControlledScheduler::Schedule() const
{
    std::string text = IsEveryCall(options_) ? kEveryCall : kLocksOnly;
    for (std::size_t point = 0; point < choices_.size(); ++point) {
        if (choices_[point].taken != 0) {
            text += " " + std::to_string(point) + ">" + std::to_string(choices_[point].enabled[choices_[point].taken]);
        }
    }
    return text;
}

}  // namespace host::schedule
