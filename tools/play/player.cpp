#include "tools/play/player.h"

#include "host/checks/crash.h"
#include "tools/play/report_listener.h"
#include "tools/play/steps.h"

#include <optional>

namespace play {
namespace {

void Do(Run& run, const Step& step)
{
    if (IsOfClient(step.kind)) {
        DoClientStep(run, step);
        return;
    }
    switch (step.kind) {
    case Kind::kNote:
        run.timeline.Add({EntryKind::kHeading, "", "", step.text, "", true});
        return;
    case Kind::kAttach:
    case Kind::kDetach:
    case Kind::kCount:
    case Kind::kDescribe:
        DoCrashDumpStep(run, step);
        return;
    case Kind::kLoad:
    case Kind::kStop:
    case Kind::kPull:
    case Kind::kUnload:
    case Kind::kExpect:
        DoDriverStep(run, step);
        return;
    default:
        DoSystemStep(run, step);
    }
}

}  // namespace

bool Play(const Scenario& scenario, const PlayOptions& options, Timeline& timeline)
{
    Run run(scenario, options, timeline);
    std::optional<ReportListener> reports;
    if (ReportListener::IsWanted(options)) {
        reports.emplace(options, run.machine.tracing(), timeline);
    }
    run.Boot();
    unsigned number = 0;
    unsigned line = 0;
    const auto at = [&scenario, &line] { return scenario.file + ":" + std::to_string(line); };
    const host::checks::CrashContext context([&] { return "in step " + std::to_string(number) + ", " + at(); });
    for (const Step& step : scenario.steps) {
        line = step.line;
        if (step.kind != Kind::kNote) {
            timeline.BeginStep(++number);
        }
        if (const char* obstacle = run.ObstacleTo(step)) {
            run.LeaveOut(step, obstacle);
            continue;
        }
        run.peers.BeginStep();
        run.Arm(step);
        try {
            Do(run, step);
        } catch (const host::HostError& error) {
            throw host::HostError(at() + ": " + error.what());  // an image is refused
        }
        run.ShowFindings();
        run.Disarm(step);
    }
    run.End();
    if (reports) {
        reports->Finish();
    }
    return run.IsGood();
}

}  // namespace play
