#include "tools/play/player.h"

#include "tools/play/report_listener.h"
#include "tools/play/steps.h"

#include <optional>

namespace play {
namespace {

void Do(Run& run, const Step& step)
{
    switch (step.action) {
    case Action::kNote:
        run.timeline.Add({EntryKind::kHeading, "", "", step.text, "", true});
        return;
    case Action::kRegister:
    case Action::kSubscribe:
    case Action::kUnsubscribe:
    case Action::kPost:
    case Action::kLeave:
    case Action::kCommand:
        DoClientStep(run, step);
        return;
    case Action::kStartDump:
    case Action::kAddDumpData:
    case Action::kQueryDump:
    case Action::kAddTriageData:
    case Action::kStopDump:
        DoDumpStep(run, step);
        return;
    case Action::kAttach:
    case Action::kDetach:
    case Action::kCount:
    case Action::kDescribe:
        DoCrashDumpStep(run, step);
        return;
    default:
        DoSystemStep(run, step);
    }
}

}  // namespace

bool Play(const Scenario& scenario, const PlayOptions& options, Timeline& timeline)
{
    Run run(scenario, timeline, options.realTime);
    std::optional<ReportListener> reports;
    if (ReportListener::IsWanted(options)) {
        reports.emplace(options, run.machine.tracing(), timeline);
    }
    run.Boot(options.image);
    unsigned number = 0;
    for (const Step& step : scenario.steps) {
        if (step.action != Action::kNote) {
            timeline.BeginStep(++number);
        }
        run.Arm(step);
        Do(run, step);
        run.ShowFinding();
        run.Disarm(step);
    }
    run.End();
    if (reports) {
        reports->Finish();
    }
    return run.IsGood();
}

}  // namespace play
