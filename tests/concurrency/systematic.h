// Systematic concurrency testing: a scenario is played anew, in a fixture of its own, for every schedule.
//
// A failure names its schedule; ZEPN_SCHEDULE="two clients post, one run: locks 12>1" plays that one alone.
// ZEPN_SCHEDULES=1000 plays so many random ones of each scenario.
#pragma once

#include "host/checks/crash.h"
#include "host/checks/watchdog.h"
#include "host/schedule/controlled_scheduler.h"
#include "tests/kit/driver_fixture.h"
#include "tests/kit/settings.h"

#include <cstdlib>
#include <fstream>

namespace tests {

using host::schedule::ControlledScheduler;
using host::schedule::SchedulerOptions;
using host::schedule::YieldKind;
using host::schedule::YieldPoint;
using Threads = std::vector<ControlledScheduler::Thread>;
using States = std::vector<ULONG>;

// Every schedule of two preemptions takes five minutes under emulation; the calls are the same as elsewhere.
#if defined(ZEPN_EMULATED)
inline constexpr unsigned kPreemptions = 1;
inline constexpr unsigned kRandomSchedules = 10;
#else
inline constexpr unsigned kPreemptions = 2;
inline constexpr unsigned kRandomSchedules = 60;
#endif

// A machine of its own for one schedule.
struct ScheduledRun : DriverFixture {
    ScheduledRun(const Container& container, ControlledScheduler& byScheduler)
        : DriverFixture(container, {.machine = {.keepsCode = kKeepsCode}, .records = false}), scheduler(byScheduler)
    {
    }

    // Runs the threads by the schedule; each must come back.
    void All(const Threads& threads)
    {
        for (const host::Outcome& outcome : scheduler.Run(machine, threads)) {
            if (outcome.parked) {
                ADD_FAILURE() << outcome.reason;
                Abandon();
            }
        }
    }

    // ... and then what is still queued.
    void AllThenDeliver(const Threads& threads)
    {
        All(threads);
        Deliver();
    }

    // Threads of one call that must succeed, and one that runs what is queued.
    [[nodiscard]] ControlledScheduler::Thread Posts(const Peer& peer, ULONG state)
    {
        return {"post", [=, this, &peer] { EXPECT_EQ(Post(peer, state), STATUS_SUCCESS); }};
    }
    [[nodiscard]] ControlledScheduler::Thread Sends(const Peer& sender, const Peer& target, ULONG id)
    {
        return {"command", [=, this, &sender, &target] { EXPECT_EQ(Send(sender, target, id), STATUS_SUCCESS); }};
    }
    [[nodiscard]] ControlledScheduler::Thread Leaves(const Peer& peer)
    {
        return {"leave", [this, &peer] { EXPECT_EQ(Leave(peer), STATUS_SUCCESS); }};
    }
    [[nodiscard]] ControlledScheduler::Thread Delivers()
    {
        return {"run", [this] { Deliver(); }};
    }

    // A client that is subscribed, and what it was notified of at once is forgotten.
    Peer& JoinWatching(const Peer& peer, const Peer& target, ULONG state)
    {
        Peer& watching = Join(peer);
        EXPECT_EQ(Subscribe(watching, target, state), STATUS_SUCCESS);
        watching.deliveries.clear();
        return watching;
    }

    ControlledScheduler& scheduler;
};
using Play = std::function<void(ScheduledRun& run)>;

class Systematic : public OnContainer {
protected:
    // Plays a scenario by every schedule up to a preemption bound, at locks or at every call, and by some random ones.
    void Explore(const std::string& name, const Play& play, unsigned preemptions = kPreemptions, bool everyCall = false)
    {
        if (HasFailure()) {
            return;  // a scenario before this one failed: nothing here could be distinguished from that
        }
        const std::string replay = Setting("ZEPN_SCHEDULE");
        const std::string more = Setting("ZEPN_SCHEDULES");
        const unsigned random = more.empty() ? kRandomSchedules : static_cast<unsigned>(std::stoul(more));
        std::vector<SchedulerOptions> plans = {
            {.preemptions = preemptions, .everyCall = everyCall},
            {.preemptions = 5, .everyCall = true, .random = random, .seed = 7},
        };
        if (!replay.empty()) {
            if (!replay.starts_with(name + ": ")) {
                return;
            }
            hasReplayed_ = true;
            plans = {{.replay = replay.substr(name.size() + 2)}};
        }
        std::vector<unsigned> counts;
        for (const SchedulerOptions& plan : plans) {
            ControlledScheduler scheduler(plan);
            const auto failed = [&] {
                return name + " fails; ZEPN_SCHEDULE=\"" + name + ": " + scheduler.Schedule() + "\" replays it";
            };
            const host::checks::CrashContext words(failed);
            while (scheduler.Next()) {
                host::checks::Watchdog::Progress();
                {
                    ScheduledRun run(GetParam(), scheduler);
                    play(run);
                }
                if (HasFailure()) {
                    ADD_FAILURE() << failed();
                    return;
                }
            }
            EXPECT_TRUE(plan.random != 0 || !replay.empty() || scheduler.IsComplete())
                << name << ": not all schedules were played";
            counts.push_back(scheduler.Count());
        }
        if (!replay.empty()) {
            return;
        }
        const std::filesystem::path folder = ResultsFolder() / "statistics" / "concurrency";
        std::filesystem::create_directories(folder);
        std::ofstream(folder / (std::string(GetParam().name) + ", " + name + ".txt"))
            << "schedules, " << GetParam().name << ", " << name << ": " << counts[0] << " to " << preemptions
            << " preemptions, " << counts[1] << " random\n";
    }

    [[nodiscard]] static bool IsReplay() { return !Setting("ZEPN_SCHEDULE").empty(); }

    void TearDown() override
    {
        if (IsReplay() && !hasReplayed_) {
            GTEST_SKIP() << "no scenario here bears the name that ZEPN_SCHEDULE begins with";
        }
    }

private:
    static std::string Setting(const char* name)
    {
        const char* value = std::getenv(name);
        return value == nullptr ? "" : value;
    }

    bool hasReplayed_ = false;
};

inline States StatesFrom(const Peer& subscriber, const Peer& poster)
{
    States states;
    for (const ZepState& state : subscriber.deliveries) {
        if (state.InterfaceGUID.Data1 == poster.guid.Data1) {
            states.push_back(state.State);
        }
    }
    return states;
}

}  // namespace tests
